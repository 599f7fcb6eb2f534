#include "demo/crash.h"

#include "qelibaselib/qelibaselib.h"

namespace {

// What a host installs: the library writes the report, then a debugger that is registered may take over.
LONG WINAPI WriteReport(EXCEPTION_POINTERS* pointers) {
  VemoExceptLogOut(L"demo", "unhandled fault of the host", pointers->ExceptionRecord, pointers->ContextRecord, __LINE__,
                   __FILE__);
  return AeDebuggerUnhandledExceptionFilter() == EXCEPTION_CONTINUE_EXECUTION ? EXCEPTION_CONTINUE_EXECUTION
                                                                              : EXCEPTION_EXECUTE_HANDLER;
}

}  // namespace

// Not in the unnamed namespace and not inlined, so that the report can name them.
__attribute__((noipa)) int SumPixels(const unsigned char* pixels, int count) {
  int sum = 0;
  for (int i = 0; i < count; ++i) sum += pixels[i];
  return sum;
}
__attribute__((noipa)) int MeasureBrightness(const unsigned char* pixels) { return SumPixels(pixels, 64) / 64; }

int CrashWithReport() {
  SetUnhandledExceptionFilter(&WriteReport);
  return MeasureBrightness(reinterpret_cast<const unsigned char*>(0x30));
}
