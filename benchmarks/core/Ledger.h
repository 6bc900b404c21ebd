#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <benchmarks/core/Content.h>
#include <benchmarks/core/Stopwatch.h>

namespace bench {

/// What a receiver keeps of the messages of a run: that each came exactly once and whole, and when
/// the measured ones began and ended.
class Ledger
{
public:
    explicit Ledger(const Content& content) : m_content(content) {}

    /// Enters a message. Throws std::runtime_error if it is not sound or was there before.
    void enter(const Message& message);

    /// Whether every message up to the last one is there.
    bool isComplete() const { return m_expected && m_count == *m_expected; }

    /// All messages that have come.
    std::uint64_t getCount() const { return m_count; }

    /// Measured messages behind the first one.
    std::uint64_t getMeasured() const { return m_measured - 1; }

    /// What these took: from the arrival of the first one to that of the last one.
    double getSeconds() const { return m_end.secondsSince(*m_begin); }
    double getProcessorSeconds() const { return m_end.processorSecondsSince(*m_begin); }

private:
    void markAsSeen(std::uint64_t number);

    const Content& m_content;
    std::vector<bool> m_seen;
    std::uint64_t m_count = 0;
    std::uint64_t m_measured = 0;
    std::optional<std::uint64_t> m_expected;
    std::optional<Moment> m_begin;
    Moment m_end{};
};

} // namespace bench
