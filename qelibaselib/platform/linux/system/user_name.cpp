#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstring>
#include <memory>
#include <new>

#include "qelibaselib/platform/linux/base/utf8.h"
#include "qelibaselib/platform/linux/win32/sysinfoapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

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

void SetName(std::string_view name, User* user) {
  const char* at = name.data();
  user->length = 0;
  while (at != name.data() + name.size() && user->length < kLongestName)
    user->name[user->length++] = DecodeUtf8(at, name.data() + name.size());
  user->name[user->length] = 0;
}

// A user whom nobody has named goes by the number. Returns whether the answer will stay.
bool AskSystem(uid_t id, User* user) {
  char buffer[4096];
  passwd entry, *found = nullptr;
  const int error = getpwuid_r(id, &entry, buffer, sizeof buffer, &found);
  user->id = id;
  if (found) {
    SetName(found->pw_name, user);
  } else {
    char digits[16];
    const auto end = std::to_chars(digits, std::end(digits), id).ptr;
    SetName({digits, end}, user);
  }
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

DWORD UserName(LPWSTR name, LPDWORD size) {
  if (!size) return ERROR_INVALID_PARAMETER;
  const uid_t id = geteuid();
  const User* const kept = g_user.load(std::memory_order_acquire);
  if (kept && kept->id == id) return CopyName(*kept, name, size);
  User user;
  if (AskSystem(id, &user)) Keep(user, kept);
  return CopyName(user, name, size);
}

}  // namespace
}  // namespace qel::layer

BOOL GetUserNameW(LPWSTR name, LPDWORD size) {
  const DWORD error = qel::layer::UserName(name, size);
  if (error != ERROR_SUCCESS) SetLastError(error);
  return error == ERROR_SUCCESS;
}
