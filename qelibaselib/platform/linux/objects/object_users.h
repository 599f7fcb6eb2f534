/// @file
/// Which processes use a named object.
///
/// The problem: an object lives while some process has a handle of it, and it must be gone at once when the last one
/// has not, also when that one was killed. A count in shared memory would keep the share of a killed process; a lock on
/// the object's file alone would cost two system calls for each opening and closing.
///
/// The idea: a process that has the file mapped has a number there, whose byte of the file it keeps locked. While it
/// uses the object, the number's bit in the shared page is set as well. Taking an object up and giving it up is then
/// one bit, without a system call, and the kernel unlocks the byte of a process that ends, also after SIGKILL.
///
/// The invariant: a process uses the object exactly when its bit is set and its byte is locked. Bits are set only
/// inside the gate, so whoever is in the gate and sees no user knows that there is none. Before a number is given to
/// another process its bit is cleared.
///
/// A process that dies with its bit set is noticed by whoever finds the byte unlocked, and the bit is cleared then. One
/// that dies inside the gate may still have its byte locked for a moment while the kernel takes it apart; it has left
/// its number in `inside_`, and the next one in the gate clears its bit.
#pragma once
#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace qel::layer {

class KeptDescriptor;

/// A number that a process does not have yet.
inline constexpr uint32_t kNoNumber = ~0u;

class ObjectUsers {
 public:
  /// In memory that nobody else looks at.
  void Initialise();
  /// The process uses the object no longer. Its file and its number stay its own; the object may be made anew by
  /// somebody else from now on.
  void Remove(uint32_t number) { BitsOf(number).fetch_and(~Bit(number), std::memory_order_release); }

 private:
  friend class ObjectGate;
  static constexpr uint32_t kMostProcesses = 30 * 1024;  // what fits into the page
  static constexpr uint32_t kWordBits = 32;
  static constexpr uint32_t kWords = kMostProcesses / kWordBits;
  static constexpr uint32_t Bit(uint32_t position) { return 1u << position % kWordBits; }
  std::atomic<uint32_t>& BitsOf(uint32_t number) { return bits_[number / kWordBits]; }

  pthread_mutex_t gate_;
  std::atomic<uint32_t> inside_;   // the number of the process in the gate plus one, as soon as it may become a user
  std::atomic<uint32_t> retired_;  // the file takes no more users and goes out of the folder
  // One bit for each word of bits_; a clear one means that the word is 0. Written inside the gate only.
  std::atomic<uint32_t> filled_[kWords / kWordBits];
  std::atomic<uint32_t> bits_[kWords];
};

/// Processes become users one at a time: whoever is in the gate can see whether there are others, and make the object
/// anew when there are none.
class ObjectGate {
 public:
  /// `file` is the object's, attached to and mapped. `*number` is this process's number there; a process that has none
  /// yet is given one.
  ObjectGate(ObjectUsers& users, const KeptDescriptor& file, uint32_t* number);
  ObjectGate(const ObjectGate&) = delete;
  ObjectGate& operator=(const ObjectGate&) = delete;
  ~ObjectGate();
  /// False when a process that was stopped in the gate blocks it, or when the numbers are used up.
  bool IsEntered() const { return entered_; }
  bool IsRetired() const { return users_.retired_.load(std::memory_order_relaxed) != 0; }
  /// The file takes no user any more.
  void Retire() { users_.retired_.store(1, std::memory_order_relaxed); }
  /// Whether another process uses the object; also true when that cannot be told, see HasLostFile.
  bool IsUsedByOthers();
  /// Whether the host was found to have closed the object's descriptor.
  bool HasLostFile() const { return lostFile_; }
  /// This process becomes a user.
  void AddSelf();

 private:
  bool Lock();
  bool TakeNumber();
  bool IsUser(uint32_t number);
  bool IsAnyUserOf(uint32_t word);

  ObjectUsers& users_;
  const KeptDescriptor& file_;
  uint32_t* const number_;
  bool entered_;
  bool lostFile_ = false;
};

}  // namespace qel::layer
