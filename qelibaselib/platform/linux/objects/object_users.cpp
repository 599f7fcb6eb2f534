#include "qelibaselib/platform/linux/objects/object_users.h"

#include <unistd.h>

#include <bit>
#include <cerrno>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/objects/futex.h"
#include "qelibaselib/platform/linux/objects/object_locks.h"
#include "qelibaselib/platform/linux/objects/robust_mutex.h"

namespace qel::layer {
namespace {

constexpr int64_t kGateLimitNs = 10 * kNsPerSecond;  // a process that was stopped must not stop everybody

int LockGate(pthread_mutex_t& gate) {
  const int result = pthread_mutex_trylock(&gate);
  return result == EBUSY ? LockUntil(gate, MonotonicNs() + kGateLimitNs) : result;
}

}  // namespace

void ObjectUsers::Initialise() {
  InitialiseMutex(gate_, false);
  inside_.store(0, std::memory_order_relaxed);
  retired_.store(0, std::memory_order_relaxed);
  for (std::atomic<uint32_t>& word : filled_) word.store(0, std::memory_order_relaxed);
  for (std::atomic<uint32_t>& word : bits_) word.store(0, std::memory_order_relaxed);
}

ObjectGate::ObjectGate(ObjectUsers& users, const KeptDescriptor& file, uint32_t* number)
    : users_(users), file_(file), number_(number), entered_(Lock()) {
  if (!entered_) return;
  if (*number_ == kNoNumber && !IsRetired() && !TakeNumber()) {
    pthread_mutex_unlock(&users_.gate_);
    entered_ = false;
  } else if (*number_ != kNoNumber) {
    // Before anything that a process that finds this one killed has to undo.
    users_.inside_.store(*number_ + 1, std::memory_order_release);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }
}

ObjectGate::~ObjectGate() {
  if (!entered_) return;
  users_.inside_.store(0, std::memory_order_release);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  pthread_mutex_unlock(&users_.gate_);
}

// A process that was killed in the gate is on its way out, though its byte may still be locked: whatever it had begun,
// it is no user.
bool ObjectGate::Lock() {
  const int result = LockGate(users_.gate_);
  if (result != EOWNERDEAD) return result == 0;
  pthread_mutex_consistent(&users_.gate_);
  if (const uint32_t inside = users_.inside_.exchange(0)) users_.Remove(inside - 1);
  return true;
}

// Begins at a number made from the process's own: among thousands of processes most then find theirs free at once. A
// bit that a killed process left is cleared before its byte is locked again: both together would be a user.
bool ObjectGate::TakeNumber() {
  const auto first = static_cast<uint32_t>(getpid()) % ObjectUsers::kMostProcesses;
  for (uint32_t i = 0; i < ObjectUsers::kMostProcesses; ++i) {
    const uint32_t number = (first + i) % ObjectUsers::kMostProcesses;
    if (IsUser(number) || !TryHoldNumber(file_.get(), number)) continue;
    *number_ = number;
    return true;
  }
  return false;
}

// An unlocked byte is believed only while the descriptor is the object's: the host may have closed it and opened
// something else in its place.
bool ObjectGate::IsUser(uint32_t number) {
  if ((users_.BitsOf(number).load(std::memory_order_acquire) & ObjectUsers::Bit(number)) == 0) return false;
  if (IsNumberHeld(file_.get(), number)) return true;
  lostFile_ = lostFile_ || !file_.IsOurs();
  if (!lostFile_) users_.Remove(number);
  return lostFile_;
}

bool ObjectGate::IsAnyUserOf(uint32_t word) {
  for (uint32_t bits = users_.bits_[word].load(std::memory_order_acquire); bits != 0; bits &= bits - 1) {
    const uint32_t number = word * ObjectUsers::kWordBits + static_cast<uint32_t>(std::countr_zero(bits));
    if (number != *number_ && IsUser(number)) return true;
  }
  return false;
}

bool ObjectGate::IsUsedByOthers() {
  const uint32_t ownWord = *number_ == kNoNumber ? kNoNumber : *number_ / ObjectUsers::kWordBits;
  uint32_t first = 0;
  for (std::atomic<uint32_t>& filled : users_.filled_) {
    for (uint32_t words = filled.load(std::memory_order_relaxed); words != 0; words &= words - 1) {
      const uint32_t word = first + static_cast<uint32_t>(std::countr_zero(words));
      if (IsAnyUserOf(word)) return true;
      const bool isEmpty = word != ownWord && users_.bits_[word].load(std::memory_order_relaxed) == 0;
      if (isEmpty) filled.fetch_and(~ObjectUsers::Bit(word), std::memory_order_relaxed);
    }
    first += ObjectUsers::kWordBits;
  }
  return false;
}

// The word is marked as filled first: a process that dies in between leaves a mark too much, which costs a look.
void ObjectGate::AddSelf() {
  const uint32_t word = *number_ / ObjectUsers::kWordBits;
  std::atomic<uint32_t>& filled = users_.filled_[word / ObjectUsers::kWordBits];
  if ((filled.load(std::memory_order_relaxed) & ObjectUsers::Bit(word)) == 0)
    filled.fetch_or(ObjectUsers::Bit(word), std::memory_order_relaxed);
  users_.bits_[word].fetch_or(ObjectUsers::Bit(*number_), std::memory_order_relaxed);
}

}  // namespace qel::layer
