// Frames that their function has not made yet: only our own walk finds the caller of such a one.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "test/platform/symbols/named_place.h"

extern "C" __attribute__((noipa, noinline)) int CalledFunction(int value) { return value + 1; }
// Without unwind tables, as some compilers leave the function by which code finds its own address.
extern "C" void LoadReturnAddress();
__asm__("LoadReturnAddress: movl (%esp), %ebx\n\tret");

namespace qel::test {
namespace {

DWORD AddressOf(const void* pointer) { return reinterpret_cast<DWORD>(pointer); }

struct Walker {
  const Session session;
  STACKFRAME frame{};
  Walker(DWORD code, DWORD stack, DWORD base) {
    frame.AddrPC.Offset = code;
    frame.AddrStack.Offset = stack;
    frame.AddrFrame.Offset = base;
  }
  BOOL Next() {
    return StackWalk(IMAGE_FILE_MACHINE_I386, GetCurrentProcess(), GetCurrentThread(), &frame, nullptr, nullptr,
                     SymFunctionTableAccess, SymGetModuleBase, nullptr);
  }
};

TEST(UnmadeFrame, StillHasItsCaller) {
  const auto entry = AddressOf(reinterpret_cast<void*>(&CalledFunction));
  ASSERT_EQ(*reinterpret_cast<const BYTE*>(entry), 0x55) << "the function does not start with push ebp";
  const auto load = AddressOf(reinterpret_cast<void*>(&LoadReturnAddress));
  const DWORD caller = AddressOf(reinterpret_cast<void*>(&CalledFunction)) + 9;  // any place in a module
  DWORD base[2] = {0, 0};
  const char data[4] = {};
  // The stack as it is where: at the entry, after "push ebp", after a call of what is no code.
  DWORD stack[2] = {AddressOf(base), caller};
  const struct {
    const char* name;
    DWORD code, stack;
  } cases[] = {
      {"entry", entry, AddressOf(&stack[1])}, {"pushed", entry + 1, AddressOf(&stack[0])},
      {"load", load, AddressOf(&stack[1])},   {"return", load + 3, AddressOf(&stack[1])},
      {"null", 0, AddressOf(&stack[1])},      {"data", AddressOf(data), AddressOf(&stack[1])},
  };
  for (const auto& place : cases) {
    Walker walker(place.code, place.stack, AddressOf(base));
    ASSERT_TRUE(walker.Next()) << place.name;
    EXPECT_EQ(walker.frame.AddrPC.Offset, place.code) << place.name;
    const DWORD first = walker.frame.AddrFrame.Offset;
    ASSERT_TRUE(walker.Next()) << place.name;
    EXPECT_EQ(walker.frame.AddrPC.Offset, caller) << place.name;
    EXPECT_EQ(walker.frame.AddrFrame.Offset, AddressOf(base)) << place.name;
    EXPECT_NE(first, walker.frame.AddrFrame.Offset) << place.name;
  }
}

TEST(BadFrame, StillHasItsFunction) {
  const auto entry = AddressOf(reinterpret_cast<void*>(&CalledFunction));
  Walker walker(entry + 5, AddressOf(&entry), 0x11);
  ASSERT_TRUE(walker.Next());
  EXPECT_EQ(walker.frame.AddrPC.Offset, entry + 5);
  EXPECT_EQ(walker.frame.AddrReturn.Offset, 0u);
  EXPECT_FALSE(walker.Next());
}

}  // namespace
}  // namespace qel::test
