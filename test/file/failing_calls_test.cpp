#include "test/file/failing_calls_test.h"

#include "qelibaselib/settings/flush_statistics.h"

namespace qel::test {
namespace {

TEST_F(FailingCalls, Opening) {
  Drive({[&] { fs::remove_all(Path("a")); },
         [&] {
           return Close(
               CreateFileX(HOST, Wide("a/x").c_str(), GENERIC_WRITE, 1, nullptr, CREATE_ALWAYS, 0x80, nullptr, 0, 10));
         },
         [&] { return Exists("a/x"); },
         {"CreateFileW", "SHCreateDirectoryExW"},
         false});
}

TEST_F(FailingCalls, CopyingMovingDeleting) {
  Drive({[&] {
           Write("x", "1");
           fs::remove(Path("y"));
         },
         [&] { return CopyFileX(HOST, Wide("x").c_str(), Wide("y").c_str(), TRUE, 20, 10); },
         [&] { return Holds("y", "1"); },
         {"CopyFileW"}});
  Drive({[&] {
           Write("x", "1");
           Write("y", "2");
         },
         [&] { return MoveFileX(HOST, Wide("x").c_str(), Wide("y").c_str()); },
         [&] { return Holds("y", "1") && !Exists("x"); },
         {"MoveFileW", "DeleteFileW"},
         false});
  Drive({[&] { Write("x", "1"); },
         [&] { return DeleteFileX(HOST, Wide("x").c_str(), 30, 10); },
         [&] { return !Exists("x"); },
         {"DeleteFileW", "FindFirstFileW"}});
}

TEST_F(FailingCalls, ReadingAndWriting) {
  ScopedFile file = OpenFile("x");
  DWORD count = 0;
  char byte = 0;
  Drive({[&] { SetFilePointerEx(file.Get(), {}, nullptr, FILE_BEGIN); },
         [&] { return WriteFileX(HOST, file.Get(), "1", 1, &count, nullptr); },
         [&] { return Holds("x", "1"); },
         {"WriteFile"}});
  Drive({[&] { SetFilePointerEx(file.Get(), {}, nullptr, FILE_BEGIN); },
         [&] { return ReadFileX(HOST, file.Get(), &byte, 1, &count, nullptr); },
         [&] { return byte == '1' && count == 1; },
         {"ReadFile"}});
}

TEST_F(FailingCalls, LookingUpAndNaming) {
  Write("x", "123");
  WIN32_FIND_DATAW data;
  DWORD error;
  Drive({[] {},
         [&] { return GetFileSizeX(Wide("x").c_str(), &data, &error) != 0; },
         [&] { return data.nFileSizeLow == 3; },
         {"FindFirstFileW"}});
  wchar_t wide[MAX_PATH];
  char narrow[MAX_PATH];
  Drive({[] {},
         [&] { return GetTempFileNameX(HOST, Wide("").c_str(), L"p", 5, wide) == 5; },
         [&] { return fs::path(wide).filename() == "p5.tmp"; },
         {"GetTempFileNameW"}});
  Drive({[] {},
         [&] { return GetTempFileNameTX(HOST, Text().c_str(), "p", 5, narrow) == 5; },
         [&] { return fs::path(narrow).filename() == "p5.tmp"; },
         {"GetTempFileNameA"}});
  Drive({[&] { fs::remove_all(Path("a")); },
         [&] { return SHCreateDirectoryExX(HOST, Wide("a/b").c_str()); },
         [&] { return fs::is_directory(Path("a/b")); },
         {"SHCreateDirectoryExW"}});
  std::wstring slashes;
  Drive({[&] { slashes = L"a\\b"; },
         [&] {
           ReplaceBackslashFromPath(slashes.data(), L"/");
           return true;
         },
         [&] { return slashes == L"a/b"; },
         {}});
}

TEST_F(FailingCalls, MappingsAndViews) {
  NamedObject object(0x10000);
  HANDLE mapping = nullptr;
  void* view = nullptr;
  Drive({[] {},
         [&] { return Close(CreateFileMappingX(HOST, INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 9, 0, nullptr)); },
         [] { return true; },
         {"CreateFileMappingW"}});
  Drive({[] {},
         [&] { return Close(OpenFileMappingX(HOST, FILE_MAP_READ, FALSE, object.Name())); },
         [] { return true; },
         {"OpenFileMappingW"}});
  const ScopedMapping opened(OpenFileMappingX(HOST, FILE_MAP_READ, FALSE, object.Name()));
  mapping = opened.Get();
  Drive({[] {},
         [&] {
           view = MapViewOfFileX(HOST, mapping, FILE_MAP_READ, 0, 0, 0, 700);
           return view && UnmapViewOfFileX(HOST, view);
         },
         [] { return true; },
         {"MapViewOfFile"}});
  view = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
  Drive({[] { VemoClearFVOFInf(); },
         [&] { return FlushViewOfFileX(HOST, view, 0, INVALID_HANDLE_VALUE); },
         [&] { return VemoGetFVOFInf()->callCount == 1; },
         {"FlushViewOfFile"}});
  UnmapViewOfFile(view);
}

TEST_F(FailingCalls, Trees) {
  const auto make = [&] {
    fs::remove_all(Path("copy"));
    fs::create_directories(Path("t/a"));
    Write("t/1", "1");
    Write("t/a/2", "22");
  };
  unsigned long long size;
  Drive({make,
         [&] { return GetFileSizeDirectoryTree(HOST, Wide("t").c_str(), &size); },
         [&] { return size == 3; },
         {"GetFullPathNameW", "FindFirstFileW", "FindNextFileW", "PathCombineW"},
         false});
  Drive({make,
         [&] { return CopyDirectoryTree(HOST, Wide("t").c_str(), Wide("copy").c_str()); },
         [&] { return Holds("copy/1", "1") && Holds("copy/a/2", "22"); },
         {"GetFullPathNameW", "FindFirstFileW", "FindNextFileW", "PathCombineW", "CopyFileW", "SHCreateDirectoryExW"},
         false});
  Drive({make,
         [&] { return DeleteDirectoryTree(HOST, Wide("t").c_str(), TRUE, TRUE); },
         [&] { return !Exists("t"); },
         {"GetFullPathNameW", "FindFirstFileW", "FindNextFileW", "PathCombineW", "DeleteFileW", "RemoveDirectoryW"},
         false});
}

}  // namespace
}  // namespace qel::test
