// Who owns a mutex, how often, and until when.
#include "test/support/record.h"
#include "test/support/worker.h"

namespace qel::test {
namespace {

DWORD WaitOnThread(HANDLE mutex) {
  return Worker([mutex] { return WaitForSingleObject(mutex, 0); }).Join();
}
DWORD ReleaseOnThread(HANDLE mutex) {
  return Worker([mutex]() -> DWORD { return ReleaseMutex(mutex) ? 0 : GetLastError(); }).Join();
}

RECORD(objects, MutexIsReleasedAsOftenAsTaken) {
  for (const BOOL initial : {TRUE, FALSE}) {
    const Handle mutex = CreateMutexW(nullptr, initial, nullptr);
    record.Line("initial owner", initial);
    for (int i = initial; i < 3; ++i) ADD("wait", WaitForSingleObject(mutex, 0));
    for (int i = 0; i < 3; ++i) {
      ADD("another waits", WaitOnThread(mutex));
      ADD("releases", ReleaseOnThread(mutex));
      ADD("release", ReleaseMutex(mutex));
    }
    ADD("release", ReleaseMutex(mutex));
    ADD("another waits", WaitOnThread(mutex));
  }
}

// Nesting counts over all handles of a name; who joins as initial owner owns nothing.
RECORD(objects, HandlesOfANameAreOneMutex) {
  const std::wstring name = UniqueName();
  const Handle first = CreateMutexW(nullptr, TRUE, name.c_str());
  const Handle second = OpenMutexW(MUTEX_ALL_ACCESS, FALSE, name.c_str());
  CALL(WaitForSingleObject(second, 0));
  CALL(ReleaseMutex(first));
  CALL(ReleaseMutex(first));
  CALL(ReleaseMutex(second));
  const Handle joined = CreateMutexW(nullptr, TRUE, name.c_str());
  CALL(ReleaseMutex(joined));
  CALL(WaitOnThread(first));
}

RECORD(objects, MutexIsGivenUpByTheEndOfItsThread) {
  const Handle event = NewEvent();
  const std::wstring unique = UniqueName();
  for (const wchar_t* name : {static_cast<const wchar_t*>(nullptr), unique.c_str()}) {
    const Handle mutex = CreateMutexW(nullptr, FALSE, name);
    const HANDLE handles[] = {event, mutex};
    record.Line(name ? "named" : "unnamed");
    ADD("another waits", WaitOnThread(mutex));
    ADD("wait", WaitForSingleObject(mutex, kLongMs));
    ADD("release", ReleaseMutex(mutex));
    ADD("another waits", WaitOnThread(mutex));
    ADD("any", WaitForMultipleObjects(2, handles, FALSE, kLongMs));
    ADD("release", ReleaseMutex(mutex));
    ADD("any", WaitForMultipleObjects(2, handles, FALSE, kLongMs));
    ADD("release", ReleaseMutex(mutex));
    ADD("release", ReleaseMutex(mutex));
  }
}

// The last handle may be closed by the owner: what others join is still owned, and given up by the thread's end.
RECORD(objects, ClosingDoesNotRelease) {
  const std::wstring name = UniqueName();
  const Handle other = CreateMutexW(nullptr, FALSE, name.c_str());
  Worker([&]() -> DWORD {
    Handle mutex = OpenMutexW(MUTEX_ALL_ACCESS, FALSE, name.c_str());
    WaitForSingleObject(mutex, 0);
    mutex.Close();
    return CALL(WaitOnThread(other));
  });
  CALL(WaitForSingleObject(other, 0));
  CALL(ReleaseMutex(other));
}

// The object is gone with its last handle, owned or not; its owner's thread goes on and ends as if nothing were.
RECORD(objects, ANameEndsWithItsLastHandleAlsoWhileOwned) {
  const std::wstring unique = UniqueName();
  const wchar_t* const name = unique.c_str();
  Worker([&]() -> DWORD {
    for (int i = 0; i < 3; ++i) {
      record.Line("owned and closed");
      const Handle another = CreateMutexW(nullptr, TRUE, nullptr);
      Handle(ADD("made", CreateMutexW(nullptr, TRUE, name))).Close();
      ADD("opened", OpenMutexW(MUTEX_ALL_ACCESS, FALSE, name));
      const Handle again = ADD("again", CreateMutexW(nullptr, FALSE, name));
      ADD("release", ReleaseMutex(again));
      ADD("another waits", WaitOnThread(again));
      ADD("another mutex", ReleaseMutex(another));
    }
    Handle(CreateMutexW(nullptr, TRUE, name)).Close();
    return 0;
  });
  record.Line("afterwards");
  Handle(ADD("event", CreateEventW(nullptr, FALSE, FALSE, name)));
  const Handle mutex = ADD("mutex", CreateMutexW(nullptr, FALSE, name));
  ADD("wait", WaitForSingleObject(mutex, 0));
  ADD("release", ReleaseMutex(mutex));
}

}  // namespace
}  // namespace qel::test
