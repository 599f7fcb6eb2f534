#include "qellog/output/output.h"

#include <cstdint>

namespace qellog {
namespace {

const char* CodeOf(Colour colour) {
  constexpr const char* kCodes[] = {"0", "2", "31", "32", "33", "34", "35", "36", "1"};
  return kCodes[static_cast<std::size_t>(colour)];
}

/// Continuation bytes of UTF-8 take no place of their own; East Asian characters are wide, which is near enough.
std::size_t WidthOf(std::string_view text) {
  std::size_t width = 0;
  for (const char byte : text) {
    const auto value = static_cast<unsigned char>(byte);
    if ((value & 0xC0) != 0x80) width += value >= 0xE3 && value <= 0xEF ? 2 : 1;
  }
  return width;
}

std::string Blanks(std::string_view text, std::size_t width) {
  const std::size_t used = WidthOf(text);
  return std::string(used < width ? width - used : 0, ' ');
}

}  // namespace

void Output::Write(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stream_) != text.size()) throw OutputClosed{};
}

void Output::Flush() {
  if (std::fflush(stream_) != 0) throw OutputClosed{};
}

std::string Colours::Paint(Colour colour, std::string_view text) const {
  std::string painted;
  Begin(painted, colour);
  painted.append(text);
  End(painted, colour);
  return painted;
}

void Colours::Begin(std::string& text, Colour colour) const {
  if (enabled_ && colour != Colour::kPlain) text.append("\x1b[").append(CodeOf(colour)).append("m");
}

void Colours::End(std::string& text, Colour colour) const {
  if (enabled_ && colour != Colour::kPlain) text.append("\x1b[0m");
}

std::string Padded(std::string_view text, std::size_t width) { return std::string(text) + Blanks(text, width); }

std::string PaddedLeft(std::string_view text, std::size_t width) { return Blanks(text, width).append(text); }

std::string Grouped(std::uint64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t place = digits.size(); place > 3;) {
    place -= 3;
    digits.insert(place, ",");
  }
  return digits;
}

std::string SizeText(std::uint64_t bytes) {
  constexpr const char* kUnits[] = {"bytes", "KiB", "MiB", "GiB"};
  if (bytes < 1024) return std::to_string(bytes) + " bytes";
  std::size_t unit = 0;
  auto value = static_cast<double>(bytes);
  for (; value >= 1024 && unit < 3; ++unit) value /= 1024;
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

}  // namespace qellog
