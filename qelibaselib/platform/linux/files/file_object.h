/// @file
/// The object behind a file handle. Its parts end in this order with the last handle: range locks are freed, the file
/// is deleted if that was asked for, the place among the other opens is left, and the descriptor is closed, or left to
/// the mappings that are made of it.
#pragma once
#include <atomic>
#include <memory>
#include <mutex>

#include "qelibaselib/platform/linux/files/delete_on_close.h"
#include "qelibaselib/platform/linux/files/mapping_marks.h"
#include "qelibaselib/platform/linux/files/open_file.h"
#include "qelibaselib/platform/linux/handles/handle_table.h"

namespace qel::layer {

class RangeLocks;

/// What a file handle stands for. Its position is the descriptor's, except after a transfer with an offset of its own:
/// that leaves the new position here, for the next call that asks for it. The descriptor is this object's alone, and
/// all handles of the file share the object, so nobody can tell the difference.
class FileObject final : public Object {
 public:
  FileObject(OpenedFile&& opened, bool overlapped);

  int descriptor() const { return opened_.descriptor(); }
  /// The descriptor with the position where it belongs.
  int PositionedDescriptor() const {
    if (position_.load(std::memory_order_acquire) != kDescriptorsOwn) MovePosition();
    return descriptor();
  }
  void SetPosition(off_t position) const { position_.store(position, std::memory_order_release); }
  bool MayRead() const { return (opened_.access() & kReading) != 0; }
  bool MayWrite() const { return (opened_.access() & kWriting) != 0; }
  bool IsFolder() const { return opened_.status().IsFolder(); }
  bool overlapped() const { return overlapped_; }

  /// Another handle's range lock that is in the way of this use. Costs nothing as long as no handle of this process has
  /// ever locked a range and none of another process had when this file was opened; a range that another process locks
  /// later is then not seen.
  template <class From>
  DWORD CheckRanges(DWORD length, bool writing, From from) const {
    if (!checksRanges_ && !g_rangesEverLocked.load(std::memory_order_relaxed)) return 0;
    return CheckRange(RangeDescriptor(), from(), length, writing);
  }
  static void NoteRangeLock() { g_rangesEverLocked.store(true); }
  /// The locks of this handle; made at the first use. Null without memory.
  RangeLocks* Ranges();

  /// The marks of the mappings that are made of this file; null without memory.
  std::shared_ptr<MappingMarks> Marks() const { return ShareMarks(&marks_, descriptor()); }

  /// Deletes the file with the last handle.
  void DeleteLater() { deletion_.Intend(descriptor()); }

 private:
  ~FileObject() override;
  void FreeRangeLocks();
  int RangeDescriptor() const;
  void MovePosition() const;
  static constexpr off_t kDescriptorsOwn = -1;
  static constinit std::atomic<bool> g_rangesEverLocked;

  mutable std::shared_ptr<MappingMarks> marks_;  // ends last: it may have the descriptor then
  OpenedFile opened_;
  const bool overlapped_, checksRanges_;
  mutable std::atomic<off_t> position_{kDescriptorsOwn};
  mutable std::mutex positionMutex_;
  std::atomic<RangeLocks*> ranges_{nullptr};
  DeleteOnClose deletion_;  // ends before the file is closed
};

}  // namespace qel::layer
