#include "qelibaselib/winapiwrap/winapiwrap.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "test/support/failing_calls.h"
#include "test/support/log_folder.h"
#include "test/support/replace_call.h"

namespace {

using namespace qel::test;
constexpr auto& kChannel = qel::channel::kWinApiWrap;

// The wrappers in one shape, and the call of the system that each makes.
struct Creation {
  std::function<HANDLE(const wchar_t* name)> create;
  std::string line;  // up to the name
  FailingCall call;
};
const Creation kCreations[] = {
    {[](const wchar_t* name) { return CreateEventX(7, "host.cpp", nullptr, TRUE, FALSE, name); },
     "CreateEventX(0x00000000, 1, 0, ", FAILING_CALL(CreateEventW, 8, nullptr)},
    {[](const wchar_t* name) { return CreateMutexX(7, "host.cpp", nullptr, FALSE, name); },
     "CreateMutexX(0x00000000, 0, ", FAILING_CALL(CreateMutexW, 8, nullptr)},
    {[](const wchar_t* name) { return CreateSemaphoreX(7, "host.cpp", nullptr, 0, 3, name); },
     "CreateSemaphoreX(0x00000000, 0, 3, ", FAILING_CALL(CreateSemaphoreW, 8, nullptr)}};

class WinApiWrap : public testing::Test {
 protected:
  WinApiWrap() { TakeLines(kChannel); }

  // A failed creation leaves the system's error and one line.
  static void ExpectFailure(HANDLE result, DWORD error, const std::string& line) {
    EXPECT_EQ(GetLastError(), error) << line;
    EXPECT_EQ(result, nullptr) << line;
    EXPECT_EQ(TakePlacedMessages(kChannel), Messages{Print("host.cpp(7): lastErr=%lu, ", error) + line});
  }
};

TEST_F(WinApiWrap, SuccessWritesNothingAndKeepsTheSystemsError) {
  for (const Creation& creation : kCreations) {
    const std::wstring name = UniqueName();
    SetLastError(5);
    const HANDLE first = creation.create(name.c_str());
    EXPECT_EQ(GetLastError(), 0u);
    const HANDLE second = creation.create(name.c_str());
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    for (const HANDLE handle : {first, second, creation.create(nullptr)}) {
      EXPECT_NE(handle, nullptr);
      EXPECT_TRUE(CloseHandle(handle));
    }
  }
  EXPECT_EQ(TakeLines(kChannel).size(), 0u);
}

TEST_F(WinApiWrap, BadNamesGiveOneLineAndTheSystemsError) {
  const std::wstring other = UniqueName();
  const HANDLE ofOtherKind = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 16, other.c_str());
  for (const Creation& creation : kCreations) {
    ExpectFailure(creation.create(L"bogus\\name"), 3, creation.line + "bogus\\name)");
    ExpectFailure(creation.create(other.c_str()), ERROR_INVALID_HANDLE, creation.line + Narrow(other) + ")");
  }
  CloseHandle(ofOtherKind);
}

TEST_F(WinApiWrap, FailureLinesNameEveryArgument) {
  SECURITY_ATTRIBUTES security = {sizeof(security), nullptr, FALSE};
  for (const Creation& creation : kCreations) {
    const auto failure = creation.call.inject(1, 1);
    ExpectFailure(creation.create(nullptr), 8, creation.line + "NULL)");
  }
  ExpectFailure(CreateSemaphoreX(7, "host.cpp", &security, -2, -3, nullptr), ERROR_INVALID_PARAMETER,
                "CreateSemaphoreX(" + Address(&security) + ", -2, -3, NULL)");
  auto create = FAIL_CALL(CreateEventW, 1, 8, nullptr);
  EXPECT_EQ(CreateEventX(7, "host.cpp", &security, -1, 2, L"\x00E9"), nullptr);
  EXPECT_TRUE(
      TakeMessages(kChannel).at(0).starts_with("lastErr=8, CreateEventX(" + Address(&security) + ", 4294967295, 2, "));
}

TEST_F(WinApiWrap, MutexFailureReentersTheWriterUntilOneSucceeds) {
  auto create = FAIL_CALL(CreateMutexW, 1, 8, nullptr, 3);
  EXPECT_EQ(CreateMutexX(7, "host.cpp", nullptr, TRUE, L"wanted"), nullptr);
  EXPECT_EQ(GetLastError(), 8u);
  EXPECT_EQ(create.Calls(), 4);
  const auto lines = TakeLines(kChannel);
  ASSERT_EQ(lines.size(), 1u);  // of the failure inside the writer; the ones before it were lost with their mutexes
  EXPECT_EQ(lines[0].line, 555);
}

// The system does not look at the name here; the wrapper does when it writes its line.
TEST_F(WinApiWrap, NameThatOnlyTheLineReadsFaultsInTheGuard) {
  for (const Creation& creation : kCreations) {
    TakeLines(qel::channel::kAssert);
    const auto failure = creation.call.inject(1, 1);
    EXPECT_EQ(creation.create(reinterpret_cast<const wchar_t*>(16)), nullptr);
    const auto messages = TakeMessages(qel::channel::kAssert);
    ASSERT_FALSE(messages.empty());
    EXPECT_TRUE(messages[0].ends_with("_CATCH_AE")) << messages[0];
    EXPECT_NE(messages[0].find("winapiwrap.cpp"), std::string::npos) << messages[0];
  }
  EXPECT_TRUE(TakeLines(kChannel).empty());
}

TEST_F(WinApiWrap, WorksWithABadSourceFile) {
  EXPECT_EQ(CreateEventX(7, reinterpret_cast<const char*>(16), nullptr, TRUE, FALSE, L"bogus\\name"), nullptr);
  EXPECT_EQ(GetLastError(), 3u);
}

}  // namespace
