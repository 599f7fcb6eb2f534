// The store is a sorted array on pages of its own: it is filled and asked while a fault is reported, when the heap may
// be broken or locked by the very thread that faulted.
#include "qelibaselib/platform/linux/modules/symbol_store.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <span>
#include <string_view>

#include "qelibaselib/platform/linux/modules/loaded_module.h"
#include "qelibaselib/platform/linux/modules/program_path.h"
#include "qelibaselib/platform/linux/modules/symbol_name.h"

namespace qel::layer {
namespace {

constexpr std::size_t kStoredNameCharacters = 1024;
constexpr time_t kLockSeconds = 2;

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
};

// A thread that faults in the store and comes again for its report must fail, not wait for itself.
pthread_mutex_t g_lock = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
// Nobody waits a second time for a thread that did not leave.
std::atomic<bool> g_isStuck = false;

bool LockStore() {
  if (g_isStuck) return pthread_mutex_trylock(&g_lock) == 0;
  timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += kLockSeconds;
  const int error = pthread_mutex_clocklock(&g_lock, CLOCK_MONOTONIC, &deadline);
  if (error == ETIMEDOUT) g_isStuck = true;
  return error == 0;
}

class StoreLock {
 public:
  StoreLock() : owns_(LockStore()) {
    if (owns_) g_isStuck = false;
  }
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
  alignas(Store) static constinit std::byte memory[sizeof(Store)] = {};
  static auto* store = new (memory) Store;
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

LoadedModule* FindModule(uint32_t address) {
  const auto modules = TheStore().list.modules();
  const auto next = std::upper_bound(modules.begin(), modules.end(), address,
                                     [](uint32_t value, const LoadedModule& module) { return value < module.start; });
  if (next == modules.begin() || address >= (next - 1)->end) return nullptr;
  return &*(next - 1);
}

void CopyName(std::string_view name, char* text, std::size_t size) {
  if (size == 0) return;
  const std::size_t length = std::min(name.size(), size - 1);
  std::memcpy(text, name.data(), length);
  text[length] = '\0';
}

}  // namespace

bool RefreshModules() {
  const StoreLock lock;
  if (!lock) return false;
  Store& store = TheStore();
  ModuleCounts counts;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* result) {
        *static_cast<ModuleCounts*>(result) = {info->dlpi_adds, info->dlpi_subs};
        return 1;
      },
      &counts);
  if (store.list.modules().empty() || !(counts == store.counts)) {
    Reload(store, counts.unloads == store.counts.unloads);
    store.counts = counts;
  }
  return true;
}

uint32_t FindModuleBase(uint32_t address) {
  const StoreLock lock;
  const LoadedModule* module = lock ? FindModule(address) : nullptr;
  return module ? module->start : 0;
}

bool IsModuleCode(uint32_t address) {
  const StoreLock lock;
  const LoadedModule* module = lock ? FindModule(address) : nullptr;
  return module && FindSegment(*module, PT_LOAD, [&](const Elf32_Phdr& segment) {
           return (segment.p_flags & PF_X) != 0 && address - module->bias - segment.p_vaddr < segment.p_memsz;
         });
}

bool FindUnwindTables(uint32_t address, UnwindTables& tables) {
  const StoreLock lock;
  const LoadedModule* module = lock ? FindModule(address) : nullptr;
  const Elf32_Phdr* header = module ? FindSegment(*module, PT_GNU_EH_FRAME) : nullptr;
  if (!header) return false;
  tables.header = module->bias + header->p_vaddr;
  tables.headerEnd = tables.header + header->p_memsz;
  return true;
}

bool FindFunction(uint32_t address, FoundFunction& found, char* name, std::size_t size) {
  const StoreLock lock;
  LoadedModule* module = lock ? FindModule(address) : nullptr;
  if (!module) return false;
  if (!module->isRead) {
    module->isRead = true;  // before: where reading faults it is not tried again
    module->symbols = ReadModuleSymbols(*module);
  }
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

bool FindModuleFile(uint32_t address, FoundFunction& found, char* name, std::size_t size) {
  const StoreLock lock;
  const LoadedModule* module = lock ? FindModule(address) : nullptr;
  if (!module) return false;
  found = {module->start, module->end - module->start};
  const std::string_view path = module->path;
  CopyName(path.substr(path.rfind('/') + 1), name, size);
  return true;
}

}  // namespace qel::layer
