// ftell and fseek of a text stream. The C runtime of Windows miscounts lone line feeds, so this is for our own alone.
#include <cstdio>
#include <string>

#include "test/platform/files/file_calls.h"

using namespace qel::test;

using TextPositionTest = FileTest;

TEST_F(TextPositionTest, IsThatOfTheFile) {
  const std::string bytes = "a\r\nb\nc\rd\r\r\n\r\ne";
  Write("f", bytes);
  const size_t after[] = {0, 1, 3, 4, 5, 6, 7, 8, 9, 11, 13, 14};
  for (const size_t buffer : {size_t{2}, size_t{3}, size_t{4}, size_t{BUFSIZ}}) {
    for (const bool seeks : {false, true}) {
      FILE* file = _wfopen(L"f", L"rt");
      std::setvbuf(file, nullptr, _IOFBF, buffer);
      for (const size_t position : after) {
        EXPECT_EQ(std::ftell(file), static_cast<long>(position)) << buffer << seeks;
        if (seeks) {
          EXPECT_EQ(std::fseek(file, 0, SEEK_CUR), 0);
        }
        EXPECT_EQ(std::ftell(file), static_cast<long>(position)) << buffer << seeks;
        const int character = std::fgetc(file);
        const int expected = position == bytes.size()                  ? EOF
                             : bytes.compare(position, 2, "\r\n") == 0 ? '\n'
                                                                       : bytes[position];
        EXPECT_EQ(character, expected) << position;
        if (character == EOF) continue;
        std::ungetc(character, file);
        EXPECT_EQ(std::ftell(file), static_cast<long>(position)) << buffer << seeks;
        std::fgetc(file);
      }
      std::fclose(file);
    }
  }
  FILE* file = _wfopen(L"f", L"wt");
  std::fputs("a\nb", file);
  EXPECT_EQ(std::fseek(file, 0, SEEK_CUR), 0);
  EXPECT_EQ(std::ftell(file), 4);
  std::fputs("\nc", file);
  EXPECT_EQ(std::ftell(file), 7);
  std::fclose(file);
  EXPECT_EQ(Read("f"), "a\r\nb\r\nc");
}
