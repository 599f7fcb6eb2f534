#include <cstdio>
#include <string>

#include "test/platform/files/file_calls.h"

using namespace qel::test;

using TextStreamTest = FileTest;

TEST_F(TextStreamTest, LongTextIsWrittenWhole) {
  std::string lines, bytes;
  for (int i = 0; i < 3000; ++i) {
    lines += "\n" + std::to_string(i);
    bytes += "\r\n" + std::to_string(i);
  }
  FILE* file = _wfopen(L"f", L"at");
  EXPECT_EQ(std::fwrite(lines.data(), 1, lines.size(), file), lines.size());
  std::fclose(file);
  EXPECT_EQ(Read("f"), bytes);
  file = _wfopen(L"f", L"rt");
  std::string read(lines.size() + 1, 0);
  read.resize(std::fread(read.data(), 1, read.size(), file));
  EXPECT_EQ(read, lines);
  std::fclose(file);
}

TEST_F(TextStreamTest, IsSharedByItsWriters) {
  FILE* first = _wfopen(L"f", L"at");
  FILE* second = _wfopen(L"f", L"at");
  ASSERT_TRUE(first && second);
  std::fputs("a\n", first);
  std::fclose(first);
  std::fputs("b\n", second);
  EXPECT_EQ(std::fseek(second, 0, SEEK_SET), 0);
  std::fputs("c", second);
  std::fclose(second);
  EXPECT_EQ(Read("f"), "a\r\nb\r\nc");
}

TEST_F(TextStreamTest, BinaryUpdateReadsAndWritesTheBytes) {
  Write("f", "c\n");
  FILE* file = _wfopen(L"f", L"r+b");
  EXPECT_EQ(std::fgetc(file), 'c');
  EXPECT_EQ(std::ftell(file), 1);
  EXPECT_EQ(std::fseek(file, 0, SEEK_END), 0);
  EXPECT_GE(std::fputs("\r\n", file), 0);
  std::rewind(file);
  EXPECT_EQ(std::fgetc(file), 'c');
  std::fclose(file);
  EXPECT_EQ(Read("f"), "c\n\r\n");
}
