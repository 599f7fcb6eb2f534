#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>

#include "test/support/exhaustion_limits.h"

namespace qel::test {
namespace {

constexpr rlim_t kFiles = 64;

void SetSoftLimit(int resource, rlim_t value) {
  rlimit limit;
  getrlimit(resource, &limit);
  limit.rlim_cur = value < limit.rlim_max ? value : limit.rlim_max;
  setrlimit(resource, &limit);
}

}  // namespace

const char* const kAnyFile = "/proc/self/exe";

void LimitAddressSpace() {
  unsigned long pages = 0;
  if (std::FILE* file = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(file, "%lu", &pages) != 1) pages = 0;
    std::fclose(file);
  }
  SetSoftLimit(RLIMIT_AS, rlim_t{pages} * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)));
}

void LimitFiles() { SetSoftLimit(RLIMIT_NOFILE, kFiles); }

void LiftLimits() {
  SetSoftLimit(RLIMIT_AS, RLIM_INFINITY);
  SetSoftLimit(RLIMIT_NOFILE, RLIM_INFINITY);
}

}  // namespace qel::test
