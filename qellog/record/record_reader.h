/// @file
/// Cuts a stream of bytes into records with a buffer of fixed size, whatever the file holds.
///
/// A record goes on until the next line that starts one. Of a record that is longer than half the buffer that half is
/// kept; the rest is passed over and counted. So a file of 2 GB and a line of 1 GiB need no more memory than others.
#pragma once
#include <cstdint>
#include <optional>
#include <vector>

#include "qellog/record/byte_source.h"
#include "qellog/record/record.h"
#include "qellog/record/record_start.h"
#include "qellog/record/text_search.h"

namespace qellog {

class RecordReader {
 public:
  static constexpr std::size_t kSmallestBuffer = 4096;
  RecordReader(ByteSource& source, FileRole role, std::size_t bufferBytes);

  /// The next record. False at the end.
  bool Next(Record& record);
  /// The next record that may hold the text. Lines are searched as blocks of bytes first and only those that have it
  /// are parsed; reports and very long records come in any case, for the caller to look into.
  bool NextWith(const TextSearch& search, Record& record);

 private:
  bool Fill();
  void DropTail();
  void Consume();
  std::string_view Ahead();
  std::optional<RecordKind> NextStart();
  void PassLine();
  void CountLineEnd(std::size_t lineFeed);
  bool ReadFrom(RecordKind kind, Record& record);
  bool FinishRecord(Record& record);
  bool IsBlankBeforeReport(const Record& record) const;
  std::size_t RecordStartBefore(std::size_t position) const;
  std::size_t Kept() const { return buffer_.size() / 2; }

  ByteSource& source_;
  FileRole role_;
  RecordStart starts_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;               ///< of the record
  std::size_t scanned_ = 0;             ///< how far it is known to go: the end of a line, or inside a very long one
  std::size_t end_ = 0;                 ///< of the bytes in the buffer
  bool ended_ = false;                  ///< the source has no more
  std::optional<RecordKind> nextKind_;  ///< of the record that starts at scanned_
  std::uint64_t offset_ = 0;            ///< in the file, of begin_
  std::uint64_t dropped_ = 0;           ///< bytes of this record that are no longer in the buffer
  std::uint64_t lineNumber_ = 1;
  std::uint64_t linesPassed_ = 0;  ///< of this record
  std::uint32_t bareLineFeeds_ = 0;
  bool firstLineIsBare_ = false;
  char lastByte_ = '\n';
  Timestamp lastTime_;
};

}  // namespace qellog
