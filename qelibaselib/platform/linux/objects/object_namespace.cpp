#include "qelibaselib/platform/linux/objects/object_namespace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "qelibaselib/platform/linux/base/coarse_clock.h"
#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/patient_mutex.h"
#include "qelibaselib/platform/linux/objects/object_locks.h"
#include "qelibaselib/platform/linux/objects/shared_folder.h"

namespace qel::layer {

/// The names of this process. One of it; everything in it stands under its lock.
class ObjectNamespace {
 public:
  DWORD Acquire(const ObjectKey& key, const StorageRequest& request, bool create, StorageReference* out);
  void DropReference(Storage* storage);
  StorageReference ShareForOwner(Storage* storage);
  void LeaveAll();
  PatientMutex& gate() { return gate_; }
  void ForgetInChild();

 private:
  static constexpr size_t kBuckets = 256;
  static constexpr size_t kMostParked = 16;

  Storage** FindLink(const ObjectKey& key);
  void Insert(Storage* storage, const ObjectKey& key);
  void Unlink(Storage* storage);
  void UnlinkAndFree(Storage* storage);

  static bool IsLost(Storage* storage);
  void Park(Storage* storage);
  void Unpark(const Storage* storage);
  void LeaveFileOf(Storage* storage);

  DWORD TakeUpKnown(Storage* known, const StorageRequest& request, bool create, StorageReference* out);
  DWORD AttachToFile(const ObjectKey& key, const StorageRequest& request, bool create, StorageReference* out);
  DWORD MakePrivateMutex(const ObjectKey& key, const StorageRequest& request, StorageReference* out);

  PatientMutex gate_;
  SharedFolder folder_;
  Storage* buckets_[kBuckets] = {};
  Storage* parked_[kMostParked] = {};
  uint32_t parkings_ = 0;
  bool left_ = false;
};

namespace {

constinit ObjectNamespace g_namespace;

constexpr int kMostStarts = 1000;

DWORD MakeUnnamed(const StorageRequest& request, StorageReference* out) {
  *out = StorageReference(Storage::NewPrivate(request));
  return *out ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
}

DWORD ErrorOf(const AttachResult& result) {
  if (result.outcome == AttachResult::Outcome::kJoined) return ERROR_ALREADY_EXISTS;
  return result.outcome == AttachResult::Outcome::kFileGone ? ERROR_BUSY : result.error;
}

}  // namespace

void Storage::DropReference() {
  uint32_t references = references_.load(std::memory_order_relaxed);
  while (references > 1)
    if (references_.compare_exchange_weak(references, references - 1, std::memory_order_release,
                                          std::memory_order_relaxed))
      return;
  g_namespace.DropReference(this);
}

StorageReference Storage::ShareForOwner() { return g_namespace.ShareForOwner(this); }

// Where the storage of this name is linked in, or would be.
Storage** ObjectNamespace::FindLink(const ObjectKey& key) {
  Storage** link = &buckets_[key.low % kBuckets];
  while (*link && (*link)->key_ != key) link = &(*link)->nextInBucket_;
  return link;
}

void ObjectNamespace::Insert(Storage* storage, const ObjectKey& key) {
  storage->nameState_ = NameState::kUsed;
  storage->key_ = key;
  *FindLink(key) = storage;
}

void ObjectNamespace::Unlink(Storage* storage) {
  *FindLink(storage->key_) = std::exchange(storage->nextInBucket_, nullptr);
  storage->nameState_ = NameState::kUnnamed;
}

void ObjectNamespace::UnlinkAndFree(Storage* storage) {
  Unlink(storage);
  delete storage;
}

// Asked only once in a few milliseconds, for the answer costs more than all the rest of taking up a parked object.
bool ObjectNamespace::IsLost(Storage* storage) {
  const int64_t now = CoarseNs();
  return std::exchange(storage->checkedNs_, now) != now && storage->attachment_.IsLost();
}

void ObjectNamespace::Unpark(const Storage* storage) {
  for (Storage*& parked : parked_)
    if (parked == storage) parked = nullptr;
}

void ObjectNamespace::LeaveFileOf(Storage* storage) {
  if (!left_) storage->attachment_.Leave(ObjectFilePlace(folder_, storage->key_));
}

void ObjectNamespace::Park(Storage* storage) {
  storage->nameState_ = NameState::kParked;
  storage->parkedSince_ = ++parkings_;
  Storage** oldest = &parked_[0];
  for (Storage*& parked : parked_) {
    if (!parked) {
      oldest = &parked;
      break;
    }
    if (parkings_ - parked->parkedSince_ > parkings_ - (*oldest)->parkedSince_) oldest = &parked;
  }
  if (Storage* evicted = std::exchange(*oldest, storage)) {
    LeaveFileOf(evicted);
    UnlinkAndFree(evicted);
  }
}

DWORD ObjectNamespace::Acquire(const ObjectKey& key, const StorageRequest& request, bool create,
                               StorageReference* out) {
  const PatientLock lock(gate_);
  // A mutex is always to be had: here one that nobody else knows.
  if (!lock) return create && request.kind == Kind::kMutex ? MakeUnnamed(request, out) : ERROR_BUSY;
  if (Storage* known = *FindLink(key)) {
    const DWORD result = TakeUpKnown(known, request, create, out);
    if (*out || result != ERROR_BUSY) return result;
  }
  const DWORD result = left_ ? ERROR_NOT_SUPPORTED : AttachToFile(key, request, create, out);
  if (*out || !create || request.kind != Kind::kMutex || result == ERROR_INVALID_HANDLE) return result;
  return MakePrivateMutex(key, request, out);
}

// ERROR_BUSY: the name leads elsewhere by now, and the storage has lost it.
DWORD ObjectNamespace::TakeUpKnown(Storage* known, const StorageRequest& request, bool create, StorageReference* out) {
  if (known->nameState_ == NameState::kUsed) {
    if (known->state_->kind != request.kind) return ERROR_INVALID_HANDLE;
    known->AddReference();
    *out = StorageReference(known);
    return ERROR_ALREADY_EXISTS;
  }
  AttachResult result = {AttachResult::Outcome::kFileGone};
  if (!left_ && !IsLost(known))
    result = known->attachment_.TakeUpObject(ObjectFilePlace(folder_, known->key_), request, create);
  if (result.error == ERROR_FILE_NOT_FOUND || result.error == ERROR_INVALID_HANDLE) return result.error;
  Unpark(known);
  if (result.IsObject()) {
    known->nameState_ = NameState::kUsed;
    known->AddReference();
    *out = StorageReference(known);
    return ErrorOf(result);
  }
  if (known->IsOwned()) {
    Unlink(known);  // its owner's end frees it
  } else {
    LeaveFileOf(known);
    UnlinkAndFree(known);
  }
  return ERROR_BUSY;
}

DWORD ObjectNamespace::AttachToFile(const ObjectKey& key, const StorageRequest& request, bool create,
                                    StorageReference* out) {
  const ObjectFilePlace place(folder_, key);
  AttachResult result = {AttachResult::Outcome::kFileGone};
  for (int start = 0; start < kMostStarts && result.outcome == AttachResult::Outcome::kFileGone; ++start) {
    DWORD error = ERROR_SUCCESS;
    Descriptor file(place.OpenFile(create, &error));
    if (file.get() < 0) return error;
    auto* storage = new (std::nothrow) Storage;
    if (!storage) return ERROR_NOT_ENOUGH_MEMORY;
    storage->attachment_.TakeDescriptor(file.Detach());
    result = storage->attachment_.Attach(place, request, create);
    if (result.IsObject()) {
      storage->state_ = &storage->attachment_.state();
      Insert(storage, key);
      *out = StorageReference(storage);
    } else {
      delete storage;
    }
  }
  return ErrorOf(result);
}

DWORD ObjectNamespace::MakePrivateMutex(const ObjectKey& key, const StorageRequest& request, StorageReference* out) {
  Storage* local = Storage::NewPrivate(request);
  if (!local) return ERROR_NOT_ENOUGH_MEMORY;
  Insert(local, key);
  *out = StorageReference(local);
  return ERROR_SUCCESS;
}

// What nobody has named belongs to this reference alone.
void ObjectNamespace::DropReference(Storage* storage) {
  const PatientLock lock(gate_);
  if (!lock && storage->nameState_ != NameState::kUnnamed) return;
  if (storage->references_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  const bool hasFile = storage->descriptor() >= 0;
  if (storage->nameState_ != NameState::kUnnamed && (!hasFile || left_)) Unlink(storage);
  if (storage->nameState_ == NameState::kUnnamed) {
    if (!storage->IsOwned()) delete storage;
    return;
  }
  const bool isMutex = storage->state_->kind == Kind::kMutex;
  if (isMutex && !IsLost(storage)) {
    storage->attachment_.GiveUpObject();
    storage->nameState_ = NameState::kOwnerOnly;
    if (!storage->IsOwned()) Park(storage);
  } else if (storage->IsOwned()) {
    Unlink(storage);
  } else {
    LeaveFileOf(storage);
    UnlinkAndFree(storage);
  }
}

StorageReference ObjectNamespace::ShareForOwner(Storage* storage) {
  const PatientLock lock(gate_);
  storage->AddReference();
  return StorageReference(storage);
}

void ObjectNamespace::LeaveAll() {
  const PatientLock lock(gate_);
  if (!lock) return;
  for (Storage* storage : buckets_)
    for (; storage; storage = storage->nextInBucket_)
      // Mappings stay, and what another thread is still inside of: the end of the process gives that up.
      if (storage->descriptor() >= 0 && !storage->IsOwned()) LeaveFileOf(storage);
  left_ = true;
  folder_.RemoveUnheldFilesAndFolder();
}

// Locks belong to the description that the child shares with its parent, so nothing of it may be given up here. The
// mappings stay, for handles that the child closes.
void ObjectNamespace::ForgetInChild() {
  for (Storage*& bucket : buckets_) {
    for (Storage* storage = std::exchange(bucket, nullptr); storage;) {
      Storage* const next = std::exchange(storage->nextInBucket_, nullptr);
      storage->nameState_ = NameState::kUnnamed;
      storage->ownership.thread.store(nullptr);  // a thread of the parent's
      if (storage->references_.load(std::memory_order_relaxed) == 0) delete storage;
      storage = next;
    }
  }
  for (Storage*& parked : parked_) parked = nullptr;
  folder_.Forget();
}

namespace {
bool IsNameEmpty(const wchar_t* name) { return !name || !*name; }
}  // namespace

DWORD CreateStorage(const wchar_t* name, const StorageRequest& request, StorageReference* storage) {
  if (IsNameEmpty(name)) {
    if (request.inheritable || request.kind == Kind::kMapping) return Storage::NewInheritable(request, storage);
    return MakeUnnamed(request, storage);
  }
  ObjectKey key;
  if (const DWORD error = ParseObjectName(name, &key)) return error;
  return g_namespace.Acquire(key, request, true, storage);
}

DWORD OpenStorage(const wchar_t* name, Kind kind, StorageReference* storage) {
  if (IsNameEmpty(name)) return name ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER;
  ObjectKey key;
  if (const DWORD error = ParseObjectName(name, &key)) return error;
  const DWORD result = g_namespace.Acquire(key, {.kind = kind}, false, storage);
  return result == ERROR_ALREADY_EXISTS ? ERROR_SUCCESS : result;
}

const ForkedPart kNamespaceAtFork = {[] { g_namespace.gate().LockBeforeFork(); },
                                     [](bool inChild) {
                                       if (inChild) g_namespace.ForgetInChild();
                                       g_namespace.gate().UnlockAfterFork(inChild);
                                     }};

void LeaveNamespace() { g_namespace.LeaveAll(); }

}  // namespace qel::layer
