#include "test/support/record.h"

#include <cstdio>

namespace qel::test {

std::string Record::Text(const wchar_t* text) {
  if (!text) return "null";
  std::string result = "\"";
  for (; *text; ++text) {
    char code[16];
    std::snprintf(code, sizeof code, *text >= ' ' && *text < 0x7F ? "%c" : "{%x}", static_cast<int>(*text));
    result += code;
  }
  return result + '"';
}

std::string Record::Text(Hex number) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%lX", number.value);
  return text;
}

std::string Record::Text(const void* pointer) {
  return pointer == nullptr ? "null" : pointer == INVALID_HANDLE_VALUE ? "invalid" : "given";
}

void Record::AddAnswer(const std::string& label, const std::string& answer, DWORD error) {
  line_ += separator_ + label + " = " + answer;
  if (error != kUntouched) line_ += " (" + std::to_string(error) + ")";
  separator_ = ", ";
}

void Record::EndLine() {
  if (!line_.empty()) lines_ += line_ + "\n";
  line_.clear();
  separator_ = "";
}

}  // namespace qel::test
