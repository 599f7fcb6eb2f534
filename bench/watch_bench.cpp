// Watchdog: a tick over many registrations, registering and ending.
#include <mutex>
#include <vector>

#include "bench/harness.h"
#include "qelibaselib/qelibaselib.h"

namespace {

constexpr long kNever = 2000000000;
constexpr int kRegistrations = 10000;

void CALLBACK Nothing(unsigned long, void*, unsigned long, void*) {}

// Whose tick the caller takes itself; the watcher's own, one a second, are too few to matter.
struct Watcher : CWatchThreadStat2 {
  void Tick() { _TimerEvent(&m_param); }
};

// What a tick does at least: each countdown, in the order of a list, under a lock.
class PlainList {
 public:
  void Add(long delay) { last_ = last_->next = new Node{nullptr, delay}; }
  int Tick() {
    const std::lock_guard lock(mutex_);
    int due = 0;
    for (Node* node = head_.next; node; node = node->next) due += (node->remaining -= 1000) <= 0;
    return due;
  }
  ~PlainList() {
    while (Node* node = head_.next) {
      head_.next = node->next;
      delete node;
    }
  }

 private:
  struct Node {
    Node* next;
    long remaining;
  };
  Node head_{nullptr, 0};
  Node* last_ = &head_;
  std::mutex mutex_;
};

}  // namespace

BENCHMARK_GROUP(watch) {
  Watcher watcher;
  bench::Absolute("Start + End, short list", 3, [&] { watcher.End(watcher.Start(kNever, 0, &Nothing, nullptr)); });

  PlainList plain;
  std::vector<void*> registrations;
  for (int i = 0; i < kRegistrations; ++i) {
    registrations.push_back(watcher.Start(kNever, 0, &Nothing, nullptr));
    plain.Add(kNever);
  }
  constexpr double kSlackNs = 5.0 * kRegistrations;
  bench::Compare(
      "tick, 10000 registrations, none due", 2, [&] { watcher.Tick(); }, [&] { bench::Keep(plain.Tick()); }, kSlackNs);
  for (void* registration : registrations) watcher.End(registration);
}
