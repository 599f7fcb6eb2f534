// Bytes that are no UTF-8, which come back unharmed.
#include <gtest/gtest.h>

#include "qelibaselib/platform/win32.h"

TEST(EscapedBytesTest, RoundTrip) {
  for (const char* bytes : {"\xFF", "a\x80z", "\xC3", "\xE2\x82", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80"}) {
    wchar_t wide[16];
    char narrow[16];
    EXPECT_GT(MultiByteToWideChar(CP_ACP, 0, bytes, -1, wide, 16), 0);
    EXPECT_GT(WideCharToMultiByte(CP_ACP, 0, wide, -1, narrow, 16, nullptr, nullptr), 0);
    EXPECT_STREQ(narrow, bytes);
  }
}

TEST(EscapedBytesTest, CharactersOfFourBytes) {
  wchar_t wide[4];
  char narrow[8];
  EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "\U0001F600", -1, wide, 4), 2);
  EXPECT_STREQ(wide, L"\U0001F600");
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, wide, -1, narrow, 8, nullptr, nullptr), 5);
  EXPECT_STREQ(narrow, "\U0001F600");
}

TEST(EscapedBytesTest, WhatIsNoCharacterIsReplaced) {
  for (const wchar_t bad : {static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), static_cast<wchar_t>(-1)}) {
    const wchar_t wide[] = {L'a', bad, 0};
    char narrow[8] = {};
    BOOL usedDefault = FALSE;
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, wide, -1, narrow, 8, nullptr, &usedDefault), 3);
    EXPECT_STREQ(narrow, "a?");
    EXPECT_TRUE(usedDefault);
  }
}
