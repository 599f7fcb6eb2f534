// Calls of the file interface with their result and last error as one value that a table can hold.
#pragma once
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "test/platform/files/files_here.h"
#include "test/platform/objects/handles.h"

namespace qel::test {

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

class FileTest : public testing::Test, protected FilesHere {
 protected:
  void SetAttributes(const std::string& name, DWORD attributes) const {
    ASSERT_TRUE(SetFileAttributesW(At(name).c_str(), attributes));
  }
};

}  // namespace qel::test
