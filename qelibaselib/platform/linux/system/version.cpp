#include "qelibaselib/platform/linux/system/version.h"

#include <sys/utsname.h>

#include <iterator>

namespace qel::layer {
namespace {

// The version whose behaviour the layer has.
constexpr DWORD kMajor = 6, kMinor = 1, kBuild = 7601;
constexpr WORD kServicePack = 1;
constexpr BYTE kWorkstation = 1;

// Release texts are ASCII; the text is cut to its place.
void Append(const char* text, WCHAR* place, size_t size, size_t* length) {
  for (; *text && *length + 1 < size; ++text) place[(*length)++] = static_cast<unsigned char>(*text);
  place[*length] = 0;
}

}  // namespace

NTSTATUS RtlGetVersion(OSVERSIONINFOEXW* version) {
  constexpr NTSTATUS kSuccess = 0;
  // The size that a record has on Windows is taken for a whole one too: hosts write the number.
  constexpr DWORD kSizeOnWindows = 284;
  version->dwMajorVersion = kMajor;
  version->dwMinorVersion = kMinor;
  version->dwBuildNumber = kBuild;
  version->dwPlatformId = VER_PLATFORM_WIN32_NT;
  utsname system = {};
  uname(&system);
  size_t length = 0;
  const char* const parts[] = {system.sysname, " ", system.release};
  for (const char* const part : parts) Append(part, version->szCSDVersion, std::size(version->szCSDVersion), &length);
  if (version->dwOSVersionInfoSize == sizeof *version || version->dwOSVersionInfoSize == kSizeOnWindows) {
    version->wServicePackMajor = kServicePack;
    version->wServicePackMinor = 0;
    version->wSuiteMask = 0;
    version->wProductType = kWorkstation;
    version->wReserved = 0;
  }
  return kSuccess;
}

}  // namespace qel::layer
