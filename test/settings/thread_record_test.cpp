#include "qelibaselib/settings/thread_record.h"

#include <omp.h>

#include "test/settings/assertions.h"

namespace {

using namespace qel::test;

// The statistics are the last field of the record.
qel::ThreadRecord* RecordOf(T_FVOF_INFORMATION* statistics) {
  return reinterpret_cast<qel::ThreadRecord*>(reinterpret_cast<char*>(statistics) -
                                              offsetof(qel::ThreadRecord, flushStatistics));
}

TEST(ThreadRecord, StartsWithThePlaceholder) {
  OnThread([] {
    const qel::ThreadRecord* record = RecordOf(VemoGetFVOFInf());
    EXPECT_EQ(record->threadId, GetCurrentThreadId());
    EXPECT_STREQ(record->sourceFile, "????????.???");
    EXPECT_EQ(record->line, 0);
    EXPECT_EQ(record->ompThreadCount, omp_get_num_procs());
    const T_FVOF_INFORMATION zero = {};
    EXPECT_EQ(memcmp(&record->flushStatistics, &zero, sizeof(zero)), 0);
  });
}

TEST(ThreadRecord, BelongsToItsThreadAlone) {
  T_FVOF_INFORMATION* own = VemoGetFVOFInf();
  own->callCount = 5;
  OnThread([own] {
    T_FVOF_INFORMATION* other = VemoGetFVOFInf();
    EXPECT_NE(other, own);
    EXPECT_EQ(other->callCount, 0u);
    other->totalMs = 1;
    VemoClearFVOFInf();
    EXPECT_EQ(other->totalMs, 0.0);
  });
  EXPECT_EQ(VemoGetFVOFInf(), own);
  EXPECT_EQ(own->callCount, 5u);
  VemoClearFVOFInf();
  EXPECT_EQ(own->callCount, 0u);
}

TEST(ThreadRecord, IsFreedWithItsThread) {
  std::atomic<int> held = 0;
  OnThread([] {});
  const unsigned long handles = OpenHandleCount();
  {
    auto allocate = WATCH_CALL(GlobalAlloc, [&](UINT, SIZE_T size) { held += size == sizeof(qel::ThreadRecord); });
    auto free = WATCH_CALL(GlobalFree, [&](HGLOBAL) { --held; });
    for (int round = 0; round < 5; ++round) {
      OnThreads(8, [](int) { VemoGetFVOFInf()->callCount = 1; });
    }
    EXPECT_GE(allocate.Calls(), 40);
  }
  EXPECT_EQ(held, 0);
  EXPECT_LT(OpenHandleCount(), handles + 20) << "40 threads left handles";
}

TEST(ThreadRecord, KeepsTheLastError) {
  OnThread([] {
    SetLastError(321);
    VemoGetFVOFInf();
    VemoOMPGetNumThreads();
    VemoGetFVOFInf();
    EXPECT_EQ(GetLastError(), 321u);
  });
}

// Only calls of a thread that has no record yet come so far; where threads attach by the loader the attach itself
// fails.
TEST(ThreadRecord, WithoutOneEachCallSaysSoAndIsSafe) {
  TakeAssertions();
  auto allocate = STAND_IN(GlobalAlloc, [](int, UINT flags, SIZE_T size) -> HGLOBAL {
    if (size != sizeof(qel::ThreadRecord)) return GlobalAlloc(flags, size);
    SetLastError(8);
    return nullptr;
  });
  OnThread([] {
    TakeAssertions();
    EXPECT_EQ(VemoGetFVOFInf(), nullptr);
    EXPECT_EQ(TakeAssertions(), Messages{", lec=8"});
    VemoClearFVOFInf();
    EXPECT_EQ(TakeAssertions(), Messages{", lec=8"});
    EXPECT_EQ(VemoOMPGetNumThreads(), 1);
    EXPECT_EQ(TakeAssertions(), Messages(2, ", lec=8"));
    VemoOMPSetNumThreads(1);
    EXPECT_EQ(TakeAssertions(), Messages(2, ", lec=8"));
    SetLastError(321);
    void* block = _MemAlloc("caller.cpp", 1, 1, 0);  // registers its caller and takes that back
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(TakeAssertions(), (Messages{", lec=8", ", lec=321", ", lec=8", ", lec=8"}));
    _MemFree("caller.cpp", 1, block);
  });
}

TEST(ThreadRecord, FreesTheBlockWhenTheSlotRefusesIt) {
  int freed = 0;
  TakeAssertions();
  auto set = STAND_IN(TlsSetValue, [](int, DWORD slot, LPVOID value) {
    if (!value) return TlsSetValue(slot, value);
    SetLastError(87);
    return FALSE;
  });
  auto free = WATCH_CALL(GlobalFree, [&](HGLOBAL) { ++freed; });
  OnThread([&] {
    freed = 0;
    TakeAssertions();
    EXPECT_EQ(VemoGetFVOFInf(), nullptr);
    EXPECT_EQ(freed, 1);
    EXPECT_EQ(TakeAssertions(), Messages{", lec=87"});
  });
}

}  // namespace
