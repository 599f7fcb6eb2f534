#include "test/guard/recorder.h"

#include <cstring>
#include <stdexcept>

#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/modulestatus/exception_report.h"
#include "qelibaselib/settings/settings.h"
#include "test/support/bad_pointer.h"

namespace qel {

test::Recorded test::g_recorded;

namespace {
std::string Place(int line, const char* text, const char* sourceFile) {
  return std::to_string(line) + " " + text + " in " + sourceFile;
}

// As the real ones do.
__attribute__((noinline)) void UseStack() {
  char block[8192];
  std::memset(block, -1, sizeof block);
  __asm__ __volatile__("" : : "r"(block) : "memory");
}

std::vector<DWORD> CallersFrom(const CONTEXT& context) {
  std::vector<DWORD> callers;
  const DWORD* frame = reinterpret_cast<const DWORD*>(context.Ebp);
  while (callers.size() < 64 && !IsBadReadPtr(frame, 2 * sizeof *frame)) {
    callers.push_back(frame[1]);
    frame = reinterpret_cast<const DWORD*>(frame[0]);
  }
  return callers;
}
}  // namespace

void WriteAssertion(SourcePosition position, const char* text) {
  UseStack();
  test::g_recorded.steps.push_back("line " + Place(position.line, text, position.sourceFile));
  if (test::g_recorded.faultInLine) test::WriteBadAddress();
}

}  // namespace qel

using qel::test::g_recorded;

extern "C" const wchar_t* VemoGetExePath() { return L"C:\\folder\\viewer.exe"; }

extern "C" int VemoExceptLogOut(const wchar_t* title, const char* message, const EXCEPTION_RECORD* record,
                                const CONTEXT* context, int line, const char* sourceFile) {
  const std::wstring name(title);
  g_recorded.steps.push_back("report " + qel::Place(line, message, sourceFile) + " by " +
                             std::string(name.begin(), name.end()));
  g_recorded.hasRecord = record;
  g_recorded.hasContext = context;
  if (record) g_recorded.record = *record;
  if (context) g_recorded.context = *context;
  qel::UseStack();
  if (context) g_recorded.callers = qel::CallersFrom(*context);
  unsigned int x87 = 0, sse2 = 0;
  __control87_2(0, 0, &x87, &sse2);
  g_recorded.masksInReport = x87 & sse2;
  if (g_recorded.faultInReport) qel::test::WriteBadAddress();
  if (g_recorded.throwInReport) throw std::runtime_error("report");
  return _HEAPOK;
}
