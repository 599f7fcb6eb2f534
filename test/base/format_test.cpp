#include "qelibaselib/base/format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "qelibaselib/platform/win32.h"
#include "test/support/page_buffer.h"

namespace {

template <class... Arguments>
std::string Text(const char* format, Arguments... arguments) {
  char buffer[256];
  const size_t length = qel::FormatText(buffer, sizeof(buffer), format, arguments...);
  return length < sizeof(buffer) ? std::string(buffer, length) : "too long";
}

TEST(Format, Integers) {
  EXPECT_EQ(Text("%d|%5d|%-5d|%05d|%+d|% d|%i", -7, 42, 42, -42, 3, 3, 0), "-7|   42|42   |-0042|+3| 3|0");
  EXPECT_EQ(Text("%lu %lx %lX %#lx %08lx %o", 4294967295ul, 0xABCul, 0xABCul, 0xABCul, 0x1Ful, 8u),
            "4294967295 abc ABC 0xabc 0000001f 10");
  EXPECT_EQ(
      Text("%I64u %I64d %11I64u %I64x %llu", ~0ull, std::numeric_limits<long long>::min(), 5ull, 1ull << 40, 6ull),
      "18446744073709551615 -9223372036854775808           5 10000000000 6");
  EXPECT_EQ(Text("%hd %hhu %hu %zu", 0x18000, 0x1FF, 0x1FFFF, size_t{9}), "-32768 255 65535 9");
  EXPECT_EQ(Text("%.3d|%5.3d|%-6.2d|%05.3d|%.0d|%*d|%-*d|%.*d", 7, 7, 7, 7, 0, 4, 1, 4, 1, 2, 1),
            "007|  007|07    |  007||   1|1   |01");
}

TEST(Format, Pointers) {
  EXPECT_EQ(Text("%p 0x%p %08p", reinterpret_cast<void*>(0xAB), nullptr, reinterpret_cast<void*>(0xFFFFFFFF)),
            "000000AB 0x00000000 FFFFFFFF");
}

TEST(Format, Texts) {
  const char unterminated[] = {'a', 'b', 'c'};
  EXPECT_EQ(Text("%s|%5s|%-5s|%.2s|%.3s|%5.1s|%s", "ab", "ab", "ab", "abc", unterminated, "xyz",
                 static_cast<const char*>(nullptr)),
            "ab|   ab|ab   |ab|abc|    x|(null)");
  EXPECT_EQ(Text("%c%5c%-3c%%|%q|100%", 'a', 'b', 'c'), "a    bc  %|q|100");
  EXPECT_EQ(
      Text("%ls|%S|%5ls|%-4S|%.1ls|%ls", L"wide", L"text", L"ab", L"c", L"xyz", static_cast<const wchar_t*>(nullptr)),
      "wide|text|   ab|c   |x|(null)");
  const std::wstring longWide(200, L'w');
  EXPECT_EQ(Text("%ls", longWide.c_str()), std::string(200, 'w'));
}

TEST(Format, Numbers) {
  EXPECT_EQ(Text("%f %5.2f %.0f %e %g %+f", 1.5, 2.0 / 3, 2.0, 12345.678, 0.0001, 1.0),
            "1.500000  0.67 2 1.234568e+04 0.0001 +1.000000");
  EXPECT_EQ(Text("%f %f", std::numeric_limits<double>::infinity(), std::nan("")), "inf nan");
}

// As the C run time of Windows prints them.
TEST(Format, FlagsOfWindows) {
  EXPECT_EQ(Text("%#o|%#o|%#.0o|%#.5o|%#05o|%.0o", 8, 0, 0, 8, 8, 0), "010|0|0|00010|00010|");
  EXPECT_EQ(Text("%04s|%-04s|%04c|%04ls|%03.1s", "ab", "ab", 'x', L"ab", "xyz"), "00ab|ab  |000x|00ab|00x");
  EXPECT_EQ(Text("%#p|%#12p|%#p", reinterpret_cast<void*>(0xAB), reinterpret_cast<void*>(0xAB), nullptr),
            "0X000000AB|  0X000000AB|00000000");
}

TEST(Format, LargeWidthsAndPrecisionsAreCut) {
  constexpr size_t kMost = 1 << 20;
  constexpr int kLargest = std::numeric_limits<int>::max();
  constexpr int kSmallest = std::numeric_limits<int>::min();
  const auto length = [](auto... arguments) { return qel::FormatText(nullptr, 0, arguments...); };
  EXPECT_EQ(length("%99999999999999999999d", 1), kMost);
  EXPECT_EQ(length("%.99999999999999999999d", 1), kMost);
  EXPECT_EQ(length("%*d%*s", kLargest, 1, kSmallest, "x"), 2 * kMost);
  EXPECT_EQ(length("%.*d", kSmallest, 7), 1u);
  EXPECT_EQ(length("%*.*f", kLargest, kLargest, 1.5), 162u);
  const std::string text(kMost + 1, 'x');
  EXPECT_EQ(length("%.99999999999999999999s", text.c_str()), text.size());
}

// The narrow form of this character has one byte or more, by the code page.
TEST(Format, WideTextEndsAtItsPrecision) {
  const qel::test::PageBuffer page;
  auto* const unterminated = reinterpret_cast<wchar_t*>(page.End()) - 2;
  unterminated[0] = L'\u00E9';
  unterminated[1] = L'b';
  const std::string one = Text("%lc", L'\u00E9');
  const int bytes = static_cast<int>(one.size());
  EXPECT_EQ(Text("%.*ls|%4.*ls", bytes + 1, unterminated, bytes, unterminated),
            one + "b|" + std::string(4 - one.size(), ' ') + one);
  for (int fits = 0; fits < bytes; ++fits) EXPECT_EQ(Text("%.*ls", fits, unterminated), "");
}

TEST(Format, CutsAndTellsTheWholeLength) {
  char buffer[6] = "-----";
  EXPECT_EQ(qel::FormatText(buffer, 4, "%s%d", "abc", 12), 5u);
  EXPECT_STREQ(buffer, "abc");
  EXPECT_EQ(buffer[4], '-');
  EXPECT_EQ(qel::FormatText(nullptr, 0, "%f", 1e300), 308u);
  EXPECT_EQ(qel::FormatText(buffer, 1, "x"), 1u);
  EXPECT_STREQ(buffer, "");
}

TEST(Format, KeepsTheLastError) {
  SetLastError(99);
  Text("%f %ls", 1.0, L"\xFFFF");
  EXPECT_EQ(GetLastError(), 99u);
}

TEST(Format, StreamTakesTextOfAnyLength) {
  FILE* stream = std::tmpfile();
  ASSERT_NE(stream, nullptr);
  const std::string longText(10000, 'x');
  EXPECT_EQ(qel::FormatToStream(stream, "%s%d", longText.c_str(), 1), 10001);
  EXPECT_EQ(qel::FormatToStream(stream, "%s", ""), 0);
  std::fclose(stream);
}

}  // namespace
