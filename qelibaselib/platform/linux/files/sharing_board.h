/// @file
/// A page in the user's folder of shared memory, for what processes that share files have to tell each other and cannot
/// tell at the file itself (file_sharing.h): the gates, and the stand-ins for files that a foreign program has locked.
///
/// Every process that opens a file holds a shared lock on byte 0 of the page's file, as with the files of named objects
/// (object_locks.h), so the last process removes it. The kernel gives the lock and any gate back when a process is
/// killed. Without shared memory a process has a page of its own: gates then hold among its threads, and there are no
/// stand-ins.
#pragma once
#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>

namespace qel::layer {

/// What the kernel knows a file by.
struct FileKey {
  unsigned long long device, node;
};

struct SharingBoard {
  static constexpr int kGates = 64;

  std::atomic<uint32_t> isReady;
  /// Whether a stand-in was ever taken. Until then nobody has to look for any.
  std::atomic<uint32_t> hasStandIns;
  pthread_mutex_t gates[kGates];

  pthread_mutex_t& GateOf(FileKey file);
};

/// The page; attached at the first call. Never fails, never waits for long.
SharingBoard& OpenSharingBoard();

/// Where the stand-in of a file begins in the page's file.
off_t StandInOf(FileKey file);
/// This process's descriptor of the page's file, to look at stand-ins; -1 without shared memory.
int SharingBoardDescriptor();
/// A descriptor with locks of its own, to take a stand-in; -1 when there is none to be had.
int OpenStandIns();

/// When the process ends: the last one removes the page.
void LeaveSharingBoard();

}  // namespace qel::layer
