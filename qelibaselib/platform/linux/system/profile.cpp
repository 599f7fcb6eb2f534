// What a profile says is run as a command, so a file counts only when nobody but its user or root can have written it.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <string>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/small_file.h"
#include "qelibaselib/platform/linux/system/profile_text.h"
#include "qelibaselib/platform/linux/win32/sysinfoapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

bool IsTrusted(int descriptor) {
  struct stat status;
  return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
         (status.st_uid == geteuid() || status.st_uid == 0) && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::string ReadTrusted(const std::string& path) {
  constexpr size_t kLimitBytes = 256 << 10;
  std::string text;
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (file.get() < 0) return text;
  if (!IsTrusted(file.get()) || !ReadWhole(file.get(), kLimitBytes, &text)) text.clear();
  return text;
}

// Empty when the environment does not tell, or must not be believed as the program runs with another user's rights.
std::string OwnProfilePath() {
  const char* const folder = secure_getenv("XDG_CONFIG_HOME");
  if (folder && folder[0] == '/') return std::string(folder) + "/qelibaselib/win.ini";
  const char* const home = secure_getenv("HOME");
  return home && home[0] == '/' ? std::string(home) + "/.config/qelibaselib/win.ini" : std::string();
}

std::string_view WithoutTrailingBlanks(std::string_view text) { return text.substr(0, text.find_last_not_of(' ') + 1); }

DWORD CopyValue(std::string_view value, LPSTR text, DWORD size) {
  if (size == 0) return 0;
  const DWORD length = std::min<size_t>(value.size(), size - 1);
  std::copy_n(value.data(), length, text);
  text[length] = 0;
  return length;
}

DWORD CopyProfileValue(LPCSTR section, LPCSTR key, LPCSTR fallback, LPSTR text, DWORD size) {
  for (const std::string& path : {OwnProfilePath(), std::string("/etc/qelibaselib/win.ini")}) {
    const std::string profile = ReadTrusted(path);
    if (const auto value = ProfileValue(profile, section, key)) return CopyValue(*value, text, size);
  }
  return CopyValue(fallback ? WithoutTrailingBlanks(fallback) : std::string_view(), text, size);
}

}  // namespace
}  // namespace qel::layer

// The lists of all sections or keys, which a null name asks for on Windows, are not given.
DWORD GetProfileStringA(LPCSTR section, LPCSTR key, LPCSTR fallback, LPSTR text, DWORD size) try {
  if (!section || !key || !text) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  const DWORD length = qel::layer::CopyProfileValue(section, key, fallback, text, size);
  SetLastError(ERROR_SUCCESS);
  return length;
} catch (const std::bad_alloc&) {
  SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return 0;
}
