/// @file
/// The user's own folder in shared memory, where the files of named objects live.
#pragma once
#include <sys/types.h>

#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

/// The folder is the smallest-named `qel-<user>-*` that is owned by the user, a real folder and mode 0700; so nobody
/// can occupy its name in advance. One that is missing is made with a random end.
/// Not for several threads at once: its one user has a lock.
class SharedFolder {
 public:
  /// The folder's descriptor, which stays this object's; -1 with the error in `error`.
  int Open(uid_t user, DWORD* error);
  /// What Open gave last; -1 before it and after Forget.
  int descriptor() const { return descriptor_; }
  /// Whether the open folder has been removed by a process that ended; the next Open looks for another then.
  bool ForgetIfRemoved();
  /// Closes the descriptor only (in a forked child, too).
  void Forget();
  /// Removes the folder when nothing is in it. A process that has it open finds that out by ForgetIfRemoved.
  void RemoveIfEmpty();

 private:
  int descriptor_ = -1;
  uid_t user_ = 0;
  char name_[40] = {};
};

}  // namespace qel::layer
