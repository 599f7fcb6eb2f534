// The store is a sorted array on pages of its own: it is filled and asked while a fault is reported, when the heap may
// be broken or locked by the very thread that faulted.
#include "qelibaselib/platform/linux/modules/symbol_store.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string_view>

#include "qelibaselib/platform/fault/fault.h"
#include "qelibaselib/platform/linux/base/never_destroyed.h"
#include "qelibaselib/platform/linux/base/patient_mutex.h"
#include "qelibaselib/platform/linux/modules/loaded_module.h"
#include "qelibaselib/platform/linux/modules/program_path.h"
#include "qelibaselib/platform/linux/modules/symbol_name.h"
#include "qelibaselib/platform/linux/modules/walk_memory.h"

namespace qel::layer {
namespace {

constexpr std::size_t kStoredNameCharacters = 1024;

struct ModuleCounts {
  unsigned long long loads = 0;
  unsigned long long unloads = 0;
  bool operator==(const ModuleCounts&) const = default;
};

class ModuleList {
 public:
  constexpr ModuleList() = default;
  ModuleList(const ModuleList&) = delete;
  ModuleList& operator=(const ModuleList&) = delete;
  ~ModuleList() { std::destroy_n(begin(), count_); }

  std::span<LoadedModule> modules() { return {begin(), count_}; }
  void Reserve(std::size_t modules) { pages_ = MappedPages::Allocate(modules * sizeof(LoadedModule)); }
  void Add(LoadedModule module) {
    if ((count_ + 1) * sizeof(LoadedModule) <= pages_.size()) new (begin() + count_++) LoadedModule(std::move(module));
  }
  void Swap(ModuleList& other) {
    std::swap(pages_, other.pages_);
    std::swap(count_, other.count_);
  }

 private:
  LoadedModule* begin() const { return reinterpret_cast<LoadedModule*>(pages_.data()); }
  MappedPages pages_;
  std::size_t count_ = 0;
};

struct Store {
  ModuleList list;  // sorted by start
  ModuleCounts counts;
  bool isStale = false;  // the loader's list could not be had
};

// A thread that faults in the store and comes again for its report fails, and does not wait for itself.
constinit PatientMutex g_mutex;

// Never destroyed: a fault at the end of the process is reported too.
Store& TheStore() {
  static NeverDestroyed<Store> store;
  return *store;
}

LoadedModule Describe(const dl_phdr_info& info) {
  LoadedModule module{.bias = info.dlpi_addr, .path = info.dlpi_name, .headers = LoadedHeaders(info)};
  module.isProgram = !module.path || module.path[0] == '\0';
  if (module.isProgram) module.path = ProgramPath();
  const LoadedRange range = FindLoadedRange(info, module.headers);
  module.start = range.start;
  module.end = range.end;
  return module;
}

/// Calls `use(module)` for each loaded module.
template <class Use>
void ForEachLoaded(Use use) {
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* call) {
        (*static_cast<Use*>(call))(*info);
        return 0;
      },
      &use);
}

/// What was read of a module that is still loaded is kept. After an unloading everything is dropped: another file may
/// have come to the same place.
void Reload(Store& store, bool keep) {
  ModuleList now;
  std::size_t count = 0;
  ForEachLoaded([&](const dl_phdr_info&) { ++count; });
  now.Reserve(count);
  ForEachLoaded([&](const dl_phdr_info& info) { now.Add(Describe(info)); });
  const auto modules = now.modules();
  std::sort(modules.begin(), modules.end(),
            [](const LoadedModule& a, const LoadedModule& b) { return a.start < b.start; });
  for (LoadedModule& old : keep ? store.list.modules() : std::span<LoadedModule>()) {
    const auto same = std::lower_bound(modules.begin(), modules.end(), old.start,
                                       [](const LoadedModule& module, uint32_t start) { return module.start < start; });
    if (same != modules.end() && same->start == old.start && same->path == old.path) *same = std::move(old);
  }
  store.list.Swap(now);
}

void Follow(Store& store) {
  ModuleCounts counts;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* result) {
        *static_cast<ModuleCounts*>(result) = {info->dlpi_adds, info->dlpi_subs};
        return 1;
      },
      &counts);
  if (!store.list.modules().empty() && counts == store.counts) return;
  Reload(store, counts.unloads == store.counts.unloads);
  store.counts = counts;
}

LoadedModule* FindListed(uint32_t address) {
  const auto modules = TheStore().list.modules();
  const auto next = std::upper_bound(modules.begin(), modules.end(), address,
                                     [](uint32_t value, const LoadedModule& module) { return value < module.start; });
  if (next == modules.begin() || address >= (next - 1)->end) return nullptr;
  return &*(next - 1);
}

// The loader tells of one address without its lock. False when the address is in no module.
bool DescribeUnlisted(uint32_t address, LoadedModule& module) {
  dl_find_object known;
  if (_dl_find_object(reinterpret_cast<void*>(address), &known) != 0) return false;
  Elf32_Ehdr header;
  const auto start = reinterpret_cast<uint32_t>(known.dlfo_map_start);
  if (!OwnMemory().Read(start, &header, sizeof header)) header = {};
  dl_phdr_info info{};
  info.dlpi_addr = known.dlfo_link_map->l_addr;
  info.dlpi_name = known.dlfo_link_map->l_name;
  info.dlpi_phdr = reinterpret_cast<const Elf32_Phdr*>(start + header.e_phoff);
  info.dlpi_phnum = header.e_phnum;
  module = Describe(info);
  return true;
}

/// Returns `use(module)` for the module that the address lies in; `none` when there is none. Where the store, or the
/// loader's list for it, cannot be had, the module is described once more for this one question.
template <class Result, class Use>
Result AskModule(uint32_t address, Result none, Use use) {
  {
    const PatientLock lock(g_mutex, Patience::kLimited);
    LoadedModule* const listed = lock ? FindListed(address) : nullptr;
    if (listed) return use(*listed);
    if (lock && !TheStore().isStale) return none;
  }
  LoadedModule module;
  return DescribeUnlisted(address, module) ? use(module) : none;
}

void CopyName(std::string_view name, char* text, std::size_t size) {
  if (size == 0) return;
  const std::size_t length = std::min(name.size(), size - 1);
  std::memcpy(text, name.data(), length);
  text[length] = '\0';
}

}  // namespace

void RefreshModules() {
  const PatientLock lock(g_mutex, Patience::kLimited);
  if (!lock) return;
  Store& store = TheStore();
  store.isStale = true;
  try {
    fault::Run([&] { Follow(store); });
    store.isStale = false;
  } catch (...) {  // the loader's lock is held for ever: see faults/lock_watch.cpp
  }
}

uint32_t FindModuleBase(uint32_t address) {
  return AskModule(address, uint32_t{0}, [](const LoadedModule& module) { return module.start; });
}

bool IsModuleCode(uint32_t address) {
  return AskModule(address, false, [&](const LoadedModule& module) {
    return FindSegment(module, PT_LOAD, [&](const Elf32_Phdr& segment) {
             return (segment.p_flags & PF_X) != 0 && address - module.bias - segment.p_vaddr < segment.p_memsz;
           }) != nullptr;
  });
}

bool FindUnwindTables(uint32_t address, UnwindTables& tables) {
  return AskModule(address, false, [&](const LoadedModule& module) {
    const Elf32_Phdr* header = FindSegment(module, PT_GNU_EH_FRAME);
    if (!header) return false;
    tables.header = module.bias + header->p_vaddr;
    tables.headerEnd = tables.header + header->p_memsz;
    return true;
  });
}

bool FindFunction(uint32_t address, FoundFunction& found, char* name, std::size_t size) {
  return AskModule(address, false, [&](LoadedModule& module) {
    if (!module.isRead) {
      module.isRead = true;  // before: where reading faults it is not tried again
      module.symbols = ReadModuleSymbols(module);
    }
    const SymbolTable::Function* function = module.symbols.Find(address - module.bias);
    if (!function) return false;
    found = {function->address + module.bias, function->size};
    if (name) {
      char stored[kStoredNameCharacters];
      module.symbols.Name(*function, stored, sizeof stored);
      ReadableName(stored, name, size);
    }
    return true;
  });
}

const ForkedPart kSymbolStoreAtFork = {[] { g_mutex.LockBeforeFork(); },
                                       [](bool inChild) { g_mutex.UnlockAfterFork(inChild); }};

bool FindModuleFile(uint32_t address, FoundFunction& found, char* name, std::size_t size) {
  return AskModule(address, false, [&](const LoadedModule& module) {
    found = {module.start, module.end - module.start};
    const std::string_view path = module.path;
    CopyName(path.substr(path.rfind('/') + 1), name, size);
    return true;
  });
}

}  // namespace qel::layer
