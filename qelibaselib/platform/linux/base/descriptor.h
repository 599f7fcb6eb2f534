/// @file
/// Owners of file descriptors.
///
/// The problem: descriptors belong to the host. A host that runs without standard input, output or error gets the next
/// file that anybody opens under their numbers, and writes its messages into it; a host that becomes a daemon closes
/// every descriptor, also ours, and opens files of its own under the same numbers.
///
/// The idea: no descriptor of the layer has the number 0, 1 or 2 for longer than it takes to move it. One that outlives
/// a call remembers which file it leads to, and is used up, closed and unlocked only while it still leads there.
#pragma once
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <utility>

namespace qel::layer {

inline constexpr int kFirstOwnDescriptor = STDERR_FILENO + 1;

/// For a descriptor that was opened just now, or -1: moves it behind the standard ones when it is one of them. -1 with
/// errno when that fails.
inline int MoveBehindStandard(int descriptor) {
  if (descriptor < 0 || descriptor >= kFirstOwnDescriptor) [[likely]]
    return descriptor;
  const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, kFirstOwnDescriptor);
  close(descriptor);
  return moved;
}

/// close() without being a point where pthread_cancel ends the thread: a destructor must not be left half-way.
inline void CloseDescriptor(int descriptor) { syscall(SYS_close, descriptor); }

/// Owns a descriptor for the length of a call; one of the standard numbers is moved.
class Descriptor {
 public:
  explicit Descriptor(int value) : value_(MoveBehindStandard(value)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (value_ >= 0) CloseDescriptor(value_);
  }
  int get() const { return value_; }
  [[nodiscard]] int Detach() { return std::exchange(value_, -1); }

 private:
  int value_;
};

/// Owns a descriptor that is kept between calls, and knows the file that it leads to.
class KeptDescriptor {
 public:
  KeptDescriptor() = default;
  KeptDescriptor(const KeptDescriptor&) = delete;
  KeptDescriptor& operator=(const KeptDescriptor&) = delete;
  ~KeptDescriptor() { Close(); }
  /// Takes over a descriptor that was opened just now, or -1, in place of the one so far.
  void Take(int opened) {
    Close();
    struct stat status;
    const int moved = MoveBehindStandard(opened);
    if (moved < 0) return;
    if (fstat(moved, &status) != 0) {
      close(moved);
      return;
    }
    number_ = moved;
    device_ = status.st_dev;
    node_ = status.st_ino;
  }
  /// -1 when there is none.
  int get() const { return number_; }
  /// Whether the number still leads to the file that it was taken for. `status` tells of the file then.
  bool IsOurs(struct stat* status) const {
    return number_ >= 0 && fstat(number_, status) == 0 && status->st_dev == device_ && status->st_ino == node_;
  }
  bool IsOurs() const {
    struct stat status;
    return IsOurs(&status);
  }
  /// Closes what is ours; a number that leads elsewhere by now is only forgotten.
  void Close() {
    if (IsOurs()) CloseDescriptor(number_);
    number_ = -1;
  }

 private:
  int number_ = -1;
  dev_t device_ = 0;
  ino_t node_ = 0;
};

}  // namespace qel::layer
