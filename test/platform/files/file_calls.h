// Calls of the file interface with their result and last error as one value that a table can hold.
#pragma once
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "test/platform/objects/handles.h"
#include "test/support/scratch_folder.h"

namespace qel::test {

inline constexpr DWORD kR = GENERIC_READ, kW = GENERIC_WRITE, kRW = GENERIC_READ | GENERIC_WRITE;
inline constexpr DWORD kShareAll = 7;

struct Outcome {
  bool succeeded;
  DWORD error;
  bool operator==(const Outcome&) const = default;
  friend std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    out << (outcome.succeeded ? "success" : "failure");
    if (outcome.error != kUntouched) out << " with error " << outcome.error;
    return out;
  }
};
inline constexpr Outcome Success(DWORD error = kUntouched) { return {true, error}; }
inline constexpr Outcome Failure(DWORD error) { return {false, error}; }

template <class Call>
Outcome Ask(Call call) {
  const auto [succeeded, error] = WithLastError(kUntouched, call);
  return {succeeded != 0, error};
}

// A file handle that is closed at the end of the scope.
class FileHandle : public Handle {
 public:
  explicit FileHandle(const std::wstring& name, DWORD access = kRW, DWORD share = kShareAll,
                      DWORD disposition = OPEN_ALWAYS, DWORD flags = FILE_ATTRIBUTE_NORMAL)
      : Handle(CreateFileW(name.c_str(), access, share, nullptr, disposition, flags, nullptr)) {}
  HANDLE get() const { return *this; }
  bool IsOpen() const { return get() && get() != INVALID_HANDLE_VALUE; }
};

inline Outcome Create(const wchar_t* name, DWORD access, DWORD share, DWORD disposition,
                      DWORD flags = FILE_ATTRIBUTE_NORMAL) {
  const auto [handle, error] =
      WithLastError(kUntouched, [&] { return CreateFileW(name, access, share, nullptr, disposition, flags, nullptr); });
  return {handle != INVALID_HANDLE_VALUE && CloseHandle(handle), error};
}
inline Outcome Create(const std::wstring& name, DWORD access, DWORD share, DWORD disposition) {
  return Create(name.c_str(), access, share, disposition);
}
inline Outcome Delete(const std::wstring& name) {
  return Ask([&] { return DeleteFileW(name.c_str()); });
}
inline Outcome Find(const wchar_t* pattern) {
  WIN32_FIND_DATAW data;
  const auto [find, error] = WithLastError(kUntouched, [&] { return FindFirstFileW(pattern, &data); });
  return {find != INVALID_HANDLE_VALUE && FindClose(find), error};
}

// The test's own folder, which is the current one meanwhile, so that relative names lead into it.
class FileTest : public testing::Test {
 protected:
  FileTest() : before_(std::filesystem::current_path()) { std::filesystem::current_path(scratch.Path()); }
  ~FileTest() override { std::filesystem::current_path(before_); }

  std::wstring At(const std::string& name) const { return scratch.Wide(name); }
  void Write(const std::string& name, const std::string& bytes = "text") const {
    WriteWholeFile(scratch.Path() / name, bytes);
  }
  std::string Read(const std::string& name) const { return ReadWholeFile(scratch.Path() / name); }
  bool Exists(const std::string& name) const { return GetFileAttributesW(At(name).c_str()) != INVALID_FILE_ATTRIBUTES; }
  void MakeFolder(const std::string& name) const { std::filesystem::create_directory(scratch.Path() / name); }
  void SetAttributes(const std::string& name, DWORD attributes) const {
    ASSERT_TRUE(SetFileAttributesW(At(name).c_str(), attributes));
  }

  ScratchFolder scratch;

 private:
  std::filesystem::path before_;
};

}  // namespace qel::test
