#include "qelibaselib/platform/linux/memory/container_memory.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/proc_file.h"
#include "qelibaselib/platform/linux/base/retry_on_interrupt.h"

namespace qel::layer {
namespace {

constexpr ContainerMemory kUnlimited = {UINT64_MAX, UINT64_MAX};

// The two versions name their files differently. Version 1 counts what the groups below have cached in other fields.
struct GroupVersion {
  const char *mount, *limit, *usage, *inactiveCache, *activeCache;
};
constexpr GroupVersion kVersion1 = {"/memory", "memory.limit_in_bytes", "memory.usage_in_bytes", "total_inactive_file ",
                                    "total_active_file "};
constexpr GroupVersion kVersion2 = {"", "memory.max", "memory.current", "inactive_file ", "active_file "};

// One file of a group at a time, on a stack that may be small.
class GroupFile {
 public:
  std::string_view Read(const char* path) {
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    const ssize_t got = RetryOnInterrupt([&] { return read(file.get(), text_, sizeof text_); });
    return {text_, static_cast<size_t>(std::max<ssize_t>(got, 0))};
  }

 private:
  char text_[2048];
};

class Group {
 public:
  Group(const GroupVersion& version, const char* mounts, std::string_view name) : version_(version) {
    top_ = std::snprintf(path_, kLongestFolder, "%s%s", mounts, version.mount);
    length_ = std::snprintf(path_, kLongestFolder, "%s%s%.*s", mounts, version.mount, static_cast<int>(name.size()),
                            name.data());
    if (length_ >= kLongestFolder) length_ = top_ = 0;
  }
  // False behind the top.
  bool IsThere() const { return length_ > 0 && length_ >= top_; }
  void GoUp() {
    while (length_ > 0 && path_[--length_] != '/') {
    }
  }
  ContainerMemory Read() {
    const std::string_view limit = ReadFile(version_.limit);
    if (limit.empty() || limit[0] < '0' || limit[0] > '9') return kUnlimited;  // "max"
    const uint64_t total = LeadingNumber(limit);
    const uint64_t usage = LeadingNumber(ReadFile(version_.usage));
    FieldReader statistics(ReadFile("memory.stat"));
    const uint64_t cache = statistics.Find(version_.inactiveCache) + statistics.Find(version_.activeCache);
    const uint64_t used = usage - std::min(usage, cache);
    return {total, total - std::min(total, used)};
  }

 private:
  std::string_view ReadFile(const char* name) {
    path_[length_] = '/';
    std::strcpy(path_ + length_ + 1, name);
    return file_.Read(path_);
  }

  static constexpr int kLongestFolder = 512, kLongestName = 32;
  const GroupVersion& version_;
  char path_[kLongestFolder + kLongestName];
  int top_, length_;
  GroupFile file_;
};

// "number:controllers:name", where the controllers of version 2 have no names.
bool FindGroup(std::string_view groups, bool (*isWanted)(std::string_view controllers), std::string_view* name) {
  while (!groups.empty()) {
    const std::string_view line = groups.substr(0, groups.find('\n'));
    groups.remove_prefix(std::min(line.size() + 1, groups.size()));
    const size_t first = line.find(':'), second = line.find(':', first + 1);
    if (first == line.npos || second == line.npos) continue;
    *name = line.substr(second + 1);
    if (isWanted(line.substr(first + 1, second - first - 1))) return true;
  }
  return false;
}

bool HaveMemory(std::string_view controllers) {
  for (size_t at = 0; at <= controllers.size();) {
    const std::string_view one = controllers.substr(at, controllers.find(',', at) - at);
    if (one == "memory") return true;
    at += one.size() + 1;
  }
  return false;
}

}  // namespace

ContainerMemory ReadContainerMemory(std::string_view groups, const char* mounts) {
  std::string_view name;
  const bool isVersion1 = FindGroup(groups, &HaveMemory, &name);
  if (!isVersion1 && !FindGroup(
                         groups, [](std::string_view none) { return none.empty(); }, &name))
    return kUnlimited;
  if (name == "/") name = {};
  ContainerMemory least = kUnlimited;
  for (Group group(isVersion1 ? kVersion1 : kVersion2, mounts, name); group.IsThere(); group.GoUp()) {
    const ContainerMemory memory = group.Read();
    least = {std::min(least.total, memory.total), std::min(least.available, memory.available)};
  }
  return least;
}

namespace {

constexpr int64_t kPeriodMs = 100;

int64_t CurrentPeriod() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return (now.tv_sec * 1000ll + now.tv_nsec / 1'000'000) / kPeriodMs;
}

// Two threads may store at once; each figure is right by itself.
constinit std::atomic<uint64_t> g_total{kUnlimited.total}, g_available{kUnlimited.available};
constinit std::atomic<int64_t> g_period{-1};

}  // namespace

ContainerMemory AskContainerMemory() {
  const int64_t period = CurrentPeriod();
  if (g_period.load(std::memory_order_relaxed) != period) {
    GroupFile file;
    const std::string_view groups = file.Read("/proc/self/cgroup");
    const ContainerMemory memory = groups.empty() ? ContainerMemory{g_total.load(), g_available.load()}
                                                  : ReadContainerMemory(groups, "/sys/fs/cgroup");
    g_total.store(memory.total, std::memory_order_relaxed);
    g_available.store(memory.available, std::memory_order_relaxed);
    g_period.store(period, std::memory_order_relaxed);
  }
  return {g_total.load(std::memory_order_relaxed), g_available.load(std::memory_order_relaxed)};
}

}  // namespace qel::layer
