/// @file
/// The files of the two reports.
#pragma once
#include <cstdio>

#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/log/named_log_mutex.h"
#include "qelibaselib/platform/win32.h"

namespace qel::report {

/// The path of a report's file in the log folder.
struct ReportPath {
  explicit ReportPath(const LogChannel& channel);
  wchar_t text[MAX_PATH];
};

/// A report's file, open for appending text. Where a full disk took only a part of a line, its end takes that part
/// away: the file holds whole lines, and the next report begins on a line of its own.
class ReportFile {
 public:
  explicit ReportFile(const ReportPath& path) : path_(path), stream_(_wfopen(path_.text, L"at")) {}
  ReportFile(const ReportFile&) = delete;
  ReportFile& operator=(const ReportFile&) = delete;
  ~ReportFile();
  /// Null when it could not be opened.
  std::FILE* get() const { return stream_; }

 private:
  const ReportPath path_;
  std::FILE* const stream_;
};

}  // namespace qel::report
