/// @file
/// Which floating-point exceptions trap, for a scope.
#pragma once
#include "qelibaselib/platform/win32.h"

/// Sets the exception masks of x87 and SSE2; at its end both have the masks that x87 had before. Pending exceptions are
/// discarded both times. A flag of 1 masks the exception (no trap), 0 lets it trap, 2 leaves it as it is.
///
/// The flags of the first object of the process hold for all later ones, whatever these are given.
class CNdpCtrl87 {
 public:
  CNdpCtrl87(int invalid, int denormal, int zeroDivide, int overflow, int underflow, int inexact);
  CNdpCtrl87(const CNdpCtrl87&) = delete;
  CNdpCtrl87& operator=(const CNdpCtrl87&) = delete;
  virtual ~CNdpCtrl87();

 private:
  BOOL saved_ = FALSE;
  unsigned int savedX87_ = 0, newX87_ = 0;
  unsigned int savedSse2_ = 0, newSse2_ = 0;
};
