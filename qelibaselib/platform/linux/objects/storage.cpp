#include "qelibaselib/platform/linux/objects/storage.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/objects/block_reserve.h"

namespace qel::layer {
namespace {
constinit BlockReserve<sizeof(Storage), kReservedMutexes> g_storageReserve;
}

void* Storage::operator new(size_t, const std::nothrow_t&) noexcept { return g_storageReserve.Allocate(); }
void Storage::operator delete(void* block) noexcept { g_storageReserve.Free(block); }

Storage* Storage::NewPrivate(const StorageRequest& request) {
  auto* storage = new (std::nothrow) Storage;
  if (!storage) return nullptr;
  storage->state_ = &storage->own_;
  InitialiseState(storage->own_, request);
  return storage;
}

DWORD Storage::NewInheritable(const StorageRequest& request, StorageReference* out) {
  auto* storage = new (std::nothrow) Storage;
  if (!storage) return ERROR_NOT_ENOUGH_MEMORY;
  StorageReference made(storage);  // the caller's once it is whole: a storage without a state is no object
  storage->isInheritable_ = request.inheritable;
  storage->attachment_.TakeDescriptor(memfd_create("qel-object", MFD_CLOEXEC));
  if (storage->descriptor() < 0) return ErrorFromErrno(errno);
  if (const DWORD error = ReserveStateAndSection(storage->descriptor(), request.sectionSize)) return error;
  storage->state_ = MapState(storage->descriptor());
  if (!storage->state_) return ERROR_NOT_ENOUGH_MEMORY;
  storage->attachment_.SetState(storage->state_);
  InitialiseState(*storage->state_, request);
  MarkValid(*storage->state_);
  *out = std::move(made);
  return ERROR_SUCCESS;
}

Storage* AdoptInherited(int descriptor, Kind kind) {
  struct stat status;
  const bool inMemory = fcntl(descriptor, F_GET_SEALS) >= 0;
  if (!inMemory || fstat(descriptor, &status) != 0 || status.st_size < off_t{kSharedPageBytes}) return nullptr;
  ObjectState* state = MapState(descriptor);
  if (!state) return nullptr;
  auto* storage = IsValid(*state) && state->kind == kind ? new (std::nothrow) Storage : nullptr;
  if (!storage) {
    UnmapState(state);
    return nullptr;
  }
  fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  storage->attachment_.TakeDescriptor(descriptor);
  storage->attachment_.SetState(state);
  storage->state_ = state;
  return storage;
}

}  // namespace qel::layer
