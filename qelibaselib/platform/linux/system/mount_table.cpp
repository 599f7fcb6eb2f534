#include "qelibaselib/platform/linux/system/mount_table.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

#include "qelibaselib/platform/linux/memory/regions.h"
#include "qelibaselib/platform/linux/win32/sysinfoapi.h"

namespace qel::layer {
namespace {

constexpr std::string_view kNetworkKinds[] = {"nfs", "nfs4", "cifs", "smb3", "9p", "fuse.sshfs"};
constexpr std::string_view kDiscKinds[] = {"iso9660", "udf"};

template <size_t kCount>
bool IsOneOf(std::string_view text, const std::string_view (&list)[kCount]) {
  return std::find(std::begin(list), std::end(list), text) != std::end(list);
}

bool IsOctal(char c) { return c >= '0' && c <= '7'; }

// The kernel writes blanks, tabs, line feeds and backslashes as a backslash and three octal digits.
std::string Unescape(std::string_view text) {
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool escaped =
        text[i] == '\\' && i + 3 < text.size() && IsOctal(text[i + 1]) && IsOctal(text[i + 2]) && IsOctal(text[i + 3]);
    if (escaped) {
      plain += static_cast<char>((text[i + 1] - '0') << 6 | (text[i + 2] - '0') << 3 | (text[i + 3] - '0'));
      i += 3;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

// Takes the next word off the front; empty at the end.
std::string_view TakeWord(std::string_view* line) {
  const size_t length = std::min(line->find(' '), line->size());
  const std::string_view word = line->substr(0, length);
  line->remove_prefix(std::min(length + 1, line->size()));
  return word;
}

// "id parent major:minor root mount-point options [optional fields] - kind source options"
std::optional<Disk> ParseDisk(std::string_view line) {
  TakeWord(&line);
  TakeWord(&line);
  const std::string_view device = TakeWord(&line), shown = TakeWord(&line);
  std::string root = Unescape(TakeWord(&line));
  if (root.empty() || root[0] != '/') return std::nullopt;
  while (!line.empty() && TakeWord(&line) != "-") {
  }
  const std::string_view kind = TakeWord(&line), source = TakeWord(&line);
  UINT type = DRIVE_FIXED;
  if (IsOneOf(kind, kNetworkKinds)) type = DRIVE_REMOTE;
  if (IsOneOf(kind, kDiscKinds)) type = DRIVE_CDROM;
  const bool onDisk = (source.starts_with("/dev/") && kind != "devtmpfs") || kind == "zfs" || root == "/";
  if (type == DRIVE_FIXED && !onDisk) return std::nullopt;
  if (root.back() != '/') root += '/';
  return Disk{std::move(root), std::string(device), type, shown != "/",
              type == DRIVE_REMOTE || kind.starts_with("fuse")};
}

// In the order of the text, each root once.
std::vector<Disk> ParseDisks(std::string_view mountInfo) {
  std::vector<Disk> disks;
  std::map<std::string, size_t> places;
  LineCutter cutter(mountInfo);
  for (std::string_view line; cutter.Next(&line);) {
    std::optional<Disk> disk = ParseDisk(line);
    if (!disk) continue;
    const auto [place, isNew] = places.emplace(disk->root, disks.size());
    if (isNew)
      disks.push_back(std::move(*disk));
    else
      disks[place->second] = std::move(*disk);
  }
  return disks;
}

}  // namespace

std::vector<Disk> ListDisks(std::string_view mountInfo, bool (*isFolder)(const Disk&)) {
  std::vector<Disk> listed;
  std::map<std::string, size_t> places;  // by the device
  for (Disk& disk : ParseDisks(mountInfo)) {
    const auto place = places.find(disk.device);
    const bool isNew = place == places.end();
    const bool isBetter = !isNew && listed[place->second].showsPart && !disk.showsPart;
    if (!(isNew || isBetter) || !isFolder(disk)) continue;
    if (isBetter) {
      listed[place->second] = std::move(disk);
    } else {
      places.emplace(disk.device, listed.size());
      listed.push_back(std::move(disk));
    }
  }
  return listed;
}

std::optional<Disk> FindDisk(std::string_view mountInfo, std::string_view root) {
  std::optional<Disk> found;
  LineCutter cutter(mountInfo);
  for (std::string_view line; cutter.Next(&line);)
    if (std::optional<Disk> disk = ParseDisk(line); disk && disk->root == root) found = std::move(disk);
  return found;
}

}  // namespace qel::layer
