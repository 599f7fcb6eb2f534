#include <cpuid.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/memory/regions.h"
#include "qelibaselib/platform/linux/win32/processthreadsapi.h"
#include "qelibaselib/platform/linux/win32/sysinfoapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr DWORD kProcessorPentium = 586;
constexpr uint32_t kFirstApplicationAddress = 0x00010000;
constexpr uint32_t kLastApplicationAddress = 0x7FFEFFFF;

struct ProcessorVersion {
  WORD level, revision;
};

// Family, and model and stepping in one number, from the identification's packed form.
ProcessorVersion VersionOf(unsigned signature) {
  const unsigned stepping = signature & 0xF, model = signature >> 4 & 0xF, family = signature >> 8 & 0xF;
  const unsigned extendedModel = signature >> 16 & 0xF, extendedFamily = signature >> 20 & 0xFF;
  const unsigned fullFamily = family == 15 ? family + extendedFamily : family;
  const unsigned fullModel = family == 6 || family == 15 ? extendedModel << 4 | model : model;
  return {static_cast<WORD>(fullFamily), static_cast<WORD>(fullModel << 8 | stepping)};
}

SYSTEM_INFO AskSystem() {
  constexpr long kMostProcessors = 32;  // as many as the mask has bits
  const DWORD processors = std::clamp(sysconf(_SC_NPROCESSORS_ONLN), 1l, kMostProcessors);
  unsigned signature = 0, b, c, d;
  __get_cpuid(1, &signature, &b, &c, &d);
  const ProcessorVersion version = VersionOf(signature);
  SYSTEM_INFO info = {};
  info.dwPageSize = kPageSize;
  info.lpMinimumApplicationAddress = PointerTo(kFirstApplicationAddress);
  info.lpMaximumApplicationAddress = PointerTo(kLastApplicationAddress);
  info.dwActiveProcessorMask = MAXDWORD >> (kMostProcessors - processors);
  info.dwNumberOfProcessors = processors;
  info.dwProcessorType = kProcessorPentium;
  info.dwAllocationGranularity = kGranularityBytes;
  info.wProcessorLevel = version.level;
  info.wProcessorRevision = version.revision;
  return info;
}

SIZE_T LimitOf(__rlimit_resource resource) {
  rlimit limit;
  if (getrlimit(resource, &limit) != 0) return kLastApplicationAddress;
  return std::min<rlim_t>(limit.rlim_cur, kLastApplicationAddress);
}

}  // namespace
}  // namespace qel::layer

// Asked when the layer is loaded: the chunk sizes of every transfer come from here, and a lock around the first
// question would be one more for a fork.
namespace {
SYSTEM_INFO g_system;
__attribute__((constructor)) void LearnSystem() { g_system = qel::layer::AskSystem(); }
}  // namespace

void GetSystemInfo(LPSYSTEM_INFO information) { *information = g_system; }

// The minimum is what may be locked in memory, the maximum what may be resident at all: neither is more than the
// physical memory that the machine or the container leaves to its processes.
BOOL GetProcessWorkingSetSize(HANDLE process, PSIZE_T minimum, PSIZE_T maximum) {
  if (process != GetCurrentProcess()) return qel::layer::ReportResult(ERROR_INVALID_HANDLE);
  MEMORYSTATUSEX memory = {};
  memory.dwLength = sizeof memory;
  GlobalMemoryStatusEx(&memory);
  *maximum = std::min<DWORDLONG>(qel::layer::LimitOf(RLIMIT_RSS), memory.ullTotalPhys);
  *minimum = std::min(qel::layer::LimitOf(RLIMIT_MEMLOCK), *maximum);
  return TRUE;
}
