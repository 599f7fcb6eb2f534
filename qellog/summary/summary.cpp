#include "qellog/summary/summary.h"

#include <algorithm>

#include "qellog/record/message_facts.h"
#include "qellog/report/cause.h"

namespace qellog {
namespace {

// Bounds of what is kept, whatever the logs hold.
constexpr std::size_t kMostTexts = 50'000;
constexpr std::size_t kMostProcesses = 10'000;
constexpr std::size_t kMostErrors = 10'000;
constexpr std::size_t kMostRetries = 10'000;
constexpr std::size_t kLongestKept = 5;
constexpr std::int64_t kSilenceMs = 600'000;

/// Puts a value among the longest, which are kept longest first.
template <class Value, class LengthOf>
void KeepLongest(std::vector<Value>& values, Value value, LengthOf lengthOf) {
  const auto place =
      std::find_if(values.begin(), values.end(), [&](const Value& kept) { return lengthOf(kept) < lengthOf(value); });
  values.insert(place, std::move(value));
  if (values.size() > kLongestKept) values.pop_back();
}

}  // namespace

void TextCounter::Add(std::string_view text) {
  auto found = counts_.find(text);
  if (found == counts_.end())
    found = counts_.try_emplace(std::string(counts_.size() < kMostTexts ? text : "(others)"), 0).first;
  ++found->second;
}

std::vector<CountedText> TextCounter::MostFrequent(std::size_t count) const {
  std::vector<CountedText> texts;
  for (const auto& [text, number] : counts_) texts.push_back({text, number});
  std::sort(texts.begin(), texts.end(), [](const CountedText& left, const CountedText& right) {
    return left.count != right.count ? left.count > right.count : left.text < right.text;
  });
  if (texts.size() > count) texts.resize(count);
  return texts;
}

SummaryBuilder::SummaryBuilder(const std::vector<LogFile>& files)
    : damage_([this](const Damage& damage) { ++summary_.damage[damage.kind]; }) {
  summary_.files = files.size();
  for (const LogFile& file : files) {
    const auto [place, isNew] = channels_.try_emplace(file.channel, summary_.channels.size());
    if (isNew) summary_.channels.push_back({file.channel});
    ChannelFigures& channel = summary_.channels[place->second];
    channel.bytes += file.size;
    summary_.bytes += file.size;
    const auto limit = LimitOf(file.role);
    if (limit && file.size > *limit) ++channel.fullFiles;
  }
}

void SummaryBuilder::Add(const FileRecord& found) {
  const Record& record = found.record;
  damage_.Look(found);
  if (record.unfinished) ++summary_.unfinished;
  if (record.kind == RecordKind::kForeignText || record.kind == RecordKind::kDamagedLine) return;
  ++summary_.channels[channels_.find(found.file->channel)->second].records;
  AddTime(record.time);
  switch (record.kind) {
    case RecordKind::kLine:
      return AddLine(record.line);
    case RecordKind::kExceptionReport:
      return AddException(record);
    case RecordKind::kStatusReport:
      return AddStatus(record);
    default:
      ++summary_.benchmarks;
  }
}

void SummaryBuilder::AddTime(Timestamp time) {
  if (time == Timestamp{}) return;  // a report that was cut before its time
  if (!summary_.first || time < *summary_.first) summary_.first = time;
  if (summary_.last && time.milliseconds - summary_.last->milliseconds >= kSilenceMs)
    KeepLongest(summary_.silences, Silence{*summary_.last, time},
                [](const Silence& silence) { return silence.Length(); });
  if (!summary_.last || time > *summary_.last) summary_.last = time;
}

Process* SummaryBuilder::ProcessOf(std::string_view program, std::uint32_t id, Timestamp time) {
  auto& sameId = processes_[id];
  for (const std::size_t index : sameId)
    if (summary_.processes[index].program == program) return &summary_.processes[index];
  if (summary_.processes.size() >= kMostProcesses) {
    ++summary_.otherProcesses;
    return nullptr;
  }
  sameId.push_back(summary_.processes.size());
  return &summary_.processes.emplace_back(Process{std::string(program), id, time, time});
}

void SummaryBuilder::AddLine(const LogLine& line) {
  ++summary_.lines;
  if (Process* const process = ProcessOf(line.program, line.processId, line.time)) {
    process->first = std::min(process->first, line.time);
    process->last = std::max(process->last, line.time);
    ++process->lines;
  }
  sourceText_.assign(line.sourceFile).append("(").append(std::to_string(line.sourceLine)).append(")");
  summary_.sources.Add(sourceText_);
  AddMessage(line);
}

void SummaryBuilder::AddMessage(const LogLine& line) {
  const auto error = ErrorOf(line.message);
  if (!error) return;  // the lines of retries and waits name one
  if (*error != 0 && (summary_.errors.size() < kMostErrors || summary_.errors.contains(*error)))
    ++summary_.errors[*error];
  AddRetry(line);
  if (const auto wait = WaitOf(line.message)) AddWait({wait->milliseconds, line.time, std::string(wait->what)});
}

void SummaryBuilder::AddRetry(const LogLine& line) {
  const auto retry = RetryOf(line.message);
  if (!retry) return;
  const std::uint64_t thread = (std::uint64_t{line.processId} << 32) | line.threadId;
  const auto start = retries_.find(thread);
  if (retry->outcome == RetryOutcome::kGoesOn) {
    const bool isFirst = retry->count == 0 || start == retries_.end();
    if (isFirst && retries_.size() < kMostRetries) retries_[thread] = {line.time, std::string(retry->function)};
    return;
  }
  ++(retry->outcome == RetryOutcome::kEndedWell ? summary_.retriesEndedWell : summary_.retriesEndedBadly);
  if (retry->outcome == RetryOutcome::kEndedBadly) summary_.functionsGivenUp.Add(retry->function);
  if (start == retries_.end()) return;
  if (start->second.function == retry->function)
    AddWait({line.time.milliseconds - start->second.time.milliseconds, line.time, start->second.function + " retried"});
  retries_.erase(start);
}

void SummaryBuilder::AddWait(LongWait wait) {
  KeepLongest(summary_.waits, std::move(wait), [](const LongWait& kept) { return kept.milliseconds; });
}

void SummaryBuilder::AddException(const Record& record) {
  const ExceptionReport report = ParseExceptionReport(record.text);
  ++summary_.exceptionReports;
  summary_.causes.Add(CauseOf(report));
  if (Process* const process = ProcessOf(report.program, report.processId, record.time)) ++process->reports;
}

void SummaryBuilder::AddStatus(const Record& record) {
  const StatusReport report = ParseStatusReport(record.text);
  ++summary_.statusReports;
  if (Process* const process = ProcessOf(report.program, report.processId, record.time)) ++process->reports;
}

Summary SummaryBuilder::Finish() { return std::move(summary_); }

}  // namespace qellog
