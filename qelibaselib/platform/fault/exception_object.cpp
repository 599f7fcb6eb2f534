#include "qelibaselib/platform/fault/exception_object.h"

#include <cxxabi.h>

#include <new>
#include <typeinfo>

#include "qelibaselib/platform/fault/guard_frame.h"

namespace fault {
namespace {

/// What is thrown on a thread without a translator. Nobody else can name it.
struct UntranslatedException {};

}  // namespace

ThreadExceptions* CurrentExceptions() { return reinterpret_cast<ThreadExceptions*>(abi::__cxa_get_globals()); }

_Unwind_Exception* MakeException(const EXCEPTION_POINTERS& pointers, bool asCse) {
  void* object = abi::__cxa_allocate_exception(asCse ? sizeof(CSE) : sizeof(UntranslatedException));
  if (asCse) new (object) CSE{*pointers.ExceptionRecord, *pointers.ContextRecord};
  const std::type_info& type = asCse ? typeid(CSE) : typeid(UntranslatedException);
  void* header = abi::__cxa_init_primary_exception(object, const_cast<std::type_info*>(&type), nullptr);
  *static_cast<int*>(header) = 1;  // the reference that the catch clause gives back
  return reinterpret_cast<_Unwind_Exception*>(static_cast<char*>(object) - sizeof(_Unwind_Exception));
}

void ThrowObject(_Unwind_Exception* exception) {
  ThreadExceptions* exceptions = CurrentExceptions();
  ++exceptions->uncaught;
  _Unwind_RaiseException(exception);
  --exceptions->uncaught;
  abi::__cxa_free_exception(exception + 1);
}

void ThrowCse(unsigned int, EXCEPTION_POINTERS* pointers) {
  throw CSE{*pointers->ExceptionRecord, *pointers->ContextRecord};
}

// The library's own translator is not called but imitated: its throw would end the process when nobody catches.
void ThrowIfCaught(EXCEPTION_POINTERS* pointers) {
  const DWORD code = pointers->ExceptionRecord->ExceptionCode;
  const Translator translator = code == kForeignCppException ? nullptr : ThreadTranslator();
  const bool asCse = translator == &ThrowCse;
  if (translator && !asCse) translator(code, pointers);
  ThrowObject(MakeException(*pointers, asCse));
}

}  // namespace fault
