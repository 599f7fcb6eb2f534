#include "qellog/folder/damage.h"

#include <algorithm>
#include <numeric>

#include "qellog/report/exception_report.h"

namespace qellog {
namespace {

constexpr std::size_t kDetailBytes = 120;
/// A writer takes its time first and then waits for its turn, up to this long.
constexpr std::int64_t kLongestWaitMs = 60'000;
/// A hostile file may name any number of threads.
constexpr std::size_t kMostThreads = 10'000;

bool IsWhole(const Record& record) {
  if (record.droppedBytes > 0) return true;
  if (record.kind == RecordKind::kExceptionReport) return ParseExceptionReport(record.text).IsWhole();
  return record.kind != RecordKind::kStatusReport || ParseStatusReport(record.text).reachesDrives;
}

}  // namespace

const char* NameOf(DamageKind kind) {
  switch (kind) {
    case DamageKind::kDamagedLine:
      return "damaged line";
    case DamageKind::kForeignText:
      return "foreign text";
    case DamageKind::kTwoLines:
      return "two lines in one";
    case DamageKind::kOutOfOrder:
      return "line out of order";
    case DamageKind::kBeyondLimit:
      return "file beyond its limit";
    case DamageKind::kCutReport:
      return "report cut short";
  }
  return "";
}

std::uint64_t DamageFinder::Count() const { return std::accumulate(counts_.begin(), counts_.end(), std::uint64_t{0}); }

void DamageFinder::Look(const FileRecord& found) {
  FileState& state = files_[found.file];
  const Record& record = found.record;
  if (state.isFirst) state.endsLinesBarely = record.firstLineIsBare;
  state.isFirst = false;
  if (state.cutReportLine > 0) LookAtReport(found, state);
  LookAtLimit(found, state);
  if (record.unfinished && record.kind != RecordKind::kForeignText) return;
  LookForForeignText(found, state);
  if (record.kind == RecordKind::kDamagedLine) return Tell(DamageKind::kDamagedLine, found, record.text);
  if (record.kind == RecordKind::kLine) return LookAtLine(found, state);
  if (IsReport(record) && !IsWhole(record)) state.cutReportLine = record.lineNumber;
}

void DamageFinder::LookAtLine(const FileRecord& found, FileState& state) {
  const std::string_view message = found.record.line.message;
  if (const auto second = FindSecondLine(message)) Tell(DamageKind::kTwoLines, found, message.substr(*second));
  LookAtOrder(found, state);
}

void DamageFinder::LookAtOrder(const FileRecord& found, FileState& state) {
  const LogLine& line = found.record.line;
  if (state.latestOfThread.size() > kMostThreads) state.latestOfThread.clear();
  const std::uint64_t thread = (std::uint64_t{line.processId} << 32) | line.threadId;
  Timestamp& latestOfThread = state.latestOfThread.try_emplace(thread, line.time).first->second;
  const bool longBefore =
      state.latest.milliseconds != INT64_MIN && line.time.milliseconds < state.latest.milliseconds - kLongestWaitMs;
  if (line.time < latestOfThread || longBefore)
    Tell(DamageKind::kOutOfOrder, found, FormatTime(line.time) + " after " + FormatTime(state.latest));
  latestOfThread = line.time;
  state.latest = longBefore ? line.time : std::max(state.latest, line.time);
}

void DamageFinder::LookForForeignText(const FileRecord& found, FileState& state) {
  const Record& record = found.record;
  if (record.kind == RecordKind::kForeignText) return Tell(DamageKind::kForeignText, found, record.text);
  if (const std::size_t zero = record.text.find('\0'); zero != record.text.npos)
    return Tell(DamageKind::kForeignText, found, record.text.substr(zero));
  const bool bare = record.bareLineFeeds > 0 && !state.endsLinesBarely && found.file->role != FileRole::kMixed;
  if (bare) Tell(DamageKind::kForeignText, found, record.text);
}

void DamageFinder::LookAtReport(const FileRecord& found, FileState& state) {
  ++counts_[static_cast<std::size_t>(DamageKind::kCutReport)];
  found_({DamageKind::kCutReport, found.file, state.cutReportLine, "ends before its last section"});
  state.cutReportLine = 0;
}

void DamageFinder::LookAtLimit(const FileRecord& found, FileState& state) {
  const auto limit = LimitOf(found.file->role);
  if (!limit || found.record.offset <= *limit || state.beyondLimitTold) return;
  state.beyondLimitTold = true;
  Tell(DamageKind::kBeyondLimit, found, "goes on behind " + std::to_string(*limit) + " bytes");
}

void DamageFinder::Tell(DamageKind kind, const FileRecord& record, std::string_view detail) {
  ++counts_[static_cast<std::size_t>(kind)];
  const std::size_t length = std::min(detail.size(), kDetailBytes);
  found_({kind, record.file, record.record.lineNumber, std::string(detail.substr(0, length))});
}

}  // namespace qellog
