#pragma once

#include <cstddef>
#include <string>

/// What the tests ask the operating system about the process they run in.
///
/// One source per system stands in platform/.
namespace kyTest {

/// The open descriptors of this process, in words: "4 -> socket:[1234]", a line each.
std::string describeDescriptors();

/// How many descriptors this process holds open.
std::size_t countDescriptors();

/// The number that the next descriptor gets: as a limit it leaves room for none.
std::size_t nextDescriptor();

/// How many threads this process runs, the caller's included.
std::size_t countThreads();

/// How many child processes this process has, finished ones that nobody collected included.
std::size_t countChildren();

/// Lowers the number of descriptors that this process may have open; undone on destruction.
class DescriptorLimit
{
public:
    explicit DescriptorLimit(std::size_t limit);
    ~DescriptorLimit();

    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    std::size_t m_previous;
};

} // namespace kyTest
