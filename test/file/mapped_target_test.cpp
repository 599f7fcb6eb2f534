// Transfers into a file that is mapped: refused, and the file keeps what it holds.
#include "test/file/transfer_test.h"

namespace qel::test {
namespace {

class MappedTarget : public FileTest {};

TEST_F(MappedTarget, IsRefusedBeforeAnythingIsLost) {
  constexpr DWORD kBytes = 100000;
  const FakeClock clock;  // a sharing violation is retried
  const std::string kept = Pattern(kBytes, 5);
  Write("source", Pattern(kBytes));
  Write("target", kept);
  NamedObject object(kBytes);
  const std::wstring source = Wide("source"), target = Wide("target");
  const std::pair<const char*, std::function<BOOL()>> transfers[] = {
      {"Mem2File", [&] { return Mem2File(HOST, kept.data(), 10, target.c_str()); }},
      {"Mem2FileMMF", [&] { return Mem2FileMMF(HOST, kept.data(), 10, target.c_str(), -1); }},
      {"CopyFileMMF", [&] { return CopyFileMMF(HOST, source.c_str(), target.c_str(), FALSE, -1, TRUE); }},
      {"ObjectToFile", [&] { return ObjectToFile(HOST, object.Name(), kBytes, 0, target.c_str(), -1); }},
      {"CopyFileX", [&] { return CopyFileX(HOST, source.c_str(), target.c_str(), FALSE, 0, 0); }},
  };
  for (const DWORD protection : {PAGE_READONLY, PAGE_READWRITE}) {
    ScopedFile file(CreateFileW(target.c_str(), GENERIC_READ | GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr));
    const ScopedMapping mapping(CreateFileMappingW(file.Get(), nullptr, protection, 0, 0, nullptr));
    file = ScopedFile();
    void* const view = MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, 0);
    for (const auto& [name, transfer] : transfers) {
      if (sizeof(wchar_t) == 2 && std::string(name) == "CopyFileX") continue;  // Wine does not hold it off
      SCOPED_TRACE(testing::Message() << name << ", protection " << protection);
      const bool opensAlone = protection == PAGE_READWRITE && std::string(name) != "CopyFileX";
      EXPECT_FALSE(transfer());
      if (sizeof(wchar_t) == 4) {  // Wine's server does not look at writable mappings at every open
        EXPECT_EQ(GetLastError(), opensAlone ? 32u : 1224u);
      }
      EXPECT_TRUE(FileHolds(Path("target"), kept));
    }
    UnmapViewOfFile(view);
  }
}

}  // namespace
}  // namespace qel::test
