// Stands in for what the clauses call, and notes the order. The guard itself is part of this program.
#pragma once
#include <string>
#include <vector>

#include "qelibaselib/base/source_position.h"
#include "qelibaselib/platform/fault/fault.h"

namespace qel::test {

struct Recorded {
  std::vector<std::string> steps;  // "line 10 _CATCH_SE in x.cpp", "report 10 Exception CATCH_SE in x.cpp", "deleted"
  bool hasRecord = false, hasContext = false;
  EXCEPTION_RECORD record{};
  CONTEXT context{};
  std::vector<DWORD> callers;      // what a walk along the frame pointers of the context finds
  unsigned int masksInReport = 0;  // of x87 and SSE2, both
  bool faultInLine = false, faultInReport = false, throwInReport = false;
};
extern Recorded g_recorded;

}  // namespace qel::test
