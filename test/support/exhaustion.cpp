#include "test/support/exhaustion.h"

#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#include "qelibaselib/platform/win32.h"
#include "test/support/exhaustion_limits.h"

namespace qel::test {
namespace {

// Blocks hold their own list.
struct Block {
  Block* next;
};
Block* g_blocks = nullptr;
std::vector<void*> g_regions;
std::vector<std::FILE*> g_files;

void TakeAddressSpace() {
  g_regions.reserve(0x10000);
  LimitAddressSpace();
  for (SIZE_T size = 1 << 28; size >= 1 << 16; size /= 2) {
    while (void* region = VirtualAlloc(nullptr, size, MEM_RESERVE, PAGE_READWRITE)) g_regions.push_back(region);
  }
}

void TakeHeap() {
  for (size_t size = 1 << 16; size >= sizeof(Block); size /= 2) {
    while (auto* block = static_cast<Block*>(std::malloc(size))) block->next = std::exchange(g_blocks, block);
  }
}

void TakeFiles() {
  LimitFiles();
  while (std::FILE* file = std::fopen(kAnyFile, "rb")) g_files.push_back(file);
}

}  // namespace

void TakeAll(Resource resource) {
  if (resource == Resource::kFiles) return TakeFiles();
  TakeAddressSpace();
  if (resource == Resource::kMemory) TakeHeap();
}

void GiveBack() {
  LiftLimits();
  while (g_blocks) std::free(std::exchange(g_blocks, g_blocks->next));
  for (void* region : g_regions) VirtualFree(region, 0, MEM_RELEASE);
  for (std::FILE* file : g_files) std::fclose(file);
}

}  // namespace qel::test
