#include "test/fileversion/module_builder.h"
#include "test/support/library.h"

namespace {

using namespace qel::test;

VersionContents TwoLanguages() {
  return {{{"040904e4", {{"CompanyName", u"ACME"}, {"FileVersion", u"1.2.3.4"}, {"Comments", u""}}},
           {"041103a4", {{"CompanyName", u"AKME"}, {"PrivateBuild", u"night"}, {"Other", u"x"}}}},
          {{0x0409, 0x04E4}, {0x0411, 0x03A4}}};
}

class VersionStrings : public testing::Test {
 protected:
  std::wstring Write(const ByteVector& bytes) {
    WriteWholeFile(folder_.Path() / "module.dll", {bytes.begin(), bytes.end()});
    return folder_.Wide("module.dll");
  }
  ScratchFolder folder_;
};

TEST_F(VersionStrings, OneRowForEachTranslationInTheResourcesOrder) {
  for (const ModuleOptions& options : {ModuleOptions{}, ModuleOptions{true}, ModuleOptions{false, true}}) {
    for (bool translationFirst : {false, true}) {
      VersionContents contents = TwoLanguages();
      contents.translationFirst = translationFirst;
      const VersionHandle version(Write(BuildModule(BuildVersionResource(contents), options)));
      char** strings = version.strings();
      ASSERT_NE(strings, nullptr);
      EXPECT_STREQ(strings[kVersionCompanyName], "ACME");
      EXPECT_STREQ(strings[kVersionFileVersion], "1.2.3.4");
      EXPECT_EQ(strings[kVersionPrivateBuild], nullptr);
      EXPECT_EQ(strings[kVersionOriginalFilename], nullptr);
      char** second = strings + kVersionStringCount;
      EXPECT_STREQ(second[kVersionCompanyName], "AKME");
      EXPECT_STREQ(second[kVersionPrivateBuild], "night");
      EXPECT_EQ(second[kVersionFileVersion], nullptr);
    }
  }
}

TEST_F(VersionStrings, FilesWithoutAVersionGiveAHandleWithoutATable) {
  ModuleOptions noResources, otherType;
  noResources.hasResources = false;
  otherType.resourceType = 10;
  VersionContents noTranslation = TwoLanguages();
  noTranslation.translations.clear();
  const std::string text = "no module at all";
  const ByteVector files[] = {{},
                              {text.begin(), text.end()},
                              BuildModule(BuildVersionResource(TwoLanguages()), noResources),
                              BuildModule(BuildVersionResource(TwoLanguages()), otherType),
                              BuildModule(BuildVersionResource(noTranslation))};
  for (const ByteVector& bytes : files) {
    const VersionHandle version(Write(bytes));
    EXPECT_NE(version.handle, nullptr);
    EXPECT_EQ(version.strings(), nullptr) << bytes.size();
  }
  for (const std::wstring& name : {folder_.Wide("missing.dll"), folder_.Wide(), std::wstring()}) {
    const VersionHandle version(name);
    EXPECT_NE(version.handle, nullptr);
    EXPECT_EQ(version.strings(), nullptr);
  }
  void* unnamed = CreateCFileVersion(nullptr);
  EXPECT_NE(unnamed, nullptr);
  ReleaseCFileVersion(unnamed);
  EXPECT_EQ(GetVerCFileVersion(nullptr), nullptr);
  ReleaseCFileVersion(nullptr);
}

TEST_F(VersionStrings, ATranslationWithoutATableGivesAnEmptyRow) {
  VersionContents contents = TwoLanguages();
  contents.translations.insert(contents.translations.begin(), {0x0407, 0x04B0});
  const VersionHandle version(Write(BuildModule(BuildVersionResource(contents))));
  char** strings = version.strings();
  ASSERT_NE(strings, nullptr);
  for (int column = 0; column < kVersionStringCount; ++column) EXPECT_EQ(strings[column], nullptr);
  EXPECT_STREQ(strings[kVersionStringCount + kVersionCompanyName], "ACME");
}

TEST_F(VersionStrings, AFailedQueryKeepsWhatWasRead) {
  const std::wstring file = Write(BuildModule(BuildVersionResource(TwoLanguages())));
  for (int nth = 1; nth <= 3; ++nth) {
    auto fail = FAIL_CALL(VerQueryValueA, nth, ERROR_INVALID_DATA, FALSE);
    const VersionHandle version(file);
    char** strings = version.strings();
    EXPECT_EQ(strings == nullptr, nth == 1);  // the first query asks for the translations
    if (strings && nth == 3) {
      EXPECT_EQ(strings[kVersionCompanyName], nullptr);
    }
  }
}

// The calls behind it, as every module's reader uses them.
TEST_F(VersionStrings, QueriesOfTheBlock) {
  const std::wstring file = Write(BuildModule(BuildVersionResource(TwoLanguages())));
  DWORD zero = 1;
  const DWORD size = GetFileVersionInfoSizeW(file.c_str(), &zero);
  ASSERT_NE(size, 0u);
  EXPECT_EQ(zero, 0u);
  EXPECT_EQ(GetLastError(), 0u);
  std::vector<char> block(size);
  ASSERT_TRUE(GetFileVersionInfoW(file.c_str(), 0, size, block.data()));

  void* value = nullptr;
  UINT length = 0;
  const auto query = [&](const char* path) {
    SetLastError(77);
    return VerQueryValueA(block.data(), path, &value, &length);
  };
  ASSERT_TRUE(query("\\"));
  EXPECT_EQ(length, 52u);
  ASSERT_TRUE(query("\\VarFileInfo\\Translation"));
  EXPECT_EQ(length, 8u);
  EXPECT_EQ(std::memcmp(value, "\x09\x04\xE4\x04\x11\x04\xA4\x03", 8), 0);
  for (const char* path : {"\\StringFileInfo\\040904e4\\CompanyName", "\\stringfileinfo\\040904E4\\COMPANYNAME",
                           "StringFileInfo\\040904e4\\CompanyName"}) {
    ASSERT_TRUE(query(path)) << path;
    EXPECT_STREQ(static_cast<char*>(value), "ACME");
    EXPECT_EQ(length, 5u);
    void* first = value;
    ASSERT_TRUE(query(path));
    EXPECT_EQ(value, first);
    EXPECT_GE(static_cast<char*>(value), block.data());
    EXPECT_LT(static_cast<char*>(value), block.data() + block.size());
  }
  ASSERT_TRUE(query("\\StringFileInfo\\040904e4\\Comments"));
  EXPECT_EQ(length, 1u);
  ASSERT_TRUE(query("\\StringFileInfo"));
  EXPECT_EQ(length, 0u);
  for (const char* path : {"\\Nope", "\\StringFileInfo\\00000000\\CompanyName", "\\StringFileInfo\\040904e4\\Nope"}) {
    EXPECT_FALSE(query(path)) << path;
    EXPECT_EQ(GetLastError(), DWORD{ERROR_RESOURCE_TYPE_NOT_FOUND});
    EXPECT_EQ(length, 0u);
  }
  const std::vector<char> zeros(size);
  EXPECT_FALSE(VerQueryValueA(zeros.data(), "\\StringFileInfo\\040904e4\\CompanyName", &value, &length));
}

TEST_F(VersionStrings, AShortBlockIsCutAndStaysReadable) {
  const std::wstring file = Write(BuildModule(BuildVersionResource(TwoLanguages())));
  const DWORD size = GetFileVersionInfoSizeW(file.c_str(), nullptr);
  for (DWORD part : {DWORD{0}, DWORD{1}, DWORD{8}, DWORD{100}, size / 2, size - 1}) {
    std::vector<char> block(part + 16, '\x5A');
    EXPECT_TRUE(GetFileVersionInfoW(file.c_str(), 0, part, block.data())) << part;
    EXPECT_EQ(block[part], '\x5A');
  }
  EXPECT_FALSE(GetFileVersionInfoW(file.c_str(), 0, size, nullptr));
  EXPECT_EQ(GetLastError(), 13u);
}

}  // namespace
