#include "qelibaselib/modulestatus/debugger_command.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "qelibaselib/base/format.h"

namespace qel::report {
namespace {

constexpr int kMaximumWidth = 4096;

/// One conversion between "%" and its letter. The length modifier is dropped: both arguments have 32 bits.
struct Conversion {
  char flags[6] = "";
  int width = 0;
  int precision = -1;
  char letter = '\0';
};

const char* ParseNumber(const char* text, int& number) {
  for (number = 0; *text >= '0' && *text <= '9'; ++text) number = std::min(number * 10 + (*text - '0'), kMaximumWidth);
  return text;
}

const char* SkipLength(const char* text) {
  for (const char* modifier : {"I64", "I32", "hh", "ll", "h", "l", "I", "z", "t", "j"}) {
    if (std::strncmp(text, modifier, std::strlen(modifier)) == 0) return text + std::strlen(modifier);
  }
  return text;
}

/// Takes the conversion behind a "%" apart. Returns what follows it, null when it is none of an integer or pointer.
const char* ParseConversion(const char* text, Conversion& conversion) {
  for (std::size_t count = 0; *text && std::strchr("-+ #0", *text); ++text) {
    if (count + 1 < sizeof conversion.flags) conversion.flags[count++] = *text;
  }
  text = ParseNumber(text, conversion.width);
  if (*text == '.') text = ParseNumber(text + 1, conversion.precision);
  text = SkipLength(text);
  if (!*text || !std::strchr("diouxXp", *text)) return nullptr;
  conversion.letter = *text;
  return text + 1;
}

/// Calls `literal(character)` and `number(conversion)` in the order of the text. False at the first conversion that is
/// neither a number nor "%%".
template <class Literal, class Number>
bool Parse(const char* command, Literal&& literal, Number&& number) {
  while (*command) {
    if (*command != '%') {
      literal(*command++);
    } else if (command[1] == '%') {
      literal('%');
      command += 2;
    } else {
      Conversion conversion;
      command = ParseConversion(command + 1, conversion);
      if (!command) return false;
      number(conversion);
    }
  }
  return true;
}

std::size_t FormatNumber(char* text, std::size_t size, const Conversion& conversion, DWORD value) {
  char format[32];
  if (conversion.letter == 'p') {
    FormatText(format, sizeof format, "%%%s%dp", conversion.flags, conversion.width);
  } else if (conversion.precision < 0) {
    FormatText(format, sizeof format, "%%%s%dl%c", conversion.flags, conversion.width, conversion.letter);
  } else {
    FormatText(format, sizeof format, "%%%s%d.%dl%c", conversion.flags, conversion.width, conversion.precision,
               conversion.letter);
  }
  return FormatText(text, size, format, value);
}

}  // namespace

bool IsDebuggerCommand(const char* command) {
  return *command && Parse(
                         command, [](char) {}, [](const Conversion&) {});
}

void FormatDebuggerCommand(char* text, std::size_t size, const char* command, DWORD processId, HANDLE event) {
  const DWORD arguments[] = {processId, static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(event))};
  std::size_t used = 0;
  std::size_t taken = 0;
  Parse(
      command,
      [&](char character) {
        if (used + 1 < size) text[used++] = character;
      },
      [&](const Conversion& conversion) {
        const DWORD value = taken < std::size(arguments) ? arguments[taken++] : 0;
        used = std::min(used + FormatNumber(text + used, size - used, conversion, value), size - 1);
      });
  text[used] = '\0';
}

}  // namespace qel::report
