// The marks of mappings at a file (file_sharing.h), which mapping_marks.h tells of.
#include <fcntl.h>
#include <time.h>

#include <cerrno>
#include <new>

#include "qelibaselib/platform/linux/base/lock_range.h"
#include "qelibaselib/platform/linux/files/lock_table.h"
#include "qelibaselib/platform/linux/files/share_bytes.h"

namespace qel::layer {
namespace {

// Calls `attempt` until it answers true; gives up after about a tenth of a second, since whoever is in the way may have
// been stopped.
template <class Attempt>
bool TryForAWhile(Attempt&& attempt) {
  constexpr int kTries = 500;
  constexpr timespec kPause{0, 200'000};
  for (int i = 0; i < kTries; ++i) {
    if (attempt()) return true;
    nanosleep(&kPause, nullptr);
  }
  return false;
}

enum class InTheWay { kNothing, kMapping, kCut, kForeignLock };

InTheWay FindInTheWay(int descriptor) {
  struct flock mark = LockRange(F_WRLCK, kFirstShareByte + kMappedByte, 1);
  if (fcntl(descriptor, F_OFD_GETLK, &mark) != 0 || mark.l_type == F_UNLCK) return InTheWay::kNothing;
  if (IsForeign(mark)) return InTheWay::kForeignLock;
  return mark.l_type == F_RDLCK ? InTheWay::kMapping : InTheWay::kCut;
}

// Looks behind a foreign lock. One who cuts the file is listed for a moment, too, and is in the way as well.
bool IsMarkListed(int descriptor) try {
  LockTable table(descriptor);
  ListedLock lock;
  constexpr off_t kMark = kFirstShareByte + kMappedByte;
  while (table.Next(&lock))
    if (lock.first >= kFirstShareByte && lock.first <= kMark && lock.last >= kMark) return true;
  return false;
} catch (const std::bad_alloc&) {
  return false;
}

}  // namespace

bool PlaceMappedMark(int descriptor, bool forWriting) {
  return TryForAWhile([&] {
    return SetShareLock(descriptor, F_RDLCK, kMappedByte, forWriting ? 2 : 1) || !IsHeldByAnother(errno) ||
           FindInTheWay(descriptor) == InTheWay::kForeignLock;
  });
}

void LiftMappedMark(int descriptor, LiftedMark mark) {
  const bool all = mark == LiftedMark::kAll;
  SetShareLock(descriptor, F_UNLCK, all ? kMappedByte : kMappedForWritingByte, all ? 2 : 1);
}

bool IsMappedElsewhere(int descriptor) {
  const InTheWay found = FindInTheWay(descriptor);
  return found == InTheWay::kMapping || (found == InTheWay::kForeignLock && IsMarkListed(descriptor));
}

MappingHoldOff::MappingHoldOff(int descriptor) : descriptor_(descriptor) {
  TryForAWhile([&] {
    held_ = SetShareLock(descriptor, F_WRLCK, kMappedByte);
    if (held_ || !IsHeldByAnother(errno)) return true;
    const InTheWay found = FindInTheWay(descriptor);
    isMapped_ = found == InTheWay::kMapping || (found == InTheWay::kForeignLock && IsMarkListed(descriptor));
    return isMapped_ || found == InTheWay::kForeignLock;  // one who cuts is done in a moment
  });
}

MappingHoldOff::~MappingHoldOff() {
  if (held_) SetShareLock(descriptor_, F_UNLCK, kMappedByte);
}

}  // namespace qel::layer
