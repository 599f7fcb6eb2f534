/// @file
/// The memory map as the kernel tells it, made into the regions that a query answers with. Nothing here asks the
/// system: text, owners and result are the caller's.
///
/// The room memory/ holds everything about the address space, in these words:
/// - A **block** is memory that VirtualAlloc gave out (virtual_memory.cpp). Each of its pages is either reserved, which
///   only keeps others away, or committed, which can be used.
/// - A **mapping** is an object with a handle: a file, or memory without a file, that can be shown (mapping.cpp). Other
///   processes reach it by its name, if it has one (named_section.cpp). It holds its file (files/mapping_marks.h).
/// - A **view** is the part of a mapping that MapViewOfFile shows at an address (view.cpp). It lives on without the
///   mapping's handle, and keeps alive whatever stands behind the mapping.
/// - A **region** is a run of pages that VirtualQuery describes with one answer: same state, protection, type and
///   allocation. The kernel's memory map (memory_map.cpp) knows mappings of its own kind only; it joins neighbours and
///   splits what we gave out as one. So all blocks and views stand in one table (view_table.h), and a query lays the
///   table, and the list of loaded modules, over the kernel's map (regions.cpp, virtual_query.cpp).
/// - **Placement** is the choice of an address for a new block or view: a multiple of 64 KiB as on Windows, and below
///   2 GiB while there is room, since callers walk the lower half only (placement.cpp).
/// The room uses base/, handles/, objects/, files/ (marks and range locks of an open file), faults/ (the probe of bad
/// addresses) and threads/ (the end of a thread, which frees its list of regions).
#pragma once
#include <cstdint>
#include <string_view>

#include "qelibaselib/platform/linux/base/page_size.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

inline constexpr uintptr_t kGranularityBytes = 0x10000;
/// 4 GiB for a program of 32 bits, which the layer is made for.
inline constexpr uint64_t kAddressSpaceEnd = sizeof(void*) == 4 ? 0x100000000 : 0x800000000000;

constexpr uintptr_t PageOf(uintptr_t address) { return address & ~uintptr_t{kPageSize - 1}; }
/// The next multiple, which is 4 GiB for the last few addresses.
constexpr uint64_t RoundUp(uint64_t value, uintptr_t step) { return (value + step - 1) / step * step; }
inline uintptr_t AddressOf(const void* pointer) { return reinterpret_cast<uintptr_t>(pointer); }
inline void* PointerTo(uintptr_t address) { return reinterpret_cast<void*>(address); }

/// Whole pages; `end` is at most 4 GiB unless the bytes wrapped around.
struct PageRange {
  uintptr_t start;
  uint64_t end;
  bool IsInAddressSpace() const { return end <= kAddressSpaceEnd; }
  size_t bytes() const { return end - start; }
};

/// The pages that hold any of the bytes.
inline PageRange PagesHolding(const void* address, SIZE_T bytes) {
  const uintptr_t start = AddressOf(address);
  return {PageOf(start), RoundUp(uint64_t{start} + bytes, kPageSize)};
}

/// One mapping of the kernel's, as a line of /proc/self/maps.
struct MapLine {
  uintptr_t start, end;
  bool read, write, execute, shared;
  uint64_t offset;
  uint32_t device;  ///< any number that two lines of the same device share
  uint64_t inode;   ///< 0 for memory that no file stands behind
};

/// False for what is no such line. The line feed is not part of it, and the name at the end may be cut.
bool ParseMapLine(std::string_view line, MapLine* result);

/// Cuts a stream of blocks into lines. What is left of a block goes before the next one.
class LineCutter {
 public:
  explicit LineCutter(std::string_view text) : text_(text) {}
  /// False when no whole line is left.
  bool Next(std::string_view* line);
  /// The begun line at the end.
  std::string_view Rest() const { return text_; }

 private:
  std::string_view text_;
};

/// Pages of one state, type, protection and allocation.
struct AddressRegion {
  uintptr_t start;
  uint64_t end;
  uintptr_t allocationBase;
  DWORD allocationProtect, state, protect, type;
};

/// A list that goes on working, with fewer places, when there is no memory: a failed allocation is just when the
/// address space is looked at. Its owner frees it: as a thread's object it must not have a destructor, whose
/// registration takes memory.
class RegionList {
 public:
  constexpr RegionList() = default;
  RegionList(const RegionList&) = delete;
  RegionList& operator=(const RegionList&) = delete;
  /// Gives the memory back; the list can be used once more.
  void Free();
  void Clear() { size_ = 0; }
  /// False when there is no place.
  bool Push(const AddressRegion& region);
  uint32_t size() const { return size_; }
  const AddressRegion& operator[](uint32_t index) const { return data()[index]; }

 private:
  static constexpr uint32_t kSpares = 8;  // few: a library that is loaded late finds little room for a thread's data
  static constexpr uint32_t kFirstCapacity = 256;
  bool Grow();
  const AddressRegion* data() const { return heap_ ? heap_ : spare_; }
  AddressRegion spare_[kSpares] = {};
  AddressRegion* heap_ = nullptr;
  uint32_t size_ = 0;
  uint32_t capacity_ = kSpares;
};

/// Whom an address belongs to, and up to where this holds.
struct MemoryOwner {
  DWORD type = 0;  ///< MEM_IMAGE, MEM_MAPPED or MEM_PRIVATE; 0 when it is nobody's that we know
  uintptr_t base = 0;
  uint64_t until = kAddressSpaceEnd;
  DWORD allocationProtect = 0;
  bool reserved = false;  ///< without pages that could be used
};

class MemoryOwners {
 public:
  virtual MemoryOwner At(uintptr_t address) = 0;

 protected:
  ~MemoryOwners() = default;
};

/// Makes regions of the lines of a map, from the region of one address on. Lines that overlap earlier ones, as they can
/// when the map changes while it is read, lose the overlap.
class RegionBuilder {
 public:
  RegionBuilder(uintptr_t from, MemoryOwners* owners, RegionList* regions)
      : from_(from), owners_(owners), regions_(regions) {}
  /// False when the list is full: what it holds is right, and ends early.
  bool Add(const MapLine& line);
  /// Adds what is free behind the last line.
  bool Finish();

 private:
  void FollowForeignBase(const MapLine& line);
  AddressRegion Describe(const MapLine& line, uintptr_t start, uint64_t end, const MemoryOwner& owner) const;
  bool AddRegion(const AddressRegion& region);
  bool AddFree(uint64_t end);
  bool PushCurrent();

  const uintptr_t from_;
  MemoryOwners* const owners_;
  RegionList* const regions_;
  AddressRegion current_ = {};
  uint64_t position_ = 0;  // what lies below was seen
  MapLine lastLine_ = {};
  uintptr_t foreignBase_ = 0;
};

}  // namespace qel::layer
