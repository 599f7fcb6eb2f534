// Disks of a mount name space of its own: a file system whose server never answers, files mounted on files, and very
// many disks.
#include <fcntl.h>
#include <sys/mount.h>

#include <set>

#include "qelibaselib/modulestatus/status_report.h"
#include "test/support/library.h"
#include "test/support/own_mounts.h"

using namespace qel::test;

namespace {

constexpr int kNotAllowed = 77;

// A file system in user space whose questions nobody reads: to the kernel, a server that has gone.
bool MountDeadServer(const std::string& folder) {
  const int device = open("/dev/fuse", O_RDWR);  // closed by the end of the process, which ends all waiting
  const std::string options = "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0,subtype=sshfs";
  return device >= 0 && mount("server:/share", folder.c_str(), "fuse", 0, options.c_str()) == 0;
}

std::set<std::string> Roots() {
  std::string roots(GetLogicalDriveStringsA(0, nullptr), '\0');
  GetLogicalDriveStringsA(static_cast<DWORD>(roots.size()), roots.data());
  std::set<std::string> result;
  for (const char* root = roots.c_str(); *root; root += std::strlen(root) + 1) result.insert(root);
  return result;
}

// arguments: a folder.
CHILD_ROLE(ReportWithDeadMount) {
  if (!EnterOwnMountSpace() || !MountDeadServer(arguments[0])) return kNotAllowed;
  const std::string root = arguments[0] + "/";
  EXPECT_TRUE(Roots().contains(root));
  EXPECT_EQ(GetDriveTypeA(root.c_str()), DRIVE_REMOTE);
  ULARGE_INTEGER available = {};
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(GetDiskFreeSpaceExA(root.c_str(), &available, nullptr, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_NOT_READY);
  }
  EXPECT_TRUE(GetDiskFreeSpaceExA("/", &available, nullptr, nullptr)) << "others answer as ever";
  EXPECT_GT(available.QuadPart, 0u);
  char* text = nullptr;
  size_t bytes = 0;
  std::FILE* const stream = open_memstream(&text, &bytes);
  ModuleStatusLogOut(stream, L"dead", "mount");
  std::fclose(stream);
  const std::string report(text, bytes);
  EXPECT_NE(report.find(root + "(4) : Drive not ready(0x15)"), std::string::npos);
  EXPECT_NE(report.find("\n/(3) : FreeBytesAvailable="), std::string::npos);
  return testing::Test::HasFailure();
}

// arguments: a folder.
CHILD_ROLE(ListMountedFiles) {
  const std::string folder = arguments[0];
  if (!EnterOwnMountSpace() || mount("/etc/passwd", (folder + "/file").c_str(), nullptr, MS_BIND, nullptr) != 0)
    return kNotAllowed;
  mount("/", (folder + "/again").c_str(), nullptr, MS_BIND, nullptr);
  const std::set<std::string> roots = Roots();
  EXPECT_TRUE(roots.contains("/"));
  EXPECT_FALSE(roots.contains(folder + "/file/"));
  EXPECT_FALSE(roots.contains(folder + "/again/"));
  EXPECT_EQ(GetDriveTypeA((folder + "/file/").c_str()), DRIVE_NO_ROOT_DIR);
  return testing::Test::HasFailure();
}

// Returns whether the role could be played.
bool Play(const char* role, const ScratchFolder& folder) {
  const int result = ChildProcess(role, {folder.Path().string()}).Wait();
  EXPECT_TRUE(result == 0 || result == kNotAllowed) << result;
  return result != kNotAllowed;
}

TEST(Mounts, AServerThatNeverAnswersHoldsNobody) {
  SKIP_UNDER_ASAN();
  const ScratchFolder folder;
  if (!Play("ReportWithDeadMount", folder)) GTEST_SKIP() << "needs to be root, and file systems in user space";
}

TEST(Mounts, OnlyFoldersAndEachDiskOnce) {
  const ScratchFolder folder;
  WriteWholeFile(folder.Path() / "file", "");
  std::filesystem::create_directory(folder.Path() / "again");
  if (!Play("ListMountedFiles", folder)) GTEST_SKIP() << "needs to be root, for a mount";
}

}  // namespace
