// The way from a module's first byte to its version resource.
#include <cstring>
#include <optional>

#include "qelibaselib/platform/linux/modules/version_resource.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr uint16_t kDosMagic = 0x5A4D;
constexpr uint32_t kPeMagic = 0x00004550;
constexpr uint16_t kOptional32 = 0x10B, kOptional64 = 0x20B;
constexpr uint32_t kResourceDirectory = 2;
constexpr uint32_t kVersionType = 16;
constexpr uint32_t kSubDirectory = 0x80000000;

template <class T>
std::optional<T> Read(Bytes bytes, uint64_t offset) {
  if (offset + sizeof(T) > bytes.size()) return std::nullopt;
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

Bytes Part(Bytes bytes, uint64_t offset, uint64_t size) {
  if (offset > bytes.size() || size > bytes.size() - offset) return {};
  return bytes.subspan(static_cast<size_t>(offset), static_cast<size_t>(size));
}

struct Sections {
  Bytes file;
  uint32_t table = 0;
  uint16_t count = 0;

  /// `size` bytes at a relative virtual address, from whichever section holds it.
  Bytes At(uint32_t address, uint32_t size) const {
    for (uint32_t i = 0; i < count; ++i) {
      const uint64_t header = table + 40ull * i;
      const auto virtualAddress = Read<uint32_t>(file, header + 12), rawSize = Read<uint32_t>(file, header + 16),
                 rawOffset = Read<uint32_t>(file, header + 20);
      if (!virtualAddress || !rawSize || !rawOffset) return {};
      if (address < *virtualAddress || address - *virtualAddress >= *rawSize) continue;
      const uint32_t inside = address - *virtualAddress;
      if (size > *rawSize - inside) return {};
      return Part(file, uint64_t{*rawOffset} + inside, size);
    }
    return {};
  }
  /// Everything from an address to the end of its section in the file.
  Bytes From(uint32_t address) const {
    for (uint32_t i = 0; i < count; ++i) {
      const uint64_t header = table + 40ull * i;
      const auto virtualAddress = Read<uint32_t>(file, header + 12), rawSize = Read<uint32_t>(file, header + 16);
      if (!virtualAddress || !rawSize) return {};
      if (address >= *virtualAddress && address - *virtualAddress < *rawSize)
        return At(address, *rawSize - (address - *virtualAddress));
    }
    return {};
  }
};

struct PeModule {
  Sections sections;
  uint32_t resources = 0;  // relative virtual address, 0: none
};

std::optional<PeModule> ReadHeaders(Bytes file) {
  const auto dos = Read<uint16_t>(file, 0);
  const auto newHeader = Read<uint32_t>(file, 0x3C);
  if (!dos || *dos != kDosMagic || !newHeader) return std::nullopt;
  const uint64_t pe = *newHeader;
  const auto magic = Read<uint32_t>(file, pe);
  const auto sectionCount = Read<uint16_t>(file, pe + 6), optionalSize = Read<uint16_t>(file, pe + 20),
             optionalMagic = Read<uint16_t>(file, pe + 24);
  if (!magic || *magic != kPeMagic || !sectionCount || !optionalSize || !optionalMagic) return std::nullopt;
  if (*optionalMagic != kOptional32 && *optionalMagic != kOptional64) return std::nullopt;
  const uint64_t directoryCount = pe + 24 + (*optionalMagic == kOptional64 ? 108 : 92);
  const uint64_t sectionTable = pe + 24 + *optionalSize;
  if (sectionTable > file.size()) return std::nullopt;
  PeModule module{{file, static_cast<uint32_t>(sectionTable), *sectionCount}};
  const auto directories = Read<uint32_t>(file, directoryCount);
  const uint64_t entry = directoryCount + 4 + uint64_t{8} * kResourceDirectory;
  if (directories && *directories > kResourceDirectory && entry + 8 <= sectionTable)
    module.resources = Read<uint32_t>(file, entry).value_or(0);
  return module;
}

/// The offset of the entry with this id, or of the first entry of any kind when `id` is 0.
std::optional<uint32_t> FindEntry(Bytes tree, uint32_t directory, uint32_t id) {
  const auto named = Read<uint16_t>(tree, uint64_t{directory} + 12),
             numbered = Read<uint16_t>(tree, uint64_t{directory} + 14);
  if (!named || !numbered) return std::nullopt;
  for (uint32_t i = id == 0 ? 0 : *named; i < uint32_t{*named} + *numbered; ++i) {
    const uint64_t entry = uint64_t{directory} + 16 + 8ull * i;
    const auto name = Read<uint32_t>(tree, entry), target = Read<uint32_t>(tree, entry + 4);
    if (!name || !target) return std::nullopt;
    if (id == 0 || *name == id) return *target;
  }
  return std::nullopt;
}

}  // namespace

Bytes FindVersionResource(Bytes file, DWORD& error) {
  error = ERROR_RESOURCE_DATA_NOT_FOUND;
  const auto module = ReadHeaders(file);
  if (!module || module->resources == 0) return {};
  const Bytes tree = module->sections.From(module->resources);
  if (tree.empty()) return {};
  error = ERROR_RESOURCE_TYPE_NOT_FOUND;
  const auto type = FindEntry(tree, 0, kVersionType);
  if (!type || !(*type & kSubDirectory)) return {};
  const auto name = FindEntry(tree, *type & ~kSubDirectory, 0);
  if (!name || !(*name & kSubDirectory)) return {};
  const auto language = FindEntry(tree, *name & ~kSubDirectory, 0);
  if (!language || (*language & kSubDirectory)) return {};
  const auto address = Read<uint32_t>(tree, *language), size = Read<uint32_t>(tree, uint64_t{*language} + 4);
  if (!address || !size) return {};
  const Bytes resource = module->sections.At(*address, *size);
  if (!resource.empty()) error = ERROR_SUCCESS;
  return resource;
}

}  // namespace qel::layer
