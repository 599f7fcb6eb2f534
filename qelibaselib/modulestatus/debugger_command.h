/// @file
/// The command of the registered debugger. It is a printf format with two numbers, but it comes from outside: it is
/// taken apart here and never given to a function that formats.
#pragma once
#include <cstddef>

#include "qelibaselib/platform/win32.h"

namespace qel::report {

/// Whether the text is a command whose conversions are all of integers or pointers. The empty text is none.
bool IsDebuggerCommand(const char* command);

/// Writes the command with its first number replaced by the process id, its second by the event and all others by 0.
/// Cuts the text to `size` characters, terminator included. `command` must be one by IsDebuggerCommand.
void FormatDebuggerCommand(char* text, std::size_t size, const char* command, DWORD processId, HANDLE event);

}  // namespace qel::report
