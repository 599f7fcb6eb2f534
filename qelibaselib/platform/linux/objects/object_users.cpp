#include "qelibaselib/platform/linux/objects/object_users.h"

#include <bit>
#include <cerrno>

#include "qelibaselib/platform/linux/objects/futex.h"
#include "qelibaselib/platform/linux/objects/mutex.h"
#include "qelibaselib/platform/linux/objects/object_locks.h"

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
  for (std::atomic<uint32_t>& word : words_) word.store(0, std::memory_order_relaxed);
}

ObjectGate::ObjectGate(ObjectUsers& users, int file, uint32_t* number)
    : users_(users), file_(file), number_(number), entered_(Lock()) {
  if (!entered_) return;
  if (*number_ == kNoNumber && !Retired() && !TakeNumber()) {
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

// A bit that a killed process left is cleared before its byte is locked again: both together would be a user.
bool ObjectGate::TakeNumber() {
  for (uint32_t number = 0; number < ObjectUsers::kMostProcesses; ++number) {
    if (IsUser(number) || !TryHoldNumber(file_, number)) continue;
    *number_ = number;
    return true;
  }
  return false;
}

bool ObjectGate::IsUser(uint32_t number) {
  if ((users_.Word(number).load(std::memory_order_acquire) & ObjectUsers::Bit(number)) == 0) return false;
  if (IsNumberHeld(file_, number)) return true;
  users_.Remove(number);
  return false;
}

bool ObjectGate::AnyOther() {
  uint32_t first = 0;
  for (const std::atomic<uint32_t>& word : users_.words_) {
    for (uint32_t bits = word.load(std::memory_order_acquire); bits != 0; bits &= bits - 1) {
      const uint32_t number = first + static_cast<uint32_t>(std::countr_zero(bits));
      if (number != *number_ && IsUser(number)) return true;
    }
    first += ObjectUsers::kWordBits;
  }
  return false;
}

}  // namespace qel::layer
