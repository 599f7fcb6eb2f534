#include "qelibaselib/settings/processor.h"

#include <omp.h>

#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/settings/processor_record.h"
#include "qelibaselib/settings/thread_record.h"
#include "qelibaselib/settings/version_reader.h"

namespace {

constinit DWORD g_processorCount = 1;
constinit int g_imageSizeThreshold = 98304;
constinit OSVERSIONINFOEXW g_systemVersion = {};

// Whether the ID flag can be changed, which tells that there is a CPUID instruction.
bool HasCpuid() {
  constexpr DWORD kIdFlag = 0x200000;
  DWORD before;
  DWORD after;
  __asm__ volatile(
      "pushfl\n\t"
      "pushfl\n\t"
      "popl %0\n\t"
      "movl %0, %1\n\t"
      "xorl %2, %1\n\t"
      "pushl %1\n\t"
      "popfl\n\t"
      "pushfl\n\t"
      "popl %1\n\t"
      "popfl"
      : "=&r"(before), "=&r"(after)
      : "ri"(kIdFlag)
      : "cc", "memory");
  return ((before ^ after) & kIdFlag) != 0;
}

struct CpuidResult {
  DWORD eax, ebx, ecx, edx;
};

CpuidResult RunCpuid(DWORD leaf) {
  CpuidResult result;
  __asm__ volatile("cpuid" : "=a"(result.eax), "=b"(result.ebx), "=c"(result.ecx), "=d"(result.edx) : "0"(leaf));
  return result;
}

int LimitThreadCount(int count) {
  if (omp_get_dynamic() == 0 || count < 0) return 1;
  const int processors = static_cast<int>(g_processorCount);
  return count == 0 || count > processors ? processors : count;
}

}  // namespace

namespace qel {

void ReadProcessorCount() {
  g_processorCount = static_cast<DWORD>(omp_get_num_procs());
  if (g_processorCount != 0) return;
  WriteAssertion(QEL_HERE);
  g_processorCount = 1;
}

void ReadSystemVersionRecord() {
  if (!ReadSystemVersion(g_systemVersion)) g_systemVersion = {};
}

DWORD ProcessorCount() { return g_processorCount; }

}  // namespace qel

DWORD VemoGetCPUCount() {
  DWORD count = 1;
  qel::Guarded(QEL_HERE, [&] {
    DWORD_PTR processMask = 0;
    DWORD_PTR systemMask = 0;
    if (!GetProcessAffinityMask(GetCurrentProcess(), &processMask, &systemMask)) {
      qel::WriteAssertion(QEL_HERE);
      return;
    }
    if (processMask != 0) count = static_cast<DWORD>(__builtin_popcountl(processMask));
  });
  return count;
}

int VemoGetCPUID(DWORD leaf, DWORD* eax, DWORD* ebx, DWORD* ecx, DWORD* edx) {
  int available = 0;
  qel::Guarded(QEL_HERE, [&] {
    if (!HasCpuid() || (leaf != 0 && RunCpuid(0).eax < leaf)) return;
    const CpuidResult result = RunCpuid(leaf);
    *eax = result.eax;
    *ebx = result.ebx;
    *ecx = result.ecx;
    *edx = result.edx;
    available = 1;
  });
  return available;
}

int VemoIsOSVista() { return g_systemVersion.dwMajorVersion == 6 ? 1 : 0; }

void VemoOMPSetNumThreads(int count) {
  qel::Guarded(QEL_HERE, [&] {
    if (omp_in_parallel()) return qel::WriteAssertion(QEL_HERE);
    qel::ThreadRecord* record = qel::GetThreadRecord();
    if (!record) return qel::WriteAssertion(QEL_HERE, GetLastError());
    record->ompThreadCount = LimitThreadCount(count);
  });
}

int VemoOMPGetNumThreads() {
  int count = 1;
  qel::Guarded(QEL_HERE, [&] {
    const qel::ThreadRecord* record = qel::GetThreadRecord();
    if (!record) return qel::WriteAssertion(QEL_HERE, GetLastError());
    if (record->ompThreadCount < 1 || record->ompThreadCount > static_cast<int>(g_processorCount))
      return qel::WriteAssertion(QEL_HERE);
    count = record->ompThreadCount;
  });
  return count;
}

int VemoOMPGetNumThreadsSetImgSize(int threshold) { return g_imageSizeThreshold = threshold; }

int VemoOMPGetNumThreadsCheckImgSize(int imageSize, int threshold) {
  const int effective = threshold != 0 ? threshold : g_imageSizeThreshold;
  return imageSize < effective ? 1 : VemoOMPGetNumThreads();
}
