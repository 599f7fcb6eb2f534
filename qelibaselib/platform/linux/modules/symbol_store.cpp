#include "qelibaselib/platform/linux/modules/symbol_store.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/page_size.h"
#include "qelibaselib/platform/linux/modules/symbol_name.h"
#include "qelibaselib/platform/linux/modules/symbol_table.h"

namespace qel::layer {
namespace {

constexpr std::size_t kStoredNameCharacters = 1024;

struct LoadedModule {
  uint32_t bias = 0;  // what loading added to the addresses in the file
  uint32_t start = 0;
  uint32_t end = 0;
  std::string path;
  const Elf32_Phdr* headers = nullptr;
  uint32_t headerCount = 0;
  bool isRead = false;
  SymbolTable symbols{};
};

struct Store {
  std::vector<LoadedModule> modules;  // sorted by start
  unsigned long long loads = 0;
  unsigned long long unloads = 0;
};

// A thread that faults in the store and comes again for its report must fail, not wait for itself.
pthread_mutex_t g_lock = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;

class StoreLock {
 public:
  StoreLock() : owns_(pthread_mutex_lock(&g_lock) == 0) {}
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;
  ~StoreLock() {
    if (owns_) pthread_mutex_unlock(&g_lock);
  }
  explicit operator bool() const { return owns_; }

 private:
  const bool owns_;
};

// Never destroyed: a fault at the end of the process is reported too.
Store& TheStore() {
  static Store& store = *new Store;
  return store;
}

bool SameBytes(int file, uint32_t offset, const void* loaded, std::size_t bytes) {
  std::array<char, 256> buffer;
  for (std::size_t done = 0; done < bytes;) {
    const std::size_t now = std::min(bytes - done, buffer.size());
    if (pread64(file, buffer.data(), now, offset + off64_t{done}) != static_cast<ssize_t>(now)) return false;
    if (std::memcmp(buffer.data(), static_cast<const char*>(loaded) + done, now) != 0) return false;
    done += now;
  }
  return true;
}

/// Whether the file is the one that was loaded and not another that has taken its place since: by its program headers
/// and its notes, where the linker leaves an identification of the contents.
bool IsLoadedFile(int file, const LoadedModule& module) {
  Elf32_Ehdr header;
  if (pread64(file, &header, sizeof header, 0) != sizeof header || header.e_phnum != module.headerCount) return false;
  if (!SameBytes(file, header.e_phoff, module.headers, module.headerCount * sizeof(Elf32_Phdr))) return false;
  return std::all_of(module.headers, module.headers + module.headerCount, [&](const Elf32_Phdr& segment) {
    return segment.p_type != PT_NOTE ||
           SameBytes(file, segment.p_offset, reinterpret_cast<const void*>(module.bias + segment.p_vaddr),
                     segment.p_filesz);
  });
}

void ReadSymbols(LoadedModule& module) {
  module.isRead = true;
  // The program's own file is reached even after it was replaced or removed.
  const Descriptor file(open64(module.path.empty() ? "/proc/self/exe" : module.path.c_str(),
                               O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (file.get() >= 0 && IsLoadedFile(file.get(), module)) module.symbols = SymbolTable(file.get());
}

LoadedModule Describe(const dl_phdr_info& info) {
  LoadedModule module{
      .bias = info.dlpi_addr, .path = info.dlpi_name, .headers = info.dlpi_phdr, .headerCount = info.dlpi_phnum};
  module.start = UINT32_MAX;
  for (const Elf32_Phdr* segment = info.dlpi_phdr; segment != info.dlpi_phdr + info.dlpi_phnum; ++segment) {
    if (segment->p_type != PT_LOAD) continue;
    const uint32_t first = info.dlpi_addr + segment->p_vaddr;
    module.start = std::min(module.start, first / kPageSize * kPageSize);
    module.end = std::max<uint32_t>(module.end, first + segment->p_memsz);
  }
  return module;
}

/// What was read of a module that is still loaded is kept. After an unloading everything is dropped: another file may
/// have come to the same place.
void Reload(Store& store, bool keep) {
  std::vector<LoadedModule> now;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* list) {
        static_cast<std::vector<LoadedModule>*>(list)->push_back(Describe(*info));
        return 0;
      },
      &now);
  std::sort(now.begin(), now.end(), [](const LoadedModule& a, const LoadedModule& b) { return a.start < b.start; });
  if (keep) {
    for (LoadedModule& old : store.modules) {
      const auto same = std::find_if(now.begin(), now.end(), [&](const LoadedModule& module) {
        return module.start == old.start && module.end == old.end && module.path == old.path;
      });
      if (same != now.end() && old.isRead) *same = std::move(old);
    }
  }
  store.modules = std::move(now);
}

LoadedModule* FindModule(Store& store, uint32_t address) {
  const auto next = std::upper_bound(store.modules.begin(), store.modules.end(), address,
                                     [](uint32_t value, const LoadedModule& module) { return value < module.start; });
  if (next == store.modules.begin() || address >= (next - 1)->end) return nullptr;
  return &*(next - 1);
}

/// The first program header that `fits`; null for none.
template <class Fits>
const Elf32_Phdr* FindSegment(const LoadedModule& module, Fits fits) {
  const Elf32_Phdr* end = module.headers + module.headerCount;
  const Elf32_Phdr* found = std::find_if(module.headers, end, fits);
  return found == end ? nullptr : found;
}

}  // namespace

bool RefreshModules() {
  const StoreLock lock;
  if (!lock) return false;
  Store& store = TheStore();
  struct Counts {
    unsigned long long loads, unloads;
  } counts{};
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* result) {
        *static_cast<Counts*>(result) = {info->dlpi_adds, info->dlpi_subs};
        return 1;
      },
      &counts);
  if (store.modules.empty() || counts.loads != store.loads || counts.unloads != store.unloads) {
    Reload(store, counts.unloads == store.unloads);
    store.loads = counts.loads;
    store.unloads = counts.unloads;
  }
  return true;
}

uint32_t FindModuleBase(uint32_t address) {
  const StoreLock lock;
  if (!lock) return 0;
  const LoadedModule* module = FindModule(TheStore(), address);
  return module ? module->start : 0;
}

bool IsModuleCode(uint32_t address) {
  const StoreLock lock;
  const LoadedModule* module = lock ? FindModule(TheStore(), address) : nullptr;
  return module && FindSegment(*module, [&](const Elf32_Phdr& segment) {
           return segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0 &&
                  address - module->bias - segment.p_vaddr < segment.p_memsz;
         });
}

bool FindUnwindTables(uint32_t address, UnwindTables& tables) {
  const StoreLock lock;
  const LoadedModule* module = lock ? FindModule(TheStore(), address) : nullptr;
  if (!module) return false;
  const Elf32_Phdr* header =
      FindSegment(*module, [](const Elf32_Phdr& segment) { return segment.p_type == PT_GNU_EH_FRAME; });
  if (!header) return false;
  tables.header = module->bias + header->p_vaddr;
  tables.headerEnd = tables.header + header->p_memsz;
  return true;
}

bool FindFunction(uint32_t address, FoundFunction& found, char* name, std::size_t size) {
  const StoreLock lock;
  if (!lock) return false;
  LoadedModule* module = FindModule(TheStore(), address);
  if (!module) return false;
  if (!module->isRead) ReadSymbols(*module);
  const SymbolTable::Function* function = module->symbols.Find(address - module->bias);
  if (!function) return false;
  found = {function->address + module->bias, function->size};
  if (name) {
    char stored[kStoredNameCharacters];
    module->symbols.Name(*function, stored, sizeof stored);
    ReadableName(stored, name, size);
  }
  return true;
}

const ForkedPart kSymbolStoreAtFork = {
    [] { pthread_mutex_lock(&g_lock); },
    [](bool inChild) {
      if (inChild)
        g_lock = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;  // which knows its owner by another id
      else
        pthread_mutex_unlock(&g_lock);
    }};

}  // namespace qel::layer
