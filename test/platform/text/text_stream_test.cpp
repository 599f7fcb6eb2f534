#include <cerrno>
#include <cstdio>
#include <string>

#include "test/platform/files/file_calls.h"

using namespace qel::test;

namespace {

// Opens and closes; what errno and the last error say.
struct Opened {
  bool open;
  int number;
  DWORD error;
  bool operator==(const Opened&) const = default;
  friend std::ostream& operator<<(std::ostream& out, const Opened& opened) {
    return out << (opened.open ? "open" : "refused") << ", errno " << opened.number << ", error " << opened.error;
  }
};
Opened Open(const std::wstring& name, const wchar_t* mode) {
  errno = 0;
  SetLastError(kUntouched);
  FILE* file = _wfopen(name.c_str(), mode);
  const Opened opened{file != nullptr, file ? 0 : errno, file ? 0 : GetLastError()};
  if (file) std::fclose(file);
  return opened;
}

}  // namespace

class TextStreamTest : public FileTest {
 protected:
  FILE* OpenFile(const char* name, const wchar_t* mode) const { return _wfopen(At(name).c_str(), mode); }
  void Put(const char* name, const wchar_t* mode, const char* text) const {
    FILE* file = OpenFile(name, mode);
    EXPECT_GE(std::fputs(text, file), 0);
    std::fclose(file);
  }
  std::string ReadText(const char* name, size_t bufferSize = BUFSIZ) const {
    FILE* file = OpenFile(name, L"rt");
    if (!file) return "closed";
    std::setvbuf(file, nullptr, _IOFBF, bufferSize);
    std::string text;
    for (int c; (c = std::fgetc(file)) != EOF;) text += static_cast<char>(c);
    std::fclose(file);
    return text;
  }
};

TEST_F(TextStreamTest, AppendsWithLineEndsOfTwoBytes) {
  FILE* file = OpenFile("f", L"at");
  ASSERT_TRUE(file);
  EXPECT_EQ(std::ftell(file), 0);
  EXPECT_EQ(std::fprintf(file, "abc\n"), 4);
  EXPECT_EQ(std::ftell(file), 5);
  std::fseek(file, 0, SEEK_SET);
  std::fputs("x\r\ny", file);
  std::fclose(file);
  file = OpenFile("f", L"at");
  EXPECT_EQ(std::ftell(file), 0);
  std::fputs("\n\n", file);
  std::fclose(file);
  EXPECT_EQ(Read("f"), "abc\r\nx\r\r\ny\r\n\r\n");
}

TEST_F(TextStreamTest, LongTextIsWrittenWhole) {
  std::string lines, bytes;
  for (int i = 0; i < 3000; ++i) {
    lines += "\n" + std::to_string(i);
    bytes += "\r\n" + std::to_string(i);
  }
  FILE* file = OpenFile("f", L"at");
  EXPECT_EQ(std::fwrite(lines.data(), 1, lines.size(), file), lines.size());
  std::fclose(file);
  EXPECT_EQ(Read("f"), bytes);
  EXPECT_EQ(ReadText("f"), lines);
}

TEST_F(TextStreamTest, ReadsLineEndsAsOneByte) {
  Write("f", "a\r\nb\rc\r\r\nd\ne\r");
  for (const size_t buffer : {size_t{2}, size_t{3}, size_t{BUFSIZ}})
    EXPECT_EQ(ReadText("f", buffer), "a\nb\rc\r\nd\ne\r");
  Write("f", "a\r\nb\x1A\r\nc");
  EXPECT_EQ(ReadText("f"), "a\nb");
  Put("f", L"at", "d");
  EXPECT_EQ(Read("f"), "a\r\nb\x1A\r\ncd");
  FILE* file = OpenFile("f", L"rt");
  char line[16];
  std::fgets(line, sizeof line, file);
  std::fgets(line, sizeof line, file);
  std::fseek(file, 0, SEEK_SET);
  EXPECT_STREQ(std::fgets(line, sizeof line, file), "a\n");
  std::fclose(file);
}

TEST_F(TextStreamTest, BinaryModesKeepTheBytes) {
  Write("f", "a\r\n");
  Put("f", L"ab", "b\n");
  EXPECT_EQ(Read("f"), "a\r\nb\n");
  Put("f", L"wb", "c\n");
  EXPECT_EQ(Read("f"), "c\n");
  FILE* file = OpenFile("f", L"r+b");
  EXPECT_EQ(std::fgetc(file), 'c');
  EXPECT_EQ(std::ftell(file), 1);
  EXPECT_EQ(std::fseek(file, 0, SEEK_END), 0);
  EXPECT_EQ(std::fputs("\r\n", file) >= 0, true);
  std::rewind(file);
  EXPECT_EQ(std::fgetc(file), 'c');
  std::fclose(file);
  EXPECT_EQ(Read("f"), "c\n\r\n");
}

TEST_F(TextStreamTest, Refusals) {
  Write("f");
  Write("ro");
  SetAttributes("ro", FILE_ATTRIBUTE_READONLY);
  MakeFolder("dir");
  const struct {
    std::wstring name;
    const wchar_t* mode;
    int number;
    DWORD error;
  } rows[] = {{At("missing"), L"rt", ENOENT, 2},
              {At("no") + L"\\f", L"at", ENOENT, 3},
              {At("dir"), L"at", EACCES, 5},
              {At("dir"), L"rt", EACCES, 5},
              {L"?:\\???\\a.txt", L"at", EINVAL, 123}};
  for (const auto& row : rows) EXPECT_EQ(Open(row.name, row.mode), (Opened{false, row.number, row.error})) << row.name;
  if (PermissionsHold()) {
    EXPECT_EQ(Open(At("ro"), L"at"), (Opened{false, EACCES, 5}));
  }
  EXPECT_EQ(Read("ro"), "text");
}

TEST_F(TextStreamTest, HeldFile) {
  Write("f");
  const struct {
    DWORD access, share;
    bool append, read;
  } rows[] = {
      {kRW, 0, false, false}, {kR, 1, false, true}, {kR, 3, true, true}, {kW, 2, true, false}, {kW, 3, true, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "share " << row.share);
    FileHandle holder(At("f"), row.access, row.share, OPEN_EXISTING);
    const Opened refused{false, EACCES, 32}, open{true, 0, 0};
    EXPECT_EQ(Open(At("f"), L"at"), row.append ? open : refused);
    EXPECT_EQ(Open(At("f"), L"rt"), row.read ? open : refused);
  }
  FILE* first = OpenFile("f", L"at");
  EXPECT_EQ(Open(At("f"), L"at"), (Opened{true, 0, 0}));
  std::fclose(first);
}
