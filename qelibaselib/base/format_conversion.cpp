#include "qelibaselib/base/format_conversion.h"

#include <algorithm>
#include <limits>

namespace qel {
namespace {

constexpr int kLargest = std::numeric_limits<int>::max();

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

const char* ReadFlags(const char* text, FormatConversion& conversion) {
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

const char* ReadNumber(const char* text, FormatArguments& arguments, int& number) {
  if (*text == '*') {
    number = va_arg(arguments.list, int);
    return text + 1;
  }
  long long value = 0;
  for (; IsDigit(*text); ++text) value = std::min<long long>(value * 10 + (*text - '0'), kLargest);
  number = static_cast<int>(value);
  return text;
}

// A negative width stands for the flag `-` and the positive width.
const char* ReadWidth(const char* text, FormatArguments& arguments, FormatConversion& conversion) {
  constexpr int kMost = FormatConversion::kMostPadding;
  text = ReadNumber(text, arguments, conversion.width);
  if (conversion.width < 0) conversion.left = true;
  conversion.width = std::clamp(conversion.width, -kMost, kMost);
  if (conversion.width < 0) conversion.width = -conversion.width;
  return text;
}

const char* ReadPrecision(const char* text, FormatArguments& arguments, FormatConversion& conversion) {
  if (*text != '.') return text;
  text = ReadNumber(text + 1, arguments, conversion.precision);
  if (conversion.precision < 0) conversion.precision = FormatConversion::kNoPrecision;
  return text;
}

// The letters of C and those of Windows: I64, I32, I and w.
const char* ReadSize(const char* text, ArgumentSize& size) {
  if (text[0] == 'I' && text[1] == '6' && text[2] == '4') {
    size = ArgumentSize::k64Bits;
    return text + 3;
  }
  if (text[0] == 'I' && text[1] == '3' && text[2] == '2') return text + 3;
  switch (*text) {
    case 'h':
      size = text[1] == 'h' ? ArgumentSize::kChar : ArgumentSize::kShort;
      return text + (text[1] == 'h' ? 2 : 1);
    case 'l':
      size = text[1] == 'l' ? ArgumentSize::k64Bits : ArgumentSize::kLong;
      return text + (text[1] == 'l' ? 2 : 1);
    case 'w':
      size = ArgumentSize::kLong;
      return text + 1;
    case 'j':
      size = ArgumentSize::k64Bits;
      return text + 1;
    case 'L':
      size = ArgumentSize::kLongDouble;
      return text + 1;
    case 'I':
    case 'z':
    case 't':
      return text + 1;
    default:
      return text;
  }
}

}  // namespace

const char* ReadConversion(const char* text, FormatArguments& arguments, FormatConversion& conversion) {
  text = ReadFlags(text, conversion);
  text = ReadWidth(text, arguments, conversion);
  text = ReadPrecision(text, arguments, conversion);
  text = ReadSize(text, conversion.size);
  conversion.type = *text;
  return *text ? text + 1 : text;
}

}  // namespace qel
