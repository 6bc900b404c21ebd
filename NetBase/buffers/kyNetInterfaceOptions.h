#pragma once

#include <cstdint>
#include <string>

#include <NetBase/kyNetBaseExport.h>

class kyNetSerializer;

/// What a connection between two nodes is for, which decides how many links it has. Other values
/// are possible; they have no setting of their own.
enum class kyNodeConnectionType : std::int32_t
{
    Sync = 1,      ///< synchronisation
    Image = 2,     ///< pixels
    LowLatency = 3 ///< small messages that must not wait
};

/// How the network interface of a node is to be used. A plain value that is copied, merged and
/// sent between processes:
///
///     options.add(ofThisNode);
///     stream << options;
///
/// Negative numbers, channel counts below 1 and an empty device mean "not set"; getChannels then
/// answers the library's own numbers.
class KY_NETBASE_EXPORT kyNetInterfaceOptions
{
public:
    /// Node that the threads of the connections are pinned to.
    std::int32_t getNodeAffinity() const { return m_nodeAffinity; }
    void setNodeAffinity(std::int32_t node) { m_nodeAffinity = node; }

    /// Name of the device, and its port.
    std::string getIbDevice() const { return m_ibDevice; }
    void setIbDevice(const std::string& device) { m_ibDevice = device; }
    std::int32_t getIbPort() const { return m_ibPort; }
    void setIbPort(std::int32_t port) { m_ibPort = port; }

    /// Links of each type of connection, as they were set; see getChannels.
    std::int32_t getSyncChannels() const { return m_syncChannels; }
    void setSyncChannels(std::int32_t channels) { m_syncChannels = channels; }
    std::int32_t getImageChannels() const { return m_imageChannels; }
    void setImageChannels(std::int32_t channels) { m_imageChannels = channels; }
    std::int32_t getLowLatencyChannels() const { return m_lowLatencyChannels; }
    void setLowLatencyChannels(std::int32_t channels) { m_lowLatencyChannels = channels; }

    /// Whether what goes over the interface is to be encrypted.
    bool getEncrypted() const { return m_encrypted; }
    void setEncrypted(bool encrypted) { m_encrypted = encrypted; }

    /// How many links a connection of this type gets: as set, else 1 for synchronisation, 6 for
    /// low latency, 4 for all others.
    int getChannels(kyNodeConnectionType type) const;

    /// Takes over what is set in the other one. Intended: its low latency channels become the
    /// image channels here, and the low latency channels here stay.
    void add(const kyNetInterfaceOptions& other);

    /// Writes all fields in the order of their declaration, and reads them. Throw what the
    /// serializer throws; a read that fails leaves the fields that have come.
    void putValue(kyNetSerializer& serializer) const;
    void getValue(kyNetSerializer& serializer);

private:
    std::int32_t m_nodeAffinity = -1;
    std::string m_ibDevice;
    std::int32_t m_ibPort = -1;
    std::int32_t m_syncChannels = -1;
    std::int32_t m_imageChannels = -1;
    std::int32_t m_lowLatencyChannels = -1;
    bool m_encrypted = false;
};
