// RaiseException for our own code. The system's has no unwind tables, so an exception raised in it would skip the
// destructors of the callers up to the guard, and no C++ handler of the host would see it.
#include "qelibaselib/platform/fault/guard_frame.h"

#undef RaiseException

namespace {

// In a guard of its own: vectored handlers are asked first, as always. Returns whether one of them let the execution
// continue; otherwise what was raised is in `raised`.
bool Raise(DWORD code, DWORD flags, DWORD count, const ULONG_PTR* arguments, CSE& raised) {
  const fault::Translator translator = fault::SetTranslator(&fault::ThrowCse);
  bool continued = false;
  try {
    fault::Run([&] {
      RaiseException(code, flags, count, arguments);
      continued = true;
    });
  } catch (const CSE& exception) {
    raised = exception;
  } catch (...) {  // of a code that is not translated
    raised = {};
    raised.record.ExceptionCode = code;
    raised.record.ExceptionFlags = flags & EXCEPTION_NONCONTINUABLE;
  }
  fault::SetTranslator(translator);
  return continued;
}

}  // namespace

extern "C" void WINAPI QelRaiseException(DWORD code, DWORD flags, DWORD count, const ULONG_PTR* arguments) {
  CSE raised;
  if (Raise(code, flags, count, arguments, raised)) return;
  if (fault::GuardFrame* guard = fault::InnermostGuard()) fault::ThrowInGuard(*guard, raised.record, raised.context);
  EXCEPTION_POINTERS pointers{&raised.record, &raised.context};
  fault::ThrowIfCaught(&pointers);
  RaiseException(code, flags, count, arguments);  // to the SEH frames of the host and its filter
}
