/// @file
/// Share modes of files.
///
/// The problem: an open says what it does and what it lets others do meanwhile, and both must hold between processes
/// and end with a process that is killed. The kernel knows no such thing.
///
/// The idea: each open holds one shared lock of its open file description on one of 64 bytes far behind any data. The
/// number of the byte is the access and the share mode, so whoever asks the kernel which of these bytes others hold
/// knows who is there. An open places its byte first and looks then; of two that come at once at least one sees the
/// other, and draws back.
///
/// The invariant: no two opens stand whose modes exclude each other. That two opens see each other and both draw back
/// is possible; they try again one after the other, at the gate (sharing_gate.h). An existing file is looked at before
/// the byte is placed, too, so that an open which is bound to fail does not disturb others.
///
/// Foreign programs know nothing of this: they are not held off, apart from an exclusive fcntl lock on a whole file
/// that the layer has open, which reaches as far as these bytes. Neither do they hold the layer off:
/// - A shared lock on the whole file hides our bytes from the question. The kernel's list of locks shows them
/// (LockTable).
/// - An exclusive one lets no byte be placed. The open then takes the same byte of the file's stand-in, a place on the
///   sharing board. From the first stand-in on every open looks there, too; before it is looked at the file, behind it
///   at the stand-in, and a stand-in is announced before it is taken, so again one sees the other.
/// - flock is another kind of lock and never in the way.
///
/// When a process dies the kernel frees the bytes, after its last thread is gone. A forked child shares the open file
/// description and therefore the lock; it leaves the lock alone when it closes its descriptor.
#pragma once
#include <sys/types.h>

#include "qelibaselib/platform/linux/base/fork_count.h"
#include "qelibaselib/platform/linux/files/sharing_board.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

enum Right : unsigned { kReading = 1, kWriting = 2, kDeleting = 4, kAllRights = 7 };

/// What one open does and allows: two sets of Right.
struct ShareMode {
  unsigned access, share;
};

/// The place of an open among the others of its file.
class SharePlace {
 public:
  enum class Found {
    kFree,
    kConflict,
    kHidden,       // a foreign lock on the whole file is in the way of the question
    kUnsupported,  // the file system has no such locks, or the descriptor cannot have one
  };

  SharePlace() = default;
  SharePlace(SharePlace&& other) noexcept;
  SharePlace& operator=(const SharePlace&) = delete;
  ~SharePlace() { CloseStandIn(); }

  /// ERROR_SHARING_VIOLATION when the open cannot stand beside the others; success also where there are no such locks.
  /// `isNew`: the caller made the file a moment ago. `rangesLocked`, if given, becomes true when another open has
  /// locked a range.
  DWORD Take(int file, ShareMode mode, bool isNew = false, bool* rangesLocked = nullptr);
  /// As Take, by one who is at the gate already. A byte that is seen may be that of an open which will draw back.
  Found TakeAtGate(int file, ShareMode mode);
  /// Before the close, since a mapping or a child between fork and exec may keep the open file description.
  void Leave(int file);
  /// Whether an open of this kind could stand now. One system call while nobody has the file open.
  static bool IsFree(int file, ShareMode mode);

 private:
  enum class Home { kNowhere, kFile, kStandIn };

  Found LookEverywhere(int file, bool* rangesLocked) const;
  Found LookInLockTable(int file, bool* rangesLocked) const;
  Found LookAtStandIn(int file, bool* rangesLocked) const;
  Found PlaceAndLook(int file, bool* rangesLocked);
  bool Place(int file);
  bool PlaceInStandIn(int file);
  void CloseStandIn();

  ShareMode mode_ = {};
  Home home_ = Home::kNowhere;
  int standIn_ = -1;
  unsigned forks_ = 0;
};

/// The key of an open file; zeros when it cannot be asked.
FileKey KeyOf(int descriptor);

/// Range locks end where the sharing bytes begin.
constexpr off_t kEndOfRanges = 0x7fffffffffffff00;

/// Places or lifts the mark of an open that has locked ranges, for those that come later.
void MarkRangesLocked(int descriptor, bool locked);

/// The mark of an open file description that mappings were made of (mapping_marks.h). Every mapping has one; a writable
/// mapping has a second one, which holds off opens that do not share writing. False while another empties or cuts the
/// file. True also where there are no such locks, or a foreign program's lock is in the way.
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
