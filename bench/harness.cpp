#include "bench/harness.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>
#include <vector>

#include "qelibaselib/qelibaselib.h"

namespace bench {
namespace {

double Nanoseconds(const Body& body, int calls) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < calls; ++i) body();
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count() / calls;
}

double Round(const Body& body, int calls, const Options& options) {
  if (options.before) options.before();
  const double ns = Nanoseconds(body, calls);
  if (options.after) options.after();
  return ns;
}

int CallsOfRound(const Body& body) {
  body();
  constexpr double kRoundNs = 5e6;
  const double once = std::max(Nanoseconds(body, 1), 1.0);
  return static_cast<int>(std::clamp(kRoundNs / once, 1.0, 2e6));
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

std::map<std::string, void (*)()>& Groups() {
  static std::map<std::string, void (*)()> groups;
  return groups;
}

std::string Quantity(double ns) {
  char text[32];
  if (ns < 1e3)
    std::snprintf(text, sizeof text, "%.1f ns", ns);
  else if (ns < 1e6)
    std::snprintf(text, sizeof text, "%.2f us", ns / 1e3);
  else
    std::snprintf(text, sizeof text, "%.2f ms", ns / 1e6);
  return text;
}

}  // namespace

void Compare(const std::string& what, double goalRatio, const Body& ours, const Body& byHand, double slackNs,
             const Options& options) {
  const int calls = options.callsOfRound ? options.callsOfRound : std::min(CallsOfRound(ours), CallsOfRound(byHand));
  std::vector<double> own, other, ratios;
  for (int round = 0; round < options.rounds; ++round) {
    other.push_back(Round(byHand, calls, options));
    own.push_back(Round(ours, calls, options));
    ratios.push_back(own.back() / other.back());
  }
  const double mine = Median(own), theirs = Median(other), ratio = Median(ratios);
  const auto [low, high] = std::minmax_element(ratios.begin(), ratios.end());
  const bool met = ratio <= goalRatio || (slackNs > 0 && mine <= theirs + slackNs);
  char goal[48];
  if (slackNs > 0)
    std::snprintf(goal, sizeof goal, "<= %.2f or +%.0f ns", goalRatio, slackNs);
  else
    std::snprintf(goal, sizeof goal, "<= %.2f", goalRatio);
  std::printf("  %-44s %11s / %11s = %5.2f (%.2f..%.2f)  goal %-20s %s\n", what.c_str(), Quantity(mine).c_str(),
              Quantity(theirs).c_str(), ratio, *low, *high, goal, met ? "met" : "MISSED");
  std::fflush(stdout);
}

void Absolute(const std::string& what, double goalMicroseconds, const Body& ours, const Options& options) {
  const int calls = options.callsOfRound ? options.callsOfRound : CallsOfRound(ours);
  std::vector<double> own(static_cast<size_t>(options.rounds));
  for (double& round : own) round = Round(ours, calls, options);
  const double mine = Median(own);
  std::printf("  %-44s %11s %51s %s\n", what.c_str(), Quantity(mine).c_str(),
              ("goal <= " + Quantity(goalMicroseconds * 1e3)).c_str(),
              mine <= goalMicroseconds * 1e3 ? "met" : "MISSED");
  std::fflush(stdout);
}

void CompareFigures(const std::string& what, const char* unit, double low, double high, const Figure& ours,
                    const Figure& byHand, int rounds) {
  std::vector<double> own, other, ratios;
  for (int round = 0; round < rounds; ++round) {
    other.push_back(byHand());
    own.push_back(ours());
    ratios.push_back(own.back() / other.back());
  }
  const double ratio = Median(ratios);
  const auto [least, most] = std::minmax_element(ratios.begin(), ratios.end());
  char mine[32], theirs[32], goal[48];
  std::snprintf(mine, sizeof mine, "%.0f %s", Median(own), unit);
  std::snprintf(theirs, sizeof theirs, "%.0f %s", Median(other), unit);
  std::snprintf(goal, sizeof goal, "%.2f..%.2f", low, high);
  std::printf("  %-44s %11s / %11s = %5.2f (%.2f..%.2f)  goal %-20s %s\n", what.c_str(), mine, theirs, ratio, *least,
              *most, goal, ratio >= low && ratio <= high ? "met" : "MISSED");
  std::fflush(stdout);
}

void Section(const std::string& title) { std::printf("%s\n", title.c_str()); }

const std::string& Folder() {
  static const struct Owned {
    std::string path;
    Owned() {
      namespace fs = std::filesystem;
      const fs::path parent = fs::is_directory("/dev/shm") ? "/dev/shm" : fs::temp_directory_path();
      path = parent / ("qelibaselib-bench-" + std::to_string(GetCurrentProcessId()));
      fs::create_directories(path + "/log");
    }
    ~Owned() {
      std::error_code ignored;
      std::filesystem::remove_all(path, ignored);
    }
  } owned;
  return owned.path;
}

std::string Path(const std::string& name) { return Folder() + "/" + name; }
std::wstring WidePath(const std::string& name) { return std::filesystem::path(Path(name)).wstring(); }

Registration::Registration(const char* name, void (*run)()) { Groups()[name] = run; }

}  // namespace bench

// bench [GROUP ...]: all groups, or those named.
int main(int argumentCount, char** arguments) {
  VemoSetLogPath(bench::WidePath("log").c_str());
  std::printf("%u processors, %s; medians of alternating rounds; ours / by hand\n", std::thread::hardware_concurrency(),
              bench::Folder().c_str());
  for (const auto& [name, run] : bench::Groups()) {
    bool wanted = argumentCount == 1;
    for (int i = 1; i < argumentCount; ++i) wanted |= name == arguments[i];
    if (!wanted) continue;
    bench::Section(name);
    run();
  }
}
