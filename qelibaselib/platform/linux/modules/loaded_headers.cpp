#include "qelibaselib/platform/linux/modules/loaded_headers.h"

#include <dlfcn.h>

#include <algorithm>

#include "qelibaselib/platform/linux/base/page_size.h"
#include "qelibaselib/platform/linux/modules/walk_memory.h"

namespace qel::layer {

LoadedHeaders::LoadedHeaders(const dl_phdr_info& info) : place_(reinterpret_cast<uint32_t>(info.dlpi_phdr)) {
  const uint32_t count = std::min<uint32_t>(info.dlpi_phnum, kMost);
  if (OwnMemory().Read(place_, headers_, count * sizeof headers_[0])) count_ = count;
}

LoadedRange FindLoadedRange(const dl_phdr_info& info, const LoadedHeaders& headers) {
  LoadedRange range{UINT32_MAX, 0};
  for (const Elf32_Phdr& segment : headers.all()) {
    if (segment.p_type != PT_LOAD) continue;
    const uint32_t first = info.dlpi_addr + segment.p_vaddr;
    range.start = std::min<uint32_t>(range.start, first / kPageSize * kPageSize);
    range.end = std::max<uint32_t>(range.end, first + segment.p_memsz);
  }
  dl_find_object known;
  if (range.end == 0 && _dl_find_object(reinterpret_cast<void*>(info.dlpi_addr), &known) == 0)
    range = {reinterpret_cast<uint32_t>(known.dlfo_map_start), reinterpret_cast<uint32_t>(known.dlfo_map_end)};
  return range;
}

}  // namespace qel::layer
