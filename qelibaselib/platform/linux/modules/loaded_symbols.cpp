// Symbols that a module has in memory, for the loader: they are there when the module's file is cut, deleted or
// replaced, or when there never was one, as for the code that the kernel maps into each process.
#include <elf.h>

#include <algorithm>

#include "qelibaselib/platform/linux/modules/loaded_module.h"
#include "qelibaselib/platform/linux/modules/table_cursor.h"

namespace qel::layer {
namespace {

constexpr uint32_t kMostDynamicEntries = 1000;
constexpr uint32_t kWordBytes = 4;

/// Where the parts are.
struct DynamicPlaces {
  uint32_t symbols = 0;
  uint32_t strings = 0;
  uint32_t stringBytes = 0;
  uint32_t hash = 0;
  uint32_t gnuHash = 0;
};

class LoadedSymbolReader {
 public:
  LoadedSymbolReader(const WalkMemory& memory, const LoadedModule& module) : memory_(memory), module_(module) {}

  void Read(SymbolTable& table) {
    FindPlaces();
    const uint32_t count = std::min(CountSymbols(), SymbolTable::kMaximumSymbols);
    if (places_.symbols == 0 || places_.strings == 0 || count == 0 || !table.Reserve(count)) return;
    table.SetStrings(0, {{}, reinterpret_cast<const char*>(places_.strings), places_.stringBytes});
    for (uint32_t i = 0; i < count; ++i) {
      Elf32_Sym symbol;
      if (!memory_.Read(places_.symbols + i * sizeof symbol, &symbol, sizeof symbol)) break;
      table.Add(symbol, 0);
    }
    table.Finish();
  }

 private:
  void FindPlaces() {
    const Elf32_Phdr* segment = FindSegment(module_, PT_DYNAMIC);
    if (!segment) return;
    const uint32_t start = module_.bias + segment->p_vaddr;
    for (uint32_t i = 0; i < kMostDynamicEntries; ++i) {
      Elf32_Dyn entry;
      if (!memory_.Read(start + i * sizeof entry, &entry, sizeof entry) || entry.d_tag == DT_NULL) return;
      TakeEntry(entry);
    }
  }

  void TakeEntry(const Elf32_Dyn& entry) {
    switch (entry.d_tag) {
      case DT_SYMTAB:
        places_.symbols = Loaded(entry.d_un.d_ptr);
        break;
      case DT_STRTAB:
        places_.strings = Loaded(entry.d_un.d_ptr);
        break;
      case DT_STRSZ:
        places_.stringBytes = entry.d_un.d_val;
        break;
      case DT_HASH:
        places_.hash = Loaded(entry.d_un.d_ptr);
        break;
      case DT_GNU_HASH:
        places_.gnuHash = Loaded(entry.d_un.d_ptr);
        break;
      default:
        break;
    }
  }

  /// The loader turns most of these into addresses where the module is loaded, but not those of the kernel's.
  uint32_t Loaded(uint32_t address) const { return address < module_.start ? address + module_.bias : address; }

  // Nowhere else does it stand how many symbols there are.
  uint32_t CountSymbols() const {
    uint32_t chains = 0;
    if (places_.hash != 0 && memory_.ReadWord(places_.hash + kWordBytes, chains)) return chains;
    return places_.gnuHash != 0 ? CountHashed() : 0;
  }

  /// Behind the last bucket's first symbol, up to the one that is marked as its last.
  uint32_t CountHashed() const {
    TableCursor cursor(memory_, places_.gnuHash, module_.end);
    const uint32_t buckets = cursor.TakeWord();
    const uint32_t firstHashed = cursor.TakeWord();
    const uint32_t filterWords = cursor.TakeWord();
    cursor.Skip(kWordBytes);
    if (filterWords > SymbolTable::kMaximumSymbols || buckets > SymbolTable::kMaximumSymbols) return 0;
    cursor.Skip(filterWords * kWordBytes);
    uint32_t last = 0;
    for (uint32_t i = 0; i < buckets && cursor.IsSound(); ++i) last = std::max(last, cursor.TakeWord());
    if (last < firstHashed || last > SymbolTable::kMaximumSymbols) return firstHashed;
    cursor.Skip((last - firstHashed) * kWordBytes);
    while (cursor.IsSound() && (cursor.TakeWord() & 1) == 0) ++last;
    return last + 1;
  }

  const WalkMemory& memory_;
  const LoadedModule& module_;
  DynamicPlaces places_;
};

}  // namespace

SymbolTable ReadLoadedSymbols(const LoadedModule& module) {
  SymbolTable table;
  const WalkMemory memory = OwnMemory();
  LoadedSymbolReader(memory, module).Read(table);
  return table;
}

}  // namespace qel::layer
