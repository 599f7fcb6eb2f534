// Where named objects live. Each scenario is played by a process with shared memory of its own; it ends with 0, with
// the line of what went wrong, or with kSkipped where the system does not let it have that.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "test/platform/objects/handles.h"
#include "test/support/child_process.h"
#include "test/support/own_mounts.h"

using namespace qel::test;
namespace fs = std::filesystem;

namespace {

constexpr int kSkipped = 77;
constexpr uid_t kOther = 54321;
constexpr wchar_t kName[] = L"Local\\qel-namespace";

#define REQUIRE(condition)                                                 \
  do {                                                                     \
    if (!(condition)) {                                                    \
      std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
      return 1;                                                            \
    }                                                                      \
  } while (false)

std::vector<const char*>& Names() {
  static std::vector<const char*> names;
  return names;
}

// A process with shared memory of its own, which a test starts by the name.
#define SCENARIO(name)                                                            \
  static int Play##name();                                                        \
  CHILD_ROLE(name) { return UsePrivateSharedMemory() ? Play##name() : kSkipped; } \
  static const bool g_has##name = (Names().push_back(#name), true);               \
  static int Play##name()

bool MakeFolder(const std::string& name, uid_t owner, mode_t mode) {
  const std::string path = "/dev/shm/" + name;
  return mkdir(path.c_str(), mode) == 0 && chown(path.c_str(), owner, owner) == 0 && chmod(path.c_str(), mode) == 0;
}
std::string OwnPrefix() { return "qel-" + std::to_string(geteuid()) + "-"; }

// The result of a mutex that works: it is new, its name is known, and it excludes.
bool WorksAsMutex() {
  const Handle mutex = CreateMutexW(nullptr, TRUE, kName);
  if (!mutex || GetLastError() != ERROR_SUCCESS) return false;
  const Handle again = CreateMutexW(nullptr, FALSE, kName);
  if (!again || GetLastError() != ERROR_ALREADY_EXISTS) return false;
  const bool excludes = Worker([&] { return WaitForSingleObject(again, 0); }).Join() == WAIT_TIMEOUT;
  return excludes && ReleaseMutex(again) && !ReleaseMutex(mutex);
}

// The file of a closed mutex is kept at hand.
void Park(const std::wstring& name) { Handle(CreateMutexW(nullptr, FALSE, name.c_str())).Close(); }

bool BecomeOther() { return setresgid(kOther, kOther, kOther) == 0 && setresuid(kOther, kOther, kOther) == 0; }

bool Limit(__rlimit_resource resource, rlim_t soft, rlim_t hard) {
  const rlimit limit = {soft, hard};
  return setrlimit(resource, &limit) == 0;
}

SCENARIO(RefuseFolders) {
  if (geteuid() != 0) return kSkipped;
  const std::string prefix = "qel-" + std::to_string(kOther) + "-";
  REQUIRE(MakeFolder(prefix + "0-foreign", 0, 0700));
  REQUIRE(MakeFolder("target", kOther, 0700));
  REQUIRE(symlink("/dev/shm/target", ("/dev/shm/" + prefix + "1-link").c_str()) == 0);
  REQUIRE(MakeFolder(prefix + "2-open", kOther, 0777));
  std::ofstream("/dev/shm/" + prefix + "3-file");
  const size_t before = CountSharedMemory();
  REQUIRE(BecomeOther());
  const Handle event = CreateEventW(nullptr, FALSE, FALSE, kName);
  REQUIRE(event);
  std::string folder;
  for (const auto& entry : fs::directory_iterator("/dev/shm")) {
    struct stat status;
    REQUIRE(lstat(entry.path().c_str(), &status) == 0);
    if (!S_ISDIR(status.st_mode) || status.st_uid != kOther || (status.st_mode & 0777) != 0700) continue;
    if (entry.path().filename() != "target") folder = entry.path();
  }
  REQUIRE(folder.starts_with("/dev/shm/" + prefix));
  REQUIRE(!fs::is_empty(folder));
  REQUIRE(fs::is_empty("/dev/shm/target"));
  REQUIRE(fs::is_empty("/dev/shm/" + prefix + "2-open"));
  REQUIRE(fs::file_size(fs::directory_iterator(folder)->path()) == 4096);
  REQUIRE((fs::status(fs::directory_iterator(folder)->path()).permissions() & fs::perms::mask) ==
          (fs::perms::owner_read | fs::perms::owner_write));
  REQUIRE(before == 5);
  return 0;
}

SCENARIO(TakeSmallest) {
  REQUIRE(MakeFolder(OwnPrefix() + "b", geteuid(), 0700));
  REQUIRE(MakeFolder(OwnPrefix() + "a", geteuid(), 0700));
  REQUIRE(geteuid() != 0 || MakeFolder(OwnPrefix() + "0", kOther, 0700));  // which only root could enter
  const Handle event = CreateEventW(nullptr, FALSE, FALSE, kName);
  REQUIRE(!fs::is_empty("/dev/shm/" + OwnPrefix() + "a"));
  REQUIRE(geteuid() != 0 || fs::is_empty("/dev/shm/" + OwnPrefix() + "0"));
  REQUIRE(fs::is_empty("/dev/shm/" + OwnPrefix() + "b"));
  return 0;
}

CHILD_ROLE(EndOrderly) {
  static const Handle mutex = CreateMutexW(nullptr, TRUE, L"kept");
  Park(L"parked");
  static const Handle event = CreateEventW(nullptr, TRUE, TRUE, L"Global\\event");
  return mutex && event ? 0 : 1;
}
CHILD_ROLE(HoldAndHear) {
  static const HANDLE handles[] = {CreateMutexW(nullptr, TRUE, L"left"), CreateSemaphoreW(nullptr, 1, 1, L"count"),
                                   CreateWaitableTimerA(nullptr, TRUE, "timer")};
  Say("held");
  Hear();
  return handles[2] ? 0 : 1;
}
SCENARIO(LeaveNothing) {
  {
    ChildProcess killed("HoldAndHear");
    REQUIRE(killed.WaitForLine() == "held");
    REQUIRE(ChildProcess("EndOrderly").Wait() == 0);
    REQUIRE(CountSharedMemory() == 4);  // the folder and what is still held
  }
  REQUIRE(CountSharedMemory() == 4);
  REQUIRE(ChildProcess("EndOrderly").Wait() == 0);
  REQUIRE(CountSharedMemory() == 0);
  return 0;
}

// A process that has the folder open while somebody removes it makes and finds objects in the next one.
SCENARIO(LoseFolder) {
  Handle(CreateEventW(nullptr, FALSE, FALSE, kName)).Close();
  Park(kName);  // parked in it
  for (const auto& entry : fs::directory_iterator("/dev/shm")) fs::remove_all(entry.path());
  Sleep(100);  // the file is not looked for at once
  REQUIRE(WorksAsMutex());
  REQUIRE(CountSharedMemory() == 2);
  ChildProcess holder("HoldAndHear");
  REQUIRE(holder.WaitForLine() == "held");
  const Handle joined = OpenMutexW(MUTEX_ALL_ACCESS, FALSE, L"left");
  REQUIRE(joined);
  return 0;
}

CHILD_ROLE(OpenParked) { return OpenMutexW(MUTEX_ALL_ACCESS, FALSE, kName) ? 1 : static_cast<int>(GetLastError()); }
SCENARIO(ParkAndFind) {
  for (int i = 0; i < 3; ++i) {
    REQUIRE(WorksAsMutex());
    REQUIRE(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, kName) == nullptr);
    REQUIRE(WorksAsMutex());
    if (i == 1) REQUIRE(ChildProcess("OpenParked").Wait() == ERROR_FILE_NOT_FOUND);
  }
  for (int i = 0; i < 100; ++i) Park(kName + std::to_wstring(i));
  REQUIRE(CountSharedMemory() <= 17);  // only so many are kept at hand
  return 0;
}

// What this process has at hand neither keeps another's object alive nor hides it, and the name is free for a section.
SCENARIO(ParkBeside) {
  Park(L"left");
  {
    ChildProcess killed("HoldAndHear");
    REQUIRE(killed.WaitForLine() == "held");
    const Handle joined = CreateMutexW(nullptr, FALSE, L"left");
    REQUIRE(GetLastError() == ERROR_ALREADY_EXISTS);
    REQUIRE(WaitForSingleObject(joined, 0) == WAIT_TIMEOUT);
  }
  REQUIRE(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, L"left") == nullptr);
  Handle again = CreateMutexW(nullptr, FALSE, L"left");
  REQUIRE(GetLastError() == ERROR_SUCCESS);
  REQUIRE(WaitForSingleObject(again, 0) == WAIT_OBJECT_0);
  REQUIRE(ReleaseMutex(again));
  again.Close();
  const Handle section = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 8192, L"left");
  REQUIRE(section && GetLastError() == ERROR_SUCCESS);
  const void* view = MapViewOfFile(section, FILE_MAP_READ, 0, 0, 0);
  REQUIRE(view && *static_cast<const char*>(view) == 0);
  return 0;
}

int FallBack() {
  for (int i = 0; i < 2; ++i) REQUIRE(WorksAsMutex());
  const Handle mutex = CreateMutexW(nullptr, FALSE, kName);
  REQUIRE(CreateEventW(nullptr, FALSE, FALSE, kName) == nullptr);
  REQUIRE(GetLastError() == ERROR_INVALID_HANDLE);
  REQUIRE(CreateEventW(nullptr, FALSE, FALSE, L"no-room") == nullptr);
  REQUIRE(GetLastError() != ERROR_SUCCESS);
  REQUIRE(CreateMutexW(nullptr, FALSE, L"bad\\name") == nullptr);
  REQUIRE(GetLastError() == ERROR_PATH_NOT_FOUND);
  return 0;
}
SCENARIO(FullMemory) {
  std::ofstream("/dev/shm/filler") << std::string(4 << 20, 'x');
  return FallBack();
}
SCENARIO(ReadOnlyMemory) {
  REQUIRE(mount(nullptr, "/dev/shm", nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0);
  return FallBack();
}
SCENARIO(NoMemory) {
  REQUIRE(mount("test", "/dev", "tmpfs", 0, nullptr) == 0);
  return FallBack();
}

// Whoever cannot look for the folder must not take it for missing: a folder would be made with every try. The first
// descriptors let more and more of the look succeed, up to one that makes the folder.
SCENARIO(NoDescriptors) {
  const int next = dup(0);
  close(next);
  for (rlim_t left = 0; left < 8; ++left) {
    REQUIRE(Limit(RLIMIT_NOFILE, next + left, 1024));
    for (int i = 0; i < 3; ++i) REQUIRE(WorksAsMutex());
    REQUIRE(Limit(RLIMIT_NOFILE, 1024, 1024));
    REQUIRE(CountSharedMemory() <= 2);  // the folder and the mutex at hand
  }
  return 0;
}

SCENARIO(NoHeap) {
#ifdef QEL_SANITIZE
  return kSkipped;  // its allocator ends the process
#endif
  rlimit limit;
  getrlimit(RLIMIT_AS, &limit);
  REQUIRE(Limit(RLIMIT_AS, 0, limit.rlim_max));
  void* volatile block;  // or the compiler leaves the blocks out
  for (size_t bytes = 1 << 20; bytes >= 16; bytes /= 2) do {
      block = malloc(bytes);
    } while (block);
  for (int i = 0; i < 5; ++i) Park(kName);
  REQUIRE(setrlimit(RLIMIT_AS, &limit) == 0);
  REQUIRE(CountSharedMemory() <= 2);
  REQUIRE(WorksAsMutex());
  return 0;
}

// Folder and files have their rights whatever the umask takes, so that the next process finds them.
SCENARIO(Umask) {
  if (geteuid() == 0) REQUIRE(BecomeOther());
  for (const mode_t mask : {0777, 0177, 0277, 0}) {
    umask(mask);
    const Handle event = CreateEventW(nullptr, FALSE, FALSE, (kName + std::to_wstring(mask)).c_str());
    REQUIRE(event);
    REQUIRE(WorksAsMutex());
    const Handle mutex = CreateMutexW(nullptr, FALSE, kName);
    REQUIRE(ChildProcess("OpenParked").Wait() == 1);
  }
  for (const auto& entry : fs::recursive_directory_iterator("/dev/shm"))
    REQUIRE(entry.status().permissions() == (entry.is_directory() ? fs::perms::owner_all : fs::perms(0600)));
  // A folder whose maker was killed before it could give it its rights is used, not left beside another one.
  REQUIRE(ChildProcess("EndOrderly").Wait() == 0);
  REQUIRE(std::distance(fs::directory_iterator("/dev/shm"), {}) == 1);
  REQUIRE(chmod(fs::directory_iterator("/dev/shm")->path().c_str(), 0) == 0);
  REQUIRE(ChildProcess("EndOrderly").Wait() == 0);
  REQUIRE(std::distance(fs::directory_iterator("/dev/shm"), {}) == 1);
  return 0;
}

// What the host does not open is not opened in its place.
SCENARIO(NoStandardDescriptors) {
  for (int i = 0; i < 3; ++i) close(i);
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  const Handle inheritable = CreateEventW(&inherit, FALSE, FALSE, nullptr);
  const Handle section = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 8192, L"section");
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof status;
  REQUIRE(GlobalMemoryStatusEx(&status) && inheritable && section && WorksAsMutex());
  const Handle file = CreateFileW(L"/dev/shm/file", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  REQUIRE(file != INVALID_HANDLE_VALUE);
  for (int i = 0; i < 3; ++i) REQUIRE(fcntl(i, F_GETFD) < 0);
  return 0;
}

// A daemon closes every descriptor and opens files of its own under the same numbers.
SCENARIO(AllDescriptorsClosed) {
  Handle event = CreateEventW(nullptr, FALSE, FALSE, L"event");
  for (int i = 0; i < 3; ++i) Park(kName + std::to_wstring(i));
  Park(kName);
  closefrom(3);
  std::vector<int> files;
  for (int i = 0; i < 40; ++i) {
    files.push_back(open("/dev/shm/daemon", O_RDWR | O_CREAT | O_APPEND, 0600));
    struct flock lock = {};
    lock.l_type = F_RDLCK;
    REQUIRE(fcntl(files.back(), F_OFD_SETLK, &lock) == 0);
  }
  Sleep(50);  // what is kept is not looked at more often than every few milliseconds
  event.Close();
  for (int i = 0; i < 3; ++i) REQUIRE(WorksAsMutex());
  const Handle mutex = CreateMutexW(nullptr, FALSE, kName);
  REQUIRE(ChildProcess("OpenParked").Wait() == 1);
  for (int i = 0; i < 20; ++i) Park(kName + std::to_wstring(i));
  for (const int file : files) {
    REQUIRE(fcntl(file, F_GETFD) >= 0);
    if (file != files[0]) close(file);
  }
  const int another = open("/dev/shm/daemon", O_RDWR);
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  REQUIRE(fcntl(another, F_OFD_GETLK, &lock) == 0 && lock.l_type == F_RDLCK);  // the first one's lock is there still
  REQUIRE(fs::file_size("/dev/shm/daemon") == 0);
  return 0;
}

// More processes than one machine word, or a thousand, has room for.
SCENARIO(ManyProcesses) {
#ifdef QEL_SANITIZE
  return kSkipped;  // each process would need much memory of its own
#endif
  constexpr int kCount = 1100;
  const Handle mutex = CreateMutexW(nullptr, TRUE, kName);
  int results[2], end[2];
  REQUIRE(pipe(results) == 0 && pipe(end) == 0);
  for (int i = 0; i < kCount; ++i) {
    const pid_t child = fork();
    REQUIRE(child >= 0);
    if (child != 0) continue;
    close(end[1]);
    const HANDLE joined = CreateMutexW(nullptr, TRUE, kName);
    const bool good = GetLastError() == ERROR_ALREADY_EXISTS && WaitForSingleObject(joined, 0) == WAIT_TIMEOUT;
    char byte = good ? '+' : '-';
    _exit(write(results[1], &byte, 1) == 1 && read(end[0], &byte, 1) == 0 ? 0 : 1);
  }
  close(results[1]);
  for (int i = 0; i < kCount; ++i) {
    char byte = 0;
    REQUIRE(read(results[0], &byte, 1) == 1);
    REQUIRE(byte == '+');
  }
  REQUIRE(ReleaseMutex(mutex));
  close(end[1]);
  int status = 0;
  while (wait(&status) > 0) REQUIRE(status == 0);
  return 0;
}

// A service that starts as root and goes on as somebody else leaves no folders for the wrong user.
SCENARIO(ChangeUser) {
  if (geteuid() != 0) return kSkipped;
  Handle event = CreateEventW(nullptr, FALSE, FALSE, L"event");
  for (int i = 0; i < 16; ++i) Park(kName + std::to_wstring(i));
  REQUIRE(setresuid(kOther, kOther, kOther) == 0);
  REQUIRE(WorksAsMutex());
  for (int i = 0; i < 16; ++i) Park(kName + std::to_wstring(i));
  event.Close();
  REQUIRE(WorksAsMutex());
  int folders = 0;
  for (const auto& entry : fs::directory_iterator("/dev/shm")) {
    struct stat status;
    REQUIRE(stat(entry.path().c_str(), &status) == 0);
    REQUIRE(entry.path().filename().string().starts_with("qel-" + std::to_string(status.st_uid) + "-"));
    ++folders;
  }
  REQUIRE(folders == 2);
  return 0;
}

// Growing a file beyond the limit would raise a signal that ends the host.
SCENARIO(FileSizeLimit) {
  REQUIRE(Limit(RLIMIT_FSIZE, 100, RLIM_INFINITY));
  return FallBack();
}

// What a forked child closes and ends with is not its parent's.
SCENARIO(Fork) {
  const Handle event = CreateEventW(nullptr, TRUE, FALSE, kName);
  const Handle mutex = CreateMutexW(nullptr, TRUE, L"forked");
  Handle(CreateMutexW(nullptr, TRUE, L"closed while owned")).Close();
  const pid_t child = fork();
  if (child == 0) {
    if (!CloseHandle(event) || !CloseHandle(mutex)) _exit(1);
    const Handle joined = OpenEventW(EVENT_ALL_ACCESS, FALSE, kName);
    const Handle owned = OpenMutexW(MUTEX_ALL_ACCESS, FALSE, L"forked");
    if (!joined || !SetEvent(joined) || WaitForSingleObject(owned, 0) != WAIT_TIMEOUT) _exit(2);
    exit(0);
  }
  int status = 0;
  REQUIRE(waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0);
  REQUIRE(WaitForSingleObject(event, 0) == WAIT_OBJECT_0);
  REQUIRE(ReleaseMutex(mutex));
  REQUIRE(ChildProcess("OpenParked").Wait() == ERROR_INVALID_HANDLE);  // the event is there still
  return 0;
}

class Scenarios : public testing::TestWithParam<const char*> {};

TEST_P(Scenarios, EndWell) {
  const int code = ChildProcess(GetParam()).Wait();
  if (code == kSkipped) GTEST_SKIP() << "needs shared memory of its own, and the system's allocator";
  EXPECT_EQ(code, 0);
}

INSTANTIATE_TEST_SUITE_P(Namespace, Scenarios, testing::ValuesIn(Names()),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
