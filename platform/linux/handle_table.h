/// @file
/// What stands behind a handle. An Object lives while a handle, a Pin or a Reference of it does.
#pragma once
#include <atomic>
#include <cstdint>
#include <utility>

#include "platform/linux/types.h"

namespace qel::layer {

enum class Kind : uint8_t { kEvent, kMutex, kSemaphore, kTimer, kThread, kProcess, kFile, kMapping, kFind };

class Object {
 public:
  explicit Object(Kind kind) : kind_(kind) {}
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  Kind kind() const { return kind_; }
  void AddReference() { references_.fetch_add(1, std::memory_order_relaxed); }
  void Release() {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

 protected:
  virtual ~Object() = default;

 private:
  const Kind kind_;
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

/// Counts what a process can leak besides handles: views and blocks.
void CountOpened();
void CountClosed();
uint32_t OpenCount();

/// A fork waits for changes of the table that are under way.
void LockHandlesForFork();
void UnlockHandlesAfterFork();

/// Keeps the object behind a handle alive for a call, and the handle's value from being given out again. Two atomic
/// steps, no reference.
class Pin {
 public:
  explicit Pin(HANDLE handle);
  Pin(const Pin&) = delete;
  Pin& operator=(const Pin&) = delete;
  ~Pin() {
    if (object_) Unpin();
  }
  Object* get() const { return object_; }
  /// Closes the handle; the object goes with the last pin. False when somebody else has closed it meanwhile.
  bool Close() const;
  /// The object when it is of this kind, else null.
  template <class T>
  T* As(Kind kind) const {
    return object_ && object_->kind() == kind ? static_cast<T*>(object_) : nullptr;
  }

 private:
  void Unpin();
  uint32_t slot_ = 0;
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
