#include <NetBase/buffers/kyNetBuffer.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <locale>
#include <mutex>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/buffers/kyNetError.h>

namespace {

/// Large blocks of memory begin at the same place of a page each. Headers there would compete for a
/// few lines of the processors' caches: they stand at different places of their blocks.
std::shared_ptr<kyNetHeader> allocateBlock()
{
    constexpr std::size_t places = 32;
    constexpr std::size_t distance = 128; // What a small buffer takes.
    static std::atomic<std::size_t> s_count{0};
    const std::size_t place = s_count++ % places * distance;

    auto* const block = static_cast<char*>(
        std::malloc(place + kyNetBuffer::getHeaderSize() + kyNetBuffer::getCapacity()));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return {reinterpret_cast<kyNetHeader*>(block + place),
            [block](kyNetHeader*) { std::free(block); }};
}

char* dataBehind(kyNetHeader* header)
{
    return reinterpret_cast<char*>(header) + kyNetBuffer::getHeaderSize();
}

/// Whether `next` may follow `first` into a bundle of `size` bytes.
bool canJoin(const kyNetBuffer& first, std::uint64_t size, const kyNetBuffer& next)
{
    // Intended: the bundle never becomes exactly as large as the capacity.
    return first.getDataSize() != 0 && next.getDataSize() != 0 &&
           first.getDestination() == next.getDestination() &&
           size + next.getBufferSize() < kyNetBuffer::getCapacity();
}

/// A bundle from the pool that holds the given buffer.
std::shared_ptr<kyNetBuffer> makeBundle(const std::shared_ptr<kyNetBuffer>& first)
{
    std::shared_ptr<kyNetBuffer> bundle = kyNetBufferPool::pop();
    bundle->copyHeaderFrom(*first);
    bundle->setType(kyNetMessageType::Bundle);
    bundle->setDataSize(0);
    bundle->setCompression(kyNetCompression::None, 0);
    bundle->setSequence(0);
    bundle->setSendMode(first->getSendMode());
    bundle->addToBundle(first);
    return bundle;
}

kyNetHeader readHeader(const char* entry)
{
    kyNetHeader header;
    std::memcpy(&header, entry, sizeof header);
    return header;
}

[[noreturn]] void refuseBundle()
{
    throw kyNetError("Received invalid bundle. Possibly stream is out of sync.");
}

/// How many entries a bundle holds. Throws if they do not fill its data exactly.
int countEntries(const kyNetBuffer& bundle)
{
    std::uint64_t left = bundle.getDataSize();
    if (left > kyNetBuffer::getCapacity()) {
        refuseBundle();
    }
    int count = 0;
    for (const char* entry = bundle.getData(); left != 0; ++count) {
        if (left < kyNetBuffer::getHeaderSize()) {
            refuseBundle();
        }
        left -= kyNetBuffer::getHeaderSize();

        const std::uint64_t size = readHeader(entry).dataSize;
        if (size > left) {
            refuseBundle();
        }
        left -= size;
        entry += kyNetBuffer::getHeaderSize() + size;
    }
    return count;
}

/// Writes bytes in hexadecimal, 16 a line behind the address of the first, in groups of four.
void dump(std::ostream& out, const char* data, std::uint64_t size)
{
    static const char* const s_digits = "0123456789abcdef";

    for (std::uint64_t line = 0; line < size; line += 16) {
        out << static_cast<const void*>(data + line);
        for (std::uint64_t i = line; i < std::min(line + 16, size); ++i) {
            if (i % 4 == 0) {
                out << ' ';
            }
            const auto byte = static_cast<unsigned char>(data[i]);
            out << s_digits[byte / 16] << s_digits[byte % 16];
        }
        out << '\n';
    }
}

} // namespace

kyNetBuffer::kyNetBuffer() : m_header(allocateBlock()), m_data(dataBehind(m_header.get())) {}

kyNetBuffer::kyNetBuffer(kyNetHeader* header, char* data)
    : m_header(header, std::free), m_data(data)
{
}

bool kyNetBuffer::tryBundle(std::queue<std::shared_ptr<kyNetBuffer>>& queue,
                            std::shared_ptr<kyNetBuffer>& out)
{
    if (queue.empty()) {
        return false;
    }
    out = std::move(queue.front());
    queue.pop();

    std::uint64_t size = out->getBufferSize();
    bool isNewBundle = false;
    while (!queue.empty() && canJoin(*out, size, *queue.front())) {
        if (!isNewBundle) {
            out = makeBundle(out);
            isNewBundle = true;
        }
        out->addToBundle(queue.front());
        size = out->getDataSize();
        queue.pop();
    }
    return true;
}

void kyNetBuffer::addToBundle(const std::shared_ptr<kyNetBuffer>& other)
{
    const bool isBundle = other->getType() == kyNetMessageType::Bundle;
    const void* begin = isBundle ? static_cast<const void*>(other->getData()) : other->getBuffer();
    const std::uint64_t size = isBundle ? other->getDataSize() : other->getBufferSize();

    std::memcpy(m_data + getDataSize(), begin, size);
    setDataSize(getDataSize() + size);
}

void kyNetBuffer::split(std::queue<std::shared_ptr<kyNetBuffer>>& out) const
{
    const int count = countEntries(*this);
    std::vector<std::shared_ptr<kyNetBuffer>> parts;
    parts.reserve(static_cast<std::size_t>(count));
    kyNetBufferPool::popMany(count, parts);

    const char* entry = m_data;
    for (std::shared_ptr<kyNetBuffer>& part : parts) {
        *part->m_header = readHeader(entry);
        entry += getHeaderSize();
        std::memcpy(part->m_data, entry, part->getDataSize());
        entry += part->getDataSize();

        // The old mode would lead the message where its last user went.
        part->setSendMode(kyNetBufferSendMode::Automatic);
        out.push(std::move(part));
    }
}

void kyNetBuffer::writeToLog() const
{
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << "Thread:" << std::this_thread::get_id() << '\n'
         << "Rank:" << getSource() << " Sequence:" << getSequence() << " Size:" << getDataSize()
         << " Uncompressed:" << getOriginalDataSize() << '\n';
    dump(text, m_data, std::min(getDataSize(), getCapacity()));

    const std::string bytes = text.str();
    static std::mutex s_mutex;
    const std::lock_guard<std::mutex> lock(s_mutex);
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    std::fflush(stdout);
}
