// Work on threads of its own, which have ended when the call returns.
#pragma once
#include <pthread.h>

#include <stdexcept>
#include <thread>
#include <vector>

namespace qel::test {

template <class Body>
void OnThread(Body body) {
  std::thread(body).join();
}

// `body` takes the number of its thread, from 0 on.
template <class Body>
void OnThreads(int count, Body body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back([&body, i] { body(i); });
  for (std::thread& thread : threads) thread.join();
}

// With a stack of this size.
template <class Body>
void OnThreadWithStack(size_t bytes, Body body) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_t thread;
  const auto run = [](void* argument) -> void* {
    (*static_cast<Body*>(argument))();
    return nullptr;
  };
  const bool started =
      pthread_attr_setstacksize(&attributes, bytes) == 0 && pthread_create(&thread, &attributes, run, &body) == 0;
  pthread_attr_destroy(&attributes);
  if (!started) throw std::runtime_error("no thread of this size");
  pthread_join(thread, nullptr);
}

}  // namespace qel::test
