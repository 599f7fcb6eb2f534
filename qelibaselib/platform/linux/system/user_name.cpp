#include "qelibaselib/platform/linux/system/user_name.h"

#include <pwd.h>
#include <sys/single_threaded.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/utf8.h"
#include "qelibaselib/platform/linux/win32/sysinfoapi.h"

namespace qel::layer {
namespace {

constexpr size_t kLongestName = 256;

struct User {
  uid_t id;
  DWORD length;  // without the end
  WCHAR name[kLongestName + 1];
};

// The last user asked for. A name service can take milliseconds, and the name stands in every mutex name. A record that
// was replaced is not freed, for another thread may be reading it: a process changes its user once or twice.
constinit std::atomic<const User*> g_user{nullptr};

// A domain account is called "DOMAIN\user" here. Names of kernel objects are made from it, in which a backslash ends a
// folder's name, so it is shown as the file calls show one in a file's name. No two users come to share a name by that:
// one that really holds the shown character has its bytes shown one by one.
constexpr wchar_t kShownBase = 0xF000;
constexpr wchar_t kShownBackslash = kShownBase + L'\\';

// What a character of the user's database looks like to callers.
struct ShownCharacter {
  WCHAR text[kLongestUtf8];
  size_t length = 0;
};

ShownCharacter ShowCharacter(const char*& at, const char* end) {
  const char* const start = at;
  const wchar_t character = DecodeUtf8(at, end);
  ShownCharacter shown;
  if (character != kShownBackslash)
    shown.text[shown.length++] = character == L'\\' ? kShownBackslash : character;
  else
    for (const char* byte = start; byte != at; ++byte)
      shown.text[shown.length++] = kEscapedByte + static_cast<unsigned char>(*byte);
  return shown;
}

void SetName(std::string_view name, User* user) {
  const char* at = name.data();
  const char* const end = at + name.size();
  user->length = 0;
  while (at != end) {
    const ShownCharacter shown = ShowCharacter(at, end);
    if (user->length + shown.length > kLongestName) break;
    std::copy_n(shown.text, shown.length, user->name + user->length);
    user->length += shown.length;
  }
  user->name[user->length] = 0;
}

void SetNumber(uid_t id, User* user) {
  char digits[16];
  SetName({digits, std::to_chars(digits, std::end(digits), id).ptr}, user);
}

// Whether the entry is known is in `found`. Returns the C library's error number.
int AskUserDatabase(uid_t id, char* buffer, size_t size, User* user, bool* found) {
  passwd entry, *answer = nullptr;
  const int error = getpwuid_r(id, &entry, buffer, size, &answer);
  *found = answer && answer->pw_name[0] != 0;
  if (*found) SetName(answer->pw_name, user);
  return error;
}

// A user whom nobody has named goes by the number. Returns whether the answer will stay.
bool AskSystem(uid_t id, User* user) {
  constexpr size_t kUsualBytes = 4096, kMostBytes = 256 << 10;
  char usual[kUsualBytes];
  user->id = id;
  bool found = false;
  int error = AskUserDatabase(id, usual, sizeof usual, user, &found);
  if (error == ERANGE) {
    // Directory services know users with very long descriptions.
    const std::unique_ptr<char, decltype(&std::free)> large(static_cast<char*>(std::malloc(kMostBytes)), &std::free);
    if (large) error = AskUserDatabase(id, large.get(), kMostBytes, user, &found);
  }
  if (!found) SetNumber(id, user);
  return found || error == 0;
}

// One of several threads that have asked at the same moment keeps its answer.
void Keep(const User& user, const User* former) {
  auto* kept = new (std::nothrow) User(user);
  if (kept && !g_user.compare_exchange_strong(former, kept, std::memory_order_release, std::memory_order_relaxed))
    delete kept;
}

// Copies the name to a caller's buffer; the size that it needs otherwise.
DWORD CopyName(const User& user, LPWSTR name, LPDWORD size) {
  const DWORD given = *size;
  *size = user.length + 1;
  if (given <= user.length || !name) return ERROR_INSUFFICIENT_BUFFER;
  std::memcpy(name, user.name, (user.length + 1) * sizeof(WCHAR));
  return ERROR_SUCCESS;
}

DWORD CopyUserName(LPWSTR name, LPDWORD size) {
  if (!size) return ERROR_INVALID_PARAMETER;
  const uid_t id = geteuid();
  const User* const kept = g_user.load(std::memory_order_acquire);
  if (kept && kept->id == id) return CopyName(*kept, name, size);
  User user;
  if (AskSystem(id, &user)) Keep(user, kept);
  return CopyName(user, name, size);
}

}  // namespace

void LearnUserNameBeforeFork() {
  if (__libc_single_threaded || g_user.load(std::memory_order_relaxed)) return;
  User user;
  if (AskSystem(geteuid(), &user)) Keep(user, nullptr);
}

}  // namespace qel::layer

BOOL GetUserNameW(LPWSTR name, LPDWORD size) { return qel::layer::ReportResult(qel::layer::CopyUserName(name, size)); }
