#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/objects/waitable.h"
#include "qelibaselib/platform/linux/win32/synchapi.h"

namespace qel::layer {
namespace {

// The word is the count.
class SemaphoreObject final : public StoredObject {
 public:
  explicit SemaphoreObject(StorageReference storage) : StoredObject(Kind::kSemaphore, std::move(storage)) {}

  Taken TryTake() override {
    uint32_t count = word().load();
    while (count != 0)
      if (word().compare_exchange_weak(count, count - 1)) return Taken::kYes;
    return Taken::kNo;
  }
  bool IsReady() override { return word().load() != 0; }
  void PutBack(Taken) override { Add(1, nullptr); }

  // False when the count would pass its greatest value.
  bool Add(uint32_t added, LONG* previous) {
    uint32_t count = word().load();
    do {
      if (added > state().parameter - count) return false;
    } while (!word().compare_exchange_weak(count, count + added));
    WakeWaitsFor(word(), scope());
    if (previous) *previous = static_cast<LONG>(count);
    return true;
  }
};

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

HANDLE CreateSemaphoreW(LPSECURITY_ATTRIBUTES, LONG initialCount, LONG maximumCount, LPCWSTR name) {
  if (initialCount < 0 || maximumCount <= 0 || initialCount > maximumCount) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  return CreateStored<SemaphoreObject>(name, {.kind = Kind::kSemaphore,
                                              .word = static_cast<uint32_t>(initialCount),
                                              .parameter = static_cast<uint32_t>(maximumCount)});
}

BOOL ReleaseSemaphore(HANDLE handle, LONG releaseCount, LPLONG previousCount) {
  const Pin pin(handle);
  auto* semaphore = pin.As<SemaphoreObject>(Kind::kSemaphore);
  if (!semaphore) return ReportResult(ERROR_INVALID_HANDLE);
  if (releaseCount <= 0) return ReportResult(ERROR_INVALID_PARAMETER);
  const bool added = semaphore->Add(static_cast<uint32_t>(releaseCount), previousCount);
  return ReportResult(added ? ERROR_SUCCESS : ERROR_TOO_MANY_POSTS);
}
