// fuzz-sources: qelibaselib/platform/linux/system/mount_table.cpp qelibaselib/platform/linux/memory/regions.cpp

// The mount table on any text. Checked beside what the sanitizers see: each disk is listed once, each root once, and a
// root that is listed is found again as the same disk.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "qelibaselib/platform/linux/system/mount_table.h"

namespace {

using namespace qel::layer;

void Require(bool holds) {
  if (!holds) std::abort();
}

bool HasEvenLength(const Disk& disk) { return disk.root.size() % 2 == 0; }
bool IsAny(const Disk&) { return true; }

void CheckList(std::string_view text, bool (*isFolder)(const Disk&)) {
  std::set<std::string> roots, devices;
  for (const Disk& disk : ListDisks(text, isFolder)) {
    Require(isFolder(disk));
    Require(disk.root.front() == '/' && disk.root.back() == '/');
    Require(roots.insert(disk.root).second);
    Require(devices.insert(disk.device).second);
    const std::optional<Disk> found = FindDisk(text, disk.root);
    Require(found && found->device == disk.device && found->type == disk.type);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t count) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), count);
  CheckList(text, &IsAny);
  CheckList(text, &HasEvenLength);
  return 0;
}
