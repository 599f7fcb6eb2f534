// Searches. A name without wildcards is answered by one stat; all such searches share one object.
#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/utf8.h"
#include "qelibaselib/platform/linux/files/file_attributes.h"
#include "qelibaselib/platform/linux/files/name_pattern.h"
#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/handles/handle_table.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

void Fill(WIN32_FIND_DATAW& data, std::wstring_view name, const FileStatus& status, DWORD attributes) {
  data.dwFileAttributes = attributes;
  data.ftCreationTime = status.created;
  data.ftLastAccessTime = status.accessed;
  data.ftLastWriteTime = status.written;
  data.nFileSizeHigh = static_cast<DWORD>(status.size >> 32);
  data.nFileSizeLow = static_cast<DWORD>(status.size);
  data.dwReserved0 = data.dwReserved1 = 0;
  const size_t length = std::min<size_t>(name.size(), MAX_PATH - 1);
  std::memcpy(data.cFileName, name.data(), length * sizeof(wchar_t));
  data.cFileName[length] = 0;
  data.cAlternateFileName[0] = 0;
}

// What FindNextFileW goes on with. The names are those of the moment of the first call.
class Search : public Object {
 public:
  explicit Search(bool permanent = false) : Object(Kind::kFind, permanent) {}
  virtual DWORD Next(WIN32_FIND_DATAW&) { return ERROR_NO_MORE_FILES; }
};

class FolderSearch final : public Search {
 public:
  explicit FolderSearch(int descriptor) : descriptor_(descriptor) {}

  DWORD ReadNames(const NamePattern& pattern, bool root);
  DWORD Next(WIN32_FIND_DATAW& data) override;

 private:
  struct Entry {
    size_t start, length;  // in names_
    bool link, dots;       // dots: the folder itself or its parent
  };
  ~FolderSearch() override { close(descriptor_); }
  std::wstring_view NameOf(const Entry& entry) const { return {names_.data() + entry.start, entry.length}; }
  void Add(const char* name, bool link, const NamePattern& pattern, bool root);
  DWORD Answer(const Entry& entry, WIN32_FIND_DATAW& data) const;

  int descriptor_;
  size_t next_ = 0;
  std::wstring names_;
  std::vector<Entry> entries_;
};

struct Dirent64 {
  uint64_t node;
  int64_t offset;
  unsigned short length;
  unsigned char type;
  char name[1];
};

bool IsDots(const char* name) { return name[0] == '.' && (!name[1] || (name[1] == '.' && !name[2])); }

void FolderSearch::Add(const char* name, bool link, const NamePattern& pattern, bool root) {
  const bool dots = IsDots(name);
  const size_t start = names_.size(), bytes = std::strlen(name);
  names_.resize(start + bytes);  // no character is longer than its bytes
  wchar_t* out = names_.data() + start;
  for (const char* end = name + bytes; name != end;) *out++ = DecodeUtf8(name, end);
  const Entry entry{start, static_cast<size_t>(out - names_.data()) - start, link, dots};
  names_.resize(start + entry.length);
  if (pattern.Matches(NameOf(entry)) && !(root && dots))
    entries_.push_back(entry);
  else
    names_.resize(start);
}

DWORD FolderSearch::ReadNames(const NamePattern& pattern, bool root) {
  alignas(Dirent64) char block[16 * 1024];
  for (;;) {
    const long got = syscall(SYS_getdents64, descriptor_, block, sizeof block);
    if (got < 0) return ErrorFromErrno(errno);
    if (got == 0) break;
    for (const char* at = block; at < block + got; at += reinterpret_cast<const Dirent64*>(at)->length) {
      const auto& found = *reinterpret_cast<const Dirent64*>(at);
      Add(at + offsetof(Dirent64, name), found.type == DT_LNK || found.type == DT_UNKNOWN, pattern, root);
    }
  }
  std::sort(entries_.begin(), entries_.end(), [this](const Entry& first, const Entry& second) {
    return first.dots != second.dots ? first.dots : NameLess(NameOf(first), NameOf(second));
  });
  return entries_.empty() ? ERROR_FILE_NOT_FOUND : ERROR_SUCCESS;
}

// A link is found as what it leads to; but one to a folder has the size 0 and is marked as a link, so that a walk
// through a tree can tell it from the tree's own folders. One that leads nowhere is a file of size 0 with that mark.
void MarkLink(WIN32_FIND_DATAW& data, bool toFolder) {
  data.dwFileAttributes = FILE_ATTRIBUTE_REPARSE_POINT | (toFolder ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE);
  data.dwReserved0 = IO_REPARSE_TAG_SYMLINK;
  data.nFileSizeHigh = data.nFileSizeLow = 0;
}

DWORD FolderSearch::Answer(const Entry& entry, WIN32_FIND_DATAW& data) const {
  char name[MAX_PATH * kLongestUtf8 + 1];
  char* end = name;
  for (const wchar_t c : NameOf(entry)) end = EncodeUtf8(c, end);
  *end = 0;
  FileStatus status;
  const bool self = entry.dots && entry.length == 1;
  int error = self ? ReadStatus(descriptor_, status)
                   : ReadStatus(descriptor_, name, entry.link ? 0 : AT_SYMLINK_NOFOLLOW, status);
  const bool toFolder = !error && status.IsFolder();
  if (entry.link && (error || toFolder)) error = ReadStatus(descriptor_, name, AT_SYMLINK_NOFOLLOW, status);
  if (error) return ErrorFromErrno(error);
  DWORD attributes;
  if (status.mode & (S_ISVTX | S_ISUID)) {
    char path[sizeof name + 32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d/%s", descriptor_, name);
    attributes = AttributesOf(status, path);
  } else {
    attributes = AttributesOf(status, descriptor_);
  }
  Fill(data, NameOf(entry), status, attributes);
  if (S_ISLNK(status.mode)) MarkLink(data, toFolder);
  return ERROR_SUCCESS;
}

// An entry that went away meanwhile is passed over.
DWORD FolderSearch::Next(WIN32_FIND_DATAW& data) {
  while (next_ < entries_.size())
    if (Answer(entries_[next_++], data) == ERROR_SUCCESS) return ERROR_SUCCESS;
  return ERROR_NO_MORE_FILES;
}

// Where the last component begins, and whether it has wildcards.
struct Pattern {
  LPCWSTR last, end;
  bool wild;
};

DWORD Split(LPCWSTR name, Pattern& pattern) {
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

// A search that has its only answer already.
Search* FinishedSearch() {
  static auto* search = new Search(true);
  return search;
}

// This and Find are a part of the call in spite of their stack: fewer returns behind the system call.
[[gnu::always_inline]] inline DWORD FindName(LPCWSTR name, WIN32_FIND_DATAW& data, Reference<Search>& search) {
  SystemPath path;
  if (const DWORD error = path.Parse(name)) return error;
  FileStatus status;
  if (const int error = ReadStatusOfName(path.text(), status)) return PathError(error, path);
  if (path.EndsInSeparator()) return ERROR_FILE_NOT_FOUND;  // nothing behind it to be found
  wchar_t last[MAX_PATH];
  size_t length = 0;
  const char* end = path.text() + path.length();
  const char* from = end;
  while (from != path.text() && from[-1] != '/') --from;
  while (from != end && length < MAX_PATH - 1) last[length++] = DecodeUtf8(from, end);
  Fill(data, {last, length}, status, AttributesOf(status, path.text()));
  search = Reference<Search>::Adopt(FinishedSearch());
  return ERROR_SUCCESS;
}

[[gnu::noinline]] DWORD FindInFolder(LPCWSTR name, const Pattern& pattern, WIN32_FIND_DATAW& data,
                                     Reference<Search>& search) {
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
  search = Reference<Search>::Adopt(folder);
  const NamePattern names({pattern.last, static_cast<size_t>(pattern.end - pattern.last)});
  if (const DWORD failed = folder->ReadNames(names, path.IsRoot())) return failed;
  return folder->Next(data) == ERROR_SUCCESS ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
}

[[gnu::always_inline]] inline DWORD Find(LPCWSTR name, WIN32_FIND_DATAW& data, HANDLE& handle) {
  Pattern pattern;
  if (const DWORD error = Split(name, pattern)) return error;
  Reference<Search> search;
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
  auto* search = pin.As<Search>(Kind::kFind);
  const DWORD error = search ? search->Next(*data) : ERROR_INVALID_HANDLE;
  if (error) SetLastError(error);
  return error == ERROR_SUCCESS;
}

BOOL FindClose(HANDLE find) {
  Pin pin(find);
  if (pin.As<Search>(Kind::kFind) && pin.Close()) return TRUE;
  SetLastError(ERROR_INVALID_HANDLE);
  return FALSE;
}
