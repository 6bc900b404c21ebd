#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// A started program, as the operating system sees it.
///
/// One source per system stands in the folders below. A child begins with the default signal
/// dispositions, nothing to read on standard input, and no descriptor of this process but its
/// standard output and standard error, which are captured here or discarded. It is waited for from
/// its first moment on, so an ended child leaves nothing behind, asked for or not.
///
/// Thread rules: `readOutput` belongs to one thread; everything else may be called from any.
class exChild
{
public:
    struct Order
    {
        /// The path of the program, which is not searched for, and its arguments; UTF-8.
        std::vector<std::string> arguments;
        /// "NAME=value" texts; without a list the child gets those of this process.
        std::optional<std::vector<std::string>> environment;
        bool captureOutput = false;
        bool captureError = false;
        /// Whether the program may show itself; without it a console of its own stays hidden.
        /// Nothing to do on systems that open no consoles.
        bool hasDisplay = true;
    };

    /// Starts the program and returns when it runs; null if it could not be started.
    static std::unique_ptr<exChild> start(const Order& order);

    /// Kills the child if it still runs, and returns when it has ended.
    virtual ~exChild() = default;

    exChild(const exChild&) = delete;
    exChild& operator=(const exChild&) = delete;

    /// True until the child has ended. Asks the system, so it is right at once; does not block.
    virtual bool isRunning() const = 0;

    /// The system's number for the child.
    virtual std::uint32_t getProcessId() const = 0;

    /// Asks the child to end; it may take its time or refuse. Nothing if it has ended.
    virtual void terminate() = 0;

    /// Ends the child, whatever it does. Nothing if it has ended.
    virtual void kill() = 0;

    /// Blocks until the child has written something that is captured, and hands it over as it was
    /// written. False, with what was left, once the child has ended: what programs that the child
    /// started write after that is not waited for.
    virtual bool readOutput(std::string& output, std::string& error) = 0;

protected:
    exChild() = default;
};
