#include "qellog/record/record_reader.h"

#include <algorithm>
#include <cstring>

#include "qellog/report/report_head.h"

namespace qellog {
namespace {

std::string_view WithoutLineEnds(std::string_view text, RecordKind kind) {
  const bool isReport = kind != RecordKind::kLine && kind != RecordKind::kForeignText;
  do {
    if (!text.ends_with('\n')) break;
    text.remove_suffix(1);
    if (text.ends_with('\r')) text.remove_suffix(1);
  } while (isReport);  // the empty line behind a report belongs to the next one
  return text;
}

}  // namespace

RecordReader::RecordReader(ByteSource& source, FileRole role, std::size_t bufferBytes)
    : source_(source), role_(role), starts_(role), buffer_(std::max(bufferBytes, kSmallestBuffer)) {}

// Reads more bytes behind those that are there. False when there are none.
bool RecordReader::Fill() {
  if (ended_) return false;
  if (begin_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    scanned_ -= begin_;
    begin_ = 0;
  }
  if (end_ == buffer_.size()) DropTail();
  const std::size_t count = source_.Read(buffer_.data() + end_, buffer_.size() - end_);
  if (count == 0) ended_ = true;
  end_ += count;
  return count > 0;
}

// The record fills the buffer: what it has beyond its kept part goes.
void RecordReader::DropTail() {
  const std::size_t kept = Kept();
  std::memmove(buffer_.data() + kept, buffer_.data() + scanned_, end_ - scanned_);
  dropped_ += scanned_ - kept;
  end_ -= scanned_ - kept;
  scanned_ = kept;
}

void RecordReader::Consume() {
  offset_ += scanned_ - begin_ + dropped_;
  dropped_ = 0;
  begin_ = scanned_;
  lineNumber_ += linesPassed_;
  linesPassed_ = 0;
  bareLineFeeds_ = 0;
  firstLineIsBare_ = false;
}

// What follows scanned_: enough of the line to tell whether it starts a record.
std::string_view RecordReader::Ahead() {
  while (end_ - scanned_ < RecordStart::kLookAhead && Fill()) {
  }
  return {buffer_.data() + scanned_, std::min(end_ - scanned_, RecordStart::kLookAhead)};
}

std::optional<RecordKind> RecordReader::NextStart() {
  const std::string_view ahead = Ahead();
  const auto start = starts_.Next(ahead);
  const bool cutShort = !start && ended_ && starts_.EndsInTime(ahead);
  return cutShort ? RecordKind::kLine : start;
}

void RecordReader::PassLine() {
  for (;;) {
    const char* const from = buffer_.data() + scanned_;
    const void* const found = end_ > scanned_ ? std::memchr(from, '\n', end_ - scanned_) : nullptr;
    if (found) return CountLineEnd(static_cast<std::size_t>(static_cast<const char*>(found) - buffer_.data()));
    if (end_ > scanned_) lastByte_ = buffer_[end_ - 1];
    scanned_ = end_;
    if (!Fill()) return;
  }
}

void RecordReader::CountLineEnd(std::size_t lineFeed) {
  const bool bare = (lineFeed > scanned_ ? buffer_[lineFeed - 1] : lastByte_) != '\r';
  if (bare) ++bareLineFeeds_;
  if (linesPassed_ == 0) firstLineIsBare_ = bare;
  ++linesPassed_;
  lastByte_ = '\n';
  scanned_ = lineFeed + 1;
}

bool RecordReader::Next(Record& record) {
  do {
    Consume();
    if (begin_ == end_ && !Fill()) return false;
    if (!nextKind_) nextKind_ = NextStart();
    ReadFrom(nextKind_.value_or(RecordKind::kForeignText), record);
  } while (IsBlankBeforeReport(record));
  return true;
}

// A report starts with an empty line, and so does its file.
bool RecordReader::IsBlankBeforeReport(const Record& record) const {
  const bool ofReports = role_ != FileRole::kChannel && role_ != FileRole::kDayHistory;
  return ofReports && record.kind == RecordKind::kForeignText &&
         record.text.find_first_not_of("\r\n") == record.text.npos;
}

bool RecordReader::ReadFrom(RecordKind kind, Record& record) {
  record = Record{};
  record.kind = kind;
  do {
    PassLine();
    if (scanned_ == end_ && !Fill()) {
      nextKind_.reset();
      break;
    }
    nextKind_ = NextStart();
  } while (!nextKind_);
  return FinishRecord(record);
}

bool RecordReader::FinishRecord(Record& record) {
  const std::size_t length = dropped_ > 0 ? Kept() : scanned_ - begin_;
  record.text = WithoutLineEnds({buffer_.data() + begin_, length}, record.kind);
  record.offset = offset_;
  record.lineNumber = lineNumber_;
  record.droppedBytes = dropped_ > 0 ? dropped_ + (scanned_ - begin_ - length) : 0;
  record.bareLineFeeds = bareLineFeeds_;
  record.firstLineIsBare = firstLineIsBare_;
  record.unfinished = ended_ && scanned_ == end_ && lastByte_ != '\n';
  if (record.kind == RecordKind::kLine) {
    if (const auto line = ParseLine(record.text)) {
      record.line = *line;
      lastTime_ = line->time;
    } else {
      record.kind = RecordKind::kDamagedLine;
    }
  } else if (const auto time = ReportTime(record.text, record.kind)) {
    lastTime_ = *time;
  }
  record.time = lastTime_;
  return true;
}

bool RecordReader::NextWith(const TextSearch& search, Record& record) {
  const bool linesAlone = role_ == FileRole::kChannel || role_ == FileRole::kDayHistory;
  if (!linesAlone || search.Text().empty()) return Next(record);
  Consume();
  nextKind_.reset();
  for (std::size_t from = begin_;;) {
    if (const auto hit = search.Find({buffer_.data() + from, end_ - from})) {
      scanned_ = RecordStartBefore(from + *hit);
      Consume();
      return ReadFrom(NextStart().value_or(RecordKind::kForeignText), record);
    }
    if (ended_) return false;
    scanned_ = RecordStartBefore(end_);
    Consume();
    if (end_ - begin_ >= Kept()) return ReadFrom(NextStart().value_or(RecordKind::kForeignText), record);
    const std::size_t searched = end_ - std::min(end_ - begin_, search.Text().size() - 1) - begin_;
    Fill();
    from = begin_ + searched;
  }
}

// The last place up to `position` where a record starts; begin_ when none of those places is in the buffer.
std::size_t RecordReader::RecordStartBefore(std::size_t position) const {
  for (std::size_t line = position; line > begin_; --line) {
    if (buffer_[line - 1] == '\n' && RecordStart::StartsLine({buffer_.data() + line, end_ - line})) return line;
  }
  return begin_;
}

}  // namespace qellog
