#include "qelibaselib/base/format.h"

#include <cstdint>

#include "qelibaselib/base/formatted_text.h"
#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/platform/win32.h"

namespace qel {
namespace {

constexpr int kUnset = -1;
constexpr int kPointerDigits = 8;

// A va_list that functions can share, whatever type it is.
struct Arguments {
  std::va_list list;
};

// Takes what fits and counts what does not.
class Sink {
 public:
  Sink(char* buffer, std::size_t size) : buffer_(buffer), size_(size) {}
  void Put(char character) {
    if (length_ + 1 < size_) buffer_[length_] = character;
    ++length_;
  }
  // The loops work on variables of their own: to the compiler, each character that is written may be one of the
  // members.
  void Put(const char* text, std::size_t count) {
    char* const out = End();
    const std::size_t fitting = Fitting(count);
    for (std::size_t i = 0; i < fitting; ++i) out[i] = text[i];
    length_ += count;
  }
  // At most `limit` characters, up to the terminator.
  void PutText(const char* text, std::size_t limit) {
    char* const out = End();
    const std::size_t fitting = Fitting(limit);
    std::size_t count = 0;
    for (; count < fitting && text[count]; ++count) out[count] = text[count];
    if (count == fitting)
      while (count < limit && text[count]) ++count;
    length_ += count;
  }
  void Fill(char character, int count) {
    for (; count > 0; --count) Put(character);
  }
  std::size_t Terminate() {
    if (size_ > 0) buffer_[length_ < size_ ? length_ : size_ - 1] = '\0';
    return length_;
  }

 private:
  // Of what is written: the length goes on where the buffer has ended.
  char* End() const { return buffer_ + (length_ < size_ ? length_ : size_); }
  std::size_t Fitting(std::size_t count) const {
    const std::size_t room = length_ + 1 < size_ ? size_ - 1 - length_ : 0;
    return count < room ? count : room;
  }

  char* const buffer_;
  const std::size_t size_;
  std::size_t length_ = 0;
};

enum class Length { kNone, kChar, kShort, kLong, k64Bits, kLongDouble };

struct Conversion {
  bool left = false, plus = false, space = false, alternate = false, zero = false;
  int width = 0;
  int precision = kUnset;
  Length length = Length::kNone;
  char type = '\0';
};

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

const char* ParseNumber(const char* text, Arguments& arguments, int& number) {
  if (*text == '*') {
    number = va_arg(arguments.list, int);
    return text + 1;
  }
  number = 0;
  for (; IsDigit(*text); ++text) number = number * 10 + (*text - '0');
  return text;
}

const char* ParseFlags(const char* text, Conversion& conversion) {
  for (;; ++text) {
    switch (*text) {
      case '-':
        conversion.left = true;
        break;
      case '+':
        conversion.plus = true;
        break;
      case ' ':
        conversion.space = true;
        break;
      case '#':
        conversion.alternate = true;
        break;
      case '0':
        conversion.zero = true;
        break;
      default:
        return text;
    }
  }
}

const char* ParseLength(const char* text, Length& length) {
  if (text[0] == 'I' && text[1] == '6' && text[2] == '4') {
    length = Length::k64Bits;
    return text + 3;
  }
  if (text[0] == 'I' && text[1] == '3' && text[2] == '2') return text + 3;
  switch (*text) {
    case 'h':
      length = text[1] == 'h' ? Length::kChar : Length::kShort;
      return text + (text[1] == 'h' ? 2 : 1);
    case 'l':
      length = text[1] == 'l' ? Length::k64Bits : Length::kLong;
      return text + (text[1] == 'l' ? 2 : 1);
    case 'w':
      length = Length::kLong;
      return text + 1;
    case 'j':
      length = Length::k64Bits;
      return text + 1;
    case 'L':
      length = Length::kLongDouble;
      return text + 1;
    case 'I':
    case 'z':
    case 't':
      return text + 1;
    default:
      return text;
  }
}

// `text` stands behind the percent sign; returns what stands behind the conversion.
const char* ParseConversion(const char* text, Arguments& arguments, Conversion& conversion) {
  text = ParseFlags(text, conversion);
  text = ParseNumber(text, arguments, conversion.width);
  if (conversion.width < 0) {
    conversion.left = true;
    conversion.width = -conversion.width;
  }
  if (*text == '.') text = ParseNumber(text + 1, arguments, conversion.precision);
  if (conversion.precision < 0) conversion.precision = kUnset;
  text = ParseLength(text, conversion.length);
  conversion.type = *text;
  return *text ? text + 1 : text;
}

void PutPadded(Sink& sink, const Conversion& conversion, const char* text, std::size_t count) {
  const int padding = conversion.width - static_cast<int>(count);
  if (!conversion.left) sink.Fill(' ', padding);
  sink.Put(text, count);
  if (conversion.left) sink.Fill(' ', padding);
}

// The padding of a text needs its length, which is only read when there is a width.
void PutNarrow(Sink& sink, const Conversion& conversion, const char* text) {
  if (!text) text = "(null)";
  const auto limit = static_cast<std::size_t>(conversion.precision);  // unset: no limit
  if (conversion.width > 0) {
    std::size_t count = 0;
    while (count < limit && text[count]) ++count;
    PutPadded(sink, conversion, text, count);
    return;
  }
  sink.PutText(text, limit);
}

bool IsLeadingSurrogate(wchar_t character) {
  return sizeof(wchar_t) == 2 && (static_cast<std::uint32_t>(character) & 0xFC00u) == 0xD800u;
}

// Goes through wide text in pieces that a small buffer takes, so that no length of text needs the heap.
template <class Take>
void ForEachNarrowPiece(const wchar_t* text, Take&& take) {
  constexpr int kPieceCharacters = 64;
  constexpr int kBytesOfCharacter = 6;
  PreserveLastError preserve;
  char piece[kPieceCharacters * kBytesOfCharacter];
  while (*text) {
    int count = 0;
    while (count < kPieceCharacters && text[count]) ++count;
    if (count == kPieceCharacters && IsLeadingSurrogate(text[count - 1])) --count;
    const int bytes = WideCharToMultiByte(CP_ACP, 0, text, count, piece, sizeof(piece), nullptr, nullptr);
    take(piece, static_cast<std::size_t>(bytes));
    text += count;
  }
}

void PutWide(Sink& sink, const Conversion& conversion, const wchar_t* text) {
  if (!text) return PutNarrow(sink, conversion, nullptr);
  const auto limit = static_cast<std::size_t>(conversion.precision);
  std::size_t total = 0;
  if (conversion.width > 0) {
    ForEachNarrowPiece(text, [&](const char*, std::size_t bytes) { total += bytes; });
    if (total > limit) total = limit;
  }
  const int padding = conversion.width - static_cast<int>(total);
  if (!conversion.left) sink.Fill(' ', padding);
  std::size_t left = limit;
  ForEachNarrowPiece(text, [&](const char* piece, std::size_t bytes) {
    if (bytes > left) bytes = left;
    sink.Put(piece, bytes);
    left -= bytes;
  });
  if (conversion.left) sink.Fill(' ', padding);
}

void PutCharacter(Sink& sink, const Conversion& conversion, int value, bool wide) {
  const auto narrow = static_cast<char>(value);
  if (!wide) return PutPadded(sink, conversion, &narrow, 1);
  const wchar_t text[] = {static_cast<wchar_t>(value), L'\0'};
  PutWide(sink, conversion, text);
}

std::uint64_t TakeUnsigned(Arguments& arguments, Length length) {
  switch (length) {
    case Length::k64Bits:
      return va_arg(arguments.list, unsigned long long);
    case Length::kChar:
      return static_cast<unsigned char>(va_arg(arguments.list, unsigned));
    case Length::kShort:
      return static_cast<unsigned short>(va_arg(arguments.list, unsigned));
    default:
      return va_arg(arguments.list, unsigned);  // an int, a long and a pointer have 32 bits
  }
}

std::int64_t TakeSigned(Arguments& arguments, Length length) {
  switch (length) {
    case Length::k64Bits:
      return va_arg(arguments.list, long long);
    case Length::kChar:
      return static_cast<signed char>(va_arg(arguments.list, int));
    case Length::kShort:
      return static_cast<short>(va_arg(arguments.list, int));
    default:
      return va_arg(arguments.list, int);
  }
}

// Writes the digits in front of `end` and returns where they begin; none for 0.
template <unsigned kBase>
char* WriteDigits(std::uint64_t value, char letterOfTen, char* end) {
  const auto write = [&](unsigned digit) {
    *--end = static_cast<char>(digit < 10 ? '0' + digit : letterOfTen + digit - 10);
  };
  for (; value > UINT32_MAX; value /= kBase) write(static_cast<unsigned>(value % kBase));
  for (auto rest = static_cast<std::uint32_t>(value); rest != 0; rest /= kBase) write(rest % kBase);
  return end;
}

void PutInteger(Sink& sink, const Conversion& conversion, const char* prefix, std::uint64_t value, unsigned base,
                bool upperCase) {
  char text[24];
  char* const end = text + sizeof(text);
  const char letterOfTen = upperCase ? 'A' : 'a';
  const char* const first = base == 10   ? WriteDigits<10>(value, letterOfTen, end)
                            : base == 16 ? WriteDigits<16>(value, letterOfTen, end)
                                         : WriteDigits<8>(value, letterOfTen, end);
  const auto digits = static_cast<int>(end - first);
  int prefixLength = 0;
  while (prefix[prefixLength]) ++prefixLength;
  int zeros = (conversion.precision == kUnset ? 1 : conversion.precision) - digits;
  if (conversion.zero && !conversion.left && conversion.precision == kUnset)
    zeros = conversion.width - prefixLength - digits > zeros ? conversion.width - prefixLength - digits : zeros;
  if (zeros < 0) zeros = 0;
  const int padding = conversion.width - prefixLength - zeros - digits;
  if (!conversion.left) sink.Fill(' ', padding);
  sink.Put(prefix, static_cast<std::size_t>(prefixLength));
  sink.Fill('0', zeros);
  sink.Put(first, static_cast<std::size_t>(digits));
  if (conversion.left) sink.Fill(' ', padding);
}

void PutSigned(Sink& sink, const Conversion& conversion, std::int64_t value) {
  const auto bits = static_cast<std::uint64_t>(value);
  const char* sign = value < 0 ? "-" : conversion.plus ? "+" : conversion.space ? " " : "";
  PutInteger(sink, conversion, sign, value < 0 ? 0 - bits : bits, 10, false);
}

void PutPointer(Sink& sink, Conversion conversion, const void* value) {
  conversion.precision = kPointerDigits;
  PutInteger(sink, conversion, "", reinterpret_cast<std::uintptr_t>(value), 16, true);
}

void PutFloating(Sink& sink, const Conversion& conversion, Arguments& arguments) {
  constexpr std::size_t kLongestNumber = 512;  // a double has up to 309 digits in front of the point
  char format[16];
  char* end = format;
  *end++ = '%';
  if (conversion.left) *end++ = '-';
  if (conversion.plus) *end++ = '+';
  if (conversion.space) *end++ = ' ';
  if (conversion.alternate) *end++ = '#';
  if (conversion.zero) *end++ = '0';
  for (const char* rest = "*.*"; *rest; ++rest) *end++ = *rest;
  *end++ = conversion.type;
  *end = '\0';
  const double value = conversion.length == Length::kLongDouble
                           ? static_cast<double>(va_arg(arguments.list, long double))
                           : va_arg(arguments.list, double);
  constexpr int kLimit = 160;  // for width and precision, so that every number fits
  char text[kLongestNumber];
  const int count = std::snprintf(text, sizeof(text), format, conversion.width < kLimit ? conversion.width : kLimit,
                                  conversion.precision < kLimit ? conversion.precision : kLimit, value);
  if (count > 0) sink.Put(text, static_cast<std::size_t>(count) < sizeof(text) ? count : sizeof(text) - 1);
}

void PutConversion(Sink& sink, const Conversion& conversion, Arguments& arguments) {
  switch (conversion.type) {
    case 'd':
    case 'i':
      return PutSigned(sink, conversion, TakeSigned(arguments, conversion.length));
    case 'u':
      return PutInteger(sink, conversion, "", TakeUnsigned(arguments, conversion.length), 10, false);
    case 'o':
      return PutInteger(sink, conversion, "", TakeUnsigned(arguments, conversion.length), 8, false);
    case 'x':
    case 'X': {
      const bool upperCase = conversion.type == 'X';
      const std::uint64_t value = TakeUnsigned(arguments, conversion.length);
      const char* prefix = !conversion.alternate || value == 0 ? "" : upperCase ? "0X" : "0x";
      return PutInteger(sink, conversion, prefix, value, 16, upperCase);
    }
    case 'p':
      return PutPointer(sink, conversion, va_arg(arguments.list, const void*));
    case 's':
      if (conversion.length == Length::kLong) return PutWide(sink, conversion, va_arg(arguments.list, const wchar_t*));
      return PutNarrow(sink, conversion, va_arg(arguments.list, const char*));
    case 'S':
      if (conversion.length == Length::kShort) return PutNarrow(sink, conversion, va_arg(arguments.list, const char*));
      return PutWide(sink, conversion, va_arg(arguments.list, const wchar_t*));
    case 'c':
      return PutCharacter(sink, conversion, va_arg(arguments.list, int), conversion.length == Length::kLong);
    case 'C':
      return PutCharacter(sink, conversion, va_arg(arguments.list, int), conversion.length != Length::kShort);
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      return PutFloating(sink, conversion, arguments);
    case '\0':
      return;
    default:  // also the percent sign
      return sink.Put(conversion.type);
  }
}

}  // namespace

std::size_t FormatTextV(char* buffer, std::size_t size, const char* format, std::va_list arguments) {
  Sink sink(buffer, size);
  Arguments own;
  va_copy(own.list, arguments);
  while (*format) {
    const char* const text = format;
    while (*format && *format != '%') ++format;
    sink.Put(text, static_cast<std::size_t>(format - text));
    if (!*format) break;
    Conversion conversion;
    format = ParseConversion(format + 1, own, conversion);
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
