/// @file
/// An object for the life of the process. A static object is destroyed when the process ends, while other threads may
/// still call and a fault may still be reported; one from the heap needs memory at its first use, when there may be
/// none. This one lies in static memory and its destructor never runs:
///
///     static NeverDestroyed<std::mutex> gate;  // in a function: made at the first call, by one thread
///     return *gate;
#pragma once
#include <cstddef>
#include <new>
#include <utility>

namespace qel::layer {

template <class T>
class NeverDestroyed {
 public:
  template <class... Arguments>
  explicit NeverDestroyed(Arguments&&... arguments) : object_(new (memory_) T(std::forward<Arguments>(arguments)...)) {}
  NeverDestroyed(const NeverDestroyed&) = delete;

  T& operator*() { return *object_; }

 private:
  alignas(T) std::byte memory_[sizeof(T)];
  T* const object_;
};

}  // namespace qel::layer
