// Symbols from the sections of an ELF file. Sizes and offsets that lead out of the file give an empty table.
#include <elf.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/page_size.h"
#include "qelibaselib/platform/linux/modules/loaded_module.h"
#include "qelibaselib/platform/linux/modules/xz_decoder.h"

namespace qel::layer {
namespace {

constexpr uint32_t kMaximumSections = 4096;
constexpr std::size_t kLargestPacked = 16 << 20;
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

/// An ELF file of this processor, read in parts. Empty when it is none.
class ElfFile {
 public:
  explicit ElfFile(int file) : file_(file) {
    struct stat64 status;
    if (file < 0 || fstat64(file_, &status) != 0 || !S_ISREG(status.st_mode)) return;
    fileSize_ = static_cast<uint64_t>(status.st_size);
    if (!ReadAt(file_, 0, &header_, sizeof header_) || !IsUsable(header_)) header_ = {};
  }

  /// All zero, so without symbols, when there is none or when it leads out of the file.
  Elf32_Shdr FindSymbols(uint32_t type) const {
    return FindSection(
        [&](const Elf32_Shdr& section) { return section.sh_type == type && section.sh_entsize == sizeof(Elf32_Sym); });
  }
  Elf32_Shdr FindNamed(std::string_view name) const {
    Elf32_Shdr names;
    if (!ReadSection(header_.e_shstrndx, names)) return {};
    return FindSection([&](const Elf32_Shdr& section) {
      char text[kLongestName];
      return name.size() < sizeof text &&
             ReadAt(file_, uint64_t{names.sh_offset} + section.sh_name, text, name.size() + 1) &&
             text[name.size()] == '\0' && name == text;
    });
  }

  /// Adds the symbols of a section to the table.
  void AddSymbols(const Elf32_Shdr& section, SymbolTable& symbols, uint8_t table) const {
    if (SymbolCount(section) > 0 && MapStrings(section, symbols, table)) ReadSymbols(section, symbols, table);
  }
  static uint32_t SymbolCount(const Elf32_Shdr& section) {
    return std::min<uint32_t>(section.sh_size / sizeof(Elf32_Sym), SymbolTable::kMaximumSymbols);
  }

 private:
  static constexpr std::size_t kLongestName = 32;

  bool ReadSection(uint32_t index, Elf32_Shdr& section) const {
    return index < header_.e_shnum &&
           ReadAt(file_, header_.e_shoff + uint64_t{index} * sizeof section, &section, sizeof section);
  }
  template <class Fits>
  Elf32_Shdr FindSection(Fits fits) const {
    Elf32_Shdr section;
    for (uint32_t i = 0; i < header_.e_shnum && ReadSection(i, section); ++i) {
      if (IsInside(section) && fits(section)) return section;
    }
    return {};
  }
  bool IsInside(const Elf32_Shdr& section) const {
    return section.sh_size > 0 && uint64_t{section.sh_offset} + section.sh_size <= fileSize_;
  }

  bool MapStrings(const Elf32_Shdr& section, SymbolTable& symbols, uint8_t table) const {
    Elf32_Shdr names;
    if (!ReadSection(section.sh_link, names) || names.sh_type != SHT_STRTAB || !IsInside(names)) return false;
    const std::size_t before = names.sh_offset % kPageSize;
    const std::size_t bytes = before + names.sh_size;
    MappedPages pages(
        mmap64(nullptr, bytes, PROT_READ, MAP_PRIVATE, file_, static_cast<off64_t>(names.sh_offset - before)), bytes);
    if (!pages.data()) return false;
    const char* start = reinterpret_cast<const char*>(pages.data()) + before;
    symbols.SetStrings(table, {std::move(pages), start, names.sh_size});
    return true;
  }

  // Read, not mapped: reading a file that is being cut fails, reading its pages would fault.
  void ReadSymbols(const Elf32_Shdr& section, SymbolTable& symbols, uint8_t table) const {
    Elf32_Sym read[kSymbolsPerRead];
    const uint32_t count = SymbolCount(section);
    for (uint32_t done = 0; done < count;) {
      const uint32_t now = std::min<uint32_t>(count - done, kSymbolsPerRead);
      if (!ReadAt(file_, section.sh_offset + uint64_t{done} * sizeof(Elf32_Sym), read, now * sizeof(Elf32_Sym))) return;
      for (uint32_t i = 0; i < now; ++i) symbols.Add(read[i], table);
      done += now;
    }
  }

  const int file_;
  uint64_t fileSize_ = 0;
  Elf32_Ehdr header_ = {};
};

/// The mini debug information of a stripped file: a packed ELF file in a section, with the symbols of the local
/// functions. Returns the unpacked file, or -1 when there is none.
int UnpackMiniDebugInfo(int file, const Elf32_Shdr& section) {
  if (section.sh_size == 0 || section.sh_size > kLargestPacked) return -1;
  const MappedPages packed = MappedPages::Allocate(section.sh_size);
  if (!packed.data() || !ReadAt(file, section.sh_offset, packed.data(), section.sh_size)) return -1;
  std::size_t size = 0;
  const MappedPages unpacked = DecodeXz({reinterpret_cast<const uint8_t*>(packed.data()), section.sh_size}, size);
  if (!unpacked.data()) return -1;
  Descriptor copy(memfd_create("symbols", MFD_CLOEXEC));
  if (copy.get() < 0 || write(copy.get(), unpacked.data(), size) != static_cast<ssize_t>(size)) return -1;
  return copy.Detach();
}

}  // namespace

SymbolTable ReadFileSymbols(int file) {
  const ElfFile module(file);
  Elf32_Shdr local = module.FindSymbols(SHT_SYMTAB);
  const Descriptor unpacked(local.sh_size == 0 ? UnpackMiniDebugInfo(file, module.FindNamed(".gnu_debugdata")) : -1);
  const ElfFile miniDebugInfo(unpacked.get());
  if (unpacked.get() >= 0) local = miniDebugInfo.FindSymbols(SHT_SYMTAB);
  const Elf32_Shdr exported = module.FindSymbols(SHT_DYNSYM);
  SymbolTable table;
  const uint32_t total = ElfFile::SymbolCount(local) + ElfFile::SymbolCount(exported);
  if (total == 0 || !table.Reserve(total)) return table;
  (unpacked.get() >= 0 ? miniDebugInfo : module).AddSymbols(local, table, 0);
  module.AddSymbols(exported, table, 1);
  table.Finish();
  return table;
}

}  // namespace qel::layer
