#pragma once

#include <cstdint>

namespace kyTest {

/// A text too long to be real: its pages are the same few over and over, so it takes addresses and
/// hardly any memory.
///
/// One source per system stands in platform/.
class LongText
{
public:
    /// Of `length` characters 'x' and a zero byte.
    explicit LongText(std::uint64_t length);
    ~LongText();

    LongText(const LongText&) = delete;
    LongText& operator=(const LongText&) = delete;

    const char* get() const { return m_begin; }

private:
    char* m_addresses;
    std::uint64_t m_size;
    const char* m_begin;
};

} // namespace kyTest
