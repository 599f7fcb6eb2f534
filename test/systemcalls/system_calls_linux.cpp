#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <thread>

#include "test/support/open_handles.h"
#include "test/systemcalls/system_calls_test.h"

namespace qel::test {
namespace {

constexpr DWORD kUntouched = 0xBADC0DE;
constexpr int kMostCalls = 4000;
constexpr int kMostShared = 20;  // the files of closed mutexes are kept for a while, at most 16
constexpr unsigned kLongestRunSeconds = 60;

const LogChannel kChannels[] = {channel::kAssert,
                                channel::kFileOperation,
                                channel::kFlush,
                                channel::kMemoryAllocation,
                                channel::kMemoryOperation,
                                channel::kWinApiWrap,
                                channel::kMisc,
                                channel::kModuleStatusError,
                                channel::kModuleStatusReport,
                                channel::kExceptionReport};

void EmptyFolder(const fs::path& folder) {
  for (const auto& each : fs::directory_iterator(folder)) fs::remove_all(each.path());
}

std::string Describe(const TestedExport& tested, SystemCallFailure failure, long number) {
  const SystemCallErrors* row = FindSystemCallErrors(number);
  return std::string(tested.name) + ", call " + std::to_string(failure.nth) + " (" + (row ? row->name : "?") + ") " +
         strerrorname_np(failure.error) + (failure.forEver ? " for ever" : "") + ": ";
}

}  // namespace

// What children tell their parent, in memory that both have.
struct SystemCalls::Report {
  int calls;
  long numbers[kMostCalls];
  char current[200];
  char findings[4000];

  static Report& Share() {
    void* page = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *static_cast<Report*>(page);
  }
  void Add(const std::string& finding) {
    if (!finding.empty())
      std::strncat(findings, (current + finding + "\n").c_str(), sizeof findings - 1 - std::strlen(findings));
  }
};

void SystemCalls::Drive(const TestedExport& tested, int most) {
  Report& report = Report::Share();
  RunInChild(report, [&] {
    report.Add(Repeat(tested));
    Resources before = CountResources();
    NoteCalls(tested, report);
    FailEach(tested, report, most, [&](SystemCallFailure failure) { FailAndRepeat(tested, failure, before, report); });
  });
  EXPECT_STREQ(report.findings, "") << tested.name;
  EXPECT_GT(report.calls, 0) << tested.name;
  munmap(&report, sizeof report);
}

void SystemCalls::DriveFirstUse(const TestedExport& tested) {
  Report& report = Report::Share();
  RunInChild(report, [&] { NoteCalls(tested, report); });
  FailEach(tested, report, kMostCalls, [&](SystemCallFailure failure) {
    RunInChild(report, [&] {
      Resources none{{}, 0, 0};
      FailAndRepeat(tested, failure, none, report);
      Resources before = CountResources();
      FailAndRepeat(tested, {}, before, report);
    });
  });
  EXPECT_STREQ(report.findings, "") << tested.name;
  EXPECT_GT(report.calls, 0) << tested.name;
  munmap(&report, sizeof report);
}

void SystemCalls::RunInChild(Report& report, const std::function<void()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    try {
      body();
    } catch (const std::exception& exception) {
      report.Add(exception.what());
    }
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) report.Add(strsignal(WTERMSIG(status)));
}

void SystemCalls::NoteCalls(const TestedExport& tested, Report& report) {
  tested.prepare();
  FailingSystemCall counting({});
  if (!tested.call()) report.Add("fails");
  counting.Stop();
  report.calls = std::min(FailingSystemCall::Count(), kMostCalls);
  for (int nth = 1; nth <= report.calls; ++nth) report.numbers[nth - 1] = FailingSystemCall::Number(nth);
}

void SystemCalls::FailEach(const TestedExport& tested, Report& report, int most,
                           const std::function<void(SystemCallFailure)>& run) {
  for (int nth = 1; nth <= report.calls; nth += 1 + report.calls / most) {
    const long number = report.numbers[nth - 1];
    const SystemCallErrors* row = FindSystemCallErrors(number);
    if (!row) return report.Add("no row for call " + std::to_string(number));
    for (size_t i = 0; i < row->errors.size(); ++i) {
      for (const bool forEver : {false, true}) {
        if (forEver && (i != 0 || row->errors[i] == EINTR)) continue;  // no wait is interrupted for ever
        const SystemCallFailure failure{nth, row->errors[i], forEver};
        std::strcpy(report.current, Describe(tested, failure, number).c_str());
        run(failure);
      }
    }
  }
}

void SystemCalls::FailAndRepeat(const TestedExport& tested, SystemCallFailure failure, Resources& before,
                                Report& report) {
  alarm(kLongestRunSeconds);
  EmptyFolder(LogFolder());
  tested.prepare();
  SetLastError(kUntouched);
  FailingSystemCall failing(failure);
  const bool succeeded = tested.call();
  const DWORD error = GetLastError();
  failing.Stop();
  std::string finding = Check(tested, succeeded && tested.wrote(), error);
  std::thread([&] { finding += Repeat(tested); }).join();
  report.Add(finding + FindLeftovers(before));
}

std::string SystemCalls::Check(const TestedExport& tested, bool succeeded, DWORD error) {
  std::string finding;
  if (succeeded && !tested.holds()) finding += "no truth in the success; ";
  if (!succeeded && tested.tells != Tells::kNothing && (error == ERROR_SUCCESS || error == kUntouched))
    finding += "failed with last error " + std::to_string(error) + "; ";
  const std::string assertions = ReadWholeFile(ChannelFile(channel::kAssert));
  if (assertions.find("_CATCH_") != assertions.npos) finding += "an exception was caught; ";
  return finding;
}

// The next call, with the lines that open what is kept open between lines. A lock that was left behind would hold
// another thread off.
std::string SystemCalls::Repeat(const TestedExport& tested) {
  for (const LogChannel& channel : kChannels)
    VemoLogOutFile(channel.mutexStem, ChannelFile(channel).wstring().c_str(), 1000, HOST, "after");
  tested.prepare();
  if (!tested.call() || !tested.wrote()) return "fails ever after; ";
  return tested.holds() ? "" : "holds nothing ever after; ";
}

SystemCalls::Resources SystemCalls::CountResources() {
  Resources found{{}, 0, OpenHandleCount()};
  std::error_code gone;
  for (const auto& each : fs::directory_iterator("/proc/self/fd")) {
    const std::string name = fs::read_symlink(each.path(), gone).string();
    const bool isShared = name.starts_with("/dev/shm/qel-");
    found.shared += isShared;
    // The layer keeps this one from the time on when it first needs it.
    if (!isShared && !name.ends_with("/statm")) found.descriptors.insert(name);
  }
  return found;
}

std::string SystemCalls::FindLeftovers(Resources& before) {
  std::string finding;
  for (const fs::path& folder : {folder_.Path(), exports_.Path("")})
    for (const auto& entry : fs::recursive_directory_iterator(folder))
      if (entry.is_regular_file() && !exports_.HoldsFile() &&
          !Close(CreateFileW(entry.path().wstring().c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr)))
        finding += entry.path().filename().string() + " is held; ";
  const Resources after = CountResources();
  std::vector<std::string> added;
  std::set_difference(after.descriptors.begin(), after.descriptors.end(), before.descriptors.begin(),
                      before.descriptors.end(), std::back_inserter(added));
  const bool wasCounted = !before.descriptors.empty();
  for (const std::string& name : added) finding += wasCounted ? name + " is open; " : "";
  if (wasCounted && after.handles > before.handles) finding += "handles are left; ";
  if (after.shared > kMostShared) finding += "objects are open; ";
  before = after;
  return finding;
}

}  // namespace qel::test
