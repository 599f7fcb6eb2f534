// The exports that work on files, mappings and objects: what must be there before each, and what its success promises.
// Tests drive them while what lies below fails: the calls of Win32 (test/file/), or the system calls of Linux
// (test/systemcalls/).
#pragma once
#include "test/support/library.h"

namespace qel::test {

// What the last error tells of a failure: the error of the call that failed, an error of whichever call, or nothing.
enum class Tells { kItsError, kSomeError, kNothing };

struct TestedExport {
  const char* name;
  std::function<void()> prepare;                      // makes things as they are before the call
  std::function<bool()> call;                         // whether it reports success
  std::function<bool()> holds = [] { return true; };  // whether what a success promises is there
  std::string needs = {};  // the Win32 calls without which there is no success, with spaces between
  Tells tells = Tells::kItsError;
  std::function<bool()> wrote = [] { return true; };  // for a call that says nothing: whether it has done anything
};

class TestedExports {
 public:
  explicit TestedExports(DWORD bytes) : bytes_(Pattern(bytes)) {}  // that a transfer moves
  TestedExports(const TestedExports&) = delete;
  TestedExports& operator=(const TestedExports&) = delete;
  ~TestedExports() { LetGo(); }

  std::vector<TestedExport> OfFiles(), OfTrees(), OfMappings(), OfViews(), OfTransfers(), OfObjects();

  fs::path Path(const char* name) const { return folder_.Path() / name; }
  bool HoldsFile() const { return static_cast<bool>(file_); }

 private:
  std::vector<TestedExport> EachFromTheStart(std::vector<TestedExport> exports);
  void LetGo();
  std::wstring Wide(const char* name) const { return folder_.Wide(name); }
  bool Holds(const char* name, const std::string& bytes) const { return ReadWholeFile(Path(name)) == bytes; }
  void Write(const char* name, const std::string& bytes) const { WriteWholeFile(Path(name), bytes); }
  void OpenFile(const char* name);
  bool Made(HANDLE mapping);
  bool IsShared(HANDLE other);
  void MakeObjects();
  void MapFile();

  const std::string bytes_;
  const ScratchFolder folder_;
  const std::wstring made_ = UniqueName();
  ScopedFile file_;
  ScopedMapping mapping_;
  std::unique_ptr<NamedObject> source_, target_;
  char* view_ = nullptr;
  // What the exports fill.
  DWORD count_ = 0, error_ = 0;
  ULONGLONG written_ = 0;
  char byte_ = 0;
  wchar_t wide_[MAX_PATH] = L"";
  char narrow_[MAX_PATH] = "";
  WIN32_FIND_DATAW data_{};
  unsigned long long size_ = 0;
};

}  // namespace qel::test
