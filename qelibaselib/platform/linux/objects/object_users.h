/// @file
/// Who uses a named object: said in memory that all its processes share, proved by locks on the object's file.
///
/// A process that has the file mapped has a number there, whose byte of the file it keeps locked. It uses the object
/// while the number's bit is set as well. So an object is taken up and given up without a system call, and a process
/// that was killed is no user, for its byte is not locked any more.
#pragma once
#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace qel::layer {

/// A number that a process does not have yet.
inline constexpr uint32_t kNoNumber = ~0u;

class ObjectUsers {
 public:
  /// In memory that nobody else looks at.
  void Initialise();
  /// The process is no user any more. Its file and its number stay its own; what the object holds may be another's now.
  void Remove(uint32_t number) { Word(number).fetch_and(~Bit(number), std::memory_order_release); }

 private:
  friend class ObjectGate;
  static constexpr uint32_t kMostProcesses = 1024;
  static constexpr uint32_t kWordBits = 32;
  static constexpr uint32_t Bit(uint32_t number) { return 1u << number % kWordBits; }
  std::atomic<uint32_t>& Word(uint32_t number) { return words_[number / kWordBits]; }

  pthread_mutex_t gate_;
  std::atomic<uint32_t> inside_;   // the number of the process in the gate plus one, as soon as it may become a user
  std::atomic<uint32_t> retired_;  // the file takes no more users and goes out of the folder
  std::atomic<uint32_t> words_[kMostProcesses / kWordBits];
};

/// Processes become users one at a time: whoever is in the gate can see whether there are others, and make the object
/// anew when there are none.
class ObjectGate {
 public:
  /// `file` is the object's, attached to and mapped. `*number` is the process's, which has the gate's first use give it
  /// one.
  ObjectGate(ObjectUsers& users, int file, uint32_t* number);
  ObjectGate(const ObjectGate&) = delete;
  ObjectGate& operator=(const ObjectGate&) = delete;
  ~ObjectGate();
  /// False when a process that was stopped in the gate blocks it, or when the numbers are used up.
  bool Entered() const { return entered_; }
  bool Retired() const { return users_.retired_.load(std::memory_order_relaxed) != 0; }
  void Retire() { users_.retired_.store(1, std::memory_order_relaxed); }
  /// Whether another process is a user.
  bool AnyOther();
  /// The process becomes a user.
  void Add() { users_.Word(*number_).fetch_or(ObjectUsers::Bit(*number_), std::memory_order_relaxed); }

 private:
  bool Lock();
  bool TakeNumber();
  bool IsUser(uint32_t number);

  ObjectUsers& users_;
  const int file_;
  uint32_t* const number_;
  bool entered_;
};

}  // namespace qel::layer
