// The C libraries of the two systems print `%p`, `%lu`, `%ls` and `%I64u` differently or not at all, and log lines must
// read the same. So the library formats its texts itself: a format is copied up to each percent sign, the conversion
// there is read into a FormatConversion (format_conversion.h), and the function for its letter takes the argument and
// writes it to a TextSink (text_sink.h), which counts what does not fit. Only numbers with a point are left to the C
// library. Nothing here allocates or locks, and arguments that cannot be read fault in the caller's guard.
#include "qelibaselib/base/format.h"

#include <cstdint>

#include "qelibaselib/base/format_conversion.h"
#include "qelibaselib/base/format_number.h"
#include "qelibaselib/base/format_text.h"
#include "qelibaselib/base/formatted_text.h"
#include "qelibaselib/base/text_sink.h"

namespace qel {
namespace {

std::uint64_t TakeUnsigned(FormatArguments& arguments, ArgumentSize size) {
  switch (size) {
    case ArgumentSize::k64Bits:
      return va_arg(arguments.list, unsigned long long);
    case ArgumentSize::kChar:
      return static_cast<unsigned char>(va_arg(arguments.list, unsigned));
    case ArgumentSize::kShort:
      return static_cast<unsigned short>(va_arg(arguments.list, unsigned));
    default:
      return va_arg(arguments.list, unsigned);  // an int, a long and a pointer have 32 bits
  }
}

std::int64_t TakeSigned(FormatArguments& arguments, ArgumentSize size) {
  switch (size) {
    case ArgumentSize::k64Bits:
      return va_arg(arguments.list, long long);
    case ArgumentSize::kChar:
      return static_cast<signed char>(va_arg(arguments.list, int));
    case ArgumentSize::kShort:
      return static_cast<short>(va_arg(arguments.list, int));
    default:
      return va_arg(arguments.list, int);
  }
}

double TakeFloating(FormatArguments& arguments, ArgumentSize size) {
  if (size == ArgumentSize::kLongDouble) return static_cast<double>(va_arg(arguments.list, long double));
  return va_arg(arguments.list, double);
}

// The small letter means narrow text unless `l` or `w` stands before it, the capital one wide text unless `h` does.
bool IsWide(const FormatConversion& conversion) {
  const bool isCapital = conversion.type == 'S' || conversion.type == 'C';
  return isCapital ? conversion.size != ArgumentSize::kShort : conversion.size == ArgumentSize::kLong;
}

void PutConversion(TextSink& sink, const FormatConversion& conversion, FormatArguments& arguments) {
  const ArgumentSize size = conversion.size;
  switch (conversion.type) {
    case 'd':
    case 'i':
      return PutSigned(sink, conversion, TakeSigned(arguments, size));
    case 'u':
      return PutUnsigned(sink, conversion, TakeUnsigned(arguments, size));
    case 'o':
      return PutOctal(sink, conversion, TakeUnsigned(arguments, size));
    case 'x':
    case 'X':
      return PutHexadecimal(sink, conversion, TakeUnsigned(arguments, size), conversion.type == 'X');
    case 'p':
      return PutPointer(sink, conversion, va_arg(arguments.list, const void*));
    case 's':
    case 'S':
      if (IsWide(conversion)) return PutWideText(sink, conversion, va_arg(arguments.list, const wchar_t*));
      return PutNarrowText(sink, conversion, va_arg(arguments.list, const char*));
    case 'c':
    case 'C':
      if (IsWide(conversion))
        return PutWideCharacter(sink, conversion, static_cast<wchar_t>(va_arg(arguments.list, int)));
      return PutCharacter(sink, conversion, static_cast<char>(va_arg(arguments.list, int)));
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      return PutFloating(sink, conversion, TakeFloating(arguments, size));
    case '\0':
      return;
    default:  // the percent sign, and a letter that is none of these
      return sink.Put(conversion.type);
  }
}

}  // namespace

std::size_t FormatTextV(char* buffer, std::size_t size, const char* format, std::va_list arguments) {
  TextSink sink(buffer, size);
  FormatArguments own;
  va_copy(own.list, arguments);
  while (*format) {
    const char* const text = format;
    while (*format && *format != '%') ++format;
    sink.Put(text, static_cast<std::size_t>(format - text));
    if (!*format) break;
    FormatConversion conversion;
    format = ReadConversion(format + 1, own, conversion);
    PutConversion(sink, conversion, own);
  }
  va_end(own.list);
  return sink.Terminate();
}

std::size_t FormatText(char* buffer, std::size_t size, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const std::size_t length = FormatTextV(buffer, size, format, arguments);
  va_end(arguments);
  return length;
}

int FormatToStreamV(std::FILE* stream, const char* format, std::va_list arguments) {
  FormattedText line;
  if (!line.FormatV(format, arguments)) return -1;
  return std::fwrite(line.Text(), 1, line.Length(), stream) == line.Length() ? static_cast<int>(line.Length()) : -1;
}

int FormatToStream(std::FILE* stream, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const int written = FormatToStreamV(stream, format, arguments);
  va_end(arguments);
  return written;
}

}  // namespace qel
