#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

#include "test/platform/objects/handles.h"

using namespace qel::test;

namespace {

TEST(Threads, RunAndEndWithTheirCode) {
  const Handle go = NewEvent(true);
  DWORD seen = 0, code = 0;
  Worker worker([&]() -> DWORD {
    WaitForSingleObject(go, INFINITE);
    seen = GetCurrentThreadId();
    return 77;
  });
  EXPECT_NE(worker.id(), GetCurrentThreadId());
  EXPECT_TRUE(GetExitCodeThread(worker.handle(), &code));
  EXPECT_EQ(code, STILL_ACTIVE);
  EXPECT_EQ(WaitForSingleObject(worker.handle(), 0), WAIT_TIMEOUT);
  SetEvent(go);
  EXPECT_EQ(WaitForSingleObject(worker.handle(), kLongMs), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(worker.handle(), 0), WAIT_OBJECT_0);
  EXPECT_EQ(worker.Join(), 77u);
  EXPECT_EQ(seen, worker.id());
}

TEST(Threads, SuspendedOnesWaitToBeResumed) {
  std::atomic<bool> ran{false};
  Worker worker(
      [&]() -> DWORD {
        ran = true;
        return 0;
      },
      CREATE_SUSPENDED);
  EXPECT_EQ(WaitForSingleObject(worker.handle(), 20), WAIT_TIMEOUT);
  EXPECT_FALSE(ran);
  EXPECT_CALL(ResumeThread(worker.handle()), 1u, kUntouched);
  ResumeThread(worker.handle());
  worker.Join();
  EXPECT_TRUE(ran);
  EXPECT_CALL(ResumeThread(nullptr), static_cast<DWORD>(-1), ERROR_INVALID_HANDLE);
}

TEST(Threads, TakeTheStackThatTheyAreGiven) {
  struct Fill {
    static DWORD WINAPI Run(LPVOID) {
      volatile char bytes[3 << 20];
      for (size_t i = 0; i < sizeof bytes; i += 4096) bytes[i] = 1;
      return bytes[0];
    }
  };
  const Handle thread = CreateThread(nullptr, 8 << 20, &Fill::Run, nullptr, 0, nullptr);
  ASSERT_TRUE(thread);
  EXPECT_EQ(WaitForSingleObject(thread, kLongMs), WAIT_OBJECT_0);
}

TEST(Threads, GoOnWithoutAHandle) {
  const Handle done = NewEvent();
  struct Signal {
    static DWORD WINAPI Run(LPVOID event) { return SetEvent(event); }
  };
  for (int i = 0; i < 50; ++i) {
    CloseHandle(CreateThread(nullptr, 0, &Signal::Run, done, 0, nullptr));
    ASSERT_EQ(WaitForSingleObject(done, kLongMs), WAIT_OBJECT_0);
  }
}

// The pseudo handle is the caller's own; a copy of it is one thread's for good. The thread need not be the layer's.
TEST(PseudoHandles, ADuplicateStaysWithItsThread) {
  HANDLE copy = nullptr;
  const Handle copied = NewEvent();
  const Handle go = NewEvent();
  std::thread host([&] {
    const HANDLE process = GetCurrentProcess();
    EXPECT_TRUE(DuplicateHandle(process, GetCurrentThread(), process, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS));
    SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_LOWEST);
    SetEvent(copied);
    WaitForSingleObject(go, INFINITE);
  });
  WaitForSingleObject(copied, kLongMs);
  EXPECT_EQ(GetThreadPriority(GetCurrentThread()), 0);
  EXPECT_EQ(GetThreadPriority(copy), THREAD_PRIORITY_LOWEST);
  EXPECT_EQ(WaitForSingleObject(copy, 0), WAIT_TIMEOUT);
  SetEvent(go);
  EXPECT_EQ(WaitForSingleObject(copy, kLongMs), WAIT_OBJECT_0);
  host.join();
  EXPECT_TRUE(CloseHandle(copy));
}

TEST(ThreadLocalSlots, HoldAValueForEachThreadUntilTheyAreFreed) {
  const DWORD slot = TlsAlloc();
  int here = 0, there = 0;
  TlsSetValue(slot, &here);
  const Handle freed = NewEvent(), set = NewEvent();
  Worker other([&]() -> DWORD {
    bool good = TlsGetValue(slot) == nullptr;
    TlsSetValue(slot, &there);
    good = good && TlsGetValue(slot) == &there;
    SetEvent(set);
    WaitForSingleObject(freed, kLongMs);
    return good && TlsGetValue(slot) == nullptr;
  });
  WaitForSingleObject(set, kLongMs);
  EXPECT_EQ(TlsGetValue(slot), &here);
  EXPECT_TRUE(TlsFree(slot));
  SetEvent(freed);
  EXPECT_EQ(other.Join(), 1u);
  EXPECT_EQ(TlsAlloc(), slot) << "the first free one";
  EXPECT_EQ(TlsGetValue(slot), nullptr);
  TlsFree(slot);
}

TEST(ThreadLocalSlots, RunOut) {
  std::vector<DWORD> slots;
  DWORD slot;
  while ((slot = TlsAlloc()) != TLS_OUT_OF_INDEXES) slots.push_back(slot);
  EXPECT_EQ(GetLastError(), ERROR_NO_MORE_ITEMS);
  EXPECT_GT(slots.size(), 1000u);
  EXPECT_LE(slots.size(), 1088u);
  for (const DWORD last : {slots.front(), slots.back()}) {
    TlsSetValue(last, &slot);
    EXPECT_EQ(TlsGetValue(last), &slot);
  }
  for (const DWORD each : slots) TlsFree(each);
}

}  // namespace
