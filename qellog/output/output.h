/// @file
/// Where a command writes to: standard output, a pager, a file.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace qellog {

/// Thrown when nobody reads any more, as behind `| head`: the program ends, in silence.
struct OutputClosed {};

class Output {
 public:
  explicit Output(std::FILE* stream) : stream_(stream) {}
  void Write(std::string_view text);
  void Flush();

 private:
  std::FILE* stream_;
};

enum class Colour { kPlain, kFaint, kRed, kGreen, kYellow, kBlue, kMagenta, kCyan, kBold };

/// Wraps texts in a terminal's colours, or leaves them as they are.
class Colours {
 public:
  explicit Colours(bool enabled) : enabled_(enabled) {}
  bool AreOn() const { return enabled_; }
  std::string Paint(Colour colour, std::string_view text) const;
  /// What stands around a painted text; nothing without colours.
  void Begin(std::string& text, Colour colour) const;
  void End(std::string& text, Colour colour) const;

 private:
  bool enabled_;
};

/// Fills up with blanks to a width, counted in characters.
std::string Padded(std::string_view text, std::size_t width);
std::string PaddedLeft(std::string_view text, std::size_t width);
/// 1234567 as "1,234,567".
std::string Grouped(std::uint64_t number);
/// "12.4 MiB"
std::string SizeText(std::uint64_t bytes);

}  // namespace qellog
