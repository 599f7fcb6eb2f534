#include <map>

#include "qellog/command/request.h"
#include "qellog/output/json_text.h"
#include "qellog/report/report_list.h"
#include "qellog/text/visible_text.h"

namespace qellog {
namespace {

std::string RowOf(const ReportEntry& entry, const Colours& colours) {
  const std::string program =
      VisibleText(NameWithoutFolders(entry.program)) + "[" + std::to_string(entry.processId) + "]";
  std::string row = PaddedLeft(std::to_string(entry.number), 4) + "  " + FormatTime(entry.time) + "  " +
                    Padded(NameOf(entry.kind), 9) + "  " + Padded(entry.program.empty() ? "" : program, 20) + "  ";
  if (entry.cause.empty()) return row + VisibleText(entry.heading) + (entry.isWhole ? "" : " [cut short]") + "\n";
  row += colours.Paint(Colour::kRed, VisibleText(entry.cause));
  if (!entry.isWhole) row += " [cut short]";
  if (entry.frames.empty()) return row + "\n";
  return row + "\n" + std::string(6, ' ') + colours.Paint(Colour::kFaint, VisibleText(entry.frames)) + "\n";
}

/// Equal crashes: those of the same program with the same top of the stack.
class Groups {
 public:
  void Add(const ReportEntry& entry) {
    if (entry.kind != RecordKind::kExceptionReport) return;
    auto& numbers = groups_[std::string(NameWithoutFolders(entry.program)) + ": " + entry.cause + "; " + entry.frames];
    numbers.push_back(entry.number);
  }
  std::string Text() const {
    std::string text;
    for (const auto& [key, numbers] : groups_) {
      if (numbers.size() < 2) continue;
      text += PaddedLeft(std::to_string(numbers.size()), 4) + " x " + VisibleText(key) + "\n       reports";
      for (std::size_t i = 0; i < std::min<std::size_t>(numbers.size(), 10); ++i)
        text += " " + std::to_string(numbers[i]);
      text += numbers.size() > 10 ? " ...\n" : "\n";
    }
    return text;
  }

 private:
  std::map<std::string, std::vector<std::size_t>> groups_;
};

}  // namespace

Outcome RunReports(const Request& request, Problems& problems, Output& output) {
  const std::vector<LogFile> files = FilesOf(request, problems);
  const Colours colours(request.colours);
  Groups groups;
  ForEachReport(files, request.filter, problems.Teller(), [&](const ReportEntry& entry, std::string_view text) {
    groups.Add(entry);
    output.Write(request.format == Format::kJson ? JsonOfReport(entry, text) + "\n" : RowOf(entry, colours));
    return true;
  });
  const std::string equal = groups.Text();
  if (request.format == Format::kText && !equal.empty())
    output.Write("\n" + colours.Paint(Colour::kBold, "Equal crashes") + "\n" + equal);
  return Outcome::kGood;
}

}  // namespace qellog
