// fault_storm THREADS COUNT [SEED]: each thread causes COUNT random faults of all kinds: in exports, in callbacks of
// exports and of the C library, in guards; on stacks of all sizes and with any remainder of them, with the traps of the
// floating-point units on. Every fault in an export must give the failure value, one line and one report; nothing may
// hang or end the process.
//
// Under the address sanitizer stacks are large and never used up or smashed: it keeps marks on every stack, which
// frames that are left without its knowledge invalidate.
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/platform/fault/fault.h"
#include "qelibaselib/settings/settings.h"
#include "qelibaselib/watchthreadstat/watchthreadstat.h"
#include "test/platform/fault/provoke.h"
#include "test/platform/fault/reports.h"
#include "test/platform/fault/thread_stack_linux.h"
#include "test/support/threads.h"

namespace {

using namespace qel::test;
using Random = std::mt19937;

constexpr int kFaultsOfOneThread = 50;  // then it ends and another one, with another stack, takes its place
#ifdef QEL_SANITIZE
constexpr size_t kRemainderOfGuard = 512 * 1024;  // all runs on the thread's own stack
constexpr size_t kStackKilobytes[] = {1024};
constexpr void (*kOtherFaults[])(int&) = {&FaultInDestructor, &FaultInDestructorWhileUnwinding, &FaultInNoexcept};
#else
constexpr size_t kRemainderOfGuard = 12'288;  // with less stack left a guard need not give the failure value
constexpr size_t kStackKilobytes[] = {16, 20, 32, 64, 256, 1024};
constexpr void (*kOtherFaults[])(int&) = {
    &FaultInDestructor,      &FaultInDestructorWhileUnwinding,      &FaultInNoexcept,
    &FaultWithDirectionFlag, [](int&) { FaultWithSmashedFrame(); }, &OverflowStack};
#endif

std::atomic<long> g_exports{0}, g_failures{0};

void FailUnless(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "fault_storm: %s\n", what);
  ++g_failures;
}

void FaultAnyhow(Random& random) {
  int destroyed = 0;
  const size_t kind = random() % (kFaultKindCount + std::size(kOtherFaults));
  if (kind < kFaultKindCount)
    kFaultKinds[kind].provoke(destroyed);
  else
    kOtherFaults[kind - kFaultKindCount](destroyed);
}

thread_local Random* t_random;  // of the thread whose comparison faults
int CompareAndFault(const void*, const void*) {
  FaultAnyhow(*t_random);
  return 0;
}

void FaultInSort(Random& random) {
  t_random = &random;
  int numbers[] = {3, 1, 2};
  std::qsort(numbers, std::size(numbers), sizeof numbers[0], &CompareAndFault);
}

void FailUnlessCaught(Random& random) {
  bool isCaught = false;
  try {
    fault::Run([&] { random() % 2 ? FaultAnyhow(random) : FaultInSort(random); });
  } catch (...) {
    isCaught = true;
  }
  FailUnless(isCaught, "a fault was not caught");
}

// A watchdog that calls once.
void FaultInWatchdog(Random& random) {
  std::atomic<const FaultKind*> kind = &kFaultKinds[random() % kFaultKindCount];
  const CWatchThreadStat watch(
      0, 0,
      [](void*, unsigned long, void* argument) {
        int destroyed = 0;
        static_cast<std::atomic<const FaultKind*>*>(argument)->exchange(nullptr)->provoke(destroyed);
      },
      &kind);
  while (kind.load()) usleep(100);
}

void FaultOnce(Random& random) {
  const unsigned place = random() % 64;
  if (place >= 8) return FailUnlessCaught(random);
  ++g_exports;
  if (place == 0)
    FaultInWatchdog(random);
  else
    FailUnless(FaultInExport(), "no failure value");
}

struct Share {
  unsigned seed;
  int faults;
};

void CauseFaults(unsigned seed, int faults) {
  Random random(seed);
  for (int i = 0; i < faults; ++i) {
    const size_t most = RemainingStack();
    const bool isUsedUp = most > kRemainderOfGuard && random() % 2 == 0;
    const size_t left = isUsedUp ? kRemainderOfGuard + random() % (most - kRemainderOfGuard) : most;
    WithStackLeft(left, [&] { FaultOnce(random); });
  }
}

// One after the other, the threads of a place in the storm.
void* RunPlace(void* argument) {
  const Share& share = *static_cast<Share*>(argument);
  Random random(share.seed);
  for (int left = share.faults; left > 0; left -= kFaultsOfOneThread) {
    const size_t stack = kStackKilobytes[random() % std::size(kStackKilobytes)] * 1024;
    const unsigned seed = random();
    OnThreadWithStack(stack, [&] { CauseFaults(seed, std::min(left, kFaultsOfOneThread)); });
  }
  return nullptr;
}

long Count(const std::string& path, const std::string& part) {
  std::ifstream file(path, std::ios::binary);
  long count = 0;
  for (std::string line; std::getline(file, line);) count += line.find(part) != std::string::npos;
  return count;
}

// A channel takes no more lines above its limit; then only reports are compared.
bool IsFull(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  return file.tellg() > static_cast<std::streamoff>(qel::kChannelLimitBytes);
}

std::string InFolder(const std::string& folder, const wchar_t* name) {
  const std::wstring wide(name);
  return folder + "/" + std::string(wide.begin(), wide.end());
}

}  // namespace

int main(int count, char** arguments) {
  const int threads = count > 1 ? std::atoi(arguments[1]) : 8;
  const int faults = count > 2 ? std::atoi(arguments[2]) : 10'000;
  const unsigned seed = count > 3 ? static_cast<unsigned>(std::atoi(arguments[3])) : std::random_device()();
  std::printf("fault_storm: %d threads, %d faults each, seed %u\n", threads, faults, seed);
  std::fflush(stdout);
  char folder[] = "/tmp/fault_storm.XXXXXX";
  if (!mkdtemp(folder)) return 2;
  VemoSetLogPath(std::wstring(folder, folder + sizeof folder - 1).c_str());

  std::vector<Share> shares;
  for (int i = 0; i < threads; ++i) shares.push_back({seed + static_cast<unsigned>(i), faults});
  std::vector<pthread_t> running(shares.size());
  for (size_t i = 0; i < shares.size(); ++i) pthread_create(&running[i], nullptr, &RunPlace, &shares[i]);
  for (const pthread_t thread : running) pthread_join(thread, nullptr);

  const std::string lines = InFolder(folder, qel::channel::kAssert.fileName);
  const std::string reports = InFolder(folder, qel::channel::kExceptionReport.fileName);
  FailUnless(IsFull(lines) || Count(lines, "_CATCH_") == g_exports, "lines are missing");
  FailUnless(Count(reports, ">>>>>>>>>> TC=") == g_exports, "reports are missing");
  std::printf("fault_storm: %ld faults in exports, %ld failures\n", g_exports.load(), g_failures.load());
  for (const std::string& path : {lines, reports}) unlink(path.c_str());
  if (rmdir(folder) != 0) std::printf("fault_storm: more files are left in %s\n", folder);
  return g_failures == 0 ? 0 : 1;
}
