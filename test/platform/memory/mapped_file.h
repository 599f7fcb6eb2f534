// Mapped files, views and blocks for the sections and tests of memory.
#pragma once
#include <filesystem>
#include <string>
#include <utility>

#include "qelibaselib/platform/win32.h"
#include "test/platform/objects/handles.h"
#include "test/support/scratch_folder.h"

namespace qel::test {

inline constexpr DWORD kGranularity = 0x10000;
inline constexpr DWORD kCommitAndReserve = MEM_COMMIT | MEM_RESERVE;

// A file of so many letters x, open for reading and writing; all kinds of sharing are allowed.
class MappedFile {
 public:
  explicit MappedFile(size_t bytes) {
    WriteWholeFile(Path(), std::string(bytes, 'x'));
    handle_ = Open(GENERIC_READ | GENERIC_WRITE);
  }
  Handle Open(DWORD access) const {
    return CreateFileW(Name().c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  }
  HANDLE handle() const { return handle_; }
  std::wstring Name() const { return folder_.Wide("file"); }
  void Close() { handle_.Close(); }
  std::filesystem::path Path() const { return folder_.Path() / "file"; }
  size_t Size() const { return std::filesystem::file_size(Path()); }
  std::string Contents() const { return ReadWholeFile(Path()); }

 private:
  ScratchFolder folder_;
  Handle handle_;
};

inline HANDLE CreateMapping(HANDLE file, DWORD protection, DWORD bytes = 0, const wchar_t* name = nullptr) {
  return CreateFileMappingW(file, nullptr, protection, 0, bytes, name);
}

inline MEMORY_BASIC_INFORMATION Query(const void* address) {
  MEMORY_BASIC_INFORMATION information = {};
  information.RegionSize = VirtualQuery(address, &information, sizeof information) ? information.RegionSize : 0;
  return information;
}

class View {
 public:
  View(HANDLE mapping, DWORD access, DWORD offset, SIZE_T bytes)
      : base_(static_cast<char*>(MapViewOfFile(mapping, access, 0, offset, bytes))) {}
  View(View&& other) noexcept : base_(std::exchange(other.base_, nullptr)) {}
  ~View() {
    if (base_) UnmapViewOfFile(base_);
  }
  explicit operator bool() const { return base_ != nullptr; }
  char* base() const { return base_; }
  char& operator[](size_t index) const { return base_[index]; }
  char* Release() { return std::exchange(base_, nullptr); }

 private:
  char* base_;
};

class Block {
 public:
  explicit Block(SIZE_T bytes, DWORD type = kCommitAndReserve)
      : base_(static_cast<char*>(VirtualAlloc(nullptr, bytes, type, PAGE_READWRITE))) {}
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  ~Block() {
    if (base_) VirtualFree(base_, 0, MEM_RELEASE);
  }
  char* base() const { return base_; }

 private:
  char* base_;
};

}  // namespace qel::test
