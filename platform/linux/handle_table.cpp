#include "platform/linux/handle_table.h"

#include <mutex>
#include <vector>

#include "platform/linux/error.h"
#include "platform/linux/handle.h"
#include "platform/linux/process.h"

namespace qel::layer {
namespace {

// A handle is (generation, slot) in multiples of four, so that a closed one is recognised for a while after its slot
// was given out again. The pseudo handles -1 and -2 are no multiples of four.
constexpr uint32_t kSlotBits = 16;
constexpr uint32_t kSlots = 1u << kSlotBits;
constexpr uint32_t kGenerations = 1u << 12;

struct Slot {
  // Twice the number of users (an open handle is one of them) plus one while the handle is closed.
  std::atomic<uint32_t> state{1};
  std::atomic<uint32_t> generation{0};
  std::atomic<Object*> object{nullptr};
};

constinit Slot g_slots[kSlots];
constinit std::atomic<uint32_t> g_openCount{0};
constinit std::mutex g_freeMutex;
uint32_t g_unused = 1;  // slot 0 is never given out: its first handle would be null

std::vector<uint32_t>& FreeSlots() {
  static auto* slots = new std::vector<uint32_t>;  // outlives every static destructor
  return *slots;
}

uint32_t TakeSlot() {
  const std::lock_guard lock(g_freeMutex);
  auto& slots = FreeSlots();
  if (!slots.empty()) {
    const uint32_t slot = slots.back();
    slots.pop_back();
    return slot;
  }
  return g_unused < kSlots ? g_unused++ : 0;
}

void Destroy(uint32_t slot) {
  Object* object = g_slots[slot].object.exchange(nullptr);
  if (!object) return;  // a late look-up of a handle that was closed before
  object->Release();
  CountClosed();
  const std::lock_guard lock(g_freeMutex);
  FreeSlots().push_back(slot);
}

void DropUser(uint32_t slot) {
  if (g_slots[slot].state.fetch_sub(2, std::memory_order_acq_rel) == 3) Destroy(slot);
}

struct Parts {
  uint32_t slot, generation;
  bool valid;
};
Parts Split(HANDLE handle) {
  const auto value = reinterpret_cast<uintptr_t>(handle);
  const uint32_t slot = (value >> 2) & (kSlots - 1);
  return {slot, static_cast<uint32_t>(value >> (2 + kSlotBits)), (value & 3) == 0 && slot != 0};
}

}  // namespace

HANDLE InsertHandle(Object* object) {
  const uint32_t slot = TakeSlot();
  if (slot == 0) {
    object->Release();
    return nullptr;
  }
  Slot& s = g_slots[slot];
  const uint32_t generation = (s.generation.load(std::memory_order_relaxed) + 1) % kGenerations;
  s.generation.store(generation, std::memory_order_relaxed);
  s.state.fetch_add(1);  // open, one user; a look-up that comes now finds no object yet
  s.object.store(object);
  CountOpened();
  return reinterpret_cast<HANDLE>(((generation << kSlotBits) | slot) << 2);
}

bool RemoveHandle(HANDLE handle) {
  const Parts parts = Split(handle);
  if (!parts.valid) return false;
  Slot& s = g_slots[parts.slot];
  if (s.generation.load(std::memory_order_relaxed) != parts.generation) return false;
  uint32_t state = s.state.load();
  do {
    if (state & 1) return false;
  } while (!s.state.compare_exchange_weak(state, state - 1));
  if (state - 1 == 1) Destroy(parts.slot);
  return true;
}

void CountOpened() { g_openCount.fetch_add(1, std::memory_order_relaxed); }
void CountClosed() { g_openCount.fetch_sub(1, std::memory_order_relaxed); }
uint32_t OpenCount() { return g_openCount.load(std::memory_order_relaxed); }

Pin::Pin(HANDLE handle) {
  const Parts parts = Split(handle);
  if (!parts.valid) return;
  slot_ = parts.slot;
  Slot& s = g_slots[slot_];
  const uint32_t before = s.state.fetch_add(2, std::memory_order_acq_rel);
  if ((before & 1) == 0 && s.generation.load(std::memory_order_relaxed) == parts.generation)
    object_ = s.object.load(std::memory_order_acquire);
  if (!object_) DropUser(slot_);
}

void Pin::Unpin() { DropUser(slot_); }

}  // namespace qel::layer

BOOL CloseHandle(HANDLE handle) {
  const auto value = reinterpret_cast<intptr_t>(handle);
  if (value == -1 || value == -2) return TRUE;
  // A search is closed by FindClose alone.
  {
    const qel::layer::Pin pin(handle);
    if (!pin.get() || pin.get()->kind() == qel::layer::Kind::kFind) {
      SetLastError(ERROR_INVALID_HANDLE);
      return FALSE;
    }
  }
  if (qel::layer::RemoveHandle(handle)) return TRUE;
  SetLastError(ERROR_INVALID_HANDLE);
  return FALSE;
}

BOOL GetProcessHandleCount(HANDLE process, PDWORD count) {
  if (process != GetCurrentProcess()) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  *count = qel::layer::OpenCount();
  return TRUE;
}
