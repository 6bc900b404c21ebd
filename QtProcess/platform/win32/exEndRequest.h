#pragma once

#include <windows.h>

/// Asks a process of this system to end: its windows are told to close, and to its console handlers
/// it is as if somebody had pressed Ctrl-Break. A program without either is ended by that.
///
/// The handle needs the rights to query the process and to create threads in it. Any thread. Does
/// not wait for what comes of it.
void exRequestEnd(HANDLE process);
