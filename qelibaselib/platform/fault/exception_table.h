/// @file
/// The tables that the compiler writes for the C++ runtime: which instruction of a function may throw.
#pragma once
#include <unwind.h>

namespace fault {

/// Whether an exception may pass the frame. The C++ runtime ends the process at an instruction that no entry of the
/// frame's table covers: in a noexcept function, in a prologue, at a call that the compiler takes for one that never
/// throws.
bool MayPass(_Unwind_Context* context);

}  // namespace fault
