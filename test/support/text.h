// Texts as the log lines and reports print them, and names that tests give.
#pragma once
#include <cstdio>
#include <string>
#include <vector>

#include "test/support/handle.h"

namespace qel::test {

using Messages = std::vector<std::string>;

template <class... Values>
std::string Print(const char* format, Values... values) {
  char text[512];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

inline unsigned long Number(const volatile void* pointer) {
  return static_cast<unsigned long>(reinterpret_cast<ULONG_PTR>(pointer));
}
// "0x0012ABCD", a pointer.
inline std::string Address(const volatile void* pointer) { return Print("0x%08lX", Number(pointer)); }
// "0x1f", a handle or a number.
inline std::string Hex(unsigned long value) { return Print("0x%lx", value); }
inline std::string Hex(HANDLE handle) { return Hex(Number(handle)); }

// Of ASCII only.
inline std::string Narrow(const std::wstring& text) { return {text.begin(), text.end()}; }
inline std::wstring Widen(const std::string& text) { return {text.begin(), text.end()}; }

// Bytes that tell every place of a file from its neighbours and from the same place of another chunk.
inline std::string Pattern(size_t size, unsigned seed = 1) {
  std::string bytes(size, '\0');
  unsigned value = seed;
  for (char& byte : bytes) {
    value = value * 1664525 + 1013904223;
    byte = static_cast<char>(value >> 24);
  }
  return bytes;
}

// The path of this program, as log lines name it.
inline std::string ProgramPath() {
  char path[MAX_PATH] = "";
  GetModuleFileNameA(nullptr, path, MAX_PATH);
  return path;
}

}  // namespace qel::test
