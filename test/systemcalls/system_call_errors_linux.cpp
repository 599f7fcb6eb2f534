#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>

#include "test/systemcalls/failing_system_call.h"

namespace qel::test {
namespace {

#define CALL(name) \
  { SYS_##name, #name }

// Calls that fail in the same ways.
struct Group {
  std::vector<int> errors;
  std::vector<std::pair<long, const char*>> calls;
  bool areMadeAllTheSame = false;
};
const Group kGroups[] = {
    {{EIO, EINTR}, {CALL(close)}, true},
    {{EMFILE, EACCES, ENOSPC, EINTR}, {CALL(openat)}},
    {{EMFILE, EACCES, EINTR}, {CALL(open)}},
    {{EIO, EINTR}, {CALL(read), CALL(readv), CALL(pread64), CALL(fstatfs64)}},
    {{ENOSPC, EIO, EINTR}, {CALL(write), CALL(writev), CALL(pwrite64)}},
    {{EINVAL}, {CALL(_llseek), CALL(sched_getaffinity)}},
    {{EACCES, EIO},
     {CALL(statx), CALL(fstatat64), CALL(stat64), CALL(lstat64), CALL(access), CALL(faccessat), CALL(readlink),
      CALL(readlinkat)}},
    {{EIO}, {CALL(fstat64), CALL(getdents64)}},
    {{EACCES, EIO, EINTR}, {CALL(statfs64)}},
    {{EACCES, EIO, ENOMEM, ENOSYS}, {CALL(faccessat2)}},
    {{ENOMEM}, {CALL(getcwd), CALL(mmap2), CALL(mremap), CALL(mprotect), CALL(brk), CALL(mlock), CALL(mincore)}},
    {{EIO, ENOMEM}, {CALL(getdents), CALL(msync)}},
    {{ENOSPC, EACCES, EMLINK}, {CALL(mkdir), CALL(mkdirat)}},
    {{EBUSY, EACCES, EIO}, {CALL(rmdir), CALL(unlink), CALL(unlinkat)}},
    {{ENOSPC, EACCES, EIO}, {CALL(rename)}},
    {{ENOSPC, EACCES, EIO, EINVAL}, {CALL(renameat2)}},
    {{ENOSPC, EACCES, EPERM}, {CALL(link), CALL(linkat)}},
    {{EPERM, EIO},
     {CALL(chmod), CALL(fchmod), CALL(fchmodat), CALL(fchown32), CALL(utimensat), CALL(utimensat_time64)}},
    {{EOPNOTSUPP, EIO}, {CALL(getxattr), CALL(lgetxattr), CALL(fgetxattr), CALL(fremovexattr), CALL(removexattr)}},
    {{EOPNOTSUPP, ENOSPC}, {CALL(fsetxattr), CALL(setxattr)}},
    {{EIO, EFBIG, EINTR}, {CALL(ftruncate64), CALL(ftruncate)}},
    {{ENOSPC, EOPNOTSUPP, EINTR}, {CALL(fallocate)}},
    {{EIO, ENOSPC, EINTR}, {CALL(fsync), CALL(fdatasync)}},
    {{EIO, ENOSPC, ESPIPE}, {CALL(sync_file_range)}},
    {{EIO, ENOSPC, EXDEV, EOPNOTSUPP}, {CALL(copy_file_range)}},
    {{EIO, EINVAL}, {CALL(sendfile64)}},
    {{ENOTTY, EOPNOTSUPP}, {CALL(ioctl)}},
    {{ENOLCK, EMFILE, EINTR}, {CALL(fcntl64)}},
    {{ENOLCK, EINTR}, {CALL(flock)}},
    {{EMFILE, ENOMEM}, {CALL(memfd_create)}},
    {{EMFILE}, {CALL(pipe2), CALL(dup), CALL(dup2), CALL(dup3)}},
    {{EMFILE, EACCES}, {CALL(socket)}},
    {{EMFILE, ECONNREFUSED}, {CALL(socketcall)}},
    {{ECONNREFUSED, EINTR}, {CALL(connect)}},
    {{EAGAIN, ENOMEM}, {CALL(clone)}},
    {{EINTR},
     {CALL(futex), CALL(futex_time64), CALL(nanosleep), CALL(clock_nanosleep_time64), CALL(waitid), CALL(wait4)}},
    {{EINTR, ENOSYS}, {CALL(getrandom)}},
    {{EPERM}, {CALL(prlimit64), CALL(ugetrlimit)}},
    {{EFAULT}, {CALL(sysinfo)}},
    {{EINTR, ENOMEM}, {CALL(poll), CALL(ppoll), CALL(ppoll_time64)}},
    {{EMFILE, ENOSYS}, {CALL(pidfd_open)}},
    {{EAGAIN}, {CALL(timer_create)}},
    {{EPERM, ENOSYS}, {CALL(process_vm_readv)}},
    // None of these fails for these callers: of memory and timers, of who they are and what time it is, of signals and
    // threads.
    {{},
     {CALL(munmap), CALL(munlock), CALL(madvise), CALL(fadvise64_64), CALL(timer_settime), CALL(timer_settime64),
      CALL(timer_delete)}},
    {{},
     {CALL(getpid), CALL(gettid), CALL(getuid32), CALL(geteuid32), CALL(getegid32), CALL(getgid32), CALL(getsid),
      CALL(getpgrp), CALL(umask), CALL(uname)}},
    {{}, {CALL(time), CALL(gettimeofday), CALL(clock_gettime), CALL(clock_gettime64), CALL(clock_getres_time64)}},
    {{}, {CALL(rt_sigaction), CALL(rt_sigprocmask), CALL(rt_sigreturn), CALL(sigaltstack), CALL(kill), CALL(tgkill)}},
    {{},
     {CALL(clone3), CALL(set_robust_list), CALL(get_robust_list), CALL(sched_yield), CALL(prctl), CALL(rseq),
      CALL(getpriority), CALL(set_thread_area), CALL(exit_group)}},
};

std::vector<SystemCallErrors> MakeRows() {
  std::vector<SystemCallErrors> rows;
  for (const Group& group : kGroups)
    for (const auto& [number, name] : group.calls)
      rows.push_back({number, name, group.errors, group.areMadeAllTheSame});
  return rows;
}

const std::vector<SystemCallErrors> kRows = MakeRows();  // a signal handler looks into it

}  // namespace

const SystemCallErrors* FindSystemCallErrors(long number) {
  const auto row = std::ranges::find(kRows, number, &SystemCallErrors::number);
  return row == kRows.end() ? nullptr : &*row;
}

}  // namespace qel::test
