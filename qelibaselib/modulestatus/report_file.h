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

/// A report's file, open for appending text.
class ReportFile {
 public:
  explicit ReportFile(const ReportPath& path) : stream_(_wfopen(path.text, L"at")) {}
  ReportFile(const ReportFile&) = delete;
  ReportFile& operator=(const ReportFile&) = delete;
  ~ReportFile() {
    if (stream_) std::fclose(stream_);
  }
  /// Null when it could not be opened.
  std::FILE* get() const { return stream_; }

 private:
  std::FILE* const stream_;
};

}  // namespace qel::report
