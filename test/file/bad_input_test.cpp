// What a host should never pass: every export answers with its failure value and stays of use.
#include "test/file/transfer_test.h"

namespace qel::test {
namespace {

using PathCall = std::function<bool(const wchar_t*)>;  // whether it succeeds

class BadInput : public FileTest {
 protected:
  FakeClock clock_;
  // Every export that takes a path, with that path.
  std::vector<std::pair<const char*, PathCall>> PathCalls() {
    return {
        {"CreateFileX",
         [](const wchar_t* path) {
           return CreateFileX(HOST, path, GENERIC_WRITE, 1, nullptr, CREATE_ALWAYS, 0x80, nullptr, 0, 0) !=
                  INVALID_HANDLE_VALUE;
         }},
        {"CopyFileX from", [&](const wchar_t* path) { return CopyFileX(HOST, path, there_.c_str(), FALSE, 0, 0); }},
        {"CopyFileX to", [&](const wchar_t* path) { return CopyFileX(HOST, there_.c_str(), path, FALSE, 0, 0); }},
        {"DeleteFileX", [](const wchar_t* path) { return DeleteFileX(HOST, path, 0, 0); }},
        {"GetFileSizeX",
         [](const wchar_t* path) {
           WIN32_FIND_DATAW data;
           DWORD error;
           return GetFileSizeX(path, &data, &error) != 0;
         }},
        {"MoveFileX from", [&](const wchar_t* path) { return MoveFileX(HOST, path, Wide("moved").c_str()); }},
        {"MoveFileX to", [&](const wchar_t* path) { return MoveFileX(HOST, there_.c_str(), path); }},
        {"SHCreateDirectoryExX", [](const wchar_t* path) { return SHCreateDirectoryExX(HOST, path); }},
        {"FlushMMF2", [](const wchar_t* path) { return FlushMMF2(HOST, path, FALSE); }},
        {"Mem2FileMMF", [](const wchar_t* path) { return Mem2FileMMF(HOST, "x", 1, path, -1); }},
        {"Mem2File", [](const wchar_t* path) { return Mem2File(HOST, "x", 1, path); }},
        {"CopyFileMMF from",
         [&](const wchar_t* path) { return CopyFileMMF(HOST, path, Wide("c").c_str(), FALSE, -1, TRUE); }},
        {"CopyFileMMF to",
         [&](const wchar_t* path) { return CopyFileMMF(HOST, there_.c_str(), path, FALSE, -1, FALSE); }},
        {"ObjectToFile", [&](const wchar_t* path) { return ObjectToFile(HOST, object_.Name(), 9, 0, path, -1); }},
        {"FileToObject", [&](const wchar_t* path) { return FileToObject(HOST, path, 9, 0, object_.Name(), -1, TRUE); }},
        {"GetFileSizeDirectoryTree",
         [](const wchar_t* path) {
           unsigned long long size;
           return GetFileSizeDirectoryTree(HOST, path, &size);
         }},
        {"DeleteDirectoryTree", [](const wchar_t* path) { return DeleteDirectoryTree(HOST, path, TRUE, TRUE); }},
        {"CopyDirectoryTree from",
         [&](const wchar_t* path) { return CopyDirectoryTree(HOST, path, Wide("c").c_str()); }},
        {"CopyDirectoryTree to", [&](const wchar_t* path) { return CopyDirectoryTree(HOST, Wide().c_str(), path); }},
    };
  }
  void AllRefuse(const wchar_t* path, const char* what) {
    const unsigned long handles = OpenHandleCount();
    for (const auto& [name, call] : PathCalls()) {
      EXPECT_FALSE(call(path)) << name << " took " << what;
      EXPECT_EQ(OpenHandleCount(), handles) << name;
      TakeLines(channel::kFileOperation);
    }
    EXPECT_EQ(Read("there"), "123456789");
  }
  void SetUp() override { Write("there", "123456789"); }

  const std::wstring there_ = Wide("there");
  const NamedObject object_{9};
};

TEST_F(BadInput, NoPath) {
  AllRefuse(nullptr, "null");
  AllRefuse(L"", "nothing");
  AllRefuse(L"\"\"", "quotes around nothing");
}

TEST_F(BadInput, NamesThatCannotBe) {
  AllRefuse(Wide("no?such*name").c_str(), "wildcards");
  AllRefuse(Wide("a|b").c_str(), "a vertical bar");
  AllRefuse(L"?:\\???\\x", "the folder that nobody has set");
  AllRefuse((Wide("there") + Wide("x").substr(Wide().size())).c_str(), "a file as a folder");
}

TEST_F(BadInput, PathsThatCannotBeRead) {
  PageBuffer page;
  TakeLines(channel::kAssert);
  auto* const unreadable = reinterpret_cast<wchar_t*>(page.End());
  AllRefuse(unreadable, "an unreadable page");
  EXPECT_EQ(FaultCount(), PathCalls().size());
  std::fill(unreadable - 4, unreadable, L'x');
  AllRefuse(unreadable - 4, "a path without an end");
}

TEST_F(BadInput, LongPathsAreCutTo259Characters) {
  for (const size_t length : {259, 260, 300, 40000}) {
    std::wstring path = Wide("x");
    path.resize(length, L'n');
    EXPECT_TRUE(Mem2File(HOST, "x", 1, path.c_str())) << length;
    const std::wstring cut = path.substr(0, MAX_PATH - 1);
    EXPECT_TRUE(DeleteFileW(cut.c_str())) << length;
  }
}

TEST_F(BadInput, DotsAndQuotesInsideAPath) {
  const std::wstring separator = Wide("x").substr(Wide().size(), 1);
  const std::wstring path = Wide("no") + separator + L".." + separator + L"there";
  WIN32_FIND_DATAW data;
  DWORD error;
  EXPECT_EQ(GetFileSizeX(path.c_str(), &data, &error), 9u);
  EXPECT_EQ(GetFileSizeX((L"\"" + there_).c_str(), &data, &error), 0u) << "one quote alone is part of the name";
}

TEST_F(BadInput, BuffersThatCannotBeUsed) {
  PageBuffer page;
  const unsigned long handles = OpenHandleCount();
  const ScopedFile file(OpenPlain(there_, GENERIC_READ | GENERIC_WRITE, 3));
  DWORD count;
  ULONGLONG written;
  EXPECT_FALSE(ReadFileX(HOST, file.Get(), page.End(), 4, &count, nullptr));
  EXPECT_EQ(GetLastError(), 998u);
  EXPECT_FALSE(WriteFileX(HOST, file.Get(), page.End(), 4, &count, nullptr));
  EXPECT_EQ(GetLastError(), 1784u);
  EXPECT_FALSE(WriteFileMMF2(HOST, file.Get(), page.End(), 4, &written, nullptr, -1, -1));
  EXPECT_FALSE(WriteFileMMF2(HOST, file.Get(), "abc", 3, nullptr, nullptr, -1, -1));
  EXPECT_FALSE(WriteFileMMF(HOST, file.Get(), nullptr, 3, &count, nullptr, -1));
  ViewRecorder views;
  const std::wstring path = Wide("x");
  for (const void* buffer : {static_cast<const void*>(page.End()), static_cast<const void*>(nullptr)}) {
    EXPECT_FALSE(Mem2FileMMF(HOST, buffer, 5000, path.c_str(), -1));
    EXPECT_TRUE(FileHolds(Path("x"), std::string(5000, '\0')));
    EXPECT_FALSE(Mem2File(HOST, buffer, 5000, path.c_str()));
    EXPECT_EQ(GetLastError(), 0u);
  }
  EXPECT_EQ(views.Mapped(), 0u);
  const auto files = [&] { return std::distance(std::filesystem::directory_iterator(Path()), {}); };
  const auto before = files();
  auto* const name = reinterpret_cast<wchar_t*>(page.End());
  EXPECT_EQ(GetTempFileNameX(HOST, Wide().c_str(), L"p", 0, name), 0u);
  EXPECT_EQ(files(), before) << "a file that nobody knows";
  EXPECT_EQ(OpenHandleCount(), handles + 1);
}

TEST_F(BadInput, ResultsWithoutAPlace) {
  WIN32_FIND_DATAW data;
  EXPECT_EQ(GetFileSizeX(there_.c_str(), &data, nullptr), 0u);
  EXPECT_FALSE(GetFileSizeDirectoryTree(HOST, Wide().c_str(), nullptr));
  ReplaceBackslashFromPath(nullptr, L"/");
  wchar_t path[] = L"a\\b";
  ReplaceBackslashFromPath(path, nullptr);
  EXPECT_EQ(FaultCount(), 4u);
  EXPECT_STREQ(path, L"a\\b");
}

TEST_F(BadInput, ASourceNameThatCannotBeRead) {
  PageBuffer page;
  const auto* sourceFile = reinterpret_cast<const char*>(page.End());
  for (const char* source : {sourceFile, static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(CreateFileX(1, source, Wide("no").c_str(), GENERIC_READ, 1, nullptr, OPEN_EXISTING, 0, nullptr, 0, 0),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), 2u);
    EXPECT_TRUE(Mem2FileMMF(1, source, "abc", 3, Wide("x").c_str(), -1));
  }
  EXPECT_EQ(Read("x"), "abc");
}

TEST_F(BadInput, HandlesOfTheWrongKind) {
  const ScopedMapping event(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  DWORD count;
  ULONGLONG written;
  for (const HANDLE handle : {event.Get(), HANDLE(nullptr), HANDLE(0x7ABCDEF0)}) {
    char byte;
    EXPECT_FALSE(ReadFileX(HOST, handle, &byte, 1, &count, nullptr));
    EXPECT_EQ(GetLastError(), 6u);
    EXPECT_FALSE(WriteFileX(HOST, handle, &byte, 1, &count, nullptr));
    EXPECT_EQ(GetLastError(), 6u);
    EXPECT_FALSE(WriteFileMMF(HOST, handle, &byte, 1, &count, nullptr, -1));
    EXPECT_FALSE(WriteFileMMF2(HOST, handle, &byte, 1, &written, nullptr, -1, -1));
    EXPECT_EQ(MapViewOfFileX(HOST, handle, FILE_MAP_READ, 0, 0, 0, 0), nullptr);
    EXPECT_EQ(GetLastError(), 6u);
    EXPECT_FALSE(FlushMMF(HOST, handle, TRUE));
    EXPECT_EQ(GetLastError(), 6u);
  }
}

}  // namespace
}  // namespace qel::test
