/// @file
/// The files of the two reports.
#pragma once
#include "qelibaselib/base/scoped_stream.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/log/named_log_mutex.h"
#include "qelibaselib/platform/win32.h"

namespace qel::report {

/// The path of a report's file in the log folder.
struct ReportPath {
  explicit ReportPath(const LogChannel& channel);
  wchar_t text[MAX_PATH];
};

/// Opens a report's file for appending text; null when that is not possible.
ScopedStream OpenReport(const ReportPath& path);

}  // namespace qel::report
