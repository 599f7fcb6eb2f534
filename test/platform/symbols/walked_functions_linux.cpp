#include "test/platform/symbols/walked_functions_linux.h"

#include <alloca.h>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>

#define QEL_OWN_FRAME __attribute__((noipa, noinline))

namespace qel::test {
namespace {

QEL_OWN_FRAME int Leaf(int value) { return value * 3 + 1; }

QEL_OWN_FRAME int Recurse(int depth, int value) { return depth == 0 ? Leaf(value) : Recurse(depth - 1, value) + 1; }

QEL_OWN_FRAME int TailCall(int value) { return Leaf(value + 1); }

QEL_OWN_FRAME int WithManyRegisters(int a, int b, int c) {
  int sum = 0;
  for (int i = 0; i < 3; ++i) sum += Leaf(a + i) * Leaf(b - i) + Leaf(c ^ i) * a - b * c;
  return sum;
}

QEL_OWN_FRAME int WithMovingStack(int size) {
  auto* room = static_cast<char*>(alloca(size % 200 + 16));
  std::memset(room, size, size % 200 + 16);
  return Leaf(room[3]);
}

QEL_OWN_FRAME int WithAlignedStack(int value) {
  alignas(64) volatile int room[16] = {value};
  return Leaf(room[0]);
}

QEL_OWN_FRAME int WithAlignedMovingStack(int value) {
  alignas(64) volatile int room[16] = {value};
  auto* more = static_cast<volatile char*>(alloca(value % 100 + 1));
  more[0] = static_cast<char>(value);
  return Leaf(room[0] + more[0]);
}

__attribute__((force_align_arg_pointer)) QEL_OWN_FRAME int WithEntryThatAligns(int value) {
  return Leaf(value) + Leaf(value + 1);
}

QEL_OWN_FRAME int WithAnyArguments(int count, ...) {
  std::va_list arguments;
  va_start(arguments, count);
  int sum = 0;
  while (count-- > 0) sum += Leaf(va_arg(arguments, int));
  va_end(arguments);
  return sum;
}

__attribute__((stdcall)) QEL_OWN_FRAME int ThatPopsItsArguments(int a, int b) { return Leaf(a) + Leaf(b); }

QEL_OWN_FRAME int Compare(const void* left, const void* right) {
  return Leaf(*static_cast<const int*>(left)) - Leaf(*static_cast<const int*>(right));
}

QEL_OWN_FRAME int WithCallback(int value) {
  int numbers[] = {value, 5, 1, 9, value + 2, 3};
  std::qsort(numbers, 6, sizeof numbers[0], &Compare);
  return numbers[2];
}

struct CountsItsEnd {
  int& count;
  QEL_OWN_FRAME ~CountsItsEnd() { ++count; }
};

QEL_OWN_FRAME void Throw(int value, int& count) {
  const CountsItsEnd ends{count};
  if (value != -1) throw std::runtime_error("thrown");
}

QEL_OWN_FRAME int ThatCatches(int value) {
  int count = 0;
  try {
    Throw(value, count);
  } catch (const std::exception& e) {
    count += static_cast<int>(std::strlen(e.what()));
  }
  return count;
}

QEL_OWN_FRAME int InLibraries(int value) {
  char text[80];
  std::snprintf(text, sizeof text, "%d %.3f %s", value, value / 7.0, "text");
  const std::string copy = text;
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int>(std::strlen(std::strchr(copy.c_str(), ' '))) + static_cast<int>(now.tv_nsec & 1);
}

volatile std::sig_atomic_t g_signals = 0;
void CountSignal(int) { g_signals = g_signals + Leaf(0); }

QEL_OWN_FRAME int WithSignal() {
  std::signal(SIGUSR1, &CountSignal);
  std::raise(SIGUSR1);
  std::signal(SIGUSR1, SIG_DFL);
  return g_signals;
}

}  // namespace

int CallEveryShape(int seed) {
  int sum = Recurse(seed % 9, seed) + TailCall(seed) + WithManyRegisters(seed, seed + 1, seed + 2);
  sum += WithMovingStack(seed) + WithAlignedStack(seed) + WithAlignedMovingStack(seed) + WithEntryThatAligns(seed);
  sum += WithAnyArguments(3, seed, 2, 3) + ThatPopsItsArguments(seed, sum) + WithCallback(seed) + ThatCatches(seed);
  return sum + InLibraries(seed) + WithSignal();
}

}  // namespace qel::test
