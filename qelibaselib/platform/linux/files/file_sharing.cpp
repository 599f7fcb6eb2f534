#include "qelibaselib/platform/linux/files/file_sharing.h"

#include <fcntl.h>
#include <sys/file.h>
#include <time.h>

#include <algorithm>
#include <cerrno>

#include "qelibaselib/platform/linux/base/lock_range.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr off_t kFirstByte = kEndOfRanges;
constexpr int kShareBytes = 64;
constexpr int kRangesLockedByte = kShareBytes;      // held by those who have locked ranges
constexpr int kMappedByte = kRangesLockedByte + 1;  // held by every mapping; alone by one who empties or cuts the file
constexpr int kMappedForWritingByte = kMappedByte + 1;
constexpr int kBytes = kMappedForWritingByte + 1;

enum class Answer { kFree, kConflict, kUnsupported };

constexpr int ByteOf(ShareMode mode) { return static_cast<int>(mode.access << 3 | mode.share); }

bool Compatible(ShareMode mode, int byte) {
  const unsigned access = static_cast<unsigned>(byte) >> 3, share = static_cast<unsigned>(byte) & 7;
  return (mode.access & ~share) == 0 && (access & ~mode.share) == 0;
}

bool StandsBeside(int byte, ShareMode mode) {
  if (byte == kMappedByte) return true;
  if (byte == kMappedForWritingByte) return (mode.share & kWriting) != 0;
  return Compatible(mode, byte);
}

// Looks at the bytes [from, to) that others hold. The kernel names any one of them, so the rest is looked at on both
// sides of it.
Answer Look(int descriptor, ShareMode mode, bool* rangesLocked, int from = 0, int to = kBytes) {
  if (from >= to) return Answer::kFree;
  struct flock range = LockRange(F_WRLCK, kFirstByte + from, to - from);
  if (fcntl(descriptor, F_OFD_GETLK, &range) != 0) return Answer::kUnsupported;
  if (range.l_type == F_UNLCK) return Answer::kFree;
  if (range.l_start < kFirstByte) return Answer::kFree;  // a foreign program locks the whole file
  // The kernel joins neighbouring bytes of one holder, so this lock may begin before the part that is looked at.
  const int byte = std::max(static_cast<int>(range.l_start - kFirstByte), from);
  if (byte == kRangesLockedByte) {
    if (rangesLocked) *rangesLocked = true;
  } else if (!StandsBeside(byte, mode)) {
    return Answer::kConflict;
  }
  const Answer before = Look(descriptor, mode, rangesLocked, from, byte);
  return before == Answer::kFree ? Look(descriptor, mode, rangesLocked, byte + 1, to) : before;
}

// Of two that come at once at least one sees the other, so never both stand. Both may draw back; then they meet at the
// gate.
Answer PlaceAndLook(int descriptor, ShareMode mode, bool* rangesLocked) {
  struct flock own = LockRange(F_RDLCK, kFirstByte + ByteOf(mode), 1);
  // A descriptor for writing alone cannot hold a shared lock.
  if (fcntl(descriptor, F_OFD_SETLK, &own) != 0)
    return errno == EAGAIN || errno == EACCES ? Answer::kConflict : Answer::kUnsupported;
  const Answer after = Look(descriptor, mode, rangesLocked);
  if (after != Answer::kFree) LeaveSharing(descriptor, mode);
  return after;
}

// The look ahead keeps an open that is bound to fail from placing its byte before the eyes of others.
Answer TryEnter(int descriptor, ShareMode mode, bool* rangesLocked) {
  const Answer before = Look(descriptor, mode, rangesLocked);
  return before == Answer::kFree ? PlaceAndLook(descriptor, mode, rangesLocked) : before;
}

}  // namespace

void SharingGate::Lock() {
  constexpr int kTries = 500, kShortWaits = 20;
  for (int i = 0; i < kTries && !held_; ++i) {
    held_ = flock(descriptor_, LOCK_EX | LOCK_NB) == 0;
    if (held_ || errno != EWOULDBLOCK) break;
    const timespec wait{0, i < kShortWaits ? 10'000 : 200'000};
    nanosleep(&wait, nullptr);
  }
}

void SharingGate::Unlock() {
  if (held_) flock(descriptor_, LOCK_UN);
  held_ = false;
}

// Whoever sees the byte here in passing waits at the gate until it is gone, so no look ahead is needed.
DWORD SharingGate::Enter(ShareMode mode) {
  if (!held_) return EnterSharing(descriptor_, mode);
  if (PlaceAndLook(descriptor_, mode, nullptr) != Answer::kConflict) return ERROR_SUCCESS;
  Unlock();
  const DWORD error = EnterSharing(descriptor_, mode);
  if (!error) Lock();
  return error;
}

DWORD EnterSharing(int descriptor, ShareMode mode, bool isNew, bool* rangesLocked) {
  const auto first = isNew ? PlaceAndLook : TryEnter;
  if (first(descriptor, mode, rangesLocked) != Answer::kConflict) return ERROR_SUCCESS;
  const SharingGate gate(descriptor);
  return TryEnter(descriptor, mode, rangesLocked) == Answer::kConflict ? ERROR_SHARING_VIOLATION : ERROR_SUCCESS;
}

void LeaveSharing(int descriptor, ShareMode mode) {
  struct flock own = LockRange(F_UNLCK, kFirstByte + ByteOf(mode), 1);
  fcntl(descriptor, F_OFD_SETLK, &own);
}

bool MayShare(int descriptor, ShareMode mode) { return Look(descriptor, mode, nullptr) != Answer::kConflict; }

void MarkRangesLocked(int descriptor, bool locked) {
  struct flock mark = LockRange(locked ? F_RDLCK : F_UNLCK, kFirstByte + kRangesLockedByte, 1);
  fcntl(descriptor, F_OFD_SETLK, &mark);
}

namespace {

bool SetLock(int descriptor, short type, int firstByte, int bytes) {
  struct flock lock = LockRange(type, kFirstByte + firstByte, bytes);
  return fcntl(descriptor, F_OFD_SETLK, &lock) == 0;
}

bool IsHeldByAnother(int error) { return error == EAGAIN || error == EACCES; }

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

}  // namespace

bool PlaceMappedMark(int descriptor, bool forWriting) {
  return TryForAWhile(
      [&] { return SetLock(descriptor, F_RDLCK, kMappedByte, forWriting ? 2 : 1) || !IsHeldByAnother(errno); });
}

void LiftMappedMark(int descriptor, LiftedMark mark) {
  const bool all = mark == LiftedMark::kAll;
  SetLock(descriptor, F_UNLCK, all ? kMappedByte : kMappedForWritingByte, all ? 2 : 1);
}

bool IsMappedElsewhere(int descriptor) {
  struct flock mark = LockRange(F_WRLCK, kFirstByte + kMappedByte, 1);
  return fcntl(descriptor, F_OFD_GETLK, &mark) == 0 && mark.l_type == F_RDLCK && mark.l_start >= kFirstByte;
}

MappingHoldOff::MappingHoldOff(int descriptor) : descriptor_(descriptor) {
  TryForAWhile([&] {
    held_ = SetLock(descriptor, F_WRLCK, kMappedByte, 1);
    if (held_ || !IsHeldByAnother(errno)) return true;
    isMapped_ = IsMappedElsewhere(descriptor);
    return isMapped_;  // if not, another cuts the file at this moment
  });
}

MappingHoldOff::~MappingHoldOff() {
  if (held_) SetLock(descriptor_, F_UNLCK, kMappedByte, 1);
}

DWORD CheckRange(int descriptor, off_t from, off_t length, bool writing) {
  if (length <= 0 || from < 0 || from >= kEndOfRanges) return ERROR_SUCCESS;
  if (length > kEndOfRanges - from) length = kEndOfRanges - from;
  struct flock range = LockRange(writing ? F_WRLCK : F_RDLCK, from, length);
  if (fcntl(descriptor, F_OFD_GETLK, &range) != 0) return ERROR_SUCCESS;
  return range.l_type == F_UNLCK ? ERROR_SUCCESS : ERROR_LOCK_VIOLATION;
}

}  // namespace qel::layer
