#include "qelibaselib/platform/linux/system/mount_table.h"

#include <algorithm>
#include <iterator>
#include <optional>

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
std::optional<Disk> DiskOf(std::string_view line) {
  TakeWord(&line);
  TakeWord(&line);
  const std::string_view device = TakeWord(&line);
  TakeWord(&line);
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
  return Disk{std::move(root), std::string(device), type};
}

}  // namespace

std::vector<Disk> DisksOf(std::string_view mountInfo) {
  std::vector<Disk> disks;
  LineCutter cutter(mountInfo);
  for (std::string_view line; cutter.Next(&line);) {
    std::optional<Disk> disk = DiskOf(line);
    if (!disk) continue;
    const auto same = [&](const Disk& other) { return other.device == disk->device || other.root == disk->root; };
    if (std::none_of(disks.begin(), disks.end(), same)) disks.push_back(std::move(*disk));
  }
  return disks;
}

}  // namespace qel::layer
