#include "qelibaselib/platform/linux/objects/object_name.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr size_t kMaxCharacters = 32766;  // what a counted string of Windows holds

constexpr uint64_t RotateLeft(uint64_t value, int bits) { return value << bits | value >> (64 - bits); }

void HashText(std::wstring_view text, ObjectKey* key) {
  uint64_t low = 0xCBF29CE484222325, high = 0x9E3779B97F4A7C15 ^ text.size();
  for (const wchar_t character : text) {
    const auto code = static_cast<uint32_t>(character);
    low = (low ^ code) * 0x100000001B3;
    high = (RotateLeft(high, 23) ^ code) * 0xD6E8FEB86659FD93;
  }
  key->low = low ^ low >> 32;
  key->high = high ^ high >> 32;
}

// The kernel's number of the login session, inherited by every process in it; 4294967295 outside of one.
uint32_t LoginSession() {
  static constinit std::atomic<uint64_t> known{0};  // the number plus one
  if (const uint64_t session = known.load(std::memory_order_relaxed)) return static_cast<uint32_t>(session - 1);
  char text[16] = "4294967295";
  const Descriptor file(open("/proc/self/sessionid", O_RDONLY | O_CLOEXEC));
  const ssize_t length = file.get() >= 0 ? read(file.get(), text, sizeof text - 1) : 0;
  if (length > 0) text[length] = '\0';
  const auto session = static_cast<uint32_t>(std::strtoul(text, nullptr, 10));
  known.store(session + uint64_t{1}, std::memory_order_relaxed);
  return session;
}

bool SkipPrefix(std::wstring_view* name, std::wstring_view prefix) {
  if (!name->starts_with(prefix)) return false;
  name->remove_prefix(prefix.size());
  return true;
}

}  // namespace

void FormatObjectFileName(const ObjectKey& key, char (&fileName)[kObjectFileNameSize]) {
  const auto half = [](uint64_t value, int shift) { return static_cast<unsigned>(value >> shift); };
  const int length = std::snprintf(fileName, sizeof fileName, "%08x%08x%08x%08x", half(key.high, 32), half(key.high, 0),
                                   half(key.low, 32), half(key.low, 0));
  if (key.session != kEverySession)
    std::snprintf(fileName + length, sizeof fileName - length, "-%u", static_cast<unsigned>(key.session));
}

DWORD ParseObjectName(const wchar_t* name, ObjectKey* key) {
  size_t length = 0;
  while (name[length]) ++length;
  if (length > kMaxCharacters) return ERROR_FILENAME_EXCED_RANGE;
  std::wstring_view text(name, length);
  if (text == L"Local" || text == L"Global") return ERROR_INVALID_HANDLE;
  if (text.front() == L'\\') return ERROR_BAD_PATHNAME;
  const bool global = SkipPrefix(&text, L"Global\\");
  if (global || SkipPrefix(&text, L"Local\\")) {
    if (text.empty() || text.front() == L'\\') return ERROR_INVALID_NAME;
  }
  if (text.find(L'\\') != text.npos) return ERROR_PATH_NOT_FOUND;
  HashText(text, key);
  key->session = global ? kEverySession : LoginSession();
  key->user = geteuid();
  return ERROR_SUCCESS;
}

}  // namespace qel::layer
