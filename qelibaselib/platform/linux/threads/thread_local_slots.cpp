#include <atomic>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/threads/thread_data.h"
#include "qelibaselib/platform/linux/win32/processthreadsapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr DWORD kSlots = kDirectSlots + kFurtherSlots;

// Allocating and freeing a slot raises its generation, which voids the values of all threads.
constinit std::atomic<uint32_t> g_generations[kSlots];
constinit bool g_used[kSlots] = {};
constinit std::mutex g_gate;

// The thread's place of the slot; null where nothing was ever set.
ThreadSlot* FindSlot(DWORD slot) {
  if (slot < kDirectSlots) return &t_directSlots[slot];
  return t_thread.furtherSlots ? &t_thread.furtherSlots[slot - kDirectSlots] : nullptr;
}

}  // namespace

const ForkedPart kThreadSlotsAtFork = {[] { g_gate.lock(); }, [](bool) { g_gate.unlock(); }};

void FreeThreadSlots() {
  std::free(std::exchange(t_thread.furtherSlots, nullptr));
  for (ThreadSlot& slot : t_directSlots) slot = {};
}

}  // namespace qel::layer

using namespace qel::layer;

DWORD TlsAlloc() {
  const std::lock_guard lock(g_gate);
  for (DWORD slot = 0; slot < kSlots; ++slot) {
    if (std::exchange(g_used[slot], true)) continue;
    g_generations[slot].fetch_add(1, std::memory_order_relaxed);
    return slot;
  }
  SetLastError(ERROR_NO_MORE_ITEMS);
  return TLS_OUT_OF_INDEXES;
}

BOOL TlsFree(DWORD slot) {
  const std::lock_guard lock(g_gate);
  if (slot >= kSlots || !std::exchange(g_used[slot], false)) return ReportResult(ERROR_INVALID_PARAMETER);
  g_generations[slot].fetch_add(1, std::memory_order_relaxed);
  return TRUE;
}

LPVOID TlsGetValue(DWORD slot) {
  if (slot >= kSlots) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  SetLastError(ERROR_SUCCESS);
  const ThreadSlot* place = FindSlot(slot);
  const bool valid = place && place->generation == g_generations[slot].load(std::memory_order_relaxed);
  return valid ? place->value : nullptr;
}

BOOL TlsSetValue(DWORD slot, LPVOID value) {
  if (slot >= kSlots) return ReportResult(ERROR_INVALID_PARAMETER);
  ThreadSlot* place = FindSlot(slot);
  if (!place) {
    t_thread.furtherSlots = static_cast<ThreadSlot*>(std::calloc(kFurtherSlots, sizeof(ThreadSlot)));
    if (!t_thread.furtherSlots) return ReportResult(ERROR_NOT_ENOUGH_MEMORY);
    place = FindSlot(slot);
    ArmThreadEnd();
  }
  *place = {value, g_generations[slot].load(std::memory_order_relaxed)};
  if (value) {
    t_thread.attached = true;
    ArmThreadEnd();
  }
  return TRUE;
}
