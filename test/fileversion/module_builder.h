// Builds small PE modules with a version resource, byte by byte.
#pragma once
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "qelibaselib/qelibaselib.h"

namespace qel::test {

using ByteVector = std::vector<uint8_t>;

struct StringTable {
  std::string key;  // such as "040904e4"
  std::vector<std::pair<std::string, std::u16string>> strings;
};

struct VersionContents {
  std::vector<StringTable> tables;
  std::vector<std::pair<uint16_t, uint16_t>> translations;  // language, code page
  bool translationFirst = false;
  bool fixedInformation = true;
};

// The VS_VERSIONINFO block.
ByteVector BuildVersionResource(const VersionContents& contents);

struct ModuleOptions {
  bool is64Bit = false;
  bool resourceSectionFirst = false;
  bool hasResources = true;
  uint32_t resourceType = 16;  // RT_VERSION
};
ByteVector BuildModule(const ByteVector& resource, const ModuleOptions& options = {});

// The version of a file, as a host holds it.
struct VersionHandle {
  explicit VersionHandle(const std::wstring& file) : handle(CreateCFileVersion(file.c_str())) {}
  VersionHandle(const VersionHandle&) = delete;
  VersionHandle& operator=(const VersionHandle&) = delete;
  ~VersionHandle() { ReleaseCFileVersion(handle); }
  char** strings() const { return GetVerCFileVersion(handle); }
  void* handle;
};

}  // namespace qel::test
