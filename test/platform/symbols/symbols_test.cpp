// Symbols and the walk of a stack as the debug help gives them.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "test/platform/symbols/named_place.h"

static DWORD AddressOf(const void* place) { return reinterpret_cast<DWORD>(place); }

// One frame each, and a place in it that can be asked for.
extern "C" __attribute__((noipa, noinline)) DWORD PlaceInPlainFunction() {
  return AddressOf(__builtin_return_address(0));
}
static __attribute__((noipa, noinline)) DWORD PlaceInLocalFunction() {
  const volatile DWORD place = PlaceInPlainFunction();  // not a jump there
  return place;
}

namespace qel::test {
namespace {

__attribute__((noipa, noinline)) DWORD PlaceInHiddenFunction() {
  const volatile DWORD place = PlaceInPlainFunction();
  return place;
}

const DWORD kPlainFunction = AddressOf(reinterpret_cast<void*>(&PlaceInPlainFunction));

struct SymbolBlock {
  IMAGEHLP_SYMBOL symbol{};
  char rest[500] = {};
  explicit SymbolBlock(DWORD size = sizeof(IMAGEHLP_SYMBOL), DWORD maximum = 500) {
    symbol.SizeOfStruct = size;
    symbol.MaxNameLength = maximum;
  }
  BOOL Find(DWORD address) { return SymGetSymFromAddr(GetCurrentProcess(), address, nullptr, &symbol); }
};

TEST(Symbols, NameFunctions) {
  const Session session;
  SymbolBlock block;
  ASSERT_TRUE(block.Find(kPlainFunction + 3));
  EXPECT_EQ(block.symbol.Address, kPlainFunction);
  EXPECT_EQ(NameOf(kPlainFunction + 3).displacement, 3u);
  for (const auto& [place, name] : {std::pair{kPlainFunction + 3, "PlaceInPlainFunction"},
                                    {PlaceInLocalFunction(), "PlaceInLocalFunction"},
                                    {PlaceInHiddenFunction(), "qel::test::PlaceInHiddenFunction"}})
    EXPECT_EQ(NameOf(place).name, name);
}

TEST(Symbols, TakeAnySizeThatIsLargeEnough) {
  const Session session;
  for (const DWORD size : {24ul, 28ul, 10000ul}) EXPECT_TRUE(SymbolBlock(size).Find(kPlainFunction + 3)) << size;
  for (const DWORD size : {0ul, 20ul}) EXPECT_FALSE(SymbolBlock(size).Find(kPlainFunction + 3)) << size;
  SymbolBlock small(24, 5);
  ASSERT_TRUE(small.Find(kPlainFunction + 3));
  EXPECT_STREQ(small.symbol.Name, "Plac");
}

TEST(Symbols, BelongToModules) {
  {
    const Session session;
    SetLastError(77);
    EXPECT_EQ(SymGetModuleBase(GetCurrentProcess(), kPlainFunction), AddressOf(GetModuleHandleA(nullptr)));
    EXPECT_EQ(SymFunctionTableAccess(GetCurrentProcess(), kPlainFunction), nullptr);
    EXPECT_EQ(GetLastError(), 77u);
    EXPECT_EQ(SymGetModuleBase(GetCurrentProcess(), 0x10), 0u);
    EXPECT_EQ(GetLastError(), ERROR_MOD_NOT_FOUND);
    EXPECT_FALSE(SymbolBlock().Find(0x10));
    EXPECT_EQ(GetLastError(), ERROR_MOD_NOT_FOUND);
  }
  EXPECT_FALSE(SymbolBlock().Find(kPlainFunction));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_FALSE(SymCleanup(GetCurrentProcess()));
}

std::vector<STACKFRAME> Walk(DWORD machine, const void* code, const void* stack, const void* frame, DWORD* error) {
  STACKFRAME record{};
  record.AddrPC = {AddressOf(code), 0, AddrModeFlat};
  record.AddrStack = {AddressOf(stack), 0, AddrModeFlat};
  record.AddrFrame = {AddressOf(frame), 0, AddrModeFlat};
  std::vector<STACKFRAME> frames;
  while (frames.size() < 20 && StackWalk(machine, GetCurrentProcess(), GetCurrentThread(), &record, nullptr, nullptr,
                                         SymFunctionTableAccess, SymGetModuleBase, nullptr)) {
    frames.push_back(record);
  }
  *error = GetLastError();
  return frames;
}

struct ChainFrame {
  const void* next;
  DWORD returnAddress;
  DWORD parameters[4];
};

TEST(StackWalk, FollowsTheChainOfFrames) {
  const Session session;
  ChainFrame chain[3] = {{&chain[1], PlaceInLocalFunction(), {1, 2, 3, 4}},
                         {&chain[2], PlaceInHiddenFunction(), {5, 6, 7, 8}},
                         {nullptr, 0, {}}};
  const char* code = reinterpret_cast<const char*>(&PlaceInPlainFunction) + 5;
  DWORD error;
  const auto frames = Walk(IMAGE_FILE_MACHINE_I386, code, chain, chain, &error);
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(error, ERROR_MOD_NOT_FOUND);
  EXPECT_EQ(frames[0].AddrPC.Offset, AddressOf(code));
  EXPECT_EQ(frames[0].AddrReturn.Offset, chain[0].returnAddress);
  EXPECT_EQ(frames[0].Params[3], 4u);
  EXPECT_EQ(frames[1].AddrPC.Offset, chain[0].returnAddress);
  EXPECT_EQ(frames[1].AddrFrame.Offset, AddressOf(&chain[1]));
  EXPECT_EQ(frames[2].AddrPC.Offset, chain[1].returnAddress);
  EXPECT_EQ(frames[2].AddrReturn.Offset, 0u);
  EXPECT_NE(frames[2].AddrFrame.Offset, 0u);
}

TEST(StackWalk, RefusesWhatItCannotWalk) {
  const Session session;
  const void* code = reinterpret_cast<void*>(0x20);
  const void* nothing = reinterpret_cast<void*>(0x10);
  DWORD error;
  EXPECT_TRUE(Walk(IMAGE_FILE_MACHINE_I386, code, nothing, nothing, &error).empty());
  EXPECT_EQ(error, ERROR_MOD_NOT_FOUND);
  EXPECT_TRUE(Walk(0, code, &code, &code, &error).empty());
  EXPECT_EQ(error, ERROR_INVALID_PARAMETER);
}

}  // namespace
}  // namespace qel::test
