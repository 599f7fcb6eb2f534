// Directory trees of folders with 10 files of 1 KiB each, against the system's own tools and against hand-written walks
// that keep the same contract: the tools neither hold files against other programs nor look at attributes.
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench/harness.h"
#include "bench/walk_by_hand.h"
#include "qelibaselib/qelibaselib.h"

namespace {

namespace fs = std::filesystem;

void MakeTree(const std::string& root, int folders) {
  const std::string contents(1024, 'x');
  for (int folder = 0; folder < folders; ++folder) {
    const std::string path = root + "/" + std::to_string(folder);
    fs::create_directories(path);
    for (int file = 0; file < 10; ++file) std::ofstream(path + "/" + std::to_string(file)) << contents;
  }
}

void Run(const std::string& command) {
  if (std::system(command.c_str()) != 0) std::abort();
}

void Check(BOOL done) {
  if (!done) std::abort();
}

// A folder of the run on a disk, removed at the end; empty when there is none.
class DiskFolder {
 public:
  DiskFolder() {
    for (const fs::path& parent : {fs::temp_directory_path(), fs::read_symlink("/proc/self/exe").parent_path()}) {
      struct statfs system;
      if (statfs(parent.c_str(), &system) != 0 || system.f_type == TMPFS_MAGIC || access(parent.c_str(), W_OK) != 0)
        continue;
      path_ = parent / fs::path(bench::Folder()).filename();
      fs::create_directories(path_);
      return;
    }
  }
  DiskFolder(const DiskFolder&) = delete;
  DiskFolder& operator=(const DiskFolder&) = delete;
  ~DiskFolder() {
    std::error_code ignored;
    if (!path_.empty()) fs::remove_all(path_, ignored);
  }
  const fs::path& Get() const { return path_; }

 private:
  fs::path path_;
};

// Each side makes and deletes a copy of the same name, so that neither finds anything that the other left.
// CopyFile keeps times, so cp has to.
void CompareCopyAndDeletion(const fs::path& folder, int folders, const std::string& where, double goalOfDeletion) {
  const fs::path tree = folder / "tree", copy = folder / "copy";
  MakeTree(tree, folders);
  const std::string makeCopy = "cp -r --preserve=timestamps '" + tree.string() + "' '" + copy.string() + "'";
  const std::string deleteCopy = "rm -rf '" + copy.string() + "'";
  const std::wstring wideTree = tree.wstring(), wideCopy = copy.wstring();
  const auto copyTree = [&] { Check(CopyDirectoryTree(1, "b.cpp", wideTree.c_str(), wideCopy.c_str())); };
  const auto deleteTree = [&] { Check(DeleteDirectoryTree(1, "b.cpp", wideCopy.c_str(), TRUE, TRUE)); };
  constexpr int kRounds = 7;
  const auto settle = [] { sync(); };  // nothing of an earlier round is still being written
  const bench::Options copies{kRounds, 1, settle, [&] { Run(deleteCopy); }};
  const bench::Options deletions{kRounds, 1, [&] {
                                   Run(makeCopy);
                                   settle();
                                 }};
  bench::Compare(
      "CopyDirectoryTree" + where, 1.15, copyTree, [&] { by_hand::CopyTree(tree, copy); }, 0, copies);
  bench::Compare(
      "CopyDirectoryTree / cp -r" + where, 1.1, copyTree, [&] { Run(makeCopy); }, 0, copies);
  bench::Compare(
      "DeleteDirectoryTree" + where, 1.15, deleteTree, [&] { by_hand::DeleteTree(copy); }, 0, deletions);
  bench::Compare(
      "DeleteDirectoryTree / rm -rf" + where, goalOfDeletion, deleteTree, [&] { Run(deleteCopy); }, 0, deletions);
}

}  // namespace

BENCHMARK_GROUP(trees) {
  const fs::path folder = bench::Folder();
  CompareCopyAndDeletion(folder, 1000, "", 2.5);
  const fs::path tree = folder / "tree";
  const std::wstring wideTree = tree.wstring();
  bench::Compare(
      "GetFileSizeDirectoryTree / du", 1.1,
      [&] {
        unsigned long long size = 0;
        Check(GetFileSizeDirectoryTree(1, "b.cpp", wideTree.c_str(), &size));
      },
      [&] { Run("du -sb '" + tree.string() + "' >/dev/null"); }, 0, {21, 1});
  fs::remove_all(tree);
  const DiskFolder disk;
  if (!disk.Get().empty()) CompareCopyAndDeletion(disk.Get(), 100, ", on disk", 1.6);
}
