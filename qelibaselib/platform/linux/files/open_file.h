/// @file
/// The opening of files, for CreateFileW and for the calls that open one themselves, and the object behind a file
/// handle.
#pragma once
#include <atomic>
#include <memory>
#include <mutex>

#include "qelibaselib/platform/linux/files/file_attributes.h"
#include "qelibaselib/platform/linux/files/file_sharing.h"
#include "qelibaselib/platform/linux/files/mapping_marks.h"
#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/handles/handle_table.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

/// What an open asks for. Access 0 only asks about the file: no share mode is tested, and it is in nobody's way.
struct OpenRequest {
  ShareMode mode;
  DWORD disposition;
  DWORD attributes = 0;  // of a file that is made
  bool folders = false;  // may be a folder
  bool deletes = false;  // at the close
  bool writesThrough = false;
  bool shared = true;         // has share modes; the null device has none
  mode_t permissions = 0666;  // of a file that is made
  // Of a copy: the file that the target must not be. Most targets are new, so that making one is tried first.
  const FileStatus* source = nullptr;
};

/// An open descriptor with its place among the others of its file. It leaves and closes at the end of the scope.
class OpenedFile {
 public:
  OpenedFile() = default;
  OpenedFile(OpenedFile&& other) noexcept;
  OpenedFile& operator=(const OpenedFile&) = delete;
  ~OpenedFile();

  /// Returns the Win32 error. A read-only file is not opened for writing, whoever asks.
  DWORD Open(const SystemPath& path, const OpenRequest& request);

  int descriptor() const { return descriptor_; }
  bool existed() const { return existed_; }
  bool rangesLocked() const { return rangesLocked_; }
  unsigned access() const { return mode_.access; }
  /// Of a file that existed: before it was emptied. Unset for the new target of a copy.
  const FileStatus& status() const { return status_; }

 private:
  DWORD OpenDescriptor(const SystemPath& path, const OpenRequest& request);
  int OpenExisting(const SystemPath& path, const OpenRequest& request) const;
  DWORD Enter(const OpenRequest& request);
  DWORD CheckExisting(const OpenRequest& request) const;
  DWORD SetContentsAndAttributes(const OpenRequest& request);
  void Close();

  int descriptor_ = -1;
  bool entered_ = false, existed_ = false, rangesLocked_ = false;
  ShareMode mode_ = {};
  FileStatus status_;
};

class RangeLocks;

/// What a file handle stands for. Its position is the descriptor's, except after a transfer with an offset of its own:
/// that leaves the new position here, for the next call that asks for it. The descriptor is this object's alone, and
/// all handles of the file share the object, so nobody can tell the difference.
class File final : public Object {
 public:
  File(OpenedFile&& opened, bool overlapped);

  int descriptor() const { return opened_.descriptor(); }
  /// The descriptor with the position where it belongs.
  int PositionedDescriptor() const {
    if (position_.load(std::memory_order_acquire) != kDescriptorsOwn) MovePosition();
    return descriptor();
  }
  void SetPosition(off_t position) const { position_.store(position, std::memory_order_release); }
  bool MayRead() const { return (opened_.access() & kReading) != 0; }
  bool MayWrite() const { return (opened_.access() & kWriting) != 0; }
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
  std::shared_ptr<MappingMarks> Marks() const { return ShareMarks(&marks_); }

  /// False without memory.
  bool DeleteOnClose(const SystemPath& path);

 private:
  ~File() override;
  void FreeRangeLocks();
  int RangeDescriptor() const;
  void MovePosition() const;
  static constexpr off_t kDescriptorsOwn = -1;
  static constinit std::atomic<bool> g_rangesEverLocked;

  OpenedFile opened_;
  const bool overlapped_, checksRanges_;
  mutable std::atomic<off_t> position_{kDescriptorsOwn};
  mutable std::mutex positionMutex_;
  std::atomic<RangeLocks*> ranges_{nullptr};
  std::unique_ptr<char[]> deletedName_;
  mutable std::shared_ptr<MappingMarks> marks_;
};

/// Lengthens a file with all its blocks, so that a full disk is known now and not at a later write into a view.
DWORD GrowFile(int descriptor, off_t from, off_t to);

}  // namespace qel::layer
