#include <cstdio>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "qelibaselib/watchthreadstat/lockmtx.h"
#include "test/support/log_folder.h"
#include "test/support/replace_call.h"
#include "test/support/scratch_folder.h"

namespace qel::test {
namespace {

constexpr int kLine = 1234;
constexpr char kSource[] = "user.cpp";

using Messages = std::vector<std::string>;

// The calls are those of this program, which the lock is compiled into.
class Lock : public testing::Test {
 protected:
  Lock() : mutex_(CreateMutexW(nullptr, FALSE, nullptr)) {
    TakeLines(channel::kLock);
    TakeLines(channel::kAssert);
  }
  ~Lock() override { CloseHandle(mutex_); }

  // "tim=..., errCode=..., m_hMutex=..." as every line of a wait ends.
  std::string Tail(DWORD timeMs, DWORD error) const {
    char text[64];
    std::snprintf(text, sizeof text, "tim=%lu, errCode=%lu, m_hMutex=0x%lx)", timeMs, error,
                  reinterpret_cast<unsigned long>(mutex_));
    return text;
  }
  std::string WaitLine(const char* outcome, DWORD timeMs, DWORD error = 0) const {
    return std::string("CLockMtx::_Lock(") + outcome + ", " + Tail(timeMs, error);
  }
  Messages TakeLockMessages() {
    Messages messages;
    for (const auto& line : TakeLines(channel::kLock)) {
      EXPECT_EQ(line.sourceFile, kSource);
      EXPECT_EQ(line.line, kLine);
      messages.push_back(line.message);
    }
    return messages;
  }

  HANDLE mutex_;
};

// Answers waits from a script, its last answer for ever, and leaves the last error as the system would.
class ScriptedWait {
 public:
  explicit ScriptedWait(std::deque<DWORD> answers) : answers_(std::move(answers)) {}
  std::vector<DWORD> slices;

 private:
  DWORD Answer(DWORD timeMs) {
    slices.push_back(timeMs);
    const DWORD answer = answers_.front();
    if (answers_.size() > 1) answers_.pop_front();
    SetLastError(answer == WAIT_FAILED ? ERROR_INVALID_HANDLE : ERROR_SUCCESS);
    return answer;
  }
  std::deque<DWORD> answers_;
  StandIn<"WaitForSingleObject", decltype(&::WaitForSingleObject), Caller::kProgram> wait_{
      [this](int, HANDLE, DWORD timeMs) { return Answer(timeMs); }};
  StandIn<"ReleaseMutex", decltype(&::ReleaseMutex), Caller::kProgram> release_{[](int, HANDLE) { return TRUE; }};
};

TEST_F(Lock, WaitsInSlicesOfAMinuteAndLogsEachThatFailed) {
  const struct {
    DWORD timeout;
    std::vector<DWORD> slices;
  } cases[] = {
      {0, {0}}, {59999, {59999}}, {60000, {60000, 0}}, {120000, {60000, 60000, 0}}, {150000, {60000, 60000, 30000}}};
  for (const auto& expected : cases) {
    ScriptedWait wait({WAIT_TIMEOUT});
    const CLockMtx lock(mutex_, expected.timeout, kLine, kSource);
    EXPECT_EQ(lock.LockCount(), 0u);
    EXPECT_EQ(wait.slices, expected.slices);
    Messages messages;
    for (const DWORD slice : expected.slices) messages.push_back(WaitLine("WAIT_TIMEOUT", slice));
    messages.push_back("CLockMtx::Lock(ERROR, " + Tail(expected.timeout, 0));
    EXPECT_EQ(TakeLockMessages(), messages) << expected.timeout;
  }
}

TEST_F(Lock, SuccessIsLoggedOnlyAfterAFailedSlice) {
  {
    ScriptedWait wait({WAIT_TIMEOUT, WAIT_TIMEOUT, WAIT_OBJECT_0});
    EXPECT_EQ(CLockMtx(mutex_, 150000, kLine, kSource).LockCount(), 1u);
  }
  EXPECT_EQ(TakeLockMessages(), (Messages{WaitLine("WAIT_TIMEOUT", 60000), WaitLine("WAIT_TIMEOUT", 60000),
                                          WaitLine("RETRY_SUCCESS", 30000)}));
  EXPECT_EQ(CLockMtx(mutex_, 150000, kLine, kSource).LockCount(), 1u);
  EXPECT_EQ(TakeLockMessages(), Messages{});
}

TEST_F(Lock, WithoutALimitGoesOnAfterEveryFailure) {
  ScriptedWait wait({WAIT_FAILED, WAIT_TIMEOUT, WAIT_FAILED, WAIT_ABANDONED});
  EXPECT_EQ(CLockMtx(mutex_, INFINITE, kLine, kSource).LockCount(), 1u);
  EXPECT_EQ(wait.slices, std::vector<DWORD>(4, 60000));
  EXPECT_EQ(TakeLockMessages(), (Messages{WaitLine("WAIT_FAILED", 60000, 6), WaitLine("WAIT_TIMEOUT", 60000),
                                          WaitLine("WAIT_FAILED", 60000, 6), WaitLine("RETRY_SUCCESS", 60000)}));
  EXPECT_EQ(TakeMessages(channel::kAssert), (Messages{"ASSERT : lockmtx.h(144)", "ASSERT : lockmtx.h(144)"}));
}

TEST_F(Lock, NestsWithOneWaitAndOneRelease) {
  // Taken before they are replaced: the test's own calls are the program's too.
  const auto realWait = &WaitForSingleObject;
  const auto realRelease = &ReleaseMutex;
  auto wait = STAND_IN_PROGRAM(WaitForSingleObject, [=](int, HANDLE mutex, DWORD ms) { return realWait(mutex, ms); });
  auto release = STAND_IN_PROGRAM(ReleaseMutex, [=](int, HANDLE mutex) { return realRelease(mutex); });
  {
    CLockMtx lock(mutex_, 0, kLine, kSource);
    EXPECT_EQ(lock.Lock(60000), 1);
    EXPECT_EQ(lock._Lock(FALSE, 0), 1);
    EXPECT_EQ(lock.LockCount(), 3u);
    EXPECT_EQ(lock._Unlock(FALSE), 1);
    EXPECT_EQ(lock._Unlock(FALSE), 1);
    EXPECT_EQ(release.Calls(), 0);
    EXPECT_EQ(lock._Unlock(FALSE), 1);
    EXPECT_EQ(release.Calls(), 1);
    EXPECT_EQ(lock._Unlock(FALSE), 0) << "nothing held";
    EXPECT_EQ(lock._Unlock(TRUE), 0);
    EXPECT_EQ(lock.Lock(0), 1);
    EXPECT_EQ(lock.Lock(0), 1);
    EXPECT_EQ(wait.Calls(), 2);
  }
  EXPECT_EQ(release.Calls(), 2) << "the end releases once, whatever the count";
  std::thread([this] { EXPECT_EQ(CLockMtx(mutex_, 0, kLine, kSource).LockCount(), 1u); }).join();
  EXPECT_EQ(TakeLockMessages(), Messages{});
}

TEST_F(Lock, OfNothingIsAsserted) {
  ScriptedWait wait({WAIT_OBJECT_0});
  {
    CLockMtx lock(nullptr, 120000, kLine, kSource);
    EXPECT_EQ(TakeMessages(channel::kAssert), (Messages{"ASSERT : lockmtx.h(39)", "ASSERT : lockmtx.h(62)"}));
    EXPECT_EQ(lock._Lock(FALSE, 0), 0);
    EXPECT_EQ(TakeMessages(channel::kAssert), Messages{"ASSERT : lockmtx.h(119)"});
  }
  const auto lines = TakeLines(channel::kAssert);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].message, "ASSERT : lockmtx.h(164)");
  EXPECT_EQ(lines[0].sourceFile, "lockmtx.h");
  EXPECT_EQ(lines[0].line, 164);
  EXPECT_TRUE(wait.slices.empty());
}

TEST_F(Lock, ExcludesOtherThreadsAndTakesOverFromDeadOnes) {
  {
    const CLockMtx held(mutex_, 0, kLine, kSource);
    std::thread([this] { EXPECT_EQ(CLockMtx(mutex_, 0, kLine, kSource).LockCount(), 0u); }).join();
  }
  EXPECT_EQ(TakeLockMessages().size(), 2u);
  std::thread([this] { WaitForSingleObject(mutex_, 0); }).join();
  EXPECT_EQ(CLockMtx(mutex_, 0, kLine, kSource).LockCount(), 1u);
  EXPECT_EQ(TakeLockMessages(), Messages{});
}

// The mutex was released behind the lock's back.
TEST_F(Lock, FailedReleaseIsLogged) {
  char message[80];
  std::snprintf(message, sizeof message, "CLockMtx::_Unlock(errCode=288, m_hMutex=0x%lx)",
                reinterpret_cast<unsigned long>(mutex_));
  CLockMtx lock(mutex_, 0, kLine, kSource);
  ReleaseMutex(mutex_);
  EXPECT_EQ(lock._Unlock(FALSE), 0);
  EXPECT_EQ(lock.ErrorCode(), static_cast<DWORD>(ERROR_NOT_OWNER));
  EXPECT_EQ(TakeLockMessages(), Messages{message});
  EXPECT_EQ(TakeMessages(channel::kAssert), Messages{"ASSERT : lockmtx.h(189)"});
  EXPECT_EQ(lock.Lock(0), 1);
  ReleaseMutex(mutex_);
  EXPECT_EQ(lock._Unlock(TRUE), 0);
  EXPECT_EQ(lock.LockCount(), 0u);
  EXPECT_EQ(TakeLockMessages(), Messages{message});
  EXPECT_EQ(TakeMessages(channel::kAssert), Messages{"ASSERT : lockmtx.h(175)"});
}

// Each function's clauses name two lines of their own, which lie in the order of the functions.
TEST_F(Lock, ExceptionsStayInside) {
  static int left;  // exceptions that nobody has deleted
  struct CountedException : CException {
    CountedException() { ++left; }
    ~CountedException() override { --left; }
    BOOL GetErrorMessage(LPSTR text, UINT size, PUINT) const override { return std::snprintf(text, size, "told") > 0; }
  };
  left = 0;
  const auto misbehave = [](int nth) {
    if (nth == 1) throw new CountedException;
    throw std::string("other");
  };
  CLockMtx lock(mutex_, 0, kLine, kSource);
  TakeLines(channel::kAssert);
  const auto wait = STAND_IN_PROGRAM(WaitForSingleObject, [&](int nth, HANDLE, DWORD) -> DWORD {
    misbehave(nth);
    return 0;
  });
  const auto release = STAND_IN_PROGRAM(ReleaseMutex, [&](int nth, HANDLE) -> BOOL {
    misbehave(nth);
    return 0;
  });
  EXPECT_EQ(lock._Unlock(TRUE), 0);
  EXPECT_EQ(lock._Unlock(TRUE), 0);
  CLockMtx waiting(mutex_, 0, kLine, kSource);
  EXPECT_EQ(waiting._Lock(FALSE, 0), 0);
  EXPECT_EQ(left, 0);
  const std::string report = ReadWholeFile(ChannelFile(channel::kExceptionReport));
  for (const char* title : {"Exception CATCH_CE : told", "Exception CATCH_AE"})
    EXPECT_NE(report.find(title), std::string::npos) << title;
  std::vector<int> lines;
  std::string clauses;
  for (const auto& line : TakeLines(channel::kAssert)) {
    const auto comma = line.message.rfind(", _CATCH");
    if (comma == std::string::npos) continue;
    EXPECT_EQ(line.message.substr(0, comma), "ASSERT : lockmtx.h(" + std::to_string(line.line) + ")");
    EXPECT_EQ(line.sourceFile, "lockmtx.h");
    clauses += line.message.substr(comma);
    lines.push_back(line.line);
  }
  EXPECT_EQ(clauses, ", _CATCH_CE, _CATCH_AE, _CATCH_CE, _CATCH_AE");
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[1], lines[0] + 1);
  EXPECT_EQ(lines[3], lines[2] + 1);
  EXPECT_LT(lines[3], lines[0]) << "_Lock stands before _Unlock";
}

}  // namespace
}  // namespace qel::test
