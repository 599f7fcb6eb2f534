#include <cstdio>

#include "demo/image_folder.h"
#include "demo/steps.h"
#include "qelibaselib/qelibaselib.h"
#include "test/fileversion/module_builder.h"

std::wstring MakeModule(const std::wstring& folder) {
  const std::string version = QEL_VERSION;
  const auto bytes =
      qel::test::BuildModule(qel::test::BuildVersionResource({{{"040904b0",
                                                                {{"ProductName", u"QelIBaseLib demo"},
                                                                 {"FileVersion", {version.begin(), version.end()}},
                                                                 {"FileDescription", u"a module made for the demo"}}}},
                                                              {{0x0409, 0x04B0}}}));
  const std::wstring path = Join(folder, L"module.dll");
  HANDLE file = CreateFileX(__LINE__, __FILE__, path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                            FILE_ATTRIBUTE_NORMAL, nullptr, 1000, 100);
  if (file == INVALID_HANDLE_VALUE) return path;
  DWORD written = 0;
  WriteFileX(__LINE__, __FILE__, file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
  CloseHandle(file);
  return path;
}

void ShowModuleVersion(const std::wstring& module) {
  Title("version strings of a module");
  void* version = CreateCFileVersion(module.c_str());
  if (char** strings = GetVerCFileVersion(version)) {
    const auto text = [&](E_VERSIONSTRING column) { return strings[column] ? strings[column] : "?"; };
    std::printf("  %s: %s %s, %s\n", Narrow(PathFindFileNameW(module.c_str())).c_str(), text(kVersionProductName),
                text(kVersionFileVersion), text(kVersionFileDescription));
  } else {
    std::printf("  %s: no version resource\n", Narrow(module).c_str());
  }
  ReleaseCFileVersion(version);
}
