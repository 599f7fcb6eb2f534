/// @file
/// The modules that are told of threads.
#pragma once
#include "qelibaselib/platform/linux/base/forked_part.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

/// Calls every registered module: DLL_THREAD_ATTACH in the order of registration, DLL_THREAD_DETACH against it.
void NotifyModules(DWORD reason);

extern const ForkedPart kModuleListAtFork;

}  // namespace qel::layer
