/// @file
/// A registration of CWatchThreadStat2.
#pragma once
#include <cstdlib>
#include <memory>

#include "qelibaselib/watchthreadstat/watchthreadstat.h"

namespace qel::watch {

struct WatchRecord {
  DWORD startTick;
  HANDLE mutex;  // held while the callback runs
  long firstDelayMs;
  long intervalMs;
  long remainingFirstDelayMs;
  long remainingIntervalMs;
  HANDLE thread;
  DWORD threadId;
  CWatchThreadStat2::Callback callback;
  void* argument;

  /// Takes one tick off. Whether the callback is to be called now.
  bool FallsDue() {
    if (remainingFirstDelayMs > 0) {
      remainingFirstDelayMs -= CWatchThreadStat2::_Period_ms;
      return remainingFirstDelayMs <= 0;
    }
    if (remainingIntervalMs <= 0) return false;  // finished
    remainingIntervalMs -= CWatchThreadStat2::_Period_ms;
    if (remainingIntervalMs > 0) return false;
    remainingIntervalMs = intervalMs;
    return true;
  }
};
static_assert(sizeof(WatchRecord) == 40, "ten words, known to readers of dumps");

struct FreeRecord {
  void operator()(WatchRecord* record) const { std::free(record); }
};
using WatchRecordOwner = std::unique_ptr<WatchRecord, FreeRecord>;

}  // namespace qel::watch
