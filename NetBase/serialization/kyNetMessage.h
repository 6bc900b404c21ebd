#pragma once

#include <NetBase/kyNetBaseExport.h>
#include <NetBase/serialization/kyNetSerializer.h>

/// A message that fits into one buffer.
///
/// Write values into it and let a stream send it; let a stream receive one and read them back:
///
///     kyNetMessage message;
///     message << tile << seconds;
///     stream.sendMessage(message, 2, kyNetBufferSendMode::Automatic);
///
/// It never sends or receives by itself: writing more than the capacity of a buffer, and reading
/// more than the message holds, throws kyNetError. Whoever derives a message gives it a type of
/// its own with getMessageType, and receives it as such.
///
/// Ownership and threads are those of kyNetSerializer. It has no virtual destructor: never delete
/// a derived message by a pointer to this class.
class KY_NETBASE_EXPORT kyNetMessage : public kyNetSerializer
{
public:
    /// A message without a buffer; the first value written takes one.
    kyNetMessage();

    /// The type that stream readers expect by default: Message.
    kyNetMessageType getMessageType() override;

protected:
    /// Throws kyNetError: the message ends here.
    void recvBuffer(std::shared_ptr<kyNetBuffer>& buffer) override;

    /// Throws kyNetError: only a stream sends.
    void sendBuffer(const std::shared_ptr<kyNetBuffer>& buffer) override;
};
