#include "qelibaselib/base/format_number.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace qel {
namespace {

// The digits of a number without leading zeros; none for 0.
class Digits {
 public:
  Digits(std::uint64_t value, int base) {
    char* const end = text_ + sizeof text_;
    const char* last = text_;
    // Divisions of 64 bits are dear here, and most numbers need none.
    if (value > UINT32_MAX)
      last = std::to_chars(text_, end, value, base).ptr;
    else if (value != 0)
      last = std::to_chars(text_, end, static_cast<std::uint32_t>(value), base).ptr;
    count_ = static_cast<int>(last - text_);
  }
  void MakeUpperCase() {
    for (int i = 0; i < count_; ++i)
      if (text_[i] >= 'a') text_[i] = static_cast<char>(text_[i] - 'a' + 'A');
  }
  int Count() const { return count_; }
  void PutTo(TextSink& sink) const { sink.Put(text_, static_cast<std::size_t>(count_)); }

 private:
  char text_[24];  // 64 bits have 22 octal digits
  int count_;
};

// The zeros between prefix and digits: as many as the precision asks for, or, without one, as the flag 0 needs to fill
// the width.
int CountZeros(const FormatConversion& conversion, int prefixLength, int digitCount) {
  if (conversion.precision != FormatConversion::kNoPrecision)
    return std::min(conversion.precision, FormatConversion::kMostPadding) - digitCount;
  const int atLeastOneDigit = 1 - digitCount;
  if (!conversion.zero || conversion.left) return atLeastOneDigit;
  return std::max(atLeastOneDigit, conversion.width - prefixLength - digitCount);
}

void PutDigits(TextSink& sink, const FormatConversion& conversion, const char* prefix, const Digits& digits,
               int zeros) {
  const auto prefixLength = static_cast<int>(std::strlen(prefix));
  const int padding = conversion.width - prefixLength - zeros - digits.Count();
  if (!conversion.left) sink.Fill(' ', padding);
  sink.Put(prefix, static_cast<std::size_t>(prefixLength));
  sink.Fill('0', zeros);
  digits.PutTo(sink);
  if (conversion.left) sink.Fill(' ', padding);
}

void PutDecimal(TextSink& sink, const FormatConversion& conversion, const char* sign, std::uint64_t value) {
  const Digits digits(value, 10);
  const int zeros = CountZeros(conversion, static_cast<int>(std::strlen(sign)), digits.Count());
  PutDigits(sink, conversion, sign, digits, std::max(zeros, 0));
}

}  // namespace

void PutSigned(TextSink& sink, const FormatConversion& conversion, std::int64_t value) {
  const auto bits = static_cast<std::uint64_t>(value);
  const char* sign = value < 0 ? "-" : conversion.plus ? "+" : conversion.space ? " " : "";
  PutDecimal(sink, conversion, sign, value < 0 ? 0 - bits : bits);
}

void PutOctal(TextSink& sink, const FormatConversion& conversion, std::uint64_t value) {
  const Digits digits(value, 8);
  const int zeros = CountZeros(conversion, 0, digits.Count());
  PutDigits(sink, conversion, "", digits, std::max(zeros, conversion.alternate ? 1 : 0));
}

void PutHexadecimal(TextSink& sink, const FormatConversion& conversion, std::uint64_t value, bool upperCase) {
  Digits digits(value, 16);
  if (upperCase) digits.MakeUpperCase();
  const char* prefix = !conversion.alternate || value == 0 ? "" : upperCase ? "0X" : "0x";
  const int zeros = CountZeros(conversion, static_cast<int>(std::strlen(prefix)), digits.Count());
  PutDigits(sink, conversion, prefix, digits, std::max(zeros, 0));
}

void PutPointer(TextSink& sink, const FormatConversion& conversion, const void* value) {
  FormatConversion withAllDigits = conversion;
  withAllDigits.precision = 2 * sizeof value;
  PutHexadecimal(sink, withAllDigits, reinterpret_cast<std::uintptr_t>(value), true);
}

void PutUnsigned(TextSink& sink, const FormatConversion& conversion, std::uint64_t value) {
  PutDecimal(sink, conversion, "", value);
}

void PutFloating(TextSink& sink, const FormatConversion& conversion, double value) {
  constexpr int kMostDigits = 160;             // of width and precision, so that every number fits below
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
  char text[kLongestNumber];
  const int count = std::snprintf(text, sizeof(text), format, std::min(conversion.width, kMostDigits),
                                  std::min(conversion.precision, kMostDigits), value);
  if (count > 0) sink.Put(text, std::min(static_cast<std::size_t>(count), sizeof(text) - 1));
}

}  // namespace qel
