/// @file
/// The log writer: one line of text appended to one file under one named mutex.
///
/// No function here reports a failure: a line that cannot be written is lost. That is so without a folder or with a
/// full file, when the mutex is not had in time, when the disk is full, and when the name belongs to a folder, a pipe
/// or a device. None throws, whatever the pointers that it is given, none changes the last error, and any thread of any
/// process of the user may call any of them at any time. A line is in the system's hands when the call returns. A
/// writer that is killed leaves its line whole, not at all, or cut; the next writer that gets the mutex from it ends a
/// cut one.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN

/// Appends "time, ML=load, program, process, thread, sourceFile(line):message" to the file `filePath`, unless that
/// holds more than 1,048,576 bytes. The mutex is "Local\<mutexStem>_<user>" and is waited for `timeoutMs` milliseconds
/// (INFINITE: without limit). Null texts print as "(null)".
QEL_API void VemoLogOutFile(const wchar_t* mutexStem, const wchar_t* filePath, DWORD timeoutMs, int line,
                            const char* sourceFile, const char* message);

/// Writes a line to the assertion channel, a file of its own in the log folder (VemoSetLogPath). A null message is an
/// empty one.
QEL_API void VemoLogOutAssert(const char* message, int line, const char* sourceFile);
/// The same for the channel of miscellaneous messages.
QEL_API void VemoLogOutMisc(const char* message, int line, const char* sourceFile);
/// The same for the channel of locks.
QEL_API void VemoLockLogOut(const char* message, int line, const char* sourceFile);

/// The same for the channel of the file operations, but a null message prints as "(null)".
QEL_API void VemoFileLogOut(const char* message, int line, const char* sourceFile);

QEL_FUNCTIONS_END
