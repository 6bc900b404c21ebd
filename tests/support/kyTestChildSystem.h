#pragma once

#include <atomic>
#include <string>
#include <thread>

/// What a child program of the tests does with the system below it, and what the tests do to the
/// process that starts it.
///
/// One source per system stands in platform/.
namespace kyTest {

/// The path of a program that acts as a child; its last argument says what it does.
std::string childProgram(const std::string& name = "kyTestChild");

/// Lets this process write its bytes as they are, the ends of lines included.
void writeBytesAsTheyAre();

/// Makes this process deaf to polite requests to end.
void ignoreTermination();

/// What this process would not notice, in words; "" if every signal has its default effect.
std::string describeIgnoredSignals();

/// Leaves a process behind that writes to this one's standard output until nobody reads it, when
/// this one has ended.
void leaveOrphanThatWrites();

/// Gives up the rights of the administrator for good; false if this process has none.
bool becomeNobody();

/// Whether this process is the administrator's.
bool isAdministrator();

/// Makes a descriptor that child processes would inherit; closed on destruction.
class InheritableDescriptor
{
public:
    InheritableDescriptor();
    ~InheritableDescriptor();

    /// Closes it; true if no other process has it open, too.
    bool closeLast();

    InheritableDescriptor(const InheritableDescriptor&) = delete;
    InheritableDescriptor& operator=(const InheritableDescriptor&) = delete;

private:
    int m_value = -1;
    /// Notices when the last one of the others is closed.
    int m_watch = -1;
};

/// Ignores and blocks signals in this process and thread; undone on destruction.
class DeafToSignals
{
public:
    DeafToSignals();
    ~DeafToSignals();

    DeafToSignals(const DeafToSignals&) = delete;
    DeafToSignals& operator=(const DeafToSignals&) = delete;
};

/// Interrupts the system calls of the thread that made it, again and again while it lives.
class Interruptions
{
public:
    Interruptions();
    ~Interruptions();

    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

private:
    std::atomic<bool> m_isOver{false};
    std::thread m_thread;
};

} // namespace kyTest
