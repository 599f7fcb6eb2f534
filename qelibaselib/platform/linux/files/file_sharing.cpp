#include "qelibaselib/platform/linux/files/file_sharing.h"

#include <fcntl.h>
#include <sys/file.h>
#include <time.h>

#include <cerrno>

#include "qelibaselib/platform/linux/base/lock_range.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr off_t kFirstByte = kEndOfRanges;
constexpr int kShareBytes = 64;
constexpr int kRangesLockedByte = kShareBytes;  // held by those who have locked ranges
constexpr int kBytes = kShareBytes + 1;

enum class Answer { kFree, kConflict, kUnsupported };

constexpr int ByteOf(ShareMode mode) { return static_cast<int>(mode.access << 3 | mode.share); }

bool Compatible(ShareMode mode, int byte) {
  const unsigned access = static_cast<unsigned>(byte) >> 3, share = static_cast<unsigned>(byte) & 7;
  return (mode.access & ~share) == 0 && (access & ~mode.share) == 0;
}

// Looks at the bytes [from, to) that others hold. The kernel names any one of them, so the rest is looked at on both
// sides of it.
Answer Look(int descriptor, ShareMode mode, bool* rangesLocked, int from = 0, int to = kBytes) {
  if (from >= to) return Answer::kFree;
  struct flock range = LockRange(F_WRLCK, kFirstByte + from, to - from);
  if (fcntl(descriptor, F_OFD_GETLK, &range) != 0) return Answer::kUnsupported;
  if (range.l_type == F_UNLCK) return Answer::kFree;
  const int byte = static_cast<int>(range.l_start - kFirstByte);
  if (range.l_start < kFirstByte || byte >= to) return Answer::kFree;  // a foreign program locks the whole file
  if (byte == kRangesLockedByte) {
    if (rangesLocked) *rangesLocked = true;
  } else if (!Compatible(mode, byte)) {
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

DWORD CheckRange(int descriptor, off_t from, off_t length, bool writing) {
  if (length <= 0 || from < 0 || from >= kEndOfRanges) return ERROR_SUCCESS;
  if (length > kEndOfRanges - from) length = kEndOfRanges - from;
  struct flock range = LockRange(writing ? F_WRLCK : F_RDLCK, from, length);
  if (fcntl(descriptor, F_OFD_GETLK, &range) != 0) return ERROR_SUCCESS;
  return range.l_type == F_UNLCK ? ERROR_SUCCESS : ERROR_LOCK_VIOLATION;
}

}  // namespace qel::layer
