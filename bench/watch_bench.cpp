// Watchdog: a tick over many registrations, registering and ending.
#include <list>
#include <vector>

#include "bench/harness.h"
#include "qelibaselib/qelibaselib.h"

namespace {

void CALLBACK Nothing(unsigned long, void*, unsigned long, void*) {}

struct Node {
  Node* next;
  long remaining;
};

}  // namespace

BENCHMARK_GROUP(watch) {
  CWatchThreadStat2 watcher;
  bench::Absolute("Start + End, short list", 3, [&] { watcher.End(watcher.Start(100000000, 0, &Nothing, nullptr)); });
}
