#include "fuzz/soak/worker.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <thread>

#include "fuzz/soak/own_files.h"
#include "qelibaselib/qelibaselib.h"

namespace qel::soak {
namespace {

constexpr DWORD kWaitMs = 2000;
constexpr DWORD kIntervalMs = 50;
constexpr DWORD kLongestOperationMs = 60'000;  // the machine may be busy; a hang is longer
constexpr uint32_t kLinesInFile = 3000;        // well below the limit of a channel file
constexpr uint32_t kWarmUpOperations = 300;    // until everything that is kept open is open
constexpr const wchar_t* kCommonFiles[] = {L"one", L"two", L"three"};

size_t CountOpenDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd"), end;
  return static_cast<size_t>(std::distance(all, end));
}
DWORD CountHandles() {
  DWORD count = 0;
  GetProcessHandleCount(GetCurrentProcess(), &count);
  return count;
}

class Worker {
 public:
  Worker(Board& board, const std::wstring& folder, int number, uint32_t seed)
      : board_(board),
        folder_(folder),
        number_(number),
        random_(seed),
        files_(folder + L"/own" + std::to_wstring(number), random_) {}

  int Run() {
    for (uint32_t done = 0; !board_.stop; ++done) {
      if (done == kWarmUpOperations) RememberWhatIsOpen();
      const DWORD start = GetTickCount();
      std::string wrong = DoOneOperation();
      if (wrong.empty() && GetTickCount() - start > kLongestOperationMs)
        wrong = "an operation took " + std::to_string(GetTickCount() - start) + " ms";
      if (!wrong.empty()) return Tell(wrong);
      ++board_.operations;
    }
    return descriptors_ ? CheckWhatIsOpen() : 0;
  }

 private:
  int Tell(const std::string& wrong) {
    std::fprintf(stderr, "soak: worker %d: %s (last operation: %s)\n", number_, wrong.c_str(), operation_);
    ++board_.faults;
    return 1;
  }

  std::string DoOneOperation() {
    struct Operation {
      const char* name;
      std::string (Worker::*run)();
    };
    static constexpr Operation kOperations[] = {{"write", &Worker::Write},
                                                {"write", &Worker::Write},
                                                {"map", &Worker::Map},
                                                {"copy", &Worker::Copy},
                                                {"move", &Worker::Move},
                                                {"delete", &Worker::Delete},
                                                {"verify", &Worker::Verify},
                                                {"log", &Worker::Log},
                                                {"log", &Worker::Log},
                                                {"log", &Worker::Log},
                                                {"common", &Worker::UseCommon},
                                                {"common", &Worker::UseCommon},
                                                {"mutex", &Worker::UseMutex},
                                                {"mutex", &Worker::UseMutex},
                                                {"event", &Worker::UseEvent},
                                                {"section", &Worker::UseSection},
                                                {"tree", &Worker::CopyTreeNowAndThen},
                                                {"fork", &Worker::ForkNowAndThen},
                                                {"thread", &Worker::LogOnThread}};
    const Operation& operation = kOperations[random_() % std::size(kOperations)];
    operation_ = operation.name;
    return (this->*operation.run)();
  }

  std::string Write() { return files_.Write(); }
  std::string Map() { return files_.WriteThroughMapping(); }
  std::string Copy() { return files_.Copy(); }
  std::string Move() { return files_.Move(); }
  std::string Delete() { return files_.Delete(); }
  std::string Verify() { return files_.Verify(); }
  std::string CopyTreeNowAndThen() {
    return random_() % 16 ? "" : files_.CopyTree(folder_ + L"/copy" + std::to_wstring(number_));
  }

  // The number is taken up only when the writing call has returned: a line before that may be there or not.
  std::string Log() {
    const uint32_t line = board_.lines[number_];
    WriteLine(line);
    board_.lines[number_] = line + 1;
    return {};
  }
  void WriteLine(uint32_t line) {
    const std::wstring path = std::wstring(VemoGetLogPath()) + L"/" + LogFileOf(number_, line);
    VemoLogOutFile(L"QelSoak", path.c_str(), 60000, __LINE__, __FILE__, LogText(number_, line).c_str());
  }
  std::string LogOnThread() {
    std::thread([this] { Log(); }).join();
    return {};
  }

  // All workers open these, with any access and any mode of sharing.
  std::string UseCommon() {
    const std::wstring path = folder_ + L"/common/" + kCommonFiles[random_() % std::size(kCommonFiles)];
    static constexpr DWORD kAccess[] = {GENERIC_READ, GENERIC_WRITE, GENERIC_READ | GENERIC_WRITE, DELETE};
    const DWORD access = kAccess[random_() % std::size(kAccess)];
    const DWORD budget = random_() % 300;
    HANDLE file = CreateFileX(__LINE__, __FILE__, path.c_str(), access, random_() % 8, nullptr,
                              CREATE_NEW + random_() % 5, FILE_ATTRIBUTE_NORMAL, nullptr, budget, kIntervalMs);
    if (file == INVALID_HANDLE_VALUE) return {};
    char byte = 'x';
    DWORD count = 0;
    if (access & GENERIC_WRITE) WriteFileX(__LINE__, __FILE__, file, &byte, 1, &count, nullptr);
    if (access & GENERIC_READ) ReadFileX(__LINE__, __FILE__, file, &byte, 1, &count, nullptr);
    if (random_() % 4 == 0) Sleep(random_() % 10);
    CloseHandle(file);
    return {};
  }

  std::string UseMutex() {
    const unsigned index = random_() % kMutexes;
    const std::wstring name = L"Local\\QelSoakMutex" + std::to_wstring(index);
    HANDLE mutex = CreateMutexX(__LINE__, __FILE__, nullptr, FALSE, name.c_str());
    if (!mutex) return "CreateMutexX failed, error " + std::to_string(GetLastError());
    const DWORD waited = WaitForSingleObject(mutex, kWaitMs);
    std::string wrong;
    if (waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED) {
      auto& pair = board_.guarded[index];
      // The owner before may have been killed between the two.
      if (waited == WAIT_ABANDONED) pair[0] = pair[1].load();
      if (pair[0] != pair[1]) wrong = "two owners of a mutex at a time";
      ++pair[0];
      if (random_() % 8 == 0) Sleep(1);
      ++pair[1];
      if (!ReleaseMutex(mutex)) wrong = "ReleaseMutex failed";
    } else if (waited != WAIT_TIMEOUT) {
      wrong = "a wait gave " + std::to_string(waited);
    }
    CloseHandle(mutex);
    return wrong;
  }

  std::string UseEvent() {
    const std::wstring name = L"Local\\QelSoakEvent" + std::to_wstring(random_() % 3);
    HANDLE event = CreateEventX(__LINE__, __FILE__, nullptr, FALSE, FALSE, name.c_str());
    HANDLE semaphore = CreateSemaphoreX(__LINE__, __FILE__, nullptr, 1, 4, (name + L"s").c_str());
    if (!event || !semaphore) return "creating failed, error " + std::to_string(GetLastError());
    SetEvent(event);
    const HANDLE both[] = {event, semaphore};
    const DWORD waited = WaitForMultipleObjects(2, both, FALSE, 20);
    if (waited == WAIT_OBJECT_0 + 1) ReleaseSemaphore(semaphore, 1, nullptr);
    CloseHandle(semaphore);
    CloseHandle(event);
    return waited == WAIT_FAILED ? "a wait for two failed" : "";
  }

  std::string UseSection() {
    const std::wstring name = L"Local\\QelSoakSection" + std::to_wstring(random_() % 3);
    HANDLE mapping =
        CreateFileMappingX(__LINE__, __FILE__, INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 65536, 0, name.c_str());
    if (!mapping) return "CreateFileMappingX failed, error " + std::to_string(GetLastError());
    void* view = MapViewOfFileX(__LINE__, __FILE__, mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0, kWaitMs);
    if (view) {
      _MemSet(view, static_cast<int>(random_()), 65536, __LINE__, __FILE__);
      UnmapViewOfFileX(__LINE__, __FILE__, view);
    }
    CloseHandle(mapping);
    return view ? "" : "MapViewOfFileX failed";
  }

  // A child that goes on without exec: it logs, closes what it has inherited, and ends. The file stays ours alone.
  std::string ForkNowAndThen() {
    if (random_() % 8) return {};
    const std::wstring path = folder_ + L"/held" + std::to_wstring(number_);
    HANDLE file = CreateFileX(__LINE__, __FILE__, path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr, kWaitMs, kIntervalMs);
    if (file == INVALID_HANDLE_VALUE)
      return "CreateFileX of the held file failed, error " + std::to_string(GetLastError());
    const uint32_t line = board_.lines[number_];
    const pid_t child = fork();
    if (child == 0) {
      alarm(30);
      WriteLine(line);
      CloseHandle(file);
      _exit(0);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return "no child";
    if (status != 0) return "a forked child ended with " + std::to_string(status);
    board_.lines[number_] = line + 1;
    HANDLE second = CreateFileX(__LINE__, __FILE__, path.c_str(), GENERIC_READ, 7, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr, 0, 0);
    if (second != INVALID_HANDLE_VALUE) CloseHandle(second);
    CloseHandle(file);
    return second == INVALID_HANDLE_VALUE ? "" : "a child's close has opened the parent's file to others";
  }

  void RememberWhatIsOpen() {
    descriptors_ = CountOpenDescriptors();
    handles_ = CountHandles();
  }
  int CheckWhatIsOpen() {
    const size_t descriptors = CountOpenDescriptors();
    const DWORD handles = CountHandles();
    // A few descriptors of closed mutexes are kept at hand.
    constexpr size_t kParked = 8;
    if (handles != handles_)
      return Tell(std::to_string(handles) + " handles are open and not " + std::to_string(handles_));
    if (descriptors > descriptors_ + kParked)
      return Tell(std::to_string(descriptors) + " descriptors are open and not " + std::to_string(descriptors_));
    return 0;
  }

  Board& board_;
  std::wstring folder_;
  int number_;
  Random random_;
  OwnFiles files_;
  const char* operation_ = "none";
  size_t descriptors_ = 0;
  DWORD handles_ = 0;
};

}  // namespace

std::wstring LogFileOf(int worker, uint32_t line) {
  return L"soak" + std::to_wstring(worker) + L"_" + std::to_wstring(line / kLinesInFile) + L".txt";
}
std::string LogText(int worker, uint32_t line) {
  return "worker " + std::to_string(worker) + " line " + std::to_string(line) + ".";
}

int RunWorker(Board& board, const std::wstring& folder, int number, uint32_t seed) {
  return Worker(board, folder, number, seed).Run();
}

}  // namespace qel::soak
