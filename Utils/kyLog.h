#pragma once

#include <functional>
#include <string>

#include <NetBase/kyNetBaseExport.h>

/// What the library has to say to the people who run it.
///
/// Every message is a line, or several, on standard error: time, severity, level, text. Text that
/// comes in pieces (the output of a child process) is continued on the line that the piece before
/// it left open, if that has the same severity and level. A host that keeps a log of its own
/// replaces the sink and gets every message instead.
///
/// Thread rules: every function may be called from any thread; one message is written at a time.
/// Limits: texts may hold what a peer sent, so control characters are written as \xNN by the
/// default sink; a sink of the host has to decide that for itself.
class KY_NETBASE_EXPORT kyLog
{
public:
    enum class Severity
    {
        Info,
        Error
    };

    /// Receives one message: its severity, its level (0 is the gravest), and the text, which ends
    /// in a newline unless the line goes on. It is called by one thread at a time and must not log
    /// itself; what it throws is dropped.
    using Sink = std::function<void(Severity severity, int level, const std::string& text)>;

    /// Reports an error of level 0, formatted as by `printf`. Ends its line if the text does not.
    /// Never throws.
    [[gnu::format(printf, 1, 2)]] static void error(const char* format, ...) noexcept;

    /// Reports text as it is, followed by a newline if one is asked for. Never throws.
    static void infoI(const std::string& text, int level, bool newline) noexcept;

    /// As `infoI`, for what is wrong. Never throws.
    static void errorI(const std::string& text, int level, bool newline) noexcept;

    /// Replaces the sink; an empty one brings the lines on standard error back. The sink before it
    /// is no longer in use when the call returns.
    static void setSink(Sink sink);
};
