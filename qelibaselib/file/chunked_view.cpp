#include "qelibaselib/file/chunked_view.h"

#include <utility>

#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/file/flush_calls.h"
#include "qelibaselib/file/mapping_calls.h"
#include "qelibaselib/memory/physical_memory.h"

namespace qel {
namespace {

constexpr DWORD kLeastChunkBytes = 0x1000000;
constexpr DWORD kMapTimeoutMs = 10000;

}  // namespace

DWORD AllocationGranularity() {
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  return info.dwAllocationGranularity;
}

DWORD ChunkBytes() {
  const DWORD granularity = AllocationGranularity();
  return (kLeastChunkBytes + granularity - 1) / granularity * granularity;
}

ScopedView::ScopedView(SourcePosition caller, HANDLE mapping, DWORD access, unsigned long long offset, SIZE_T bytes)
    : caller_(caller),
      view_(static_cast<BYTE*>(MapViewOfFileX(caller.line, caller.sourceFile, mapping, access, Low(offset),
                                              High(offset), bytes, kMapTimeoutMs))) {}

ScopedView::~ScopedView() {
  if (!view_) return;
  PreserveLastError keep;
  UnmapViewOfFileX(caller_.line, caller_.sourceFile, view_);
}

void ScopedView::Finish(int shortageThreshold, const BYTE* from, HANDLE file) {
  if (shortageThreshold >= 0 && IsPhysMemShortage(static_cast<DWORD>(shortageThreshold)))
    FlushViewOfFileX(caller_.line, caller_.sourceFile, from, 0, file);
  view_ = nullptr;
  UnmapViewOfFileX(caller_.line, caller_.sourceFile, from);
}

}  // namespace qel
