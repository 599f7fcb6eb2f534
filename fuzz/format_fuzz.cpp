// clang-format off
// fuzz-sources: qelibaselib/base/format.cpp qelibaselib/base/format_conversion.cpp qelibaselib/base/format_number.cpp qelibaselib/base/format_text.cpp qelibaselib/base/formatted_text.cpp
// clang-format on

// The formatter on any format. An argument has to fit its conversion, so each percent sign gets, after flags of the
// fuzzer's choice, one of the letters below and an argument of its kind. Checked beside what the sanitizers see: the
// text is cut at its buffer's end, its length does not depend on the buffer, and a plain number reads as the C library
// prints it.
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "qelibaselib/base/format.h"

namespace {

constexpr int kTerminatedPrecision = 99;
constexpr char kFlags[] = "-+ #0123456789.*hlIw64jztL";

void Require(bool holds) {
  if (!holds) std::abort();
}

// Takes the fuzzer's bytes from the front; 0 behind their end.
class Input {
 public:
  Input(const uint8_t* bytes, size_t count) : bytes_(bytes), count_(count) {}
  bool IsEmpty() const { return count_ == 0; }
  uint8_t Byte() {
    if (count_ == 0) return 0;
    --count_;
    return *bytes_++;
  }
  uint32_t Word() { return Byte() | Byte() << 8 | Byte() << 16 | static_cast<uint32_t>(Byte()) << 24; }

 private:
  const uint8_t* bytes_;
  size_t count_;
};

std::string TakeFlags(Input& input) {
  std::string flags;
  for (int i = input.Byte() % 12; i > 0; --i) flags += kFlags[input.Byte() % (sizeof kFlags - 1)];
  return flags;
}

// On the heap and without a terminator, so that the sanitizer sees every read behind the end.
template <class Character>
std::vector<Character> TakeText(Input& input, bool terminated) {
  std::vector<Character> text;
  for (int i = input.Byte() % 32; i > 0; --i) text.push_back(static_cast<Character>(input.Byte() % 255 + 1));
  if (terminated) text.push_back(0);
  text.shrink_to_fit();
  return text;
}

template <class... Arguments>
void CheckFormat(const std::string& format, Arguments... arguments) {
  const size_t length = qel::FormatText(nullptr, 0, format.c_str(), arguments...);
  if (length > 1 << 16) return;
  const auto whole = std::make_unique<char[]>(length + 1);
  Require(qel::FormatText(whole.get(), length + 1, format.c_str(), arguments...) == length);
  Require(std::strlen(whole.get()) <= length);
  const size_t cut = length / 2 + 1;
  const auto half = std::make_unique<char[]>(cut);
  Require(qel::FormatText(half.get(), cut, format.c_str(), arguments...) == length);
  Require(half[cut - 1] == '\0' && std::memcmp(half.get(), whole.get(), cut - 1) == 0);
}

// Two words of stars in front of the argument; those that the flags do not ask for must not be there.
template <class Argument>
void CheckWithStars(const std::string& format, Input& input, Argument argument) {
  const int first = static_cast<int>(input.Word());
  const int second = static_cast<int>(input.Word());
  const size_t width = format.find_first_not_of("-+ #0", 1);
  size_t stars = format[width] == '*' ? 1 : 0;
  size_t behind = stars ? width + 1 : format.find_first_not_of("0123456789", width);
  if (behind != std::string::npos && format[behind] == '.' && format[behind + 1] == '*') ++stars;
  if (stars == 0) CheckFormat(format, argument);
  if (stars == 1) CheckFormat(format, first, argument);
  if (stars == 2) CheckFormat(format, first, second, argument);
}

// Only the flags of a number; sizes are the letters' own.
std::string WithoutSizes(const std::string& flags) {
  std::string rest;
  for (const char flag : flags)
    if (std::strchr("-+ #0123456789.*", flag)) rest += flag;
  return rest;
}

void CompareNumber(Input& input) {
  const int value = static_cast<int>(input.Word());
  const char letter = "diuxXo"[input.Byte() % 6];
  const std::string format = std::string("%") + "-+ #0"[input.Byte() % 5] + std::to_string(input.Byte() % 40) +
                             (input.Byte() % 2 ? "." + std::to_string(input.Byte() % 40) : "") + letter;
  char ours[256], theirs[256];
  qel::FormatText(ours, sizeof ours, format.c_str(), value);
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::snprintf(theirs, sizeof theirs, format.c_str(), value);
  Require(std::strcmp(ours, theirs) == 0);
}

void CheckText(Input& input, const std::string& flags) {
  const bool narrow = input.Byte() % 2;
  const bool terminated = input.Byte() % 2;
  const std::string width = flags.substr(0, flags.find('.'));
  // Each character has one narrow byte at least, so a precision of their number never reads behind them.
  const auto check = [&](const char* letter, const auto& text) {
    CheckFormat("%" + width + letter, terminated ? kTerminatedPrecision : static_cast<int>(text.size()), text.data());
  };
  if (narrow) return check(".*s", TakeText<char>(input, terminated));
  check(".*ls", TakeText<wchar_t>(input, terminated));
}

std::string WithoutStars(std::string flags) {
  std::erase(flags, '*');
  return flags;
}

void CheckOne(Input& input) {
  const std::string flags = WithoutSizes(TakeFlags(input));
  switch (input.Byte() % 6) {
    case 0:
      return CompareNumber(input);
    case 1:
      return CheckText(input, WithoutStars(flags));
    case 2:
      return CheckFormat("%" + WithoutStars(flags) + "I64" + "diuxXo"[input.Byte() % 6],
                         static_cast<uint64_t>(input.Word()) << 32 | input.Word());
    case 3:
      return CheckFormat("%" + WithoutStars(flags) + "efgEGa"[input.Byte() % 6],
                         std::bit_cast<double>(static_cast<uint64_t>(input.Word()) << 32 | input.Word()));
    case 4:
      return CheckFormat("%" + WithoutStars(flags) + "pcC"[input.Byte() % 3], input.Word());
    default:
      return CheckWithStars("%" + flags + "d", input, static_cast<int>(input.Word()));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t count) {
  Input input(bytes, count);
  while (!input.IsEmpty()) CheckOne(input);
  return 0;
}
