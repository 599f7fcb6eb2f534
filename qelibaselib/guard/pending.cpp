// Keeps the library linking until the log writer, the settings and the exception report are there.
#include "qelibaselib/guard/pending.h"

#include "qelibaselib/log_channel.h"

extern "C" {
__attribute__((weak)) const wchar_t* VemoGetExePath() { return L"?:\\???"; }
__attribute__((weak)) int VemoExceptLogOut(const wchar_t*, const char*, const EXCEPTION_RECORD*, const CONTEXT*, int,
                                           const char*) {
  return _HEAPOK;
}
}
namespace qel {
__attribute__((weak)) void WriteAssertion(SourcePosition) {}
__attribute__((weak)) void WriteAssertion(SourcePosition, DWORD) {}
__attribute__((weak)) void WriteAssertion(SourcePosition, const char*) {}
}  // namespace qel
