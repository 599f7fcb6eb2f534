#include "test/fileversion/module_builder.h"

#include <cstring>

namespace qel::test {
namespace {

void Append16(ByteVector& bytes, uint32_t value) {
  bytes.push_back(static_cast<uint8_t>(value));
  bytes.push_back(static_cast<uint8_t>(value >> 8));
}
void Append32(ByteVector& bytes, uint32_t value) {
  Append16(bytes, value & 0xFFFF);
  Append16(bytes, value >> 16);
}
void Store16(ByteVector& bytes, size_t at, uint32_t value) {
  bytes[at] = static_cast<uint8_t>(value);
  bytes[at + 1] = static_cast<uint8_t>(value >> 8);
}
void Store32(ByteVector& bytes, size_t at, uint32_t value) {
  Store16(bytes, at, value & 0xFFFF);
  Store16(bytes, at + 2, value >> 16);
}
void Align4(ByteVector& bytes) {
  while (bytes.size() % 4 != 0) bytes.push_back(0);
}
std::u16string Widen(const std::string& text) { return {text.begin(), text.end()}; }
void AppendText(ByteVector& bytes, const std::u16string& text, bool terminated) {
  for (char16_t c : text) Append16(bytes, c);
  if (terminated) Append16(bytes, 0);
}

// Opens a node and returns where it starts; CloseNode stores its length.
size_t OpenNode(ByteVector& bytes, const std::string& key, uint32_t valueLength, bool text) {
  Align4(bytes);
  const size_t begin = bytes.size();
  Append16(bytes, 0);
  Append16(bytes, valueLength);
  Append16(bytes, text ? 1 : 0);
  AppendText(bytes, Widen(key), true);
  Align4(bytes);
  return begin;
}
void CloseNode(ByteVector& bytes, size_t begin) { Store16(bytes, begin, static_cast<uint32_t>(bytes.size() - begin)); }

void AppendFixedInformation(ByteVector& bytes) {
  const uint32_t fields[13] = {0xFEEF04BD, 0x10000, 0x00010002, 0x00030004, 0x00010002,
                               0x00030004, 0x3F,    0,          0x40004,    2};
  for (uint32_t field : fields) Append32(bytes, field);
}

void AppendStrings(ByteVector& bytes, const VersionContents& contents) {
  if (contents.tables.empty()) return;
  const size_t info = OpenNode(bytes, "StringFileInfo", 0, true);
  for (const auto& table : contents.tables) {
    const size_t node = OpenNode(bytes, table.key, 0, true);
    for (const auto& [name, value] : table.strings) {
      const size_t string = OpenNode(bytes, name, static_cast<uint32_t>(value.size() + 1), true);
      AppendText(bytes, value, true);
      CloseNode(bytes, string);
    }
    CloseNode(bytes, node);
  }
  CloseNode(bytes, info);
}

void AppendTranslations(ByteVector& bytes, const VersionContents& contents) {
  const size_t info = OpenNode(bytes, "VarFileInfo", 0, true);
  const size_t node = OpenNode(bytes, "Translation", static_cast<uint32_t>(contents.translations.size() * 4), false);
  for (const auto& [language, codePage] : contents.translations) {
    Append16(bytes, language);
    Append16(bytes, codePage);
  }
  CloseNode(bytes, node);
  CloseNode(bytes, info);
}

// The resource tree of one entry: type, name 1, language 0x409.
ByteVector BuildResourceSection(const ByteVector& resource, uint32_t type, uint32_t address) {
  ByteVector section(3 * 24 + 16);
  const auto directory = [&](size_t at, uint32_t id, uint32_t target) {
    Store16(section, at + 14, 1);
    Store32(section, at + 16, id);
    Store32(section, at + 20, target);
  };
  directory(0, type, 24 | 0x80000000);
  directory(24, 1, 48 | 0x80000000);
  directory(48, 0x409, 72);
  Store32(section, 72, address + static_cast<uint32_t>(section.size()));
  Store32(section, 76, static_cast<uint32_t>(resource.size()));
  section.insert(section.end(), resource.begin(), resource.end());
  return section;
}

}  // namespace

ByteVector BuildVersionResource(const VersionContents& contents) {
  ByteVector bytes;
  const size_t root = OpenNode(bytes, "VS_VERSION_INFO", contents.fixedInformation ? 52 : 0, false);
  if (contents.fixedInformation) AppendFixedInformation(bytes);
  if (contents.translationFirst) AppendTranslations(bytes, contents);
  AppendStrings(bytes, contents);
  if (!contents.translationFirst) AppendTranslations(bytes, contents);
  CloseNode(bytes, root);
  return bytes;
}

ByteVector BuildModule(const ByteVector& resource, const ModuleOptions& options) {
  constexpr uint32_t kPe = 0x80, kFileAlignment = 0x200, kPage = 0x1000;
  const uint32_t optionalSize = options.is64Bit ? 240 : 224;
  const uint32_t resourceAddress = options.resourceSectionFirst ? kPage : 2 * kPage;
  const uint32_t textAddress = options.resourceSectionFirst ? kPage * 32 : kPage;
  const ByteVector section = BuildResourceSection(resource, options.resourceType, resourceAddress);
  const uint32_t rawSize = (static_cast<uint32_t>(section.size()) + kFileAlignment - 1) & ~(kFileAlignment - 1);

  ByteVector file(0x400);
  file[0] = 'M', file[1] = 'Z';
  Store32(file, 0x3C, kPe);
  file[kPe] = 'P', file[kPe + 1] = 'E';
  Store16(file, kPe + 4, options.is64Bit ? 0x8664 : 0x14C);
  Store16(file, kPe + 6, 2);
  Store16(file, kPe + 20, optionalSize);
  Store16(file, kPe + 22, 0x2102);
  const size_t optional = kPe + 24;
  Store16(file, optional, options.is64Bit ? 0x20B : 0x10B);
  Store32(file, optional + 32, kPage);
  Store32(file, optional + 36, kFileAlignment);
  Store16(file, optional + 40, 4);
  Store16(file, optional + 48, 4);
  Store32(file, optional + 56, kPage * 64);
  Store32(file, optional + 60, 0x400);
  Store16(file, optional + 68, 3);
  const size_t directories = optional + (options.is64Bit ? 108 : 92);
  Store32(file, directories, 16);
  if (options.hasResources) {
    Store32(file, directories + 4 + 2 * 8, resourceAddress);
    Store32(file, directories + 8 + 2 * 8, static_cast<uint32_t>(section.size()));
  }
  const auto header = [&](size_t index, const char* name, uint32_t address, uint32_t size, uint32_t offset) {
    const size_t at = optional + optionalSize + 40 * index;
    std::memcpy(&file[at], name, std::strlen(name));
    Store32(file, at + 8, size);
    Store32(file, at + 12, address);
    Store32(file, at + 16, size);
    Store32(file, at + 20, offset);
    Store32(file, at + 36, 0x40000040);
  };
  header(options.resourceSectionFirst ? 0 : 1, ".rsrc", resourceAddress, rawSize, 0x600);
  header(options.resourceSectionFirst ? 1 : 0, ".text", textAddress, kFileAlignment, 0x400);
  file.resize(0x600);
  file.insert(file.end(), section.begin(), section.end());
  file.resize(0x600 + rawSize);
  return file;
}

}  // namespace qel::test
