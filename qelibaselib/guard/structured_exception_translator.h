/// @file
/// The translator of structured exceptions, for the scope of a thread body.
#pragma once
#include "qelibaselib/platform/fault/fault.h"

/// While it lives, a fault on this thread is a CSE to the catch clauses; before and after, only `catch (...)` takes it.
/// Stands at the top of each thread body that the library runs itself.
class CSEREG {
 public:
  CSEREG() : installed_(TRUE), previous_(fault::SetTranslator(&fault::ThrowCse)) { fault::ClaimHandlers(); }
  CSEREG(const CSEREG&) = delete;
  CSEREG& operator=(const CSEREG&) = delete;
  virtual ~CSEREG() {
    if (installed_) fault::SetTranslator(previous_);
  }

 private:
  BOOL installed_;
  fault::Translator previous_;
};
