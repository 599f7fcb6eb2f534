#include "qelibaselib/base/format_text.h"

#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/platform/win32.h"

namespace qel {
namespace {

// As the C run time of Windows does it, the flag 0 pads texts and characters with zeros too.
void PutPaddingBefore(TextSink& sink, const FormatConversion& conversion, int count) {
  if (!conversion.left) sink.Fill(conversion.zero ? '0' : ' ', count);
}

void PutPaddingBehind(TextSink& sink, const FormatConversion& conversion, int count) {
  if (conversion.left) sink.Fill(' ', count);
}

int PaddingFor(const FormatConversion& conversion, std::size_t count) {
  const auto width = static_cast<std::size_t>(conversion.width);
  return count < width ? static_cast<int>(width - count) : 0;
}

std::size_t TextLimit(const FormatConversion& conversion) {
  return static_cast<std::size_t>(conversion.precision);  // no precision: the largest number
}

void PutPadded(TextSink& sink, const FormatConversion& conversion, const char* text, std::size_t count) {
  const int padding = PaddingFor(conversion, count);
  PutPaddingBefore(sink, conversion, padding);
  sink.Put(text, count);
  PutPaddingBehind(sink, conversion, padding);
}

// How many wide characters make the next character: two where they have 16 bits and the first one leads a pair.
int CountUnits(const wchar_t* text) {
  const auto isSurrogate = [](wchar_t unit, unsigned first) {
    return (static_cast<unsigned>(unit) & ~0x3FFu) == first;
  };
  return isSurrogate(text[0], 0xD800) && isSurrogate(text[1], 0xDC00) ? 2 : 1;
}

// Hands the narrow form of each character of `text` to `take(bytes, count)` until the text ends or the next character
// would exceed `limit` bytes. A character is never cut, and nothing behind the last one that is needed is read.
template <class Take>
void ForEachNarrowCharacter(const wchar_t* text, std::size_t limit, Take&& take) {
  constexpr int kMostBytes = 8;
  const PreserveLastError preserve;
  while (limit > 0 && *text) {
    const int units = CountUnits(text);
    char bytes[kMostBytes];
    const auto count =
        static_cast<std::size_t>(WideCharToMultiByte(CP_ACP, 0, text, units, bytes, sizeof bytes, nullptr, nullptr));
    if (count > limit) return;
    take(bytes, count);
    limit -= count;
    text += units;
  }
}

}  // namespace

// The padding of a text needs its length, which is only read when there is a width.
void PutNarrowText(TextSink& sink, const FormatConversion& conversion, const char* text) {
  if (!text) text = "(null)";
  const std::size_t limit = TextLimit(conversion);
  if (conversion.width == 0) return sink.PutText(text, limit);
  std::size_t count = 0;
  while (count < limit && text[count]) ++count;
  PutPadded(sink, conversion, text, count);
}

void PutWideText(TextSink& sink, const FormatConversion& conversion, const wchar_t* text) {
  if (!text) return PutNarrowText(sink, conversion, nullptr);
  const std::size_t limit = TextLimit(conversion);
  std::size_t total = 0;
  if (conversion.width > 0) {
    ForEachNarrowCharacter(text, limit, [&](const char*, std::size_t count) { total += count; });
  }
  const int padding = PaddingFor(conversion, total);
  PutPaddingBefore(sink, conversion, padding);
  ForEachNarrowCharacter(text, limit, [&](const char* bytes, std::size_t count) { sink.Put(bytes, count); });
  PutPaddingBehind(sink, conversion, padding);
}

void PutCharacter(TextSink& sink, const FormatConversion& conversion, char character) {
  PutPadded(sink, conversion, &character, 1);
}

void PutWideCharacter(TextSink& sink, const FormatConversion& conversion, wchar_t character) {
  const wchar_t text[] = {character, L'\0'};
  PutWideText(sink, conversion, text);
}

}  // namespace qel
