// A guard that cannot throw: making the exception object faults each time.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>

#include "test/platform/fault/provoke.h"

namespace {
int g_faultsToCome = 0;  // of the allocation
}

// Stands before the run-time's function of this name in every module.
extern "C" void* __cxa_allocate_exception(size_t size) noexcept {
  if (g_faultsToCome > 0 && g_faultsToCome-- > 0) *static_cast<volatile int*>(qel::test::BadPointer()) = 1;
  static const auto real = reinterpret_cast<void* (*)(size_t)>(dlsym(RTLD_NEXT, "__cxa_allocate_exception"));
  return real(size);
}

namespace qel::test {
namespace {

// What the next frames find in the members that nobody has set.
OWN_FRAME void DirtyStack() {
  char block[8192];
  std::memset(block, 0xFF, sizeof block);
  __asm__ __volatile__("" : : "r"(block) : "memory");
}

TEST(LostGuard, LeavesItsFaultToTheNextOneFurtherOut) {
  SKIP_UNDER_ASAN();
  constexpr int kFaultsUntilLost = 3;
  int destroyed = 0;
  bool innerCaught = false, outerCaught = false;
  DirtyStack();
  try {
    fault::Run([&] {
      try {
        fault::Run([&] {
          g_faultsToCome = kFaultsUntilLost;
          ReadBadAddress(destroyed);
        });
      } catch (...) {
        innerCaught = true;
      }
    });
  } catch (...) {
    outerCaught = true;
  }
  EXPECT_EQ(g_faultsToCome, 0);
  EXPECT_FALSE(innerCaught);
  EXPECT_TRUE(outerCaught);
}

}  // namespace
}  // namespace qel::test
