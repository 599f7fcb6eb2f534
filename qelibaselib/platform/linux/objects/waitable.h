/// @file
/// What a wait needs of an object.
#pragma once
#include <new>
#include <utility>

#include "qelibaselib/platform/linux/objects/futex.h"
#include "qelibaselib/platform/linux/objects/object_namespace.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {

enum class Taken { kNo, kYes, kAbandoned };

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
