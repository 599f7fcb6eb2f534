// clang-format off
// fuzz-sources: qelibaselib/platform/linux/modules/file_symbols.cpp qelibaselib/platform/linux/modules/loaded_headers.cpp qelibaselib/platform/linux/modules/lzma_decoder.cpp qelibaselib/platform/linux/modules/xz_decoder.cpp qelibaselib/platform/linux/modules/loaded_symbols.cpp qelibaselib/platform/linux/modules/mapped_pages.cpp qelibaselib/platform/linux/modules/symbol_name.cpp qelibaselib/platform/linux/modules/symbol_table.cpp qelibaselib/platform/linux/modules/table_cursor.cpp qelibaselib/platform/linux/modules/walk_memory.cpp
// clang-format on

// Symbols from any bytes: as the file of a module and as a module in memory.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "qelibaselib/platform/linux/modules/loaded_module.h"
#include "qelibaselib/platform/linux/modules/symbol_name.h"

namespace {

using namespace qel::layer;

constexpr uint32_t kLookUps = 64;

void LookUp(const SymbolTable& table) {
  for (uint32_t i = 0; i < kLookUps; ++i) {
    const SymbolTable::Function* function = table.Find(i * 0x777);
    if (!function) continue;
    char stored[512], name[512];
    if (table.Name(*function, stored, sizeof stored) >= sizeof stored) std::abort();
    ReadableName(stored, name, sizeof name);
    if (std::strlen(name) >= sizeof name) std::abort();
  }
}

void ReadAsFile(const uint8_t* data, size_t size) {
  const int file = memfd_create("symbols", MFD_CLOEXEC);
  if (write(file, data, size) == static_cast<ssize_t>(size)) LookUp(ReadFileSymbols(file));
  close(file);
}

// As the loader would tell of it: the file's program headers, its first byte at the start of the module.
void ReadAsModule(const uint8_t* data, size_t size) {
  Elf32_Ehdr header;
  if (size < sizeof header) return;
  std::memcpy(&header, data, sizeof header);
  if (header.e_phoff > size) return;
  dl_phdr_info info{};
  info.dlpi_addr = reinterpret_cast<uintptr_t>(data);
  info.dlpi_phdr = reinterpret_cast<const Elf32_Phdr*>(data + header.e_phoff);
  info.dlpi_phnum = header.e_phnum;
  LoadedModule module{.bias = static_cast<uint32_t>(info.dlpi_addr), .headers = LoadedHeaders(info)};
  module.start = module.bias;
  module.end = module.bias + static_cast<uint32_t>(size);
  LookUp(ReadLoadedSymbols(module));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ReadAsFile(data, size);
  MappedPages pages = MappedPages::Allocate(size + 1);
  std::memcpy(pages.data(), data, size);
  ReadAsModule(reinterpret_cast<const uint8_t*>(pages.data()), size);
  return 0;
}
