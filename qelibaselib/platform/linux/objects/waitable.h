/// @file
/// Waits, and what they need of an object.
///
/// The problem: a thread waits for one object or for several at once, which other threads, other processes and the
/// clock change; no change may be missed, and a thread that is killed in its wait must leave nothing behind.
///
/// The idea: there are no lists of waiting threads and no helper threads. Every object has a word that each change
/// moves on. A wait for one object reads the word, tries to take the object, and sleeps in the kernel as long as the
/// word still is what it read, until its own limit or the time at which the object changes by itself. A wait for
/// several sleeps on one word of the process, which every change of any object moves on while such a wait is under way;
/// what another process changes does not reach that word, so objects that others can change are looked at every 5 ms. A
/// wait for one mutex sleeps in the C library's lock, one for a started process on a descriptor of the kernel.
///
/// The invariant: a wait reads the word before it tries, and a change moves the word on before it wakes. A change
/// behind the try is therefore either seen by the kernel, which does not let the thread sleep then, or wakes it. All
/// sleepers are woken, since one that waits for several may be woken for one object and take another.
#pragma once
#include <new>
#include <utility>

#include "qelibaselib/platform/linux/objects/futex.h"
#include "qelibaselib/platform/linux/objects/object_namespace.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {

enum class Taken {
  kNo,
  kYes,
  kAbandoned,  ///< the same as kYes, of a mutex whose owner ended without releasing it
};

/// An object that can be waited for. Whatever could let TryTake begin to succeed changes the word and calls
/// WakeWaitsFor; the passing of time is told by DueNs.
class Waitable : public Object {
 public:
  /// Takes the object if that needs no waiting.
  virtual Taken TryTake() = 0;
  /// Whether TryTake would succeed; takes nothing.
  virtual bool IsReady() = 0;
  /// Undoes a TryTake of this thread that succeeded.
  virtual void PutBack(Taken taken) = 0;
  virtual Word& word() = 0;
  virtual Scope scope() { return Scope::kProcess; }
  /// Whether the object can change without a call in this process.
  virtual bool ChangesFromOutside() { return scope() == Scope::kShared; }
  /// The clock's time at which TryTake can succeed by itself.
  virtual int64_t DueNs() { return kNever; }
  /// Waits for this object alone.
  virtual Taken Wait(int64_t deadlineNs);

 protected:
  using Object::Object;
};

constexpr bool IsWaitable(Kind kind) { return kind <= Kind::kProcess; }

/// Wakes the waits that an object's change concerns; its word has been changed already.
void WakeWaitsFor(Word& word, Scope scope);
/// The same for a mutex, which has a sleep of its own: wakes the waits for several objects that include one.
void WakeSeveralWaitsForMutexes();

/// An object with storage, which may be shared by name.
class StoredObject : public Waitable {
 public:
  StoredObject(Kind kind, StorageReference storage) : Waitable(kind), storage_(std::move(storage)) {}
  Storage& storage() { return *storage_.get(); }
  ObjectState& state() { return storage_->state(); }
  Word& word() override { return state().word; }
  Scope scope() override { return storage_->scope(); }

 private:
  StorageReference storage_;
};

/// Sets the last error of a creation, 0 included.
template <class T>
HANDLE CreateStored(const wchar_t* name, const StorageRequest& request) {
  StorageReference storage;
  DWORD result = CreateStorage(name, request, &storage);
  HANDLE handle = nullptr;
  if (storage) {
    T* object = new (std::nothrow) T(std::move(storage));
    if constexpr (requires { object->RecordInitialOwner(); })
      if (object && request.owned && result == ERROR_SUCCESS) object->RecordInitialOwner();
    handle = object ? InsertHandle(object) : nullptr;
    if (!handle) result = ERROR_NO_SYSTEM_RESOURCES;
  }
  SetLastError(result);
  return handle;
}

/// Leaves the last error alone when it succeeds.
template <class T>
HANDLE OpenStored(const wchar_t* name, Kind kind) {
  StorageReference storage;
  DWORD result = OpenStorage(name, kind, &storage);
  if (result == ERROR_SUCCESS) {
    T* object = new (std::nothrow) T(std::move(storage));
    if (HANDLE handle = object ? InsertHandle(object) : nullptr) return handle;
    result = ERROR_NO_SYSTEM_RESOURCES;
  }
  SetLastError(result);
  return nullptr;
}

}  // namespace qel::layer
