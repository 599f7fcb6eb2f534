#include <deque>

#include "qelibaselib/watchthreadstat/lockmtx.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

constexpr int kLine = 1234;
constexpr char kSource[] = "user.cpp";

// The calls are those of this program, which the lock is compiled into.
class Lock : public testing::Test {
 protected:
  Lock() {
    TakeLines(channel::kLock);
    TakeLines(channel::kAssert);
  }

  // "tim=..., errCode=..., m_hMutex=..." as every line of a wait ends.
  std::string Tail(DWORD timeMs, DWORD error) const {
    return Print("tim=%lu, errCode=%lu, m_hMutex=0x%lx)", timeMs, error, Number(HANDLE(mutex_)));
  }
  std::string WaitLine(const char* outcome, DWORD timeMs, DWORD error = 0) const {
    return std::string("CLockMtx::_Lock(") + outcome + ", " + Tail(timeMs, error);
  }
  // With the position of the lock's user.
  static void ExpectLines(Messages messages) {
    for (auto& message : messages) message = "user.cpp(1234): " + message;
    EXPECT_EQ(TakePlacedMessages(channel::kLock), messages);
  }

  const Handle mutex_ = CreateMutexW(nullptr, FALSE, nullptr);
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
    ExpectLines(messages);
  }
}

TEST_F(Lock, SuccessIsLoggedOnlyAfterAFailedSlice) {
  {
    ScriptedWait wait({WAIT_TIMEOUT, WAIT_TIMEOUT, WAIT_OBJECT_0});
    EXPECT_EQ(CLockMtx(mutex_, 150000, kLine, kSource).LockCount(), 1u);
  }
  ExpectLines({WaitLine("WAIT_TIMEOUT", 60000), WaitLine("WAIT_TIMEOUT", 60000), WaitLine("RETRY_SUCCESS", 30000)});
  EXPECT_EQ(CLockMtx(mutex_, 150000, kLine, kSource).LockCount(), 1u);
  ExpectLines({});
}

TEST_F(Lock, WithoutALimitGoesOnAfterEveryFailure) {
  ScriptedWait wait({WAIT_FAILED, WAIT_TIMEOUT, WAIT_FAILED, WAIT_ABANDONED});
  EXPECT_EQ(CLockMtx(mutex_, INFINITE, kLine, kSource).LockCount(), 1u);
  EXPECT_EQ(wait.slices, std::vector<DWORD>(4, 60000));
  ExpectLines({WaitLine("WAIT_FAILED", 60000, 6), WaitLine("WAIT_TIMEOUT", 60000), WaitLine("WAIT_FAILED", 60000, 6),
               WaitLine("RETRY_SUCCESS", 60000)});
  EXPECT_EQ(TakeMessages(channel::kAssert), (Messages{"ASSERT : lockmtx.h(144)", "ASSERT : lockmtx.h(144)"}));
}

TEST_F(Lock, NestsWithOneWaitAndOneRelease) {
  auto wait = COUNT_CALLS_PROGRAM(WaitForSingleObject);
  auto release = COUNT_CALLS_PROGRAM(ReleaseMutex);
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
  OnThread([this] { EXPECT_EQ(CLockMtx(mutex_, 0, kLine, kSource).LockCount(), 1u); });
  ExpectLines({});
}

TEST_F(Lock, OfNothingIsAsserted) {
  ScriptedWait wait({WAIT_OBJECT_0});
  {
    CLockMtx lock(nullptr, 120000, kLine, kSource);
    EXPECT_EQ(TakeMessages(channel::kAssert), (Messages{"ASSERT : lockmtx.h(39)", "ASSERT : lockmtx.h(62)"}));
    EXPECT_EQ(lock._Lock(FALSE, 0), 0);
    EXPECT_EQ(TakeMessages(channel::kAssert), Messages{"ASSERT : lockmtx.h(119)"});
  }
  EXPECT_EQ(TakePlacedMessages(channel::kAssert), Messages{"lockmtx.h(164): ASSERT : lockmtx.h(164)"});
  EXPECT_TRUE(wait.slices.empty());
}

TEST_F(Lock, ExcludesOtherThreadsAndTakesOverFromDeadOnes) {
  {
    const CLockMtx held(mutex_, 0, kLine, kSource);
    OnThread([this] { EXPECT_EQ(CLockMtx(mutex_, 0, kLine, kSource).LockCount(), 0u); });
  }
  EXPECT_EQ(TakeLines(channel::kLock).size(), 2u);
  OnThread([this] { WaitForSingleObject(mutex_, 0); });
  EXPECT_EQ(CLockMtx(mutex_, 0, kLine, kSource).LockCount(), 1u);
  ExpectLines({});
}

// The mutex was released behind the lock's back.
TEST_F(Lock, FailedReleaseIsLogged) {
  const std::string message = "CLockMtx::_Unlock(errCode=288, m_hMutex=" + Hex(HANDLE(mutex_)) + ")";
  CLockMtx lock(mutex_, 0, kLine, kSource);
  ReleaseMutex(mutex_);
  EXPECT_EQ(lock._Unlock(FALSE), 0);
  EXPECT_EQ(lock.ErrorCode(), static_cast<DWORD>(ERROR_NOT_OWNER));
  ExpectLines({message});
  EXPECT_EQ(TakeMessages(channel::kAssert), Messages{"ASSERT : lockmtx.h(189)"});
  EXPECT_EQ(lock.Lock(0), 1);
  ReleaseMutex(mutex_);
  EXPECT_EQ(lock._Unlock(TRUE), 0);
  EXPECT_EQ(lock.LockCount(), 0u);
  ExpectLines({message});
  EXPECT_EQ(TakeMessages(channel::kAssert), Messages{"ASSERT : lockmtx.h(175)"});
}

// The first exception is the framework's, the second any other; each clause names a line of its own.
TEST_F(Lock, ExceptionsStayInside) {
  static int left;  // exceptions that nobody has deleted
  struct CountedException : CException {
    CountedException() { ++left; }
    ~CountedException() override { --left; }
    BOOL GetErrorMessage(LPSTR text, UINT size, PUINT) const override { return std::snprintf(text, size, "told") > 0; }
  };
  left = 0;
  const auto misbehave = [](int nth, auto...) -> DWORD {
    if (nth == 1) throw new CountedException;
    throw std::string("other");
  };
  std::filesystem::remove(ChannelFile(channel::kExceptionReport));
  CLockMtx lock(mutex_, 0, kLine, kSource);
  TakeLines(channel::kAssert);
  const auto wait = STAND_IN_PROGRAM(WaitForSingleObject, misbehave);
  const auto release = STAND_IN_PROGRAM(ReleaseMutex, misbehave);
  EXPECT_EQ(lock._Unlock(TRUE), 0);
  EXPECT_EQ(lock._Unlock(TRUE), 0);
  CLockMtx waiting(mutex_, 0, kLine, kSource);
  EXPECT_EQ(waiting._Lock(FALSE, 0), 0);
  EXPECT_EQ(left, 0);
  std::vector<int> lines;
  Messages clauses;
  for (const auto& line : TakeLines(channel::kAssert)) {
    if (line.message.find(", _CATCH") == std::string::npos) continue;
    lines.push_back(line.line);
    clauses.push_back(line.message);
  }
  const std::string reports = ReadWholeFile(ChannelFile(channel::kExceptionReport));
  ASSERT_EQ(lines.size(), 4u);
  for (const size_t i : {size_t{0}, size_t{2}}) {
    EXPECT_EQ(lines[i + 1], lines[i] + 1);
    const std::string framework = Print("lockmtx.h(%d)", lines[i]), other = Print("lockmtx.h(%d)", lines[i + 1]);
    EXPECT_EQ(clauses[i], "ASSERT : " + framework + ", _CATCH_CE");
    EXPECT_EQ(clauses[i + 1], "ASSERT : " + other + ", _CATCH_AE");
    EXPECT_NE(reports.find("\n" + framework + "\r\n"), std::string::npos) << framework;
    EXPECT_NE(reports.find("\n" + other + "\r\n"), std::string::npos) << other;
  }
  EXPECT_LT(lines[3], lines[0]) << "_Lock stands before _Unlock";
  EXPECT_NE(reports.find("> ?\?\?(Exception CATCH_CE : told)"), std::string::npos)
      << "the program's folder is no title";
  EXPECT_NE(reports.find("(Exception CATCH_AE)"), std::string::npos);
}

}  // namespace
}  // namespace qel::test
