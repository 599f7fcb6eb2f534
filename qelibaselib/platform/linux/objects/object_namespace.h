/// @file
/// The storage of kernel objects and the name space that all kinds share.
///
/// A named object is kept in a file in the user's folder. Whoever has the file open and mapped holds a shared lock on
/// its first byte, so that it is neither removed nor used for something else; the object lives exactly while one of
/// them is its user (object_users.h). The file is only storage and may outlive the object, and a process that is killed
/// holds nothing. There is one mapping of it for each name and process. Clean-up jobs that remove files in shared
/// memory under running programs split an object in two: its holders go on, whoever comes later makes another.
#pragma once
#include <pthread.h>

#include <cstdint>
#include <new>
#include <utility>

#include "qelibaselib/platform/linux/handles/handle_table.h"
#include "qelibaselib/platform/linux/objects/futex.h"
#include "qelibaselib/platform/linux/objects/object_users.h"

namespace qel::layer {

/// Where a section's data begins in its file.
inline constexpr uint64_t kSectionDataOffset = 4096;

/// What every process that has the object sees: the first page of its file. Not used: what the kind does not need.
struct ObjectState {
  std::atomic<uint32_t> mark;  ///< written last by the maker of the file; names the layout
  Kind kind;
  Word word;                                        ///< event: bit 0 and changes; semaphore: count; timer: changes
  uint32_t parameter;                               ///< event, timer: manual reset; semaphore: greatest count
  std::atomic<uint32_t> orphaned;                   ///< mutex given up by the end of its thread
  alignas(8) std::atomic<int64_t> dueNs, periodNs;  ///< timer
  uint64_t sectionSize;                             ///< section: bytes of data
  pthread_mutex_t mutex;
};

struct StorageRequest;
class StorageReference;

/// An object's state in this process, named or not. It lives while it has users: objects behind handles, and a thread
/// that still owns the mutex when the last of them goes. With the last user of a named one this process no longer holds
/// the object.
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
  Scope scope() const { return descriptor_ < 0 ? Scope::kProcess : Scope::kShared; }
  /// The object's file, this storage's own; -1 for one of this process alone.
  int descriptor() const { return descriptor_; }
  void AddUser() { users_.fetch_add(1, std::memory_order_relaxed); }
  void DropUser();
  /// For the end of the thread that owns the mutex, which has no handle to hold on to: makes it a user.
  void KeepForOwner();

  /// Ownership of the mutex by a thread of this process; written by that thread alone.
  struct Ownership {
    std::atomic<const void*> thread{nullptr};
    uint32_t depth = 0;
    bool keeps = false;  ///< the owner is a user: the last handle was closed while it owned the mutex
    Storage *previous = nullptr, *next = nullptr;
  } ownership;

 private:
  friend class ObjectNamespace;
  friend Storage* AdoptInherited(int descriptor, Kind kind);
  ~Storage();

  std::atomic<uint32_t> users_{1};
  int descriptor_ = -1;
  ObjectState* state_ = nullptr;  // a mapping when there is a descriptor, else own_
  ObjectState own_{};
  // The rest belongs to the name space.
  bool named_ = false;
  uint32_t number_ = kNoNumber;  // this process's among those at the file
  uint32_t parkedSince_ = 0;
  int64_t lookedAtNs_ = 0;  // when the file was last known to have its name
  uint64_t key_[3] = {};
  Storage* nextInBucket_ = nullptr;
};

/// One user of a storage.
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
    if (storage_) storage_->DropUser();
  }
  Storage* get() const { return storage_; }
  Storage* operator->() const { return storage_; }
  explicit operator bool() const { return storage_ != nullptr; }

 private:
  Storage* storage_ = nullptr;
};

/// What is wanted, and what a new object starts with; one that exists already stays as it is.
struct StorageRequest {
  Kind kind;
  uint32_t word = 0;
  uint32_t parameter = 0;
  bool owned = false;        ///< mutex: the calling thread has it before anyone else can
  bool inheritable = false;  ///< unnamed: in memory that a child can be given
  uint64_t sectionSize = 0;  ///< section: bytes of data, all reserved at once
};

/// Creates or joins. A name that is null or empty gives a new unnamed object. 0: made new. ERROR_ALREADY_EXISTS:
/// joined, `storage` is set as well. Else an error: of the name (see ParseObjectName), ERROR_INVALID_HANDLE for an
/// object of another kind, ERROR_COMMITMENT_LIMIT for a section that does not fit. A mutex of a well-formed name never
/// fails for want of shared memory: it becomes one of this process alone then.
DWORD CreateStorage(const wchar_t* name, const StorageRequest& request, StorageReference* storage);

/// Joins an object that exists. ERROR_FILE_NOT_FOUND when there is none, ERROR_INVALID_HANDLE for another kind,
/// ERROR_INVALID_PARAMETER for a name that is null or empty.
DWORD OpenStorage(const wchar_t* name, Kind kind, StorageReference* storage);

/// Takes over a descriptor of an unnamed inheritable object that another process made. Null when it is none of this
/// kind; the descriptor is left alone then.
Storage* AdoptInherited(int descriptor, Kind kind);

/// In a forked child everything named is forgotten, and its files are left alone.
extern const ForkedPart kNamespaceAtFork;

/// At the end of the process: gives up every hold and removes the files that nobody holds, and the folder with the
/// last of them. Named objects are of this process alone from then on.
void LeaveNamespace();

}  // namespace qel::layer
