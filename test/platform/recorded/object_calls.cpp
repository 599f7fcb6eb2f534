// Handles, objects, waits, threads.
#include "test/platform/recorded/bind_call.h"
#include "test/support/handle.h"

namespace qel::test {
namespace {

DWORD WINAPI ReturnAtOnce(void*) { return 0; }

const CallRegistration kCalls([](auto& calls) {
  constexpr Closer kClose = [](void* handle) { CloseHandle(handle); };
  calls["duplicate"] = BindLambda(
      [](HANDLE handle, DWORD options) {
        HANDLE copy = nullptr;
        DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &copy, 0, FALSE, options);
        return copy;
      },
      kClose);
  // Suspended; resumed and waited for at the end.
  calls["thread-handle"] =
      BindLambda([] { return CreateThread(nullptr, 0, &ReturnAtOnce, nullptr, CREATE_SUSPENDED, nullptr); },
                 [](void* thread) {
                   ResumeThread(thread);
                   WaitForSingleObject(thread, INFINITE);
                   CloseHandle(thread);
                 });
  calls["CloseHandle"] = [close = BindLambda([](HANDLE handle) { return CloseHandle(handle); })](
                             CallScope& scope, const std::vector<std::string>& words) {
    scope.Forget(scope.Value<void*>(words[1]));
    return close(scope, words);
  };
  calls["GetCurrentThread"] = BindLambda([] { return reinterpret_cast<INT_PTR>(GetCurrentThread()); });
  BIND(CancelWaitableTimer);
  BIND(CreateEventW, kClose);
  BIND(CreateMutexW, kClose);
  BIND(CreateSemaphoreW, kClose);
  BIND(CreateWaitableTimerA, kClose);
  BIND(GetCurrentProcess);
  BIND(GetThreadPriority);
  BIND(OpenEventW, kClose);
  BIND(OpenMutexW, kClose);
  BIND(ReleaseMutex);
  BIND(ReleaseSemaphore);
  BIND(ResetEvent);
  BIND(ResumeThread);
  BIND(SetEvent);
  BIND(SetThreadPriority);
  BIND(SetWaitableTimer);
  BIND(TlsAlloc);
  BIND(TlsFree);
  BIND(TlsGetValue);
  BIND(TlsSetValue);
  BIND(WaitForMultipleObjects);
  BIND(WaitForSingleObject);
});

}  // namespace
}  // namespace qel::test
