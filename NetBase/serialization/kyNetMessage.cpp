#include <NetBase/serialization/kyNetMessage.h>

#include <NetBase/buffers/kyNetError.h>

kyNetMessage::kyNetMessage() : kyNetSerializer(0) {}

kyNetMessageType kyNetMessage::getMessageType()
{
    return kyNetMessageType::Message;
}

void kyNetMessage::recvBuffer(std::shared_ptr<kyNetBuffer>&)
{
    throw kyNetError("kyNetMessage: try to read beyond buffer end.");
}

void kyNetMessage::sendBuffer(const std::shared_ptr<kyNetBuffer>&)
{
    throw kyNetError("kyNetMessage: unable to send buffer.");
}
