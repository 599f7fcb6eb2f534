/// @file
/// Reads this process's memory map from the kernel.
#pragma once
#include <cstdint>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/memory/regions.h"

namespace qel::layer {

/// Gives the mappings of this process in rising order, at a cost that grows with their number alone. Newer kernels are
/// asked for one mapping after the other; that spares them writing the file names, of which 30,000 long ones take a
/// second. Older ones print their map as text. Needs no memory but about 1 KiB of stack.
class MemoryMapReader {
 public:
  /// Starts at the first mapping that ends above `from`.
  explicit MemoryMapReader(uintptr_t from = 0);

  /// False at the end of the map and after an error.
  bool Next(MapLine* line);
  /// ERROR_SUCCESS when Next reached the end of the map.
  DWORD error() const { return error_; }

 private:
  bool AskForNext(MapLine* line);
  bool ReadNext(MapLine* line);
  bool TakeLineBeginning(std::string_view* line);
  bool Refill();

  const Descriptor file_;
  uint64_t next_;  // what ends at or below this address is not wanted
  DWORD error_;
  bool asks_ = true;           // until the kernel turns out not to know the question
  bool isInsideLine_ = false;  // the beginning of the line that the unread text starts in was taken
  std::string_view unread_;
  char buffer_[1024];  // the fields before the name take at most 80 characters
};

}  // namespace qel::layer
