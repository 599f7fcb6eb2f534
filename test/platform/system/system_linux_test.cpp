// What the layer reads from the kernel and from files of the user, and what a host may do under it.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fstream>

#include "qelibaselib/platform/linux/system/mount_table.h"
#include "qelibaselib/platform/linux/system/profile_text.h"
#include "test/support/library.h"
#include "test/support/own_mounts.h"

using qel::layer::ListDisks;
using qel::layer::ProfileValue;
using qel::test::ScratchFolder;

namespace {

// Runs a check in a forked child: 0 for a good one.
int InForkedChild(const std::function<bool()>& check) {
  const pid_t child = fork();
  if (child == 0) _exit(check() ? 0 : 1);
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

DWORDLONG AvailableVirtual() {
  MEMORYSTATUSEX status = {};
  status.dwLength = sizeof status;
  return GlobalMemoryStatusEx(&status) && status.ullTotalPhys > 0 ? status.ullAvailVirtual : 0;
}

bool IsNoFile(const qel::layer::Disk& disk) { return !disk.root.starts_with("/file"); }

TEST(MountTable, DisksEachOnce) {
  const auto disks = ListDisks(
      "21 22 254:0 /etc/hosts /file/first rw - ext4 /dev/vda rw\n"
      "21 22 254:0 /volumes /volumes rw - ext4 /dev/vda rw\n"
      "22 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
      "23 22 0:21 / /proc rw - proc proc rw\n"
      "24 22 0:22 / /dev rw - devtmpfs /dev/null rw\n"
      "25 22 254:16 / /data\\040one\\134x rw master:1 shared:2 - xfs /dev/vdb rw\n"
      "26 22 254:16 /sub /bind rw - xfs /dev/vdb rw\n"
      "26 22 254:32 /etc/hostname /file/only rw - xfs /dev/vdc rw\n"
      "26 22 254:48 /part /part rw - fuseblk /dev/vdd rw\n"
      "26 22 254:64 / /over rw - xfs /dev/vde rw\n"
      "26 22 254:80 / /over rw - iso9660 /dev/vdf rw\n"
      "27 22 0:50 / /net rw - nfs4 server:/export rw\n"
      "28 22 11:0 / /cd ro - iso9660 /dev/sr0 ro\n"
      "29 22 0:60 / /pool rw - zfs tank rw\n"
      "30 22 0:61 / /tmp rw - tmpfs tmpfs rw\n",
      &IsNoFile);
  const struct {
    const char *root, *device;
    UINT type;
    bool mayHang;
  } expected[] = {{"/", "254:0", DRIVE_FIXED, false},      {"/data one\\x/", "254:16", DRIVE_FIXED, false},
                  {"/part/", "254:48", DRIVE_FIXED, true}, {"/over/", "254:80", DRIVE_CDROM, false},
                  {"/net/", "0:50", DRIVE_REMOTE, true},   {"/cd/", "11:0", DRIVE_CDROM, false},
                  {"/pool/", "0:60", DRIVE_FIXED, false}};
  ASSERT_EQ(disks.size(), std::size(expected));
  for (size_t i = 0; i < disks.size(); ++i) {
    EXPECT_EQ(disks[i].root, expected[i].root);
    EXPECT_EQ(disks[i].device, expected[i].device);
    EXPECT_EQ(disks[i].type, expected[i].type);
    EXPECT_EQ(disks[i].mayHang, expected[i].mayHang);
  }
}

TEST(MountTable, BrokenText) {
  for (const char* const text : {"", "\n", "\n\n", "22", "22 1 254:0 / / rw", "22 1 254:0 / / rw - ext4 /dev/vda rw",
                                 "22 1 254:0\n", "22 1 254:0 / x rw - ext4 /dev/vda rw\n", "     \n",
                                 "22 1 254:0 / /a\\04 rw shared:1\n", "22 1 254:0 / /a\\ rw -\n"})
    EXPECT_TRUE(ListDisks(text, &IsNoFile).empty()) << text;
  EXPECT_EQ(ListDisks("22 1 254:0 / /a\\09\\04 rw - ext4 /dev/vda rw\n", &IsNoFile)[0].root, "/a\\09\\04/");
}

TEST(ProfileText, SectionsAndKeys) {
  constexpr std::string_view kText =
      "key=outside\r\n; [AeDebug]\r\n[Other]\r\nDebugger=no\r\n[ aedebug ]\r\n;Debugger=comment\r\n"
      "  DEBUGGER =  gdb -p %lu \t\r\nDebugger=second\r\nquoted=\"a b\"\nhalf=\"/x y/gdb\" -p %lu\nempty=\nno "
      "equals\n[broken\nz=1";
  EXPECT_EQ(ProfileValue(kText, "AeDebug", "Debugger"), "gdb -p %lu");
  EXPECT_EQ(ProfileValue(kText, "AeDebug", "quoted"), "a b");
  EXPECT_EQ(ProfileValue(kText, "AeDebug", "half"), "\"/x y/gdb\" -p %lu");
  EXPECT_EQ(ProfileValue(kText, "AeDebug", "empty"), "");
  EXPECT_EQ(ProfileValue(kText, "AeDebug", "no equals"), std::nullopt);
  EXPECT_EQ(ProfileValue(kText, "AeDebug", "key"), std::nullopt);
  EXPECT_EQ(ProfileValue(kText, "broken", "z"), std::nullopt);
  EXPECT_EQ(ProfileValue("", "a", "b"), std::nullopt);
  EXPECT_EQ(ProfileValue("[a]\nb='", "a", "b"), "'");
}

// The value is a command, so only a file counts that nobody else can have written.
TEST(Profile, OnlyTrustedFilesCount) {
  const ScratchFolder folder;
  const std::filesystem::path file = folder.Path() / "qelibaselib" / "win.ini", elsewhere = folder.Path() / "other.ini";
  std::filesystem::create_directories(file.parent_path());
  const char* const before = getenv("XDG_CONFIG_HOME");
  const std::string saved = before ? before : "";
  setenv("XDG_CONFIG_HOME", folder.Path().c_str(), 1);
  const auto value = [] {
    char text[64] = "";
    GetProfileStringA("AeDebug", "Debugger", nullptr, text, sizeof text);
    return std::string(text);
  };
  qel::test::WriteWholeFile(file, "[AeDebug]\nDebugger=mine\n");
  chmod(file.c_str(), 0644);
  EXPECT_EQ(value(), "mine");
  for (const mode_t mode : {0664, 0646, 0666}) {
    chmod(file.c_str(), mode);
    EXPECT_EQ(value(), "") << std::oct << mode;
  }
  chmod(file.c_str(), 0600);
  std::filesystem::rename(file, elsewhere);
  std::filesystem::create_symlink(elsewhere, file);
  EXPECT_EQ(value(), "") << "a link is not followed";
  std::filesystem::remove(file);
  mkfifo(file.c_str(), 0600);
  EXPECT_EQ(value(), "") << "and nothing that is no file is waited for";
  std::filesystem::remove(file);
  if (geteuid() == 0) {
    std::filesystem::rename(elsewhere, file);
    ASSERT_EQ(chown(file.c_str(), 65534, 65534), 0);
    EXPECT_EQ(value(), "") << "of another user";
  }
  before ? setenv("XDG_CONFIG_HOME", saved.c_str(), 1) : unsetenv("XDG_CONFIG_HOME");
}

TEST(MemoryStatus, ForkedChildTellsOfItself) {
  ASSERT_GT(AvailableVirtual(), 0u);
  EXPECT_EQ(InForkedChild([] {
              const DWORDLONG before = AvailableVirtual();
              void* const block = VirtualAlloc(nullptr, 64 << 20, MEM_RESERVE, PAGE_READWRITE);
              return block && before - AvailableVirtual() >= 32u << 20;
            }),
            0);
}

TEST(MemoryStatus, FollowsWhatTheHostMapsItself) {
  constexpr size_t kBytes = 64 << 20;
  const DWORDLONG before = AvailableVirtual();
  void* const block = mmap(nullptr, kBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  for (int tries = 0; tries < 1000 && AvailableVirtual() + kBytes / 2 > before; ++tries)
    Sleep(10);  // it is kept a while
  EXPECT_LE(AvailableVirtual() + kBytes / 2, before);
  munmap(block, kBytes);
}

// A host that closes every descriptor, as daemons do, and opens files of its own under the same numbers.
TEST(MemoryStatus, SurvivesDescriptorsClosedAndUsedAgain) {
  ASSERT_GT(AvailableVirtual(), 0u);
  EXPECT_EQ(InForkedChild([] {
              AvailableVirtual();
              const ScratchFolder folder;
              const std::string path = folder.Narrow("x");
              for (int descriptor = 3; descriptor < 256; ++descriptor) close(descriptor);
              int opened[64];
              for (int& descriptor : opened) descriptor = open(path.c_str(), O_RDWR | O_CREAT, 0600);
              if (write(opened[0], "MemTotal: nonsense", 8) != 8) return false;
              bool good = true;
              for (int i = 0; i < 3; ++i) good &= AvailableVirtual() > 0;
              for (const int descriptor : opened) good &= fcntl(descriptor, F_GETFD) >= 0;  // none was closed for it
              return good;
            }),
            0);
}

TEST(MemoryStatus, NothingReachesAnotherProgram) {
  AvailableVirtual();
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const std::string target = std::filesystem::read_symlink(entry.path(), error).string();
    const int descriptor = std::stoi(entry.path().filename().string());
    if (target.find("meminfo") != std::string::npos || target.find("statm") != std::string::npos) {
      EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << target;
    }
  }
}

TEST(UserName, FollowsTheEffectiveUser) {
  if (geteuid() != 0) GTEST_SKIP() << "needs to be root, to become someone else";
  EXPECT_EQ(InForkedChild([] {
              WCHAR name[257];
              DWORD size = 257;
              const bool first = GetUserNameW(name, &size) && std::wstring(name) == L"root";
              size = 257;
              const bool other = seteuid(65534) == 0 && GetUserNameW(name, &size) && std::wstring(name) == L"nobody";
              size = 257;
              // A user whom nobody has named goes by the number.
              const bool unnamed =
                  seteuid(0) == 0 && seteuid(54321) == 0 && GetUserNameW(name, &size) && std::wstring(name) == L"54321";
              return first && other && unnamed;
            }),
            0);
}

// The name that a user of this database is shown by; empty where none could be put in place of the system's.
std::wstring NameIn(const std::string& database, uid_t user) {
  const ScratchFolder folder;
  const std::string file = folder.Narrow("passwd");
  std::ofstream(file) << database;
  WCHAR name[257] = L"";
  DWORD size = 257;
  if (mount(file.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) != 0) return L"";
  if (seteuid(user) != 0 || !GetUserNameW(name, &size)) name[0] = 0;
  static_cast<void>(seteuid(0));
  umount("/etc/passwd");
  return name;
}

// Domain accounts hold a backslash, which no name of an object may; and who has much to tell is found all the same.
TEST(UserName, OfADomainMakesAnObjectsName) {
  if (geteuid() != 0) GTEST_SKIP() << "needs to be root, to put another user database in place";
  EXPECT_EQ(InForkedChild([] {
              if (!qel::test::EnterOwnMountSpace()) return true;
              const struct {
                std::string name, comment;
                std::wstring shown;
              } rows[] = {{"DOMAIN\\j\u00F6rg", "", L"DOMAIN\xF05Cj\u00F6rg"},
                          {"DOMAIN\uF05Cj\u00F6rg", "", L"DOMAIN\xDCEF\xDC81\xDC9Cj\u00F6rg"},
                          {"large", std::string(20'000, 'g'), L"large"},
                          {"", "", L"50004"}};
              uid_t user = 50001;
              for (const auto& [name, comment, shown] : rows) {
                const std::string line = name + ":x:" + std::to_string(user) + ":1:" + comment + ":/:/bin/sh\n";
                if (NameIn(line, user++) != shown) return false;
              }
              return CloseHandle(CreateMutexW(nullptr, FALSE, (L"Local\\stem_" + rows[0].shown).c_str())) != 0;
            }),
            0);
}

// One use of each part of the layer that has a lock of its own.
const std::pair<const char*, bool (*)()> kUses[] = {
    {"blocks",
     [] {
       void* const block = VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
       MEMORY_BASIC_INFORMATION region = {};
       return VirtualQuery(block, &region, sizeof region) != 0 && region.AllocationBase == block &&
              VirtualLock(block, 4096) && VirtualUnlock(block, 4096) && VirtualFree(block, 0, MEM_RELEASE);
     }},
    {"names", [] { return CloseHandle(CreateMutexW(nullptr, FALSE, L"qel-fork-test")) != 0; }},
    {"inheritance",
     [] {
       SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
       return CloseHandle(CreateEventW(&inherit, FALSE, FALSE, nullptr)) != 0;
     }},
    {"slots", [] { return TlsFree(TlsAlloc()) != 0; }},
    {"local time",
     [] {
       SYSTEMTIME time = {};
       GetLocalTime(&time);
       return time.wYear > 2000;
     }},
    {"user name",
     [] {
       WCHAR name[257];
       DWORD size = 257;
       return GetUserNameW(name, &size) != 0;
     }},
    {"signals", [] { return signal(SIGSEGV, SIG_DFL) != SIG_ERR; }},
    {"symbols", [] { return SymGetModuleBase(GetCurrentProcess(), 0) == 0; }},
    {"threads", [] { return WaitForSingleObject(GetCurrentThread(), 0) == WAIT_TIMEOUT; }},
    {"processes", [] { return WaitForSingleObject(GetCurrentProcess(), 0) == WAIT_TIMEOUT; }},
};

// A child can use what threads of its parent were using when it was forked. A host's thread that asks the C library for
// the time holds a lock that the layer must not need.
TEST(Fork, NothingIsHeldInTheChild) {
  for (const auto& [name, use] : kUses) {
    std::atomic<bool> stop{false};
    std::thread worker([&] {
      while (!stop) use();
    });
    std::thread host([&] {
      tm local;
      for (time_t utc = 0; !stop; utc += 1000) localtime_r(&utc, &local);
    });
    for (int i = 0; i < 40; ++i) {
      ASSERT_EQ(InForkedChild([use = use] {
                  alarm(30);
                  return use();
                }),
                0)
          << name;
    }
    stop = true;
    worker.join();
    host.join();
  }
}

}  // namespace
