#include "qelibaselib/qelsystembenchmark/thread_supply.h"

#include <memory>

#include "qelibaselib/platform/mfc/thread.h"

namespace qel {
namespace {

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
  const auto first = StartSuspended();
  const auto second = first ? StartSuspended() : nullptr;
  LetEnd(first);
  LetEnd(second);
  return second != nullptr;
}

}  // namespace qel
