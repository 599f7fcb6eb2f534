#include <gtest/gtest.h>

#include "test/platform/objects/handles.h"

using namespace qel::test;

namespace {

// One of each kind, by one interface.
struct Maker {
  const char* kind;
  HANDLE (*create)(const wchar_t* name);
};
HANDLE CreateNamedTimer(const wchar_t* name) {
  std::string narrow;
  for (; name && *name; ++name) narrow += static_cast<char>(*name);
  return CreateWaitableTimerA(nullptr, FALSE, narrow.empty() ? nullptr : narrow.c_str());
}
const Maker kMakers[] = {
    {"event", [](const wchar_t* name) { return CreateEventW(nullptr, FALSE, FALSE, name); }},
    {"mutex", [](const wchar_t* name) { return CreateMutexW(nullptr, FALSE, name); }},
    {"semaphore", [](const wchar_t* name) { return CreateSemaphoreW(nullptr, 0, 1, name); }},
    {"timer", &CreateNamedTimer},
};

class ObjectCreation : public testing::TestWithParam<Maker> {
 protected:
  // The result as a handle that closes itself, with the last error.
  static std::pair<Handle, DWORD> Create(const std::wstring& name) {
    return WithLastError(kUntouched, [&] { return Handle(GetParam().create(name.c_str())); });
  }
};
INSTANTIATE_TEST_SUITE_P(Kinds, ObjectCreation, testing::ValuesIn(kMakers),
                         [](const auto& info) { return std::string(info.param.kind); });

TEST_P(ObjectCreation, UnnamedObjectsAreNew) {
  for (const wchar_t* name : {static_cast<const wchar_t*>(nullptr), L""}) {
    for (int i = 0; i < 2; ++i) {
      const auto [handle, error] = WithLastError(kUntouched, [&] { return Handle(GetParam().create(name)); });
      EXPECT_TRUE(handle);
      EXPECT_EQ(error, 0u);
    }
  }
}

TEST_P(ObjectCreation, ASecondOneOfTheNameJoinsTheFirst) {
  const std::wstring name = UniqueName();
  auto [first, firstError] = Create(name);
  ASSERT_TRUE(first);
  EXPECT_EQ(firstError, 0u);
  const auto [second, secondError] = Create(L"Local\\" + name);
  ASSERT_TRUE(second);
  EXPECT_NE(static_cast<HANDLE>(first), static_cast<HANDLE>(second));
  EXPECT_EQ(secondError, ERROR_ALREADY_EXISTS);
}

TEST_P(ObjectCreation, TheNameGoesWithTheLastHandle) {
  const std::wstring name = UniqueName();
  for (int i = 0; i < 3; ++i) {
    auto [first, error] = Create(name);
    EXPECT_EQ(error, 0u);
    auto [second, secondError] = Create(name);
    EXPECT_EQ(secondError, ERROR_ALREADY_EXISTS);
    first.Close();
    EXPECT_EQ(Create(name).second, ERROR_ALREADY_EXISTS);
  }
}

TEST_P(ObjectCreation, NamesDifferByCaseAndSpace) {
  const std::wstring name = UniqueName(L"Case");
  const Handle first = GetParam().create(name.c_str());
  EXPECT_EQ(Create(L"Global\\" + name).second, 0u);
  std::wstring lower = name;
  lower[0] = L'c';
  EXPECT_EQ(Create(lower).second, 0u);
}

TEST_P(ObjectCreation, AllKindsShareOneNameSpace) {
  const std::wstring name = UniqueName();
  const auto [own, error] = Create(name);
  ASSERT_TRUE(own);
  for (const Maker& other : kMakers) {
    if (other.kind == std::string(GetParam().kind)) continue;
    SCOPED_TRACE(other.kind);
    const auto [handle, otherError] = WithLastError(kUntouched, [&] { return Handle(other.create(name.c_str())); });
    EXPECT_FALSE(handle);
    EXPECT_EQ(otherError, ERROR_INVALID_HANDLE);
  }
  EXPECT_EQ(Create(name).second, ERROR_ALREADY_EXISTS);
}

TEST_P(ObjectCreation, AClosedNameIsFreeForAnotherKind) {
  const std::wstring name = UniqueName();
  for (const Maker& maker : kMakers) {
    SCOPED_TRACE(maker.kind);
    const auto [handle, error] = WithLastError(kUntouched, [&] { return Handle(maker.create(name.c_str())); });
    EXPECT_TRUE(handle);
    EXPECT_EQ(error, 0u);
  }
}

struct BadName {
  const wchar_t* name;
  DWORD error;
};
constexpr BadName kBadNames[] = {
    {L"Local\\a\\b", ERROR_PATH_NOT_FOUND}, {L"Global\\a\\b", ERROR_PATH_NOT_FOUND},
    {L"bogus\\x", ERROR_PATH_NOT_FOUND},    {L"a\\b", ERROR_PATH_NOT_FOUND},
    {L"x\\", ERROR_PATH_NOT_FOUND},         {L"local\\x", ERROR_PATH_NOT_FOUND},
    {L"\\x", ERROR_BAD_PATHNAME},           {L"\\BaseNamedObjects\\x", ERROR_BAD_PATHNAME},
    {L"Local\\", ERROR_INVALID_NAME},       {L"Local\\\\x", ERROR_INVALID_NAME},
    {L"Local", ERROR_INVALID_HANDLE},       {L"Global", ERROR_INVALID_HANDLE},
};

TEST_P(ObjectCreation, BadNames) {
  for (const BadName& bad : kBadNames) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(bad.name)));
    const auto [handle, error] = Create(bad.name);
    EXPECT_FALSE(handle);
    EXPECT_EQ(error, bad.error);
  }
}

TEST_P(ObjectCreation, OnlyTheBackslashIsSpecial) {
  const std::wstring unique = UniqueName();
  for (const std::wstring& name : {L"a/b" + unique, L"Local\\a?b*" + unique, L"." + unique, L"<>|\":" + unique}) {
    const auto [handle, error] = Create(name);
    EXPECT_TRUE(handle);
    EXPECT_EQ(error, 0u);
  }
}

TEST(ObjectNames, LongNamesOfTheWideCalls) {
  for (const size_t length : {260, 300, 1000, 32700}) {
    SCOPED_TRACE(length);
    std::wstring name = UniqueName();
    name.resize(length, L'n');
    const auto [handle, error] =
        WithLastError(kUntouched, [&] { return Handle(CreateMutexW(nullptr, FALSE, name.c_str())); });
    EXPECT_TRUE(handle);
    EXPECT_EQ(error, 0u);
    name.back() = L'x';
    EXPECT_CALL(Handle(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str())).operator HANDLE(), nullptr, ERROR_FILE_NOT_FOUND);
  }
}

TEST(ObjectNames, LongNamesOfTheNarrowCalls) {
  std::string name(259, 'n');
  EXPECT_TRUE(Handle(CreateWaitableTimerA(nullptr, FALSE, name.c_str())));
  name += 'n';
  EXPECT_CALL(CreateWaitableTimerA(nullptr, FALSE, name.c_str()), nullptr, ERROR_FILENAME_EXCED_RANGE);
}

TEST(ObjectNames, OpeningFindsOnlyWhatExistsAndFits) {
  const std::wstring name = UniqueName();
  EXPECT_CALL(OpenEventW(EVENT_ALL_ACCESS, FALSE, name.c_str()), nullptr, ERROR_FILE_NOT_FOUND);
  const Handle mutex = CreateMutexW(nullptr, FALSE, name.c_str());
  EXPECT_CALL(OpenEventW(EVENT_ALL_ACCESS, FALSE, name.c_str()), nullptr, ERROR_INVALID_HANDLE);
  const auto [opened, error] =
      WithLastError(kUntouched, [&] { return Handle(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, name.c_str())); });
  EXPECT_TRUE(opened);
  EXPECT_EQ(error, kUntouched);
}

// What an existing object is asked for counts for nothing.
TEST(ObjectNames, AJoinedObjectKeepsItsState) {
  const std::wstring event = UniqueName(), semaphore = UniqueName();
  const Handle first = CreateEventW(nullptr, TRUE, TRUE, event.c_str());
  const Handle second = CreateEventW(nullptr, FALSE, FALSE, event.c_str());
  EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
  ASSERT_TRUE(ResetEvent(second));
  EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_TIMEOUT);

  const Handle one = CreateSemaphoreW(nullptr, 1, 1, semaphore.c_str());
  const Handle many = CreateSemaphoreW(nullptr, 5, 9, semaphore.c_str());
  EXPECT_FALSE(ReleaseSemaphore(many, 1, nullptr));
  EXPECT_EQ(WaitForSingleObject(many, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(one, 0), WAIT_TIMEOUT);
}

TEST(Semaphore, CountsOutsideTheRange) {
  EXPECT_CALL(CreateSemaphoreW(nullptr, -1, 1, nullptr), nullptr, ERROR_INVALID_PARAMETER);
  EXPECT_CALL(CreateSemaphoreW(nullptr, 2, 1, nullptr), nullptr, ERROR_INVALID_PARAMETER);
  EXPECT_CALL(CreateSemaphoreW(nullptr, 0, 0, nullptr), nullptr, ERROR_INVALID_PARAMETER);
  EXPECT_TRUE(Handle(CreateSemaphoreW(nullptr, 0, 1, nullptr)));
  EXPECT_TRUE(Handle(CreateSemaphoreW(nullptr, 0x7FFFFFFF, 0x7FFFFFFF, nullptr)));
}

}  // namespace
