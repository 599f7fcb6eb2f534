// Ratios of the library's calls to hand-written code with the same contract, measured in turns in one run.
//
//   Compare("CreateFileX + close", 1.20, [&] { ... ours ... }, [&] { ... by hand ... });
//
// Both sides run in alternating rounds; the median round of each counts. A row tells both medians, their ratio with the
// spread of the rounds, and the goal. Nothing fails here: machines are noisy, people judge.
#pragma once
#include <functional>
#include <string>

namespace bench {

using Body = std::function<void()>;

struct Options {
  int rounds = 11;
  int callsOfRound = 0;  // 0: as many as take about 5 ms
  // Around each round of either side, outside of its time.
  Body before = {}, after = {};
};

// Goal: ours at most `goalRatio` times the other, or, with slackNs, at most that much over it.
void Compare(const std::string& what, double goalRatio, const Body& ours, const Body& byHand, double slackNs = 0,
             const Options& options = {});
// A goal in microseconds for a call that has no counterpart.
void Absolute(const std::string& what, double goalMicroseconds, const Body& ours, const Options& options = {});

// For what reports a figure itself. Goal: ours from `low` to `high` times the other.
using Figure = std::function<double()>;
void CompareFigures(const std::string& what, const char* unit, double low, double high, const Figure& ours,
                    const Figure& byHand, int rounds = 11);

// Prevents the compiler from dropping a result.
template <class T>
inline void Keep(const T& value) {
  __asm__ __volatile__("" : : "g"(&value) : "memory");
}

void Section(const std::string& title);
// A folder for the files of the run: on tmpfs when there is one, removed at the end.
const std::string& Folder();
std::wstring WidePath(const std::string& name);
std::string Path(const std::string& name);

// Every file bench/*_bench.cpp registers what it measures.
struct Registration {
  Registration(const char* name, void (*run)());
};

}  // namespace bench

#define BENCHMARK_GROUP(name)                                             \
  static void RunGroup##name();                                           \
  static const bench::Registration g_group##name(#name, &RunGroup##name); \
  static void RunGroup##name()
