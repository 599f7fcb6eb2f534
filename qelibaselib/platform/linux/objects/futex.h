/// @file
/// The clock of waits and the kernel's sleep on a word of memory.
#pragma once
#include <atomic>
#include <cstdint>

#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

using Word = std::atomic<uint32_t>;

/// Who may sleep on a word: threads of this process, or of any process that has mapped it.
enum class Scope : bool { kProcess, kShared };

/// A point in time that is not reached.
inline constexpr int64_t kNever = INT64_MAX;
inline constexpr int64_t kNsPerMs = 1'000'000;
inline constexpr int64_t kNsPerSecond = 1'000'000'000;

int64_t MonotonicNs();

/// The clock's time in `ms` milliseconds; kNever for INFINITE.
int64_t DeadlineNs(DWORD ms);

/// Sleeps while `word` holds `seen`, at most until `untilNs`. May return for no reason.
void SleepOn(Word& word, uint32_t seen, Scope scope, int64_t untilNs);

void WakeAll(Word& word, Scope scope);

}  // namespace qel::layer
