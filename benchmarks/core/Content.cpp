#include <benchmarks/core/Content.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace bench {

namespace {

constexpr std::uint64_t s_word = sizeof(std::uint64_t);
constexpr std::uint64_t s_page = 4096;
constexpr int s_phaseShift = 62;
constexpr std::uint64_t s_numberMask = (std::uint64_t{1} << s_phaseShift) - 1;

std::uint64_t readWord(const char* position)
{
    std::uint64_t word = 0;
    std::memcpy(&word, position, s_word);
    return word;
}

void writeWord(char* position, std::uint64_t word)
{
    std::memcpy(position, &word, s_word);
}

/// Differs in every number and at every place.
std::uint64_t checkWord(std::uint64_t head, std::uint64_t place)
{
    return (head ^ (place << 32)) * 0x9e3779b97f4a7c15U;
}

/// Calls `visit` with the place of each check word.
template <class Visit> void forEachPlace(std::uint64_t size, Visit visit)
{
    for (std::uint64_t place = s_word; place + 2 * s_word <= size; place += s_page) {
        visit(place);
    }
    visit(size - s_word);
}

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error("received a message " + what);
}

} // namespace

Content::Content(std::uint64_t size, const std::string& dataFile) : m_size(size)
{
    if (!dataFile.empty()) {
        std::ifstream file(dataFile, std::ios::binary);
        m_data.assign(std::istreambuf_iterator<char>(file), {});
        if (m_data.size() < size) {
            throw std::runtime_error(dataFile + " holds less than one message");
        }
    }
}

void Content::write(char* message, std::uint64_t number, Phase phase) const
{
    const std::uint64_t head = number | static_cast<std::uint64_t>(phase) << s_phaseShift;
    if (!m_data.empty()) {
        std::memcpy(message, getPiece(number), m_size);
    } else {
        forEachPlace(m_size, [&](std::uint64_t place) {
            writeWord(message + place, checkWord(head, place));
        });
    }
    writeWord(message, head);
}

std::uint64_t Content::check(const Message& message, Phase& phase) const
{
    if (message.size != m_size) {
        fail("of " + std::to_string(message.size) + " bytes instead of " + std::to_string(m_size));
    }
    const std::uint64_t head = readWord(message.data);
    const std::uint64_t number = head & s_numberMask;
    bool isSound = true;
    if (!m_data.empty()) {
        isSound =
            std::memcmp(message.data + s_word, getPiece(number) + s_word, m_size - s_word) == 0;
    } else {
        forEachPlace(m_size, [&](std::uint64_t place) {
            isSound &= readWord(message.data + place) == checkWord(head, place);
        });
    }
    if (!isSound) {
        fail("whose contents are not those of number " + std::to_string(number));
    }
    phase = static_cast<Phase>(head >> s_phaseShift);
    return number;
}

const char* Content::getPiece(std::uint64_t number) const
{
    return m_data.data() + number % (m_data.size() / m_size) * m_size;
}

} // namespace bench
