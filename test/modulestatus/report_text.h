// The reports that a test has the library write. Exact texts are compared as they stand; single values come from the
// reader of log folders.
#pragma once
#include "qellog/report/exception_report.h"
#include "test/support/library.h"

namespace qel::test {

// A test that starts without report files, assertions and errors of reports.
class ReportTest : public testing::Test {
 protected:
  ReportTest();
};

// The debug help of Windows reads all symbols of the process anew for each report: seconds, where a test looks at other
// things. Without its start it gives addresses only. That of the layer stays as it is.
inline auto OwnDebugHelpOnly() {
  return FAIL_CALL(SymInitialize, 1, ERROR_INVALID_PARAMETER, FALSE, kLinux ? 0 : 1'000'000);
}

std::string WrittenBy(const std::function<void(std::FILE* stream)>& write);

// Those of the reports of a file or stream that go on to their last section.
std::vector<qellog::ExceptionReport> FindWholeExceptionReports(const std::string& text);
// All reports of a file or stream. What stands between them, or ends before its last section, fails the test.
std::vector<qellog::ExceptionReport> ReadExceptionReports(const std::string& text);
std::vector<qellog::StatusReport> ReadStatusReports(const std::string& text);
// As the file of the reports holds them; the file is gone then.
std::vector<qellog::ExceptionReport> TakeExceptionReports();
qellog::ExceptionReport TakeOnlyExceptionReport();

// "0x1234abcd"; empty when there is none.
std::string ValueOf(const std::vector<qellog::NamedValue>& values, const std::string& name);

// A line of a dump: its address, up to sixteen bytes, and `missing` for each of those behind the readable ones.
std::string DumpLine(const unsigned char* at, int readable = 16, const char* missing = "");

}  // namespace qel::test
