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

bool OnThreadWithStack(size_t bytes, const std::function<void()>& body) {
  const auto run = [](void* argument) -> void* {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
  };
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_t thread;
  const bool started = pthread_attr_setstacksize(&attributes, bytes) == 0 &&
                       pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&body)) == 0;
  pthread_attr_destroy(&attributes);
  if (started) pthread_join(thread, nullptr);
  return started;
}

}  // namespace qel::test
