#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetHeader.h>
#include <NetBase/kyNetBaseExport.h>
#include <NetBase/serialization/kyNetSerializer.h>

class kyNetLink;
class kyNetMessage;
class kyNetReceiver;
class kyNetSender;

/// The conversation between the ranks of a job: values, messages, synchronisation and results, over
/// a chain of senders and a chain of receivers.
///
///     kyNetStream stream(link);
///     stream << 7 << "tile" << kyNetStream::flush;
///     stream.recvResult() >> seconds;
///
/// Values are sent when a buffer is full and when flush is called: nothing has left before. That
/// flush returned means that the sender has them, not that the peer does. Each buffer carries
/// this stream's rank and a number that counts the buffers for all ranks (multicasts), by which
/// a receiver over several links restores their order.
///
/// Values, messages and synchronisation share the way to the reader, who must ask for exactly
/// what the writer sent next; everything else throws "Stream out of sync...", and the buffer that
/// was not expected is gone.
///
/// Rank 1 is the master of synchronisation: it sends to all and collects one answer from each,
/// all others answer to it alone. A buffer for the own rank goes straight to the own receiver, if
/// that has a queue; most throw kyNetError "Adding buffer to queue not supported by this
/// receiver", and only one that decompresses accepts it.
///
/// Failures: what the chains throw passes through. Without the sender or receiver that a call
/// needs it throws kyConnectionClosed.
///
/// Ownership: shares sender and receiver with whoever set them and with copies of the stream.
/// Destruction neither flushes nor shuts down.
///
/// Threads: one may write while another one reads; nothing here locks. shutdown may be called by
/// any thread and wakes both.
class KY_NETBASE_EXPORT kyNetStream : public kyNetSerializer
{
public:
    /// Without sender and receiver, rank 0.
    kyNetStream();

    /// Over one link, which serves every destination and none in particular; as the default
    /// constructor if it is empty.
    explicit kyNetStream(const std::shared_ptr<kyNetLink>& link);

    /// Share sender and receiver, and buffers as kyNetSerializer says; copy all else. What was
    /// moved from has the rank, and neither buffers nor chains.
    kyNetStream(const kyNetStream&) = default;
    kyNetStream(kyNetStream&&) = default;
    kyNetStream& operator=(const kyNetStream&) = default;
    kyNetStream& operator=(kyNetStream&&) = default;

    virtual ~kyNetStream();

    /// Sends over this chain from now on; what was written and not flushed is dropped.
    void setSender(const std::shared_ptr<kyNetSender>& sender);
    const std::shared_ptr<kyNetSender>& getSender() const { return m_sender; }

    /// Receives over this chain from now on; what was received and not read is dropped.
    void setReceiver(const std::shared_ptr<kyNetReceiver>& receiver);
    const std::shared_ptr<kyNetReceiver>& getReceiver() const { return m_receiver; }

    /// The rank of this process, the source of all that is sent.
    int getRank() const { return m_rank; }
    void setRank(int rank) { m_rank = rank; }

    /// How many ranks the sender reaches, 0 without one.
    int getDestinationCount() const;

    /// The first link of the sender. Throws kyConnectionClosed if there is none.
    std::shared_ptr<kyNetLink> getFirstLink() const;

    /// Sends what was written into the message to one rank, or to all for destination 0, and
    /// leaves the message without a buffer. Blocks as the sender does. Throws kyNetError if
    /// nothing was written into it. Values that were not flushed stay behind.
    void sendMessage(kyNetMessage& message, int destination, kyNetBufferSendMode mode);

    /// Waits for the next buffer, which must have the message's type, and gives it to the message.
    void recvMessage(kyNetMessage& message);

    /// Sends a value to all other ranks (as rank 1) or to rank 1 (as any other). Values that were
    /// not flushed stay behind: flush first when the order matters.
    void sendSync(int value);

    /// Waits for what sendSync sent: rank 1 for one answer of every destination, returning the
    /// last one's value, or at once with 0 if it has no destinations; others for one value.
    /// Throws kyNetError if one rank answers twice.
    int waitSync();

    /// Writes that an operation has succeeded; values of the answer may follow. Not flushed.
    kyNetStream& sendSuccess();

    /// Writes that an operation has failed, and the text of it. Not flushed.
    kyNetStream& sendException(const std::exception& exception);

    /// Reads a result: returns after a success, throws kyNetError with the text of a failure,
    /// whatever its type was on the other side.
    kyNetStream& recvResult();

    /// Passes on what was written, down to the sender. Blocks as that does.
    void flush();

    /// The manipulator: flushes a stream. Throws kyNetError if it is another serializer.
    static kyNetSerializer& flush(kyNetSerializer& stream);

    /// Bytes sent and received through this stream, headers included.
    std::uint64_t getSentBytes() const { return m_sentBytes; }
    std::uint64_t getRecevedBytes() const { return m_receivedBytes; }

    /// Bytes that the sender's compression made of those it compressed, 0 without a sender.
    std::uint64_t getCompressedBytes() const;

    /// Sets all three counts to 0.
    void resetStatistics();

    /// Blocks until threads of the sender have passed on all that it was given.
    void waitAllDataTransfered();

    /// Receives and discards until that throws, normally kyConnectionClosed.
    void recvAll();

    /// Shuts down every link of both chains. Any thread.
    void shutdown();

    /// Whether a read would not wait for the network; false without a receiver. A receiver that
    /// cannot tell says true.
    bool isReadable() override;

    /// The receiver's name for its link.
    std::string getLinkName() const;

protected:
    /// Receives a buffer of stream data. Throws kyNetError for any other; `buffer` is untouched
    /// then.
    void recvBuffer(std::shared_ptr<kyNetBuffer>& buffer) override;

    /// Stamps rank and sequence into the buffer and sends it where its destination says.
    void sendBuffer(const std::shared_ptr<kyNetBuffer>& buffer) override;

private:
    std::shared_ptr<kyNetBuffer> recvAnyBuffer();

    std::shared_ptr<kyNetReceiver> m_receiver;
    std::shared_ptr<kyNetSender> m_sender;
    std::int32_t m_rank = 0;
    std::uint32_t m_sequence = 0; ///< Of the next multicast; its low 16 bits travel.
    std::uint64_t m_sentBytes = 0;
    std::uint64_t m_receivedBytes = 0;
};
