// The shortest useful host: sets the log folder, copies a file through the library, tells what went wrong.
//     host LOG_FOLDER SOURCE TARGET
#include <qelibaselib/qelibaselib.h>

#include <cstdio>
#include <string>

namespace {

std::wstring Wide(const char* text) {
  wchar_t wide[MAX_PATH] = L"";
  MultiByteToWideChar(CP_ACP, 0, text, -1, wide, MAX_PATH);
  return wide;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount != 4) {
    std::fprintf(stderr, "usage: host LOG_FOLDER SOURCE TARGET\n");
    return 2;
  }
  VemoSetLogPath(Wide(arguments[1]).c_str());
  if (!CopyFileX(__LINE__, __FILE__, Wide(arguments[2]).c_str(), Wide(arguments[3]).c_str(), FALSE, 2000, 500)) {
    std::fprintf(stderr, "not copied, error %lu; the log folder tells more\n", GetLastError());
    return 1;
  }
  std::printf("copied\n");
  return 0;
}
