// What a query says of an address, with places counted from `base`.
#pragma once
#include "test/platform/memory/mapped_file.h"
#include "test/support/record.h"

namespace qel::test {

inline void NoteRegion(Record& record, const char* label, const void* address, const char* base) {
  const MEMORY_BASIC_INFORMATION region = Query(address);
  record.Line(label).Note("base", static_cast<const char*>(region.BaseAddress) - base);
  record.Note("allocation", static_cast<const char*>(region.AllocationBase) - base);
  record.Note("made", region.AllocationProtect);
  record.Note("bytes", region.RegionSize);
  record.Note("state", Hex{region.State});
  record.Note("protection", region.Protect);
  record.Note("type", Hex{region.Type});
}

}  // namespace qel::test
