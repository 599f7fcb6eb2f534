#include "qelibaselib/platform/linux/files/path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <cwchar>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/utf8.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

bool IsLetter(wchar_t c) { return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z'); }

size_t CountCharacters(const char* text) {
  size_t count = 0;
  for (NameReader name(text, text + std::strlen(text)); !name.AtEnd(); ++count) name.Read();
  return count;
}

char* WriteNameCharacter(wchar_t c, char* out) {
  return IsStandIn(c) ? EncodeUtf8(c - kStandInBase, out) : EncodeUtf8(c, out);
}

// The current folder counts in the length of a relative name.
size_t CharactersOfCurrentFolder() {
  char folder[SystemPath::kSize];
  return getcwd(folder, sizeof folder) ? CountCharacters(folder) + 1 : 0;
}

bool HasPrefix(LPCWSTR name, LPCWSTR end, const wchar_t (&prefix)[5]) {
  return end - name >= 4 && std::wmemcmp(name, prefix, 4) == 0;
}

}  // namespace

wchar_t NameReader::Read() {
  const char* const first = at_;
  wchar_t c = DecodeUtf8(at_, end_);
  if (c == L'/') {
    index_ = 0;
    return c;
  }
  if (IsStandIn(c)) {
    at_ = first + 1;
    c = kEscapedByte + static_cast<unsigned char>(*first);
  } else if (HasStandIn(c) && (c != L':' || index_ == 1)) {
    c += kStandInBase;
  }
  ++index_;
  return c;
}

DWORD SystemPath::Parse(LPCWSTR name, LPCWSTR end) {
  if (!name) return ERROR_PATH_NOT_FOUND;
  if (!end) end = name + std::wcslen(name);
  if (HasPrefix(name, end, L"\\\\.\\")) return ERROR_FILE_NOT_FOUND;
  const bool longNames = HasPrefix(name, end, L"\\\\?\\");
  if (longNames) name += 4;
  if (name == end) return ERROR_PATH_NOT_FOUND;
  for (LPCWSTR c = name; c != end; ++c)
    if (!IsOrdinary(*c) && (IsForbidden(*c) || IsUnencodable(*c))) return ERROR_INVALID_NAME;
  if (end - name >= 2 && name[1] == L':' && IsLetter(name[0])) return ERROR_PATH_NOT_FOUND;  // there are no drives
  if (end - name >= 3 && name[0] == L'\\' && name[1] == L'\\' && !IsSeparator(name[2])) return ERROR_BAD_NETPATH;

  length_ = start_ = 0;
  characters_ = 0;
  endsInSeparator_ = IsSeparator(end[-1]);
  if (IsSeparator(*name)) {
    text_[length_++] = '/';
    start_ = 1;
    characters_ = 1;
  }
  if (const DWORD error = AddComponents(name, end)) return error;
  if (length_ == 0) text_[length_++] = '.';
  text_[length_] = 0;
  if (longNames) return ERROR_SUCCESS;
  if (start_ == 0) characters_ += CharactersOfCurrentFolder();
  return characters_ < MAX_PATH ? ERROR_SUCCESS : ERROR_PATH_NOT_FOUND;
}

DWORD SystemPath::AddComponents(LPCWSTR name, LPCWSTR end) {
  while (name != end) {
    char* out = text_ + length_;
    if (length_ > start_) *out++ = '/';
    const LPCWSTR first = name;
    for (; name != end && !IsSeparator(*name); ++name) {
      if (out + kLongestUtf8 + 2 > text_ + kSize) return ERROR_PATH_NOT_FOUND;
      out = WriteNameCharacter(*name, out);
    }
    const auto length = static_cast<size_t>(name - first);
    if (name != end) ++name;
    if (length == 0 || (length == 1 && first[0] == L'.')) continue;
    if (length == 2 && first[0] == L'.' && first[1] == L'.' && GoToParent()) continue;
    characters_ += length + (length_ > start_);
    length_ = static_cast<size_t>(out - text_);
  }
  return ERROR_SUCCESS;
}

// False when the path is a relative one that has nothing to remove: then ".." stands in it.
bool SystemPath::GoToParent() {
  if (length_ == start_ || EndsInParent()) return start_ == 1;  // the root is its own parent
  text_[length_] = 0;
  const char* last = std::strrchr(text_, '/');
  const size_t kept = last ? static_cast<size_t>(last - text_) : 0;
  characters_ -= CountCharacters(text_ + (kept > start_ ? kept : start_));
  length_ = kept > start_ ? kept : start_;
  return true;
}

bool SystemPath::EndsInParent() const {
  return length_ >= 2 && text_[length_ - 1] == '.' && text_[length_ - 2] == '.' &&
         (length_ == 2 || text_[length_ - 3] == '/');
}

DWORD SystemPath::SeparatorError() const {
  struct stat status;
  if (stat(text_, &status) == 0) return S_ISDIR(status.st_mode) ? ERROR_PATH_NOT_FOUND : ERROR_INVALID_NAME;
  return PathError(errno, *this) == ERROR_FILE_NOT_FOUND ? ERROR_INVALID_NAME : ERROR_PATH_NOT_FOUND;
}

size_t SystemPath::FolderLength() const {
  size_t length = length_;
  while (length > start_ && text_[length - 1] != '/') --length;
  return length > 1 ? length - 1 : length;
}

DWORD PathError(int number, const SystemPath& path) {
  if (number != ENOENT) return ErrorFromErrno(number);
  const size_t length = path.FolderLength();
  if (length == 0) return ERROR_FILE_NOT_FOUND;  // in the current folder
  char folder[SystemPath::kSize];
  std::memcpy(folder, path.text(), length);
  folder[length] = 0;
  // That it is one is known: in anything else the name would not have been missing but wrong.
  return access(folder, F_OK) == 0 ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

}  // namespace qel::layer
