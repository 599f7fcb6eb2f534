// Views of mappings. FlushViewOfFile waits until the disk has taken the pages and tells of errors, as on Windows; the
// disk's own cache is flushed by FlushFileBuffers alone.
#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/files/file_sharing.h"
#include "qelibaselib/platform/linux/memory/mapping.h"
#include "qelibaselib/platform/linux/memory/page_locks.h"
#include "qelibaselib/platform/linux/memory/placement.h"
#include "qelibaselib/platform/linux/memory/virtual_query.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

// The parts of FILE_MAP_ALL_ACCESS that concern views; the others are standard rights.
constexpr DWORD kKnownAccess = FILE_MAP_ALL_ACCESS;

struct ViewKind {
  DWORD protection;
  int system, flags;
};

// Writing includes reading. A view that copies is mapped privately, so that its changes reach nobody.
ViewKind KindFor(DWORD access) {
  if (access & FILE_MAP_WRITE) return {PAGE_READWRITE, PROT_READ | PROT_WRITE, MAP_SHARED};
  if (access & FILE_MAP_COPY) return {PAGE_WRITECOPY, PROT_READ | PROT_WRITE, MAP_PRIVATE};
  if (access & FILE_MAP_READ) return {PAGE_READONLY, PROT_READ, MAP_SHARED};
  return {PAGE_NOACCESS, PROT_NONE, MAP_SHARED};
}

bool Allows(const Mapping& mapping, DWORD protection) {
  switch (protection) {
    case PAGE_READWRITE:
      return mapping.rights().write && mapping.contents().protection == PAGE_READWRITE;
    case PAGE_READONLY:
    case PAGE_WRITECOPY:
      return mapping.rights().read;
    default:
      return true;
  }
}

// A view of a file ends by the byte where the mapping does, one of the page file by the page.
DWORD LengthOf(const Mapping::Contents& contents, uint64_t offset, uint64_t bytes, uint64_t* length) {
  const uint64_t end = contents.isFile ? contents.bytes : RoundUp(contents.bytes, kPageSize);
  if (offset >= contents.bytes || bytes > end - offset) return ERROR_ACCESS_DENIED;
  *length = bytes ? bytes : contents.bytes - offset;
  return *length > UINT32_MAX - kPageSize ? ERROR_NOT_ENOUGH_MEMORY : ERROR_SUCCESS;
}

DWORD MapView(HANDLE handle, DWORD access, uint64_t offset, SIZE_T bytes, void** view) {
  const Pin pin(handle);
  const auto* const mapping = pin.As<Mapping>(qel::layer::Kind::kMapping);
  if (!mapping) return ERROR_INVALID_HANDLE;
  if ((access & ~kKnownAccess) != 0) return ERROR_INVALID_PARAMETER;
  if (offset % kGranularityBytes != 0) return ERROR_MAPPED_ALIGNMENT;
  const Mapping::Contents& contents = mapping->contents();
  const ViewKind kind = KindFor(access);
  if (!Allows(*mapping, kind.protection)) return ERROR_ACCESS_DENIED;
  uint64_t length;
  if (const DWORD error = LengthOf(contents, offset, bytes, &length)) return error;

  MemoryRegion region = {MemoryRegion::Kind::kView, static_cast<uint32_t>(RoundUp(length, kPageSize)), kind.protection};
  region.contents = contents.descriptor;
  region.offset = contents.start + offset;
  region.isFile = contents.isFile;
  const size_t pages = region.bytes;
  void* const got =
      MapAnywhere({pages, kind.system, kind.flags, contents.descriptor->get(), static_cast<off_t>(region.offset)});
  if (!got) return ErrorFromErrno(errno);
  if (!RegionTable().Insert(AddressOf(got), std::move(region))) {
    munmap(got, pages);
    return ERROR_NOT_ENOUGH_MEMORY;
  }
  *view = got;
  return ERROR_SUCCESS;
}

DWORD UnmapView(LPCVOID address) {
  MemoryRegion removed;
  uintptr_t base;
  {
    RegionTable table;
    const auto region = table.Find(AddressOf(address));
    if (region == table.end() || region->second.kind != MemoryRegion::Kind::kView) return ERROR_INVALID_ADDRESS;
    base = region->first;
    removed = table.Remove(region);
  }
  ForgetLocks(base, removed.bytes);
  munmap(PointerTo(base), removed.bytes);
  OfferPlace(base, removed.bytes);
  return ERROR_SUCCESS;
}

// The part of a file that a flush concerns; no file when there is nothing to write back. The descriptor stays open
// while this lives, whatever becomes of the view.
struct FlushRange {
  std::shared_ptr<const MappedDescriptor> file;
  off_t offset, length;
};

DWORD FindFlushRange(uintptr_t address, SIZE_T bytes, FlushRange* range) {
  {
    RegionTable table;
    const auto found = table.Find(address);
    if (found != table.end()) {
      const auto& [base, region] = *found;
      const uint32_t left = base + region.bytes - address;
      if (region.kind != MemoryRegion::Kind::kView || bytes > left) return ERROR_INVALID_PARAMETER;
      const bool hasChanges = region.isFile && region.protection == PAGE_READWRITE;
      *range = {hasChanges ? region.contents : nullptr, static_cast<off_t>(region.offset + (address - base)),
                static_cast<off_t>(bytes ? bytes : left)};
      return ERROR_SUCCESS;
    }
  }
  const RegionList* regions;
  const bool isUsed = ReadRegions(address, &regions) == ERROR_SUCCESS && (*regions)[0].state != MEM_FREE;
  return isUsed ? ERROR_INVALID_PARAMETER : ERROR_INVALID_ADDRESS;
}

DWORD WriteBack(LPCVOID address, const FlushRange& range) {
  constexpr unsigned kWriteAndWait = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
  if (sync_file_range(range.file->get(), range.offset, range.length, kWriteAndWait) == 0) return ERROR_SUCCESS;
  if (errno != ESPIPE && errno != EINVAL && errno != ENOSYS) return ErrorFromErrno(errno);
  const uintptr_t start = PageOf(AddressOf(address));
  const size_t length = AddressOf(address) - start + range.length;
  return msync(PointerTo(start), length, MS_SYNC) == 0 ? ERROR_SUCCESS : ErrorFromErrno(errno);
}

DWORD FlushView(LPCVOID address, SIZE_T bytes) {
  FlushRange range;
  if (const DWORD error = FindFlushRange(AddressOf(address), bytes, &range)) return error;
  if (!range.file) return ERROR_SUCCESS;
  if (const DWORD error = CheckRange(range.file->get(), range.offset, range.length, true)) return error;
  return WriteBack(address, range);
}

}  // namespace
}  // namespace qel::layer

LPVOID MapViewOfFile(HANDLE mapping, DWORD access, DWORD offsetHigh, DWORD offsetLow, SIZE_T bytes) {
  void* view = nullptr;
  const DWORD error = qel::layer::MapView(mapping, access, uint64_t{offsetHigh} << 32 | offsetLow, bytes, &view);
  qel::layer::ForgetSnapshot();
  return qel::layer::ReportResult(error) ? view : nullptr;
}

BOOL UnmapViewOfFile(LPCVOID address) {
  const DWORD error = qel::layer::UnmapView(address);
  qel::layer::ForgetSnapshot();
  return qel::layer::ReportResult(error);
}

BOOL FlushViewOfFile(LPCVOID address, SIZE_T bytes) {
  return qel::layer::ReportResult(qel::layer::FlushView(address, bytes));
}
