#include "qelibaselib/platform/linux/objects/object_namespace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <mutex>
#include <new>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/objects/object_locks.h"
#include "qelibaselib/platform/linux/objects/object_name.h"
#include "qelibaselib/platform/linux/objects/object_storage.h"
#include "qelibaselib/platform/linux/objects/shared_folder.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr DWORD kStartOver = ~0ul;  // the file was removed meanwhile
constexpr int kMostStarts = 1000;
constexpr int64_t kMakerLimitNs = 10 * kNsPerSecond;  // a maker that was stopped must not stop everybody
constexpr useconds_t kMakerPauseUs = 20;

bool IsObject(DWORD result) { return result == ERROR_SUCCESS || result == ERROR_ALREADY_EXISTS; }

// Moves on every few milliseconds.
int64_t CoarseNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

}  // namespace

/// The names of this process. One of it; everything in it stands under its lock.
class ObjectNamespace {
 public:
  DWORD Acquire(const ObjectKey& key, const StorageRequest& request, bool create, StorageReference* out);
  void DropLast(Storage* storage);
  void KeepForOwner(Storage* storage);
  void LeaveAll();
  void Lock() { gate_.lock(); }
  void Unlock() { gate_.unlock(); }
  void ForgetInChild();

 private:
  static constexpr size_t kBuckets = 256;
  static constexpr size_t kMostParked = 16;

  static ObjectKey KeyOf(const Storage* storage);
  Storage** Place(const ObjectKey& key);
  void Insert(Storage* storage, const ObjectKey& key);
  void Remove(Storage* storage);
  static ObjectUsers& UsersOf(Storage* storage) { return reinterpret_cast<SharedPage*>(storage->state_)->users; }
  static bool HasLostName(Storage* storage);
  void Unpark(const Storage* storage);
  void Park(Storage* storage);
  void Leave(Storage* storage, const ObjectKey& key);

  DWORD OpenFile(const ObjectKey& key, const StorageRequest& request, bool create, StorageReference* out);
  int OpenDescriptor(const ObjectKey& key, bool create, DWORD* error);
  DWORD Attach(Storage* storage, const ObjectKey& key, const StorageRequest& request, bool create);
  DWORD Make(Storage* storage, const ObjectKey& key, const StorageRequest& request, bool create);
  DWORD Map(Storage* storage);
  DWORD Enter(Storage* storage, const ObjectKey& key, const StorageRequest& request, bool create);
  void Unlink(int file, const ObjectKey& key);

  std::mutex gate_;
  SharedFolder folder_;
  Storage* buckets_[kBuckets] = {};
  // Storage of closed mutexes, which this process is no user of: the next creation of the name has nothing to ask the
  // system for.
  Storage* parked_[kMostParked] = {};
  uint32_t parkings_ = 0;
  bool left_ = false;
};

namespace {
constinit ObjectNamespace g_namespace;
}

void Storage::DropUser() {
  uint32_t users = users_.load(std::memory_order_relaxed);
  while (users > 1)
    if (users_.compare_exchange_weak(users, users - 1, std::memory_order_release, std::memory_order_relaxed)) return;
  g_namespace.DropLast(this);
}

void Storage::KeepForOwner() { g_namespace.KeepForOwner(this); }

ObjectKey ObjectNamespace::KeyOf(const Storage* storage) {
  return {storage->key_[0], storage->key_[1], static_cast<uint32_t>(storage->key_[2]),
          static_cast<uid_t>(storage->key_[2] >> 32)};
}

// Where the storage of this name is linked in, or would be.
Storage** ObjectNamespace::Place(const ObjectKey& key) {
  Storage** place = &buckets_[key.low % kBuckets];
  while (*place && KeyOf(*place) != key) place = &(*place)->nextInBucket_;
  return place;
}

void ObjectNamespace::Insert(Storage* storage, const ObjectKey& key) {
  storage->named_ = true;
  storage->key_[0] = key.low;
  storage->key_[1] = key.high;
  storage->key_[2] = key.session | static_cast<uint64_t>(key.user) << 32;
  *Place(key) = storage;
}

// Takes the name out of the table and frees the storage.
void ObjectNamespace::Remove(Storage* storage) {
  Storage** place = Place(KeyOf(storage));
  *place = storage->nextInBucket_;
  delete storage;
}

// Whether somebody has removed the file behind the back of those who use it: nobody else finds the object there then.
// Asked only so often, for the answer costs more than all the rest of taking up a parked object.
bool ObjectNamespace::HasLostName(Storage* storage) {
  const int64_t now = CoarseNs();
  if (std::exchange(storage->lookedAtNs_, now) == now) return false;
  struct stat status;
  return fstat(storage->descriptor_, &status) != 0 || status.st_nlink == 0;
}

void ObjectNamespace::Unpark(const Storage* storage) {
  for (Storage*& parked : parked_)
    if (parked == storage) parked = nullptr;
}

// The object is gone for this process; others see that at once.
void ObjectNamespace::Park(Storage* storage) {
  UsersOf(storage).Remove(storage->number_);
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
    Leave(evicted, KeyOf(evicted));
    Remove(evicted);
  }
}

// First no user, then not at the file: the number may be another process's as soon as its byte is not locked.
void ObjectNamespace::Leave(Storage* storage, const ObjectKey& key) {
  if (storage->number_ != kNoNumber) UsersOf(storage).Remove(std::exchange(storage->number_, kNoNumber));
  char fileName[kObjectFileNameSize];
  FormatObjectFileName(key, fileName);
  DWORD ignored;
  LeaveFile(folder_.Open(key.user, &ignored), storage->descriptor_, fileName);
}

void ObjectNamespace::Unlink(int file, const ObjectKey& key) {
  char fileName[kObjectFileNameSize];
  FormatObjectFileName(key, fileName);
  DWORD ignored;
  UnlinkFile(folder_.Open(key.user, &ignored), file, fileName);
}

DWORD ObjectNamespace::Acquire(const ObjectKey& key, const StorageRequest& request, bool create,
                               StorageReference* out) {
  const std::lock_guard lock(gate_);
  if (Storage* known = *Place(key)) {
    if (known->users_.load(std::memory_order_relaxed) != 0) {
      if (known->state_->kind != request.kind) return ERROR_INVALID_HANDLE;
      known->AddUser();
      *out = StorageReference(known);
      return ERROR_ALREADY_EXISTS;
    }
    const DWORD result = left_ || HasLostName(known) ? kStartOver : Enter(known, key, request, create);
    if (result == ERROR_FILE_NOT_FOUND || result == ERROR_INVALID_HANDLE) return result;
    Unpark(known);
    if (IsObject(result)) {
      known->users_.store(1, std::memory_order_relaxed);
      *out = StorageReference(known);
      return result;
    }
    if (!left_) Leave(known, key);
    Remove(known);
  }
  const DWORD result = left_ ? ERROR_NOT_SUPPORTED : OpenFile(key, request, create, out);
  if (*out) {
    Insert(out->get(), key);
    return result;
  }
  if (!create || request.kind != Kind::kMutex || result == ERROR_INVALID_HANDLE) return result;
  Storage* local = Storage::NewPrivate(request);
  if (!local) return ERROR_NOT_ENOUGH_MEMORY;
  Insert(local, key);
  *out = StorageReference(local);
  return ERROR_SUCCESS;
}

int ObjectNamespace::OpenDescriptor(const ObjectKey& key, bool create, DWORD* error) {
  char fileName[kObjectFileNameSize];
  FormatObjectFileName(key, fileName);
  for (int start = 0; start < kMostStarts; ++start) {
    const int folder = folder_.Open(key.user, error);
    if (folder < 0) return -1;
    const int file = openat(folder, fileName, O_RDWR | O_CLOEXEC | O_NOFOLLOW | (create ? O_CREAT : 0), 0600);
    if (file >= 0 && IsOwnFile(file, key.user)) return file;
    *error = file >= 0 ? ERROR_ACCESS_DENIED : ErrorFromErrno(errno);
    if (file >= 0) close(file);
    // Only a removed folder is worth another look.
    if (*error != ERROR_FILE_NOT_FOUND || !folder_.ForgetIfRemoved()) return -1;
  }
  return -1;
}

DWORD ObjectNamespace::OpenFile(const ObjectKey& key, const StorageRequest& request, bool create,
                                StorageReference* out) {
  DWORD result = kStartOver;
  for (int start = 0; start < kMostStarts && result == kStartOver; ++start) {
    DWORD error = ERROR_SUCCESS;
    const int file = OpenDescriptor(key, create, &error);
    if (file < 0) return error;
    auto* storage = new (std::nothrow) Storage;
    if (!storage) {
      close(file);
      return ERROR_NOT_ENOUGH_MEMORY;
    }
    storage->descriptor_ = file;
    result = Attach(storage, key, request, create);
    if (IsObject(result))
      *out = StorageReference(storage);
    else
      delete storage;
  }
  return result == kStartOver ? ERROR_BUSY : result;
}

// Stays at the storage's file, as its maker or beside others, and becomes a user of the object. With any other result
// the file has been left.
DWORD ObjectNamespace::Attach(Storage* storage, const ObjectKey& key, const StorageRequest& request, bool create) {
  const int file = storage->descriptor_;
  int64_t limit = 0;
  for (;;) {
    if (TryHoldExclusive(file)) return Make(storage, key, request, create);
    if (HolderOf(file) == FileHolder::kUser && TryHoldShared(file)) break;
    const int64_t now = MonotonicNs();
    if (limit == 0) limit = now + kMakerLimitNs;
    if (now > limit) return ERROR_BUSY;
    usleep(kMakerPauseUs);
  }
  DWORD result = Map(storage);
  if (result == ERROR_SUCCESS) result = Enter(storage, key, request, create);
  if (!IsObject(result)) Leave(storage, key);
  return result;
}

// Nobody is at the file: makes the object in it and becomes its first user.
DWORD ObjectNamespace::Make(Storage* storage, const ObjectKey& key, const StorageRequest& request, bool create) {
  const int file = storage->descriptor_;
  struct stat status;
  DWORD result = ERROR_SUCCESS;
  if (fstat(file, &status) != 0 || status.st_nlink == 0) {
    result = kStartOver;
  } else if (!create) {
    Unlink(file, key);
    result = ERROR_FILE_NOT_FOUND;
  } else if (status.st_size > off_t{kStateBytes} || (status.st_size != 0 && request.kind == Kind::kMapping)) {
    // A section's memory may still be seen by a view whose handle was closed: it is never used again.
    Unlink(file, key);
    result = kStartOver;
  } else {
    if (status.st_size < off_t{kStateBytes} + static_cast<off_t>(request.sectionSize))
      result = Reserve(file, request.sectionSize);
    if (result == ERROR_SUCCESS && !(storage->state_ = MapState(file))) result = ERROR_NOT_ENOUGH_MEMORY;
    if (result != ERROR_SUCCESS) Unlink(file, key);
  }
  if (result == ERROR_SUCCESS) {
    storage->state_->mark.store(0, std::memory_order_relaxed);
    UsersOf(storage).Initialise();
    InitialiseState(*storage->state_, request);
    MarkValid(*storage->state_);
    ObjectGate gate(UsersOf(storage), file, &storage->number_);
    if (gate.Entered())
      gate.Add();
    else
      result = ERROR_BUSY;
  }
  if (result == ERROR_SUCCESS)
    TryHoldShared(file);  // lowers the lock in one step
  else
    DropHolds(file);
  return result;
}

// The shared lock is held, beside that of somebody who is or was at the file when that was asked for.
DWORD ObjectNamespace::Map(Storage* storage) {
  struct stat status;
  if (fstat(storage->descriptor_, &status) != 0 || status.st_nlink == 0) return kStartOver;
  if (status.st_size < off_t{kStateBytes}) return ERROR_INVALID_DATA;
  storage->state_ = MapState(storage->descriptor_);
  if (!storage->state_) return ERROR_NOT_ENOUGH_MEMORY;
  return IsValid(*storage->state_) ? ERROR_SUCCESS : ERROR_INVALID_DATA;
}

// Becomes a user of the object, beside others or as the one who makes it anew in the file.
DWORD ObjectNamespace::Enter(Storage* storage, const ObjectKey& key, const StorageRequest& request, bool create) {
  const int file = storage->descriptor_;
  ObjectState& state = *storage->state_;
  ObjectGate gate(UsersOf(storage), file, &storage->number_);
  if (!gate.Entered()) return ERROR_BUSY;
  if (gate.Retired()) {
    Unlink(file, key);  // again: whoever retired it may have been killed before
    return kStartOver;
  }
  if (gate.AnyOther()) {
    if (state.kind != request.kind) return ERROR_INVALID_HANDLE;
    gate.Add();
    return ERROR_ALREADY_EXISTS;
  }
  if (!create) return ERROR_FILE_NOT_FOUND;
  if (state.kind == Kind::kMapping || request.kind == Kind::kMapping) {
    gate.Retire();  // a section has memory of its own, see Make
    Unlink(file, key);
    return kStartOver;
  }
  InitialiseState(state, request);
  gate.Add();
  return ERROR_SUCCESS;
}

void ObjectNamespace::DropLast(Storage* storage) {
  const std::lock_guard lock(gate_);
  if (storage->users_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  if (storage->ownership.thread.load(std::memory_order_relaxed)) {
    // Its owner is not inside a call of it, or it would be a user through its handle.
    storage->ownership.keeps = true;
    storage->users_.store(1, std::memory_order_relaxed);
  } else if (!storage->named_) {
    delete storage;
  } else if (storage->descriptor_ < 0) {
    Remove(storage);
  } else if (storage->state_->kind == Kind::kMutex && !left_) {
    Park(storage);
  } else {
    if (!left_) Leave(storage, KeyOf(storage));
    Remove(storage);
  }
}

void ObjectNamespace::KeepForOwner(Storage* storage) {
  const std::lock_guard lock(gate_);
  if (!std::exchange(storage->ownership.keeps, true)) storage->AddUser();
}

void ObjectNamespace::LeaveAll() {
  const std::lock_guard lock(gate_);
  left_ = true;
  for (Storage* storage : buckets_)
    for (; storage; storage = storage->nextInBucket_)
      // Mappings stay, and what another thread is still inside of: the end of the process gives that up.
      if (storage->descriptor_ >= 0 && !storage->ownership.thread.load()) Leave(storage, KeyOf(storage));
  if (folder_.descriptor() >= 0) RemoveUnheldFiles(folder_.descriptor());
  folder_.RemoveIfEmpty();
  folder_.Forget();
}

// Locks belong to the description that the child shares with its parent, so nothing of it may be given up here. The
// mappings stay, for handles that the child closes.
void ObjectNamespace::ForgetInChild() {
  for (Storage*& bucket : buckets_) {
    for (Storage* storage = std::exchange(bucket, nullptr); storage; storage = storage->nextInBucket_) {
      storage->named_ = false;
      storage->ownership.thread.store(nullptr);  // a thread of the parent's
    }
  }
  for (Storage*& parked : parked_) delete std::exchange(parked, nullptr);
  folder_.Forget();
}

namespace {
bool IsEmpty(const wchar_t* name) { return !name || !*name; }
}  // namespace

DWORD CreateStorage(const wchar_t* name, const StorageRequest& request, StorageReference* storage) {
  if (IsEmpty(name)) {
    if (request.inheritable || request.kind == Kind::kMapping) return Storage::NewInheritable(request, storage);
    *storage = StorageReference(Storage::NewPrivate(request));
    return *storage ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
  }
  ObjectKey key;
  if (const DWORD error = ParseObjectName(name, &key)) return error;
  return g_namespace.Acquire(key, request, true, storage);
}

DWORD OpenStorage(const wchar_t* name, Kind kind, StorageReference* storage) {
  if (IsEmpty(name)) return ERROR_INVALID_PARAMETER;
  ObjectKey key;
  if (const DWORD error = ParseObjectName(name, &key)) return error;
  const DWORD result = g_namespace.Acquire(key, {.kind = kind}, false, storage);
  return result == ERROR_ALREADY_EXISTS ? ERROR_SUCCESS : result;
}

const ForkedPart kNamespaceAtFork = {[] { g_namespace.Lock(); },
                                     [](bool inChild) {
                                       if (inChild) g_namespace.ForgetInChild();
                                       g_namespace.Unlock();
                                     }};

void LeaveNamespace() { g_namespace.LeaveAll(); }

}  // namespace qel::layer
