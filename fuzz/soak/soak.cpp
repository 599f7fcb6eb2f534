// soak MINUTES [SEED]: several processes do random operations on one tree, one set of objects and one log folder, are
// killed and begin anew; a simple model says what must hold:
//   no line is lost whose writing call has returned, and none is glued to another;
//   no file changes that no operation names; no tree call leaves its tree;
//   no handle, descriptor or file in shared memory is left;
//   a mutex has one owner; nobody waits much longer than his time-out.
// The seed gives the same operations again; kills fall where they fall. Linux, since it forks.
#include <dirent.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "fuzz/soak/worker.h"
#include "qelibaselib/qelibaselib.h"

namespace {

using namespace qel::soak;
namespace fs = std::filesystem;

constexpr int kLongestEndSeconds = 120;
const char kUntouched[] = "nobody may touch this";

int Report(const std::string& wrong) {
  std::fprintf(stderr, "soak: %s\n", wrong.c_str());
  return 1;
}

fs::path MakeFolder() {
  std::string name = (fs::temp_directory_path() / "qel-soak-XXXXXX").string();
  if (!mkdtemp(name.data())) std::exit(2);
  for (const char* part : {"tree", "tree/common", "log", "outside"}) fs::create_directories(fs::path(name) / part);
  return name;
}

// What lies beside the tree, under the names that a confused tree call would reach.
std::vector<fs::path> PlaceUntouchedFiles(const fs::path& folder) {
  std::vector<fs::path> files = {folder / "outside" / "x", folder / "outside.txt",
                                 folder / "tree" / "common" / "untouched"};
  for (const auto& file : files) std::ofstream(file) << kUntouched;
  return files;
}

// A process of its own, as hosts are.
pid_t StartWorker(int board, const fs::path& folder, int number, uint32_t seed) {
  const std::string words[] = {std::to_string(board), folder.string(), std::to_string(number), std::to_string(seed)};
  const pid_t child = fork();
  if (child != 0) return child;
  execl("/proc/self/exe", "soak", "--worker", words[0].c_str(), words[1].c_str(), words[2].c_str(), words[3].c_str(),
        nullptr);
  _exit(127);
}

int PlayWorker(char** arguments) {
  Board* board = MapBoard(std::atoi(arguments[0]));
  const fs::path folder = arguments[1];
  if (!board) return 2;
  VemoSetLogPath((folder / "log").wstring().c_str());
  return RunWorker(*board, (folder / "tree").wstring(), std::atoi(arguments[2]),
                   static_cast<uint32_t>(std::strtoul(arguments[3], nullptr, 10)));
}

// Kills a worker every now and then and starts it again.
class Workers {
 public:
  Workers(Board& board, int descriptor, fs::path folder, uint32_t seed)
      : board_(board), descriptor_(descriptor), folder_(std::move(folder)), random_(seed) {
    for (int number = 0; number < kWorkers; ++number) Start(number);
  }
  void KillOne() {
    const int number = static_cast<int>(random_() % kWorkers);
    kill(processes_[number], SIGKILL);
    waitpid(processes_[number], nullptr, 0);
    Start(number);
    ++kills_;
  }
  // False when one does not end.
  bool End() {
    board_.stop = true;
    for (const pid_t process : processes_) {
      int status = 0;
      int waited = 0;
      while (waitpid(process, &status, WNOHANG) == 0)
        if (sleep(1), ++waited > kLongestEndSeconds) return false;
      if (status != 0) ++board_.faults;
    }
    return true;
  }
  unsigned kills() const { return kills_; }

 private:
  void Start(int number) {
    processes_[number] = StartWorker(descriptor_, folder_, number, static_cast<uint32_t>(random_()));
  }

  Board& board_;
  int descriptor_;
  fs::path folder_;
  std::mt19937 random_;
  pid_t processes_[kWorkers] = {};
  unsigned kills_ = 0;
};

int CheckLines(const Board& board, const fs::path& log) {
  for (int worker = 0; worker < kWorkers; ++worker) {
    std::wstring name;
    std::string text;
    for (uint32_t line = 0; line < board.lines[worker]; ++line) {
      if (LogFileOf(worker, line) != name) {
        name = LogFileOf(worker, line);
        std::ifstream file(log / name, std::ios::binary);
        text.assign(std::istreambuf_iterator<char>(file), {});
      }
      if (text.find("):" + LogText(worker, line) + "\r\n") == std::string::npos)
        return Report("line " + std::to_string(line) + " of worker " + std::to_string(worker) + " is lost or cut");
    }
  }
  return 0;
}

int CheckUntouched(const std::vector<fs::path>& files) {
  for (const auto& path : files) {
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (text != kUntouched) return Report(path.string() + " was touched");
  }
  return 0;
}

// A process that ends in good order takes the files with it that nobody holds.
int CheckSharedMemory() {
  const std::string prefix = "qel-" + std::to_string(getuid()) + "-";
  int result = 0;
  for (const auto& folder : fs::directory_iterator("/dev/shm")) {
    if (!folder.path().filename().string().starts_with(prefix)) continue;
    for (const auto& file : fs::directory_iterator(folder)) result = Report("left: " + file.path().string());
  }
  return result;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount == 6 && std::string(arguments[1]) == "--worker") return PlayWorker(arguments + 2);
  const double minutes = argumentCount > 1 ? std::atof(arguments[1]) : 2;
  const auto seed =
      argumentCount > 2 ? static_cast<uint32_t>(std::strtoul(arguments[2], nullptr, 10)) : std::random_device()();
  std::printf("soak: %.1f minutes, seed %u\n", minutes, seed);
  const int descriptor = memfd_create("soak", 0);
  Board* board = ftruncate(descriptor, sizeof(Board)) == 0 ? MapBoard(descriptor) : nullptr;
  if (!board) return 2;
  const fs::path folder = MakeFolder();
  const auto untouched = PlaceUntouchedFiles(folder);
  std::fflush(nullptr);
  Workers workers(*board, descriptor, folder, seed);
  const time_t end = time(nullptr) + static_cast<time_t>(minutes * 60);
  while (time(nullptr) < end && board->faults == 0) {
    usleep(500'000);
    workers.KillOne();
  }
  int result = workers.End() ? 0 : Report("a worker does not end");
  if (board->faults != 0) result = 1;
  result |= CheckLines(*board, folder / "log") | CheckUntouched(untouched);
  // The last process that ends in good order clears shared memory; this one never used it.
  const pid_t last = fork();
  if (last == 0) {
    CloseHandle(CreateMutexX(__LINE__, __FILE__, nullptr, FALSE, L"Local\\QelSoakLast"));
    std::exit(0);
  }
  waitpid(last, nullptr, 0);
  result |= CheckSharedMemory();
  std::printf("soak: %llu operations, %u kills, %s\n", static_cast<unsigned long long>(board->operations),
              workers.kills(), result ? "FAILED" : "nothing found");
  if (result) {
    std::printf("soak: repeat with: script/soak %.1f %u; left for a look: %s\n", minutes, seed, folder.c_str());
    return result;
  }
  fs::remove_all(folder);
  return 0;
}
