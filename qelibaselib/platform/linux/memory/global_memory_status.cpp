// The memory status stands in every log line, so it is one reading of a file that is kept open, cut to what a container
// leaves. What the page cache holds counts as available: otherwise any busy file server would look full.
#include <pthread.h>
#include <sys/sysinfo.h>
#include <time.h>

#include <algorithm>
#include <atomic>

#include "qelibaselib/platform/linux/base/proc_file.h"
#include "qelibaselib/platform/linux/memory/container_memory.h"
#include "qelibaselib/platform/linux/memory/regions.h"
#include "qelibaselib/platform/linux/memory/view_table.h"
#include "qelibaselib/platform/linux/win32/sysinfoapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr DWORDLONG kTotalVirtualBytes = 0x7FFE0000;

constinit ProcFile g_machine("/proc/meminfo", "MemTotal:");
constinit ProcFile g_process("/proc/self/statm", "");

// Reading how many pages this process has mapped costs a fifth of the whole status, so the last answer is kept for a
// few milliseconds. It stands in one word with the key that it was counted under, so that threads never mix two
// answers.
constexpr uint32_t kPageCountBits = 24, kCacheKeyBits = 40;
constexpr uint64_t kUnknown = ~uint64_t{0};
constinit std::atomic<uint64_t> g_mapped{kUnknown};

// In a forked child the second file, where it is still open, goes on telling of the parent.
__attribute__((constructor)) void ReopenInForkedChildren() {
  pthread_atfork(nullptr, nullptr, [] {
    g_process.CloseInChild();
    g_mapped.store(kUnknown);
  });
}

// Differs after about 10 ms, and after a view or block was given out or back.
uint64_t CurrentCacheKey() {
  constexpr int64_t kPeriodMs = 10;
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  const uint64_t period = (now.tv_sec * 1000ll + now.tv_nsec / 1'000'000) / kPeriodMs;
  return (period << 20 | (RegionChanges() & 0xFFFFF)) & ((uint64_t{1} << kCacheKeyBits) - 1);
}

uint32_t CountMappedPages() {
  const uint64_t key = CurrentCacheKey();
  const uint64_t known = g_mapped.load(std::memory_order_relaxed);
  if (known != kUnknown && known >> kPageCountBits == key) return known & ((1u << kPageCountBits) - 1);
  char buffer[128];
  const uint32_t pages = LeadingNumber(g_process.Read(buffer, sizeof buffer));
  g_mapped.store(key << kPageCountBits | pages, std::memory_order_relaxed);
  return pages;
}

struct MachineMemory {
  DWORDLONG total, available, totalSwap, freeSwap;
};

// Where /proc is not mounted; the page cache counts as used then.
MachineMemory AskWithoutFiles() {
  struct sysinfo info = {};
  sysinfo(&info);
  const DWORDLONG unit = info.mem_unit;
  return {info.totalram * unit, (DWORDLONG{info.freeram} + info.bufferram) * unit, info.totalswap * unit,
          info.freeswap * unit};
}

MachineMemory AskMachine() {
  constexpr DWORDLONG kBytesPerKilobyte = 1024;
  char buffer[2048];  // the fields asked for stand in the first few hundred bytes
  const std::string_view text = g_machine.Read(buffer, sizeof buffer);
  FieldReader fields(text);
  MachineMemory machine = {fields.Find("MemTotal:"), fields.Find("MemAvailable:"), fields.Find("SwapTotal:"),
                           fields.Find("SwapFree:")};
  if (machine.total == 0) return AskWithoutFiles();
  for (DWORDLONG* field : {&machine.total, &machine.available, &machine.totalSwap, &machine.freeSwap})
    *field *= kBytesPerKilobyte;
  return machine;
}

// The address space less what this process has mapped anywhere, as it may also have mapped above 2 GiB.
DWORDLONG AvailableVirtualBytes() {
  const DWORDLONG mapped = DWORDLONG{CountMappedPages()} * kPageSize;
  return kTotalVirtualBytes - std::min(mapped, kTotalVirtualBytes);
}

}  // namespace
}  // namespace qel::layer

BOOL GlobalMemoryStatusEx(LPMEMORYSTATUSEX status) {
  using namespace qel::layer;
  if (status->dwLength != sizeof *status) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const MachineMemory machine = AskMachine();
  const ContainerMemory container = AskContainerMemory();
  const DWORDLONG total = std::min<DWORDLONG>(machine.total, container.total);
  const DWORDLONG available = std::min({machine.available, DWORDLONG{container.available}, total});
  status->dwMemoryLoad = total ? (total - available) * 100 / total : 0;
  status->ullTotalPhys = total;
  status->ullAvailPhys = available;
  status->ullTotalPageFile = total + machine.totalSwap;
  status->ullAvailPageFile = available + machine.freeSwap;
  status->ullTotalVirtual = kTotalVirtualBytes;
  status->ullAvailVirtual = AvailableVirtualBytes();
  status->ullAvailExtendedVirtual = 0;
  return TRUE;
}
