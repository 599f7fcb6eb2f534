#include "qelibaselib/platform/linux/modules/symbol_table.h"

#include <elf.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "qelibaselib/platform/linux/base/page_size.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"

namespace qel::layer {
namespace {

constexpr uint32_t kMaximumSymbols = 1u << 20;
constexpr uint32_t kMaximumSections = 4096;
// On the stack of a thread that may have little left.
constexpr std::size_t kSymbolsPerRead = 64;

bool ReadAt(int file, uint64_t offset, void* buffer, std::size_t bytes) {
  return pread64(file, buffer, bytes, static_cast<off64_t>(offset)) == static_cast<ssize_t>(bytes);
}

bool IsUsable(const Elf32_Ehdr& header) {
  return std::equal(header.e_ident, header.e_ident + SELFMAG, ELFMAG) && header.e_ident[EI_CLASS] == ELFCLASS32 &&
         header.e_ident[EI_DATA] == ELFDATA2LSB && header.e_machine == EM_386 &&
         header.e_shentsize == sizeof(Elf32_Shdr) && header.e_shnum <= kMaximumSections;
}

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

Pages::Pages(void* address, std::size_t bytes) {
  if (address == MAP_FAILED) return;
  data_ = static_cast<std::byte*>(address);
  size_ = bytes;
}

Pages::Pages(Pages&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

Pages& Pages::operator=(Pages&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  return *this;
}

Pages::~Pages() {
  if (data_) munmap(data_, size_);
}

void Pages::Shrink(std::size_t bytes) {
  const std::size_t kept = (bytes + kPageSize - 1) / kPageSize * kPageSize;
  if (kept >= size_) return;
  munmap(data_ + kept, size_ - kept);
  size_ = kept;
  if (kept == 0) data_ = nullptr;
}

/// Fills a table from the sections of a file.
class SymbolTableReader {
 public:
  SymbolTableReader(int file, SymbolTable& table) : file_(file), table_(table) {}

  void Read() {
    struct stat64 status;
    if (fstat64(file_, &status) != 0 || !S_ISREG(status.st_mode)) return;
    fileSize_ = static_cast<uint64_t>(status.st_size);
    if (!ReadAt(file_, 0, &header_, sizeof header_) || !IsUsable(header_)) return;
    const Elf32_Shdr sections[] = {FindSection(SHT_SYMTAB), FindSection(SHT_DYNSYM)};
    const uint32_t total = SymbolCount(sections[0]) + SymbolCount(sections[1]);
    if (total == 0 || !Reserve(total)) return;
    for (uint8_t i = 0; i < 2; ++i) {
      if (SymbolCount(sections[i]) > 0 && MapStrings(sections[i], table_.strings_[i])) ReadSymbols(sections[i], i);
    }
    Finish();
  }

 private:
  bool ReadSection(uint32_t index, Elf32_Shdr& section) const {
    return index < header_.e_shnum &&
           ReadAt(file_, header_.e_shoff + uint64_t{index} * sizeof section, &section, sizeof section);
  }

  /// All zero, so without symbols, when there is none or when it leads out of the file.
  Elf32_Shdr FindSection(uint32_t type) const {
    Elf32_Shdr section;
    for (uint32_t i = 0; i < header_.e_shnum && ReadSection(i, section); ++i) {
      if (section.sh_type == type && IsInside(section) && section.sh_entsize == sizeof(Elf32_Sym)) return section;
    }
    return {};
  }

  bool IsInside(const Elf32_Shdr& section) const {
    return section.sh_size > 0 && uint64_t{section.sh_offset} + section.sh_size <= fileSize_;
  }

  static uint32_t SymbolCount(const Elf32_Shdr& section) {
    return std::min<uint32_t>(section.sh_size / sizeof(Elf32_Sym), kMaximumSymbols);
  }

  bool Reserve(uint32_t symbols) {
    const std::size_t bytes = symbols * sizeof(SymbolTable::Function);
    table_.store_ = Pages(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0), bytes);
    return table_.store_.data() != nullptr;
  }

  bool MapStrings(const Elf32_Shdr& symbols, SymbolTable::Strings& strings) const {
    Elf32_Shdr section;
    if (!ReadSection(symbols.sh_link, section) || section.sh_type != SHT_STRTAB || !IsInside(section)) return false;
    strings.start = section.sh_offset % kPageSize;
    strings.size = section.sh_size;
    const std::size_t bytes = strings.start + strings.size;
    strings.pages = Pages(
        mmap64(nullptr, bytes, PROT_READ, MAP_PRIVATE, file_, static_cast<off64_t>(section.sh_offset - strings.start)),
        bytes);
    return strings.pages.data() != nullptr;
  }

  // Read, not mapped: reading a file that is being cut fails, reading its pages would fault.
  void ReadSymbols(const Elf32_Shdr& section, uint8_t table) {
    Elf32_Sym symbols[kSymbolsPerRead];
    const uint32_t count = SymbolCount(section);
    for (uint32_t done = 0; done < count;) {
      const uint32_t now = std::min<uint32_t>(count - done, kSymbolsPerRead);
      if (!ReadAt(file_, section.sh_offset + uint64_t{done} * sizeof(Elf32_Sym), symbols, now * sizeof(Elf32_Sym)))
        return;
      for (uint32_t i = 0; i < now; ++i) Add(symbols[i], table);
      done += now;
    }
  }

  void Add(const Elf32_Sym& symbol, uint8_t table) {
    if (!IsFunction(symbol) || symbol.st_name >= table_.strings_[table].size) return;
    auto* functions = reinterpret_cast<SymbolTable::Function*>(table_.store_.data());
    functions[table_.count_++] = {static_cast<uint32_t>(symbol.st_value), static_cast<uint32_t>(symbol.st_size),
                                  static_cast<uint32_t>(symbol.st_name), table, Rank(symbol)};
  }

  /// Sorts, keeps one name for each address and gives the rest of the reserved pages back.
  void Finish() {
    const auto functions = table_.functions();
    std::sort(functions.begin(), functions.end(), [](const auto& a, const auto& b) {
      return a.address != b.address ? a.address < b.address : a.rank != b.rank ? a.rank > b.rank : a.table < b.table;
    });
    const auto end = std::unique(functions.begin(), functions.end(),
                                 [](const auto& a, const auto& b) { return a.address == b.address; });
    table_.count_ = static_cast<std::size_t>(end - functions.begin());
    table_.store_.Shrink(table_.count_ * sizeof(SymbolTable::Function));
  }

  const int file_;
  SymbolTable& table_;
  uint64_t fileSize_ = 0;
  Elf32_Ehdr header_;
};

SymbolTable::SymbolTable(int file) { SymbolTableReader(file, *this).Read(); }

const SymbolTable::Function* SymbolTable::Find(uint32_t address) const {
  const auto all = functions();
  const auto next = std::upper_bound(all.begin(), all.end(), address,
                                     [](uint32_t value, const Function& function) { return value < function.address; });
  if (next == all.begin()) return nullptr;
  const Function& function = *(next - 1);
  if (function.size != 0 && address - function.address >= function.size) return nullptr;
  return &function;
}

std::size_t SymbolTable::Name(const Function& function, char* text, std::size_t size) const {
  const Strings& strings = strings_[function.table];
  const char* name = reinterpret_cast<const char*>(strings.pages.data()) + strings.start + function.name;
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
