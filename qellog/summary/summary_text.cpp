#include "qellog/summary/summary_text.h"

#include <algorithm>

#include "qellog/record/message_facts.h"
#include "qellog/report/report_list.h"
#include "qellog/text/visible_text.h"

namespace qellog {
namespace {

constexpr std::size_t kLabelWidth = 11;
constexpr std::size_t kNumberWidth = 10;
constexpr std::size_t kMostRows = 5;
constexpr std::size_t kMostProcesses = 6;
constexpr std::size_t kMostSilences = 2;

/// Writes rows with the label of their group beside the first.
class Screen {
 public:
  explicit Screen(const Colours& colours) : colours_(colours) {}
  void Label(std::string_view label) { label_ = label; }
  void Row(const std::string& content) {
    text_ += colours_.Paint(Colour::kBold, Padded(label_, kLabelWidth)) + content + "\n";
    label_.clear();
  }
  void CountRow(std::uint64_t count, const std::string& content) {
    Row(PaddedLeft(Grouped(count), kNumberWidth) + "  " + content);
  }
  void More(std::size_t all, std::size_t shown) {
    if (all > shown)
      Row(colours_.Paint(Colour::kFaint, std::string(kNumberWidth + 2, ' ') + "and " + Grouped(all - shown) + " more"));
  }
  std::string Paint(Colour colour, std::string_view text) const { return colours_.Paint(colour, text); }
  const std::string& Text() const { return text_; }

 private:
  const Colours& colours_;
  std::string label_;
  std::string text_;
};

std::string Plural(std::uint64_t count, const std::string& noun) {
  return Grouped(count) + " " + noun + (count == 1 ? "" : "s");
}

void AddHead(Screen& screen, const Summary& summary) {
  screen.Label("Time");
  if (summary.first)
    screen.Row(FormatTime(*summary.first) + "  to  " + FormatTime(*summary.last) + "  (" +
               FormatDuration(summary.last->milliseconds - summary.first->milliseconds) + ")");
  else
    screen.Row("no lines");
  screen.Label("Files");
  screen.Row(Plural(summary.files, "file") + ", " + SizeText(summary.bytes) + ", " + Plural(summary.lines, "line") +
             ", " + Plural(summary.exceptionReports, "exception report") + ", " +
             Plural(summary.statusReports, "status report") +
             (summary.unfinished > 0 ? ", " + Grouped(summary.unfinished) + " unfinished" : ""));
}

void AddChannels(Screen& screen, const Summary& summary) {
  screen.Label("Channels");
  for (const ChannelFigures& channel : summary.channels) {
    if (channel.records == 0 && channel.fullFiles == 0) continue;
    const std::string full = screen.Paint(Colour::kRed, "  full: takes no more");
    screen.CountRow(channel.records, Padded(VisibleText(channel.name), 13) + PaddedLeft(SizeText(channel.bytes), 11) +
                                         (channel.fullFiles > 0 ? full : ""));
  }
}

void AddProcesses(Screen& screen, const Summary& summary) {
  screen.Label("Processes");
  std::vector<const Process*> processes;
  for (const Process& process : summary.processes) processes.push_back(&process);
  std::stable_sort(processes.begin(), processes.end(), [](const Process* left, const Process* right) {
    return left->lines + left->reports > right->lines + right->reports;
  });
  const std::size_t shown = std::min(processes.size(), kMostProcesses);
  for (std::size_t i = 0; i < shown; ++i) {
    const Process& process = *processes[i];
    const std::string name = VisibleText(NameWithoutFolders(process.program)) + "[" + std::to_string(process.id) + "]";
    const std::string reports =
        process.reports > 0 ? screen.Paint(Colour::kRed, "  " + Plural(process.reports, "report")) : "";
    screen.CountRow(process.lines,
                    Padded(name, 24) + FormatTime(process.first) + "  to  " + FormatTimeOfDay(process.last) + reports);
  }
  screen.More(processes.size(), shown);
}

void AddTexts(Screen& screen, std::string_view label, const TextCounter& counter) {
  screen.Label(label);
  const auto texts = counter.MostFrequent(kMostRows);
  for (const CountedText& text : texts) screen.CountRow(text.count, VisibleText(text.text));
}

void AddErrors(Screen& screen, const Summary& summary) {
  std::vector<std::pair<std::uint64_t, std::uint32_t>> errors;
  for (const auto& [error, count] : summary.errors) errors.emplace_back(count, error);
  std::sort(errors.rbegin(), errors.rend());
  screen.Label("Errors");
  const std::size_t shown = std::min(errors.size(), kMostRows);
  for (std::size_t i = 0; i < shown; ++i)
    screen.CountRow(errors[i].first, std::to_string(errors[i].second) + " " + std::string(ErrorName(errors[i].second)));
  screen.More(errors.size(), shown);
}

void AddRetries(Screen& screen, const Summary& summary) {
  if (summary.retriesEndedWell + summary.retriesEndedBadly == 0) return;
  std::string givenUp;
  for (const CountedText& function : summary.functionsGivenUp.MostFrequent(3))
    givenUp += (givenUp.empty() ? ": " : ", ") + VisibleText(function.text) + " " + Grouped(function.count);
  screen.Label("Retries");
  screen.CountRow(summary.retriesEndedWell, "ended well");
  screen.CountRow(summary.retriesEndedBadly, "given up" + givenUp);
}

void AddWaits(Screen& screen, const Summary& summary) {
  screen.Label("Waits");
  for (const LongWait& wait : summary.waits)
    if (wait.milliseconds > 0)
      screen.Row(PaddedLeft(FormatDuration(wait.milliseconds), kNumberWidth) + "  " + VisibleText(wait.what) +
                 ", until " + FormatTime(wait.time));
}

void AddSilences(Screen& screen, const Summary& summary) {
  screen.Label("Gaps");
  for (std::size_t i = 0; i < std::min(summary.silences.size(), kMostSilences); ++i)
    screen.Row(PaddedLeft(FormatDuration(summary.silences[i].Length()), kNumberWidth) + "  without a line, from " +
               FormatTime(summary.silences[i].from) + " to " + FormatTime(summary.silences[i].to));
}

void AddDamage(Screen& screen, const Summary& summary) {
  screen.Label("Damage");
  for (const auto& [kind, count] : summary.damage) screen.CountRow(count, screen.Paint(Colour::kRed, NameOf(kind)));
  if (summary.damage.empty()) screen.Row(PaddedLeft("none", kNumberWidth));
}

}  // namespace

std::string TextOfSummary(const Summary& summary, const Colours& colours) {
  Screen screen(colours);
  AddHead(screen, summary);
  AddChannels(screen, summary);
  AddProcesses(screen, summary);
  AddTexts(screen, "Crashes", summary.causes);
  AddTexts(screen, "Sources", summary.sources);
  AddErrors(screen, summary);
  AddRetries(screen, summary);
  AddWaits(screen, summary);
  AddSilences(screen, summary);
  AddDamage(screen, summary);
  return screen.Text();
}

}  // namespace qellog
