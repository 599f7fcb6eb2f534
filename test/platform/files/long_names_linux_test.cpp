// Names longer than any file system of a test machine has them: the kernel's list of names is replaced.
#include <dirent.h>
#include <dlfcn.h>
#include <sys/syscall.h>

#include <cstdarg>
#include <cstddef>
#include <cstring>

#include "test/platform/files/file_calls.h"

using namespace qel::test;

namespace {

std::string g_nameAtEnd;  // given once when a list has ended

long PutName(void* block) {
  auto* entry = static_cast<dirent64*>(block);
  const size_t length = offsetof(dirent64, d_name) + g_nameAtEnd.size() + 1;
  entry->d_reclen = static_cast<unsigned short>((length + 7) / 8 * 8);
  entry->d_type = DT_REG;
  std::memcpy(static_cast<char*>(block) + offsetof(dirent64, d_name), g_nameAtEnd.c_str(), g_nameAtEnd.size() + 1);
  g_nameAtEnd.clear();
  return entry->d_reclen;
}

}  // namespace

// Stands before the C library's, for the layer too.
extern "C" [[gnu::visibility("default")]] long syscall(long number, ...) noexcept {
  static const auto real = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
  va_list list;
  va_start(list, number);
  long arguments[6];
  for (long& argument : arguments) argument = va_arg(list, long);
  va_end(list);
  const long result = real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
  const bool atEnd = number == SYS_getdents64 && result == 0;
  return atEnd && !g_nameAtEnd.empty() ? PutName(reinterpret_cast<void*>(arguments[1])) : result;
}

class LongNamesTest : public FileTest {};

TEST_F(LongNamesTest, ANameWithoutRoomIsAnErrorAtTheEndOfTheSearch) {
  Write("z");
  std::string wide;
  for (int i = 0; i < 259; ++i) wide += "\xF0\x9F\x98\x80";
  const struct {
    std::string name;
    DWORD error;  // of asking about the long name
  } rows[] = {
      {std::string(260, 'n'), ERROR_FILENAME_EXCED_RANGE},
      {std::string(4096, '\xFF'), ERROR_FILENAME_EXCED_RANGE},
      {wide, ERROR_PATH_NOT_FOUND},  // has room, but there is no such file
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name.size());
    g_nameAtEnd = row.name;
    WIN32_FIND_DATAW data;
    const HANDLE find = FindFirstFileW(L"*", &data);
    ASSERT_NE(find, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(FindNextFileW(find, &data));
    EXPECT_TRUE(FindNextFileW(find, &data));
    EXPECT_STREQ(data.cFileName, L"z") << "nothing that can be given is left out";
    EXPECT_EQ(Ask([&] { return FindNextFileW(find, &data); }), Failure(row.error));
    EXPECT_EQ(Ask([&] { return FindNextFileW(find, &data); }), Failure(ERROR_NO_MORE_FILES));
    EXPECT_TRUE(FindClose(find));
  }
  g_nameAtEnd = rows[0].name;
  EXPECT_EQ(Find(L"n*"), Failure(ERROR_FILENAME_EXCED_RANGE)) << "the only one";
}
