/// @file
/// Processes as objects: the own one, and those that the layer started.
///
/// The room processes/ holds them, the calls that start and end them, the reading of command lines, and the events that
/// a started process inherits. It may use base/, handles/ and objects/.
#pragma once
#include <sys/types.h>

#include "qelibaselib/platform/linux/base/forked_part.h"
#include "qelibaselib/platform/linux/objects/waitable.h"

namespace qel::layer {

/// A child stays in the kernel's table until its exit code is collected; its number is the child's only until then. So
/// one lock of the process stands around every collecting and every signal to a child. A child whose last handle is
/// closed before it ends is collected when the next one is.
class ProcessObject final : public Waitable {
 public:
  /// 0: the own process.
  explicit ProcessObject(pid_t child) : Waitable(Kind::kProcess), child_(child) {}
  Taken TryTake() override { return IsReady() ? Taken::kYes : Taken::kNo; }
  bool IsReady() override;
  void PutBack(Taken) override {}
  Word& word() override { return ended_; }
  bool ChangesFromOutside() override { return child_ != 0; }
  Taken Wait(int64_t deadlineNs) override;
  /// Ends the process, which has `exitCode` from then on. False when it has ended already.
  bool Kill(DWORD exitCode);
  DWORD ExitCode();
  pid_t child() const { return child_; }

 private:
  ~ProcessObject() override;
  bool CollectIfEnded();

  const pid_t child_;
  bool killed_ = false;
  DWORD exitCode_ = 0;
  Word ended_{0};
};

/// Lives for ever.
ProcessObject* CurrentProcess();

/// In a forked child.
void ForgetProcessId();

/// In a forked child the children are its parent's.
extern const ForkedPart kChildrenAtFork;

}  // namespace qel::layer
