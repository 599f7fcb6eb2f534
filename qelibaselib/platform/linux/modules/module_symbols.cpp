#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/modules/loaded_module.h"
#include "qelibaselib/platform/linux/modules/walk_memory.h"

namespace qel::layer {
namespace {

bool HasSameBytes(int file, uint32_t offset, uint32_t loaded, std::size_t bytes) {
  std::array<char, 256> there, here;
  const WalkMemory memory = OwnMemory();
  for (std::size_t done = 0; done < bytes;) {
    const std::size_t now = std::min(bytes - done, there.size());
    if (pread64(file, there.data(), now, offset + off64_t{done}) != static_cast<ssize_t>(now)) return false;
    if (!memory.Read(loaded + done, here.data(), now) || std::memcmp(there.data(), here.data(), now) != 0) return false;
    done += now;
  }
  return true;
}

/// Whether the file is the one that was loaded and not another that has taken its place since: by its program headers
/// and its notes, where the linker leaves an identification of the contents.
bool IsLoadedFile(int file, const LoadedModule& module) {
  const auto headers = module.headers.all();
  Elf32_Ehdr header;
  if (pread64(file, &header, sizeof header, 0) != sizeof header || header.e_phnum < headers.size() ||
      !HasSameBytes(file, header.e_phoff, module.headers.place(), headers.size_bytes())) {
    return false;
  }
  return std::all_of(headers.begin(), headers.end(), [&](const Elf32_Phdr& segment) {
    return segment.p_type != PT_NOTE ||
           HasSameBytes(file, segment.p_offset, module.bias + segment.p_vaddr, segment.p_filesz);
  });
}

}  // namespace

SymbolTable ReadModuleSymbols(const LoadedModule& module) {
  // The program's own file is reached even after it was replaced or removed.
  const Descriptor file(
      open64(module.isProgram ? "/proc/self/exe" : module.path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (file.get() >= 0 && IsLoadedFile(file.get(), module)) {
    SymbolTable symbols = ReadFileSymbols(file.get());
    if (symbols.size() > 0) return symbols;
  }
  return ReadLoadedSymbols(module);
}

}  // namespace qel::layer
