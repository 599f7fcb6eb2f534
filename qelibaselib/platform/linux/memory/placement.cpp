#include "qelibaselib/platform/linux/memory/placement.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "qelibaselib/platform/linux/memory/memory_map.h"

namespace qel::layer {
namespace {

constexpr uintptr_t kLowEnd = 0x80000000;
// The lower places are used last, so that a null pointer with an offset hits nothing.
constexpr uintptr_t kFirstPlace = 0x10010000;
constexpr uintptr_t kLowestPlace = 0x00100000;

constinit std::atomic<uintptr_t> g_nextPlace{0};  // 0 until something is placed

bool IsFullyLow(uint64_t base, size_t bytes) { return base + bytes <= kLowEnd; }

// The lowest gap of this size in the range; 0 when there is none.
uintptr_t FindGap(uintptr_t from, size_t bytes) {
  uint64_t candidate = from;
  MemoryMapReader map(from);
  for (MapLine line; IsFullyLow(candidate, bytes) && map.Next(&line);) {
    if (candidate + bytes <= line.start) return candidate;
    candidate = RoundUp(line.end, kGranularityBytes);
  }
  return 0;
}

// Another thread can take a gap between the reading of the map and the call: a few tries are enough.
void* MapInGap(uintptr_t from, const MappingRequest& request) {
  constexpr int kTries = 4;
  for (int i = 0; i < kTries; ++i) {
    const uintptr_t gap = FindGap(from, request.bytes);
    if (gap == 0) break;
    if (void* const got = MapAt(gap, request)) {
      g_nextPlace.store(RoundUp(gap + request.bytes, kGranularityBytes), std::memory_order_relaxed);
      return got;
    }
    if (errno != EEXIST) return nullptr;
  }
  errno = EEXIST;
  return nullptr;
}

// The kernel chooses the place of a larger room, in which the region is put at a multiple of 64 KiB; the rest of the
// room is given back.
void* MapHigh(const MappingRequest& request) {
  const size_t whole = RoundUp(request.bytes, kPageSize);
  const size_t room = whole + kGranularityBytes - kPageSize;
  void* const raw = mmap(nullptr, room, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (raw == MAP_FAILED) return nullptr;
  const uintptr_t start = AddressOf(raw);
  const uintptr_t base = RoundUp(start, kGranularityBytes);
  void* const got = mmap(PointerTo(base), request.bytes, request.protection, request.flags | MAP_FIXED,
                         request.descriptor, request.offset);
  if (got == MAP_FAILED) {
    const int error = errno;
    munmap(raw, room);
    errno = error;
    return nullptr;
  }
  if (base > start) munmap(raw, base - start);
  if (start + room > base + whole) munmap(PointerTo(base + whole), start + room - base - whole);
  return got;
}

}  // namespace

// Kernels before 4.17 do not know MAP_FIXED_NOREPLACE and take the address as a hint, so the answer is compared.
void* MapAt(uintptr_t base, const MappingRequest& request) {
  void* const wanted = PointerTo(base);
  void* const got = mmap(wanted, request.bytes, request.protection, request.flags | MAP_FIXED_NOREPLACE,
                         request.descriptor, request.offset);
  if (got == MAP_FAILED) return nullptr;
  if (got == wanted) return got;
  munmap(got, request.bytes);
  errno = EEXIST;
  return nullptr;
}

namespace {

// The first call also maps an unused neighbour for good. Without it the kernel would free the page
// tables of this area whenever its last region goes, and the next region would take half as long again.
uintptr_t FindNextPlace() {
  const uintptr_t next = g_nextPlace.load(std::memory_order_relaxed);
  if (next != 0) return next;
  MapAt(kFirstPlace - kGranularityBytes,
        {kGranularityBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0});
  uintptr_t none = 0;
  return g_nextPlace.compare_exchange_strong(none, kFirstPlace, std::memory_order_relaxed) ? kFirstPlace : none;
}

}  // namespace

void* MapAnywhere(const MappingRequest& request) {
  const uintptr_t place = FindNextPlace();
  if (IsFullyLow(place, request.bytes)) {
    if (void* const got = MapAt(place, request)) {
      g_nextPlace.store(RoundUp(place + request.bytes, kGranularityBytes), std::memory_order_relaxed);
      return got;
    }
    if (errno != EEXIST) return nullptr;
  }
  for (const uintptr_t from : {kFirstPlace, kLowestPlace}) {
    if (void* const got = MapInGap(from, request)) return got;
    if (errno != EEXIST) return nullptr;
  }
  return MapHigh(request);
}

void OfferPlace(uintptr_t base, uint32_t bytes) {
  uintptr_t end = RoundUp(uint64_t{base} + bytes, kGranularityBytes);
  if (base < kLowEnd) g_nextPlace.compare_exchange_strong(end, base, std::memory_order_relaxed);
}

}  // namespace qel::layer
