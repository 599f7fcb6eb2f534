// What the processes of a soak tell each other: counters in memory that all of them map.
#pragma once
#include <sys/mman.h>

#include <atomic>
#include <cstdint>

namespace qel::soak {

constexpr int kWorkers = 5;
constexpr int kMutexes = 4;

struct Board {
  std::atomic<bool> stop;
  std::atomic<uint32_t> faults;  // findings, told on standard error by who made them
  std::atomic<uint64_t> operations;
  std::atomic<uint32_t> lines[kWorkers];  // of each worker: lines whose writing call has returned
  // Guarded by the named mutex of the same number. Without it the two would soon differ.
  std::atomic<uint64_t> guarded[kMutexes][2];
};

/// The board behind a descriptor of sizeof(Board) zero bytes, which started processes inherit.
inline Board* MapBoard(int descriptor) {
  void* memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<Board*>(memory);
}

}  // namespace qel::soak
