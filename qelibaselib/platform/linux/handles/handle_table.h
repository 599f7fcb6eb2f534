/// @file
/// What stands behind a handle. An Object lives while a handle, a Pin or a Reference of it does.
///
/// The room handles/ holds the table of handles and the calls that concern every handle. It uses base/ alone.
///
/// The problem: every call looks up its handle, also those that cost little else, while other threads may close it; and
/// a handle that was closed must not come to stand for the next object.
///
/// The idea: a handle is the number of a slot and a generation, which counts how often the slot was given out. A slot
/// has one word that counts its users, of which the open handle is one. A call makes itself a user with one atomic
/// addition, looks whether the slot is open and of its generation, and takes itself out afterwards; closing takes the
/// handle's own share out and marks the slot as closed.
///
/// The invariant: a slot is emptied and given out again only when it is closed and has no users, and exactly one thread
/// sees that moment: the one whose change made the word "closed, no users" and that moves it on to "empty". So what a
/// user has found stays as it is, and the object is released once.
#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <utility>

#include "qelibaselib/platform/linux/base/forked_part.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

enum class Kind : uint8_t { kEvent, kMutex, kSemaphore, kTimer, kThread, kProcess, kFile, kMapping, kFind };

class Object {
 public:
  /// A permanent object is never deleted, and its references are not counted.
  explicit Object(Kind kind, bool permanent = false) : kind_(kind), permanent_(permanent) {}
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  Kind kind() const { return kind_; }
  void AddReference() {
    if (!permanent_) references_.fetch_add(1, std::memory_order_relaxed);
  }
  void Release() {
    if (!permanent_ && references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

 protected:
  virtual ~Object() = default;

 private:
  const Kind kind_;
  const bool permanent_;
  std::atomic<uint32_t> references_{1};
};

/// Gives the object a handle, which takes over the caller's reference. Without a free slot the reference is released
/// and the result is null (ERROR_TOO_MANY_OPEN_FILES is the caller's to set).
HANDLE InsertHandle(Object* object);

/// The same with the handle that another process gave the object. False, the reference released, when the handle is
/// none or its slot is taken.
bool InsertHandleAt(HANDLE handle, Object* object);

/// Closes a handle. FALSE when it is none; the last error is the caller's to set.
bool RemoveHandle(HANDLE handle);

/// Calls `visit` for every open handle, whose object stays for that long.
void VisitHandles(const std::function<void(HANDLE, Object*)>& visit);

/// Counts what a process can leak besides handles: views and blocks.
void CountOpened();
void CountClosed();
/// With the handles.
uint32_t OpenCount();

extern const ForkedPart kHandleTableAtFork;

// A handle is (generation, slot) in multiples of four, so that a closed one is recognised for a while after its slot
// was given out again. The pseudo handles -1 and -2 are no multiples of four.
constexpr uint32_t kSlotBits = 16;
constexpr uint32_t kSlots = 1u << kSlotBits;

// A slot's word: its users, of which an open handle is one, in units of kUser, and the two marks. Users come to every
// slot that a handle's value points to, also to an empty one, and look at the marks then.
//
//   | slot   | marks            | next                                                        |
//   |--------|------------------|-------------------------------------------------------------|
//   | empty  | kClosed | kEmpty | open: InsertHandle                                          |
//   | open   | none             | closed: CloseHandle, while other users are there; or empty  |
//   | closed | kClosed          | empty: the last user leaves                                 |
constexpr uint32_t kClosed = 1;
constexpr uint32_t kEmpty = 2;
constexpr uint32_t kUser = 4;

struct Slot {
  std::atomic<uint32_t> state{kClosed | kEmpty};
  // Written only while the slot is empty, read by users only while it is not.
  uint32_t generation = 0;
  Object* object = nullptr;
  uint32_t nextFree = 0;
};
extern Slot g_slots[kSlots];

/// Keeps the object behind a handle alive for a call, and the handle's value from being given out again. Two atomic
/// steps, no reference.
class Pin {
 public:
  explicit Pin(HANDLE handle) {
    const auto value = reinterpret_cast<uintptr_t>(handle);
    const uint32_t slot = (value >> 2) & (kSlots - 1);
    if ((value & 3) != 0 || slot == 0) return;
    slot_ = &g_slots[slot];
    const uint32_t before = slot_->state.fetch_add(kUser, std::memory_order_acq_rel);
    // A user of an open slot keeps it from becoming empty, so that the rest of it stands still.
    if ((before & kClosed) == 0 && slot_->generation == value >> (2 + kSlotBits)) object_ = slot_->object;
    if (!object_) Unpin();
  }
  /// Of whatever is open in the slot.
  explicit Pin(Slot& slot) : slot_(&slot) {
    if ((slot_->state.fetch_add(kUser, std::memory_order_acq_rel) & kClosed) == 0) object_ = slot_->object;
    if (!object_) Unpin();
  }
  Pin(const Pin&) = delete;
  Pin& operator=(const Pin&) = delete;
  ~Pin() {
    if (object_) Unpin();
  }
  Object* get() const { return object_; }
  /// Closes the handle; the object, which is not to be used any more, goes with the last pin. False when somebody else
  /// has closed it meanwhile.
  bool Close();
  /// The object when it is of this kind, else null.
  template <class T>
  T* As(Kind kind) const {
    return object_ && object_->kind() == kind ? static_cast<T*>(object_) : nullptr;
  }

 private:
  void Unpin() {
    if (slot_->state.fetch_sub(kUser, std::memory_order_acq_rel) == kUser + kClosed) Empty(*slot_);
  }
  static void Empty(Slot& slot);
  static void ReleaseSlot(Slot& slot);
  Slot* slot_ = nullptr;
  Object* object_ = nullptr;
};

/// A counted reference, for what outlasts a call or blocks in it.
template <class T>
class Reference {
 public:
  Reference() = default;
  /// Takes over a reference that the caller owns.
  static Reference Adopt(T* object) {
    Reference result;
    result.object_ = object;
    return result;
  }
  static Reference Share(T* object) {
    if (object) object->AddReference();
    return Adopt(object);
  }
  Reference(Reference&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Reference& operator=(Reference&& other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Reference() {
    if (object_) object_->Release();
  }
  T* get() const { return object_; }
  T* operator->() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  /// Hands the reference to the caller.
  [[nodiscard]] T* Detach() { return std::exchange(object_, nullptr); }

 private:
  T* object_ = nullptr;
};

}  // namespace qel::layer
