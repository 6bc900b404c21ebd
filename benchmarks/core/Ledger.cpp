#include <benchmarks/core/Ledger.h>

#include <stdexcept>
#include <string>

namespace bench {

void Ledger::enter(const Message& message)
{
    Phase phase{};
    const std::uint64_t number = m_content.check(message, phase);
    markAsSeen(number);
    if (phase != Phase::WarmUp) {
        if (!m_begin) {
            m_begin = Moment::now();
        }
        ++m_measured;
    }
    if (phase == Phase::Last) {
        m_expected = number + 1;
    }
    if (isComplete()) {
        m_end = Moment::now();
    }
}

void Ledger::markAsSeen(std::uint64_t number)
{
    if (number >= m_seen.size()) {
        m_seen.resize(2 * number + 1024);
    }
    if (m_seen[number]) {
        throw std::runtime_error("received number " + std::to_string(number) + " twice");
    }
    m_seen[number] = true;
    ++m_count;
}

} // namespace bench
