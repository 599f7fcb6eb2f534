// Objects of each kind and their names.
#include "test/support/record.h"
#include "test/support/worker.h"

namespace qel::test {
namespace {

struct Kind {
  const char* name;
  HANDLE (*create)(const wchar_t* name);
};
constexpr Kind kKinds[] = {
    {"event", [](const wchar_t* name) { return CreateEventW(nullptr, FALSE, FALSE, name); }},
    {"mutex", [](const wchar_t* name) { return CreateMutexW(nullptr, FALSE, name); }},
    {"semaphore", [](const wchar_t* name) { return CreateSemaphoreW(nullptr, 0, 1, name); }},
    {"timer",
     [](const wchar_t* name) {
       const std::wstring wide = name ? name : L"";
       const std::string narrow(wide.begin(), wide.end());
       return CreateWaitableTimerA(nullptr, FALSE, narrow.empty() ? nullptr : narrow.c_str());
     }},
};

RECORD(objects, JoinedByName) {
  for (const Kind& kind : kKinds) {
    const std::wstring name = UniqueName(L"Case");
    const auto make = [&](const char* label, const std::wstring& wanted) {
      return Handle(ADD(label, kind.create(wanted.c_str())));
    };
    record.Line(kind.name);
    Handle first = make("new", name);
    const Handle second = make("joined", L"Local\\" + name);
    record.Note("another handle", HANDLE(first) != HANDLE(second));
    first.Close();
    make("still there", name);
    make("another space", L"Global\\" + name);
    make("another case", L"c" + name.substr(1));
    record.Line("without a name");
    for (const wchar_t* name : {static_cast<const wchar_t*>(nullptr), L""}) Handle(ADD(kind.name, kind.create(name)));
  }
}

RECORD(objects, OneNameSpace) {
  const std::wstring name = UniqueName();
  for (const Kind& kind : kKinds) {
    record.Line(kind.name);
    const Handle own = ADD("own", kind.create(name.c_str()));
    for (const Kind& other : kKinds) Handle(ADD(other.name, other.create(name.c_str())));
  }
}

RECORD(objects, Names) {
  for (const Kind& kind : {kKinds[0], kKinds[3]}) {  // by wide and by narrow names
    record.Line(kind.name);
    for (const wchar_t* name : {L"Local\\a\\b", L"Global\\a\\b", L"bogus\\x", L"a\\b", L"x\\", L"local\\x", L"\\x",
                                L"\\BaseNamedObjects\\x", L"Local\\", L"Local\\\\x", L"Local", L"Global"})
      Handle(ADD(name, kind.create(name)));
    for (const wchar_t* name : {L"a/b", L"Local\\a?b*", L".", L"<>|\":"})
      Handle(ADD(name, kind.create((name + UniqueName()).c_str())));
  }
}

RECORD(objects, LongNames) {
  for (const size_t length : {260, 300, 1000, 32700}) {
    std::wstring name = UniqueName();
    name.resize(length, L'n');
    record.Line(length);
    const Handle mutex = ADD("made", CreateMutexW(nullptr, FALSE, name.c_str()));
    Handle(ADD("opened", OpenMutexW(SYNCHRONIZE, FALSE, name.c_str())));
    name.back() = L'x';
    ADD("another", OpenMutexW(SYNCHRONIZE, FALSE, name.c_str()));
  }
  Handle(CALL(CreateWaitableTimerA(nullptr, FALSE, std::string(259, 'n').c_str())));
  CALL(CreateWaitableTimerA(nullptr, FALSE, std::string(260, 'n').c_str()));
}

RECORD(objects, Opening) {
  const std::wstring unique = UniqueName();
  const wchar_t* const name = unique.c_str();
  CALL(OpenEventW(EVENT_ALL_ACCESS, FALSE, name));
  const Handle mutex = CreateMutexW(nullptr, FALSE, name);
  CALL(OpenEventW(EVENT_ALL_ACCESS, FALSE, name));
  Handle(CALL(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, name)));
  CALL(OpenEventW(EVENT_ALL_ACCESS, FALSE, L""));
  CALL(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, nullptr));
}

// What an existing object is asked for counts for nothing.
RECORD(objects, JoinedObjectsKeepTheirState) {
  const std::wstring event = UniqueName(), semaphore = UniqueName();
  const Handle first = CreateEventW(nullptr, TRUE, TRUE, event.c_str());
  const Handle second = CreateEventW(nullptr, FALSE, FALSE, event.c_str());
  CALL(WaitForSingleObject(second, 0));
  CALL(WaitForSingleObject(second, 0));
  CALL(ResetEvent(second));
  CALL(WaitForSingleObject(first, 0));
  const Handle one = CreateSemaphoreW(nullptr, 1, 1, semaphore.c_str());
  const Handle many = CreateSemaphoreW(nullptr, 5, 9, semaphore.c_str());
  CALL(ReleaseSemaphore(many, 1, nullptr));
  CALL(WaitForSingleObject(many, 0));
  CALL(WaitForSingleObject(one, 0));
}

}  // namespace
}  // namespace qel::test
