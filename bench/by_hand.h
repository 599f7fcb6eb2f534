// The hand-written counterparts that several groups share.
#pragma once
#include <sys/types.h>

#include <cstddef>
#include <string>

namespace by_hand {

// Where the bytes begin by whose locks those who have a file open see one another.
inline constexpr off_t kShareBytes = 0x7fffffffffffff00;

// One reading of /proc/meminfo through a descriptor that stays open; the memory load in percent.
unsigned MemoryLoad();

// A robust process-shared mutex in a shared-memory segment that stays mapped.
class MappedMutex {
 public:
  explicit MappedMutex(const char* name);
  MappedMutex(const MappedMutex&) = delete;
  MappedMutex& operator=(const MappedMutex&) = delete;
  ~MappedMutex();
  void Lock();
  void Unlock();

 private:
  std::string name_;
  void* page_;
};

// One line in the channels' form: lock, size check, open for append, one write, close.
void LogLine(MappedMutex& mutex, const char* path, const char* message, int line, const char* sourceFile);

// Reads the whole memory map once and sums the free ranges.
size_t WalkAddressSpace();

}  // namespace by_hand
