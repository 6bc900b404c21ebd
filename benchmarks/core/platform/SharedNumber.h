#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace bench {

/// A number that all processes of a run see at once: in a file that is part of their memory.
class SharedNumber
{
public:
    /// In this file, which is made if it does not exist; 0 at first. Throws std::system_error.
    explicit SharedNumber(const std::string& path);
    ~SharedNumber();

    SharedNumber(const SharedNumber&) = delete;
    SharedNumber& operator=(const SharedNumber&) = delete;

    std::uint64_t get() const { return m_number->load(std::memory_order_relaxed); }
    void set(std::uint64_t number) { m_number->store(number, std::memory_order_relaxed); }

private:
    std::atomic<std::uint64_t>* m_number;
};

} // namespace bench
