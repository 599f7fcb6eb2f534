#include <link.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "qelibaselib/platform/linux/base/utf8.h"
#include "qelibaselib/platform/linux/memory/regions.h"
#include "qelibaselib/platform/linux/system/version.h"
#include "qelibaselib/platform/linux/win32/libloaderapi.h"
#include "qelibaselib/platform/linux/win32/processthreadsapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr size_t kLongestPath = 4096;

// The program's path, read when this module is loaded: a program that is replaced later has none any more.
constinit char g_programPath[kLongestPath] = {};

__attribute__((constructor)) void ReadProgramPath() {
  const ssize_t length = readlink("/proc/self/exe", g_programPath, sizeof g_programPath - 1);
  g_programPath[std::max<ssize_t>(length, 0)] = 0;
}

// What can be "loaded" here: a module without a file.
const char g_versionModule = 0;
HMODULE VersionModule() { return reinterpret_cast<HMODULE>(const_cast<char*>(&g_versionModule)); }

struct Module {
  uint32_t base, end, entryPoint;
  const char* path;  // empty for the program; lives as long as the module is loaded
};

struct Search {
  HMODULE wanted;  // null: the program, which is listed first
  Module* module;
};

int Examine(dl_phdr_info* info, size_t, void* context) {
  auto& search = *static_cast<Search*>(context);
  Module& module = *search.module;
  uint64_t base = kAddressSpaceEnd, end = 0;
  for (const ElfW(Phdr)* segment = info->dlpi_phdr; segment != info->dlpi_phdr + info->dlpi_phnum; ++segment) {
    if (segment->p_type != PT_LOAD) continue;
    const uint32_t start = info->dlpi_addr + segment->p_vaddr;
    base = std::min<uint64_t>(base, PageOf(start));
    end = std::max(end, RoundUp(uint64_t{start} + segment->p_memsz, kPageSize));
  }
  if (end == 0 || (search.wanted && AddressOf(search.wanted) != base)) return 0;
  module.base = base;
  module.end = end;
  const auto* const header = static_cast<const ElfW(Ehdr)*>(PointerTo(base));
  module.entryPoint = header->e_entry ? info->dlpi_addr + header->e_entry : 0;
  module.path = info->dlpi_name;
  return 1;
}

bool FindModule(HMODULE wanted, Module* module) {
  Search search = {wanted, module};
  return dl_iterate_phdr(Examine, &search) == 1;
}

// Null when there is no such module.
const char* PathOf(HMODULE wanted) {
  if (!wanted) return g_programPath;
  if (wanted == VersionModule()) return "ntdll.dll";
  Module module;
  if (!FindModule(wanted, &module)) return nullptr;
  return module.path[0] ? module.path : g_programPath;
}

// Cuts the text to the buffer as Windows does: ended, and the buffer's size is the result.
template <class Character, class Next>
DWORD CopyText(Character* target, DWORD size, Next next) {
  DWORD length = 0;
  for (; length < size; ++length)
    if ((target[length] = next()) == 0) {
      SetLastError(ERROR_SUCCESS);
      return length;
    }
  if (size > 0) target[size - 1] = 0;
  SetLastError(ERROR_INSUFFICIENT_BUFFER);
  return size;
}

bool IsVersionModuleName(LPCSTR name) { return strcasecmp(name, "ntdll.dll") == 0 || strcasecmp(name, "ntdll") == 0; }

std::string_view FileNameOf(std::string_view path) {
  const size_t separator = path.rfind('/');
  return separator == std::string_view::npos ? path : path.substr(separator + 1);
}

DWORD Describe(HANDLE process, HMODULE wanted, LPMODULEINFO information, DWORD size) {
  if (process != GetCurrentProcess()) return ERROR_INVALID_HANDLE;
  if (size < sizeof *information) return ERROR_INSUFFICIENT_BUFFER;
  Module module;
  if (wanted == VersionModule() || !FindModule(wanted, &module)) return ERROR_INVALID_HANDLE;
  *information = {PointerTo(module.base), module.end - module.base, PointerTo(module.entryPoint)};
  return ERROR_SUCCESS;
}

// A name in the first 64 KiB is an ordinal.
bool IsText(LPCSTR name) { return AddressOf(name) >= kGranularityBytes; }

}  // namespace
}  // namespace qel::layer

HMODULE LoadLibraryA(LPCSTR name) {
  if (!name) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  if (qel::layer::IsVersionModuleName(name)) return qel::layer::VersionModule();
  SetLastError(ERROR_MOD_NOT_FOUND);
  return nullptr;
}

FARPROC GetProcAddress(HMODULE module, LPCSTR name) {
  if (!qel::layer::PathOf(module)) {
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
  }
  if (module == qel::layer::VersionModule() && qel::layer::IsText(name) && std::strcmp(name, "RtlGetVersion") == 0)
    return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&qel::layer::RtlGetVersion));
  SetLastError(ERROR_PROC_NOT_FOUND);
  return nullptr;
}

BOOL FreeLibrary(HMODULE module) {
  if (module == qel::layer::VersionModule()) return TRUE;
  SetLastError(ERROR_INVALID_HANDLE);
  return FALSE;
}

HMODULE GetModuleHandleA(LPCSTR name) {
  using namespace qel::layer;
  if (name && IsVersionModuleName(name)) return VersionModule();
  if (name && name != std::string_view(g_programPath) && name != FileNameOf(g_programPath)) {
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
  }
  Module program;
  return FindModule(nullptr, &program) ? static_cast<HMODULE>(PointerTo(program.base)) : nullptr;
}

DWORD GetModuleFileNameA(HMODULE module, LPSTR name, DWORD size) {
  const char* path = qel::layer::PathOf(module);
  if (!path) {
    SetLastError(ERROR_MOD_NOT_FOUND);
    return 0;
  }
  return qel::layer::CopyText(name, size, [&] { return *path++; });
}

DWORD GetModuleFileNameW(HMODULE module, LPWSTR name, DWORD size) {
  const char* path = qel::layer::PathOf(module);
  if (!path) {
    SetLastError(ERROR_MOD_NOT_FOUND);
    return 0;
  }
  const char* const end = path + std::strlen(path);
  return qel::layer::CopyText(name, size, [&] { return path == end ? L'\0' : qel::layer::DecodeUtf8(path, end); });
}

BOOL GetModuleInformation(HANDLE process, HMODULE module, LPMODULEINFO information, DWORD size) {
  const DWORD error = qel::layer::Describe(process, module, information, size);
  if (error != ERROR_SUCCESS) SetLastError(error);
  return error == ERROR_SUCCESS;
}
