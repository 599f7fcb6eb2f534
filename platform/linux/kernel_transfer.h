/// @file
/// Reading and writing through the kernel's entry itself. The C library's functions are points of cancellation, which
/// takes two more calls in a process with threads, and each function around a system call costs its return: where the
/// kernel guards its own returns, the processor has forgotten where ours lead.
#pragma once
#include <sys/syscall.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdint>

namespace qel::layer {

/// Where the code that the kernel maps into each process enters it.
extern uintptr_t g_kernelEntry __attribute__((visibility("hidden")));

/// As the C library tells it.
inline ssize_t ResultOf(long answer) {
  if (answer >= 0) return answer;
  errno = static_cast<int>(-answer);
  return -1;
}

[[gnu::always_inline]] inline ssize_t KernelTransfer(long number, int descriptor, const void* buffer, size_t length) {
  const uintptr_t entry = g_kernelEntry;
  long answer;
  __asm__ __volatile__("call *%[entry]"
                       : "=a"(answer)
                       : "0"(number), "b"(descriptor), "c"(buffer), "d"(length), [entry] "m"(entry)
                       : "memory", "cc");
  return ResultOf(answer);
}

[[gnu::always_inline]] inline ssize_t KernelTransferAt(long number, int descriptor, const void* buffer, size_t length,
                                                       off_t at) {
  const uintptr_t entry = g_kernelEntry;
  long answer;
  __asm__ __volatile__("call *%[entry]"
                       : "=a"(answer)
                       : "0"(number), "b"(descriptor), "c"(buffer), "d"(length), "S"(static_cast<uint32_t>(at)),
                         "D"(static_cast<uint32_t>(static_cast<uint64_t>(at) >> 32)), [entry] "m"(entry)
                       : "memory", "cc");
  return ResultOf(answer);
}

}  // namespace qel::layer
