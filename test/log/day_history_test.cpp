#include "test/log/log_case.h"

namespace {

using namespace qel::test;

struct DayHistory : LogCase {
  void WriteOn(WORD month, WORD day, const char* message) {
    auto time = STAND_IN(GetLocalTime, [&](int, LPSYSTEMTIME now) { *now = {2024, month, 0, day, 23, 5, 59, 7}; });
    VemoLogOutFileDayHis(stem.c_str(), folder.Wide().c_str(), L"base", L"ext", 60000, 9, "source.cpp", message);
  }
  std::string Day(const char* name) const { return ReadWholeFile(folder.Path() / name); }
  void SetDay(const char* name, const std::string& bytes) { WriteWholeFile(folder.Path() / name, bytes); }
  static std::string Line(const char* date, const char* message) {
    return std::string(date) + ", 23:05:59.007, " + ProgramPath() + ", " + std::to_string(GetCurrentProcessId()) +
           ", " + std::to_string(GetCurrentThreadId()) + ", source.cpp(9):" + message + "\r\n";
  }
};

TEST_F(DayHistory, StartsADaysFileAnewInAnotherMonth) {
  WriteOn(3, 5, "march");
  WriteOn(3, 5, "again");
  WriteOn(3, 31, "other day");
  EXPECT_EQ(Day("base_05.ext"), Line("2024/03/05", "march") + Line("2024/03/05", "again"));
  WriteOn(4, 5, "april");
  EXPECT_EQ(Day("base_05.ext"), Line("2024/04/05", "april"));
  WriteOn(4, 5, "again");
  EXPECT_EQ(Day("base_05.ext"), Line("2024/04/05", "april") + Line("2024/04/05", "again"));
  EXPECT_EQ(Day("base_31.ext"), Line("2024/03/31", "other day"));
}

TEST_F(DayHistory, FullFileTakesNoLineAndIsNotReplaced) {
  const std::string start = Line("2024/03/05", "march");
  const std::string full = start + std::string(1048577 - start.size(), '-');
  SetDay("base_05.ext", full);
  WriteOn(3, 5, "dropped");
  WriteOn(4, 5, "dropped");
  EXPECT_EQ(Day("base_05.ext"), full);
  SetDay("base_05.ext", full.substr(0, 1048576));
  WriteOn(3, 5, "last");
  EXPECT_EQ(Day("base_05.ext"), full.substr(0, 1048576) + Line("2024/03/05", "last"));
}

TEST_F(DayHistory, ReplacesAFileThatStartsWithoutADate) {
  for (const char* content : {"", "2024/03", "\r\n2024/03/05", "2024/03/0"}) {
    SetDay("base_05.ext", content);
    WriteOn(3, 5, "new");
    EXPECT_EQ(Day("base_05.ext"), Line("2024/03/05", "new"));
  }
}

TEST_F(DayHistory, NullPartsAndLongPathsAreHarmless) {
  const std::wstring longText(300, L'x');
  SetLastError(55);
  VemoLogOutFileDayHis(nullptr, nullptr, nullptr, nullptr, 0, 0, nullptr, nullptr);
  VemoLogOutFileDayHis(stem.c_str(), folder.Wide().c_str(), longText.c_str(), L"ext", 0, 0, "", "");
  VemoLogOutFileDayHis(stem.c_str(), folder.Wide("missing").c_str(), L"base", L"ext", 0, 0, "", "");
  EXPECT_EQ(GetLastError(), 55u);
}

}  // namespace
