#include "test/systemcalls/system_calls_test.h"

namespace qel::test {
namespace {

constexpr DWORD kBytes = 70000;

class MappingCalls : public SystemCalls {
 protected:
  static std::wstring ObjectName(const char* name) {
    const std::string text = "Local\\systemcalls-" + std::to_string(GetCurrentProcessId()) + "-" + name;
    return {text.begin(), text.end()};
  }
  // Whether the library's mapping reaches what this process sees.
  static bool IsShared(HANDLE mapping, HANDLE other) {
    auto* mine = static_cast<char*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0));
    auto* others = static_cast<char*>(MapViewOfFile(other, FILE_MAP_WRITE, 0, 0, 0));
    const bool shared = mine && others && (*mine = '\1', *others == '\1');
    if (others) *others = '\0';
    UnmapViewOfFile(mine);
    UnmapViewOfFile(others);
    return shared;
  }
  std::string ReadObject() {
    const ScopedMapping object(OpenFileMappingW(FILE_MAP_READ, FALSE, ObjectName("target").c_str()));
    auto* bytes = static_cast<char*>(MapViewOfFile(object.Get(), FILE_MAP_READ, 0, 0, kBytes));
    if (!bytes) return {};
    const std::string contents(bytes, kBytes);
    UnmapViewOfFile(bytes);
    return contents;
  }
  // Two named objects, the first with the bytes, the second with zeros, and a file with the bytes.
  void MakeObjects() {
    for (auto [object, name] : {std::pair(&source_, "source"), std::pair(&target_, "target")}) {
      *object = ScopedMapping();
      *object = ScopedMapping(
          CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, kBytes, ObjectName(name).c_str()));
      auto* bytes = static_cast<char*>(MapViewOfFile(object->Get(), FILE_MAP_WRITE, 0, 0, 0));
      std::fill_n(bytes, kBytes, object == &source_ ? 'q' : '\0');
      UnmapViewOfFile(bytes);
    }
    Write("x", bytes_);
    fs::remove(Path("y"));
  }

  const std::string bytes_ = std::string(kBytes, 'q');
  ScopedMapping mapping_, source_, target_;
  char* view_ = nullptr;
};

TEST_F(MappingCalls, Mappings) {
  const std::wstring name = ObjectName("made");
  const auto drop = [&] { mapping_ = ScopedMapping(); };
  for (const wchar_t* text : {static_cast<const wchar_t*>(nullptr), name.c_str()}) {
    Drive({text ? "CreateFileMappingX, named" : "CreateFileMappingX", drop,
           [&] {
             mapping_ = ScopedMapping(
                 CreateFileMappingX(HOST, INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, kBytes, 0, text));
             return static_cast<bool>(mapping_);
           },
           [&] {
             if (!text) return IsShared(mapping_.Get(), mapping_.Get());
             const ScopedMapping other(OpenFileMappingW(FILE_MAP_ALL_ACCESS, FALSE, text));
             return IsShared(mapping_.Get(), other.Get());
           }});
  }
  Drive({"CreateFileMappingX, of a file",
         [&] {
           drop();
           fs::remove(Path("x"));
           OpenFile("x");
         },
         [&] {
           mapping_ = ScopedMapping(CreateFileMappingX(HOST, file_.Get(), nullptr, PAGE_READWRITE, kBytes, 0, nullptr));
           return static_cast<bool>(mapping_);
         },
         [&] { return fs::file_size(Path("x")) == kBytes && IsShared(mapping_.Get(), mapping_.Get()); }});
  Drive({"OpenFileMappingX", [&] { MakeObjects(); },
         [&] {
           mapping_ = ScopedMapping(OpenFileMappingX(HOST, FILE_MAP_ALL_ACCESS, FALSE, ObjectName("source").c_str()));
           return static_cast<bool>(mapping_);
         },
         [&] { return IsShared(mapping_.Get(), source_.Get()); }});
}

TEST_F(MappingCalls, Views) {
  Drive({"MapViewOfFileX and UnmapViewOfFileX", [&] { MakeObjects(); },
         [&] {
           view_ = static_cast<char*>(MapViewOfFileX(HOST, source_.Get(), FILE_MAP_READ, 0, 0, 0, 700));
           return view_ && *view_ == 'q' && UnmapViewOfFileX(HOST, view_);
         },
         [] { return true; }});
  const auto mapFile = [&] {
    if (view_) UnmapViewOfFile(view_);
    mapping_ = ScopedMapping();
    Write("x", bytes_);
    OpenFile("x");
    mapping_ = ScopedMapping(CreateFileMappingW(file_.Get(), nullptr, PAGE_READWRITE, 0, 0, nullptr));
    view_ = static_cast<char*>(MapViewOfFile(mapping_.Get(), FILE_MAP_WRITE, 0, 0, 0));
    if (view_) *view_ = 'r';
  };
  Drive({"FlushViewOfFileX", mapFile, [&] { return FlushViewOfFileX(HOST, view_, 0, INVALID_HANDLE_VALUE); },
         [] { return true; }});
  // Says only whether the size could be read.
  Drive({"FlushMMF", mapFile, [&] { return FlushMMF(HOST, file_.Get(), FALSE); }, [] { return true; }});
  Drive({"FlushMMF2", [&] { Write("y", bytes_); }, [&] { return FlushMMF2(HOST, Wide("y").c_str(), FALSE); },
         [] { return true; }});
}

TEST_F(MappingCalls, Transfers) {
  DWORD count;
  ULONGLONG written;
  const auto clear = [&] {
    fs::remove(Path("y"));
    OpenFile("y");
  };
  const auto arrived = [&] { return Holds("y", bytes_); };
  Drive({"WriteFileMMF2", clear,
         [&] { return WriteFileMMF2(HOST, file_.Get(), bytes_.data(), kBytes, &written, nullptr, 0, 0); }, arrived});
  Drive({"WriteFileMMF", clear,
         [&] { return WriteFileMMF(HOST, file_.Get(), bytes_.data(), kBytes, &count, nullptr, -1); }, arrived});
  const auto remove = [&] {
    file_ = ScopedFile();
    Write("x", bytes_);
    fs::remove(Path("y"));
  };
  Drive({"Mem2FileMMF", remove, [&] { return Mem2FileMMF(HOST, bytes_.data(), kBytes, Wide("y").c_str(), -1); },
         arrived});
  // A failed write leaves last error 0.
  Drive({"Mem2File", remove, [&] { return Mem2File(HOST, bytes_.data(), kBytes, Wide("y").c_str()); }, arrived,
         Tells::kNothing});
  for (const BOOL mapSource : {TRUE, FALSE}) {
    Drive({"CopyFileMMF", remove,
           [&] { return CopyFileMMF(HOST, Wide("x").c_str(), Wide("y").c_str(), FALSE, -1, mapSource); }, arrived});
  }
}

TEST_F(MappingCalls, Objects) {
  const std::wstring source = ObjectName("source"), target = ObjectName("target");
  const auto make = [&] { MakeObjects(); };
  const auto arrived = [&] { return ReadObject() == bytes_; };
  Drive({"ObjectToFile", make,
         [&] { return ObjectToFile(HOST, ObjectName("source").c_str(), kBytes, 0, Wide("y").c_str(), -1); },
         [&] { return Holds("y", bytes_); }});
  Drive({"CopyObject", make,
         [&] { return CopyObject(HOST, ObjectName("source").c_str(), kBytes, 0, ObjectName("target").c_str(), -1); },
         arrived});
  for (const BOOL mapSource : {TRUE, FALSE}) {
    Drive(
        {"FileToObject", make,
         [&] { return FileToObject(HOST, Wide("x").c_str(), kBytes, 0, ObjectName("target").c_str(), -1, mapSource); },
         arrived});
  }
}

}  // namespace
}  // namespace qel::test
