#include "qelibaselib/platform/linux/files/file_sharing.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/lock_range.h"
#include "qelibaselib/platform/linux/files/lock_table.h"
#include "qelibaselib/platform/linux/files/share_bytes.h"
#include "qelibaselib/platform/linux/files/sharing_gate.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

using Found = SharePlace::Found;

// The bytes of one file, in the file itself or in its stand-in.
struct ShareBytes {
  int descriptor;
  off_t first;
};

void NoteRanges(int byte, bool* rangesLocked) {
  if (byte == kRangesLockedByte && rangesLocked) *rangesLocked = true;
}

// Looks at the bytes [from, to) that others hold. The kernel names any one of them, so the rest is looked at on both
// sides of it.
Found Look(const ShareBytes& bytes, ShareMode mode, bool* rangesLocked, int from = 0, int to = kShareBytes) {
  if (from >= to) return Found::kFree;
  struct flock range = LockRange(F_WRLCK, bytes.first + from, to - from);
  if (fcntl(bytes.descriptor, F_OFD_GETLK, &range) != 0) return Found::kUnsupported;
  if (range.l_type == F_UNLCK) return Found::kFree;
  if (range.l_start < bytes.first) return Found::kHidden;
  // The kernel joins neighbouring bytes of one holder, so this lock may begin before the part that is looked at.
  const int byte = std::max(static_cast<int>(range.l_start - bytes.first), from);
  NoteRanges(byte, rangesLocked);
  if (!StandsBeside(byte, mode)) return Found::kConflict;
  const Found before = Look(bytes, mode, rangesLocked, from, byte);
  return before == Found::kFree ? Look(bytes, mode, rangesLocked, byte + 1, to) : before;
}

// Calls `use(firstByte, lastByte)` for each listed lock on some of the bytes of the file, until it answers false.
template <class Use>
void ForEachListedLock(int file, Use use) {
  LockTable table(file);
  ListedLock lock;
  while (table.Next(&lock)) {
    if (lock.first < kFirstShareByte || lock.first >= kFirstShareByte + kShareBytes) continue;
    const auto first = static_cast<int>(lock.first - kFirstShareByte);
    const auto last = static_cast<int>(std::min<off_t>(lock.last - kFirstShareByte, kShareBytes - 1));
    if (!use(first, last)) return;
  }
}

}  // namespace

FileKey KeyOf(int descriptor) {
  struct stat status;
  if (fstat(descriptor, &status) != 0) return {};
  return {status.st_dev, status.st_ino};
}

bool SetShareLock(int descriptor, short type, int firstByte, int bytes) {
  struct flock lock = LockRange(type, kFirstShareByte + firstByte, bytes);
  return fcntl(descriptor, F_OFD_SETLK, &lock) == 0;
}

bool IsHeldByAnother(int error) { return error == EAGAIN || error == EACCES; }

SharePlace::SharePlace(SharePlace&& other) noexcept
    : mode_(other.mode_),
      home_(std::exchange(other.home_, Home::kNowhere)),
      standIn_(std::exchange(other.standIn_, -1)),
      forks_(other.forks_) {}

DWORD SharePlace::Take(int file, ShareMode mode, bool isNew, bool* rangesLocked) {
  mode_ = mode;
  Found found = isNew ? Found::kFree : LookEverywhere(file, rangesLocked);
  if (found == Found::kFree) found = PlaceAndLook(file, rangesLocked);
  if (found != Found::kConflict) return ERROR_SUCCESS;
  const SharingGate gate(KeyOf(file));
  found = LookEverywhere(file, rangesLocked);
  if (found == Found::kFree) found = PlaceAndLook(file, rangesLocked);
  return found == Found::kConflict ? ERROR_SHARING_VIOLATION : ERROR_SUCCESS;
}

// Whoever sees the byte here in passing waits at the gate until it is gone, so no look ahead is needed.
Found SharePlace::TakeAtGate(int file, ShareMode mode) {
  mode_ = mode;
  return PlaceAndLook(file, nullptr);
}

Found SharePlace::PlaceAndLook(int file, bool* rangesLocked) {
  if (!Place(file)) return Found::kUnsupported;
  const Found found = LookEverywhere(file, rangesLocked);
  if (found == Found::kConflict) Leave(file);
  return found;
}

// A lock that is refused for another reason than a lock: a descriptor for writing alone cannot have a shared one.
bool SharePlace::Place(int file) {
  forks_ = g_forkCount;
  if (SetShareLock(file, F_RDLCK, ByteOf(mode_))) {
    home_ = Home::kFile;
    return true;
  }
  return IsHeldByAnother(errno) && PlaceInStandIn(file);
}

bool SharePlace::PlaceInStandIn(int file) {
  OpenSharingBoard().hasStandIns.store(1);
  standIn_ = OpenStandIns();
  if (standIn_ < 0) return false;
  struct flock lock = LockRange(F_RDLCK, StandInOf(KeyOf(file)) + ByteOf(mode_), 1);
  if (fcntl(standIn_, F_OFD_SETLK, &lock) != 0) {
    CloseStandIn();
    return false;
  }
  home_ = Home::kStandIn;
  return true;
}

Found SharePlace::LookEverywhere(int file, bool* rangesLocked) const {
  Found found = Look({file, kFirstShareByte}, mode_, rangesLocked);
  if (found == Found::kHidden) found = LookInLockTable(file, rangesLocked);
  if (found == Found::kFree && OpenSharingBoard().hasStandIns.load()) found = LookAtStandIn(file, rangesLocked);
  return found;
}

// The own byte is listed, too, and no other open can be told from it, so it is left out once. The kernel gives a long
// list in parts and may skip a lock where one before it went away meanwhile, so the list is read twice.
Found SharePlace::LookInLockTable(int file, bool* rangesLocked) const try {
  bool conflict = false;
  for (int pass = 0; pass < 2 && !conflict; ++pass) {
    bool ownIsListed = home_ == Home::kFile;
    ForEachListedLock(file, [&](int first, int last) {
      const bool isOwn = ownIsListed && first == ByteOf(mode_) && last == first;
      if (isOwn) ownIsListed = false;
      for (int byte = first; byte <= last && !isOwn; ++byte) {
        NoteRanges(byte, rangesLocked);
        conflict = conflict || !StandsBeside(byte, mode_);
      }
      return !conflict;
    });
  }
  return conflict ? Found::kConflict : Found::kFree;
} catch (const std::bad_alloc&) {
  return Found::kUnsupported;
}

Found SharePlace::LookAtStandIn(int file, bool* rangesLocked) const {
  const int descriptor = standIn_ >= 0 ? standIn_ : SharingBoardDescriptor();
  return descriptor < 0 ? Found::kFree : Look({descriptor, StandInOf(KeyOf(file))}, mode_, rangesLocked);
}

void SharePlace::Leave(int file) {
  const bool isOurs = forks_ == g_forkCount;
  if (home_ == Home::kFile && isOurs) SetShareLock(file, F_UNLCK, ByteOf(mode_));
  if (home_ == Home::kStandIn && isOurs) {
    struct flock all = LockRange(F_UNLCK, 0, 0);
    fcntl(standIn_, F_OFD_SETLK, &all);
  }
  CloseStandIn();
  home_ = Home::kNowhere;
}

void SharePlace::CloseStandIn() {
  if (standIn_ >= 0) CloseDescriptor(std::exchange(standIn_, -1));
}

bool SharePlace::IsFree(int file, ShareMode mode) {
  SharePlace place;
  place.mode_ = mode;
  return place.LookEverywhere(file, nullptr) != Found::kConflict;
}

void MarkRangesLocked(int descriptor, bool locked) {
  SetShareLock(descriptor, locked ? F_RDLCK : F_UNLCK, kRangesLockedByte);
}

DWORD CheckRange(int descriptor, off_t from, off_t length, bool writing) {
  if (length <= 0 || from < 0 || from >= kEndOfRanges) return ERROR_SUCCESS;
  if (length > kEndOfRanges - from) length = kEndOfRanges - from;
  struct flock range = LockRange(writing ? F_WRLCK : F_RDLCK, from, length);
  if (fcntl(descriptor, F_OFD_GETLK, &range) != 0 || range.l_type == F_UNLCK) return ERROR_SUCCESS;
  const bool isOfProcess = range.l_pid != -1;  // a foreign program's, which holds nobody off
  return isOfProcess ? ERROR_SUCCESS : ERROR_LOCK_VIOLATION;
}

}  // namespace qel::layer
