#include "test/support/tested_exports.h"

namespace qel::test {
namespace {

bool Close(HANDLE object) { return object != INVALID_HANDLE_VALUE && object != nullptr && CloseHandle(object); }

}  // namespace

// Nothing of an export before is open any more.
std::vector<TestedExport> TestedExports::EachFromTheStart(std::vector<TestedExport> exports) {
  for (TestedExport& each : exports) {
    each.prepare = [this, prepare = each.prepare] {
      LetGo();
      prepare();
    };
  }
  return exports;
}

void TestedExports::LetGo() {
  if (view_) UnmapViewOfFile(std::exchange(view_, nullptr));
  mapping_ = ScopedMapping();
  source_.reset();
  target_.reset();
  file_ = ScopedFile();
}

void TestedExports::OpenFile(const char* name) {
  file_ =
      ScopedFile(CreateFileW(Wide(name).c_str(), GENERIC_READ | GENERIC_WRITE, 7, nullptr, OPEN_ALWAYS, 0, nullptr));
}

std::vector<TestedExport> TestedExports::OfFiles() {
  const auto create = [this](const char* name) {
    return Close(CreateFileX(HOST, Wide(name).c_str(), GENERIC_WRITE, 1, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_HIDDEN,
                             nullptr, 20, 10));
  };
  const auto removeFolder = [this] { fs::remove_all(Path("a")); };
  const auto writeFile = [this] { Write("x", "123"); };
  const auto openFile = [this] {
    Write("x", "123");
    OpenFile("x");
  };
  std::vector<TestedExport> exports = {
      {"CreateFileX, new", removeFolder, [=] { return create("a/x"); }, [this] { return fs::exists(Path("a/x")); },
       "CreateFileW SHCreateDirectoryExW", Tells::kSomeError},
      {"CreateFileX, emptied", [] {}, [=] { return create("x"); }, [this] { return Holds("x", ""); }, "CreateFileW",
       Tells::kSomeError},
      {"SHCreateDirectoryExX", removeFolder, [this] { return SHCreateDirectoryExX(HOST, Wide("a/b").c_str()); },
       [this] { return fs::is_directory(Path("a/b")); }, "SHCreateDirectoryExW"},
      {"GetTempFileNameX", [] {}, [this] { return GetTempFileNameX(HOST, Wide("").c_str(), L"p", 0, wide_) != 0; },
       [this] { return fs::exists(fs::path(wide_)); }, "GetTempFileNameW"},
      {"GetTempFileNameTX", [] {},
       [this] { return GetTempFileNameTX(HOST, folder_.Narrow().c_str(), "p", 0, narrow_) != 0; },
       [this] { return fs::exists(fs::path(narrow_)); }, "GetTempFileNameA"},
      {"DeleteFileX", writeFile, [this] { return DeleteFileX(HOST, Wide("x").c_str(), 30, 10); },
       [this] { return !fs::exists(Path("x")); }, "DeleteFileW FindFirstFileW"},
      {"WriteFileX", openFile,
       [this] { return WriteFileX(HOST, file_.Get(), "4", 1, &count_, nullptr) && count_ == 1; },
       [this] { return Holds("x", "423"); }, "WriteFile"},
      {"ReadFileX", openFile, [this] { return ReadFileX(HOST, file_.Get(), &byte_, 1, &count_, nullptr); },
       [this] { return count_ == 1 && std::exchange(byte_, '\0') == '1'; }, "ReadFile"},
      {"GetFileSizeX", writeFile, [this] { return GetFileSizeX(Wide("x").c_str(), &data_, &error_) != 0; },
       [this] { return data_.nFileSizeLow == 3; }, "FindFirstFileW"}};
  for (const char* former : {"", "former"}) {
    const auto prepare = [=, this] {
      Write("x", "1");
      fs::permissions(Path("x"), fs::perms(0640));
      fs::remove(Path("y"));
      if (*former) Write("y", former);
    };
    exports.push_back({"CopyFileX", prepare,
                       [this] { return CopyFileX(HOST, Wide("x").c_str(), Wide("y").c_str(), FALSE, 20, 10); },
                       [this] { return Holds("y", "1") && Holds("x", "1"); }, "CopyFileW"});
    exports.push_back({"MoveFileX", prepare, [this] { return MoveFileX(HOST, Wide("x").c_str(), Wide("y").c_str()); },
                       [this] { return Holds("y", "1") && !fs::exists(Path("x")); },
                       *former ? "MoveFileW DeleteFileW" : "MoveFileW", Tells::kSomeError});
  }
  return EachFromTheStart(exports);
}

std::vector<TestedExport> TestedExports::OfTrees() {
  const auto make = [this] {
    fs::remove_all(Path("copy"));
    fs::create_directories(Path("t/a/b"));
    Write("t/1", "1");
    Write("t/a/2", "22");
    Write("t/a/b/3", "333");
  };
  const std::string walk = "GetFullPathNameW FindFirstFileW FindNextFileW PathCombineW";
  return EachFromTheStart(
      {{"GetFileSizeDirectoryTree", make, [this] { return GetFileSizeDirectoryTree(HOST, Wide("t").c_str(), &size_); },
        [this] { return size_ == 6; }, walk, Tells::kNothing},
       {"CopyDirectoryTree", make, [this] { return CopyDirectoryTree(HOST, Wide("t").c_str(), Wide("copy").c_str()); },
        [this] { return Holds("copy/1", "1") && Holds("copy/a/2", "22") && Holds("copy/a/b/3", "333"); },
        walk + " CopyFileW SHCreateDirectoryExW", Tells::kNothing},
       {"DeleteDirectoryTree", make, [this] { return DeleteDirectoryTree(HOST, Wide("t").c_str(), TRUE, TRUE); },
        [this] { return !fs::exists(Path("t")); }, walk + " DeleteFileW RemoveDirectoryW", Tells::kNothing}});
}

bool TestedExports::Made(HANDLE mapping) {
  mapping_ = ScopedMapping(mapping);
  return mapping != nullptr;
}

// Whether the mapping that was made, and is given up now, reaches what the other one shows.
bool TestedExports::IsShared(HANDLE other) {
  auto* mine = static_cast<char*>(MapViewOfFile(mapping_.Get(), FILE_MAP_WRITE, 0, 0, 0));
  auto* others = static_cast<char*>(MapViewOfFile(other, FILE_MAP_WRITE, 0, 0, 0));
  const bool shared = mine && others && (*mine = '\1', *others == '\1');
  UnmapViewOfFile(mine);
  UnmapViewOfFile(others);
  mapping_ = ScopedMapping();
  return shared;
}

// Two named objects, the first with the bytes, the second with zeros, and a file with the bytes.
void TestedExports::MakeObjects() {
  source_ = std::make_unique<NamedObject>(bytes_.size());
  source_->Fill(bytes_);
  target_ = std::make_unique<NamedObject>(bytes_.size());
  Write("x", bytes_);
  fs::remove(Path("y"));
}

std::vector<TestedExport> TestedExports::OfMappings() {
  const auto create = [this](HANDLE file, const wchar_t* name) {
    return Made(CreateFileMappingX(HOST, file, nullptr, PAGE_READWRITE, 70000, 0, name));
  };
  const char* const needs = "CreateFileMappingW";
  return EachFromTheStart(
      {{"CreateFileMappingX", [] {}, [=] { return create(INVALID_HANDLE_VALUE, nullptr); },
        [this] { return IsShared(mapping_.Get()); }, needs},
       {"CreateFileMappingX, named", [] {}, [=, this] { return create(INVALID_HANDLE_VALUE, made_.c_str()); },
        [this] {
          const ScopedMapping other(OpenFileMappingW(FILE_MAP_ALL_ACCESS, FALSE, made_.c_str()));
          return IsShared(other.Get());
        },
        needs},
       {"CreateFileMappingX, of a file",
        [this] {
          fs::remove(Path("x"));
          OpenFile("x");
        },
        [=, this] { return create(file_.Get(), nullptr); },
        [this] { return fs::file_size(Path("x")) == 70000 && IsShared(mapping_.Get()); }, needs},
       {"OpenFileMappingX", [this] { MakeObjects(); },
        [this] { return Made(OpenFileMappingX(HOST, FILE_MAP_ALL_ACCESS, FALSE, source_->Name())); },
        [this] { return IsShared(source_->Get()); }, "OpenFileMappingW"},
       {"MapViewOfFileX and UnmapViewOfFileX", [this] { MakeObjects(); },
        [this] {
          auto* const view = static_cast<char*>(MapViewOfFileX(HOST, source_->Get(), FILE_MAP_READ, 0, 0, 0, 700));
          return view && *view == bytes_[0] && UnmapViewOfFileX(HOST, view);
        },
        [] { return true; }, "MapViewOfFile"}});
}

void TestedExports::MapFile() {
  Write("x", bytes_);
  OpenFile("x");
  mapping_ = ScopedMapping(CreateFileMappingW(file_.Get(), nullptr, PAGE_READWRITE, 0, 0, nullptr));
  view_ = static_cast<char*>(MapViewOfFile(mapping_.Get(), FILE_MAP_WRITE, 0, 0, 0));
  *view_ = static_cast<char>(*view_ + 1);
  VemoClearFVOFInf();
}

std::vector<TestedExport> TestedExports::OfViews() {
  return EachFromTheStart(
      {{"FlushViewOfFileX", [this] { MapFile(); },
        [this] { return FlushViewOfFileX(HOST, view_, 0, INVALID_HANDLE_VALUE); },
        [] { return VemoGetFVOFInf()->callCount == 1; }, "FlushViewOfFile"},
       // The two say only whether the size could be read.
       {"FlushMMF", [this] { MapFile(); }, [this] { return FlushMMF(HOST, file_.Get(), FALSE); }, [] { return true; },
        "GetFileSizeEx"},
       {"FlushMMF2", [this] { Write("y", bytes_); }, [this] { return FlushMMF2(HOST, Wide("y").c_str(), TRUE); },
        [] { return true; }, "GetFileSizeEx CreateFileW"}});
}

std::vector<TestedExport> TestedExports::OfTransfers() {
  const auto size = static_cast<DWORD>(bytes_.size());
  const auto remove = [this] {
    Write("x", bytes_);
    fs::remove(Path("y"));
  };
  const auto open = [=, this] {
    fs::remove(Path("y"));
    OpenFile("y");
  };
  const auto arrived = [this] { return Holds("y", bytes_); };
  std::vector<TestedExport> exports = {
      {"WriteFileMMF2", open,
       [=, this] { return WriteFileMMF2(HOST, file_.Get(), bytes_.data(), size, &written_, nullptr, 0, 0); }, arrived,
       "CreateFileMappingW MapViewOfFile SetFilePointerEx"},
      {"WriteFileMMF", open,
       [=, this] { return WriteFileMMF(HOST, file_.Get(), bytes_.data(), size, &count_, nullptr, -1); }, arrived,
       "CreateFileMappingW MapViewOfFile SetFilePointerEx"},
      {"Mem2FileMMF", remove, [=, this] { return Mem2FileMMF(HOST, bytes_.data(), size, Wide("y").c_str(), 0); },
       arrived, "CreateFileW CreateFileMappingW MapViewOfFile"},
      // A failed write leaves last error 0.
      {"Mem2File", remove, [=, this] { return Mem2File(HOST, bytes_.data(), size, Wide("y").c_str()); }, arrived,
       "CreateFileW WriteFile", Tells::kNothing}};
  for (const BOOL mapSource : {TRUE, FALSE}) {
    exports.push_back(
        {"CopyFileMMF", remove,
         [=, this] { return CopyFileMMF(HOST, Wide("x").c_str(), Wide("y").c_str(), TRUE, 0, mapSource); }, arrived,
         std::string("CreateFileW GetFileSizeEx CreateFileMappingW MapViewOfFile") + (mapSource ? "" : " ReadFile")});
  }
  return EachFromTheStart(exports);
}

std::vector<TestedExport> TestedExports::OfObjects() {
  const auto size = static_cast<DWORD>(bytes_.size());
  const auto make = [this] { MakeObjects(); };
  const auto arrived = [this] { return target_->Bytes() == bytes_; };
  std::vector<TestedExport> exports = {
      {"ObjectToFile", make, [=, this] { return ObjectToFile(HOST, source_->Name(), size, 0, Wide("y").c_str(), 0); },
       [this] { return Holds("y", bytes_); }, "OpenFileMappingW CreateFileW CreateFileMappingW MapViewOfFile"},
      {"CopyObject", make, [=, this] { return CopyObject(HOST, source_->Name(), size, 0, target_->Name(), -1); },
       arrived, "OpenFileMappingW MapViewOfFile"}};
  for (const BOOL mapSource : {TRUE, FALSE}) {
    exports.push_back(
        {"FileToObject", make,
         [=, this] { return FileToObject(HOST, Wide("x").c_str(), size, 0, target_->Name(), -1, mapSource); }, arrived,
         std::string("OpenFileMappingW CreateFileW GetFileSizeEx MapViewOfFile ") +
             (mapSource ? "CreateFileMappingW" : "ReadFile")});
  }
  return EachFromTheStart(exports);
}

}  // namespace qel::test
