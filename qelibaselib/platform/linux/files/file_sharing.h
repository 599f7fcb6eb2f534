/// @file
/// Share modes and range locks of files, kept as the kernel's locks on the open file, so that they hold between
/// processes and end with a process that is killed.
///
/// Every open holds one shared lock on one of 64 bytes far beyond any data; the number of the byte says what the open
/// may do and what it lets others do. Programs that know nothing of this are not held off and hold nobody off.
#pragma once
#include <sys/types.h>

#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

enum Right : unsigned { kReading = 1, kWriting = 2, kDeleting = 4, kAllRights = 7 };

/// What one open does and allows: two sets of Right.
struct ShareMode {
  unsigned access, share;
};

/// Enters the open among the others of its file. ERROR_SHARING_VIOLATION when it cannot stand beside them; success also
/// where the file system has no such locks. `isNew`: the caller made the file a moment ago. `rangesLocked`, if given,
/// becomes true when one of them has locked a range.
DWORD EnterSharing(int descriptor, ShareMode mode, bool isNew = false, bool* rangesLocked = nullptr);

/// Before the close: a mapping or a child that was forked a moment ago may keep the open file description.
void LeaveSharing(int descriptor, ShareMode mode);

/// Whether an open of this kind could stand now. One system call while nobody has the file open.
bool MayShare(int descriptor, ShareMode mode);

/// For one at a time among those who change what the file's name leads to, and among opens that met each other. A
/// foreign program may keep this lock for ever, so it is given up after about a tenth of a second. Not around
/// EnterSharing.
class SharingGate {
 public:
  explicit SharingGate(int descriptor) : descriptor_(descriptor) { Lock(); }
  SharingGate(const SharingGate&) = delete;
  SharingGate& operator=(const SharingGate&) = delete;
  ~SharingGate() { Unlock(); }

  /// As EnterSharing; with success the gate is held as before.
  DWORD Enter(ShareMode mode);
  /// The descriptor is closed next, which unlocks as well.
  void LeaveToClose() { held_ = false; }

 private:
  void Lock();
  void Unlock();

  int descriptor_;
  bool held_ = false;
};

/// Range locks end where the sharing bytes begin.
constexpr off_t kEndOfRanges = 0x7fffffffffffff00;

/// Places or lifts the mark of an open that has locked ranges, for those that come later.
void MarkRangesLocked(int descriptor, bool locked);

/// The mark of an open file description that mappings were made of (mapping_marks.h). Every mapping has one; a writable
/// mapping has a second one, which holds off opens that do not share writing. False while another empties or cuts the
/// file. True also where the file system has no such locks.
bool PlaceMappedMark(int descriptor, bool forWriting);
/// Leaves a mark for reading in place when it was only `forWriting`.
enum class LiftedMark { kForWriting, kAll };
void LiftMappedMark(int descriptor, LiftedMark mark);

/// Whether a mapping exists that was made of another open file description.
bool IsMappedElsewhere(int descriptor);

/// Keeps new mappings of a file away while it is emptied or cut. The descriptor must be one for writing, of whose open
/// file description no mapping exists.
class MappingHoldOff {
 public:
  explicit MappingHoldOff(int descriptor);
  MappingHoldOff(const MappingHoldOff&) = delete;
  MappingHoldOff& operator=(const MappingHoldOff&) = delete;
  ~MappingHoldOff();
  /// The file is mapped, and is to be left as it is.
  bool IsMapped() const { return isMapped_; }

 private:
  const int descriptor_;
  bool held_ = false, isMapped_ = false;
};

/// ERROR_LOCK_VIOLATION when another open file description has locked a part of the range against this use.
DWORD CheckRange(int descriptor, off_t from, off_t length, bool writing);

}  // namespace qel::layer
