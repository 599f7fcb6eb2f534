#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <cwchar>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/win32/shlwapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

bool HasDrive(const wchar_t* path) { return path[0] && path[1] == L':'; }

// A path that begins with a slash is this system's: both separators count in it. In all others a backslash alone does.
template <class Char>
bool Separates(Char c, bool systemPath) {
  return c == '\\' || (systemPath && c == '/');
}

size_t EndOfComponent(const wchar_t* path, size_t from, bool systemPath) {
  while (path[from] && !Separates(path[from], systemPath)) ++from;
  return from;
}

// "C:\", "C:", "\", "/", "\\server\share" or nothing: what ".." does not remove.
size_t RootLength(const wchar_t* path) {
  if (HasDrive(path)) return path[2] == L'\\' ? 3 : 2;
  if (path[0] == L'\\' && path[1] == L'\\') {
    const size_t server = EndOfComponent(path, 2, false);
    return path[server] ? EndOfComponent(path, server + 1, false) : server;
  }
  return IsSeparator(path[0]) ? 1 : 0;
}

// Text under construction that is too long only at its end.
struct PathDraft {
  wchar_t text[MAX_PATH];
  size_t length = 0;
  bool fits = true;

  void Add(const wchar_t* more, size_t count) {
    if (length + count >= MAX_PATH) {
      fits = false;
      return;
    }
    std::memcpy(text + length, more, count * sizeof(wchar_t));
    length += count;
    text[length] = 0;
  }
  void Add(wchar_t c) { Add(&c, 1); }
};

void RemoveLastComponent(PathDraft& path, size_t root, bool systemPath) {
  if (path.length > root) --path.length;  // the separator at its end
  while (path.length > root && !Separates(path.text[path.length - 1], systemPath)) --path.length;
}

// Resolves "." and "..". A path without a root that ".." empties becomes a rooted one.
bool Resolve(wchar_t* result, const wchar_t* path) {
  const bool systemPath = path[0] == L'/';
  size_t root = RootLength(path);
  PathDraft draft;
  draft.Add(path, root);
  for (size_t at = root; path[at];) {
    const size_t end = EndOfComponent(path, at, systemPath);
    const size_t next = path[end] ? end + 1 : end;
    const bool self = end - at == 1 && path[at] == L'.';
    const bool parent = end - at == 2 && path[at] == L'.' && path[at + 1] == L'.';
    if (parent) RemoveLastComponent(draft, root, systemPath);
    if (parent && draft.length == 0) {
      draft.Add(L'\\');
      root = 1;
    }
    if (!self && !parent)
      draft.Add(path + at, next - at);
    else if (!path[end] && draft.length > root)
      --draft.length;  // nothing follows the separator any more
    at = next;
  }
  draft.text[draft.length] = 0;
  if (draft.length == 2 && HasDrive(draft.text)) draft.Add(L'\\');
  if (draft.length == 0) draft.Add(L'\\');
  if (draft.fits) std::memcpy(result, draft.text, (draft.length + 1) * sizeof(wchar_t));
  return draft.fits;
}

// "C:\log" and "\f" share the drive. Every other rooted name stands alone.
bool StandsAlone(const wchar_t* folder, const wchar_t* more) {
  if (!*folder || HasDrive(more) || more[0] == L'/' || (more[0] == L'\\' && more[1] == L'\\')) return true;
  return more[0] == L'\\' && !HasDrive(folder) && !(folder[0] == L'\\' && folder[1] == L'\\');
}

bool Combine(wchar_t* result, const wchar_t* folder, const wchar_t* more) {
  if (!folder && !more) return false;
  PathDraft both;
  if (!more || !*more) {
    more = folder ? folder : L"";
  } else if (folder && !StandsAlone(folder, more)) {
    both.Add(folder, *more == L'\\' ? RootLength(folder) : std::wcslen(folder));
    const bool systemPath = both.text[0] == L'/';
    if (!both.fits) return false;
    if (*more == L'\\') ++more;
    if (!Separates(both.text[both.length - 1], systemPath)) both.Add(systemPath ? L'/' : L'\\');
  }
  both.Add(more, std::wcslen(more));
  return both.fits && Resolve(result, both.text);
}

template <class Char>
Char* FindFileName(const Char* path) {
  if (!path) return nullptr;
  const bool systemPath = *path == '/';
  const Char* name = path;
  for (; *path; ++path) {
    const bool before = IsSeparator(*path) || (*path == ':' && !systemPath);
    if (before && path[1] && !IsSeparator(path[1])) name = path + 1;
  }
  return const_cast<Char*>(name);
}

DWORD MakeFolder(const char* path) {
  if (mkdir(path, 0777) == 0) return ERROR_SUCCESS;
  return errno == EEXIST ? ERROR_ALREADY_EXISTS : ErrorFromErrno(errno);
}

// The folder itself first: most often all but the last, or even that one, are there.
DWORD MakeFolders(const SystemPath& path) {
  DWORD error = MakeFolder(path.text());
  if (error != ERROR_FILE_NOT_FOUND) return error;
  char part[SystemPath::kSize];
  for (size_t i = 1; i <= path.length(); ++i) {
    if (path.text()[i] != '/' && i < path.length()) continue;
    std::memcpy(part, path.text(), i);
    part[i] = 0;
    error = MakeFolder(part);
    if (error && error != ERROR_ALREADY_EXISTS) return error == ERROR_FILE_NOT_FOUND ? ERROR_PATH_NOT_FOUND : error;
  }
  return error;
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

LPWSTR PathCombineW(LPWSTR result, LPCWSTR folder, LPCWSTR more) {
  if (!result) return nullptr;
  wchar_t combined[MAX_PATH];  // the result may be one of the sources
  const bool made = Combine(combined, folder, more);
  if (!made) combined[0] = 0;
  std::wcscpy(result, combined);
  return made ? result : nullptr;
}

void PathUnquoteSpacesW(LPWSTR path) {
  if (!path || path[0] != L'"') return;
  const size_t length = std::wcslen(path);
  if (path[length - 1] != L'"') return;
  const size_t inside = length > 1 ? length - 2 : 0;
  std::wmemmove(path, path + 1, inside);
  path[inside] = 0;
}

BOOL PathRemoveFileSpecW(LPWSTR path) {
  if (!path || !*path) return FALSE;
  const bool systemPath = *path == L'/';
  size_t root = RootLength(path);
  if (path[0] == L'\\' && path[1] == L'\\') root = 2;
  size_t end = root;
  for (size_t i = root; path[i]; ++i)
    if (Separates(path[i], systemPath)) end = i;
  if (!path[end]) return FALSE;
  path[end] = 0;
  return TRUE;
}

LPWSTR PathRemoveBackslashW(LPWSTR path) {
  if (!path) return nullptr;
  const size_t length = std::wcslen(path);
  if (length == 0) return path;
  LPWSTR last = path + length - 1;
  if (Separates(*last, *path == L'/') && !PathIsRootW(path)) *last = 0;
  return last;
}

LPWSTR PathFindFileNameW(LPCWSTR path) { return FindFileName(path); }
LPSTR PathFindFileNameA(LPCSTR path) { return FindFileName(path); }

BOOL PathIsRootW(LPCWSTR path) {
  if (!path || !*path) return FALSE;
  if (path[0] == L'\\' && path[1] == L'\\') {
    const wchar_t* share = std::wcschr(path + 2, L'\\');
    return !share || (share[1] && !std::wcschr(share + 1, L'\\'));
  }
  if (IsSeparator(path[0])) return path[1] == 0;
  return path[1] == L':' && path[2] == L'\\' && path[3] == 0;
}

int SHCreateDirectoryExW(HWND, LPCWSTR path, const SECURITY_ATTRIBUTES*) {
  constexpr size_t kLongestFolder = 247;
  if (!path || !(IsSeparator(path[0]) || HasDrive(path))) return ERROR_BAD_PATHNAME;
  if (std::wcslen(path) > kLongestFolder) return ERROR_FILENAME_EXCED_RANGE;
  SystemPath system;
  if (const DWORD error = system.Parse(path)) return static_cast<int>(error);
  return static_cast<int>(MakeFolders(system));
}
