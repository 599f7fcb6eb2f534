// fuzz-sources: qelibaselib/platform/linux/files/path.cpp qelibaselib/platform/linux/base/error.cpp
// File names, in both directions, on any bytes. The bytes as a name of the system must be shown as a component that
// means nothing else to Win32, and lead back to themselves; the bytes as a wide name must be refused or give a path
// that is shown in a form that leads to it again.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qelibaselib/platform/linux/files/path.h"

using namespace qel::layer;

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

std::wstring Show(const std::string& path) {
  std::wstring shown;
  for (NameReader reader(path.data(), path.data() + path.size()); !reader.AtEnd();) shown += reader.Read();
  return shown;
}

bool IsName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == name.npos && name.find('\0') == name.npos;
}

void CheckSystemName(const std::string& name) {
  const std::wstring shown = Show(name);
  Require(shown.size() <= name.size());
  for (const wchar_t c : shown) Require(c != 0 && !IsForbidden(c) && !IsSeparator(c) && !IsUnencodable(c));
  Require(shown.size() < 2 || shown[1] != L':');
  SystemPath path;
  const std::wstring folder = L"\\\\?\\/folder\\";
  const DWORD error = path.Parse((folder + shown).c_str());
  const std::string expected = "/folder/" + name;
  if (expected.size() + kLongestUtf8 + 2 <= SystemPath::kSize) Require(error == 0 && path.text() == expected);
}

void CheckWideName(const std::wstring& name) {
  SystemPath path, again;
  if (path.Parse(name.c_str()) != 0) return;
  Require(path.length() == std::strlen(path.text()));
  const std::wstring shown = L"\\\\?\\" + Show(path.text());
  if (again.Parse(shown.c_str()) == 0)  // refused only where the buffer's end is near
    Require(std::strcmp(again.text(), path.text()) == 0);
  else
    Require(path.length() + kLongestUtf8 + 2 > SystemPath::kSize);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t count) {
  const std::string name(reinterpret_cast<const char*>(bytes), count);
  if (IsName(name)) CheckSystemName(name);
  std::wstring wide(count / sizeof(wchar_t), 0);
  std::memcpy(wide.data(), bytes, wide.size() * sizeof(wchar_t));
  CheckWideName(wide);
  std::wstring characters;
  for (const char c : name) characters += static_cast<unsigned char>(c);
  CheckWideName(characters);
  return 0;
}
