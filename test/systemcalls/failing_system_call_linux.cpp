#include <dlfcn.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "test/systemcalls/failing_system_call.h"

extern "C" int __sigaction(int, const struct sigaction*, struct sigaction*) noexcept;  // NOLINT

// The only instructions whose system calls the kernel does not hand over: one call on behalf of who made it, to whom
// the handler has put the way back on the stack, and the return from the handler.
extern "C" char qel_passed_begin[], qel_passed_call[], qel_passed_return[], qel_passed_end[];  // NOLINT
asm(R"(
  .pushsection .text
  qel_passed_begin:
  qel_passed_call:
    int $0x80
    ret
  qel_passed_return:
    movl $173, %eax
    int $0x80
    nop
  qel_passed_end:
  .popsection
)");

namespace qel::test {
namespace {

constexpr int kDispatch = 59;  // PR_SET_SYSCALL_USER_DISPATCH, which older headers lack
constexpr char kAllow = 0, kBlock = 1;
constexpr int kMostCalls = 20000;

volatile char g_selector = kAllow;
SystemCallFailure g_failure;
int g_count = 0;
long g_failingNumber = -1;
long g_numbers[kMostCalls];

// As the kernel takes it: the C library's own would return through an instruction outside our range.
struct KernelAction {
  void (*handler)(int, siginfo_t*, void*);
  unsigned long flags;
  char* restorer;
  unsigned long mask[2];
};

// The state of an open file of the kernel's own can always be read.
bool IsSafeStatus(long number, const greg_t* registers) {
  const bool byDescriptor = number == SYS_statx && (registers[REG_EDX] & AT_EMPTY_PATH) &&
                            *reinterpret_cast<const char*>(registers[REG_ECX]) == 0;
  if (!byDescriptor) return false;
  char name[32], target[8] = "";
  std::snprintf(name, sizeof name, "/proc/self/fd/%d", static_cast<int>(registers[REG_EBX]));
  return readlink(name, target, sizeof target) > 0 &&
         (std::strncmp(target, "/dev/shm", 8) == 0 || std::strncmp(target, "/proc", 5) == 0 ||
          std::strncmp(target, "/memfd:", 7) == 0);
}

bool IsWake(long number, const greg_t* registers) {
  return (number == SYS_futex || number == SYS_futex_time64) && (registers[REG_ECX] & FUTEX_CMD_MASK) == FUTEX_WAKE;
}

bool FailsNow(long number) {
  if (g_count == g_failure.nth) {
    g_failingNumber = number;
    return true;
  }
  return g_failure.forEver && number == g_failingNumber;
}

// Lets the thread make the call on return. A new thread starts on a stack of its own, with the same way back.
void Pass(greg_t* registers, long number) {
  if (number == SYS_clone && registers[REG_ECX] != 0) {
    registers[REG_ECX] -= static_cast<greg_t>(sizeof(greg_t));
    *reinterpret_cast<greg_t*>(registers[REG_ECX]) = registers[REG_EIP];
  }
  registers[REG_ESP] -= static_cast<greg_t>(sizeof(greg_t));
  *reinterpret_cast<greg_t*>(registers[REG_ESP]) = registers[REG_EIP];
  registers[REG_EAX] = number;
  registers[REG_EIP] = reinterpret_cast<greg_t>(qel_passed_call);
}

// Changes the mask that the thread gets back when the handler returns. Our own signal stays unblocked.
long ChangeMask(ucontext_t& machine) {
  const greg_t* registers = machine.uc_mcontext.gregs;
  auto* now = reinterpret_cast<uint64_t*>(&machine.uc_sigmask);
  const auto* asked = reinterpret_cast<const uint64_t*>(registers[REG_ECX]);
  auto* former = reinterpret_cast<uint64_t*>(registers[REG_EDX]);
  const uint64_t before = *now;
  if (asked) {
    const uint64_t set = *asked & ~(uint64_t{1} << (SIGSYS - 1));
    *now = registers[REG_EBX] == SIG_SETMASK ? set : registers[REG_EBX] == SIG_BLOCK ? before | set : before & ~set;
  }
  if (former) *former = before;
  return 0;
}

void Answer(int, siginfo_t* information, void* machine) {
  g_selector = kAllow;
  greg_t* registers = static_cast<ucontext_t*>(machine)->uc_mcontext.gregs;
  const long number = information->si_syscall;
  if (g_count < kMostCalls) g_numbers[g_count++] = number;
  const SystemCallErrors* row = FailsNow(number) && !IsSafeStatus(number, registers) && !IsWake(number, registers)
                                    ? FindSystemCallErrors(number)
                                    : nullptr;
  // A busy machine may have put another call, a wait for a lock, in the place of the counted one.
  if (row && std::ranges::find(row->errors, g_failure.error) == row->errors.end()) row = nullptr;
  if (row && row->isMadeAllTheSame) syscall(number, registers[REG_EBX], registers[REG_ECX], registers[REG_EDX]);
  if (row)
    registers[REG_EAX] = -g_failure.error;
  else if (number == SYS_clone3)  // the C library then takes clone, which is simpler to pass on
    registers[REG_EAX] = -ENOSYS;
  else if (number == SYS_rt_sigprocmask)
    registers[REG_EAX] = ChangeMask(*static_cast<ucontext_t*>(machine));
  else
    Pass(registers, number);
  g_selector = kBlock;
}

// What the layer had set for our signal.
struct sigaction g_former;
bool g_isOurs = false;

bool Dispatch() { return prctl(kDispatch, 1, qel_passed_begin, qel_passed_end - qel_passed_begin, &g_selector) == 0; }

}  // namespace
}  // namespace qel::test

// Stands before the C library's: the layer, which claims its signals back now and then, still sees its own handler.
extern "C" __attribute__((visibility("default"))) int __sigaction(int signal, const struct sigaction* action,
                                                                  struct sigaction* former) noexcept {  // NOLINT
  static const auto real = reinterpret_cast<decltype(&sigaction)>(dlsym(RTLD_NEXT, "__sigaction"));
  if (signal != SIGSYS || !qel::test::g_isOurs) return real(signal, action, former);
  if (former) *former = qel::test::g_former;
  return 0;
}

namespace qel::test {

bool FailingSystemCall::IsPossible() {
  const bool possible = Dispatch();
  prctl(kDispatch, 0, 0, 0, 0);
  return possible;
}

FailingSystemCall::FailingSystemCall(SystemCallFailure failure) {
  constexpr unsigned long kHasRestorer = 0x04000000;
  const KernelAction action{&Answer, SA_SIGINFO | SA_NODEFER | kHasRestorer, qel_passed_return, {}};
  if (!g_isOurs) __sigaction(SIGSYS, nullptr, &g_former);
  g_isOurs = true;
  syscall(SYS_rt_sigaction, SIGSYS, &action, nullptr, sizeof action.mask);
  Dispatch();
  g_failure = failure;
  g_count = 0;
  g_failingNumber = -1;
  g_selector = kBlock;
}

void FailingSystemCall::Stop() { g_selector = kAllow; }

int FailingSystemCall::Count() { return g_count; }

long FailingSystemCall::Number(int nth) { return g_numbers[nth - 1]; }

}  // namespace qel::test
