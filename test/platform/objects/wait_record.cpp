// Waits, events, semaphores, timers, and handles that are none.
#include <vector>

#include "test/support/record.h"
#include "test/support/worker.h"

namespace qel::test {
namespace {

HANDLE ClosedHandle() {
  HANDLE handle = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  CloseHandle(handle);
  return handle;
}
HANDLE Garbage() { return reinterpret_cast<HANDLE>(0x1234560); }

RECORD(objects, PseudoHandles) {
  const Handle event = NewEvent(true, true);
  CALL(WaitForSingleObject(event, 0));
  ResetEvent(event);
  CALL(GetCurrentProcess());
  record.Note("thread", Hex{static_cast<DWORD>(reinterpret_cast<uintptr_t>(GetCurrentThread()))});
  CALL(CloseHandle(GetCurrentProcess()));
  CALL(CloseHandle(GetCurrentThread()));
  for (HANDLE handle : {HANDLE(event), GetCurrentProcess(), GetCurrentThread()}) {
    record.Line("waits");
    for (const DWORD limit : Numbers{0, 20}) ADD(limit, WaitForSingleObject(handle, limit));
  }
}

RECORD(objects, HandlesOfTheWrongKind) {
  const Handle event = NewEvent(), mutex = CreateMutexW(nullptr, FALSE, nullptr);
  const std::pair<const char*, HANDLE> handles[] = {
      {"null", nullptr}, {"garbage", Garbage()}, {"closed", ClosedHandle()}, {"event", event}, {"mutex", mutex}};
  LARGE_INTEGER due = {};
  for (const auto& [name, handle] : handles) {
    const bool isNone = handle != event && handle != mutex;
    record.Line(name);
    if (isNone) ADD("wait", WaitForSingleObject(handle, 0));
    if (handle != event) ADD("set", SetEvent(handle));
    if (handle != event) ADD("reset", ResetEvent(handle));
    if (handle != mutex) ADD("release", ReleaseMutex(handle));
    ADD("count", ReleaseSemaphore(handle, 1, nullptr));
    ADD("arm", SetWaitableTimer(handle, &due, 0, nullptr, nullptr, FALSE));
    ADD("cancel", CancelWaitableTimer(handle));
    if (isNone) ADD("close", CloseHandle(handle));
  }
}

RECORD(objects, Events) {
  for (const bool manual : {false, true}) {
    const Handle event = NewEvent(manual, true);
    record.Line(manual ? "manual" : "single");
    for (int i = 0; i < 2; ++i) ADD("wait", WaitForSingleObject(event, 0));
    ADD("set", SetEvent(event));
    ADD("set", SetEvent(event));
    for (int i = 0; i < 2; ++i) ADD("wait", WaitForSingleObject(event, 0));
    ADD("reset", ResetEvent(event));
    ADD("wait", WaitForSingleObject(event, 0));
  }
}

RECORD(objects, Semaphores) {
  LONG previous = -1;
  Handle semaphore = CreateSemaphoreW(nullptr, 2, 3, nullptr);
  record.Line("2 of 3");
  for (const LONG count : {2, 1}) {
    ADD(count, ReleaseSemaphore(semaphore, count, &previous));
    record.Note("before", previous);
  }
  for (int i = 0; i < 4; ++i) ADD("wait", WaitForSingleObject(semaphore, 0));
  semaphore = CreateSemaphoreW(nullptr, 0, 1, nullptr);
  record.Line("0 of 1");
  for (const LONG count : {0, -1}) ADD(count, ReleaseSemaphore(semaphore, count, nullptr));
  ADD("wait", WaitForSingleObject(semaphore, 0));
  const std::pair<LONG, LONG> counts[] = {{-1, 1}, {2, 1}, {0, 0}, {0x7FFFFFFF, 0x7FFFFFFF}};
  for (const auto& [initial, maximum] : counts) {
    record.Line("new", initial, maximum);
    Handle(ADD("made", CreateSemaphoreW(nullptr, initial, maximum, nullptr)));
  }
}

RECORD(objects, WaitForAny) {
  const Handle first = NewEvent(), second = NewEvent(false, true), third = CreateSemaphoreW(nullptr, 1, 1, nullptr);
  const HANDLE handles[] = {first, second, third};
  CALL(WaitForMultipleObjects(3, handles, FALSE, kLongMs));
  CALL(WaitForMultipleObjects(3, handles, FALSE, kLongMs));
  CALL(WaitForMultipleObjects(3, handles, FALSE, 0));
  CALL(WaitForMultipleObjects(3, handles, FALSE, 20));
}

RECORD(objects, WaitForAll) {
  const Handle first = NewEvent(false, true), second = NewEvent(), mutex = CreateMutexW(nullptr, FALSE, nullptr);
  const HANDLE handles[] = {first, mutex, second};
  CALL(WaitForMultipleObjects(3, handles, TRUE, 0));
  CALL(ReleaseMutex(mutex));
  CALL(WaitForSingleObject(first, 0));
  SetEvent(first);
  Worker setter([&]() -> DWORD { return SetEvent(second); });
  CALL(WaitForMultipleObjects(3, handles, TRUE, kLongMs));
  CALL(ReleaseMutex(mutex));
  CALL(WaitForSingleObject(first, 0));
  CALL(WaitForSingleObject(second, 0));
}

RECORD(objects, WaitForSeveralRefuses) {
  const Handle event = NewEvent(true, true);
  std::vector<HANDLE> handles(MAXIMUM_WAIT_OBJECTS + 1, event);
  record.Line("count");
  for (const DWORD count : Numbers{0, 64, 65}) ADD(count, WaitForMultipleObjects(count, handles.data(), FALSE, 0));
  record.Line("one twice");
  ADD("any", WaitForMultipleObjects(2, handles.data(), FALSE, 0));
  ADD("all", WaitForMultipleObjects(2, handles.data(), TRUE, 0));
  handles[2] = nullptr;
  ADD("and a bad one", WaitForMultipleObjects(3, handles.data(), TRUE, 0));
  handles[1] = nullptr;
  CALL(WaitForMultipleObjects(2, handles.data(), FALSE, 0));
}

RECORD(objects, Duplicates) {
  const HANDLE process = GetCurrentProcess();
  for (const DWORD options : Numbers{DUPLICATE_SAME_ACCESS, DUPLICATE_SAME_ACCESS | DUPLICATE_CLOSE_SOURCE}) {
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE copy = nullptr;
    record.Line("options", options);
    ADD("made", DuplicateHandle(process, event, process, &copy, 0, FALSE, options));
    const Handle owner = copy;
    if (options == DUPLICATE_SAME_ACCESS) {
      ADD("set", SetEvent(event));
      ADD("close", CloseHandle(event));
    }
    record.Note("source is closed", event == copy || !CloseHandle(event));
    ADD("wait", WaitForSingleObject(copy, 0));
  }
  HANDLE copy = Garbage();
  CALL(DuplicateHandle(process, Garbage(), process, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS));
  record.Note("copy", copy);
}

// A due time that has passed signals at once.
RECORD(objects, Timers) {
  const Handle timer = CreateWaitableTimerA(nullptr, FALSE, nullptr);
  for (const LONGLONG units : {0, -1, 1}) {
    LARGE_INTEGER due;
    due.QuadPart = units;
    record.Line("due", units);
    ADD("arm", SetWaitableTimer(timer, &due, 0, nullptr, nullptr, FALSE));
    ADD("wait", WaitForSingleObject(timer, kLongMs));
    ADD("wait", WaitForSingleObject(timer, 10));
  }
  const Handle event = NewEvent();
  const HANDLE handles[] = {event, timer};
  LARGE_INTEGER due;
  due.QuadPart = -50'000;
  record.Line("among events");
  ADD("arm", SetWaitableTimer(timer, &due, 0, nullptr, nullptr, FALSE));
  ADD("any", WaitForMultipleObjects(2, handles, FALSE, INFINITE));
  due.QuadPart = 0;
  ADD("arm", SetWaitableTimer(timer, &due, 0, nullptr, nullptr, FALSE));
  ADD("set", SetEvent(event));
  for (int i = 0; i < 2; ++i) ADD("any", WaitForMultipleObjects(2, handles, FALSE, INFINITE));
  due.QuadPart = -200'000;
  record.Line("cancelled");
  ADD("arm", SetWaitableTimer(timer, &due, 20, nullptr, nullptr, FALSE));
  ADD("cancel", CancelWaitableTimer(timer));
  ADD("wait", WaitForSingleObject(timer, 50));
  ADD("period -1", SetWaitableTimer(timer, &due, -1, nullptr, nullptr, FALSE));
}

RECORD(objects, ThreadPriorities) {
  Worker worker([]() -> DWORD { return 0; }, CREATE_SUSPENDED);
  record.Line("allowed");
  for (int priority = -20; priority <= 31; ++priority) {
    if (SetThreadPriority(worker.handle(), priority))
      ADD(priority, GetThreadPriority(worker.handle()));
    else if (GetLastError() != ERROR_INVALID_PARAMETER)
      record.Note(priority, GetLastError());
  }
  CALL(SetThreadPriority(worker.handle(), 3));
  CALL(GetThreadPriority(worker.handle()));
  CALL(SetThreadPriority(nullptr, 0));
  CALL(GetThreadPriority(nullptr));
  CALL(ResumeThread(worker.handle()));
  CALL(ResumeThread(nullptr));
}

RECORD(objects, ThreadLocalSlots) {
  int here = 0;
  const DWORD slot = TlsAlloc();
  CALL(TlsGetValue(slot));
  CALL(TlsSetValue(slot, &here));
  CALL(TlsGetValue(slot) == &here);
  CALL(TlsFree(slot));
  CALL(TlsFree(slot));
  CALL(TlsGetValue(slot));
  CALL(TlsSetValue(slot, nullptr));
  CALL(TlsAlloc() == slot);
  CALL(TlsGetValue(slot));
  CALL(TlsFree(slot));
  for (const DWORD none : Numbers{1088, TLS_OUT_OF_INDEXES}) {
    record.Line("slot", none);
    ADD("value", TlsGetValue(none));
    ADD("set", TlsSetValue(none, nullptr));
    ADD("free", TlsFree(none));
  }
}

}  // namespace
}  // namespace qel::test
