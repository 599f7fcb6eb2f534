#include "test/platform/fault/reports.h"

#include "test/support/bad_pointer.h"
#include "test/support/library.h"

namespace qel::test {

std::vector<std::string> TakeReports() {
  LogFolder();
  const auto path = ChannelFile(channel::kExceptionReport);
  const std::string text = ReadWholeFile(path);
  std::vector<std::string> reports;
  constexpr char kCounter[] = ">>>>>>>>>> TC=";
  for (size_t at = text.find(kCounter); at != std::string::npos;) {
    const size_t next = text.find(kCounter, at + 1);
    reports.push_back(text.substr(at, next - at));
    at = next;
  }
  std::filesystem::remove(path);
  return reports;
}

bool IsWhole(const std::string& report) { return report.find("Disk Free Space") != std::string::npos; }

LONG WINAPI WriteReport(EXCEPTION_POINTERS* pointers) {
  VemoExceptLogOut(L"host", "filter", pointers->ExceptionRecord, pointers->ContextRecord, 1, "host.cpp");
  return EXCEPTION_CONTINUE_SEARCH;
}

bool FaultInExport() {
  WIN32_FIND_DATAW data;
  return GetFileSizeX(L"/", &data, static_cast<DWORD*>(BadPointer())) == 0;
}

}  // namespace qel::test
