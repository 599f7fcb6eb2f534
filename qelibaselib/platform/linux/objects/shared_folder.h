/// @file
/// The user's own folder in shared memory, where the files of named objects live.
///
/// The problem: everybody may create names in shared memory, so a fixed name could be taken by another user in advance,
/// or be a link to somewhere else.
///
/// The idea: the folder is the smallest-named `qel-<user>-*` that is owned by the user, is a real folder and has no
/// rights for others. Where there is none, one with a random end is made and all are looked through again. Since only
/// the user can make such a folder, nobody can occupy its name, and all processes of the user find the same one.
///
/// Makers stand in a line for a moment (a lock on the parent folder), so that two processes that start together do not
/// settle on two folders. A maker that dies in between leaves an empty folder that serves the next one, even when the
/// umask had taken rights from it: they are given back when it is opened.
#pragma once
#include <sys/types.h>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

/// Not for several threads at once: its one user has a lock.
class SharedFolder {
 public:
  /// The folder's descriptor, which stays this object's; -1 with the error in `error`.
  int Open(uid_t user, DWORD* error);
  /// Whether the open folder has been removed by a process that ended; the next Open looks for another then.
  bool ForgetIfRemoved();
  /// Closes the descriptor only (in a forked child, too).
  void Forget() { folder_.Close(); }
  /// Removes the folder when nothing is in it. A process that has it open finds that out by ForgetIfRemoved.
  void RemoveIfEmpty();
  /// For the end of the process: removes the files that nobody holds, then as RemoveIfEmpty.
  void RemoveUnheldFilesAndFolder();

 private:
  KeptDescriptor folder_;
  uid_t user_ = 0;
  char name_[40] = {};
};

}  // namespace qel::layer
