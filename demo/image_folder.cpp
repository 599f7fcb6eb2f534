#include "demo/image_folder.h"

#include <algorithm>

#include "demo/image.h"
#include "qelibaselib/qelibaselib.h"

std::string Narrow(const std::wstring& text) {
  const int length = WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr);
  std::string narrow(static_cast<size_t>(std::max(length, 1)), '\0');
  WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, narrow.data(), length, nullptr, nullptr);
  narrow.pop_back();
  return narrow;
}

std::wstring Wide(const std::string& text) {
  const int length = MultiByteToWideChar(CP_ACP, 0, text.c_str(), -1, nullptr, 0);
  std::wstring wide(static_cast<size_t>(std::max(length, 1)), L'\0');
  MultiByteToWideChar(CP_ACP, 0, text.c_str(), -1, wide.data(), length);
  wide.pop_back();
  return wide;
}

std::wstring Join(const std::wstring& folder, const std::wstring& name) {
  wchar_t path[MAX_PATH];
  return PathCombineW(path, folder.c_str(), name.c_str()) ? path : std::wstring();
}

std::vector<std::wstring> FindImages(const std::wstring& folder) {
  constexpr const wchar_t* kEndings[] = {L".png", L".jpg", L".jpeg", L".bmp", L".ppm", L".pgm", L".pnm"};
  std::vector<std::wstring> images;
  WIN32_FIND_DATAW entry;
  HANDLE find = FindFirstFileW(Join(folder, L"*").c_str(), &entry);
  if (find == INVALID_HANDLE_VALUE) return images;
  do {
    const std::wstring name = entry.cFileName;
    const bool folderEntry = entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY;
    const auto endsWith = [&](const std::wstring& ending) {
      return name.size() > ending.size() &&
             _wcsnicmp(name.c_str() + name.size() - ending.size(), ending.c_str(), ending.size()) == 0;
    };
    if (!folderEntry && std::any_of(std::begin(kEndings), std::end(kEndings), endsWith))
      images.push_back(Join(folder, name));
  } while (FindNextFileW(find, &entry));
  FindClose(find);
  return images;
}

std::vector<std::wstring> MakeImages(const std::wstring& folder) {
  std::vector<std::wstring> images;
  for (int i = 1; i <= 4; ++i) {
    const std::wstring path = Join(folder, L"made" + std::to_wstring(i) + L".bmp");
    if (SaveBmp(path, MakeImage(320 * i, 240 * i, i))) images.push_back(path);
  }
  return images;
}
