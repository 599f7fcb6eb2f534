#include "qellog/report/status_report.h"

#include "qelibaselib/base/log_layout.h"
#include "qellog/report/report_head.h"
#include "qellog/report/report_lines.h"

namespace qellog {
namespace {

namespace layout = qel::layout;

enum class Section { kNone, kBanner, kVersion, kAddressSpace, kSystem, kMemory, kDrives };

std::optional<Section> SectionOf(std::string_view line) {
  constexpr std::pair<std::string_view, Section> kHeadings[] = {
      {layout::kSystemVersionHeading, Section::kVersion}, {layout::kAddressSpaceHeading, Section::kAddressSpace},
      {layout::kSystemHeading, Section::kSystem},         {layout::kGlobalMemoryHeading, Section::kMemory},
      {layout::kDiskHeading, Section::kDrives},
  };
  for (const auto& [heading, section] : kHeadings)
    if (line == WithoutLineFeed(heading)) return section;
  return std::nullopt;
}

std::string_view Trimmed(std::string_view text) {
  while (text.starts_with(' ')) text.remove_prefix(1);
  while (text.ends_with(' ')) text.remove_suffix(1);
  return text;
}

/// "start - end ( entry or size ) : name"
bool ReadRange(std::string_view line, StatusReport& report) {
  constexpr std::size_t kEnd = 11;
  constexpr std::size_t kDetail = 22;
  constexpr std::string_view kName = " ) : ";
  if (line.size() < kDetail || line.substr(8, 3) != " - " || line.substr(19, 3) != " ( ") return false;
  const auto start = LeadingNumber<std::uint32_t>(line, 16);
  const auto end = LeadingNumber<std::uint32_t>(line.substr(kEnd), 16);
  const std::size_t name = line.find(kName, kDetail);
  if (!start || !end || name == line.npos) return false;
  const std::string_view detail = line.substr(kDetail, name - kDetail);
  if (detail.ends_with(" MBytes")) {
    report.freeRegions.push_back({*start, *end, LeadingNumber<std::uint32_t>(Trimmed(detail)).value_or(0)});
  } else {
    report.modules.push_back({*start, *end, LeadingNumber<std::uint32_t>(detail, 16).value_or(0),
                              std::string(line.substr(name + kName.size()))});
  }
  return true;
}

void AddValue(std::string_view line, std::vector<NamedValue>& values) {
  if (auto value = SplitValue(line)) values.push_back(std::move(*value));
}

/// The lines of the banner. The heading may hold line ends of its own, so it goes up to the process's line.
class Banner {
 public:
  void Read(std::string_view line, StatusReport& report) {
    constexpr std::string_view kTime = UpToField(layout::kStatusTime);
    constexpr std::string_view kProcess = "##### ProcessId()=";
    constexpr std::string_view kProgram = "##### ExePath  : ";
    if (!report.time) {
      if (line.starts_with(kTime)) report.time = ParseTime(line.substr(kTime.size()), TimeLayout::kWithoutComma);
    } else if (line.starts_with(kProcess)) {
      report.processId = LeadingNumber<std::uint32_t>(line.substr(kProcess.size())).value_or(0);
      headingIsOver_ = true;
    } else if (!headingIsOver_) {
      report.heading +=
          report.heading.empty() ? line.substr(std::min(line.size(), kTime.size())) : "\n" + std::string(line);
    } else if (line.starts_with(kProgram)) {
      report.program = line.substr(kProgram.size());
    } else {
      ReadOther(line, report);
    }
  }

 private:
  static void ReadOther(std::string_view line, StatusReport& report) {
    constexpr std::size_t kMark = 6;
    const std::size_t colon = line.find(" : ");
    if (colon == line.npos || colon < kMark) return;
    report.banner.push_back(
        {std::string(Trimmed(line.substr(kMark, colon - kMark))), std::string(line.substr(colon + 3))});
  }
  bool headingIsOver_ = false;
};

void ReadLine(Section section, std::string_view line, Banner& banner, StatusReport& report) {
  switch (section) {
    case Section::kBanner:
      return banner.Read(line, report);
    case Section::kVersion:
    case Section::kSystem:
      return AddValue(line, report.system);
    case Section::kAddressSpace:
      if (!ReadRange(line, report)) AddValue(line, report.freeSums);
      return;
    case Section::kMemory:
      return AddValue(line, report.memory);
    case Section::kDrives:
      if (!line.empty()) report.drives.emplace_back(line);
      return;
    case Section::kNone:
      return;
  }
}

}  // namespace

std::optional<NamedValue> SplitValue(std::string_view line) {
  const std::size_t equals = line.find('=');
  if (equals == line.npos) return std::nullopt;
  return NamedValue{std::string(Trimmed(line.substr(0, equals))), std::string(Trimmed(line.substr(equals + 1)))};
}

StatusReport ParseStatusReport(std::string_view text) {
  StatusReport report;
  Banner banner;
  Section section = Section::kNone;
  LineCutter lines(text);
  std::string_view line;
  while (lines.Next(line)) {
    if (const auto next = SectionOf(line)) {
      section = *next;
      report.reachesDrives = section == Section::kDrives;
    } else if (section == Section::kNone && line == WithoutLineFeed(layout::kStatusBannerLine)) {
      section = Section::kBanner;
    } else {
      ReadLine(section, line, banner, report);
    }
  }
  return report;
}

}  // namespace qellog
