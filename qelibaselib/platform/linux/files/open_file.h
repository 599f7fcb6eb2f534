/// @file
/// The opening of files, for CreateFileW and for the calls that open one themselves.
///
/// The room files/ holds what concerns files and folders: their names (path.h), opening, sharing (file_sharing.h),
/// attributes, transfers, copying and moving, searching, and the path functions of the shell. It uses base/, handles/,
/// the probes of faults/, and of objects/ the user's folder of shared memory.
///
/// Other processes open, empty and delete files at the same time, so an open goes in this order: first a descriptor,
/// then the place among the other opens of the file, then a look at what the descriptor leads to, and only then a
/// change of contents and attributes. So nobody empties a file that somebody holds, and a file that was deleted in
/// between is noticed by its missing name. A process that dies in the middle leaves an empty new file at most.
#pragma once
#include "qelibaselib/platform/linux/files/file_attributes.h"
#include "qelibaselib/platform/linux/files/file_sharing.h"
#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

/// What an open asks for. Access 0 only asks about the file: no share mode is tested, and it is in nobody's way.
struct FileRequest {
  ShareMode mode;
  DWORD disposition;
  DWORD attributes = 0;  // of a file that is made
  bool folders = false;  // may be a folder
  bool special = true;   // may be a device, a pipe or a socket
  bool deletes = false;  // at the close
  bool writesThrough = false;
  bool shared = true;         // has share modes; the null device has none
  mode_t permissions = 0666;  // of a file that is made
  // Of a copy: the file that the target must not be. The copy itself takes care of the attributes.
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
  DWORD Open(const SystemPath& path, const FileRequest& request);

  int descriptor() const { return descriptor_; }
  /// Gives the descriptor to another owner, who keeps it open until this has ended.
  int HandOver() {
    closes_ = false;
    return descriptor_;
  }
  bool existed() const { return existed_; }
  bool rangesLocked() const { return rangesLocked_; }
  unsigned access() const { return access_; }
  /// Of a file that existed: before it was emptied. Unset for the new target of a copy.
  const FileStatus& status() const { return status_; }

 private:
  DWORD OpenDescriptor(const SystemPath& path, const FileRequest& request);
  int OpenExisting(const SystemPath& path, const FileRequest& request) const;
  enum class OpenResult {
    kOpened,
    kFailed,
    kRaceRetry,  // another process deleted the file between our two calls, so that its name is free or another file's
  };
  OpenResult Enter(const FileRequest& request, DWORD& error);
  DWORD CheckExisting(const FileRequest& request) const;
  DWORD SetContentsAndAttributes(const FileRequest& request);
  void Close();

  int descriptor_ = -1;
  bool closes_ = true, existed_ = false, rangesLocked_ = false;
  unsigned access_ = 0;
  SharePlace place_;
  FileStatus status_ = {};
};

/// Lengthens a file with all its blocks, so that a full disk is known now and not at a later write into a view.
DWORD GrowFile(int descriptor, off_t from, off_t to);

}  // namespace qel::layer
