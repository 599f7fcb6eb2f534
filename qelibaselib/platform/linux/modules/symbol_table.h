/// @file
/// The functions of one module, sorted by address.
#pragma once
#include <elf.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "qelibaselib/platform/linux/modules/mapped_pages.h"

namespace qel::layer {

/// Built once; a look-up reads no file. What it is built from may be anything: names that lead out of the strings, or
/// that lie on pages that are gone when they are asked for, are cut.
class SymbolTable {
 public:
  struct Function {
    uint32_t address;  // as the file was linked
    uint32_t size;     // 0 when the file does not say
    uint32_t name;     // offset in the string table
    uint8_t table;     // which of the string tables
    uint8_t rank;      // of several names of one address the highest stands
  };
  struct Strings {
    MappedPages pages{};  // that are to be given back; empty for a part of the loaded module itself
    const char* start = nullptr;
    std::size_t size = 0;
  };
  static constexpr uint32_t kMaximumSymbols = 1u << 20;

  /// The function that the address, as linked, lies in; null when it lies in none.
  const Function* Find(uint32_t address) const;
  /// Copies the stored name, cut to `size` characters with the terminator. Returns its length.
  std::size_t Name(const Function& function, char* text, std::size_t size) const;
  std::size_t size() const { return count_; }

  /// Building: room first, then the strings of one or two tables and their symbols, then Finish.
  bool Reserve(uint32_t symbols);
  void SetStrings(uint8_t table, Strings strings);
  /// Takes only symbols of functions that are in the module.
  void Add(const Elf32_Sym& symbol, uint8_t table);
  /// Sorts, keeps one name for each address and gives the rest of the room back.
  void Finish();

 private:
  std::span<Function> functions() const { return {reinterpret_cast<Function*>(store_.data()), count_}; }

  // Not on the heap, which may be what is broken when symbols are asked for.
  MappedPages store_;
  std::size_t count_ = 0;
  Strings strings_[2];
};

}  // namespace qel::layer
