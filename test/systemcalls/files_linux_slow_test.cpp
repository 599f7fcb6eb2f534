#include "test/systemcalls/system_calls_test.h"

namespace qel::test {
namespace {

class FileCalls : public SystemCalls {};
class TreeCalls : public SystemCalls {};

TEST_F(FileCalls, Making) {
  Drive({"CreateFileX, new", [&] { fs::remove_all(Path("a")); },
         [&] {
           return Close(CreateFileX(HOST, Wide("a/x").c_str(), GENERIC_WRITE, 1, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_HIDDEN, nullptr, 20, 10));
         },
         [&] { return fs::exists(Path("a/x")); }});
  Drive({"CreateFileX, emptied", [&] { Write("x", "1"); },
         [&] {
           return Close(
               CreateFileX(HOST, Wide("x").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr, 20, 10));
         },
         [&] { return Holds("x", ""); }});
  Drive({"SHCreateDirectoryExX", [&] { fs::remove_all(Path("a")); },
         [&] { return SHCreateDirectoryExX(HOST, Wide("a/b").c_str()); },
         [&] { return fs::is_directory(Path("a/b")); }});
  wchar_t wide[MAX_PATH];
  char narrow[MAX_PATH];
  Drive({"GetTempFileNameX", [] {}, [&] { return GetTempFileNameX(HOST, Wide("").c_str(), L"p", 0, wide) != 0; },
         [&] { return fs::exists(fs::path(wide)); }});
  Drive({"GetTempFileNameTX", [] {},
         [&] { return GetTempFileNameTX(HOST, folder_.Narrow().c_str(), "p", 0, narrow) != 0; },
         [&] { return fs::exists(fs::path(narrow)); }});
}

TEST_F(FileCalls, CopyingMovingDeleting) {
  for (const char* former : {"", "former"}) {
    const auto prepare = [&, former] {
      Write("x", "1");
      fs::permissions(Path("x"), fs::perms(0640));
      fs::remove(Path("y"));
      if (*former) Write("y", former);
    };
    Drive({"CopyFileX", prepare, [&] { return CopyFileX(HOST, Wide("x").c_str(), Wide("y").c_str(), FALSE, 20, 10); },
           [&] { return Holds("y", "1") && Holds("x", "1"); }});
    Drive({"MoveFileX", prepare, [&] { return MoveFileX(HOST, Wide("x").c_str(), Wide("y").c_str()); },
           [&] { return Holds("y", "1") && !fs::exists(Path("x")); }});
  }
  Drive({"DeleteFileX", [&] { Write("x", "1"); }, [&] { return DeleteFileX(HOST, Wide("x").c_str(), 30, 10); },
         [&] { return !fs::exists(Path("x")); }});
}

TEST_F(FileCalls, ReadingAndWriting) {
  DWORD count = 0;
  char byte = 0;
  WIN32_FIND_DATAW data;
  DWORD error;
  Drive({"WriteFileX", [&] { OpenFile("x"); },
         [&] { return WriteFileX(HOST, file_.Get(), "1", 1, &count, nullptr) && count == 1; },
         [&] { return Holds("x", "1"); }});
  Drive({"ReadFileX",
         [&] {
           Write("x", "1");
           OpenFile("x");
           byte = 0;
         },
         [&] { return ReadFileX(HOST, file_.Get(), &byte, 1, &count, nullptr); },
         [&] { return byte == '1' && count == 1; }});
  Drive({"GetFileSizeX",
         [&] {
           Write("x", "123");
           error = 0;
         },
         [&] { return GetFileSizeX(Wide("x").c_str(), &data, &error) != 0; }, [&] { return data.nFileSizeLow == 3; },
         Tells::kNothing});
}

TEST_F(TreeCalls, Trees) {
  const auto make = [&] {
    fs::remove_all(Path("copy"));
    fs::create_directories(Path("t/a/b"));
    Write("t/1", "1");
    Write("t/a/2", "22");
    fs::permissions(Path("t/a/2"), fs::perms(0444));
    Write("t/a/b/3", "333");
  };
  unsigned long long size;
  Drive({"GetFileSizeDirectoryTree", make, [&] { return GetFileSizeDirectoryTree(HOST, Wide("t").c_str(), &size); },
         [&] { return size == 6; }, Tells::kNothing});
  Drive({"CopyDirectoryTree", make, [&] { return CopyDirectoryTree(HOST, Wide("t").c_str(), Wide("copy").c_str()); },
         [&] { return Holds("copy/1", "1") && Holds("copy/a/2", "22") && Holds("copy/a/b/3", "333"); },
         Tells::kNothing});
  Drive({"DeleteDirectoryTree", make, [&] { return DeleteDirectoryTree(HOST, Wide("t").c_str(), TRUE, TRUE); },
         [&] { return !fs::exists(Path("t")); }, Tells::kNothing});
}

}  // namespace
}  // namespace qel::test
