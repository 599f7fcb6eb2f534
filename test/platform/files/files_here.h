// A folder of the test's own, which is the current one meanwhile, so that relative names lead into it.
#pragma once
#include "qelibaselib/platform/win32.h"
#include "test/support/scratch_folder.h"

namespace qel::test {

inline constexpr DWORD kR = GENERIC_READ, kW = GENERIC_WRITE, kRW = GENERIC_READ | GENERIC_WRITE;
inline constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

class FilesHere {
 public:
  FilesHere() : before_(std::filesystem::current_path()) { std::filesystem::current_path(scratch.Path()); }
  FilesHere(const FilesHere&) = delete;
  FilesHere& operator=(const FilesHere&) = delete;
  ~FilesHere() { std::filesystem::current_path(before_); }

  std::wstring At(const std::string& name) const { return scratch.Wide(name); }
  void Write(const std::string& name, const std::string& bytes = "text") const {
    WriteWholeFile(scratch.Path() / name, bytes);
  }
  std::string Read(const std::string& name) const { return ReadWholeFile(scratch.Path() / name); }
  bool Exists(const std::string& name) const { return GetFileAttributesW(At(name).c_str()) != INVALID_FILE_ATTRIBUTES; }
  void MakeFolder(const std::string& name) const { std::filesystem::create_directory(scratch.Path() / name); }

  ScratchFolder scratch;

 private:
  std::filesystem::path before_;
};

}  // namespace qel::test
