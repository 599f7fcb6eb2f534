/// @file
/// What the walk of a stack tells the search for symbols.
///
/// The room modules/ holds what is known about loaded modules and the files of modules: their list and threads' calls
/// to them, symbols, the walk of a stack, version resources. docs/arrows.txt has the rooms that it uses.
#pragma once
#include "qelibaselib/platform/linux/win32/windef.h"

struct CONTEXT;

namespace qel::layer {

/// Whether the frame that this thread's walk found last stands at the address behind a call. The call may be the last
/// instruction of its function, so the function is the one that the byte before lies in.
bool IsReturnAddressOfWalk(DWORD address);

/// Keeps the registers of a fault of this thread. A walk is told three of them only; one that starts at this place then
/// knows the others, which a function may use for finding its caller while it makes its frame. No lock, for the
/// handler.
void RememberFault(const CONTEXT& context);

}  // namespace qel::layer
