/// @file
/// printf-style text with the Windows conversions, the same on both targets: `%p` is eight upper-case digits, `%lu` and
/// `%lx` are 32 bits, `%I64u`/`%I64d`/`%I64x` are 64 bits, `%S` and `%ls` take wide text, a null `%s` prints "(null)".
#pragma once
#include <cstdarg>
#include <cstddef>
#include <cstdio>

#ifdef __MINGW32__
#define QEL_FORMAT(text, first) __attribute__((format(ms_printf, text, first)))
#else
#define QEL_FORMAT(text, first)
#endif

namespace qel {

/// Writes at most `size` characters, the terminator included, and always terminates when `size` is not 0.
/// Returns the length that the whole text has, without the terminator. Never changes the last error. Reads the strings
/// that it is given: a bad pointer faults.
std::size_t FormatText(char* buffer, std::size_t size, const char* format, ...) QEL_FORMAT(3, 4);
std::size_t FormatTextV(char* buffer, std::size_t size, const char* format, std::va_list arguments);

/// Formats and writes to a stream with one call for lines of up to 4 KiB, without a flush. Returns the number of
/// characters, or -1 when the stream took less.
int FormatToStream(std::FILE* stream, const char* format, ...) QEL_FORMAT(2, 3);
int FormatToStreamV(std::FILE* stream, const char* format, std::va_list arguments);

}  // namespace qel
