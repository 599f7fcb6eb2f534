#include "qelibaselib/platform/linux/objects/object_storage.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/objects/block_reserve.h"
#include "qelibaselib/platform/linux/objects/mutex.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

// Tells this layout from any other that may meet it in the folder.
constexpr uint32_t kLayoutVersion = 2;
constexpr uint32_t kMark = 0x51454C00 ^ (kLayoutVersion << 16) ^ sizeof(SharedPage);

constinit BlockReserve<sizeof(Storage), kReservedMutexes> g_storageReserve;

}  // namespace

void InitialiseState(ObjectState& state, const StorageRequest& request) {
  state.kind = request.kind;
  state.word.store(request.word, std::memory_order_relaxed);
  state.parameter = request.parameter;
  state.orphaned.store(0, std::memory_order_relaxed);
  state.dueNs.store(kNever, std::memory_order_relaxed);
  state.periodNs.store(0, std::memory_order_relaxed);
  state.sectionSize = request.sectionSize;
  if (request.kind == Kind::kMutex) InitialiseMutex(state.mutex, request.owned);
}

void MarkValid(ObjectState& state) { state.mark.store(kMark, std::memory_order_release); }

bool IsValid(const ObjectState& state) { return state.mark.load(std::memory_order_acquire) == kMark; }

DWORD Reserve(int file, uint64_t sectionSize) {
  const auto bytes = static_cast<off_t>(kStateBytes + sectionSize);
  if (bytes < 0) return ERROR_COMMITMENT_LIMIT;
  int result;
  do {
    result = fallocate(file, 0, 0, bytes);
  } while (result != 0 && errno == EINTR);
  if (result == 0) return ERROR_SUCCESS;
  return sectionSize != 0 ? ERROR_COMMITMENT_LIMIT : ErrorFromErrno(errno);
}

ObjectState* MapState(int file) {
  void* place = mmap(nullptr, kStateBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  return place == MAP_FAILED ? nullptr : static_cast<ObjectState*>(place);
}

void* Storage::operator new(size_t, const std::nothrow_t&) noexcept { return g_storageReserve.Allocate(); }
void Storage::operator delete(void* block) noexcept { g_storageReserve.Free(block); }

Storage::~Storage() {
  if (descriptor_ < 0) return;
  if (state_) munmap(state_, kStateBytes);
  close(descriptor_);
}

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
  *out = StorageReference(storage);
  storage->descriptor_ = memfd_create("qel-object", MFD_CLOEXEC);
  if (storage->descriptor_ < 0) return ErrorFromErrno(errno);
  if (const DWORD error = Reserve(storage->descriptor_, request.sectionSize)) return error;
  storage->state_ = MapState(storage->descriptor_);
  if (!storage->state_) return ERROR_NOT_ENOUGH_MEMORY;
  InitialiseState(*storage->state_, request);
  MarkValid(*storage->state_);
  return ERROR_SUCCESS;
}

Storage* AdoptInherited(int descriptor, Kind kind) {
  struct stat status;
  const bool inMemory = fcntl(descriptor, F_GET_SEALS) >= 0;
  if (!inMemory || fstat(descriptor, &status) != 0 || status.st_size < off_t{kStateBytes}) return nullptr;
  ObjectState* state = MapState(descriptor);
  if (!state) return nullptr;
  auto* storage = IsValid(*state) && state->kind == kind ? new (std::nothrow) Storage : nullptr;
  if (!storage) {
    munmap(state, kStateBytes);
    return nullptr;
  }
  fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  storage->descriptor_ = descriptor;
  storage->state_ = state;
  return storage;
}

}  // namespace qel::layer
