#include <dlfcn.h>
#include <limits.h>
#include <link.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "qelibaselib/platform/linux/handles/pseudo_handle.h"
#include "qelibaselib/platform/linux/modules/module_list.h"
#include "qelibaselib/platform/linux/threads/thread_data.h"
#include "qelibaselib/platform/linux/threads/thread_object.h"
#include "qelibaselib/platform/linux/win32/processthreadsapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr SIZE_T kLeastStackBytes = 256 * 1024;
constexpr SIZE_T kStackUnitBytes = 64 * 1024;

// A module that starts a thread may be unloaded while that thread runs its code. So each thread of CreateThread holds a
// reference to the module of its routine until everything that its end calls is done. The layer itself is never
// unloaded. Null for the program's own code, which stays anyway, and without memory.
void* HoldModuleOf(LPTHREAD_START_ROUTINE routine) {
  Dl_info info;
  void* found = nullptr;
  if (dladdr1(reinterpret_cast<void*>(routine), &info, &found, RTLD_DL_LINKMAP) == 0 || !found) return nullptr;
  const char* const name = static_cast<const link_map*>(found)->l_name;
  return name[0] ? dlopen(name, RTLD_LAZY | RTLD_NOLOAD) : nullptr;
}

struct StartedThread {
  Reference<ThreadObject> thread;
  LPTHREAD_START_ROUTINE routine;
  LPVOID argument;
  void* module;
};

void* RunThread(void* memory) {
  ThreadObject* object;
  LPTHREAD_START_ROUTINE routine;
  LPVOID argument;
  {
    const std::unique_ptr<StartedThread> start(static_cast<StartedThread*>(memory));
    object = start->thread.Detach();
    routine = start->routine;
    argument = start->argument;
    t_thread.module = start->module;
  }
  t_thread.object = object;
  t_thread.attached = true;
  ArmThreadEnd();
  object->id.store(GetCurrentThreadId());
  WakeAll(object->id, Scope::kProcess);
  while (object->suspended.load() != 0) SleepOn(object->suspended, 1, Scope::kProcess, kNever);
  NotifyModules(DLL_THREAD_ATTACH);
  object->exitCode.store(routine(argument));
  return nullptr;
}

bool StartThread(std::unique_ptr<StartedThread> start, SIZE_T stackBytes) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  bool started = true;
  if (stackBytes != 0) {
    const SIZE_T units = stackBytes / kStackUnitBytes + (stackBytes % kStackUnitBytes != 0);
    started = units <= SIZE_MAX / kStackUnitBytes &&
              pthread_attr_setstacksize(&attributes, std::max(units * kStackUnitBytes, kLeastStackBytes)) == 0;
  }
  pthread_t ignored;
  started = started && pthread_create(&ignored, &attributes, RunThread, start.get()) == 0;
  if (started)
    static_cast<void>(start.release());
  else
    ReleaseModule(start->module);
  pthread_attr_destroy(&attributes);
  return started;
}

// The object of a handle, or of the pseudo handle of the calling thread.
class ThreadTarget {
 public:
  explicit ThreadTarget(HANDLE handle)
      : pin_(handle), thread_(handle == GetCurrentThread() ? CurrentThread() : pin_.As<ThreadObject>(Kind::kThread)) {
    if (!thread_) SetLastError(ERROR_INVALID_HANDLE);
  }
  explicit operator bool() const { return thread_ != nullptr; }
  ThreadObject* operator->() const { return thread_; }

 private:
  const Pin pin_;
  ThreadObject* const thread_;
};

bool IsPriority(int priority) {
  return (priority >= THREAD_PRIORITY_LOWEST && priority <= THREAD_PRIORITY_HIGHEST) ||
         priority == THREAD_PRIORITY_IDLE || priority == THREAD_PRIORITY_TIME_CRITICAL;
}

}  // namespace

void ThreadObject::SignalEnd() {
  DWORD active = STILL_ACTIVE;
  exitCode.compare_exchange_strong(active, 0);  // of a thread that the layer did not start
  ended_.store(1);
  WakeWaitsFor(ended_, Scope::kProcess);
}

ThreadObject* CurrentThread() {
  if (!t_thread.object) {
    auto* object = new (std::nothrow) ThreadObject;
    if (!object) return nullptr;
    object->id.store(GetCurrentThreadId());
    t_thread.object = object;
    ArmThreadEnd();
  }
  return t_thread.object;
}

Object* CurrentThreadObject() { return CurrentThread(); }

}  // namespace qel::layer

using namespace qel::layer;

HANDLE CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T stackSize, LPTHREAD_START_ROUTINE routine, LPVOID argument,
                    DWORD flags, LPDWORD threadId) {
  if (!routine || (flags & ~CREATE_SUSPENDED) != 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  auto thread = Reference<ThreadObject>::Adopt(new (std::nothrow) ThreadObject);
  std::unique_ptr<StartedThread> start(thread ? new (std::nothrow) StartedThread : nullptr);
  HANDLE handle = nullptr;
  if (start) {
    thread->suspended.store(flags == CREATE_SUSPENDED);
    *start = {Reference<ThreadObject>::Share(thread.get()), routine, argument, HoldModuleOf(routine)};
    handle = InsertHandle(Reference<ThreadObject>::Share(thread.get()).Detach());
  }
  if (!handle || !StartThread(std::move(start), stackSize)) {
    if (handle) RemoveHandle(handle);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  while (thread->id.load() == 0) SleepOn(thread->id, 0, Scope::kProcess, kNever);
  if (threadId) *threadId = thread->id.load();
  return handle;
}

DWORD ResumeThread(HANDLE handle) {
  const ThreadTarget thread(handle);
  if (!thread) return static_cast<DWORD>(-1);
  const DWORD previous = thread->suspended.exchange(0);
  if (previous != 0) WakeAll(thread->suspended, Scope::kProcess);
  return previous;
}

BOOL GetExitCodeThread(HANDLE handle, LPDWORD exitCode) {
  const ThreadTarget thread(handle);
  if (!thread) return FALSE;
  // The routine's result is there before the thread has ended.
  *exitCode = thread->IsReady() ? thread->exitCode.load() : STILL_ACTIVE;
  return TRUE;
}

HANDLE GetCurrentThread() { return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-2)); }

DWORD GetCurrentThreadId() {
  if (t_thread.id == 0) t_thread.id = static_cast<DWORD>(gettid());
  return t_thread.id;
}

BOOL SetThreadPriority(HANDLE handle, int priority) {
  const ThreadTarget thread(handle);
  if (!thread) return FALSE;
  if (!IsPriority(priority)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  thread->priority.store(priority);
  return TRUE;
}

int GetThreadPriority(HANDLE handle) {
  const ThreadTarget thread(handle);
  return thread ? thread->priority.load() : THREAD_PRIORITY_ERROR_RETURN;
}

void Sleep(DWORD ms) {
  if (ms == 0) {
    sched_yield();
    return;
  }
  if (ms == INFINITE)
    for (;;) pause();
  const int64_t end = DeadlineNs(ms);
  const timespec until = {static_cast<time_t>(end / kNsPerSecond), static_cast<long>(end % kNsPerSecond)};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}
