#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <benchmarks/core/Channel.h>

namespace bench {

/// Which part of a run a message belongs to.
enum class Phase : std::uint64_t
{
    WarmUp = 0,   ///< not measured
    Measured = 1, ///< measured
    Last = 2      ///< measured, and none has a higher number
};

/// What stands in a message: its number and phase, and contents by which the receiver sees that it
/// is whole and belongs to this number.
///
///     | number and phase, 8 | ... | check word, 8 | ... | check word, 8 |
///
/// There is a check word in each page of 4096 bytes and one at the end, which costs either side a
/// few nanoseconds a page, whatever the transport. With a data file the rest is a piece of that,
/// and is compared as a whole.
class Content
{
public:
    /// Of messages of this size; the file may be empty.
    Content(std::uint64_t size, const std::string& dataFile);

    /// Writes message `number`.
    void write(char* message, std::uint64_t number, Phase phase) const;

    /// Throws std::runtime_error if a message is not as write makes it; else its number and phase.
    std::uint64_t check(const Message& message, Phase& phase) const;

private:
    const char* getPiece(std::uint64_t number) const;

    std::uint64_t m_size;
    std::vector<char> m_data;
};

} // namespace bench
