// Blocks of virtual memory: a block that is reserved has no access, committing opens its pages.
#include <sys/mman.h>

#include <cerrno>
#include <new>
#include <utility>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/memory/page_locks.h"
#include "qelibaselib/platform/linux/memory/page_protection.h"
#include "qelibaselib/platform/linux/memory/placement.h"
#include "qelibaselib/platform/linux/memory/view_table.h"
#include "qelibaselib/platform/linux/memory/virtual_query.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

using Kind = MemoryRegion::Kind;
constexpr SIZE_T kLargestBytes = 0x7FFE0000;  // what lies between the first and the last address of a program
constexpr int kBlockFlags = MAP_PRIVATE | MAP_ANONYMOUS;

// Memory that is only reserved costs the system nothing: what can be reserved but not had is a lack of memory.
DWORD FindReasonOfShortage(size_t bytes) {
  void* const reserved = mmap(nullptr, bytes, PROT_NONE, kBlockFlags | MAP_NORESERVE, -1, 0);
  if (reserved == MAP_FAILED) return ERROR_NOT_ENOUGH_MEMORY;
  munmap(reserved, bytes);
  return ERROR_COMMITMENT_LIMIT;
}

// `wanted` null: anywhere.
DWORD ReserveBlock(void* wanted, SIZE_T size, DWORD type, DWORD protection, void** block) {
  const bool commits = (type & MEM_COMMIT) != 0;
  const PageRange pages = wanted ? PagesHolding(wanted, size) : PageRange{0, RoundUp(size, kPageSize)};
  const uintptr_t place = pages.start & ~(kGranularityBytes - 1);
  const size_t bytes = pages.end - place;
  const int flags = commits ? kBlockFlags : kBlockFlags | MAP_NORESERVE;
  const MappingRequest request = {bytes, commits ? PrivateProtection(protection) : PROT_NONE, flags, -1, 0};
  void* got;
  if (wanted) {
    if (place == 0 || !pages.IsInAddressSpace()) return ERROR_INVALID_ADDRESS;
    got = MapAt(place, request);
  } else {
    got = MapAnywhere(request);
  }
  if (!got && wanted) return ERROR_INVALID_ADDRESS;
  if (!got) return FindReasonOfShortage(bytes);

  MemoryRegion region = {Kind::kBlock, static_cast<uint32_t>(bytes), protection};
  bool kept = true;
  try {
    if (!commits) region.reserved.Add(AddressOf(got), uint64_t{AddressOf(got)} + bytes);
  } catch (const std::bad_alloc&) {
    kept = false;
  }
  if (!kept || !RegionTable().Insert(AddressOf(got), std::move(region))) {
    munmap(got, bytes);
    return ERROR_NOT_ENOUGH_MEMORY;
  }
  *block = got;
  return ERROR_SUCCESS;
}

// Which pages of a range are reserved, to be put back when the system refuses the change. Only this part of the set is
// copied: committing a large block page by page would otherwise cost the square of its pages.
class ReservedBefore {
 public:
  ReservedBefore(PageSet* reserved, const PageRange& pages)
      : reserved_(reserved), pages_(pages), before_(reserved->Within(pages.start, pages.end)) {}
  void PutBack() try {
    reserved_->Remove(pages_.start, pages_.end);
    before_.ForEach([this](uintptr_t start, uint64_t end) { reserved_->Add(start, end); });
  } catch (const std::bad_alloc&) {
    // These pages are told of wrongly from now on; none is lost.
  }

 private:
  PageSet* const reserved_;
  const PageRange pages_;
  const PageSet before_;
};

DWORD CommitPages(void* address, SIZE_T size, DWORD protection, void** block) try {
  const PageRange pages = PagesHolding(address, size);
  RegionTable table;
  const auto region = table.Find(pages.start);
  if (region == table.end() || region->second.kind != Kind::kBlock ||
      pages.end > uint64_t{region->first} + region->second.bytes)
    return ERROR_INVALID_ADDRESS;
  ReservedBefore before(&region->second.reserved, pages);
  region->second.reserved.Remove(pages.start, pages.end);
  if (mprotect(PointerTo(pages.start), pages.bytes(), PrivateProtection(protection)) != 0) {
    const int error = errno;
    before.PutBack();
    return error == ENOMEM ? ERROR_COMMITMENT_LIMIT : ErrorFromErrno(error);
  }
  *block = PointerTo(pages.start);
  return ERROR_SUCCESS;
} catch (const std::bad_alloc&) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

DWORD AllocatePages(LPVOID address, SIZE_T size, DWORD type, DWORD protection, void** block) {
  if (size == 0 || size > kLargestBytes || (type & (MEM_COMMIT | MEM_RESERVE)) == 0 ||
      (type & ~(MEM_COMMIT | MEM_RESERVE)) != 0 || PrivateProtection(protection) < 0)
    return ERROR_INVALID_PARAMETER;
  if (address && (type & MEM_RESERVE) == 0) return CommitPages(address, size, protection, block);
  return ReserveBlock(address, size, type, protection, block);
}

DWORD ReleaseBlock(LPVOID address) {
  MemoryRegion removed;
  uintptr_t base;
  {
    RegionTable table;
    const auto region = table.Find(AddressOf(address));
    if (region == table.end()) return ERROR_INVALID_ADDRESS;
    if (region->second.kind != Kind::kBlock) return ERROR_INVALID_PARAMETER;
    base = region->first;
    if (PageOf(AddressOf(address)) != base) return ERROR_INVALID_ADDRESS;
    removed = table.Remove(region);
  }
  ForgetLocks(base, removed.bytes);
  munmap(PointerTo(base), removed.bytes);
  OfferPlace(base, removed.bytes);
  return ERROR_SUCCESS;
}

// Size 0 means the whole block. The pages are mapped anew: what was in them is gone, as it must be.
DWORD DecommitPages(LPVOID address, SIZE_T size) try {
  PageRange pages = PagesHolding(address, size);
  RegionTable table;
  const auto region = table.Find(pages.start);
  if (region == table.end()) return ERROR_INVALID_ADDRESS;
  if (region->second.kind != Kind::kBlock) return ERROR_INVALID_PARAMETER;
  const uint64_t end = uint64_t{region->first} + region->second.bytes;
  if (size == 0 && pages.start == region->first) pages.end = end;
  if (size == 0 && pages.start != region->first) return ERROR_INVALID_ADDRESS;
  if (pages.end > end) return ERROR_INVALID_ADDRESS;
  ReservedBefore before(&region->second.reserved, pages);
  region->second.reserved.Add(pages.start, pages.end);
  if (mmap(PointerTo(pages.start), pages.bytes(), PROT_NONE, kBlockFlags | MAP_NORESERVE | MAP_FIXED, -1, 0) ==
      MAP_FAILED) {
    const int error = errno;
    before.PutBack();
    return ErrorFromErrno(error);
  }
  ForgetLocks(pages.start, pages.bytes());
  return ERROR_SUCCESS;
} catch (const std::bad_alloc&) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

DWORD FreePages(LPVOID address, SIZE_T size, DWORD type) {
  if (type == MEM_DECOMMIT) return DecommitPages(address, size);
  if (type != MEM_RELEASE || size != 0) return ERROR_INVALID_PARAMETER;
  return ReleaseBlock(address);
}

BOOL ReportChange(DWORD error) {
  ForgetSnapshot();
  return ReportResult(error);
}

}  // namespace
}  // namespace qel::layer

LPVOID VirtualAlloc(LPVOID address, SIZE_T size, DWORD type, DWORD protection) {
  void* block = nullptr;
  return qel::layer::ReportChange(qel::layer::AllocatePages(address, size, type, protection, &block)) ? block : nullptr;
}

BOOL VirtualFree(LPVOID address, SIZE_T size, DWORD type) {
  return qel::layer::ReportChange(qel::layer::FreePages(address, size, type));
}
