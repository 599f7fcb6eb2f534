// The walk against the compiler's own unwinder, at each instruction of a program that steps through itself; and what
// the debugger asks for that compares it with its own (walk_by_gdb.py).
#include <link.h>
#include <ucontext.h>
#include <unwind.h>

#include <csignal>
#include <cstdio>

#include "qelibaselib/platform/fault/fault.h"
#include "test/platform/symbols/named_place.h"
#include "test/platform/symbols/walked_functions_linux.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

struct Place {
  DWORD counter, stack;
  bool operator==(const Place&) const = default;
};

// Nothing is allocated while the program steps through its allocator.
struct Places {
  static constexpr int kMost = 200;
  Place list[kMost];
  int count = 0;
  bool isComplete = false;  // its last frame is known to have no caller
  void Add(const Place& place) {
    if (count < kMost) list[count++] = place;
  }
};

// Behind the frames of the handler come the interrupted one and its callers.
struct Reference {
  DWORD interrupted;
  bool isReached = false;
  bool isSound = true;
  Places places;
};

bool IsCode(DWORD address) {
  const auto examine = [](dl_phdr_info* module, size_t, void* wanted) {
    for (const auto* segment = module->dlpi_phdr; segment != module->dlpi_phdr + module->dlpi_phnum; ++segment) {
      const DWORD offset = *static_cast<DWORD*>(wanted) - module->dlpi_addr - segment->p_vaddr;
      if (segment->p_type == PT_LOAD && (segment->p_flags & PF_X) != 0 && offset < segment->p_memsz) return 1;
    }
    return 0;
  };
  return dl_iterate_phdr(examine, &address) == 1;
}

_Unwind_Reason_Code AddReference(_Unwind_Context* context, void* argument) {
  auto& reference = *static_cast<Reference*>(argument);
  int isInterrupted = 0;
  const DWORD counter = _Unwind_GetIPInfo(context, &isInterrupted);
  if (isInterrupted && counter == reference.interrupted) reference.isReached = true;
  if (!reference.isReached) return _URC_NO_REASON;
  if (counter == 0) {
    reference.places.isComplete = true;
  } else {
    reference.places.Add({counter, static_cast<DWORD>(_Unwind_GetCFA(context))});
    if (!IsCode(counter)) reference.isSound = false;
  }
  return _URC_NO_REASON;
}

CONTEXT ContextOf(const ucontext_t& interrupted) {
  const auto& registers = interrupted.uc_mcontext.gregs;
  CONTEXT context{};
  context.Eax = registers[REG_EAX];
  context.Ebx = registers[REG_EBX];
  context.Ecx = registers[REG_ECX];
  context.Edx = registers[REG_EDX];
  context.Esi = registers[REG_ESI];
  context.Edi = registers[REG_EDI];
  context.Eip = registers[REG_EIP];
  context.Esp = registers[REG_ESP];
  context.Ebp = registers[REG_EBP];
  return context;
}

Places WalkFrom(CONTEXT context) {
  Places places;
  STACKFRAME frame{};
  frame.AddrPC.Offset = context.Eip;
  frame.AddrStack.Offset = context.Esp;
  frame.AddrFrame.Offset = context.Ebp;
  while (StackWalk(IMAGE_FILE_MACHINE_I386, GetCurrentProcess(), GetCurrentThread(), &frame, &context, nullptr, nullptr,
                   nullptr, nullptr)) {
    places.Add({frame.AddrPC.Offset, frame.AddrStack.Offset});
  }
  return places;
}

// Where the reference knows no table for a frame, ours may go on.
bool Agree(const Places& ours, const Places& reference) {
  if (ours.count < reference.count || (reference.isComplete && ours.count > reference.count)) return false;
  return std::equal(reference.list, reference.list + reference.count, ours.list);
}

struct Mismatch {
  Places ours, reference;
};
constexpr int kMostMismatches = 10;
Mismatch g_mismatches[kMostMismatches];
int g_mismatchCount = 0;
int g_steps = 0;
int g_complete = 0;
int g_unsound = 0;

DWORD g_outermost = 0;

// The tables of some functions in assembler are wrong: the compiler's unwinder faults there, takes data for code or
// ends early. It does so too between the last instructions before a handler of an exception, where the handler's start
// stands for a return address.
Reference ReferenceFrom(const CONTEXT& context) {
  Reference reference{context.Eip, false, true, {}};
  try {
    fault::Run([&] { _Unwind_Backtrace(&AddReference, &reference); });
  } catch (...) {
    reference.isSound = false;
  }
  if (reference.places.isComplete) {
    const DWORD outermost = reference.places.list[reference.places.count - 1].counter;
    if (g_outermost == 0) g_outermost = outermost;
    if (outermost != g_outermost) reference.isSound = false;
  }
  return reference;
}

void CompareWalks(int, siginfo_t*, void* interrupted) {
  const CONTEXT context = ContextOf(*static_cast<ucontext_t*>(interrupted));
  const Reference reference = ReferenceFrom(context);
  const Places ours = WalkFrom(context);
  ++g_steps;
  if (!reference.isSound) {
    ++g_unsound;
    return;
  }
  if (reference.places.isComplete) ++g_complete;
  if (Agree(ours, reference.places) || g_mismatchCount == kMostMismatches) return;
  g_mismatches[g_mismatchCount++] = {ours, reference.places};
}

void SetStepping(bool on) {
  constexpr unsigned kTrapFlag = 0x100;
  unsigned flags = __builtin_ia32_readeflags_u32();
  __builtin_ia32_writeeflags_u32(on ? flags | kTrapFlag : flags & ~kTrapFlag);
}

std::string Describe(const Places& places) {
  std::string text;
  for (int i = 0; i < places.count; ++i) {
    char line[300];
    const NamedPlace place = NameOf(places.list[i].counter);
    std::snprintf(line, sizeof line, "  %08lx %08lx %s + %lu\n", places.list[i].counter, places.list[i].stack,
                  place.name.c_str(), place.displacement);
    text += line;
  }
  return text;
}

TEST(StackWalk, AgreesWithTheCompilersUnwinderAtEachInstruction) {
  SKIP_UNDER_ASAN();
  const Session session;
  struct sigaction action {
  }, before;
  action.sa_sigaction = &CompareWalks;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGTRAP, &action, &before);
  SetStepping(true);
  CallEveryShape(7);
  SetStepping(false);
  sigaction(SIGTRAP, &before, nullptr);
  EXPECT_GT(g_steps, 10'000);
  EXPECT_GT(g_complete, g_steps * 9 / 10);
  EXPECT_LT(g_unsound, g_steps / 50);
  for (int i = 0; i < g_mismatchCount; ++i) {
    ADD_FAILURE() << "ours:\n"
                  << Describe(g_mismatches[i].ours) << "reference:\n"
                  << Describe(g_mismatches[i].reference);
  }
  std::printf("%d steps, %d of them to the outermost frame, %d without a reference\n", g_steps, g_complete, g_unsound);
}

// The debugger fills the first, calls the function and reads the second, by their places alone: it knows no types.
extern "C" {
__attribute__((used)) DWORD g_debuggersRegisters[9];
__attribute__((used)) Places g_debuggersPlaces;
__attribute__((used, noipa)) void WalkForDebugger() {
  CONTEXT context{};
  DWORD* const registers[] = {&context.Eax, &context.Ebx, &context.Ecx, &context.Edx, &context.Esi,
                              &context.Edi, &context.Eip, &context.Esp, &context.Ebp};
  for (int i = 0; i < 9; ++i) *registers[i] = g_debuggersRegisters[i];
  g_debuggersPlaces = WalkFrom(context);
}
}

CHILD_ROLE(WalkedByDebugger) {
  SymInitialize(GetCurrentProcess(), nullptr, TRUE);
  for (int seed = 1; seed < 20; ++seed) CallEveryShape(seed);
  return 0;
}

}  // namespace
}  // namespace qel::test
