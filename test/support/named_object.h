// A named object of this process, with a view of all of it.
#pragma once
#include <gtest/gtest.h>

#include "qelibaselib/base/scoped_handles.h"
#include "test/support/handle.h"

namespace qel::test {

class NamedObject {
 public:
  explicit NamedObject(DWORD bytes)
      : bytes_(bytes),
        mapping_(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, bytes, name_.c_str())),
        view_(static_cast<char*>(MapViewOfFile(mapping_.Get(), FILE_MAP_ALL_ACCESS, 0, 0, bytes))) {
    EXPECT_NE(view_, nullptr);
  }
  NamedObject(const NamedObject&) = delete;
  NamedObject& operator=(const NamedObject&) = delete;
  ~NamedObject() { UnmapViewOfFile(view_); }

  HANDLE Get() const { return mapping_.Get(); }
  const wchar_t* Name() const { return name_.c_str(); }
  std::string Bytes() const { return {view_, bytes_}; }
  void Fill(const std::string& bytes) { std::copy(bytes.begin(), bytes.end(), view_); }

 private:
  const std::wstring name_ = UniqueName();
  const DWORD bytes_;
  const ScopedMapping mapping_;
  char* const view_;
};

}  // namespace qel::test
