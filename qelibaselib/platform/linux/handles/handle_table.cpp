#include "qelibaselib/platform/linux/handles/handle_table.h"

#include "qelibaselib/platform/linux/base/patient_mutex.h"

namespace qel::layer {

constinit Slot g_slots[kSlots];

namespace {

constexpr uint32_t kGenerations = 1u << 12;
// Slots for who cannot have the list of free ones: a report that needs its mutexes. Given out once; slot 0 never is.
constexpr uint32_t kSparesEnd = 33;

constinit std::atomic<uint32_t> g_openCount{0};    // views and blocks, which are counted but have no handle
constinit std::atomic<uint32_t> g_handleCount{0};  // changed under the mutex alone
constinit PatientMutex g_freeMutex;
constinit uint32_t g_firstFree = 0;  // 0 ends the list: slot 0 is never given out, its first handle would be null
constinit uint32_t g_unused = kSparesEnd;
constinit std::atomic<uint32_t> g_nextSpare{1};

void CountHandle(int change) {
  g_handleCount.store(g_handleCount.load(std::memory_order_relaxed) + static_cast<uint32_t>(change),
                      std::memory_order_relaxed);
}

void FreeSlot(uint32_t slot) {
  g_slots[slot].nextFree = g_firstFree;
  g_firstFree = slot;
}

// 0 when all are given out.
uint32_t TakeSpareSlot() {
  uint32_t slot = g_nextSpare.load(std::memory_order_relaxed);
  while (slot < kSparesEnd && !g_nextSpare.compare_exchange_weak(slot, slot + 1, std::memory_order_relaxed)) {
  }
  return slot < kSparesEnd ? slot : 0;
}

uint32_t TakeSlot() {
  const PatientLock lock(g_freeMutex);
  if (!lock) [[unlikely]]
    return TakeSpareSlot();
  const bool unused = g_firstFree == 0;
  if (unused && g_unused == kSlots) return 0;
  CountHandle(1);
  return unused ? g_unused++ : std::exchange(g_firstFree, g_slots[g_firstFree].nextFree);
}

// For a table that has given out no handle of this slot yet.
bool TakeSlotAt(uint32_t slot) {
  const PatientLock lock(g_freeMutex);
  if (!lock) return false;
  if (slot < g_unused) {
    uint32_t* place = &g_firstFree;
    while (*place != 0 && *place != slot) place = &g_slots[*place].nextFree;
    if (*place == 0) return false;
    *place = g_slots[slot].nextFree;
  } else {
    while (g_unused < slot) FreeSlot(g_unused++);
    ++g_unused;
  }
  CountHandle(1);
  return true;
}

struct HandleParts {
  uint32_t slot, generation;
  bool valid;
};
HandleParts SplitHandle(HANDLE handle) {
  const auto value = reinterpret_cast<uintptr_t>(handle);
  const uint32_t slot = (value >> 2) & (kSlots - 1);
  return {slot, static_cast<uint32_t>(value >> (2 + kSlotBits)), (value & 3) == 0 && slot != 0};
}

HANDLE MakeHandle(uint32_t slot, uint32_t generation) {
  return reinterpret_cast<HANDLE>(uintptr_t{((generation << kSlotBits) | slot) << 2});
}

HANDLE OpenSlot(uint32_t slot, uint32_t generation, Object* object) {
  Slot& s = g_slots[slot];
  s.generation = generation;
  s.object = object;
  s.state.fetch_add(kUser - kClosed - kEmpty, std::memory_order_release);
  return MakeHandle(slot, generation);
}

}  // namespace

HANDLE InsertHandle(Object* object) {
  const uint32_t slot = TakeSlot();
  if (slot != 0) return OpenSlot(slot, (g_slots[slot].generation + 1) % kGenerations, object);
  object->Release();
  return nullptr;
}

bool InsertHandleAt(HANDLE handle, Object* object) {
  const HandleParts parts = SplitHandle(handle);
  if (parts.valid && parts.generation < kGenerations && TakeSlotAt(parts.slot)) {
    OpenSlot(parts.slot, parts.generation, object);
    return true;
  }
  object->Release();
  return false;
}

bool RemoveHandle(HANDLE handle) {
  Pin pin(handle);
  return pin.get() && pin.Close();
}

void VisitHandles(const std::function<void(HANDLE, Object*)>& visit) {
  uint32_t end = kSlots;
  if (const PatientLock lock(g_freeMutex); lock) end = g_unused;
  for (uint32_t slot = 1; slot < end; ++slot) {
    const Pin pin(g_slots[slot]);
    if (pin.get()) visit(MakeHandle(slot, g_slots[slot].generation), pin.get());
  }
}

void CountOpened() { g_openCount.fetch_add(1, std::memory_order_relaxed); }
void CountClosed() { g_openCount.fetch_sub(1, std::memory_order_relaxed); }
uint32_t OpenCount() {
  return g_openCount.load(std::memory_order_relaxed) + g_handleCount.load(std::memory_order_relaxed);
}

const ForkedPart kHandleTableAtFork = {[] { g_freeMutex.LockBeforeFork(); },
                                       [](bool inChild) { g_freeMutex.UnlockAfterFork(inChild); }};

void Pin::Empty(Slot& slot) {
  uint32_t expected = kClosed;
  if (slot.state.compare_exchange_strong(expected, kClosed | kEmpty, std::memory_order_acq_rel)) ReleaseSlot(slot);
}

void Pin::ReleaseSlot(Slot& slot) {
  Object* object = std::exchange(slot.object, nullptr);
  const auto number = static_cast<uint32_t>(&slot - g_slots);
  if (const PatientLock lock(g_freeMutex); number >= kSparesEnd && lock) {
    FreeSlot(number);
    CountHandle(-1);
  }
  object->Release();
}

bool Pin::Close() {
  std::atomic<uint32_t>& state = slot_->state;
  uint32_t value = 2 * kUser;  // the handle and this pin: the two leave together
  if (state.compare_exchange_strong(value, kClosed | kEmpty, std::memory_order_acq_rel)) {
    object_ = nullptr;
    ReleaseSlot(*slot_);
    return true;
  }
  do {
    if ((value & kClosed) != 0) return false;
  } while (!state.compare_exchange_weak(value, value - kUser + kClosed, std::memory_order_acq_rel));
  return true;
}

}  // namespace qel::layer
