// The library reads the version that its own build has put into it.
#include "test/support/library.h"

TEST(OwnModule, CarriesTheProjectsVersion) {
  wchar_t path[MAX_PATH];
  ASSERT_NE(GetModuleFileNameW(GetModuleHandleA("QelIBaseLib.dll"), path, MAX_PATH), 0u);
  void* version = CreateCFileVersion(path);
  char** strings = GetVerCFileVersion(version);
  ASSERT_NE(strings, nullptr);
  EXPECT_STREQ(strings[kVersionFileVersion], QEL_VERSION);
  EXPECT_STREQ(strings[kVersionProductName], "QelIBaseLib");
  ReleaseCFileVersion(version);
}
