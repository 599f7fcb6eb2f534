#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cwctype>

#include "qelibaselib/platform/linux/base/utf8.h"
#include "qelibaselib/platform/linux/win32/crt.h"
#include "qelibaselib/platform/linux/win32/stringapiset.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

// Collects a conversion in the caller's buffer; with room for nothing it only counts.
template <class Char>
class ConvertedText {
 public:
  ConvertedText(Char* target, int room) : target_(target), room_(room) {}
  void Add(const Char* text, int length) {
    if (room_ > 0 && count_ + length <= room_) std::memcpy(target_ + count_, text, sizeof(Char) * length);
    count_ += length;
  }
  int Result() const {
    if (room_ == 0 || count_ <= room_) return count_;
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }

 private:
  Char* target_;
  int room_, count_ = 0;
};

// `length` is -1 for a text that ends in a NUL, which is converted too.
bool CheckArguments(UINT codePage, DWORD flags, const void* source, int length, const void* target, int room) {
  const bool usable = (codePage == CP_ACP || codePage == CP_UTF8) && flags == 0 && source && length != 0 &&
                      length >= -1 && room >= 0 && (room == 0 || target) && source != target;
  if (!usable) SetLastError(ERROR_INVALID_PARAMETER);
  return usable;
}

int Sign(unsigned first, unsigned second) { return first < second ? -1 : first > second; }

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int wideLength, LPSTR narrow, int narrowLength,
                        LPCSTR defaultCharacter, LPBOOL usedDefault) {
  if (!CheckArguments(codePage, flags, wide, wideLength, narrow, narrowLength)) return 0;
  const size_t length = wideLength < 0 ? std::wcslen(wide) + 1 : static_cast<size_t>(wideLength);
  if (usedDefault) *usedDefault = FALSE;
  ConvertedText<char> output(narrow, narrowLength);
  for (size_t i = 0; i < length; ++i) {
    char bytes[kLongestUtf8];
    if (IsUnencodable(wide[i])) {
      if (usedDefault) *usedDefault = TRUE;
      output.Add(defaultCharacter ? defaultCharacter : "?", 1);
    } else {
      const char* end = EncodeUtf8(wide[i], bytes);
      output.Add(bytes, static_cast<int>(end - bytes));
    }
  }
  return output.Result();
}

int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR narrow, int narrowLength, LPWSTR wide, int wideLength) {
  if (!CheckArguments(codePage, flags, narrow, narrowLength, wide, wideLength)) return 0;
  const char* end = narrow + (narrowLength < 0 ? std::strlen(narrow) + 1 : static_cast<size_t>(narrowLength));
  ConvertedText<wchar_t> output(wide, wideLength);
  while (narrow != end) {
    const wchar_t c = DecodeUtf8(narrow, end);
    output.Add(&c, 1);
  }
  return output.Result();
}

errno_t wcsncpy_s(wchar_t* target, std::size_t size, const wchar_t* source, std::size_t count) {
  if (!target || size == 0) return EINVAL;
  if (!source) {
    *target = 0;
    return count == 0 ? 0 : EINVAL;
  }
  std::size_t length = 0;
  while (length < count && source[length]) ++length;
  const bool fits = length < size;
  if (!fits && count != _TRUNCATE) {
    *target = 0;
    return ERANGE;
  }
  if (!fits) length = size - 1;
  std::wmemcpy(target, source, length);
  target[length] = 0;
  return fits ? 0 : STRUNCATE;
}

int _wcsnicmp(const wchar_t* first, const wchar_t* second, std::size_t count) {
  for (; count > 0; --count, ++first, ++second) {
    const auto a = std::towlower(static_cast<wint_t>(*first)), b = std::towlower(static_cast<wint_t>(*second));
    if (a != b) return Sign(a, b);
    if (a == 0) break;
  }
  return 0;
}

int _mbsnbcmp(const unsigned char* first, const unsigned char* second, std::size_t count) {
  for (; count > 0; --count, ++first, ++second) {
    if (*first != *second) return Sign(*first, *second);
    if (*first == 0) break;
  }
  return 0;
}

char* _strdup(const char* text) { return text ? strdup(text) : nullptr; }
