#include "qelibaselib/file/folder_walk.h"

#include "qelibaselib/base/scoped_handles.h"

namespace qel {
namespace {

constexpr DWORD kAllocationTimeoutMs = 10000;

void* AllocatePath() { return _MemAlloc(__FILE__, __LINE__, MAX_PATH * sizeof(wchar_t), kAllocationTimeoutMs); }

}  // namespace

TreePath::TreePath() : text_(static_cast<wchar_t*>(AllocatePath())) { *text_.get() = L'\0'; }

TreePath::TreePath(const wchar_t* path) : TreePath() { wcsncpy_s(text_.get(), MAX_PATH, path, _TRUNCATE); }

void TreePath::SetFullPath(const wchar_t* path) {
  const DWORD length = GetFullPathNameW(path, MAX_PATH, text_.get(), nullptr);
  if (length >= MAX_PATH || length == 0) *text_.get() = L'\0';
}

void TreePath::MakeParents() const {
  TreePath parent(Get());
  if (PathRemoveFileSpecW(parent.text_.get())) SHCreateDirectoryExW(nullptr, parent.Get(), nullptr);
}

void TreePath::StripBackslashes() {
  constexpr int kMostBackslashes = MAX_PATH - 1;
  std::size_t length = wcslen(Get());
  for (int i = 0; i < kMostBackslashes; ++i) {
    PathRemoveBackslashW(text_.get());
    const std::size_t stripped = wcslen(Get());
    if (stripped == length) return;
    length = stripped;
  }
}

bool TreePath::LiesWithin(const wchar_t* folder) const {
  TreePath level(Get());
  for (int i = 0; i < MAX_PATH; ++i) {
    if (_wcsnicmp(level.Get(), folder, MAX_PATH) == 0) return true;
    if (!PathRemoveFileSpecW(level.text_.get())) return false;
  }
  return false;
}

FolderWalk::FolderWalk(const wchar_t* folder) : folder_(folder) { folder_.StripBackslashes(); }

bool FolderWalk::Begin() {
  // Without a folder the pattern alone would stand for the current one.
  if (*Folder() == L'\0' || !entryPath_.Combine(Folder(), L"*.*")) return false;
  find_ = ScopedFind(FindFirstFileW(entryPath_.Get(), &entry_));
  hasFirst_ = static_cast<bool>(find_);
  return hasFirst_;
}

bool FolderWalk::Next() {
  do {
    if (hasFirst_) {
      hasFirst_ = false;
    } else if (!FindNextFileW(find_.Get(), &entry_)) {
      reachedEnd_ = GetLastError() == ERROR_NO_MORE_FILES;
      return false;
    }
  } while (IsDots());
  return true;
}

bool FolderWalk::IsDots() const {
  const wchar_t* name = Name();
  return name[0] == L'.' && (name[1] == L'\0' || (name[1] == L'.' && name[2] == L'\0'));
}

bool FolderWalk::HoldsNoFile() const {
  if (entry_.dwFileAttributes & FILE_ATTRIBUTE_DEVICE) return true;
  if (!IsLink()) return false;
  constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  return !ScopedFile(
      CreateFileW(EntryPath(), 0, kShareAll, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

bool FolderWalk::IsLink() const {
  constexpr DWORD kStandsForAnotherName = 0x20000000;  // of a reparse tag: link or junction, not a cloud placeholder
  return (entry_.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) && (entry_.dwReserved0 & kStandsForAnotherName);
}

}  // namespace qel
