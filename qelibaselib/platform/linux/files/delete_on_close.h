/// @file
/// Files that are deleted when their last handle is closed (FILE_FLAG_DELETE_ON_CLOSE).
///
/// The process that made the handle deletes the file: at the close, or when it ends by `exit` or by returning from
/// main. A process that ends otherwise (by a signal, _exit or TerminateProcess) leaves it. A forked child deletes
/// nothing.
#pragma once
#include "qelibaselib/platform/linux/base/forked_part.h"

namespace qel::layer {

/// The intention to delete one open file. It is carried out at the end of the scope.
class DeleteOnClose {
 public:
  DeleteOnClose() = default;
  DeleteOnClose(const DeleteOnClose&) = delete;
  DeleteOnClose& operator=(const DeleteOnClose&) = delete;
  ~DeleteOnClose();
  /// The descriptor must stay open as long as this object lives.
  void Intend(int descriptor);

 private:
  friend void DeleteOpenFiles();
  void Delete() const;

  int descriptor_ = -1;  // as long as nothing is intended
  unsigned forks_ = 0;
  DeleteOnClose *next_ = nullptr, *previous_ = nullptr;
};

/// When the process ends: deletes what is still open.
void DeleteOpenFiles();

extern const ForkedPart kDeleteOnCloseAtFork;

}  // namespace qel::layer
