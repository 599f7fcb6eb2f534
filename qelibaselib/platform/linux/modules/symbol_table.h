/// @file
/// The functions of one ELF file, from its own symbol tables.
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>

namespace qel::layer {

/// Anonymous or file pages, unmapped at the end of the scope.
class Pages {
 public:
  Pages() = default;
  /// Takes over the mapping; nothing for a failed one.
  Pages(void* address, std::size_t bytes);
  Pages(Pages&& other) noexcept;
  Pages& operator=(Pages&& other) noexcept;
  ~Pages();
  std::byte* data() const { return data_; }
  std::size_t size() const { return size_; }
  /// Gives the pages behind the first `bytes` back.
  void Shrink(std::size_t bytes);

 private:
  std::byte* data_ = nullptr;
  std::size_t size_ = 0;
};

/// Built once from a file, sorted by address; a look-up reads no file. The file may be anything: sizes and offsets that
/// lead out of it give an empty table, and one that is cut later gives names that are cut.
class SymbolTable {
 public:
  struct Function {
    uint32_t address;  // as the file was linked
    uint32_t size;     // 0 when the file does not say
    uint32_t name;     // offset in the string table
    uint8_t table;     // which of the two
    uint8_t rank;      // of several names of one address the highest stands
  };

  SymbolTable() = default;
  /// Reads from the descriptor and does not keep it.
  explicit SymbolTable(int file);

  /// The function that the address, as linked, lies in; null when it lies in none.
  const Function* Find(uint32_t address) const;
  /// Copies the stored name, cut to `size` characters with the terminator. Returns its length.
  std::size_t Name(const Function& function, char* text, std::size_t size) const;
  std::size_t size() const { return count_; }

 private:
  std::span<Function> functions() const { return {reinterpret_cast<Function*>(store_.data()), count_}; }

  // Not on the heap, which may be what is broken when symbols are asked for.
  Pages store_;
  std::size_t count_ = 0;
  struct Strings {
    Pages pages;
    std::size_t start = 0;  // in the pages
    std::size_t size = 0;
  };
  Strings strings_[2];
  friend class SymbolTableReader;
};

}  // namespace qel::layer
