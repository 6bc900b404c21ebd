#pragma once

/// How tests count requests for memory, and make it run out.
namespace kyTest {

/// While it lives, one request of the calling thread for memory fails: the one behind so many that
/// are granted. One at a time for each thread.
class NoMemoryAfter
{
public:
    explicit NoMemoryAfter(int count);
    ~NoMemoryAfter();

    NoMemoryAfter(const NoMemoryAfter&) = delete;
    NoMemoryAfter& operator=(const NoMemoryAfter&) = delete;

    /// Whether there were so many requests that one has failed.
    bool hasFailed() const;
};

/// While it lives, every request of all threads but the one that made it fails. One at a time.
class NoMemoryElsewhere
{
public:
    NoMemoryElsewhere();
    ~NoMemoryElsewhere();

    NoMemoryElsewhere(const NoMemoryElsewhere&) = delete;
    NoMemoryElsewhere& operator=(const NoMemoryElsewhere&) = delete;
};

/// Counts the requests of all threads for memory while it lives. One at a time.
class CountedMemory
{
public:
    CountedMemory();
    ~CountedMemory();

    CountedMemory(const CountedMemory&) = delete;
    CountedMemory& operator=(const CountedMemory&) = delete;

    /// How many there have been.
    int getCount() const;
};

} // namespace kyTest
