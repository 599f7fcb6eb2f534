// Searches for files. A name without wildcards is answered by one status call; all such searches share one object. One
// with wildcards reads all names of its folder at the first call and asks about each when it is handed out.
//
// A search gives every entry that it can: it passes over an entry that another process has deleted meanwhile, and
// reports at its end, in place of "no more files", that one or more entries could not be given. These are the ones that
// the system refuses to tell about, and names that have no room in a WIN32_FIND_DATAW.
#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/never_destroyed.h"
#include "qelibaselib/platform/linux/files/file_attributes.h"
#include "qelibaselib/platform/linux/files/name_pattern.h"
#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/handles/handle_table.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

// A link is found as what it leads to; but one to a folder is marked as a link, so that a walk through a tree can tell
// it from the tree's own folders. One that leads nowhere is a file of size 0 with that mark.
void MarkLink(WIN32_FIND_DATAW& data, bool toFolder) {
  data.dwFileAttributes = FILE_ATTRIBUTE_REPARSE_POINT | (toFolder ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE);
  data.dwReserved0 = IO_REPARSE_TAG_SYMLINK;
}

void FillFindData(WIN32_FIND_DATAW& data, std::wstring_view name, const FileStatus& status, DWORD attributes) {
  data.dwFileAttributes = attributes;
  data.ftCreationTime = status.created;
  data.ftLastAccessTime = status.accessed;
  data.ftLastWriteTime = status.written;
  data.nFileSizeHigh = static_cast<DWORD>(status.size >> 32);
  data.nFileSizeLow = static_cast<DWORD>(status.size);
  data.dwReserved0 = data.dwReserved1 = 0;
  std::memcpy(data.cFileName, name.data(), name.size() * sizeof(wchar_t));
  data.cFileName[name.size()] = 0;
  data.cAlternateFileName[0] = 0;
}

constexpr bool HasRoom(size_t characters) { return characters < MAX_PATH; }

// What a find handle stands for: this one has given its only answer already.
class FileSearch : public Object {
 public:
  explicit FileSearch(bool permanent = false) : Object(Kind::kFind, permanent) {}
  virtual DWORD FindNext(WIN32_FIND_DATAW&) { return ERROR_NO_MORE_FILES; }
};

// The names of a folder that match a pattern, as they were at the first call.
class FolderSearch final : public FileSearch {
 public:
  explicit FolderSearch(int descriptor) : descriptor_(descriptor) {}

  DWORD ReadNames(const NamePattern& pattern, bool root);
  DWORD FindNext(WIN32_FIND_DATAW& data) override;

 private:
  struct Entry {
    size_t start, length;  // in shownNames_
    size_t systemName;     // its start in systemNames_
    bool link, dots;       // dots: the folder itself or its parent
  };
  ~FolderSearch() override { close(descriptor_); }
  std::wstring_view ShownName(const Entry& entry) const { return {shownNames_.data() + entry.start, entry.length}; }
  void AddName(const char* name, bool link, const NamePattern& pattern, bool root);
  int ReadEntryStatus(const Entry& entry, const char* name, FileStatus& status, bool& toFolder) const;
  DWORD ReadAttributes(const char* name, const FileStatus& status) const;
  DWORD Describe(const Entry& entry, WIN32_FIND_DATAW& data) const;

  int descriptor_;
  DWORD errorAtEnd_ = ERROR_NO_MORE_FILES;
  size_t next_ = 0;
  std::wstring shownNames_;
  std::string systemNames_;  // each with its NUL
  std::vector<Entry> entries_;
};

bool IsDots(const char* name) { return name[0] == '.' && (!name[1] || (name[1] == '.' && !name[2])); }

void FolderSearch::AddName(const char* name, bool link, const NamePattern& pattern, bool root) {
  const bool dots = IsDots(name);
  if (root && dots) return;
  const size_t start = shownNames_.size(), bytes = std::strlen(name);
  shownNames_.resize(start + bytes);  // no character is longer than its bytes
  wchar_t* out = shownNames_.data() + start;
  for (NameReader reader(name, name + bytes); !reader.AtEnd();) *out++ = reader.Read();
  const Entry entry{start, static_cast<size_t>(out - shownNames_.data()) - start, systemNames_.size(), link, dots};
  const bool matches = pattern.Matches(ShownName(entry));
  if (matches && HasRoom(entry.length)) {
    shownNames_.resize(start + entry.length);
    systemNames_.append(name, bytes + 1);
    entries_.push_back(entry);
    return;
  }
  shownNames_.resize(start);
  if (matches) errorAtEnd_ = ERROR_FILENAME_EXCED_RANGE;
}

DWORD FolderSearch::ReadNames(const NamePattern& pattern, bool root) {
  alignas(dirent64) char block[16 * 1024];
  for (;;) {
    const long got = syscall(SYS_getdents64, descriptor_, block, sizeof block);
    if (got < 0) return ErrorFromErrno(errno);
    if (got == 0) break;
    for (const char* at = block; at < block + got; at += reinterpret_cast<const dirent64*>(at)->d_reclen) {
      const auto& found = *reinterpret_cast<const dirent64*>(at);
      AddName(at + offsetof(dirent64, d_name), found.d_type == DT_LNK || found.d_type == DT_UNKNOWN, pattern, root);
    }
  }
  std::sort(entries_.begin(), entries_.end(), [this](const Entry& first, const Entry& second) {
    return first.dots != second.dots ? first.dots : NameLess(ShownName(first), ShownName(second));
  });
  return ERROR_SUCCESS;
}

// The status of what the entry leads to, where that is a file; else its own. The folder answers for a parent that may
// not be asked.
int FolderSearch::ReadEntryStatus(const Entry& entry, const char* name, FileStatus& status, bool& toFolder) const {
  if (entry.dots && entry.length == 1) return ReadStatus(descriptor_, status);
  int error = ReadStatus(descriptor_, name, entry.link ? 0 : AT_SYMLINK_NOFOLLOW, status);
  toFolder = !error && status.IsFolder();
  if (entry.link && (error || toFolder)) error = ReadStatus(descriptor_, name, AT_SYMLINK_NOFOLLOW, status);
  return error && entry.dots ? ReadStatus(descriptor_, status) : error;
}

// Extended attributes are read by a path or by a descriptor of the entry: the path leads through the folder's.
DWORD FolderSearch::ReadAttributes(const char* name, const FileStatus& status) const {
  if (!(status.mode & (S_ISVTX | S_ISUID))) return AttributesOf(status, descriptor_);
  char path[SystemPath::kSize] = "/proc/self/fd/";
  char* end = std::to_chars(path + std::strlen(path), std::end(path), descriptor_).ptr;
  if (std::strlen(name) + 2 > static_cast<size_t>(std::end(path) - end)) return AttributesOf(status, "");
  *end++ = '/';
  std::strcpy(end, name);
  return AttributesOf(status, path);
}

DWORD FolderSearch::Describe(const Entry& entry, WIN32_FIND_DATAW& data) const {
  const char* name = systemNames_.data() + entry.systemName;
  FileStatus status;
  bool toFolder = false;
  if (const int error = ReadEntryStatus(entry, name, status, toFolder)) return ErrorFromErrno(error);
  FillFindData(data, ShownName(entry), status, ReadAttributes(name, status));
  if (S_ISLNK(status.mode)) MarkLink(data, toFolder);
  return ERROR_SUCCESS;
}

DWORD FolderSearch::FindNext(WIN32_FIND_DATAW& data) {
  while (next_ < entries_.size()) {
    const DWORD error = Describe(entries_[next_++], data);
    if (!error) return ERROR_SUCCESS;
    if (error != ERROR_FILE_NOT_FOUND) errorAtEnd_ = error;
  }
  return std::exchange(errorAtEnd_, ERROR_NO_MORE_FILES);
}

// Where the last component of a searched name begins, and whether it has wildcards.
struct SearchedName {
  LPCWSTR last, end;
  bool wild;
};

DWORD FindLastComponent(LPCWSTR name, SearchedName& pattern) {
  if (!name || !*name) return ERROR_PATH_NOT_FOUND;
  pattern.last = name;
  LPCWSTR c = name;
  for (; *c; ++c)
    if (IsSeparator(*c)) pattern.last = c + 1;
  pattern.end = c;
  pattern.wild = false;
  for (c = pattern.last; *c; ++c) {
    if (IsOrdinary(*c)) continue;
    pattern.wild |= IsWildcard(*c);
    if (IsForbidden(*c) && !IsWildcard(*c)) return ERROR_INVALID_NAME;
  }
  return ERROR_SUCCESS;
}

FileSearch* FinishedSearch() {
  static NeverDestroyed<FileSearch> search(true);
  return &*search;
}

// A file has no entries: a search in it is told from one in a folder that is missing.
DWORD SearchError(int number, const SystemPath& path) {
  if (number != ENOTDIR) return PathError(number, path);
  struct stat status;
  const std::string folder(path.text(), path.FolderLength());
  return stat(folder.c_str(), &status) == 0 ? ERROR_DIRECTORY : ERROR_PATH_NOT_FOUND;
}

// The last component of the path as callers see it. False when it has no room in `shown`.
bool ShowLastComponent(const SystemPath& path, wchar_t (&shown)[MAX_PATH], size_t& length) {
  const char* end = path.text() + path.length();
  const char* from = end;
  while (from != path.text() && from[-1] != '/') --from;
  length = 0;
  for (NameReader reader(from, end); !reader.AtEnd(); shown[length++] = reader.Read())
    if (!HasRoom(length + 1)) return false;
  return true;
}

DWORD FindName(LPCWSTR name, WIN32_FIND_DATAW& data, Reference<FileSearch>& search) {
  SystemPath path;
  if (const DWORD error = path.Parse(name)) return error;
  FileStatus status;
  if (const int error = ReadStatusOfName(path.text(), status)) return SearchError(error, path);
  if (path.EndsInSeparator()) return ERROR_FILE_NOT_FOUND;  // nothing behind it to be found
  wchar_t last[MAX_PATH];
  size_t length;
  if (!ShowLastComponent(path, last, length)) return ERROR_FILENAME_EXCED_RANGE;
  FillFindData(data, {last, length}, status, AttributesOf(status, path.text()));
  if (S_ISLNK(status.mode)) MarkLink(data, false);
  search = Reference<FileSearch>::Adopt(FinishedSearch());
  return ERROR_SUCCESS;
}

DWORD FindInFolder(LPCWSTR name, const SearchedName& pattern, WIN32_FIND_DATAW& data, Reference<FileSearch>& search) {
  SystemPath path;
  const bool drive = pattern.last == name && name[1] == L':';
  const DWORD error = drive                  ? path.Parse(name, name + 2)
                      : pattern.last == name ? path.Parse(L".")
                                             : path.Parse(name, pattern.last);
  if (error) return error;
  const int descriptor = MoveBehindStandard(open(path.text(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (descriptor < 0) {
    struct stat status;
    if (errno == ENOTDIR && stat(path.text(), &status) == 0) return ERROR_DIRECTORY;
    return errno == ENOENT ? ERROR_PATH_NOT_FOUND : ErrorFromErrno(errno);
  }
  auto* folder = new (std::nothrow) FolderSearch(descriptor);
  if (!folder) {
    close(descriptor);
    return ERROR_NOT_ENOUGH_MEMORY;
  }
  search = Reference<FileSearch>::Adopt(folder);
  const NamePattern names({pattern.last, static_cast<size_t>(pattern.end - pattern.last)});
  if (const DWORD failed = folder->ReadNames(names, path.IsRoot())) return failed;
  const DWORD found = folder->FindNext(data);
  return found == ERROR_NO_MORE_FILES ? ERROR_FILE_NOT_FOUND : found;
}

DWORD Find(LPCWSTR name, WIN32_FIND_DATAW& data, HANDLE& handle) {
  SearchedName pattern;
  if (const DWORD error = FindLastComponent(name, pattern)) return error;
  Reference<FileSearch> search;
  const DWORD error = pattern.wild ? FindInFolder(name, pattern, data, search) : FindName(name, data, search);
  if (error) return error;
  handle = InsertHandle(search.Detach());
  return handle ? ERROR_SUCCESS : ERROR_TOO_MANY_OPEN_FILES;
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

HANDLE FindFirstFileW(LPCWSTR pattern, LPWIN32_FIND_DATAW data) {
  if (!data) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return INVALID_HANDLE_VALUE;
  }
  HANDLE handle = INVALID_HANDLE_VALUE;
  DWORD error;
  try {
    error = Find(pattern, *data, handle);
  } catch (const std::bad_alloc&) {
    error = ERROR_NOT_ENOUGH_MEMORY;
  }
  if (error == ERROR_SUCCESS) return handle;
  SetLastError(error);
  return INVALID_HANDLE_VALUE;
}

BOOL FindNextFileW(HANDLE find, LPWIN32_FIND_DATAW data) {
  const Pin pin(find);
  auto* search = pin.As<FileSearch>(Kind::kFind);
  return ReportResult(search ? search->FindNext(*data) : ERROR_INVALID_HANDLE);
}

BOOL FindClose(HANDLE find) {
  Pin pin(find);
  return ReportResult(pin.As<FileSearch>(Kind::kFind) && pin.Close() ? ERROR_SUCCESS : ERROR_INVALID_HANDLE);
}
