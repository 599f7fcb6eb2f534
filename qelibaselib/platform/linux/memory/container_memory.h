/// @file
/// The memory that the container leaves to its processes.
///
/// The problem: /proc/meminfo tells of the whole machine, also to a process in a container that may use a part of it
/// and is killed when it needs more. The idea: a container is a control group (of version 1 or 2), and each group from
/// the process's own up to the top may have a limit and counts what it uses. What is left to a process is the least
/// that any of them leaves. Cached file contents count as used there, but are given up when memory is needed, so they
/// are taken as available, as /proc/meminfo takes them.
#pragma once
#include <cstdint>
#include <string_view>

namespace qel::layer {

struct ContainerMemory {
  /// UINT64_MAX where there is no limit.
  uint64_t total, available;
};

/// `groups` is the text of /proc/self/cgroup; `mounts` is the folder where the system mounts control groups. A group
/// that cannot be read has no limit; a container that sees only itself has its files at the top.
ContainerMemory ReadContainerMemory(std::string_view groups, const char* mounts);

/// The same of this process, at most a tenth of a second old. Allocates nothing.
ContainerMemory AskContainerMemory();

}  // namespace qel::layer
