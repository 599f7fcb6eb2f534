/// @file
/// The place in the source that a log line names.
#pragma once

namespace qel {

/// Where a call came from. `sourceFile` is not owned and is read only when a line is written; it may be null or bad
/// when a host passes it so.
struct SourcePosition {
  int line;
  const char* sourceFile;
};

}  // namespace qel

/// The place where this stands.
#define QEL_HERE (::qel::SourcePosition{__LINE__, __FILE__})
