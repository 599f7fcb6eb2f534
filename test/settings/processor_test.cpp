#include <cpuid.h>
#include <omp.h>

#include "test/settings/assertions.h"

namespace {

using namespace qel::test;

void ExpectOneAssertion() { EXPECT_EQ(TakeAssertions(), Messages{""}); }

TEST(Processor, CountsTheBitsOfTheAffinityMask) {
  TakeLines(qel::channel::kAssert);
  DWORD_PTR mask = 0;
  BOOL result = TRUE;
  auto affinity = STAND_IN(GetProcessAffinityMask, [&](int, HANDLE, PDWORD_PTR process, PDWORD_PTR system) {
    *process = mask;
    *system = 0xFFFFFFFF;
    return result;
  });
  for (const auto& [bits, count] : {std::pair{0xBul, 3ul}, {0xFFFFFFFFul, 32ul}, {0x80000000ul, 1ul}, {0ul, 1ul}}) {
    mask = bits;
    EXPECT_EQ(VemoGetCPUCount(), count);
  }
  EXPECT_EQ(TakeLines(qel::channel::kAssert).size(), 0u);
  mask = 7;
  result = FALSE;
  EXPECT_EQ(VemoGetCPUCount(), 1u);
  ExpectOneAssertion();
}

TEST(Processor, CpuidAnswersBasicLeavesOnly) {
  unsigned expected[4];
  __cpuid(0, expected[0], expected[1], expected[2], expected[3]);
  DWORD eax = 1, ebx = 2, ecx = 3, edx = 4;
  ASSERT_EQ(VemoGetCPUID(0, &eax, &ebx, &ecx, &edx), 1);
  EXPECT_EQ((std::vector<DWORD>{eax, ebx, ecx, edx}), std::vector<DWORD>(expected, expected + 4));
  const DWORD highest = eax;
  ASSERT_EQ(VemoGetCPUID(1, &eax, &ebx, &ecx, &edx), 1);
  __cpuid(1, expected[0], expected[1], expected[2], expected[3]);
  EXPECT_EQ(eax, expected[0]);
  EXPECT_EQ(edx, expected[3]);
  for (const DWORD refused : {highest + 1, 0x80000000ul, 0xFFFFFFFFul}) {
    eax = ebx = ecx = edx = 5;
    EXPECT_EQ(VemoGetCPUID(refused, &eax, &ebx, &ecx, &edx), 0);
    EXPECT_EQ(eax + ebx + ecx + edx, 20u);
  }
  EXPECT_EQ(VemoGetCPUID(0, reinterpret_cast<DWORD*>(16), &ebx, &ecx, &edx), 0);
}

TEST(Processor, IsOfMajorVersionSixHere) { EXPECT_EQ(VemoIsOSVista(), 1); }

class ThreadCount : public testing::Test {
 protected:
  ~ThreadCount() override {
    omp_set_dynamic(1);
    VemoOMPSetNumThreads(0);
    omp_set_dynamic(0);
    VemoOMPGetNumThreadsSetImgSize(98304);
    TakeLines(qel::channel::kAssert);
  }
  static int After(int count) {
    VemoOMPSetNumThreads(count);
    return VemoOMPGetNumThreads();
  }
  const int processors_ = omp_get_num_procs();
};

TEST_F(ThreadCount, IsOneWithoutDynamicAdjustment) {
  omp_set_dynamic(0);
  for (const int count : {4, 0, -1, 1}) EXPECT_EQ(After(count), 1);
}

TEST_F(ThreadCount, FollowsThePolicyWithDynamicAdjustment) {
  omp_set_dynamic(1);
  EXPECT_EQ(After(-3), 1);
  EXPECT_EQ(After(0), processors_);
  EXPECT_EQ(After(processors_ + 12), processors_);
  for (int count = 1; count <= processors_; ++count) EXPECT_EQ(After(count), count);
}

TEST_F(ThreadCount, StaysInsideAParallelRegion) {
  omp_set_dynamic(1);
  VemoOMPSetNumThreads(0);
  TakeLines(qel::channel::kAssert);
  {
    // Not a real one: on a busy machine a region of two threads may get one, which does not count as parallel.
    const ReplaceCall inside(
        "omp_in_parallel", +[] { return 1; });
    VemoOMPSetNumThreads(-1);
  }
  EXPECT_EQ(VemoOMPGetNumThreads(), processors_);
  ExpectOneAssertion();
}

TEST_F(ThreadCount, IsOneForSmallImages) {
  omp_set_dynamic(1);
  VemoOMPSetNumThreads(0);
  EXPECT_EQ(VemoOMPGetNumThreadsCheckImgSize(98303, 0), 1);
  EXPECT_EQ(VemoOMPGetNumThreadsCheckImgSize(98304, 0), processors_);
  EXPECT_EQ(VemoOMPGetNumThreadsCheckImgSize(1000, 500), processors_);
  EXPECT_EQ(VemoOMPGetNumThreadsCheckImgSize(-1, -1), processors_);
  EXPECT_EQ(VemoOMPGetNumThreadsCheckImgSize(-2, -1), 1);
  EXPECT_EQ(VemoOMPGetNumThreadsSetImgSize(-7), -7);
  EXPECT_EQ(VemoOMPGetNumThreadsCheckImgSize(-7, 0), processors_);
  EXPECT_EQ(VemoOMPGetNumThreadsCheckImgSize(-8, 0), 1);
}

}  // namespace
