#include <Utils/kyLog.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include <QDateTime>

namespace {

/// Guards the sink, and what the default sink knows of its last line.
struct Shared
{
    std::mutex mutex;
    kyLog::Sink sink;
    bool lineOpen = false;
    kyLog::Severity lineSeverity = kyLog::Severity::Info;
    int lineLevel = 0;
};

/// Never destroyed: threads that outlive `main` may still have something to say.
Shared& shared()
{
    static Shared& instance = *new Shared;
    return instance;
}

std::string linePrefix(kyLog::Severity severity, int level)
{
    const char* name = severity == kyLog::Severity::Error ? "error" : "info ";
    return QDateTime::currentDateTime().toString("yyyy-MM-dd HH:mm:ss.zzz").toStdString() + ' ' +
           name + " [" + std::to_string(level) + "] ";
}

void appendPrintable(std::string& line, char character)
{
    const auto code = static_cast<unsigned char>(character);
    const bool isControl = (code < 0x20 && character != '\t') || code == 0x7f;
    if (!isControl) {
        line += character;
        return;
    }
    constexpr const char* digits = "0123456789abcdef";
    line += "\\x";
    line += digits[code >> 4];
    line += digits[code & 15];
}

/// Continues an open line of the same kind or begins one, and prefixes every line that begins.
void writeToStandardError(Shared& state, kyLog::Severity severity, int level,
                          const std::string& text)
{
    if (text.empty()) {
        return;
    }
    std::string lines;
    if (state.lineOpen && (state.lineSeverity != severity || state.lineLevel != level)) {
        lines += '\n';
        state.lineOpen = false;
    }
    state.lineSeverity = severity;
    state.lineLevel = level;
    for (const char character : text) {
        if (!state.lineOpen) {
            lines += linePrefix(severity, level);
            state.lineOpen = true;
        }
        if (character == '\n') {
            lines += '\n';
            state.lineOpen = false;
        } else if (character != '\r') {
            appendPrintable(lines, character);
        }
    }
    std::fwrite(lines.data(), 1, lines.size(), stderr);
}

void write(kyLog::Severity severity, int level, const std::string& piece, bool newline) noexcept
{
    try {
        const std::string text = newline ? piece + '\n' : piece;
        Shared& state = shared();
        const std::lock_guard<std::mutex> guard(state.mutex);
        if (state.sink) {
            state.sink(severity, level, text);
        } else {
            writeToStandardError(state, severity, level, text);
        }
    } catch (...) {
        // A message that cannot be written must not end the work that it tells of.
    }
}

std::string format(const char* pattern, std::va_list arguments)
{
    std::va_list measured;
    va_copy(measured, arguments);
    const int size = std::vsnprintf(nullptr, 0, pattern, measured);
    va_end(measured);
    if (size < 0) {
        return pattern;
    }
    std::string text(static_cast<std::size_t>(size) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), pattern, arguments);
    text.pop_back();
    return text;
}

} // namespace

void kyLog::error(const char* pattern, ...) noexcept
{
    std::va_list arguments;
    va_start(arguments, pattern);
    try {
        const std::string text = format(pattern, arguments);
        const bool isEnded = !text.empty() && text.back() == '\n';
        errorI(text, 0, !isEnded);
    } catch (...) {
        // No memory for the text: said to nobody.
    }
    va_end(arguments);
}

void kyLog::infoI(const std::string& text, int level, bool newline) noexcept
{
    write(Severity::Info, level, text, newline);
}

void kyLog::errorI(const std::string& text, int level, bool newline) noexcept
{
    write(Severity::Error, level, text, newline);
}

void kyLog::setSink(Sink sink)
{
    Shared& state = shared();
    const std::lock_guard<std::mutex> guard(state.mutex);
    std::swap(state.sink, sink);
}
