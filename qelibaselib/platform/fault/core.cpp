// The thrower: from the guard of a faulting thread to an exception in flight.
#include <cxxabi.h>
#include <unwind.h>

#include <cstring>
#include <new>
#include <typeinfo>

#include "qelibaselib/platform/fault/guard_frame.h"

namespace fault {
namespace {

// What is thrown on a thread without a translator. Nobody else can name it.
struct UntranslatedException {};

// A destructor that faults cuts the unwinding of a fault short and the next one starts in its place. Where that goes on
// for ever, the destructors that are left are given up.
constexpr uint32_t kMostReplaced = 200;

// The first words of __cxa_eh_globals, fixed by the C++ ABI.
struct ThreadExceptions {
  void* caught;
  unsigned int uncaught;
};
ThreadExceptions* CurrentExceptions() { return reinterpret_cast<ThreadExceptions*>(abi::__cxa_get_globals()); }

// Reads the exception tables that the compiler writes for each function (LSDA).
class TableReader {
 public:
  explicit TableReader(const uint8_t* position) : position_(position) {}
  const uint8_t* position() const { return position_; }
  uint8_t Byte() { return *position_++; }
  uintptr_t Uleb128() {
    uintptr_t value = 0;
    uint8_t byte;
    unsigned int shift = 0;
    do {
      byte = Byte();
      value |= static_cast<uintptr_t>(byte & 0x7F) << shift;
      shift += 7;
    } while (byte & 0x80);
    return value;
  }
  uintptr_t Encoded(uint8_t encoding) {
    switch (encoding & 0x0F) {
      case kUleb128:
        return Uleb128();
      case kUdata2:
        return Fixed<uint16_t>();
      default:
        return Fixed<uint32_t>();
    }
  }
  static constexpr uint8_t kOmitted = 0xFF;

 private:
  static constexpr uint8_t kUleb128 = 1, kUdata2 = 2;
  template <class Value>
  Value Fixed() {
    Value value;
    std::memcpy(&value, position_, sizeof value);
    position_ += sizeof value;
    return value;
  }
  const uint8_t* position_;
};

// Whether an exception may pass the frame: an instruction that no entry of the call-site table covers (a noexcept
// function, a prologue, a call that the compiler takes for one that never throws) would end the process.
bool MayPass(_Unwind_Context* context) {
  const auto* table = static_cast<const uint8_t*>(_Unwind_GetLanguageSpecificData(context));
  if (!table) return true;
  int beforeInstruction = 0;
  uintptr_t ip = _Unwind_GetIPInfo(context, &beforeInstruction);
  if (!beforeInstruction) --ip;
  const uintptr_t offset = ip - _Unwind_GetRegionStart(context);

  TableReader reader(table);
  const uint8_t landingPadEncoding = reader.Byte();
  if (landingPadEncoding != TableReader::kOmitted) reader.Encoded(landingPadEncoding);
  const uint8_t typeEncoding = reader.Byte();
  if (typeEncoding != TableReader::kOmitted) reader.Uleb128();
  const uint8_t callSiteEncoding = reader.Byte();
  const uintptr_t callSiteBytes = reader.Uleb128();
  const uint8_t* const end = reader.position() + callSiteBytes;
  while (reader.position() < end) {
    const uintptr_t start = reader.Encoded(callSiteEncoding);
    const uintptr_t length = reader.Encoded(callSiteEncoding);
    reader.Encoded(callSiteEncoding);  // landing pad
    reader.Uleb128();                  // action
    if (offset < start) return false;
    if (offset < start + length) return true;
  }
  return false;
}

// What the thrower and the unwinder take of the stack at most.
constexpr uintptr_t kThrowerBytes = 64 * 1024;

bool IsInside(uintptr_t returnAddress, const void* begin, const void* end) {
  return returnAddress > reinterpret_cast<uintptr_t>(begin) && returnAddress <= reinterpret_cast<uintptr_t>(end);
}

struct Walk {
  const GuardFrame* guard;
  bool pastThunk;  // the frames before it are the thrower's own, perhaps on another stack
  bool reached;
  uintptr_t stack;
};

_Unwind_Reason_Code VisitFrame(_Unwind_Context* context, void* argument) {
  constexpr int kEbp = 5;
  Walk& walk = *static_cast<Walk*>(argument);
  const uintptr_t ip = _Unwind_GetIP(context);
  if (!walk.pastThunk) {
    walk.pastThunk = IsInside(ip, fault_thunk, fault_thunk_end);
    return _URC_NO_REASON;
  }
  if (IsInside(ip, fault_frame_begin, fault_frame_end) && _Unwind_GetGR(context, kEbp) == walk.guard->frame) {
    walk.reached = true;
    return _URC_NORMAL_STOP;
  }
  const uintptr_t stack = _Unwind_GetCFA(context);
  const bool older = stack > walk.stack && stack < walk.guard->frame;  // what a sound chain of frames is
  walk.stack = stack;
  return older && MayPass(context) ? _URC_NO_REASON : _URC_NORMAL_STOP;
}

// Whether an exception thrown at the fault arrives at the guard. A fault in here (the stack is smashed) does not come
// back: the front end sees kSearching and goes to fault_frame_recover.
bool CanReachGuard(const GuardFrame* guard) {
  Walk walk{guard, false, false, 0};
  _Unwind_Backtrace(VisitFrame, &walk);
  return walk.reached;
}

[[noreturn]] void GoToGuard(const GuardFrame* guard) {
  __asm__ __volatile__("movl %0, %%ebp\n\tjmp *%1" : : "r"(guard->frame), "r"(fault_frame_recover) : "memory");
  __builtin_unreachable();
}

// The frames that were left without being unwound, the examination of the way among them, have marked their parts of
// the stack, on which others stand now.
#ifdef __SANITIZE_ADDRESS__
extern "C" void __asan_unpoison_memory_region(const volatile void* address, size_t bytes);
#define QEL_NOT_SANITIZED __attribute__((no_sanitize_address))
QEL_NOT_SANITIZED void ForgetSkippedFrames(const GuardFrame* guard) {
  const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  const uintptr_t low = (guard->esp < here && here - guard->esp < kThrowerBytes ? guard->esp : here) - kThrowerBytes;
  __asan_unpoison_memory_region(reinterpret_cast<void*>(low), guard->frame - low);
}
#else
#define QEL_NOT_SANITIZED
void ForgetSkippedFrames(const GuardFrame*) {}
#endif

// Enters the throw in the guard. Exceptions that were in flight and whose unwinding the fault cut short are out of the
// world now: the count of uncaught exceptions is put right. Returns whether the guard has had enough of them.
bool NoteThrow(GuardFrame* guard) {
  ThreadExceptions* exceptions = CurrentExceptions();
  const bool again = guard->state & kThrown;
  guard->state = (guard->state & ~kSearching) | kThrown;
  if (again && exceptions->uncaught > guard->uncaughtBefore) {
    exceptions->uncaught = guard->uncaughtBefore;
    return ++guard->replaced > kMostReplaced;
  }
  guard->uncaughtBefore = exceptions->uncaught;
  guard->replaced = 0;
  return false;
}

// Whether this runs below the place of the fault, and not on another stack.
bool IsBelowFault(const GuardFrame* guard) {
  const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  return guard->esp > here && guard->esp - here < kThrowerBytes && guard->esp < reinterpret_cast<uintptr_t>(guard);
}

[[noreturn]] void Throw(GuardFrame* guard) {
  EXCEPTION_POINTERS pointers{&guard->record, &guard->context};
  const DWORD code = guard->record.ExceptionCode;
  const Translator translator = ThreadTranslator();
  if (translator && code != kForeignCppException) translator(code, &pointers);
  throw UntranslatedException{};
}

}  // namespace

extern "C" __attribute__((used, noreturn)) QEL_FAULT_HIDDEN void fault_throw(GuardFrame* guard) {
  if (!CanReachGuard(guard) || NoteThrow(guard)) GoToGuard(guard);
  if (IsBelowFault(guard)) guard->state |= kStackKept;
  PrepareThrow(guard);
  Throw(guard);
}

extern "C" __attribute__((used, noreturn)) QEL_FAULT_HIDDEN QEL_NOT_SANITIZED void fault_throw_from_guard(
    GuardFrame* guard) {
  ForgetSkippedFrames(guard);
  NoteThrow(guard);
  PrepareThrow(guard);
  Throw(guard);
}

extern "C" __attribute__((used, noreturn)) QEL_FAULT_HIDDEN void fault_leave_by_exception(
    GuardFrame* guard, _Unwind_Exception* exception) {
  fault_leave(guard);
  _Unwind_Resume(exception);
  __builtin_unreachable();
}

Translator SetTranslator(Translator translator) {
  const Translator previous = ThreadTranslator();
  SetThreadTranslator(translator);
  return previous;
}

// The thread is "interrupted" in here, so that the unwinder finds every register of the callers.
__attribute__((noinline)) void ThrowInGuard(GuardFrame& guard, const EXCEPTION_RECORD& record, const CONTEXT& context) {
  guard.state = (guard.state & kThrown) | kSearching;
  guard.record = record;
  guard.context = context;
  __asm__ __volatile__(
      "call 1f\n"
      "1:\tpopl %c[eip](%[guard])\n\t"
      "movl %%esp, %c[esp](%[guard])\n\t"
      "movl %%ebp, %c[ebp](%[guard])\n\t"
      "movl %%ebx, %c[ebx](%[guard])\n\t"
      "movl %%esi, %c[esi](%[guard])\n\t"
      "movl %%edi, %c[edi](%[guard])\n\t"
      "movl %[guard], %%ebp\n\t"
      "subl %[redZone], %%esp\n\t"
      "andl %[alignment], %%esp\n\t"
      "jmp *%[thunk]"
      :
      : [guard] "r"(&guard), [thunk] "r"(fault_thunk), [eip] "i"(offsetof(GuardFrame, eip)),
        [esp] "i"(offsetof(GuardFrame, esp)), [ebp] "i"(offsetof(GuardFrame, ebp)),
        [ebx] "i"(offsetof(GuardFrame, ebx)), [esi] "i"(offsetof(GuardFrame, esi)),
        [edi] "i"(offsetof(GuardFrame, edi)), [redZone] "i"(kRedZoneBytes),
        [alignment] "i"(-static_cast<int>(kStackAlignment))
      : "memory");
  __builtin_unreachable();
}

// What the sanitizer puts around a block of the stack would stand on the frames that are to be read.
#ifdef __SANITIZE_ADDRESS__
void CallBelow(const CONTEXT&, void (*body)(void*), void* argument) { body(argument); }
#else
__attribute__((noinline)) void CallBelow(const CONTEXT& context, void (*body)(void*), void* argument) {
  constexpr uintptr_t kFarthest = 1024 * 1024;
  constexpr uintptr_t kRoomBytes = 128 * 1024;  // for whatever `body` does
  const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  const uintptr_t fault = context.Esp, limit = StackLimit();
  if (fault < here && here - fault < kFarthest && fault > limit && fault - limit > kRoomBytes) {
    void* skipped = __builtin_alloca(here - fault + kRedZoneBytes);
    __asm__ __volatile__("" : : "r"(skipped) : "memory");
  }
  body(argument);
}
#endif

void ThrowCse(unsigned int, EXCEPTION_POINTERS* pointers) {
  throw CSE{*pointers->ExceptionRecord, *pointers->ContextRecord};
}

// What `throw` does, except that it survives when the search for a handler finds none. The translator of the library is
// not called but imitated: its own throw would end the process then.
void ThrowIfCaught(EXCEPTION_POINTERS* pointers) {
  const DWORD code = pointers->ExceptionRecord->ExceptionCode;
  const Translator translator = code == kForeignCppException ? nullptr : ThreadTranslator();
  const bool asCse = translator == &ThrowCse;
  if (translator && !asCse) translator(code, pointers);

  void* object = abi::__cxa_allocate_exception(asCse ? sizeof(CSE) : sizeof(UntranslatedException));
  if (asCse) new (object) CSE{*pointers->ExceptionRecord, *pointers->ContextRecord};
  const std::type_info& type = asCse ? typeid(CSE) : typeid(UntranslatedException);
  void* header = abi::__cxa_init_primary_exception(object, const_cast<std::type_info*>(&type), nullptr);
  *static_cast<int*>(header) = 1;  // the reference that the catch clause gives back
  auto* unwind = reinterpret_cast<_Unwind_Exception*>(static_cast<char*>(object) - sizeof(_Unwind_Exception));
  ThreadExceptions* exceptions = CurrentExceptions();
  ++exceptions->uncaught;
  _Unwind_RaiseException(unwind);  // comes back when nobody catches
  --exceptions->uncaught;
  abi::__cxa_free_exception(object);
}

}  // namespace fault
