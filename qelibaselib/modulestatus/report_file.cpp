#include "qelibaselib/modulestatus/report_file.h"

#include "qelibaselib/settings/settings.h"

namespace qel::report {

ReportPath::ReportPath(const LogChannel& channel) : text{} { PathCombineW(text, VemoGetLogPath(), channel.fileName); }

ScopedStream OpenReport(const ReportPath& path) { return ScopedStream(_wfopen(path.text, L"at")); }

}  // namespace qel::report
