/// @file
/// Processes as objects: the own one, and those that the layer started.
#pragma once
#include <sys/types.h>

#include <mutex>

#include "qelibaselib/platform/linux/objects/waitable.h"

namespace qel::layer {

class Process final : public Waitable {
 public:
  /// 0: the own process.
  explicit Process(pid_t child);
  Taken TryTake() override { return IsReady() ? Taken::kYes : Taken::kNo; }
  bool IsReady() override;
  void PutBack(Taken) override {}
  Word& word() override { return ended_; }
  bool ChangesFromOutside() override { return child_ != 0; }
  Taken Wait(int64_t deadlineNs) override;
  /// False when it has ended already.
  bool Kill(DWORD exitCode);
  DWORD ExitCode();
  pid_t child() const { return child_; }

 private:
  ~Process() override;
  bool Collect();

  const pid_t child_;
  int descriptor_ = -1;  // readable when the child has ended; -1 where the kernel has none
  std::mutex gate_;      // the number is the child's until it is collected
  bool killed_ = false;
  DWORD exitCode_ = 0;
  Word ended_{0};
};

/// Lives for ever.
Process* CurrentProcess();

/// In a forked child.
void ForgetProcessId();

}  // namespace qel::layer
