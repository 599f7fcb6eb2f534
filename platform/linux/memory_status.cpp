// The memory status stands in every log line, so it is one reading of a file that is kept open. What the page cache
// holds counts as available: otherwise any busy file server would look full.
#include <pthread.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>

#include "platform/linux/error.h"
#include "platform/linux/proc_file.h"
#include "platform/linux/system_info.h"

namespace qel::layer {
namespace {

constexpr DWORDLONG kTotalVirtualBytes = 0x7FFE0000;

constinit ProcFile g_machine("/proc/meminfo", "MemTotal:");
constinit ProcFile g_process("/proc/self/statm", "");

// The second file goes on telling of the parent.
__attribute__((constructor)) void ReopenInForkedChildren() {
  pthread_atfork(nullptr, nullptr, [] { g_process.CloseInChild(); });
}

struct Machine {
  DWORDLONG total, available, totalSwap, freeSwap;
};

// Where /proc is not mounted; the page cache counts as used then.
Machine AskKernel() {
  struct sysinfo info = {};
  sysinfo(&info);
  const DWORDLONG unit = info.mem_unit;
  return {info.totalram * unit, (DWORDLONG{info.freeram} + info.bufferram) * unit, info.totalswap * unit,
          info.freeswap * unit};
}

Machine AskMachine() {
  constexpr DWORDLONG kBytesPerKilobyte = 1024;
  char buffer[2048];  // the fields asked for stand in the first few hundred bytes
  const std::string_view text = g_machine.Read(buffer, sizeof buffer);
  Machine machine = {FieldOf(text, "MemTotal:", 0), FieldOf(text, "MemAvailable:", 0), FieldOf(text, "SwapTotal:", 0),
                     FieldOf(text, "SwapFree:", 0)};
  if (machine.total == 0) return AskKernel();
  for (DWORDLONG* field : {&machine.total, &machine.available, &machine.totalSwap, &machine.freeSwap})
    *field *= kBytesPerKilobyte;
  return machine;
}

// The address space less what this process has mapped anywhere, as it may also have mapped above 2 GiB.
DWORDLONG AvailableVirtualBytes() {
  char buffer[128];
  const std::string_view text = g_process.Read(buffer, sizeof buffer);
  const DWORDLONG mapped = FieldOf(text, "", 0) * static_cast<DWORDLONG>(sysconf(_SC_PAGESIZE));
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
  const Machine machine = AskMachine();
  const DWORDLONG available = std::min(machine.available, machine.total);
  status->dwMemoryLoad = machine.total ? (machine.total - available) * 100 / machine.total : 0;
  status->ullTotalPhys = machine.total;
  status->ullAvailPhys = available;
  status->ullTotalPageFile = machine.total + machine.totalSwap;
  status->ullAvailPageFile = available + machine.freeSwap;
  status->ullTotalVirtual = kTotalVirtualBytes;
  status->ullAvailVirtual = AvailableVirtualBytes();
  status->ullAvailExtendedVirtual = 0;
  return TRUE;
}
