#include "qelibaselib/base/floating_point_guard.h"

#include <array>

namespace {
constexpr unsigned int kAllExceptions = _MCW_EM;
constexpr std::array<unsigned int, 6> kExceptions = {_EM_INVALID,  _EM_DENORMAL,  _EM_ZERODIVIDE,
                                                     _EM_OVERFLOW, _EM_UNDERFLOW, _EM_INEXACT};
enum Flag { kTraps = 0, kMasked = 1, kAsItIs = 2 };
}  // namespace

CNdpCtrl87::CNdpCtrl87(int invalid, int denormal, int zeroDivide, int overflow, int underflow, int inexact) {
  _clearfp();
  if (__control87_2(0, 0, &savedX87_, &savedSse2_) == 1) saved_ = TRUE;
  if (saved_) {
    static const std::array<int, kExceptions.size()> flags = {invalid,  denormal,  zeroDivide,
                                                              overflow, underflow, inexact};
    unsigned int masks = kAllExceptions;
    unsigned int changed = kAllExceptions;
    for (size_t i = 0; i < flags.size(); ++i) {
      if (flags[i] == kAsItIs) changed &= ~kExceptions[i];
      if (flags[i] == kTraps) masks &= ~kExceptions[i];
    }
    __control87_2(masks, changed, &newX87_, &newSse2_);
  }
  _clearfp();
}

// Both units get back the masks that x87 had.
CNdpCtrl87::~CNdpCtrl87() {
  _clearfp();
  if (saved_) {
    unsigned int x87 = 0;
    unsigned int sse2 = 0;
    __control87_2(savedX87_, kAllExceptions, &x87, &sse2);
  }
  _clearfp();
}
