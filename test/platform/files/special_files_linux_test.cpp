// Files as a Linux machine has them: of other owners, with several names, with holes; links, pipes, devices, sockets.
#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>

#include "qelibaselib/modulestatus/status_report.h"
#include "test/platform/files/file_calls.h"
#include "test/support/forked_child.h"
#include "test/support/small_disk.h"

using namespace qel::test;

namespace {

DWORD ErrorOf(BOOL succeeded) { return succeeded ? 0 : GetLastError(); }
DWORD Copy(const wchar_t* from, const wchar_t* to) { return ErrorOf(CopyFileW(from, to, FALSE)); }
DWORD Move(const std::wstring& from, const std::wstring& to) { return ErrorOf(MoveFileW(from.c_str(), to.c_str())); }
DWORD SetAttributesOf(const wchar_t* name, DWORD attributes) { return ErrorOf(SetFileAttributesW(name, attributes)); }

class SpecialFilesTest : public FileTest {
 protected:
  SpecialFilesTest() {
    Write("source", "new contents");
    mkfifo("fifo", 0644);
    EXPECT_EQ(symlink("/dev/zero", "zero"), 0);
    EXPECT_EQ(symlink("/dev/null", "null"), 0);
    EXPECT_EQ(symlink("nothing", "dangling"), 0);
    sockaddr_un address{AF_UNIX, "socket"};
    socket_ = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  ~SpecialFilesTest() override { close(socket_); }
  static struct stat StatusOf(const char* name) {
    struct stat status = {};
    EXPECT_EQ(lstat(name, &status), 0) << name;
    return status;
  }
  static mode_t ModeOf(const char* name) { return StatusOf(name).st_mode & 07777; }
  static bool IsThere(const char* name) {
    struct stat status;
    return lstat(name, &status) == 0;
  }

 private:
  int socket_;
};

}  // namespace

TEST_F(SpecialFilesTest, AreShownAsDevicesAndNeverCopied) {
  for (const wchar_t* name : {L"fifo", L"zero", L"null", L"socket"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(GetFileAttributesW(name), DWORD{FILE_ATTRIBUTE_DEVICE});
    EXPECT_EQ(Copy(name, L"copy"), DWORD{ERROR_NOT_SUPPORTED});
    EXPECT_FALSE(IsThere("copy"));
    EXPECT_EQ(Copy(L"source", name), DWORD{ERROR_NOT_SUPPORTED});
    EXPECT_EQ(GetFileAttributesW(name), DWORD{FILE_ATTRIBUTE_DEVICE}) << "is still there";
    EXPECT_TRUE(SetFileAttributesW(name, FILE_ATTRIBUTE_HIDDEN)) << "and has no such attribute";
    EXPECT_EQ(GetFileAttributesW(name), DWORD{FILE_ATTRIBUTE_DEVICE});
  }
  EXPECT_TRUE(S_ISLNK(StatusOf("null").st_mode) && S_ISFIFO(StatusOf("fifo").st_mode));
  WIN32_FIND_DATAW data;
  for (const wchar_t* name : {L"dangling", L"fifo"}) {
    FindClose(FindFirstFileW(name, &data));
    EXPECT_EQ(data.nFileSizeLow, 0u);
  }
  EXPECT_EQ(Copy(L"dangling", L"copy"), DWORD{ERROR_FILE_NOT_FOUND});
}

TEST_F(SpecialFilesTest, WhatADanglingLinkLeadsToIsMade) {
  MakeFolder("folder");
  const auto create = [](const wchar_t* name, DWORD disposition, DWORD attributes) {
    const HANDLE file = CreateFileW(name, GENERIC_WRITE, 0, nullptr, disposition, attributes, nullptr);
    const DWORD error = GetLastError();
    return file != INVALID_HANDLE_VALUE && CloseHandle(file) ? std::to_string(error) : "failed";
  };
  // The link, what it and the next link lead to, and the file that is made.
  const struct {
    const char *link, *target, *next;
    const char* made;
  } rows[] = {{"l", "made", nullptr, "made"},
              {"folder/l", "../made", nullptr, "made"},
              {"l", "folder/m", "../made", "made"},
              {"l", "folder/made", nullptr, "folder/made"}};
  for (const auto& row : rows) {
    for (const DWORD disposition : {CREATE_ALWAYS, OPEN_ALWAYS}) {
      SCOPED_TRACE(testing::Message() << row.link << " to " << row.target << ", " << disposition);
      EXPECT_EQ(symlink(row.target, row.link), 0);
      EXPECT_EQ(row.next ? symlink(row.next, row.target) : 0, 0);
      const std::wstring link = std::filesystem::path(row.link).wstring();
      EXPECT_EQ(create(link.c_str(), disposition, FILE_ATTRIBUTE_READONLY), "0");
      EXPECT_EQ(ModeOf(row.made) & 0222, 0u) << "has the attributes of a new file";
      chmod(row.made, 0644);
      EXPECT_EQ(create(link.c_str(), disposition, 0), "183");
      for (const char* name : {row.made, row.next ? row.target : row.made, row.link}) std::filesystem::remove(name);
    }
  }
  EXPECT_EQ(symlink("round", "round"), 0);
  EXPECT_EQ(create(L"round", CREATE_ALWAYS, 0), "failed");
}

TEST_F(SpecialFilesTest, StreamsNeverWaitForAPipe) {
  MakeFolder("folder");
  const int reader = open("fifo", O_RDONLY | O_NONBLOCK);
  for (const wchar_t* name : {L"fifo", L"folder", L"socket"})
    for (const wchar_t* mode : {L"at", L"rt", L"wb"}) EXPECT_EQ(_wfopen(name, mode), nullptr) << name << mode;
  close(reader);
  EXPECT_EQ(_wfopen(L"fifo", L"at"), nullptr) << "nobody reads it";
  FILE* null = _wfopen(L"null", L"at");
  ASSERT_TRUE(null) << "a log may be sent nowhere";
  std::fclose(null);
}

TEST_F(SpecialFilesTest, CopyOntoAFileOfAnotherOwnerReplacesItsContents) {
  Write("target", "old");
  chmod("target", 0666);
  chmod(".", 0777);
  if (chown("target", 12345, 12345) != 0) GTEST_SKIP() << "only root may give files away";
  const struct {
    DWORD attributes;
    uid_t user;
  } rows[] = {{0x20, kOtherUser}, {0x22, kOtherUser}, {0x21, kOtherUser}, {0x20, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.attributes << " as " << row.user);
    SetAttributes("source", row.attributes);
    const auto copy = [] { return Copy(L"source", L"target"); };
    EXPECT_EQ(row.user ? RunAsOtherUser(copy) : static_cast<int>(copy()), 0);
    SetAttributes("source", FILE_ATTRIBUTE_ARCHIVE);
    EXPECT_EQ(Read("target"), "new contents");
    EXPECT_EQ(StatusOf("target").st_uid, 12345u);
    EXPECT_EQ(ModeOf("target"), 0666u);
    Write("target", "old");
  }
}

TEST_F(SpecialFilesTest, CopyKeepsHolesModesAndOtherNames) {
  const int sparse = open("sparse", O_RDWR | O_CREAT, 0640);
  EXPECT_EQ(pwrite(sparse, "middle", 6, 4 << 20), 6);
  EXPECT_EQ(ftruncate(sparse, 8 << 20), 0);
  close(sparse);
  for (const int pass : {1, 2}) {
    EXPECT_EQ(Copy(L"sparse", L"copy"), 0u) << pass;
    EXPECT_EQ(StatusOf("copy").st_size, 8 << 20);
    EXPECT_LE(StatusOf("copy").st_blocks, StatusOf("sparse").st_blocks);
    EXPECT_EQ(Read("copy"), Read("sparse"));
    EXPECT_EQ(ModeOf("copy"), 0640u);
  }
  // One of the kernel's own files says that it has 4,096 bytes and no blocks, the other one that it has no bytes.
  for (const char* name : {"/sys/devices/system/cpu/online", "/proc/self/limits"}) {
    if (access(name, R_OK) != 0) continue;
    EXPECT_EQ(Copy(std::filesystem::path(name).wstring().c_str(), L"kernel"), 0u);
    EXPECT_EQ(Read("kernel"), ReadWholeFile(name));
    std::filesystem::remove("kernel");
  }
  Write("named");
  EXPECT_EQ(link("named", "other name"), 0);
  for (const DWORD attributes : {0x21ul, 0x22ul}) {
    SetAttributes("source", attributes);
    const mode_t before = ModeOf("other name");
    EXPECT_EQ(Copy(L"source", L"named"), 0u);
    EXPECT_EQ(ModeOf("other name"), before);
    EXPECT_EQ(Read("other name"), "new contents");
  }
}

TEST_F(SpecialFilesTest, AttributesOfOrdinaryUsers) {
  chmod(".", 0777);
  Write("foreign");
  chmod("foreign", 0644);
  Write("shared");
  chmod("shared", 0666);
  if (geteuid() != 0) GTEST_SKIP() << "only root becomes another user";
  EXPECT_EQ(RunAsOtherUser([] {
              FILE* const own = _wfopen(L"own", L"wb");
              if (own == nullptr || fclose(own) != 0) return 1;
              // Hidden and system stay with read-only, set at once and one after the other.
              for (const DWORD attributes : {0x27ul, 0x21ul, 0x23ul, 0x22ul, 0x81ul, 0x05ul}) {
                if (!SetFileAttributesW(L"own", attributes)) return 2;
                if (GetFileAttributesW(L"own") != (attributes & ~0x80ul)) return 3;
              }
              if (SetAttributesOf(L"foreign", 0x20) != 5)
                return 4;  // no right to write it, though nothing would change
              if (SetAttributesOf(L"foreign", 0x22) != 5) return 5;
              if (SetAttributesOf(L"shared", 0x20) != 0) return 6;
              return SetAttributesOf(L"shared", 0x21) == 5 ? 0 : 7;
            }),
            0);
}

TEST_F(SpecialFilesTest, WithoutExtendedAttributesTheRestStays) {
  MakeFolder("disk");
  if (mount("qel-test", "disk", "ramfs", 0, nullptr) != 0) GTEST_SKIP() << "only root may mount a disk";
  Write("disk/f");
  MakeFolder("disk/folder");
  const struct {
    const wchar_t* name;
    DWORD set, read;
  } rows[] = {{L"disk/f", 0x26, 0x20},      {L"disk/f", 0x23, 0x21},      {L"disk/f", 0x06, 0x80},
              {L"disk/folder", 0x02, 0x10}, {L"disk/folder", 0x03, 0x11}, {L"disk/folder", 0x22, 0x10}};
  for (const auto& row : rows) {
    EXPECT_EQ(SetAttributesOf(row.name, row.set), 0u);
    EXPECT_EQ(GetFileAttributesW(row.name), row.read) << row.name << row.set;
  }
  SetAttributes("source", 0x22);
  EXPECT_EQ(Copy(L"source", L"disk/copy"), 0u);
  EXPECT_EQ(GetFileAttributesW(L"disk/copy"), 0x20u);
  umount2("disk", MNT_DETACH);
}

TEST_F(SpecialFilesTest, MoveToAnotherDisk) {
  const SmallDisk disk("64k");
  if (!disk.IsMounted()) GTEST_SKIP() << "only root may mount a disk";
  for (const wchar_t* name : {L"fifo", L"zero", L"dangling", L"socket"}) {
    EXPECT_EQ(Move(name, disk.Wide("moved")), DWORD{ERROR_NOT_SAME_DEVICE}) << name;
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(disk.Path() / "moved")));
  }
  MakeFolder("kept");
  Write("kept/f", "contents");
  chmod("kept", 0755);
  std::filesystem::permissions(disk.Path(), std::filesystem::perms::all);
  EXPECT_EQ(RunAsOtherUser([&] { return Move(L"kept/f", disk.Wide("f")); }), 0);
  EXPECT_EQ(Read("kept/f"), "contents") << "a source that cannot be removed stays";
  EXPECT_EQ(ReadWholeFile(disk.Path() / "f"), "contents");
}

TEST_F(SpecialFilesTest, FileSizeLimitFailsTheWriteAndSparesTheHost) {
  Write("long", std::string(20'000, 'x'));
  const auto limit = [] {
    signal(SIGXFSZ, SIG_DFL);
    const rlimit limit{8192, RLIM_INFINITY};
    return setrlimit(RLIMIT_FSIZE, &limit) == 0;
  };
  EXPECT_EQ(RunInChild([&] {
              if (!limit()) return 1;
              const std::string data(20'000, 'x');
              FileHandle file(At("f"));
              DWORD written = 0;
              if (WriteFile(file.get(), data.data(), 20'000, &written, nullptr) || GetLastError() != 223) return 2;
              LARGE_INTEGER end;
              end.QuadPart = 100'000;
              if (!SetFilePointerEx(file.get(), end, nullptr, FILE_BEGIN) || SetEndOfFile(file.get())) return 3;
              if (Copy(L"long", L"copy") != 223 || IsThere("copy")) return 4;
              if (CreateFileMappingW(file.get(), nullptr, PAGE_READWRITE, 0, 100'000, nullptr)) return 5;
              if (CreateFileMappingW(nullptr, nullptr, PAGE_READWRITE, 0, 100'000, nullptr)) return 6;
              for (const wchar_t* mode : {L"at", L"ab", L"w+b"}) {
                FILE* stream = _wfopen(L"stream", mode);
                const bool failed = std::fputs(data.c_str(), stream) < 0 || std::fflush(stream) != 0;
                std::fclose(stream);
                if (!failed) return 7;
              }
              FILE* report = std::fopen("report", "w");
              std::fseek(report, 8192, SEEK_SET);
              ModuleStatusLogOut(report, L"title", "message");
              __fpurge(report);  // what is left would be written by the host
              return std::filesystem::file_size("report") == 0 ? 0 : 8;
            }),
            0);
  EXPECT_EQ(RunInChild([&] {
              const int file = limit() ? open("own", O_RDWR | O_CREAT, 0666) : -1;
              return pwrite(file, "x", 1, 8192) < 0 ? 1 : 0;
            }),
            -SIGXFSZ)
      << "the host's own writes do as they did";
}

TEST_F(SpecialFilesTest, FailedCopyRemovesOnlyWhatItMade) {
  const SmallDisk disk("64k");
  if (!disk.IsMounted()) GTEST_SKIP() << "only root may mount a disk";
  Write("source", std::string(100'000, 'x'));
  WriteWholeFile(disk.Path() / "old", "old");
  std::filesystem::create_symlink("old", disk.Path() / "link");
  std::filesystem::create_symlink("not there", disk.Path() / "to nothing");
  for (const char* target : {"new", "old", "link", "to nothing"})
    EXPECT_EQ(Copy(L"source", disk.Wide(target).c_str()), DWORD{ERROR_DISK_FULL}) << target;
  EXPECT_FALSE(std::filesystem::exists(disk.Path() / "new"));
  EXPECT_TRUE(std::filesystem::is_symlink(disk.Path() / "link"));
  EXPECT_TRUE(std::filesystem::is_symlink(disk.Path() / "to nothing"));
  EXPECT_EQ(std::filesystem::file_size(disk.Path() / "not there"), 0u) << "no part passes for the whole";
  EXPECT_EQ(std::filesystem::file_size(disk.Path() / "old"), 0u);
}
