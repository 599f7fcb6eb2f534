/// @file
/// The bytes by which opens and mappings of a file tell each other of themselves (file_sharing.h, mapping_marks.h).
#pragma once
#include <fcntl.h>

#include "qelibaselib/platform/linux/files/file_sharing.h"

namespace qel::layer {

constexpr off_t kFirstShareByte = kEndOfRanges;
constexpr int kModeBytes = 64;                      // one for each access and share mode
constexpr int kRangesLockedByte = kModeBytes;       // held by those who have locked ranges
constexpr int kMappedByte = kRangesLockedByte + 1;  // held by every mapping; alone by one who empties or cuts the file
constexpr int kMappedForWritingByte = kMappedByte + 1;
constexpr int kShareBytes = kMappedForWritingByte + 1;

constexpr int ByteOf(ShareMode mode) { return static_cast<int>(mode.access << 3 | mode.share); }

/// Whether an open of this mode can stand beside one who holds the byte.
constexpr bool StandsBeside(int byte, ShareMode mode) {
  if (byte == kMappedByte || byte == kRangesLockedByte) return true;
  if (byte == kMappedForWritingByte) return (mode.share & kWriting) != 0;
  const unsigned access = static_cast<unsigned>(byte) >> 3, share = static_cast<unsigned>(byte) & 7;
  return (mode.access & ~share) == 0 && (access & ~mode.share) == 0;
}

/// Whether a lock that the kernel named is a foreign program's, on the whole file.
inline bool IsForeign(const struct flock& lock) { return lock.l_start < kFirstShareByte; }

/// Places or lifts (F_UNLCK) a lock on some of the bytes; false with errno.
bool SetShareLock(int descriptor, short type, int firstByte, int bytes = 1);
bool IsHeldByAnother(int error);

}  // namespace qel::layer
