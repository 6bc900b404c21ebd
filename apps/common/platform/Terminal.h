#pragma once

/// The terminal that a program was started from.
///
/// One source per system stands in the folders beside this header.
namespace terminal {

/// Whether what is written to standard error is read by somebody at a terminal, and not by a file
/// or another program. Never throws.
bool isStandardErrorVisible();

/// Empties the line that standard error stands on, so that what is printed next replaces it. Does
/// nothing if standard error is not visible. Never throws.
void clearErrorLine();

/// Empties the terminal that standard output appears on, so that what is printed next begins at
/// its top. Does nothing if that is no terminal. Never throws.
void clearStandardOutput();

} // namespace terminal
