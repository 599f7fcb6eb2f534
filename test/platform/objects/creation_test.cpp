#include <gtest/gtest.h>

#include "test/platform/objects/handles.h"

using namespace qel::test;

namespace {

// One of each kind, by one interface.
struct Maker {
  const char* kind;
  HANDLE (*create)(const wchar_t* name);
};
const Maker kMakers[] = {
    {"event", [](const wchar_t* name) { return CreateEventW(nullptr, FALSE, FALSE, name); }},
    {"mutex", [](const wchar_t* name) { return CreateMutexW(nullptr, FALSE, name); }},
    {"semaphore", [](const wchar_t* name) { return CreateSemaphoreW(nullptr, 0, 1, name); }},
    {"timer",
     [](const wchar_t* name) {
       return CreateWaitableTimerA(nullptr, FALSE, name && *name ? Narrow(name).c_str() : nullptr);
     }},
};

struct Created {
  Handle handle;
  DWORD error;
};
// There is a handle unless the error is one.
Created CreateBy(const Maker& maker, const wchar_t* name) {
  SetLastError(kUntouched);
  Handle handle = maker.create(name);
  const DWORD error = GetLastError();
  EXPECT_EQ(handle != nullptr, error == ERROR_SUCCESS || error == ERROR_ALREADY_EXISTS) << maker.kind;
  return {std::move(handle), error};
}

class ObjectCreation : public testing::TestWithParam<Maker> {
 protected:
  static Created Create(const std::wstring& name) { return CreateBy(GetParam(), name.c_str()); }
};
INSTANTIATE_TEST_SUITE_P(Kinds, ObjectCreation, testing::ValuesIn(kMakers),
                         [](const auto& info) { return std::string(info.param.kind); });

TEST_P(ObjectCreation, UnnamedObjectsAreNew) {
  for (const wchar_t* name : {static_cast<const wchar_t*>(nullptr), L"", L""})
    EXPECT_EQ(CreateBy(GetParam(), name).error, 0u);
}

TEST_P(ObjectCreation, ANameIsJoinedUntilItsLastHandleGoes) {
  const std::wstring name = UniqueName(L"Case");
  for (int i = 0; i < 3; ++i) {
    auto [first, firstError] = Create(name);
    EXPECT_EQ(firstError, 0u);
    const auto [second, secondError] = Create(L"Local\\" + name);
    EXPECT_EQ(secondError, ERROR_ALREADY_EXISTS);
    EXPECT_NE(static_cast<HANDLE>(first), static_cast<HANDLE>(second));
    first.Close();
    EXPECT_EQ(Create(name).error, ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Create(L"Global\\" + name).error, 0u) << "another space";
    EXPECT_EQ(Create(L"c" + name.substr(1)).error, 0u) << "another case";
  }
}

TEST_P(ObjectCreation, AllKindsShareOneNameSpace) {
  const std::wstring name = UniqueName();
  for (const Maker& maker : kMakers) EXPECT_EQ(CreateBy(maker, name.c_str()).error, 0u) << "free again, " << maker.kind;
  const Created own = Create(name);
  for (const Maker& other : kMakers) {
    const bool same = other.kind == std::string(GetParam().kind);
    EXPECT_EQ(CreateBy(other, name.c_str()).error, same ? ERROR_ALREADY_EXISTS : ERROR_INVALID_HANDLE) << other.kind;
  }
}

TEST_P(ObjectCreation, OnlyTheBackslashIsSpecial) {
  const struct {
    const wchar_t* name;
    DWORD error;
  } rows[] = {
      {L"Local\\a\\b", ERROR_PATH_NOT_FOUND}, {L"Global\\a\\b", ERROR_PATH_NOT_FOUND},
      {L"bogus\\x", ERROR_PATH_NOT_FOUND},    {L"a\\b", ERROR_PATH_NOT_FOUND},
      {L"x\\", ERROR_PATH_NOT_FOUND},         {L"local\\x", ERROR_PATH_NOT_FOUND},
      {L"\\x", ERROR_BAD_PATHNAME},           {L"\\BaseNamedObjects\\x", ERROR_BAD_PATHNAME},
      {L"Local\\", ERROR_INVALID_NAME},       {L"Local\\\\x", ERROR_INVALID_NAME},
      {L"Local", ERROR_INVALID_HANDLE},       {L"Global", ERROR_INVALID_HANDLE},
  };
  for (const auto& row : rows) EXPECT_EQ(Create(row.name).error, row.error) << row.name;
  const std::wstring unique = UniqueName();
  for (const wchar_t* good : {L"a/b", L"Local\\a?b*", L".", L"<>|\":"})
    EXPECT_EQ(Create(good + unique).error, 0u) << good;
}

TEST(ObjectNames, LongOnes) {
  for (const size_t length : {260, 300, 1000, 32700}) {
    SCOPED_TRACE(length);
    std::wstring name = UniqueName();
    name.resize(length, L'n');
    const Handle mutex = CreateMutexW(nullptr, FALSE, name.c_str());
    EXPECT_MADE(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str()), kUntouched);
    name.back() = L'x';
    EXPECT_CALL(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str()), nullptr, ERROR_FILE_NOT_FOUND);
  }
  // The narrow calls have less room.
  EXPECT_MADE(CreateWaitableTimerA(nullptr, FALSE, std::string(259, 'n').c_str()), 0);
  EXPECT_CALL(CreateWaitableTimerA(nullptr, FALSE, std::string(260, 'n').c_str()), nullptr, ERROR_FILENAME_EXCED_RANGE);
}

TEST(ObjectNames, OpeningFindsOnlyWhatExistsAndFits) {
  const std::wstring name = UniqueName();
  EXPECT_CALL(OpenEventW(EVENT_ALL_ACCESS, FALSE, name.c_str()), nullptr, ERROR_FILE_NOT_FOUND);
  const Handle mutex = CreateMutexW(nullptr, FALSE, name.c_str());
  EXPECT_CALL(OpenEventW(EVENT_ALL_ACCESS, FALSE, name.c_str()), nullptr, ERROR_INVALID_HANDLE);
  EXPECT_MADE(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, name.c_str()), kUntouched);
  EXPECT_CALL(OpenEventW(EVENT_ALL_ACCESS, FALSE, L""), nullptr, ERROR_INVALID_HANDLE);
  EXPECT_CALL(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, nullptr), nullptr, ERROR_INVALID_PARAMETER);
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

}  // namespace
