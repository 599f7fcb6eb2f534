/// @file
/// What the library keeps for each thread that calls it.
#pragma once
#include "qelibaselib/base/source_position.h"
#include "qelibaselib/settings/flush_statistics.h"

namespace qel {

struct ThreadRecord {
  static constexpr std::size_t kSourceFileBytes = 260;
  DWORD threadId;
  char sourceFile[kSourceFileBytes];  ///< the last one that the thread registered
  int line;
  int ompThreadCount;  ///< for the thread's parallel regions
  T_FVOF_INFORMATION flushStatistics;
};

/// The calling thread's record, made if need be; the last error stays. Null when it cannot be made: an assertion line
/// is written and the last error says why.
ThreadRecord* GetThreadRecord();
/// Frees the calling thread's record, if it has one.
void FreeThreadRecord();
/// Gives the slot of all records back.
void FreeThreadRecordSlot();

/// Keeps a position in the calling thread's record for its scope, the name cut to 259 characters, and nothing after it.
/// Without a record an assertion line tells the last error as it was before, at the begin and at the end.
class ScopedSourcePosition {
 public:
  explicit ScopedSourcePosition(SourcePosition position);
  ScopedSourcePosition(const ScopedSourcePosition&) = delete;
  ScopedSourcePosition& operator=(const ScopedSourcePosition&) = delete;
  ~ScopedSourcePosition();

 private:
  ThreadRecord* const record_;
};

/// What a record holds while nothing is registered.
inline constexpr char kNoSourceFile[] = "????????.???";
inline constexpr SourcePosition kNoSourcePosition{0, kNoSourceFile};

/// The position that the calling thread registered last, the name inside the thread's record. Without a record an
/// assertion line is written and `position` stays as it is.
void GetRegisteredSourcePosition(SourcePosition& position);

}  // namespace qel
