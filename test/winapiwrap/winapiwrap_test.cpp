#include "qelibaselib/winapiwrap/winapiwrap.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "test/support/log_folder.h"
#include "test/support/replace_call.h"

namespace {

using namespace qel::test;

std::wstring Unique(const wchar_t* kind) {
  static int number = 0;
  return L"Local\\qel_test_" + std::to_wstring(GetCurrentProcessId()) + kind + std::to_wstring(++number);
}

struct Creation {
  const char* call;
  std::function<HANDLE(const wchar_t* name)> create;
};
const Creation kCreations[] = {
    {"CreateEventX(0x00000000, 1, 0, ",
     [](const wchar_t* name) { return CreateEventX(7, "host.cpp", nullptr, TRUE, FALSE, name); }},
    {"CreateMutexX(0x00000000, 0, ",
     [](const wchar_t* name) { return CreateMutexX(7, "host.cpp", nullptr, FALSE, name); }},
    {"CreateSemaphoreX(0x00000000, 0, 3, ",
     [](const wchar_t* name) { return CreateSemaphoreX(7, "host.cpp", nullptr, 0, 3, name); }}};

void ExpectFailureLine(const std::string& message) {
  const auto lines = TakeLines(qel::channel::kWinApiWrap);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].message, message);
  EXPECT_EQ(lines[0].line, 7);
  EXPECT_EQ(lines[0].sourceFile, "host.cpp");
}

TEST(WinApiWrap, SuccessWritesNothingAndKeepsTheSystemsError) {
  TakeLines(qel::channel::kWinApiWrap);
  for (const Creation& creation : kCreations) {
    const std::wstring name = Unique(L"a");
    SetLastError(5);
    const HANDLE first = creation.create(name.c_str());
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(GetLastError(), 0u);
    const HANDLE second = creation.create(name.c_str());
    EXPECT_NE(second, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    const HANDLE unnamed = creation.create(nullptr);
    EXPECT_NE(unnamed, nullptr);
    for (const HANDLE handle : {first, second, unnamed}) EXPECT_TRUE(CloseHandle(handle));
  }
  EXPECT_EQ(TakeLines(qel::channel::kWinApiWrap).size(), 0u);
}

TEST(WinApiWrap, BadNamesGiveOneLineAndTheSystemsError) {
  TakeLines(qel::channel::kWinApiWrap);
  for (const Creation& creation : kCreations) {
    EXPECT_EQ(creation.create(L"bogus\\name"), nullptr);
    EXPECT_EQ(GetLastError(), 3u);
    ExpectFailureLine("lastErr=3, " + std::string(creation.call) + "bogus\\name)");
    const HANDLE timer =
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 16, L"Local\\qel_test_other_kind");
    EXPECT_EQ(creation.create(L"Local\\qel_test_other_kind"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    ExpectFailureLine("lastErr=6, " + std::string(creation.call) + "Local\\qel_test_other_kind)");
    CloseHandle(timer);
  }
}

TEST(WinApiWrap, FailureLinesNameEveryArgument) {
  TakeLines(qel::channel::kWinApiWrap);
  SECURITY_ATTRIBUTES security = {sizeof(security), nullptr, FALSE};
  char pointer[16];
  snprintf(pointer, sizeof(pointer), "0x%08lX", reinterpret_cast<unsigned long>(&security));
  {
    auto create = FAIL_CALL(CreateEventW, 1, 8, nullptr);
    EXPECT_EQ(CreateEventX(7, "host.cpp", &security, -1, 2, L"\x00E9"), nullptr);
    EXPECT_EQ(GetLastError(), 8u);
    const auto message = TakeMessages(qel::channel::kWinApiWrap).at(0);
    EXPECT_EQ(message.substr(0, message.rfind(' ')),
              "lastErr=8, CreateEventX(" + std::string(pointer) + ", 4294967295, 2,");
  }
  {
    auto create = FAIL_CALL(CreateMutexW, 1, 8, nullptr);
    EXPECT_EQ(CreateMutexX(7, "host.cpp", nullptr, FALSE, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), 8u);
    ExpectFailureLine("lastErr=8, CreateMutexX(0x00000000, 0, NULL)");
  }
  EXPECT_EQ(CreateSemaphoreX(7, "host.cpp", &security, -2, -3, nullptr), nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  ExpectFailureLine("lastErr=87, CreateSemaphoreX(" + std::string(pointer) + ", -2, -3, NULL)");
}

TEST(WinApiWrap, MutexFailureReentersTheWriterUntilOneSucceeds) {
  TakeLines(qel::channel::kWinApiWrap);
  auto create = FAIL_CALL(CreateMutexW, 1, 8, nullptr, 3);
  EXPECT_EQ(CreateMutexX(7, "host.cpp", nullptr, TRUE, L"wanted"), nullptr);
  EXPECT_EQ(GetLastError(), 8u);
  EXPECT_EQ(create.Calls(), 4);
  const auto lines = TakeLines(qel::channel::kWinApiWrap);
  ASSERT_EQ(lines.size(), 1u);  // of the failure inside the writer; the ones before it were lost with their mutexes
  EXPECT_EQ(lines[0].line, 555);
}

void ExpectFaultInGuard(const Creation& creation) {
  TakeLines(qel::channel::kAssert);
  EXPECT_EQ(creation.create(reinterpret_cast<const wchar_t*>(16)), nullptr);
  const auto messages = TakeMessages(qel::channel::kAssert);
  ASSERT_FALSE(messages.empty());
  EXPECT_TRUE(messages[0].ends_with("_CATCH_AE")) << messages[0];
  EXPECT_NE(messages[0].find("winapiwrap.cpp"), std::string::npos) << messages[0];
}

// The system does not look at the name here; the wrapper does when it writes its line.
TEST(WinApiWrap, NameThatOnlyTheLineReadsFaultsInTheGuard) {
  TakeLines(qel::channel::kWinApiWrap);
  {
    auto create = FAIL_CALL(CreateEventW, 1, 8, nullptr);
    ExpectFaultInGuard(kCreations[0]);
  }
  {
    auto create = FAIL_CALL(CreateMutexW, 1, 8, nullptr);
    ExpectFaultInGuard(kCreations[1]);
  }
  {
    auto create = FAIL_CALL(CreateSemaphoreW, 1, 8, nullptr);
    ExpectFaultInGuard(kCreations[2]);
  }
  EXPECT_TRUE(TakeLines(qel::channel::kWinApiWrap).empty());
}

TEST(WinApiWrap, WorksWithABadSourceFile) {
  EXPECT_EQ(CreateEventX(7, reinterpret_cast<const char*>(16), nullptr, TRUE, FALSE, L"bogus\\name"), nullptr);
  EXPECT_EQ(GetLastError(), 3u);
}

}  // namespace
