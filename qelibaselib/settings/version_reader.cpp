#include "qelibaselib/settings/version_reader.h"

#include <stdexcept>

#include "qelibaselib/guard/exception_guard.h"

namespace qel {
namespace {

constexpr int kVersionRead = 2;
// A whole record. The number is the same where wide characters, and so the record, are longer.
constexpr DWORD kRecordBytes = 284;

class LoadedLibrary {
 public:
  explicit LoadedLibrary(const char* name) : module_(LoadLibraryA(name)) {
    if (!module_) throw std::runtime_error(name);
  }
  LoadedLibrary(const LoadedLibrary&) = delete;
  LoadedLibrary& operator=(const LoadedLibrary&) = delete;
  ~LoadedLibrary() { FreeLibrary(module_); }
  FARPROC Function(const char* name) const {
    const FARPROC function = GetProcAddress(module_, name);
    if (!function) throw std::runtime_error(name);
    return function;
  }

 private:
  const HMODULE module_;
};

}  // namespace

int ReadSystemVersion(OSVERSIONINFOEXW& version) {
  using ReadVersion = LONG(WINAPI*)(OSVERSIONINFOEXW * version);
  version = {};
  version.dwOSVersionInfoSize = kRecordBytes;
  LONG status = -1;
  const bool read = Swallowed([&] {
    const LoadedLibrary system("ntdll.dll");
    status = reinterpret_cast<ReadVersion>(reinterpret_cast<void*>(system.Function("RtlGetVersion")))(&version);
  });
  return read && status == 0 ? kVersionRead : 0;
}

}  // namespace qel
