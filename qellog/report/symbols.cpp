#include "qellog/report/symbols.h"

#include <algorithm>
#include <cstring>

#include "qellog/report/cause.h"
#include "qellog/report/report_list.h"
#include "qellog/system/input_file.h"
#include "qellog/system/terminal.h"

namespace qellog {
namespace {

constexpr std::size_t kHeadBytes = 4096;

/// A little-endian number of the file's head; 0 beyond its end.
template <class Number>
Number NumberAt(std::string_view head, std::size_t offset) {
  Number value = 0;
  if (offset + sizeof value <= head.size()) std::memcpy(&value, head.data() + offset, sizeof value);
  return value;
}

/// The lowest address of the segments that are loaded.
std::optional<std::uint32_t> LinkedStartOfElf(std::string_view head) {
  constexpr std::size_t kTableOffset = 28;
  constexpr std::size_t kEntrySize = 42;
  constexpr std::size_t kEntryCount = 44;
  constexpr std::size_t kAddressInEntry = 8;
  constexpr std::uint32_t kLoaded = 1;
  std::optional<std::uint32_t> start;
  const auto table = NumberAt<std::uint32_t>(head, kTableOffset);
  for (std::uint32_t i = 0; i < NumberAt<std::uint16_t>(head, kEntryCount); ++i) {
    const std::size_t entry = std::size_t{table} + i * std::size_t{NumberAt<std::uint16_t>(head, kEntrySize)};
    if (entry >= head.size()) break;
    if (NumberAt<std::uint32_t>(head, entry) != kLoaded) continue;
    start = std::min(start.value_or(UINT32_MAX), NumberAt<std::uint32_t>(head, entry + kAddressInEntry));
  }
  return start;
}

std::optional<std::filesystem::path> FindModule(const std::filesystem::path& folder, std::string_view name) {
  const std::string_view bare = NameWithoutFolders(name);
  if (bare.empty() || bare == "." || bare == "..") return std::nullopt;
  for (const char* const ending : {".debug", ""}) {
    std::filesystem::path path = folder / (std::string(bare) + ending);
    std::error_code ignored;
    if (std::filesystem::is_regular_file(path, ignored)) return path;
  }
  return std::nullopt;
}

/// addr2line answers with two lines, "function" and "file:line", or question marks.
std::string PlaceInAnswer(std::string_view answer) {
  const std::size_t end = std::min(answer.find('\n'), answer.size());
  const std::string_view function = answer.substr(0, answer.substr(0, end).ends_with('\r') ? end - 1 : end);
  std::string_view place = answer.substr(std::min(end + 1, answer.size()));
  place = place.substr(0, std::min(place.find_first_of("\r\n"), place.size()));
  place = place.substr(0, std::min(place.find(" (discriminator"), place.size()));
  if (function.empty() || function == "??") return {};
  return std::string(function) + (place.starts_with("??") ? "" : " at " + std::string(place));
}

}  // namespace

std::optional<std::uint32_t> LinkedStart(std::string_view head) {
  constexpr std::size_t kPeOffset = 60;
  constexpr std::size_t kImageBaseInPe = 52;
  if (head.starts_with("\x7f"
                       "ELF\x01"))
    return LinkedStartOfElf(head);
  const std::size_t pe = NumberAt<std::uint32_t>(head, kPeOffset);
  if (head.starts_with("MZ") && pe < head.size() && head.substr(pe).starts_with("PE"))
    return NumberAt<std::uint32_t>(head, pe + kImageBaseInPe);
  return std::nullopt;
}

std::string SymbolFolder::PlaceOf(std::uint32_t address, bool isReturnAddress,
                                  const std::vector<ModuleRange>& modules) const {
  const auto module = std::find_if(modules.begin(), modules.end(), [address](const ModuleRange& range) {
    return address >= range.start && address < range.end;
  });
  if (module == modules.end()) return {};
  const auto path = FindModule(folder_, module->name);
  if (!path) return {};
  char head[kHeadBytes];
  InputFile file(*path);
  const auto start = LinkedStart({head, file.Read(head, sizeof head)});
  if (!start) return {};
  const std::string linked = HexText(address - module->start + *start - (isReturnAddress ? 1 : 0));
  for (const char* const tool : {"addr2line", "i686-w64-mingw32-addr2line"}) {
    std::string place = PlaceInAnswer(OutputOf({tool, "-f", "-C", "-e", PathText(*path), linked}));
    if (!place.empty()) return place;
  }
  return {};
}

}  // namespace qellog
