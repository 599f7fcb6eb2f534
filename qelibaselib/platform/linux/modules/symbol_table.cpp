#include "qelibaselib/platform/linux/modules/symbol_table.h"

#include <algorithm>
#include <utility>

#include "qelibaselib/platform/linux/base/page_size.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"

namespace qel::layer {
namespace {

bool IsFunction(const Elf32_Sym& symbol) {
  const auto type = ELF32_ST_TYPE(symbol.st_info);
  return (type == STT_FUNC || type == STT_GNU_IFUNC) && symbol.st_shndx != SHN_UNDEF && symbol.st_value != 0 &&
         symbol.st_name != 0;
}

uint8_t Rank(const Elf32_Sym& symbol) {
  switch (ELF32_ST_BIND(symbol.st_info)) {
    case STB_GLOBAL:
      return 2;
    case STB_WEAK:
      return 1;
    default:
      return 0;
  }
}

}  // namespace

bool SymbolTable::Reserve(uint32_t symbols) {
  store_ = MappedPages::Allocate(symbols * sizeof(Function));
  return store_.data() != nullptr;
}

void SymbolTable::SetStrings(uint8_t table, Strings strings) { strings_[table] = std::move(strings); }

void SymbolTable::Add(const Elf32_Sym& symbol, uint8_t table) {
  if (!IsFunction(symbol) || symbol.st_name >= strings_[table].size) return;
  if ((count_ + 1) * sizeof(Function) > store_.size()) return;
  reinterpret_cast<Function*>(store_.data())[count_++] = {static_cast<uint32_t>(symbol.st_value),
                                                          static_cast<uint32_t>(symbol.st_size),
                                                          static_cast<uint32_t>(symbol.st_name), table, Rank(symbol)};
}

void SymbolTable::Finish() {
  const auto all = functions();
  std::sort(all.begin(), all.end(), [](const Function& a, const Function& b) {
    return a.address != b.address ? a.address < b.address : a.rank != b.rank ? a.rank > b.rank : a.table < b.table;
  });
  const auto end =
      std::unique(all.begin(), all.end(), [](const Function& a, const Function& b) { return a.address == b.address; });
  count_ = static_cast<std::size_t>(end - all.begin());
  store_.Shrink(count_ * sizeof(Function));
}

const SymbolTable::Function* SymbolTable::Find(uint32_t address) const {
  const auto all = functions();
  const auto next = std::upper_bound(all.begin(), all.end(), address,
                                     [](uint32_t value, const Function& function) { return value < function.address; });
  if (next == all.begin()) return nullptr;
  const Function& function = *(next - 1);
  if (function.size != 0 && address - function.address >= function.size) return nullptr;
  return &function;
}

// The strings of a damaged module may be anything that can be read, a sanitizer's redzones included.
__attribute__((no_sanitize_address)) std::size_t SymbolTable::Name(const Function& function, char* text,
                                                                   std::size_t size) const {
  const Strings& strings = strings_[function.table];
  const char* name = strings.start + function.name;
  const std::size_t limit = std::min(size - 1, strings.size - function.name);
  std::size_t length = 0;
  for (; length < limit; ++length) {
    const char* next = name + length;
    const bool entersPage = length == 0 || reinterpret_cast<uintptr_t>(next) % kPageSize == 0;
    if (entersPage && IsBadReadPtr(next, 1)) break;
    if (*next == '\0') break;
    text[length] = *next;
  }
  text[length] = '\0';
  return length;
}

}  // namespace qel::layer
