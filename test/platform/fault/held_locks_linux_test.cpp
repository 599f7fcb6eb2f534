// Reports while another thread holds a lock for ever.
#include <link.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>

#include "qelibaselib/platform/fault/fault.h"
#include "test/platform/fault/reports.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

std::atomic<bool> g_isHeld = false, g_blocksFork = false;

void HoldForEver() {
  g_isHeld = true;
  for (;;) pause();
}

// Set before the layer sets its own handlers, so this one runs when the layer has taken all its locks.
void BlockFork() {
  if (g_blocksFork) HoldForEver();
}
void SetForkHandler() { pthread_atfork(&BlockFork, nullptr, nullptr); }
__attribute__((section(".preinit_array"), used)) void (*const g_setForkHandler)() = &SetForkHandler;

void HoldLoader() {
  dl_iterate_phdr(
      [](dl_phdr_info*, size_t, void*) {
        HoldForEver();
        return 0;
      },
      nullptr);
}

void HoldTablesOfLayer() {
  g_blocksFork = true;
  static_cast<void>(fork());
}

// Whoever flushes all streams holds their list, and waits for the one that is in use.
void HoldListOfStreams() {
  std::thread([] {
    flockfile(stdin);
    HoldForEver();
  }).detach();
  while (!g_isHeld) usleep(1000);
  std::fflush(nullptr);
}

constexpr std::pair<const char*, void (*)()> kHolders[] = {
    {"loader", &HoldLoader}, {"tables", &HoldTablesOfLayer}, {"streams", &HoldListOfStreams}};

CHILD_ROLE(ReportBesideHolder) {
  alarm(60);
  LogFolder();
  fault::SetTranslator(&fault::ThrowCse);
  for (const auto& [name, hold] : kHolders)
    if (arguments[0] == name) std::thread(hold).detach();
  while (!g_isHeld) usleep(1000);
  usleep(100'000);  // the thread sleeps
  _exit(FaultInExport() ? 42 : 1);
}

TEST(HeldLock, CostsASectionAndNotTheReport) {
  SKIP_UNDER_ASAN();
  TakeReports();
  ChildProcess loader("ReportBesideHolder", {"loader"}), streams("ReportBesideHolder", {"streams"});
  for (ChildProcess* child : {&loader, &streams}) EXPECT_EQ(child->Wait(), 42);
  EXPECT_EQ(ChildProcess("ReportBesideHolder", {"tables"}).Wait(), 42);  // shares no lock with the others
  const auto reports = TakeReports();
  EXPECT_EQ(reports.size(), 2u);
  for (const auto& report : reports) {
    EXPECT_TRUE(IsWhole(report));
    EXPECT_NE(report.find("PlayRole() + "), std::string::npos);
  }
  EXPECT_GE(TakeMessages(channel::kAssert).size(), 4u);
}

}  // namespace
}  // namespace qel::test
