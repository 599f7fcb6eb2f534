// Share modes beside foreign programs' locks, forked children and the ends of processes.
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include "test/platform/files/file_calls.h"
#include "test/platform/files/sharing_test.h"
#include "test/platform/files/turns_alone.h"
#include "test/support/forked_child.h"
#include "test/support/own_mounts.h"

using namespace qel::test;

namespace {

enum ForeignLock {
  kSharedOfProcess,
  kExclusiveOfProcess,
  kSharedOfOpenFile,
  kExclusiveOfOpenFile,
  kShared,
  kExclusive
};
constexpr int kForeignLocks = kExclusive + 1;

bool LockAsAForeignProgramDoes(int file, int lock) {
  const bool isShared = lock % 2 == 0;
  if (lock >= kShared) return flock(file, (isShared ? LOCK_SH : LOCK_EX) | LOCK_NB) == 0;
  struct flock wholeFile = {};
  wholeFile.l_type = isShared ? F_RDLCK : F_WRLCK;
  return fcntl(file, lock < kSharedOfOpenFile ? F_SETLK : F_OFD_SETLK, &wholeFile) == 0;
}

}  // namespace

CHILD_ROLE(HoldForeignLock) {
  const int file = open(arguments[0].c_str(), O_RDWR);
  Say(LockAsAForeignProgramDoes(file, std::stoi(arguments[1])) ? "locked" : "refused");
  Hear();
  return 0;
}

CHILD_ROLE(WantAloneBesideLocks) { return SayTurnsAlone(Widen(arguments[0]), 3000, 150, Leaving::kKeepsTheFile); }

CHILD_ROLE(LockNowAndThen) {
  const int file = open(arguments[0].c_str(), O_RDWR);
  Say("begins");
  for (int i = 0;; ++i) {
    const int again = i % 3 == 0 ? open(arguments[0].c_str(), O_RDWR) : file;
    LockAsAForeignProgramDoes(again, i % kForeignLocks);
    usleep(i % 7 * 30);
    struct flock all = {};
    all.l_type = F_UNLCK;
    fcntl(file, F_SETLK, &all);
    fcntl(file, F_OFD_SETLK, &all);
    flock(file, LOCK_UN);
    if (again != file) close(again);
  }
}

CHILD_ROLE(OpenWithFullSharedMemory) {
  if (!UsePrivateSharedMemory("size=4k")) {
    Say("forbidden");
    return 0;
  }
  WriteWholeFile("/dev/shm/full", std::string(4096, 'x'));
  const FileHandle file(Widen(arguments[0]), kRW, 0, OPEN_EXISTING);
  const bool held = Create(Widen(arguments[0]), kR, kShareAll, OPEN_EXISTING) == Failure(32);
  const auto left = std::distance(std::filesystem::directory_iterator("/dev/shm"), {});
  Say(file.IsOpen() && held && left == 1 ? "held" : "lost");
  return 0;
}

CHILD_ROLE(DeleteOnClose) {
  const std::wstring name(arguments[0].begin(), arguments[0].end());
  const HANDLE file =
      CreateFileW(name.c_str(), kRW | DELETE, kShareAll, nullptr, CREATE_NEW, FILE_FLAG_DELETE_ON_CLOSE, nullptr);
  Say(file != INVALID_HANDLE_VALUE ? "open" : "refused");
  Hear();
  return 0;
}

class LinuxSharingTest : public SharingTest {
 protected:
  ChildProcess LockForeign(int lock) {
    ChildProcess child("HoldForeignLock", {scratch.Narrow("f"), std::to_string(lock)});
    EXPECT_EQ(child.WaitForLine(), "locked");
    return child;
  }
  void ExpectHeld(bool held) {
    const Outcome refused = Failure(32);
    EXPECT_EQ(Create(At("f"), kR, kShareAll, OPEN_EXISTING), held ? refused : Success(0));
    EXPECT_EQ(Create(At("f"), kRW, 0, CREATE_ALWAYS), held ? refused : Success(183));
    EXPECT_EQ(Ask([&] { return CopyFileW(L"source", L"f", FALSE); }), held ? refused : Success(0));
    FILE* stream = _wfopen(L"f", L"at");
    EXPECT_EQ(stream == nullptr, held);
    if (stream) std::fclose(stream);
    if (held) {
      EXPECT_EQ(Delete(L"f"), refused);
    }
  }
};

TEST_F(LinuxSharingTest, HoldsWhateverForeignLocksAreThere) {
  Write("source");
  for (int lock = 0; lock < kForeignLocks; ++lock) {
    SCOPED_TRACE(lock);
    auto foreign = LockForeign(lock);
    auto holder = Hold(kRW, 0);
    ExpectHeld(true);
    foreign.Kill();
    ExpectHeld(true);  // who came under the lock is still seen
    holder.Kill();
    ExpectHeld(false);
    auto again = LockForeign(lock);
    ExpectHeld(false);
    const FileHandle reader(At("f"), kR, 1, OPEN_EXISTING);
    EXPECT_EQ(Create(At("f"), kR, 1, OPEN_EXISTING), Success(0)) << "several may stand beside each other";
    EXPECT_EQ(Create(At("f"), kR, 2, OPEN_EXISTING), Failure(32));
  }
}

TEST_F(LinuxSharingTest, OneAtATimeWhileForeignLocksComeAndGo) {
  ChildProcess locker("LockNowAndThen", {scratch.Narrow("f")});
  ASSERT_EQ(locker.WaitForLine(), "begins");
  EXPECT_GT(CountTurnsAlone("WantAloneBesideLocks", 3, scratch.Narrow("f")), 0);
}

TEST_F(LinuxSharingTest, HoldsWithoutSharedMemory) {
  ChildProcess child("OpenWithFullSharedMemory", {scratch.Narrow("f")});
  const std::string said = child.WaitForLine();
  if (said == "forbidden") GTEST_SKIP() << "only root may mount a disk";
  EXPECT_EQ(said, "held");
}

TEST_F(LinuxSharingTest, AForeignLockThatComesLaterHidesNobody) {
  Write("source");
  for (const int lock : {kSharedOfProcess, kSharedOfOpenFile, kShared, kExclusive}) {
    auto holder = Hold(kRW, 0);
    auto foreign = LockForeign(lock);
    ExpectHeld(true);
    holder.Kill();
    ExpectHeld(false);
  }
  const FileHandle reader(At("f"), kR, 3, OPEN_EXISTING);
  const Handle mapping = CreateFileMappingW(reader.get(), nullptr, PAGE_READONLY, 0, 0, nullptr);
  auto foreign = LockForeign(kSharedOfProcess);
  EXPECT_EQ(Create(At("f"), kW, 3, CREATE_ALWAYS), Failure(1224)) << "nor a mapping";
}

TEST_F(LinuxSharingTest, ForeignLocksHoldNobodyOff) {
  const FileHandle user(At("f")), other(At("f"));
  OVERLAPPED at0 = {}, at9 = {};
  at9.Offset = 9;
  ASSERT_TRUE(LockFileEx(user.get(), 0, 0, 1, 0, &at9));
  ASSERT_TRUE(UnlockFileEx(user.get(), 0, 1, 0, &at9));
  auto foreign = LockForeign(kSharedOfProcess);
  DWORD bytes = 0;
  EXPECT_TRUE(WriteFile(other.get(), "x", 1, &bytes, &at0));
  EXPECT_EQ(Create(At("f"), kW, 1, CREATE_ALWAYS), Failure(32));
  EXPECT_EQ(Create(At("f"), kW, kShareAll, CREATE_ALWAYS), Success(183));
  EXPECT_EQ(Read("f"), "");
}

TEST_F(LinuxSharingTest, AForkedChildTakesNothingFromItsParent) {
  FileHandle file(At("held"), kRW | DELETE, 0, CREATE_NEW, FILE_FLAG_DELETE_ON_CLOSE);
  ASSERT_TRUE(file.IsOpen());
  const auto expectUntouched = [&] {
    EXPECT_EQ(Create(At("held"), kR, kShareAll, OPEN_EXISTING), Failure(32));
    EXPECT_TRUE(Exists("held"));
  };
  EXPECT_EQ(RunInChild([&] { return CloseHandle(file.get()) ? 0 : 1; }), 0);
  expectUntouched();
  EXPECT_EQ(RunInChild([] { return 0; }), 0);
  expectUntouched();
  EXPECT_EQ(RunInChild([&] {
              // The child can open files of its own.
              FileHandle own(At("own"), kRW | DELETE, 0, CREATE_NEW, FILE_FLAG_DELETE_ON_CLOSE);
              return Create(At("own"), kR, kShareAll, OPEN_EXISTING) == Failure(32) ? 0 : 1;
            }),
            0);
  EXPECT_FALSE(Exists("own"));
  file.Close();
  EXPECT_FALSE(Exists("held"));
}

TEST_F(LinuxSharingTest, DeleteOnCloseAndTheEndsOfAProcess) {
  for (const bool killed : {false, true}) {
    ChildProcess child("DeleteOnClose", {scratch.Narrow("left")});
    EXPECT_EQ(child.WaitForLine(), "open");
    EXPECT_TRUE(Exists("left"));
    killed ? child.Kill() : child.Tell("end");
    child.Wait();
    EXPECT_EQ(Exists("left"), killed);
    if (killed) {
      EXPECT_EQ(Delete(At("left")), Success());
    }
  }
}

TEST_F(LinuxSharingTest, DeleteOnCloseFindsTheFileByAnyName) {
  MakeFolder("elsewhere");
  Write("target");
  ASSERT_EQ(symlink("target", "link"), 0);
  for (const wchar_t* name : {L"relative", L"link", L"moved"}) {
    FileHandle file(name, kRW | DELETE, kShareAll, OPEN_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE);
    if (std::wstring(name) == L"moved") {
      EXPECT_TRUE(MoveFileW(L"moved", L"elsewhere/new name"));
    }
    std::filesystem::current_path(scratch.Path() / "elsewhere");
    file.Close();
    std::filesystem::current_path(scratch.Path());
  }
  for (const char* name : {"relative", "target", "moved", "elsewhere/new name"}) EXPECT_FALSE(Exists(name)) << name;
}

TEST_F(LinuxSharingTest, CancellationLeavesNothingHalfway) {
  FileHandle file(At("f"), kRW, 0, OPEN_EXISTING);
  pthread_t thread;
  const auto cancelled = [](void* handle) -> void* {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    FileHandle other(L"other", kRW, 0, CREATE_ALWAYS);
    pthread_cancel(pthread_self());
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    other.Close();  // no point of cancellation
    DWORD bytes;
    WriteFile(handle, "x", 1, &bytes, nullptr);
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, nullptr, cancelled, file.get()), 0);
  void* result = nullptr;
  pthread_join(thread, &result);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_EQ(Create(L"other", kRW, 0, OPEN_EXISTING), Success(0));
  EXPECT_EQ(Create(L"f", kR, kShareAll, OPEN_EXISTING), Failure(32));
  file.Close();
  EXPECT_EQ(Create(L"f", kRW, 0, OPEN_EXISTING), Success(0));
}

TEST_F(LinuxSharingTest, StandardDescriptorsStayTheHosts) {
  EXPECT_EQ(RunInChild([&] {
              close(STDERR_FILENO);
              const FileHandle file(At("f"));
              FILE* stream = _wfopen(L"stream", L"at");
              const bool free = fcntl(STDERR_FILENO, F_GETFD) < 0;
              std::fclose(stream);
              return free ? 0 : 1;
            }),
            0);
}

TEST_F(LinuxSharingTest, RangeLocksEndWithTheHandleAlsoUnderAView) {
  FileHandle owner(At("f")), other(At("f"));
  OVERLAPPED at0 = {};
  ASSERT_TRUE(LockFileEx(owner.get(), LOCKFILE_EXCLUSIVE_LOCK, 0, 4, 0, &at0));
  Handle mapping = CreateFileMappingW(owner.get(), nullptr, PAGE_READONLY, 0, 0, nullptr);
  const void* view = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
  ASSERT_TRUE(view);
  DWORD bytes = 0;
  EXPECT_EQ(Ask([&] { return WriteFile(other.get(), "x", 1, &bytes, &at0); }), Failure(33));
  owner.Close();
  EXPECT_TRUE(WriteFile(other.get(), "x", 1, &bytes, &at0));
  EXPECT_TRUE(UnmapViewOfFile(view));
}
