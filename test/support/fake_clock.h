// A clock that only sleeping moves: Sleep and GetTickCount of the library together, or a retry by ticks would spin for
// its real time.
#pragma once
#include <vector>

#include "test/support/replace_call.h"

namespace qel::test {

class FakeClock {
 public:
  std::vector<DWORD> Sleeps() const { return sleeps_; }
  DWORD now = 1000000;

 private:
  std::vector<DWORD> sleeps_;
  StandIn<"Sleep", decltype(&::Sleep)> sleep_{[this](int, DWORD ms) {
    sleeps_.push_back(ms);
    now += ms;
  }};
  StandIn<"GetTickCount", decltype(&::GetTickCount)> ticks_{[this](int) { return now; }};
};

}  // namespace qel::test
