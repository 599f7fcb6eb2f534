// Two chunks each, so that views fail in the middle.
#include "test/file/failing_calls_test.h"

namespace qel::test {
namespace {

constexpr DWORD kObjectBytes = kChunk + 100;

TEST_F(FailingCalls, FlushingFiles) {
  Write("x", Pattern(kChunk + 1));
  {
    const ScopedFile file = OpenFile("x");
    Drive({[] {}, [&] { return FlushMMF(HOST, file.Get(), FALSE); }, [] { return true; }, {"GetFileSizeEx"}});
  }
  Drive({[] {},
         [&] { return FlushMMF2(HOST, Wide("x").c_str(), TRUE); },
         [] { return true; },
         {"GetFileSizeEx", "CreateFileW"}});
}

TEST_F(FailingCalls, WritingThroughViews) {
  const std::string bytes = Pattern(kChunk + 1);
  const DWORD size = static_cast<DWORD>(bytes.size());
  MemoryShortage shortage;
  {
    const ScopedFile file = OpenFile("x");
    ULONGLONG written;
    DWORD count;
    const auto holds = [&] { return Holds("x", bytes); };
    Drive({[] {},
           [&] { return WriteFileMMF2(HOST, file.Get(), bytes.data(), size, &written, nullptr, 0, 100); },
           holds,
           {"CreateFileMappingW", "MapViewOfFile", "SetFilePointerEx"}});
    Drive({[&] { SetFilePointerEx(file.Get(), {}, nullptr, FILE_BEGIN); },
           [&] { return WriteFileMMF(HOST, file.Get(), bytes.data(), size, &count, nullptr, -1); },
           holds,
           {"CreateFileMappingW", "MapViewOfFile", "SetFilePointerEx"}});
  }
  Drive({[&] { fs::remove(Path("y")); },
         [&] { return Mem2FileMMF(HOST, bytes.data(), size, Wide("y").c_str(), 100); },
         [&] { return Holds("y", bytes); },
         {"CreateFileW", "CreateFileMappingW", "MapViewOfFile"}});
  Drive({[&] { fs::remove(Path("y")); },
         [&] { return Mem2File(HOST, bytes.data(), size, Wide("y").c_str()); },
         [&] { return Holds("y", bytes); },
         {"CreateFileW", "WriteFile"},
         false});
}

TEST_F(FailingCalls, CopyingThroughViews) {
  const std::string bytes = Pattern(kChunk + 1);
  Write("x", bytes);
  for (const BOOL mapSource : {TRUE, FALSE}) {
    std::vector<std::string> needs = {"CreateFileW", "GetFileSizeEx", "CreateFileMappingW", "MapViewOfFile"};
    if (!mapSource) needs.push_back("ReadFile");
    Drive({[&] { fs::remove(Path("y")); },
           [&] { return CopyFileMMF(HOST, Wide("x").c_str(), Wide("y").c_str(), TRUE, 100, mapSource); },
           [&] { return Holds("y", bytes); }, needs});
  }
}

TEST_F(FailingCalls, Objects) {
  const std::string bytes = Pattern(kObjectBytes);
  NamedObject source(kObjectBytes), target(kObjectBytes);
  source.Fill(bytes);
  Write("x", bytes);
  const auto arrived = [&] { return target.Bytes() == bytes; };
  const auto clear = [&] { target.Fill(std::string(kObjectBytes, '\0')); };
  Drive({[&] { fs::remove(Path("y")); },
         [&] { return ObjectToFile(HOST, source.Name(), kObjectBytes, 0, Wide("y").c_str(), 100); },
         [&] { return Holds("y", bytes); },
         {"OpenFileMappingW", "CreateFileW", "CreateFileMappingW", "MapViewOfFile"}});
  Drive({clear,
         [&] { return CopyObject(HOST, source.Name(), kObjectBytes, 0, target.Name(), -1); },
         arrived,
         {"OpenFileMappingW", "MapViewOfFile"}});
  for (const BOOL mapSource : {TRUE, FALSE}) {
    Drive({clear,
           [&] { return FileToObject(HOST, Wide("x").c_str(), kObjectBytes, 0, target.Name(), -1, mapSource); },
           arrived,
           {"OpenFileMappingW", "CreateFileW", "GetFileSizeEx", "MapViewOfFile",
            mapSource ? "CreateFileMappingW" : "ReadFile"}});
  }
}

}  // namespace
}  // namespace qel::test
