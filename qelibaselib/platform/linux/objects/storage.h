/// @file
/// The memory behind an object in this process, named or not.
#pragma once
#include <new>
#include <utility>

#include "qelibaselib/platform/linux/objects/object_attachment.h"
#include "qelibaselib/platform/linux/objects/object_name.h"
#include "qelibaselib/platform/linux/objects/object_state.h"

namespace qel::layer {

class StorageReference;

/// What the name space of this process knows of a storage; object_namespace.h has the table of changes.
enum class NameState {
  kUnnamed,    ///< in no table: it never had a name, or lost it
  kUsed,       ///< this process uses the object
  kParked,     ///< a mutex without handles, kept at hand for the next creation of its name
  kOwnerOnly,  ///< a mutex without handles that a thread of this process still owns
};

/// One for each name and process. It lives while it has references, and beyond that while a thread of this process owns
/// its mutex: memory that the thread's list of mutexes points into must not be unmapped.
class Storage {
 public:
  Storage() = default;
  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;
  /// From the reserve when the heap is used up: a mutex is always to be had.
  static void* operator new(size_t bytes, const std::nothrow_t&) noexcept;
  static void operator delete(void* block) noexcept;

  /// Of this process alone; null without memory.
  static Storage* NewPrivate(const StorageRequest& request);
  /// Unnamed, behind a descriptor.
  static DWORD NewInheritable(const StorageRequest& request, StorageReference* out);

  ObjectState& state() { return *state_; }
  Scope scope() const { return descriptor() < 0 ? Scope::kProcess : Scope::kShared; }
  /// The object's file, this storage's own; -1 for one of this process alone.
  int descriptor() const { return attachment_.descriptor(); }
  /// Whether a started process may be given the descriptor.
  bool IsInheritable() const { return isInheritable_; }
  void AddReference() { references_.fetch_add(1, std::memory_order_relaxed); }
  void DropReference();
  /// For the end of the thread that owns the mutex, which may have no reference left.
  StorageReference ShareForOwner();

  /// Ownership of the mutex by a thread of this process; written by that thread alone.
  struct Ownership {
    std::atomic<const void*> thread{nullptr};
    uint32_t depth = 0;
    Storage *previous = nullptr, *next = nullptr;
  } ownership;
  bool IsOwned() const { return ownership.thread.load(std::memory_order_relaxed) != nullptr; }

 private:
  friend class ObjectNamespace;
  friend Storage* AdoptInherited(int descriptor, Kind kind);
  ~Storage() = default;

  std::atomic<uint32_t> references_{1};
  ObjectAttachment attachment_;
  ObjectState* state_ = nullptr;  // in the attachment's mapping when there is a descriptor, else own_
  ObjectState own_{};
  bool isInheritable_ = false;
  // The rest belongs to the name space.
  NameState nameState_ = NameState::kUnnamed;
  uint32_t parkedSince_ = 0;
  int64_t checkedNs_ = 0;  // when the file was last known to be the name's and the descriptor ours
  ObjectKey key_;
  Storage* nextInBucket_ = nullptr;
};

/// One reference to a storage.
class StorageReference {
 public:
  StorageReference() = default;
  explicit StorageReference(Storage* adopted) : storage_(adopted) {}
  StorageReference(StorageReference&& other) noexcept : storage_(std::exchange(other.storage_, nullptr)) {}
  StorageReference& operator=(StorageReference&& other) noexcept {
    std::swap(storage_, other.storage_);
    return *this;
  }
  ~StorageReference() {
    if (storage_) storage_->DropReference();
  }
  Storage* get() const { return storage_; }
  Storage* operator->() const { return storage_; }
  explicit operator bool() const { return storage_ != nullptr; }

 private:
  Storage* storage_ = nullptr;
};

/// Takes over a descriptor of an unnamed inheritable object that another process made. Null when it is none of this
/// kind; the descriptor is left alone then.
Storage* AdoptInherited(int descriptor, Kind kind);

}  // namespace qel::layer
