/// @file
/// Files that may not grow any more (RLIMIT_FSIZE).
///
/// The problem: the kernel not only refuses a write beyond the limit (EFBIG) but also sends the thread SIGXFSZ, whose
/// default action ends the process. A log line too many would take the host with it.
///
/// The idea: where the host has the default action, a handler of the layer stands in its place, from the load on. It
/// does nothing for a thread that is about to make a file of the layer longer, nor for one in a guard, where the
/// library may be writing to a stream of the host, so that only the write fails. For any other thread it puts the
/// default action back and sends the signal again, as if the layer were not there. A host with a handler of its own, or
/// one that ignores the signal, is left alone.
///
/// The invariant: every call of the layer that can lengthen a file stands in the scope of a FileGrowth.
#pragma once
#include <csignal>

namespace qel::layer {

/// How many scopes of FileGrowth this thread is in.
inline thread_local constinit unsigned t_fileGrowths = 0;

class FileGrowth {
 public:
  FileGrowth() { ++t_fileGrowths; }
  FileGrowth(const FileGrowth&) = delete;
  FileGrowth& operator=(const FileGrowth&) = delete;
  ~FileGrowth() { --t_fileGrowths; }
};

/// At the load of the layer. `isInGuard` tells whether the calling thread is in a guard; a signal handler calls it.
void GuardFileSizeLimit(bool (*isInGuard)());
/// sigaction for SIGXFSZ: keeps what the host wants, and the layer's handler where that is the default action.
int ChangeFileSizeAction(const struct sigaction* action, struct sigaction* former);

}  // namespace qel::layer
