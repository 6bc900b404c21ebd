#pragma once

#include <CLI/CLI.hpp>

/// How a program tells whoever called it what became of the call.
enum ExitCode
{
    Done = 0,
    Failed = 1,
    WrongUsage = 2
};

/// Tells what is wrong with a command line, or prints the help that it asks for; the exit code that
/// the program ends with.
inline int report(const CLI::App& program, const CLI::ParseError& error)
{
    return program.exit(error) == 0 ? Done : WrongUsage;
}

/// A check of an argument: accepts the texts that `parse` reads without an exception.
template <class Parse> CLI::Validator readableBy(Parse parse, const char* typeName)
{
    return CLI::Validator(
        [parse](std::string& text) {
            try {
                parse(text);
                return std::string();
            } catch (const std::exception& e) {
                return std::string(e.what());
            }
        },
        typeName);
}
