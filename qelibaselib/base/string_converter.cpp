#include "qelibaselib/base/string_converter.h"

#include <algorithm>

#include "qelibaselib/platform/fault/may_fault.h"

namespace {

template <class Character>
Character* CopyOf(const Character* text, size_t length) {
  auto* copy = new Character[length + 1];
  std::copy_n(text, length, copy);
  copy[length] = 0;
  return copy;
}

char* ToNarrow(const wchar_t* text) {
  const int size = WideCharToMultiByte(CP_ACP, 0, text, -1, nullptr, 0, nullptr, nullptr);
  auto* narrow = new char[size + 1];
  narrow[WideCharToMultiByte(CP_ACP, 0, text, -1, narrow, size, nullptr, nullptr)] = '\0';
  return narrow;
}

wchar_t* ToWide(const char* text) {
  const int size = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
  auto* wide = new wchar_t[size + 1];
  wide[MultiByteToWideChar(CP_ACP, 0, text, -1, wide, size)] = L'\0';
  return wide;
}

}  // namespace

CStrCnv::CStrCnv(const char* narrow) : narrow_(narrow ? CopyOf(narrow, may_fault::StringLength(narrow)) : nullptr) {}
CStrCnv::CStrCnv(const wchar_t* wide) : wide_(wide ? CopyOf(wide, may_fault::WideStringLength(wide)) : nullptr) {}

CStrCnv::~CStrCnv() {
  delete[] narrow_;
  delete[] wide_;
}

const char* CStrCnv::Narrow() {
  if (!narrow_ && wide_) narrow_ = ToNarrow(wide_);
  return narrow_;
}

const wchar_t* CStrCnv::Wide() {
  if (!wide_ && narrow_) wide_ = ToWide(narrow_);
  return wide_;
}
