#include <dlfcn.h>
#include <link.h>
#include <strings.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/memory/regions.h"
#include "qelibaselib/platform/linux/modules/program_path.h"
#include "qelibaselib/platform/linux/modules/walk_memory.h"
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

struct ModuleImage {
  uint32_t base, end, entryPoint;
  const char* path;  // empty for the program; lives as long as the module is loaded
};

// The loader tells of one address without its lock, which a thread that was stopped may hold for ever.
bool FindModule(HMODULE wanted, ModuleImage* module) {
  const void* const place = wanted ? wanted : PointerTo(getauxval(AT_PHDR));  // the program's own headers
  dl_find_object known;
  if (_dl_find_object(const_cast<void*>(place), &known) != 0) return false;
  module->base = PageOf(AddressOf(known.dlfo_map_start));
  module->end = static_cast<uint32_t>(RoundUp(uint64_t{AddressOf(known.dlfo_map_end)}, kPageSize));
  if (wanted && AddressOf(wanted) != module->base) return false;
  ElfW(Ehdr) header;
  const bool isRead = OwnMemory().Read(module->base, &header, sizeof header);
  module->entryPoint = isRead && header.e_entry ? known.dlfo_link_map->l_addr + header.e_entry : 0;
  module->path = known.dlfo_link_map->l_name;
  return true;
}

// Null when there is no such module.
const char* PathOf(HMODULE wanted) {
  if (!wanted) return g_programPath;
  if (wanted == VersionModule()) return "ntdll.dll";
  ModuleImage module;
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
  ModuleImage module;
  if (wanted == VersionModule() || !FindModule(wanted, &module)) return ERROR_INVALID_HANDLE;
  *information = {PointerTo(module.base), module.end - module.base, PointerTo(module.entryPoint)};
  return ERROR_SUCCESS;
}

// A name in the first 64 KiB is an ordinal.
bool IsText(LPCSTR name) { return AddressOf(name) >= kGranularityBytes; }

}  // namespace

const char* ProgramPath() { return g_programPath; }

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
  ModuleImage program;
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
  qel::layer::NameReader reader(path, path + std::strlen(path));
  return qel::layer::CopyText(name, size, [&] { return reader.AtEnd() ? L'\0' : reader.Read(); });
}

BOOL GetModuleInformation(HANDLE process, HMODULE module, LPMODULEINFO information, DWORD size) {
  const DWORD error = qel::layer::Describe(process, module, information, size);
  if (error != ERROR_SUCCESS) SetLastError(error);
  return error == ERROR_SUCCESS;
}
