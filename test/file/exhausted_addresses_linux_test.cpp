// A process whose address space is used up: what needs a view fails with error 8, what needs none works, and contents
// that were there stay as they were.
#include "test/file/transfer_test.h"

namespace qel::test {
namespace {

constexpr DWORD kBytes = 4 * kGranularity;

// Filled while there is no memory to be had.
struct Outcome {
  const char* call;
  BOOL done;
  DWORD error;
};
Outcome g_outcomes[16];
size_t g_count = 0;

void Note(const char* call, BOOL done) { g_outcomes[g_count++] = {call, done, GetLastError()}; }

// arguments: the folder. It holds "source" and "target", both of kBytes.
CHILD_ROLE(UseFilesWithoutAddresses) {
  LogFolder();
  FakeClock clock;
  const auto names = [&](const char* name) { return (fs::path(arguments[0]) / name).wstring(); };
  const std::wstring source = names("source"), target = names("target"), copy = names("copy"), made = names("made"),
                     mapped = names("mapped"), saved = names("saved"), moved = names("moved");
  NamedObject object(kBytes);
  const std::string contents(kBytes, 'o');
  object.Fill(contents);
  ScopedFile file(OpenPlain(target, GENERIC_READ | GENERIC_WRITE, 3));
  const ScopedMapping mapping(CreateFileMappingX(HOST, file.Get(), nullptr, PAGE_READWRITE, 0, 0, nullptr));
  const std::string block(kBytes, 'b');
  DeleteFileX(HOST, names("none").c_str(), 0, 0);  // the first lines of a process take memory
  const unsigned long handles = OpenHandleCount();

  TakeAll(Resource::kAddressSpace);
  ULONGLONG written = 0;
  Note("MapViewOfFileX", MapViewOfFileX(HOST, mapping.Get(), FILE_MAP_READ, 0, 0, 0, 1000) != nullptr);
  Note("WriteFileMMF2", WriteFileMMF2(HOST, file.Get(), block.data(), kBytes, &written, nullptr, 0, -1));
  Note("Mem2FileMMF", Mem2FileMMF(HOST, block.data(), kBytes, mapped.c_str(), -1));
  Note("CopyFileMMF", CopyFileMMF(HOST, source.c_str(), mapped.c_str(), FALSE, -1, TRUE));
  Note("ObjectToFile", ObjectToFile(HOST, object.Name(), kBytes, 0, saved.c_str(), -1));
  Note("FileToObject", FileToObject(HOST, source.c_str(), kBytes, 0, object.Name(), -1, TRUE));
  Note("Mem2File", Mem2File(HOST, block.data(), kBytes, made.c_str()));
  Note("CopyFileX", CopyFileX(HOST, source.c_str(), copy.c_str(), FALSE, 0, 0));
  Note("MoveFileX", MoveFileX(HOST, copy.c_str(), moved.c_str()));
  GiveBack();

  for (size_t i = 0; i < g_count; ++i)
    Say(g_outcomes[i].call + std::string(g_outcomes[i].done ? " done" : " failed ") +
        (g_outcomes[i].done ? "" : std::to_string(g_outcomes[i].error)));
  const bool kept = object.Bytes() == contents && OpenHandleCount() == handles && written == 0;
  return kept ? 0 : 1;
}

class ExhaustedAddresses : public FileTest {};

TEST_F(ExhaustedAddresses, FailWithError8AndLeaveContentsAlone) {
  SKIP_UNDER_ASAN();
  const std::string source = Pattern(kBytes), target = Pattern(kBytes, 2);
  Write("source", source);
  Write("target", target);
  ChildProcess child("UseFilesWithoutAddresses", {Text()});
  for (const char* outcome :
       {"MapViewOfFileX failed 8", "WriteFileMMF2 failed 8", "Mem2FileMMF failed 8", "CopyFileMMF failed 8",
        "ObjectToFile failed 8", "FileToObject failed 8", "Mem2File done", "CopyFileX done", "MoveFileX done"}) {
    EXPECT_EQ(child.WaitForLine(), outcome);
  }
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_TRUE(FileHolds(Path("source"), source));
  EXPECT_TRUE(FileHolds(Path("target"), target));
  EXPECT_TRUE(FileHolds(Path("moved"), source));
  EXPECT_TRUE(FileHolds(Path("made"), std::string(kBytes, 'b')));
}

}  // namespace
}  // namespace qel::test
