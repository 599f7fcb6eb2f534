/// @file
/// System calls through the kernel's entry itself, for those that the library's short exports consist of. Each function
/// around a system call costs its return: where the kernel guards its own returns, the processor has forgotten where
/// ours lead. The C library's reading and writing are points of cancellation too, which takes two more calls in a
/// process with threads.
#pragma once
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstdint>

namespace qel::layer {

/// Where the code that the kernel maps into each process enters it.
extern uintptr_t g_kernelEntry __attribute__((visibility("hidden")));

/// Three arguments or five, of one word each. Returns what the C library would; a failure's number is in errno.
#ifdef __SANITIZE_ADDRESS__  // whose frames leave no register for the way in
template <class... Arguments>
inline long KernelCall(long number, Arguments... arguments) {
  return syscall(number, arguments...);
}
#else
template <class... Arguments>
[[gnu::always_inline]] inline long KernelCall(long number, Arguments... arguments) {
  static_assert(sizeof...(Arguments) == 3 || sizeof...(Arguments) == 5);
  const uintptr_t words[] = {std::bit_cast<uintptr_t>(arguments)...};
  const uintptr_t entry = g_kernelEntry;
  long answer;
  if constexpr (sizeof...(Arguments) == 3) {
    __asm__ __volatile__("call *%[entry]"
                         : "=a"(answer)
                         : "0"(number), "b"(words[0]), "c"(words[1]), "d"(words[2]), [entry] "m"(entry)
                         : "memory", "cc");
  } else {
    __asm__ __volatile__("call *%[entry]"
                         : "=a"(answer)
                         : "0"(number), "b"(words[0]), "c"(words[1]), "d"(words[2]), "S"(words[3]),
                           "D"(words[4]), [entry] "m"(entry)
                         : "memory", "cc");
  }
  if (answer >= 0) return answer;
  errno = static_cast<int>(-answer);
  return -1;
}
#endif

}  // namespace qel::layer
