// fault_storm THREADS COUNT [SEED]: each thread causes COUNT random faults: in exports, in guards around callbacks, by
// overflowing its stack, on stacks of all sizes and with any remainder of them. Every fault in an export must give the
// failure value, one line and one report; nothing may hang or end the process.
#include <alloca.h>
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

#include "qelibaselib/file/file.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/platform/fault/fault.h"
#include "qelibaselib/settings/settings.h"

namespace {

using Random = std::mt19937;

constexpr size_t kStackKilobytes[] = {16, 20, 32, 64, 256, 1024};
constexpr int kFaultsOfOneThread = 50;        // then it ends and another one, with another stack, takes its place
constexpr size_t kRemainderOfGuard = 12'288;  // with less stack left a guard need not give the failure value

std::atomic<long> g_exports{0}, g_failures{0};

void* BadAddress(Random& random) { return reinterpret_cast<void*>(random() % 4096); }

void FailUnless(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "fault_storm: %s\n", what);
  ++g_failures;
}

void FaultInExport(Random& random) {
  WIN32_FIND_DATAW data;
  ++g_exports;
  FailUnless(GetFileSizeX(L"/", &data, static_cast<DWORD*>(BadAddress(random))) == 0, "no failure value");
}

volatile int g_sink;
volatile bool g_endless = true;
__attribute__((noipa)) int Recurse(int depth) {
  volatile char filler[200];
  filler[0] = static_cast<char>(depth);
  return g_endless ? Recurse(depth + 1) + filler[0] : 0;
}

void Fault(Random& random) {
  switch (random() % 6) {
    case 0:
      g_sink = *static_cast<volatile int*>(BadAddress(random));
      break;
    case 1:
      *static_cast<volatile int*>(BadAddress(random)) = 1;
      break;
    case 2:
      g_sink = 1 / (g_sink - g_sink);
      break;
    case 3:
      __asm__ __volatile__("ud2");
      break;
    case 4:
      reinterpret_cast<void (*)()>(BadAddress(random))();
      break;
    default:
      g_sink = Recurse(0);
  }
}

bool IsCaught(Random& random) {
  try {
    fault::Run([&] { Fault(random); });
  } catch (...) {
    return true;
  }
  return false;
}

size_t StackLeft() {
  pthread_attr_t attributes;
  pthread_getattr_np(pthread_self(), &attributes);
  void* low = nullptr;
  size_t bytes = 0;
  pthread_attr_getstack(&attributes, &low, &bytes);
  pthread_attr_destroy(&attributes);
  return static_cast<size_t>(static_cast<char*>(__builtin_frame_address(0)) - static_cast<char*>(low));
}

__attribute__((noipa)) void FaultOnce(Random& random) {
  const size_t left = StackLeft();
  if (left > kRemainderOfGuard && random() % 2 == 0) {
    void* skipped = alloca(random() % (left - kRemainderOfGuard));
    __asm__ __volatile__("" : : "r"(skipped) : "memory");
  }
  if (random() % 8 == 0) return FaultInExport(random);
  FailUnless(IsCaught(random), "a fault was not caught");
}

struct Share {
  unsigned seed;
  int faults;
};

void* CauseFaults(void* argument) {
  const Share& share = *static_cast<Share*>(argument);
  Random random(share.seed);
  for (int i = 0; i < share.faults; ++i) FaultOnce(random);
  return nullptr;
}

// One after the other, the threads of a place in the storm.
void* RunPlace(void* argument) {
  const Share& share = *static_cast<Share*>(argument);
  Random random(share.seed);
  for (int left = share.faults; left > 0; left -= kFaultsOfOneThread) {
    Share part{static_cast<unsigned>(random()), std::min(left, kFaultsOfOneThread)};
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStackKilobytes[random() % std::size(kStackKilobytes)] * 1024);
    pthread_t thread;
    const bool started = pthread_create(&thread, &attributes, &CauseFaults, &part) == 0;
    FailUnless(started, "no thread");
    if (started) pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
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
  FailUnless(IsFull(lines) || Count(lines, "_CATCH_AE") == g_exports, "lines are missing");
  FailUnless(Count(reports, ">>>>>>>>>> TC=") == g_exports, "reports are missing");
  std::printf("fault_storm: %ld faults in exports, %ld failures\n", g_exports.load(), g_failures.load());
  for (const std::string& path : {lines, reports}) unlink(path.c_str());
  if (rmdir(folder) != 0) std::printf("fault_storm: more files are left in %s\n", folder);
  return g_failures == 0 ? 0 : 1;
}
