#include <NetBase/buffers/kyNetInterfaceOptions.h>

#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/serialization/kyNetSerializer.h>

namespace {

int orDefault(std::int32_t channels, int byDefault)
{
    return channels > 0 ? channels : byDefault;
}

} // namespace

int kyNetInterfaceOptions::getChannels(kyNodeConnectionType type) const
{
    switch (type) {
    case kyNodeConnectionType::Sync:
        return orDefault(m_syncChannels, kyNetOptions::getSyncChannels());
    case kyNodeConnectionType::Image:
        return orDefault(m_imageChannels, kyNetOptions::getImageChannels());
    case kyNodeConnectionType::LowLatency:
        return orDefault(m_lowLatencyChannels, kyNetOptions::getLowLatencyChannels());
    default:
        return kyNetOptions::getImageChannels();
    }
}

void kyNetInterfaceOptions::add(const kyNetInterfaceOptions& other)
{
    if (other.m_nodeAffinity >= 0) {
        m_nodeAffinity = other.m_nodeAffinity;
    }
    if (!other.m_ibDevice.empty()) {
        m_ibDevice = other.m_ibDevice;
    }
    if (other.m_ibPort >= 0) {
        m_ibPort = other.m_ibPort;
    }
    if (other.m_syncChannels > 0) {
        m_syncChannels = other.m_syncChannels;
    }
    if (other.m_imageChannels > 0) {
        m_imageChannels = other.m_imageChannels;
    }
    if (other.m_lowLatencyChannels > 0) {
        m_imageChannels = other.m_lowLatencyChannels; // Crosses over, as the header says.
    }
    m_encrypted = m_encrypted || other.m_encrypted;
}

void kyNetInterfaceOptions::putValue(kyNetSerializer& serializer) const
{
    serializer << m_nodeAffinity << m_ibDevice << m_ibPort << m_syncChannels << m_imageChannels
               << m_lowLatencyChannels << m_encrypted;
}

void kyNetInterfaceOptions::getValue(kyNetSerializer& serializer)
{
    serializer >> m_nodeAffinity >> m_ibDevice >> m_ibPort >> m_syncChannels >> m_imageChannels >>
        m_lowLatencyChannels >> m_encrypted;
}
