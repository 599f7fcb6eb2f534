/// @file
/// The locks of a file as the kernel lists them in /proc/locks. A question for one lock (F_OFD_GETLK) is answered with
/// the first that is in the way, so a foreign program's lock on the whole file hides all others; the list does not.
#pragma once
#include <sys/types.h>

#include <string>

namespace qel::layer {

/// A lock that belongs to an open file description, both ends included. Whose it is the kernel does not tell.
struct ListedLock {
  off_t first, last;
};

/// Gives the locks of the file behind the descriptor one after the other. It reads files of /proc and takes memory from
/// the heap (std::bad_alloc), so it is for the rare case.
class LockTable {
 public:
  explicit LockTable(int descriptor);
  /// False behind the last one.
  bool Next(ListedLock* lock);

 private:
  // The file as the kernel names it in its lists. On some file systems a stat gives other numbers.
  struct KernelFile {
    unsigned major, minor;
    unsigned long long node;
  };
  static bool Identify(int descriptor, KernelFile* file);

  std::string text_;
  size_t at_ = 0;
  KernelFile file_ = {};
};

}  // namespace qel::layer
