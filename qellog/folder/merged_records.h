/// @file
/// The records of many files in the order of their times, with a buffer for each file and no more.
///
/// Each file gives its records in its own order, and the earliest of those in front is next; equal times come in the
/// order of the files. A record whose time lies before that of its predecessor in the file (a thread waited for the
/// channel, a clock was set) counts as late as that one, so a file is never reordered.
#pragma once
#include <memory>
#include <vector>

#include "qellog/folder/filter.h"
#include "qellog/record/record_reader.h"
#include "qellog/system/input_file.h"

namespace qellog {

/// A record and the file that it stands in.
struct FileRecord {
  const LogFile* file;
  Record record;
};

class MergedRecords {
 public:
  /// The files and the filter outlive this object. A file that cannot be read is told and gives no records.
  MergedRecords(const std::vector<LogFile>& files, const Filter& filter, const ReportProblem& problem);
  ~MergedRecords();
  /// The next record that the filter takes; nothing at the end. Valid until the next call.
  const FileRecord* Next();

 private:
  class Stream;
  bool ComesLater(std::size_t left, std::size_t right) const;
  void PutInOrder(std::size_t stream);
  std::size_t TakeFront();
  std::vector<std::unique_ptr<Stream>> streams_;
  std::vector<std::size_t> heap_;  ///< of streams, the one with the earliest record first
  std::optional<std::size_t> given_;
};

}  // namespace qellog
