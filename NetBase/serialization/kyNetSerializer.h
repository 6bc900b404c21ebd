#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <NetBase/buffers/kyNetHeader.h>
#include <NetBase/kyNetBaseExport.h>

class kyNetBuffer;
class kyNetSerializer;

/// Which values a kyNetSerializer takes in which form, and how it copies short texts.
namespace kyNetValue {

/// Nothing for a serializer, which has such functions, too, but is no record.
template <class T> using NoSerializer = std::enable_if_t<!std::is_base_of_v<kyNetSerializer, T>>;

template <class T, class = void> struct HasPutValue : std::false_type
{
};
template <class T>
struct HasPutValue<T, std::void_t<NoSerializer<T>, decltype(std::declval<const T&>().putValue(
                                                       std::declval<kyNetSerializer&>()))>>
    : std::true_type
{
};

template <class T, class = void> struct HasGetValue : std::false_type
{
};
template <class T>
struct HasGetValue<T, std::void_t<NoSerializer<T>, decltype(std::declval<T&>().getValue(
                                                       std::declval<kyNetSerializer&>()))>>
    : std::true_type
{
};

template <class T> struct IsStringView : std::false_type
{
};
template <class Char> struct IsStringView<std::basic_string_view<Char>> : std::true_type
{
};

/// Values that mean nothing in another process, or have another size there.
template <class T>
constexpr bool isLocalOnly =
    std::is_pointer_v<T> || std::is_member_pointer_v<T> || std::is_null_pointer_v<T> ||
    IsStringView<T>::value || std::is_same_v<T, wchar_t> || std::is_same_v<T, long double>;

/// Values that travel as the bytes that they are in memory: integers, floating point numbers,
/// enumerations, and plain structures of them. Empty classes are none: they are most often lambdas.
template <class T>
constexpr bool isFixedSize =
    std::is_trivially_copyable_v<T> && !std::is_const_v<T> && !std::is_array_v<T> &&
    !std::is_empty_v<T> && !isLocalOnly<T> && !HasPutValue<T>::value && !HasGetValue<T>::value;

/// Copies the first and the last bytes, as many as a register holds; together they are all.
template <std::size_t Half> void copyEnds(char* to, const char* from, std::size_t size)
{
    std::array<char, Half> first;
    std::array<char, Half> last;
    std::memcpy(first.data(), from, Half);
    std::memcpy(last.data(), from + size - Half, Half);
    std::memcpy(to, first.data(), Half);
    std::memcpy(to + size - Half, last.data(), Half);
}

/// Most texts are short: for them a call costs more than the copying.
inline void copyText(char* to, const char* from, std::size_t size)
{
    if (size >= 16 && size <= 32) {
        copyEnds<16>(to, from, size);
    } else if (size >= 8 && size < 16) {
        copyEnds<8>(to, from, size);
    } else {
        std::memcpy(to, from, size);
    }
}

} // namespace kyNetValue

/// Turns values into a sequence of buffers and back.
///
/// It does not know where buffers go or come from; the two classes over it do: kyNetMessage is one
/// buffer, kyNetStream as many as it takes.
///
///     stream << std::int32_t{7} << "tile" << record;
///     stream >> number >> text >> record;
///
/// On the wire values follow each other in the order written, little-endian, without names, counts
/// or padding, and may be cut at any byte where a buffer ends:
///
///     number, enumeration, bool | its bytes in memory
///     size (putValueSize)       | 8 bytes, unsigned
///     text                      | length + 1 in 4 bytes, the characters, a zero byte
///     record                    | its fields, as its putValue writes them
///
/// A record is a class with putValue(kyNetSerializer&) const and getValue(kyNetSerializer&). A
/// plain structure without them travels as it stands in memory, padding included: give a
/// structure that comes from a foreign peer the two functions, and its bools and enumerations are
/// read one by one. Pointers, views of strings, wchar_t and long double do not compile. Mind that
/// long has another size on other systems.
///
/// Ownership: it holds the buffer being written and the one being read; the latter goes back to
/// the pool with its last byte. What was written and not flushed or taken is lost with the object.
/// A copy shares both buffers and continues at the same places: never write through both.
///
/// Threads: one may write while another one reads; nothing here locks.
class KY_NETBASE_EXPORT kyNetSerializer
{
public:
    /// Without buffers. A buffer is full after `sendThreshold` bytes of data, see
    /// setSendThreshold.
    explicit kyNetSerializer(int sendThreshold);

    /// Sets how many bytes of data the next send buffer takes, 0 to the capacity of a buffer;
    /// values beyond either end become that end. 0 is one buffer of full capacity that is never
    /// passed on when it is full: writing more throws.
    void setSendThreshold(int sendThreshold);

    /// Appends `size` bytes. Passes each buffer on that becomes too small, which may block and
    /// throws what sendBuffer throws. Throws kyNetError if the threshold is 0 and the buffer is
    /// full; what fitted stays in it.
    void putBytes(const void* source, std::uint64_t size);

    /// Reads `size` bytes, waiting for further buffers. Throws what recvBuffer throws; the bytes
    /// that were there have been copied then.
    void getBytes(void* target, std::uint64_t size);

    /// Writes a fixed-size value.
    template <class T> std::enable_if_t<kyNetValue::isFixedSize<T>> putValue(const T& value)
    {
        // The place is set once and last, on both ways: that lets a loop keep it in a register.
        char* position = m_send.position;
        if (sizeof(T) < m_send.getSize()) {
            std::memcpy(position, std::addressof(value), sizeof(T));
            position += sizeof(T);
        } else {
            putBytes(std::addressof(value), sizeof(T));
            position = m_send.position;
        }
        m_send.position = position;
    }

    /// Writes a record.
    template <class T> std::enable_if_t<kyNetValue::HasPutValue<T>::value> putValue(const T& record)
    {
        record.putValue(*this);
    }

    /// Writes a text; null as the empty one. Throws kyNetError for one of 4 GiB and more.
    void putValue(const char* text)
    {
        if (text == nullptr) {
            text = "";
        }
        const std::uint64_t size = std::strlen(text) + 1;
        const auto length = static_cast<std::uint32_t>(size);
        if (sizeof length + size < m_send.getSize()) {
            char* const begin = m_send.position + sizeof length;
            std::memcpy(m_send.position, &length, sizeof length);
            kyNetValue::copyText(begin, text, size);
            m_send.position = begin + size;
        } else {
            putSplitText(text, size);
        }
    }

    /// Writes a text up to its first zero byte.
    void putValue(const std::string& text) { putValue(text.c_str()); }

    /// Reads a fixed-size value.
    template <class T> std::enable_if_t<kyNetValue::isFixedSize<T>> getValue(T& value)
    {
        // The place as in putValue.
        char* position = m_recv.position;
        if (sizeof(T) < m_recv.getSize()) {
            std::memcpy(static_cast<void*>(std::addressof(value)), position, sizeof(T));
            position += sizeof(T);
        } else {
            getBytes(std::addressof(value), sizeof(T));
            position = m_recv.position;
        }
        m_recv.position = position;
    }

    /// Reads a record.
    template <class T> std::enable_if_t<kyNetValue::HasGetValue<T>::value> getValue(T& record)
    {
        record.getValue(*this);
    }

    /// Reads one byte; all but 0 are true.
    void getValue(bool& value);

    /// Reads a text. It grows as its bytes arrive, whatever length the peer announces; a failure
    /// leaves the part that has come.
    void getValue(std::string& text)
    {
        const std::uint64_t unread = m_recv.getSize();
        std::uint32_t size = 0;
        if (sizeof size < unread) {
            std::memcpy(&size, m_recv.position, sizeof size);
        }
        if (size > 0 && size < unread - sizeof size) {
            char* const begin = m_recv.position + sizeof size;
            text.assign(begin, size - 1);
            m_recv.position = begin + size;
        } else {
            getSplitText(text);
        }
    }

    /// Writes and reads a count or size, 8 bytes on every system.
    void putValueSize(const std::uint64_t& size);
    void getValueSize(std::uint64_t& size);
    std::uint64_t getValueSize();

    /// Writes all that putValue takes.
    template <class T> auto operator<<(const T& value) -> decltype(putValue(value), *this)
    {
        putValue(value);
        return *this;
    }

    /// Reads all that getValue takes.
    template <class T> auto operator>>(T& value) -> decltype(getValue(value), *this)
    {
        getValue(value);
        return *this;
    }

    /// Calls a manipulator, such as kyNetStream::flush.
    kyNetSerializer& operator<<(kyNetSerializer& (*manipulator)(kyNetSerializer&))
    {
        manipulator(*this);
        return *this;
    }

    /// Room for the next `size` bytes in the send buffer, to be filled in before anything else is
    /// written. Throws kyNetError if the buffer has less: it is never passed on to make room.
    void* getOutputReference(std::uint64_t size);

    /// The next `size` bytes of the recv buffer, to be used before anything else is read; they
    /// count as read. Throws kyNetError if the buffer has fewer, and also if it has none at all:
    /// the next buffer is then there for the next call. For 0 bytes nothing is fetched.
    void* getInputReference(std::uint64_t size);

    /// The finished send buffer, to be passed on by the caller; empty if nothing was written.
    std::shared_ptr<kyNetBuffer> takeSendBuffer();

    /// Drops the send buffer with all that was written into it.
    void clearSendBuffer();

    /// Drops the recv buffer with all that was not read.
    void clearRecvBuffer();

    /// Reads from this buffer next; empty for none.
    virtual void setRecvBuffer(const std::shared_ptr<kyNetBuffer>& buffer);

    /// The type that send buffers get: StreamData.
    virtual kyNetMessageType getMessageType();

    /// Source, type and data size of the recv buffer, 0 without one.
    unsigned int getSource() const;
    kyNetMessageType getType() const;
    std::uint64_t getDataSize() const;

    /// Intended: the data size too, not the original data size of the header.
    std::uint64_t getOriginalDataSize() const { return getDataSize(); }

protected:
    kyNetSerializer(const kyNetSerializer&) = default;
    kyNetSerializer& operator=(const kyNetSerializer&) = default;

    /// Leaves the other without buffers.
    kyNetSerializer(kyNetSerializer&& other) noexcept;
    kyNetSerializer& operator=(kyNetSerializer&& other) noexcept;

    ~kyNetSerializer() = default;

    /// Stores the next incoming buffer in `buffer`; called when reading runs past the recv buffer.
    virtual void recvBuffer(std::shared_ptr<kyNetBuffer>& buffer) = 0;

    /// Passes a finished buffer on. If it throws, the buffer stays here and is passed on again by
    /// the next write or flush, unless it is cleared.
    virtual void sendBuffer(const std::shared_ptr<kyNetBuffer>& buffer) = 0;

    /// Whether a byte can be read without fetching a buffer.
    virtual bool isReadable();

    /// Passes the send buffer on, even one without data; nothing if there is none.
    void flushSendBuffer();

private:
    /// A buffer and the part of its data that is still free or unread. Without a buffer, or with
    /// one that is full or read, the part is empty.
    struct Area
    {
        std::shared_ptr<kyNetBuffer> buffer;
        char* position = nullptr;
        char* end = nullptr;

        std::uint64_t getSize() const { return static_cast<std::uint64_t>(end - position); }
    };

    void putSplitText(const char* text, std::uint64_t size);
    void getSplitText(std::string& text);
    void setEmptySendBuffer();
    void finishSendBuffer();
    void setFinishedSize();
    void fetchRecvBuffer();
    void resetRecvPosition();

    Area m_recv;
    Area m_send;
    std::int64_t m_sendThreshold = 0;
};
