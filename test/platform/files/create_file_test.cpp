#include "test/platform/files/file_calls.h"
#include "test/support/open_handles.h"

using namespace qel::test;

class CreateFileTest : public FileTest {
 protected:
  CreateFileTest() {
    Write("ex");
    Write("ro");
    SetAttributes("ro", FILE_ATTRIBUTE_READONLY);
    MakeFolder("dir");
  }
};

TEST_F(CreateFileTest, DispositionDecides) {
  struct {
    DWORD disposition;
    Outcome existing, missing, folder, noPath, readOnly;
  } const rows[] = {
      {0, Failure(87), Failure(87), Failure(87), Failure(87), Failure(87)},
      {6, Failure(87), Failure(87), Failure(87), Failure(87), Failure(87)},
      {CREATE_NEW, Failure(80), Success(0), ByTarget(Failure(5), Failure(80)), Failure(3), Failure(80)},
      {CREATE_ALWAYS, Success(183), Success(0), Failure(5), Failure(3), Failure(5)},
      {OPEN_EXISTING, Success(0), Failure(2), Failure(5), Failure(3), Failure(5)},
      {OPEN_ALWAYS, Success(183), Success(0), Failure(5), Failure(3), Failure(5)},
      {TRUNCATE_EXISTING, Success(0), Failure(2), Failure(5), Failure(3), Failure(5)},
  };
  for (const auto& row : rows) {
    for (const DWORD access : {kW, kRW}) {
      SCOPED_TRACE(testing::Message() << "disposition " << row.disposition << " access " << access);
      Write("ex");
      DeleteFileW(L"new");
      EXPECT_EQ(Create(L"ex", access, kShareAll, row.disposition), row.existing);
      EXPECT_EQ(Create(L"new", access, kShareAll, row.disposition), row.missing);
      EXPECT_EQ(Create(L"dir", access, kShareAll, row.disposition), row.folder);
      EXPECT_EQ(Create(L"nodir\\x", access, kShareAll, row.disposition), row.noPath);
      EXPECT_EQ(Create(L"ex\\x", access, kShareAll, row.disposition), row.noPath);
      if (PermissionsHold()) {
        EXPECT_EQ(Create(L"ro", access, kShareAll, row.disposition), row.readOnly);
      }
      const bool empties = row.disposition == CREATE_ALWAYS || row.disposition == TRUNCATE_EXISTING;
      EXPECT_EQ(Read("ex"), empties ? "" : "text");
      EXPECT_EQ(Read("ro"), "text");
    }
  }
}

TEST_F(CreateFileTest, ReadAccessAloneAndTheDispositions) {
  EXPECT_EQ(Create(L"ro", kR, kShareAll, OPEN_EXISTING), Success(0));
  EXPECT_EQ(Create(L"ro", kR, kShareAll, OPEN_ALWAYS), Success(183));
  if (PermissionsHold()) {
    EXPECT_EQ(Create(L"ro", kR, kShareAll, CREATE_ALWAYS), Failure(5));
  }
  for (const DWORD access : {kR, DWORD{GENERIC_ALL}, DWORD{FILE_WRITE_DATA}})
    EXPECT_EQ(Create(L"ex", access, kShareAll, TRUNCATE_EXISTING), ByTarget(Failure(87), Success(0))) << access;
  Write("ex");
  EXPECT_EQ(Create(L"ex", kR, kShareAll, CREATE_ALWAYS), Success(183));
  EXPECT_EQ(Read("ex"), "");
}

TEST_F(CreateFileTest, AttributesOfANewFile) {
  constexpr struct {
    DWORD asked, read;
  } kRows[] = {{0, 0x20}, {0x80, 0x20}, {0x20, 0x20}, {1, 0x21}, {2, 0x22}, {4, 0x24}, {0x81, 0x21}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.asked);
    // Read-only does not hold against the handle that made it.
    FileHandle file(At("a"), kW, 0, CREATE_ALWAYS, row.asked);
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(file.get(), "x", 1, &written, nullptr));
    file.Close();
    EXPECT_EQ(GetFileAttributesW(L"a"), row.read);
    SetAttributes("a", FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(Delete(L"a"), Success());
  }
  EXPECT_EQ(Create(L"a", kW, 0, CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY), Success(0));
  EXPECT_EQ(GetFileAttributesW(L"a"), ByTarget(0x120ul, 0x20ul));
  for (const DWORD attribute : {FILE_ATTRIBUTE_HIDDEN, FILE_ATTRIBUTE_SYSTEM}) {
    SetAttributes("ex", attribute);
    EXPECT_EQ(Create(L"ex", kW, 0, CREATE_ALWAYS), ByTarget(Failure(5), Success(183))) << "only as " << attribute;
    EXPECT_EQ(Create(L"ex", kW, 0, CREATE_ALWAYS, attribute), Success(183));
  }
}

TEST_F(CreateFileTest, NamesThatAreNone) {
  struct {
    const wchar_t* name;
    Outcome outcome;
  } const rows[] = {
      {nullptr, Failure(3)},
      {L"", Failure(3)},
      {L"?:\\???", Failure(123)},
      {L"?:\\???\\a.txt", Failure(123)},
      {L"a?", Failure(123)},
      {L"a*", Failure(123)},
      {L"<a", Failure(123)},
      {L"a>", Failure(123)},
      {L"a|b", Failure(123)},
      {L"\"ex\"", Failure(123)},
      {L"a\tb", Failure(123)},
      {L"a\x1f", Failure(123)},
      {L"ex\\", Failure(123)},
      {L"dir\\", ByTarget(Failure(3), Failure(5))},
      {L"nodir\\sub\\", Failure(3)},
      {L"a/b\\c", Failure(3)},
      {L".", Failure(5)},
      {L"..", Failure(5)},
      {L"dir", Failure(5)},
      {L"Q:\\x", ByTarget(Failure(3), Failure(2))},
      {L"\\\\srv\\share\\x", ByTarget(Failure(53), Failure(3))},
      {L"\\\\.\\NONE", Failure(2)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name ? row.name : L"NULL");
    EXPECT_EQ(Create(row.name, kR, kShareAll, OPEN_EXISTING), row.outcome);
  }
  EXPECT_EQ(Create(L"?:\\???", kW, 0, OPEN_ALWAYS), Failure(123));
  EXPECT_EQ(Create(L"?:\\???", kR, 0, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS), Failure(123));
  EXPECT_EQ(Create(L"dir", 0, kShareAll, OPEN_EXISTING), Failure(5));
  for (const DWORD access : {0ul, kR})
    EXPECT_EQ(Create(L"dir", access, kShareAll, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS), Success(0)) << access;
}

TEST_F(CreateFileTest, NamesForTheSameFile) {
  for (const wchar_t* name :
       {L"ex", L".\\ex", L"./ex", L"dir/../ex", L"nodir\\..\\ex", L"dir\\\\..\\ex", L"dir\\.\\..\\ex"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Create(name, kR, kShareAll, OPEN_EXISTING), Success(0));
    EXPECT_EQ(Create(name, kR, kShareAll, OPEN_ALWAYS), Success(183));
  }
  EXPECT_EQ(Create(L" ex", kR, kShareAll, OPEN_EXISTING), Failure(2));
  for (const wchar_t* name : {L"ex.", L"ex ", L"ex. ."})  // which Windows takes for "ex"
    EXPECT_EQ(Create(name, kR, kShareAll, OPEN_EXISTING), ByTarget(Failure(2), Success(0))) << name;
}

TEST_F(CreateFileTest, NullDeviceHasNoSharingAndNoContents) {
  for (const wchar_t* name : {L"NUL", L"nul", L"\\\\.\\NUL"}) {
    SCOPED_TRACE(name);
    const FileHandle first(name, kRW, 0, OPEN_ALWAYS), second(name, kRW, 0, OPEN_EXISTING);
    char buffer[4];
    DWORD bytes = 99;
    EXPECT_TRUE(WriteFile(first.get(), "text", 4, &bytes, nullptr));
    EXPECT_EQ(bytes, 4u);
    EXPECT_TRUE(ReadFile(second.get(), buffer, 4, &bytes, nullptr));
    EXPECT_EQ(bytes, 0u);
  }
}

TEST_F(CreateFileTest, FullPathHasAtMost259Characters) {
  const size_t room = 259 - scratch.Wide().size() - 1;
  ASSERT_LT(room, 255u);
  const std::wstring fits = scratch.Wide() + L"\\" + std::wstring(room, L'n');
  EXPECT_EQ(Create(fits, kW, 0, CREATE_NEW), Success(0));
  EXPECT_EQ(Create(fits + L"n", kW, 0, CREATE_NEW), ByTarget(Failure(3), Success(0)));
  EXPECT_EQ(Create(std::wstring(room, L'm'), kW, 0, CREATE_NEW), Success(0));
  EXPECT_EQ(Create(std::wstring(room + 1, L'm'), kW, 0, CREATE_NEW), ByTarget(Failure(3), Success(0)));
  EXPECT_EQ(Create(L"\\\\?\\" + fits + L"l", kW, 0, CREATE_NEW), Success(0));
}

TEST_F(CreateFileTest, DeleteOnCloseEndsWithTheLastHandle) {
  FileHandle file(At("gone"), kRW | DELETE, kShareAll, CREATE_NEW, FILE_FLAG_DELETE_ON_CLOSE);
  ASSERT_TRUE(file.IsOpen());
  Handle second = Duplicate(file.get());
  file.Close();
  EXPECT_TRUE(Exists("gone"));
  second.Close();
  EXPECT_FALSE(Exists("gone"));
}

TEST_F(CreateFileTest, NothingIsLeftOpen) {
  const unsigned long before = OpenHandleCount();
  for (const wchar_t* name : {L"dir", L"ro", L"ex", L"?"}) Create(name, kRW, 0, OPEN_ALWAYS);
  for (const wchar_t* pattern : {L"*", L"ex", L"nothing*", L"ex\\*"}) Find(pattern);
  EXPECT_EQ(OpenHandleCount(), before);
}
