#include "test/platform/files/file_calls.h"

using namespace qel::test;

namespace {

Outcome Move(const wchar_t* from, const wchar_t* to) {
  return Ask([&] { return MoveFileW(from, to); });
}
Outcome Copy(const wchar_t* from, const wchar_t* to, BOOL failIfExists = FALSE) {
  return Ask([&] { return CopyFileW(from, to, failIfExists); });
}

}  // namespace

class OperationsTest : public FileTest {
 protected:
  OperationsTest() {
    Write("f", "source");
    Write("other", "other");
    Write("ro", "read-only");
    SetAttributes("ro", FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE);
    MakeFolder("dir");
  }
};

TEST_F(OperationsTest, DeleteRefuses) {
  struct {
    const wchar_t* name;
    Outcome outcome;
  } const rows[] = {
      {L"missing", Failure(2)}, {L"nodir\\x", Failure(3)},  {L"", Failure(3)},
      {L"f\\x", Failure(3)},    {L"ro", Failure(5)},        {L"dir", Failure(5)},
      {L".", Failure(5)},       {L"dir\\", Failure(5)},     {L"f\\", Failure(123)},
      {L"f*", Failure(123)},    {L"?:\\???", Failure(123)}, {L"Q:\\x", ByTarget(Failure(3), Failure(2))},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Delete(row.name), row.outcome);
  }
  EXPECT_EQ(Ask([] { return DeleteFileW(nullptr); }), Failure(3));
  EXPECT_TRUE(Exists("f") && Exists("ro") && Exists("dir"));
  SetAttributes("f", FILE_ATTRIBUTE_HIDDEN);
  EXPECT_EQ(Delete(L"f"), Success());
  EXPECT_FALSE(Exists("f"));
}

TEST_F(OperationsTest, MoveNeverReplaces) {
  for (const wchar_t* target : {L"other", L"dir", L"ro"}) EXPECT_EQ(Move(L"f", target), Failure(183));
  struct {
    const wchar_t *from, *to;
    Outcome outcome;
  } const rows[] = {
      {L"missing", L"new", Failure(2)}, {L"nodir\\x", L"new", Failure(3)}, {L"f", L"nodir\\x", Failure(3)},
      {L"", L"new", Failure(3)},        {L"f", L"", Failure(3)},           {nullptr, L"new", Failure(3)},
      {L"f", L"a?", Failure(123)},      {L"f", L"?:\\???", Failure(123)},  {L"f", L"f", Success()},
      {L"missing", L"a?", Failure(2)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << (row.from ? row.from : L"NULL") << L" to " << row.to);
    EXPECT_EQ(Move(row.from, row.to), row.outcome);
  }
  EXPECT_EQ(Read("f"), "source");
  EXPECT_EQ(Read("other"), "other");
  {
    FileHandle holds(At("f"), kR, 3, OPEN_EXISTING), letsGo(At("ro"), kR, kShareAll, OPEN_EXISTING);
    EXPECT_EQ(Move(L"f", L"g"), Failure(32));
    EXPECT_EQ(Move(L"ro", L"ro2"), Success());
  }
  EXPECT_EQ(GetFileAttributesW(L"ro2"), 0x21u);
  EXPECT_EQ(Move(L"dir", L"dir2"), Success());
  EXPECT_EQ(Move(L"f", L"dir2\\f"), Success());
  EXPECT_EQ(Read("dir2/f"), "source");
  EXPECT_FALSE(Exists("f"));
}

TEST_F(OperationsTest, CopyTakesContentsTimesAndAttributes) {
  WIN32_FIND_DATAW source, target;
  FindClose(FindFirstFileW(L"ro", &source));
  Sleep(20);
  EXPECT_EQ(Copy(L"ro", L"copy"), Success(0));
  FindClose(FindFirstFileW(L"copy", &target));
  EXPECT_EQ(Read("copy"), "read-only");
  EXPECT_EQ(target.dwFileAttributes, 0x21u);
  EXPECT_EQ(target.ftLastWriteTime.dwLowDateTime, source.ftLastWriteTime.dwLowDateTime);
  EXPECT_EQ(target.ftLastWriteTime.dwHighDateTime, source.ftLastWriteTime.dwHighDateTime);
  Write("long", std::string(100'000, 'x'));
  EXPECT_EQ(Copy(L"f", L"long"), Success(0));
  EXPECT_EQ(Read("long"), "source");
  Write("f", "");
  EXPECT_EQ(Copy(L"f", L"long"), Success(0));
  EXPECT_EQ(Read("long"), "");
}

TEST_F(OperationsTest, CopyRefuses) {
  struct {
    const wchar_t *from, *to;
    BOOL failIfExists;
    Outcome outcome;
  } const rows[] = {
      {L"f", L"other", TRUE, Failure(80)},      {L"f", L"ro", TRUE, Failure(80)},
      {L"f", L"dir", TRUE, Failure(80)},        {L"f", L"f", TRUE, Failure(80)},
      {L"f", L"f", FALSE, Failure(32)},         {L"f", L"dir", FALSE, Failure(5)},
      {L"dir", L"new", FALSE, Failure(5)},      {L"missing", L"new", FALSE, Failure(2)},
      {L"nodir\\x", L"new", FALSE, Failure(3)}, {L"f", L"nodir\\x", FALSE, Failure(3)},
      {L"missing", L"a?", FALSE, Failure(2)},   {L"f", L"a?", FALSE, Failure(123)},
      {L"", L"new", FALSE, Failure(3)},         {L"f", L"", FALSE, Failure(3)},
      {L"ro", L"ro", FALSE, Failure(32)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.from << L" to " << row.to);
    EXPECT_EQ(Copy(row.from, row.to, row.failIfExists), row.outcome);
  }
  if (PermissionsHold()) {
    EXPECT_EQ(Copy(L"f", L"ro"), Failure(5));
  }
  EXPECT_EQ(Read("f"), "source");
  EXPECT_EQ(Read("ro"), "read-only");
  EXPECT_EQ(Read("other"), "other");
  SetAttributes("other", FILE_ATTRIBUTE_HIDDEN);
  EXPECT_EQ(Copy(L"f", L"other"), ByTarget(Failure(5), Success(0)));
}

TEST_F(OperationsTest, CopyAndTheHoldersOfBothSides) {
  for (const DWORD share : {1ul, 3ul}) {
    FileHandle writer(At("f"), kRW, share, OPEN_EXISTING);
    EXPECT_EQ(Copy(L"f", L"copy"), Success(0)) << share;
  }
  for (const DWORD share : {0ul, 2ul}) {
    FileHandle writer(At("f"), kRW, share, OPEN_EXISTING);
    EXPECT_EQ(Copy(L"f", L"copy"), Failure(32)) << share;
  }
  for (const DWORD share : {0ul, 1ul}) {
    FileHandle reader(At("other"), kR, share, OPEN_EXISTING);
    EXPECT_EQ(Copy(L"f", L"other"), Failure(32)) << share;
  }
  EXPECT_EQ(Read("other"), "other");
  for (const DWORD access : {kR, kW, kRW}) {
    FileHandle holder(At("other"), access, 3, OPEN_EXISTING);
    EXPECT_EQ(Copy(L"f", L"other"), Success(0)) << access;
  }
}

TEST_F(OperationsTest, Attributes) {
  const auto set = [&](const wchar_t* name, DWORD attributes) {
    return Ask([&] { return SetFileAttributesW(name, attributes); });
  };
  struct {
    DWORD set, read, onWine;
  } const rows[] = {
      {0x80, 0x80, 0x20}, {0, 0x80, 0x20}, {1, 1, 0x21},       {0x21, 0x21, 0x21},
      {2, 2, 0x22},       {0x86, 6, 0x26}, {0x20, 0x20, 0x20},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(set(L"f", row.set), Success()) << row.set;
    EXPECT_EQ(GetFileAttributesW(L"f"), ByTarget(row.read, row.onWine)) << row.set;
  }
  // Wine can keep hidden and system of a read-only file on some file systems only.
  EXPECT_EQ(set(L"f", 0x27), Success());
  EXPECT_EQ(GetFileAttributesW(L"f") & ByTarget(0xFFul, 0x21ul), ByTarget(0x27ul, 0x21ul));
  EXPECT_EQ(set(L"f", 0x80), Success());
  const auto get = [&](const wchar_t* name) {
    return Ask([&] { return GetFileAttributesW(name) != INVALID_FILE_ATTRIBUTES; });
  };
  EXPECT_EQ(GetFileAttributesW(L"other"), 0x20u);
  EXPECT_EQ(GetFileAttributesW(L"dir"), 0x10u);
  EXPECT_EQ(GetFileAttributesW(L"dir\\"), 0x10u);
  EXPECT_EQ(get(L"other"), Success());
  const std::pair<const wchar_t*, Outcome> refused[] = {
      {L"missing", Failure(2)},   {L"nodir\\x", Failure(3)}, {L"f\\x", Failure(3)},
      {L"", Failure(3)},          {nullptr, Failure(3)},     {L"Q:\\x", ByTarget(Failure(3), Failure(2))},
      {L"?:\\???", Failure(123)}, {L"*", Failure(123)},
  };
  for (const auto& [name, outcome] : refused) {
    SCOPED_TRACE(name ? name : L"NULL");
    EXPECT_EQ(get(name), outcome);
    EXPECT_EQ(set(name, 0x80), outcome);
  }
}

TEST_F(OperationsTest, ReadOnlyFolder) {
  EXPECT_TRUE(SetFileAttributesW(L"dir", FILE_ATTRIBUTE_READONLY));
  EXPECT_EQ(GetFileAttributesW(L"dir"), ByTarget(0x11ul, 0x10ul));
  Write("dir/inside");
  EXPECT_TRUE(Exists("dir/inside"));
  EXPECT_EQ(Delete(L"dir\\inside"), Success());
  EXPECT_EQ(Ask([] { return RemoveDirectoryW(L"dir"); }), ByTarget(Failure(5), Success()));
  MakeFolder("dir");
  EXPECT_TRUE(SetFileAttributesW(L"dir", FILE_ATTRIBUTE_NORMAL));
  EXPECT_EQ(GetFileAttributesW(L"dir"), 0x10u);
}

TEST_F(OperationsTest, MakingAndRemovingFolders) {
  const auto make = [](const wchar_t* name) { return Ask([&] { return CreateDirectoryW(name, nullptr); }); };
  const auto remove = [](const wchar_t* name) { return Ask([&] { return RemoveDirectoryW(name); }); };
  const std::pair<const wchar_t*, Outcome> made[] = {
      {L"new", Success()},      {L"new", Failure(183)}, {L"f", Failure(183)},
      {L"no\\sub", Failure(3)}, {L"", Failure(3)},      {L"?:\\???", Failure(123)},
  };
  for (const auto& [name, outcome] : made) EXPECT_EQ(make(name), outcome) << name;
  Write("new/inside");
  const Outcome noName = ByTarget(Failure(3), Failure(123));
  const std::pair<const wchar_t*, Outcome> removed[] = {
      {L"new", Failure(145)}, {L"missing", Failure(2)}, {L"no\\sub", Failure(3)}, {L"f", Failure(267)},
      {L"", noName},          {nullptr, noName},
  };
  for (const auto& [name, outcome] : removed) EXPECT_EQ(remove(name), outcome) << (name ? name : L"NULL");
  std::filesystem::current_path(scratch.Path() / "dir");
  EXPECT_EQ(remove(At("dir").c_str()), Failure(32));
  std::filesystem::current_path(scratch.Path());
  EXPECT_EQ(remove(L"dir\\"), Success());
  EXPECT_FALSE(Exists("dir"));
}

TEST_F(OperationsTest, TempFileNames) {
  wchar_t name[MAX_PATH];
  const auto ask = [&](const wchar_t* folder, const wchar_t* prefix, UINT unique) {
    return Ask([&] { return GetTempFileNameW(folder, prefix, unique, name) != 0; });
  };
  const std::wstring folder = scratch.Wide(), separator = kLinux ? L"/" : L"\\";
  EXPECT_EQ(ask(folder.c_str(), L"pre", 5), Success());
  EXPECT_EQ(name, folder + separator + L"pre5.tmp");
  EXPECT_EQ(ask(folder.c_str(), L"prefixlong", 0x12345678), Success());
  EXPECT_EQ(name, folder + separator + L"pre5678.tmp");
  EXPECT_EQ(ask((folder + separator).c_str(), nullptr, 0xAB), Success());
  EXPECT_EQ(name, folder + separator + (OnWine() ? L"ab.tmp" : L"AB.tmp"));
  EXPECT_FALSE(Exists("pre5.tmp"));
  EXPECT_EQ(ask(L".", L"pre", 5), Success());
  EXPECT_STREQ(name, L".\\pre5.tmp");

  std::wstring first;
  for (const UINT unique : {0u, 0x10000u}) {
    EXPECT_EQ(ask(folder.c_str(), L"pre", unique), Success(0));
    EXPECT_EQ(GetFileAttributesW(name), 0x20u);
    EXPECT_NE(name, first);
    first = name;
  }
  for (const wchar_t* bad : {L"missing", L"f", L"", L"?:\\???"}) {
    for (const UINT unique : {0u, 5u}) {
      SCOPED_TRACE(bad);
      name[0] = 0;
      EXPECT_EQ(ask(bad, L"pre", unique), Failure(267));
      EXPECT_STREQ(name, L"");
    }
  }
  EXPECT_EQ(ask(nullptr, L"pre", 5), Failure(87));

  char narrow[MAX_PATH] = "x";
  EXPECT_EQ(GetTempFileNameA(scratch.Narrow().c_str(), "narrow", 0x1F, narrow), 0x1Fu);
  EXPECT_EQ(narrow, scratch.Narrow() + (kLinux ? "/nar" : "\\nar") + (OnWine() ? "1f" : "1F") + ".tmp");
  EXPECT_EQ(Ask([&] { return GetTempFileNameA(nullptr, "n", 5, narrow); }), Failure(267));
}
