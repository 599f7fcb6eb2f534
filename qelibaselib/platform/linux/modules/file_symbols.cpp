// Symbols from the sections of an ELF file. Sizes and offsets that lead out of the file give an empty table.
#include <elf.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "qelibaselib/platform/linux/base/page_size.h"
#include "qelibaselib/platform/linux/modules/loaded_module.h"

namespace qel::layer {
namespace {

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

class FileSymbolReader {
 public:
  FileSymbolReader(int file, SymbolTable& table) : file_(file), table_(table) {}

  void Read() {
    struct stat64 status;
    if (fstat64(file_, &status) != 0 || !S_ISREG(status.st_mode)) return;
    fileSize_ = static_cast<uint64_t>(status.st_size);
    if (!ReadAt(file_, 0, &header_, sizeof header_) || !IsUsable(header_)) return;
    const Elf32_Shdr sections[] = {FindSection(SHT_SYMTAB), FindSection(SHT_DYNSYM)};
    const uint32_t total = SymbolCount(sections[0]) + SymbolCount(sections[1]);
    if (total == 0 || !table_.Reserve(total)) return;
    for (uint8_t i = 0; i < 2; ++i) {
      if (SymbolCount(sections[i]) > 0 && MapStrings(sections[i], i)) ReadSymbols(sections[i], i);
    }
    table_.Finish();
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
    return std::min<uint32_t>(section.sh_size / sizeof(Elf32_Sym), SymbolTable::kMaximumSymbols);
  }

  bool MapStrings(const Elf32_Shdr& symbols, uint8_t table) {
    Elf32_Shdr section;
    if (!ReadSection(symbols.sh_link, section) || section.sh_type != SHT_STRTAB || !IsInside(section)) return false;
    const std::size_t before = section.sh_offset % kPageSize;
    const std::size_t bytes = before + section.sh_size;
    MappedPages pages(
        mmap64(nullptr, bytes, PROT_READ, MAP_PRIVATE, file_, static_cast<off64_t>(section.sh_offset - before)), bytes);
    if (!pages.data()) return false;
    const char* start = reinterpret_cast<const char*>(pages.data()) + before;
    table_.SetStrings(table, {std::move(pages), start, section.sh_size});
    return true;
  }

  // Read, not mapped: reading a file that is being cut fails, reading its pages would fault.
  void ReadSymbols(const Elf32_Shdr& section, uint8_t table) {
    Elf32_Sym symbols[kSymbolsPerRead];
    const uint32_t count = SymbolCount(section);
    for (uint32_t done = 0; done < count;) {
      const uint32_t now = std::min<uint32_t>(count - done, kSymbolsPerRead);
      if (!ReadAt(file_, section.sh_offset + uint64_t{done} * sizeof(Elf32_Sym), symbols, now * sizeof(Elf32_Sym)))
        return;
      for (uint32_t i = 0; i < now; ++i) table_.Add(symbols[i], table);
      done += now;
    }
  }

  const int file_;
  SymbolTable& table_;
  uint64_t fileSize_ = 0;
  Elf32_Ehdr header_;
};

}  // namespace

SymbolTable ReadFileSymbols(int file) {
  SymbolTable table;
  FileSymbolReader(file, table).Read();
  return table;
}

}  // namespace qel::layer
