// VirtualProtect. The system would let a view become all that its descriptor allows, so the table of regions is asked
// first: pages of a view never allow more than the view did when it was mapped.
#include "qelibaselib/platform/linux/memory/page_protection.h"

#include <sys/mman.h>

#include <cerrno>
#include <new>
#include <utility>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/memory/page_locks.h"
#include "qelibaselib/platform/linux/memory/view_table.h"
#include "qelibaselib/platform/linux/memory/virtual_query.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"

namespace qel::layer {

int PrivateProtection(DWORD protection) {
  switch (protection) {
    case PAGE_NOACCESS:
      return PROT_NONE;
    case PAGE_READONLY:
      return PROT_READ;
    case PAGE_READWRITE:
      return PROT_READ | PROT_WRITE;
    case PAGE_EXECUTE:
      return PROT_EXEC;
    case PAGE_EXECUTE_READ:
      return PROT_READ | PROT_EXEC;
    case PAGE_EXECUTE_READWRITE:
      return PROT_READ | PROT_WRITE | PROT_EXEC;
    default:
      return -1;
  }
}

namespace {

int SystemProtection(DWORD protection) {
  if (protection == PAGE_WRITECOPY) return PROT_READ | PROT_WRITE;
  if (protection == PAGE_EXECUTE_WRITECOPY) return PROT_READ | PROT_WRITE | PROT_EXEC;
  return PrivateProtection(protection);
}

DWORD ErrorOfProtecting(int error) { return error == EACCES ? ERROR_INVALID_PARAMETER : ErrorFromErrno(error); }

DWORD SetProtection(const PageRange& pages, DWORD protection) {
  const bool isDone = mprotect(PointerTo(pages.start), pages.bytes(), SystemProtection(protection)) == 0;
  return isDone ? ERROR_SUCCESS : ErrorOfProtecting(errno);
}

// What a view that was mapped with one protection may become.
bool ViewAllows(DWORD mapped, DWORD wanted) {
  if (wanted == PAGE_NOACCESS) return true;
  if (wanted == PAGE_READWRITE) return mapped == PAGE_READWRITE;
  return mapped != PAGE_NOACCESS && (wanted == PAGE_READONLY || wanted == PAGE_WRITECOPY);
}

// Pages that are shared with the file become private ones over the same part of it. Nothing is lost: a shared page
// holds what the file does.
DWORD MapPrivately(uintptr_t base, const MemoryRegion& view, const PageRange& pages) {
  const off_t offset = static_cast<off_t>(view.offset + (pages.start - base));
  void* const got = mmap(PointerTo(pages.start), pages.bytes(), SystemProtection(PAGE_WRITECOPY),
                         MAP_PRIVATE | MAP_FIXED, view.contents->get(), offset);
  if (got == MAP_FAILED) return ErrorOfProtecting(errno);
  ForgetLocks(pages.start, pages.bytes());
  return ERROR_SUCCESS;
}

// Pages that were made private earlier keep their changes, so they are only protected anew.
DWORD MakeCopyOnWrite(uintptr_t base, MemoryRegion* view, const PageRange& pages) try {
  PageSet copied = view->copied;
  copied.Add(pages.start, pages.end);
  for (uint64_t at = pages.start; at < pages.end;) {
    const auto start = static_cast<uintptr_t>(at);
    const PageRange part = {start, view->copied.ChangeAfter(start, pages.end)};
    const bool isPrivate = view->protection == PAGE_WRITECOPY || view->copied.Contains(start, part.end);
    const DWORD error = isPrivate ? SetProtection(part, PAGE_WRITECOPY) : MapPrivately(base, *view, part);
    if (error != ERROR_SUCCESS) return error;
    at = part.end;
  }
  view->copied = std::move(copied);
  return ERROR_SUCCESS;
} catch (const std::bad_alloc&) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

DWORD ProtectView(uintptr_t base, MemoryRegion* view, const PageRange& pages, DWORD protection) {
  if (!ViewAllows(view->protection, protection)) return ERROR_INVALID_PARAMETER;
  if (protection == PAGE_WRITECOPY) return MakeCopyOnWrite(base, view, pages);
  // Writing into these pages would no longer reach the file, which is what PAGE_READWRITE of a view promises.
  if (protection == PAGE_READWRITE && view->copied.Touches(pages.start, pages.end)) return ERROR_INVALID_PARAMETER;
  return SetProtection(pages, protection);
}

struct CommittedPages {
  uintptr_t allocation;
  DWORD protection, type;  // of the first page
};

// All pages must be committed ones of one allocation.
DWORD FindCommitted(const PageRange& pages, CommittedPages* found) {
  found->type = 0;
  return VisitRegions(pages, [&](const AddressRegion& region) -> DWORD {
    if (found->type == 0) *found = {region.allocationBase, region.protect, region.type};
    const bool isOne = region.state == MEM_COMMIT && region.allocationBase == found->allocation;
    return isOne ? ERROR_SUCCESS : ERROR_INVALID_ADDRESS;
  });
}

// A module's pages are private copies of its file already. All other memory that has no view is either private, without
// anything that could be copied at the first write, or another's shared mapping, of which the layer holds no
// descriptor.
DWORD ProtectOtherMemory(const PageRange& pages, DWORD type, DWORD protection) {
  const bool copies = protection == PAGE_WRITECOPY || protection == PAGE_EXECUTE_WRITECOPY;
  return copies && type != MEM_IMAGE ? ERROR_INVALID_PARAMETER : SetProtection(pages, protection);
}

DWORD ProtectPages(LPVOID address, SIZE_T size, DWORD protection, PDWORD previous) {
  const PageRange pages = PagesHolding(address, size);
  if (SystemProtection(protection) < 0 || size == 0) return ERROR_INVALID_PARAMETER;
  if (!previous) return ERROR_NOACCESS;
  if (!pages.IsInAddressSpace()) return ERROR_INVALID_PARAMETER;
  CommittedPages found;
  if (const DWORD error = FindCommitted(pages, &found)) return error;
  {
    RegionTable table;
    const auto region = table.Find(pages.start);
    const bool isView = region != table.end() && region->second.kind == MemoryRegion::Kind::kView;
    const DWORD error = isView ? ProtectView(region->first, &region->second, pages, protection)
                               : ProtectOtherMemory(pages, found.type, protection);
    if (error != ERROR_SUCCESS) return error;
  }
  *previous = found.protection;
  return ERROR_SUCCESS;
}

}  // namespace
}  // namespace qel::layer

BOOL VirtualProtect(LPVOID address, SIZE_T size, DWORD protection, PDWORD previous) {
  const DWORD error = qel::layer::ProtectPages(address, size, protection, previous);
  qel::layer::ForgetSnapshot();
  return qel::layer::ReportResult(error);
}
