// The kernel locks pages in memory, but does not say which are locked. VirtualUnlock must refuse pages that are not, so
// the locked ranges are remembered here. Locks do not nest, as on Windows: one unlock undoes any number of locks.
#include "qelibaselib/platform/linux/memory/page_locks.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/memory/page_set.h"
#include "qelibaselib/platform/linux/memory/virtual_query.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constinit std::mutex g_mutex;
constinit std::atomic<bool> g_anyLocks{false};

PageSet& LockedPages() {
  static auto* pages = new PageSet;  // outlives every static destructor
  return *pages;
}

// Not through the C library: under a sanitizer its calls do nothing.
bool LockPages(uintptr_t start, uint64_t end) {
  return syscall(SYS_mlock, start, static_cast<size_t>(end - start)) == 0;
}
void UnlockPages(uintptr_t start, uint64_t end) { syscall(SYS_munlock, start, static_cast<size_t>(end - start)); }

bool IsValid(SIZE_T size, const PageRange& pages) { return size != 0 && pages.IsInAddressSpace(); }

bool AreAllAccessible(const PageRange& pages) {
  return VisitRegions(pages, [](const AddressRegion& region) -> DWORD {
           return region.state != MEM_COMMIT || region.protect == PAGE_NOACCESS ? ERROR_NOACCESS : ERROR_SUCCESS;
         }) == ERROR_SUCCESS;
}

// A lock that failed may have locked a part. Those pages of it that were locked before stay so.
void UndoLock(const PageRange& pages) {
  UnlockPages(pages.start, pages.end);
  const std::lock_guard lock(g_mutex);
  LockedPages().Within(pages.start, pages.end).ForEach([](uintptr_t start, uint64_t end) { LockPages(start, end); });
}

DWORD LockInMemory(LPVOID address, SIZE_T size) try {
  const PageRange pages = PagesHolding(address, size);
  if (!IsValid(size, pages)) return ERROR_INVALID_PARAMETER;
  if (!LockPages(pages.start, pages.end)) {
    // One error number for pages that are not there, for those that cannot be read and for the limit.
    const int error = errno;
    UndoLock(pages);
    if (!AreAllAccessible(pages)) return ERROR_NOACCESS;
    return error == ENOMEM || error == EPERM ? ERROR_WORKING_SET_QUOTA : ErrorFromErrno(error);
  }
  const std::lock_guard lock(g_mutex);
  LockedPages().Add(pages.start, pages.end);
  g_anyLocks.store(true, std::memory_order_relaxed);
  return ERROR_SUCCESS;
} catch (const std::bad_alloc&) {  // the pages may stay locked, which the end of their block undoes
  return ERROR_NOT_ENOUGH_MEMORY;
}

DWORD UnlockFromMemory(LPVOID address, SIZE_T size) try {
  const PageRange pages = PagesHolding(address, size);
  if (!IsValid(size, pages)) return ERROR_INVALID_PARAMETER;
  const std::lock_guard lock(g_mutex);
  if (!LockedPages().Contains(pages.start, pages.end)) return ERROR_NOT_LOCKED;
  LockedPages().Remove(pages.start, pages.end);
  UnlockPages(pages.start, pages.end);
  return ERROR_SUCCESS;
} catch (const std::bad_alloc&) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

}  // namespace

// A forked child inherits no memory locks.
const ForkedPart kPageLocksAtFork = {[] { g_mutex.lock(); },
                                     [](bool inChild) {
                                       if (inChild && g_anyLocks.load()) LockedPages() = PageSet();
                                       g_mutex.unlock();
                                     }};

void ForgetLocks(uintptr_t start, uint64_t bytes) {
  if (!g_anyLocks.load(std::memory_order_relaxed)) return;
  const std::lock_guard lock(g_mutex);
  try {
    LockedPages().Remove(start, start + bytes);
  } catch (const std::bad_alloc&) {
    // Only a piece in the middle of a longer range needs memory; it stays listed and can be unlocked once more.
  }
}

}  // namespace qel::layer

BOOL VirtualLock(LPVOID address, SIZE_T size) {
  return qel::layer::ReportResult(qel::layer::LockInMemory(address, size));
}
BOOL VirtualUnlock(LPVOID address, SIZE_T size) {
  return qel::layer::ReportResult(qel::layer::UnlockFromMemory(address, size));
}
