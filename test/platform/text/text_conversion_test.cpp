#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "test/platform/objects/handles.h"

namespace {

std::string Narrow(const std::wstring& wide) {
  char text[64];
  const int length =
      WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), text, sizeof text, nullptr, nullptr);
  return {text, static_cast<size_t>(length)};
}
std::wstring Widen(const std::string& narrow) {
  wchar_t text[64];
  return {text, static_cast<size_t>(
                    MultiByteToWideChar(CP_UTF8, 0, narrow.data(), static_cast<int>(narrow.size()), text, 64))};
}

}  // namespace

TEST(TextConversionTest, LengthsAndErrors) {
  char narrow[4];
  wchar_t wide[4];
  EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, L"", -1, nullptr, 0, nullptr, nullptr), 1);
  EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, L"abc", -1, nullptr, 0, nullptr, nullptr), 4);
  EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, L"abc", -1, narrow, 4, nullptr, nullptr), 4);
  EXPECT_STREQ(narrow, "abc");
  EXPECT_EQ(MultiByteToWideChar(CP_ACP, 0, "abc", 2, wide, 4), 2);
  EXPECT_EQ(std::wstring(wide, 2), L"ab");
  EXPECT_CALL(WideCharToMultiByte(CP_ACP, 0, L"abcd", -1, narrow, 4, nullptr, nullptr), 0, 122);
  EXPECT_CALL(MultiByteToWideChar(CP_ACP, 0, "abcd", -1, wide, 4), 0, 122);
  EXPECT_CALL(WideCharToMultiByte(CP_ACP, 0, nullptr, -1, narrow, 4, nullptr, nullptr), 0, 87);
  EXPECT_CALL(MultiByteToWideChar(CP_ACP, 0, nullptr, -1, wide, 4), 0, 87);
}

TEST(TextConversionTest, RoundTrip) {
  for (const wchar_t* text : {L"plain", L"\xE9\xDF", L"\x20AC\x65E5\x672C", L"\xFFFD\x7FF\x800"})
    EXPECT_EQ(Widen(Narrow(text)), text);
  EXPECT_EQ(Narrow(L"\xE9\x20AC"), "\xC3\xA9\xE2\x82\xAC");
  EXPECT_EQ(Widen("\xF0\x9F\x98\x80"), L"\U0001F600");
  EXPECT_EQ(Narrow(L"\U0001F600"), "\xF0\x9F\x98\x80");
}

TEST(TextConversionTest, BoundedCopy) {
  wchar_t target[4] = L"zzz";
  EXPECT_EQ(wcsncpy_s(target, 4, L"a", _TRUNCATE), 0);
  EXPECT_EQ(std::wstring(target, 3), std::wstring(L"a\0z", 3));
  EXPECT_EQ(wcsncpy_s(target, 4, L"abcdef", _TRUNCATE), STRUNCATE);
  EXPECT_STREQ(target, L"abc");
  EXPECT_EQ(wcsncpy_s(target, 4, L"abcdef", 2), 0);
  EXPECT_STREQ(target, L"ab");
  EXPECT_EQ(wcsncpy_s(target, 4, L"abcdef", 4), ERANGE);
  EXPECT_STREQ(target, L"");
}

TEST(TextConversionTest, Comparisons) {
  const auto bytes = [](const char* text) { return reinterpret_cast<const unsigned char*>(text); };
  EXPECT_EQ(_mbsnbcmp(bytes("2024/01/02x"), bytes("2024/01/02y"), 10), 0);
  EXPECT_LT(_mbsnbcmp(bytes("a"), bytes("b"), 1), 0);
  EXPECT_GT(_mbsnbcmp(bytes("ab"), bytes("a"), 2), 0);
  EXPECT_EQ(_mbsnbcmp(bytes("a"), bytes("b"), 0), 0);
  EXPECT_EQ(_mbsnbcmp(bytes("a"), bytes("a"), 9), 0);
  EXPECT_EQ(_wcsnicmp(L"AbC", L"aBd", 2), 0);
  EXPECT_LT(_wcsnicmp(L"AbC", L"aBd", 3), 0);
  EXPECT_EQ(_wcsnicmp(L"a", L"A", 9), 0);
  char* copy = _strdup("text");
  EXPECT_STREQ(copy, "text");
  std::free(copy);
}
