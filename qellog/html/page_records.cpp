#include "qellog/html/page_records.h"

#include <algorithm>

#include "qellog/output/json_text.h"
#include "qellog/record/message_facts.h"

namespace qellog {
namespace {

constexpr std::int64_t kNearMs = 10'000;
constexpr std::size_t kMostNear = 20'000;
constexpr std::size_t kMessageBytes = 4096;
constexpr std::size_t kMostTexts = 20'000;

std::string_view Short(std::string_view text) { return text.substr(0, std::min(text.size(), kMessageBytes)); }

std::string OtherFields(const FileRecord& found) {
  const std::string noProgram = ",null,-1,0,0,-1,0,";
  if (!IsReport(found.record)) return noProgram + JsonOfText(Short(found.record.text)) + ",0]";
  const ReportEntry entry = DescribeReport(found, 0);
  const std::string cause = entry.cause.empty() ? "" : ": " + entry.cause + "; " + entry.frames;
  return noProgram + JsonOfText(std::string(NameOf(entry.kind)) + " report: " + entry.heading + cause) + ",0]";
}

}  // namespace

// A row leaves the latest when newer ones fill them; it stays all the same when it is near a crash.
void PageRecords::Add(const FileRecord& record, std::size_t channel) {
  ++count_;
  latest_.push_back({record.record.time, RowOf(record, channel)});
  if (latest_.size() <= limit_) return;
  if (nearCrashes_.size() < kMostNear && IsNearCrash(latest_.front().time))
    nearCrashes_.push_back(std::move(latest_.front()));
  latest_.pop_front();
}

bool PageRecords::IsNearCrash(Timestamp time) const {
  const auto next = std::lower_bound(crashes_.begin(), crashes_.end(), Timestamp{time.milliseconds - kNearMs});
  return next != crashes_.end() && next->milliseconds <= time.milliseconds + kNearMs;
}

std::size_t PageRecords::NumberOf(std::string_view text, Numbers& numbers) {
  const auto found = numbers.find(text);
  if (found != numbers.end()) return found->second;
  if (numbers.size() >= kMostTexts) text = "(others)";
  return numbers.try_emplace(std::string(text), numbers.size()).first->second;
}

std::string PageRecords::RowOf(const FileRecord& found, std::size_t channel) {
  const Record& record = found.record;
  const std::string start = "[" + std::to_string(record.time.milliseconds) + "," + std::to_string(channel) + "," +
                            std::to_string(static_cast<int>(record.kind));
  return start + (record.kind == RecordKind::kLine ? LineFields(record.line) : OtherFields(found));
}

std::string PageRecords::LineFields(const LogLine& line) {
  const std::uint32_t error = ErrorOf(line.message).value_or(0);
  if (error != 0 && errorNames_.size() < kMostTexts) errorNames_.try_emplace(error, ErrorName(error));
  return "," + (line.memoryLoad ? std::to_string(*line.memoryLoad) : "null") + "," +
         std::to_string(NumberOf(Short(line.program), programs_)) + "," + std::to_string(line.processId) + "," +
         std::to_string(line.threadId) + "," + std::to_string(NumberOf(Short(line.sourceFile), sources_)) + "," +
         std::to_string(line.sourceLine) + "," + JsonOfText(Short(MessageOf(line))) + "," + std::to_string(error) + "]";
}

void PageRecords::ForEachRow(const std::function<void(const std::string&)>& use) const {
  for (const Row& row : nearCrashes_) use(row.json);
  for (const Row& row : latest_) use(row.json);
}

std::string PageRecords::JsonOf(const Numbers& numbers) {
  std::vector<std::string_view> texts(numbers.size());
  for (const auto& [text, number] : numbers) texts[number] = text;
  std::string json;
  for (const std::string_view text : texts) json += (json.empty() ? "[" : ",") + JsonOfText(text);
  return json.empty() ? "[]" : json + "]";
}

std::string PageRecords::JsonOfErrorNames() const {
  std::string json = "{";
  for (const auto& [error, name] : errorNames_)
    json += (json.size() > 1 ? ",\"" : "\"") + std::to_string(error) + "\":" + JsonOfText(name);
  return json + "}";
}

}  // namespace qellog
