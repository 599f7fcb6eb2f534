#include "qelibaselib/qelsystembenchmark/thread_supply.h"

#include <memory>

#include "qelibaselib/platform/mfc/thread.h"

namespace qel {
namespace {

// Room in the address space for one more stack. A thread's stack may still be there for a moment after the end of the
// thread was signalled; this room is free as soon as the object has ended.
class StackReserve {
 public:
  StackReserve() = default;
  StackReserve(const StackReserve&) = delete;
  StackReserve& operator=(const StackReserve&) = delete;
  ~StackReserve() {
    if (room_) VirtualFree(room_, 0, MEM_RELEASE);
  }
  explicit operator bool() const { return room_ != nullptr; }

 private:
  static constexpr SIZE_T kBytes = 16 * 1024 * 1024;  // twice the usual stack of a thread
  void* const room_ = VirtualAlloc(nullptr, kBytes, MEM_RESERVE, PAGE_NOACCESS);
};

UINT __cdecl EndAtOnce(LPVOID) { return 0; }

std::unique_ptr<CWinThread> StartSuspended() {
  std::unique_ptr<CWinThread> thread(AfxBeginThread(&EndAtOnce, nullptr, THREAD_PRIORITY_NORMAL, 0, CREATE_SUSPENDED));
  if (thread) thread->m_bAutoDelete = FALSE;
  return thread;
}

void LetEnd(const std::unique_ptr<CWinThread>& thread) {
  if (!thread) return;
  thread->ResumeThread();
  WaitForSingleObject(thread->m_hThread, INFINITE);
}

}  // namespace

bool CanStartThreads() {
  const StackReserve reserve;
  const auto first = reserve ? StartSuspended() : nullptr;
  const auto second = first ? StartSuspended() : nullptr;
  LetEnd(first);
  LetEnd(second);
  return second != nullptr;
}

}  // namespace qel
