#include "qelibaselib/watchthreadstat/abandoned_watchers.h"

#include <algorithm>
#include <atomic>
#include <iterator>

namespace qel::watch {
namespace {

// Callbacks that hang for 30 s are rare. One more than these would find its handles closed, and pause between waits.
constexpr int kMostWatchers = 16;
constexpr DWORD kNobody = 0;  // no thread has this id
std::atomic<DWORD> g_abandoned[kMostWatchers];

bool Replace(DWORD threadId, DWORD replacement) {
  return std::any_of(std::begin(g_abandoned), std::end(g_abandoned), [=](std::atomic<DWORD>& entry) {
    DWORD expected = threadId;
    return entry.compare_exchange_strong(expected, replacement);
  });
}

}  // namespace

void AbandonWatcher(DWORD threadId) { Replace(kNobody, threadId); }

bool IsAbandoned() {
  const DWORD threadId = GetCurrentThreadId();
  return std::find(std::begin(g_abandoned), std::end(g_abandoned), threadId) != std::end(g_abandoned);
}

void ForgetWatcher() { Replace(GetCurrentThreadId(), kNobody); }

}  // namespace qel::watch
