/// @file
/// Threads as objects, also those that the layer did not start.
#pragma once
#include "qelibaselib/platform/linux/objects/waitable.h"
#include "qelibaselib/platform/linux/win32/processthreadsapi.h"

namespace qel::layer {

class ThreadObject final : public Waitable {
 public:
  ThreadObject() : Waitable(Kind::kThread) {}
  Taken TryTake() override { return IsReady() ? Taken::kYes : Taken::kNo; }
  bool IsReady() override { return ended_.load() != 0; }
  void PutBack(Taken) override {}
  Word& word() override { return ended_; }
  /// Called on the thread itself when nothing of it is left to do.
  void SignalEnd();

  Word id{0};  ///< the kernel's; 0 until the thread runs
  std::atomic<DWORD> exitCode{STILL_ACTIVE};
  std::atomic<int> priority{THREAD_PRIORITY_NORMAL};
  Word suspended{0};  ///< 1 until it is resumed

 private:
  Word ended_{0};
};

/// The calling thread's object, which the thread itself keeps alive. Null when memory is out.
ThreadObject* CurrentThread();

}  // namespace qel::layer
