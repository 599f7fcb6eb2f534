// The guard as every export has it, without its logging: for measuring what entering and leaving costs.
#pragma once
#include "qelibaselib/platform/fault/fault.h"
#include "qelibaselib/platform/mfc/exception.h"

namespace bench {

template <class Body>
inline bool Guarded(Body&& body) {
  try {
    fault::Run(body);
    return true;
  } catch (const CSE&) {
  } catch (CException*) {
  } catch (...) {
  }
  return false;
}

}  // namespace bench
