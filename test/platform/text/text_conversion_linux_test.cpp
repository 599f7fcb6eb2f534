// Characters that Windows has no single code for, and codes that are none.
#include <gtest/gtest.h>

#include "qelibaselib/platform/win32.h"

TEST(UnusualTextTest, CharactersOfFourBytes) {
  wchar_t wide[4];
  char narrow[8];
  EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "\U0001F600", -1, wide, 4), 2);
  EXPECT_STREQ(wide, L"\U0001F600");
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, wide, -1, narrow, 8, nullptr, nullptr), 5);
  EXPECT_STREQ(narrow, "\U0001F600");
}

TEST(UnusualTextTest, WhatIsNoCharacterIsReplaced) {
  for (const wchar_t bad : {static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), static_cast<wchar_t>(-1)}) {
    const wchar_t wide[] = {L'a', bad, 0};
    char narrow[8] = {};
    BOOL usedDefault = FALSE;
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, wide, -1, narrow, 8, nullptr, &usedDefault), 3);
    EXPECT_STREQ(narrow, "a?");
    EXPECT_TRUE(usedDefault);
  }
}
