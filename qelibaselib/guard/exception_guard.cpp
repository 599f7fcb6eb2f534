#include "qelibaselib/guard/exception_guard.h"

#include <cstdio>

#include "qelibaselib/base/floating_point_guard.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/modulestatus/exception_report.h"
#include "qelibaselib/settings/settings.h"

namespace qel::guard_detail {
namespace {

constexpr size_t kErrorMessageCharacters = 256;

void NoteException(const char* clause, SourcePosition position) {
  Swallowed([&] { WriteAssertion(position, clause); });
  Swallowed([&] {
    if (_heapchk() != _HEAPOK) WriteAssertion(position, "_heapchk()");
  });
}

void WriteReport(const char* message, const CSE* exception, SourcePosition position) {
  Swallowed([&] {
    VemoExceptLogOut(PathFindFileNameW(VemoGetExePath()), message, exception ? &exception->record : nullptr,
                     exception ? &exception->context : nullptr, position.line, position.sourceFile);
  });
}

// What the clause reports about is over; what is pending in the floating-point unit must not hit the report.
class QuietFloatingPoint : public CNdpCtrl87 {
 public:
  QuietFloatingPoint() : CNdpCtrl87(1, 1, 1, 1, 1, 1) {}
};

void WriteLineAndReport(const char* clause, const char* message, const CSE* exception, SourcePosition position) {
  NoteException(clause, position);
  const QuietFloatingPoint quiet;
  WriteReport(message, exception, position);
}

}  // namespace

// Each step stands in a guard of its own: a report that faults must not keep the next step from being made, nor leave.
// All of it runs where there is room for it, which the thread's stack may not have.

void ReportStructuredException(const CSE& exception, SourcePosition position) noexcept {
  fault::RunBelow(&exception.context,
                  [&] { WriteLineAndReport("_CATCH_SE", "Exception CATCH_SE", &exception, position); });
}

void ReportFrameworkException(CException* exception, SourcePosition position) noexcept {
  fault::RunBelow(nullptr, [&] {
    NoteException("_CATCH_CE", position);
    const QuietFloatingPoint quiet;
    static constexpr char kPrefix[] = "Exception CATCH_CE : ";
    char text[kErrorMessageCharacters] = "";
    Swallowed([&] { exception->GetErrorMessage(text, sizeof text); });
    char message[sizeof kPrefix + sizeof text];
    std::snprintf(message, sizeof message, "%s%s", kPrefix, text);
    WriteReport(message, nullptr, position);
    Swallowed([&] { exception->Delete(); });
  });
}

void ReportOtherException(SourcePosition position) noexcept {
  fault::RunBelow(nullptr, [&] { WriteLineAndReport("_CATCH_AE", "Exception CATCH_AE", nullptr, position); });
}

}  // namespace qel::guard_detail
