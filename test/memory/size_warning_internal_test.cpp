#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/memory/size_warning.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

class SizeWarning : public testing::Test {
 protected:
  SizeWarning() { TakeLines(channel::kMemoryAllocation); }
  ~SizeWarning() override { memory::sizeWarningLimit = 0; }

  static void CallAll(DWORD size) {
    static char from[256], to[256];
    _MemFree("f.cpp", 1, _MemAlloc("alloc.cpp", 1, size, 0));
    _VMemFree("f.cpp", 1, _VMemAlloc("pages.cpp", 2, size, 0));
    _MemCpy(to, from, size, 3, "copy.cpp");
    _MemCmp(to, from, size, 4, "compare.cpp");
    _MemSet(to, 0, size, 5, "fill.cpp");
  }
};

TEST_F(SizeWarning, IsOff) {
  CallAll(200);
  EXPECT_TRUE(TakeLines(channel::kMemoryAllocation).empty());
}

TEST_F(SizeWarning, NamesRequestsAboveTheLimit) {
  memory::sizeWarningLimit = 100;
  CallAll(100);
  EXPECT_TRUE(TakeLines(channel::kMemoryAllocation).empty());
  CallAll(101);
  EXPECT_EQ(TakePlacedMessages(channel::kMemoryAllocation),
            (Messages{"alloc.cpp(1): Warning : _MemAllocSize=101", "pages.cpp(2): Warning : _VMemAllocSize=101",
                      "copy.cpp(3): Warning : __MemCpySize=101"}))
      << "neither comparison nor fill warns";
}

// A fault inside an operation, and the one raised for a bad buffer, unwind the caller.
TEST(FaultingOperation, RunsTheDestructorsOfItsCaller) {
  struct Counter {
    int& count;
    ~Counter() { ++count; }
  };
  PageBuffer block(3), whole(3);
  block.Protect(1, PAGE_NOACCESS);
  BYTE *const pages = block.Begin(), *const other = whole.Begin();
  const std::function<void()> operations[] = {
      [&] { _MemCpy(pages, other, 3 * 4096, 1, "x"); }, [&] { _MemCpy(other, pages, 3 * 4096, 1, "x"); },
      [&] { _MemCmp(pages, other, 3 * 4096, 1, "x"); }, [&] { _MemSet(pages, 0, 3 * 4096, 1, "x"); },
      [&] { _MemSet(nullptr, 0, 1, 1, "x"); },          [&] { _MemCpy(pages + 4096, other, 1, 1, "x"); }};
  for (const auto& operation : operations) {
    int destroyed = 0;
    EXPECT_FALSE(Guarded(QEL_HERE, [&] {
      Counter counter{destroyed};
      operation();
    }));
    EXPECT_EQ(destroyed, 1);
  }
}

TEST(OwnedBlock, IsCheckedAndFreed) {
  auto* text = static_cast<wchar_t*>(_MemAlloc("x.cpp", 1, 20, 0));
  EXPECT_EQ(auto_MemAlloc<wchar_t>(text).get(), text);
  EXPECT_THROW(auto_MemAlloc<wchar_t>(nullptr), std::bad_alloc);
}

}  // namespace
}  // namespace qel::test
