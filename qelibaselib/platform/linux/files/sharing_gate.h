/// @file
/// The gate of a file: one at a time among those who change what the file's name leads to, and among opens that met
/// each other.
///
/// The gate is a mutex on the sharing board, chosen by the file's number, so that no lock of a foreign program is in
/// its way. The kernel gives it back when its owner is killed. A process that was stopped may keep it, so it is given
/// up after about a tenth of a second: then only the small chance comes back that it was made for. Processes of
/// different users have different boards and do not meet at a gate.
#pragma once
#include <pthread.h>

#include "qelibaselib/platform/linux/files/sharing_board.h"

namespace qel::layer {

class SharingGate {
 public:
  explicit SharingGate(FileKey file);
  SharingGate(const SharingGate&) = delete;
  SharingGate& operator=(const SharingGate&) = delete;
  ~SharingGate();

 private:
  pthread_mutex_t& mutex_;
  bool held_;
};

}  // namespace qel::layer
