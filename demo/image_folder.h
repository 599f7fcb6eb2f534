// Which images the demo works on.
#pragma once
#include <string>
#include <vector>

// The files of a folder with the ending of an image, in the system's order.
std::vector<std::wstring> FindImages(const std::wstring& folder);
// Makes a few images in a folder and returns their paths.
std::vector<std::wstring> MakeImages(const std::wstring& folder);
std::wstring Join(const std::wstring& folder, const std::wstring& name);
std::string Narrow(const std::wstring& text);
std::wstring Wide(const std::string& text);
