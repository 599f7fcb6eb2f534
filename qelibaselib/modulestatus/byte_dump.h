/// @file
/// Lines of bytes.
#pragma once
#include <cstddef>

#include "qelibaselib/modulestatus/report_stream.h"
#include "qelibaselib/platform/win32.h"

namespace qel::report {

inline constexpr int kBytesPerLine = 16;

/// Builds one line of text on the stack, without a terminator of its own until it is printed.
class DumpLine {
 public:
  void Append(const char* text) {
    while (*text && length_ + 1 < sizeof text_) text_[length_++] = *text++;
  }
  /// Two lower-case hexadecimal digits.
  void AppendByte(BYTE value) {
    constexpr char kDigits[] = "0123456789abcdef";
    const char digits[] = {kDigits[value >> 4], kDigits[value & 15], '\0'};
    Append(digits);
  }
  /// What separates groups of four in the dumps of memory, before position 4, 8 and 12 of a line.
  void AppendGroupMark(int position) {
    if (position != 0 && position % 4 == 0) Append("- ");
  }
  void PrintTo(ReportStream& out) {
    text_[length_] = '\0';
    out.Print("%s\n", text_);
    length_ = 0;
  }

 private:
  // Address, 16 bytes of three characters, three group marks.
  char text_[96];
  std::size_t length_ = 0;
};

/// Whether the byte can be read, and the byte. A dump looks at whatever lies there, a sanitizer's redzones included.
__attribute__((no_sanitize_address)) inline bool ReadByte(DWORD address, BYTE& value) {
  const auto* byte = reinterpret_cast<const volatile BYTE*>(address);
  if (IsBadReadPtr(const_cast<const BYTE*>(byte), 1)) return false;
  value = *byte;
  return true;
}

}  // namespace qel::report
