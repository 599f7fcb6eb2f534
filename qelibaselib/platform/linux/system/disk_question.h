/// @file
/// Asks how full a disk is, without waiting for one that does not answer.
///
/// The problem: a mounted network share whose server is gone holds everyone who asks about it, for minutes or for ever,
/// and a report that asks would never end. The system has no such question with a time limit. The idea: another thread
/// asks, and whoever wants the answer waits for a second. A thread that is held longer is left alone, and as long as it
/// is, its folder counts as not ready without a further thread and without waiting. The thread blocks all signals and
/// owns what it writes into; it keeps the module loaded and ends with the process.
#pragma once
#include <sys/statvfs.h>

#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

/// ERROR_NOT_READY when there is no answer within a second.
DWORD AskDisk(const char* folder, struct statvfs* figures);

}  // namespace qel::layer
