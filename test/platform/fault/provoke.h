// Faults on purpose. Each function faults in a frame of its own below one that it is called from, both with a Witness.
#pragma once
#include <iosfwd>

#include "qelibaselib/platform/fault/fault.h"
#include "test/support/bad_pointer.h"
#include "test/support/sanitizer.h"

// Neither moved into the caller nor split: the fault must happen where it is written.
#define OWN_FRAME __attribute__((noipa))

namespace qel::test {

// Counts the destructors that ran.
class Witness {
 public:
  explicit Witness(int& count) : count_(count) {}
  Witness(const Witness&) = delete;
  Witness& operator=(const Witness&) = delete;
  ~Witness() { Count(count_); }

 private:
  OWN_FRAME static void Count(int& count) { ++count; }
  int& count_;
};

struct FaultKind {
  static constexpr ULONG_PTR kAny = ~ULONG_PTR{0};
  const char* name;
  void (*provoke)(int& destroyed);  // two witnesses
  DWORD code;
  DWORD parameters;           // at least
  ULONG_PTR access, address;  // the first two of them, where there are two
};
std::ostream& operator<<(std::ostream& stream, const FaultKind& kind);

extern const FaultKind kFaultKinds[];
extern const size_t kFaultKindCount;

void ReadBadAddress(int& destroyed);
// Whether a guard around such a fault catches it, with the destructors run.
bool CatchesFault();
void FaultInDestructor(int& destroyed);
void FaultInDestructorWhileUnwinding(int& destroyed);
void FaultInNoexcept(int& destroyed);
void FaultWithSmashedFrame();
void FaultWithDirectionFlag(int& destroyed);
void OverflowStack(int& destroyed);

}  // namespace qel::test
