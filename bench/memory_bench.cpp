// Guarded allocation and checked memory operations.
#include <cstring>
#include <vector>

#include "bench/by_hand.h"
#include "bench/guard.h"
#include "bench/harness.h"
#include "qelibaselib/qelibaselib.h"

namespace {

void CompareOperations(DWORD size) {
  std::vector<char> from(size, 'x'), to(size, 'x');
  const std::string name = std::to_string(size) + " bytes";
  const bool large = size >= (1u << 20);
  const double slackNs = large ? 0 : 20;
  bench::Compare(
      "_MemCpy " + name, 1.02, [&] { bench::Keep(_MemCpy(to.data(), from.data(), size, 1, "b.cpp")); },
      [&] { bench::Keep(std::memcpy(to.data(), from.data(), size)); }, slackNs);
  bench::Compare(
      "_MemCmp " + name, 1.05, [&] { bench::Keep(_MemCmp(to.data(), from.data(), size, 1, "b.cpp")); },
      [&] { bench::Keep(std::memcmp(to.data(), from.data(), size)); }, slackNs);
  bench::Compare(
      "_MemSet " + name, 1.02, [&] { bench::Keep(_MemSet(to.data(), 'x', size, 1, "b.cpp")); },
      [&] { bench::Keep(std::memset(to.data(), 'x', size)); }, slackNs);
}

}  // namespace

BENCHMARK_GROUP(memory) {
  bench::Compare(
      "_MemAlloc + _MemFree 64 bytes", 1,
      [] {
        void* block = _MemAlloc("b.cpp", 1, 64, 0);
        bench::Keep(block);
        _MemFree("b.cpp", 1, block);
      },
      [] {
        char* block = new char[256];  // what 64 bytes are rounded to
        // cppcheck-suppress uninitdata ; that it is allocated is all that counts
        bench::Keep(block);
        delete[] block;
      },
      60);
  for (DWORD size : {64ul, 4096ul, 1ul << 20, 64ul << 20}) CompareOperations(size);
  const std::vector<char> block(4096, 'x');
  bench::Compare(
      "ChkMemAccess", 1, [&] { bench::Keep(ChkMemAccess(block.data(), 4096, 1)); },
      [&] {
        bench::Guarded([&] {
          const volatile char* bytes = block.data();
          bench::Keep(bytes[0] + bytes[4095]);
        });
      },
      20);
  bench::Compare(
      "IsPhysMemShortage", 1.25, [] { bench::Keep(IsPhysMemShortage(100)); },
      [] { bench::Keep(by_hand::MemoryLoad()); });
}
