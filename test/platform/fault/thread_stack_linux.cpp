#include "test/platform/fault/thread_stack_linux.h"

#include <alloca.h>
#include <pthread.h>

namespace qel::test {

size_t RemainingStack() {
  pthread_attr_t attributes;
  pthread_getattr_np(pthread_self(), &attributes);
  void* low = nullptr;
  size_t bytes = 0;
  pthread_attr_getstack(&attributes, &low, &bytes);
  pthread_attr_destroy(&attributes);
  return static_cast<size_t>(static_cast<char*>(__builtin_frame_address(0)) - static_cast<char*>(low));
}

__attribute__((noipa)) void WithStackLeft(size_t left, const std::function<void()>& body) {
  const size_t remaining = RemainingStack();
  if (remaining > left) {
    void* skipped = alloca(remaining - left);
    __asm__ __volatile__("" : : "r"(skipped) : "memory");
  }
  body();
}

}  // namespace qel::test
