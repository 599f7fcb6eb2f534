/// @file
/// The owner of a file descriptor.
#pragma once
#include <unistd.h>

#include <utility>

namespace qel::layer {

class Descriptor {
 public:
  explicit Descriptor(int value) : value_(value) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (value_ >= 0) close(value_);
  }
  int get() const { return value_; }
  [[nodiscard]] int Detach() { return std::exchange(value_, -1); }

 private:
  int value_;
};

}  // namespace qel::layer
