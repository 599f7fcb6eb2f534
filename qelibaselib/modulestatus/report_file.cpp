#include "qelibaselib/modulestatus/report_file.h"

#include "qelibaselib/settings/settings.h"

namespace qel::report {

ReportPath::ReportPath(const LogChannel& channel) : text{} { PathCombineW(text, VemoGetLogPath(), channel.fileName); }

}  // namespace qel::report
