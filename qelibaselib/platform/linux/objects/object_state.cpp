#include "qelibaselib/platform/linux/objects/object_state.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <cerrno>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/file_size_limit.h"
#include "qelibaselib/platform/linux/base/retry_on_interrupt.h"
#include "qelibaselib/platform/linux/objects/robust_mutex.h"

namespace qel::layer {
namespace {

// Tells this layout from any other that may meet it in the folder.
constexpr uint32_t kLayoutVersion = 3;
constexpr uint32_t kMark = 0x51454C00 ^ (kLayoutVersion << 16) ^ sizeof(SharedPage);

// Growing a file beyond this limit is answered with a signal that ends the process.
bool IsWithinFileSizeLimit(off_t bytes) {
  rlimit limit;
  return getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur >= static_cast<rlim_t>(bytes);
}

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

DWORD ReserveStateAndSection(int file, uint64_t sectionSize) {
  const auto bytes = static_cast<off_t>(kSharedPageBytes + sectionSize);
  if (bytes < 0) return ERROR_COMMITMENT_LIMIT;
  if (!IsWithinFileSizeLimit(bytes)) return sectionSize != 0 ? ERROR_COMMITMENT_LIMIT : ERROR_DISK_FULL;
  const FileGrowth growth;
  if (RetryOnInterrupt([&] { return fallocate(file, 0, 0, bytes); }) == 0) return ERROR_SUCCESS;
  return sectionSize != 0 ? ERROR_COMMITMENT_LIMIT : ErrorFromErrno(errno);
}

ObjectState* MapState(int file) {
  void* place = mmap(nullptr, kSharedPageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  return place == MAP_FAILED ? nullptr : static_cast<ObjectState*>(place);
}

void UnmapState(ObjectState* state) { munmap(state, kSharedPageBytes); }

}  // namespace qel::layer
