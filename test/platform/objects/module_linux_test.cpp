// What modules are told of threads.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "test/platform/objects/handles.h"

using namespace qel::test;

namespace {

struct Told {
  std::atomic<int> attached{0}, detached{0}, ended{0};
  DWORD slot = TLS_OUT_OF_INDEXES;
  LPVOID valueAtDetach = nullptr;
  HANDLE mutex = nullptr, thread = nullptr;
  bool ownedAtDetach = false, aliveAtDetach = false;
} g_told;

BOOL WINAPI Entry(HINSTANCE, DWORD reason, LPVOID) {
  if (reason == DLL_THREAD_ATTACH) ++g_told.attached;
  if (reason == DLL_PROCESS_DETACH) ++g_told.ended;
  if (reason != DLL_THREAD_DETACH) return TRUE;
  ++g_told.detached;
  g_told.valueAtDetach = TlsGetValue(g_told.slot);
  TlsSetValue(g_told.slot, nullptr);
  if (g_told.mutex) {
    g_told.ownedAtDetach = WaitForSingleObject(g_told.mutex, 0) == WAIT_OBJECT_0;
    ReleaseMutex(g_told.mutex);
  }
  if (g_told.thread) g_told.aliveAtDetach = WaitForSingleObject(g_told.thread, 0) == WAIT_TIMEOUT;
  return TRUE;
}

class Modules : public testing::Test {
 protected:
  void SetUp() override {
    g_told.attached = g_told.detached = g_told.ended = 0;
    g_told.slot = TlsAlloc();
    g_told.valueAtDetach = nullptr;
    ASSERT_TRUE(QelRegisterModule(nullptr, &Entry));
  }
  void TearDown() override {
    QelUnregisterModule(&Entry);
    EXPECT_EQ(g_told.ended, 1);
    TlsFree(g_told.slot);
    g_told.mutex = g_told.thread = nullptr;
  }
};

TEST_F(Modules, HearOfEveryThreadOfTheLayer) {
  Worker worker([]() -> DWORD { return static_cast<DWORD>(g_told.attached); });
  EXPECT_EQ(worker.Join(), 1u);  // attached before the routine began
  EXPECT_EQ(g_told.detached, 1);
}

TEST_F(Modules, HearOfTheEndOfHostThreadsThatSetAValue) {
  int value = 0;
  std::thread([] { TlsGetValue(g_told.slot); }).join();
  EXPECT_EQ(g_told.detached, 0);
  std::thread([] { TlsSetValue(g_told.slot, nullptr); }).join();
  EXPECT_EQ(g_told.detached, 0);
  std::thread([&] { TlsSetValue(g_told.slot, &value); }).join();
  EXPECT_EQ(g_told.detached, 1);
  EXPECT_EQ(g_told.valueAtDetach, &value);
  EXPECT_EQ(g_told.attached, 0);
}

// The detach comes first: then the thread's mutexes are given up, and only then is the thread seen to have ended.
TEST_F(Modules, DetachBeforeTheThreadGivesAnythingUp) {
  const Handle mutex = CreateMutexW(nullptr, FALSE, nullptr);
  g_told.mutex = mutex;
  Worker worker(
      [&]() -> DWORD {
        TlsSetValue(g_told.slot, &g_told);
        return WaitForSingleObject(mutex, 0);
      },
      CREATE_SUSPENDED);
  g_told.thread = worker.handle();
  ResumeThread(worker.handle());
  ASSERT_EQ(WaitForSingleObject(worker.handle(), kLongMs), WAIT_OBJECT_0);
  EXPECT_EQ(g_told.valueAtDetach, &g_told);
  EXPECT_TRUE(g_told.ownedAtDetach);
  EXPECT_TRUE(g_told.aliveAtDetach);
  EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_ABANDONED);
  ReleaseMutex(mutex);
}

// A destructor of the host's that runs after the detach begins anew, and detaches once more.
TEST_F(Modules, DetachAgainWhenUsedAfterwards) {
  struct Late {
    bool armed = false;
    ~Late() {
      if (armed) TlsSetValue(g_told.slot, this);
    }
  };
  std::thread([] {
    static thread_local Late late;
    late.armed = true;  // made before the layer's hook, so gone after it
    TlsSetValue(g_told.slot, &late);
  }).join();
  EXPECT_EQ(g_told.detached, 2);
}

BOOL WINAPI Refuse(HINSTANCE, DWORD, LPVOID) { return FALSE; }
TEST(ModuleList, AnEntryMayRefuse) {
  EXPECT_FALSE(QelRegisterModule(nullptr, &Refuse));
  QelUnregisterModule(&Refuse);
}

}  // namespace
