/// @file
/// One conversion of a printf format, such as `%-08.3I64x`, as a value, and the reader that makes it.
#pragma once
#include <cstdarg>

namespace qel {

/// The size of the argument that the letters before the conversion's own name.
enum class ArgumentSize { kInt, kChar, kShort, kLong, k64Bits, kLongDouble };

struct FormatConversion {
  static constexpr int kNoPrecision = -1;
  /// No width is larger, and no number is given more digits.
  static constexpr int kMostPadding = 1 << 20;

  bool left = false, plus = false, space = false, alternate = false, zero = false;
  int width = 0;                 ///< 0 to kMostPadding
  int precision = kNoPrecision;  ///< kNoPrecision, or 0 and more
  ArgumentSize size = ArgumentSize::kInt;
  char type = '\0';  ///< the letter itself; 0 where the format ends before it
};

/// A list of arguments that functions can share, whatever type the compiler gives it.
struct FormatArguments {
  std::va_list list;
};

/// Reads the conversion at `text`, which stands behind the percent sign, and returns what stands behind the conversion.
/// A width or precision of `*` is taken from `arguments`. Numbers that are too large are cut to the largest.
const char* ReadConversion(const char* text, FormatArguments& arguments, FormatConversion& conversion);

}  // namespace qel
