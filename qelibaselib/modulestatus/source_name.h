/// @file
/// The source name that goes with the fixed line numbers of this subsystem.
#pragma once
#include "qelibaselib/base/source_position.h"

namespace qel::report {

/// The line numbers beside this name are fixed, so that support can look them up whatever the version: they are no
/// lines of today's sources.
inline constexpr char kSourceName[] = "modulestatus.cpp";

inline constexpr SourcePosition FixedPosition(int line) { return {line, kSourceName}; }

}  // namespace qel::report
