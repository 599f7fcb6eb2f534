// Directory trees of 1000 folders with 10 files of 1 KiB each, against the system's own tools.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench/harness.h"
#include "qelibaselib/qelibaselib.h"

namespace {

void MakeTree(const std::string& root) {
  const std::string contents(1024, 'x');
  for (int folder = 0; folder < 1000; ++folder) {
    const std::string path = root + "/" + std::to_string(folder);
    std::filesystem::create_directories(path);
    for (int file = 0; file < 10; ++file) std::ofstream(path + "/" + std::to_string(file)) << contents;
  }
}

void Run(const std::string& command) {
  if (std::system(command.c_str()) != 0) std::abort();
}

}  // namespace

BENCHMARK_GROUP(trees) {
  const std::string tree = bench::Path("tree"), copy = bench::Path("copy"), hand = bench::Path("copy.hand");
  const std::wstring wideTree = bench::WidePath("tree"), wideCopy = bench::WidePath("copy");
  MakeTree(tree);
  const auto once = bench::Options{5, 1};
  bench::Compare(
      "GetFileSizeDirectoryTree / du", 1.1,
      [&] {
        unsigned long long size = 0;
        GetFileSizeDirectoryTree(1, "b.cpp", wideTree.c_str(), &size);
      },
      [&] { Run("du -sb '" + tree + "' >/dev/null"); }, 0, once);
  // Each side's copy is deleted again outside the other's time, so both are measured as pairs with the same deletion.
  bench::Compare(
      "CopyDirectoryTree / cp -r (+ rm -rf both)", 1.1,
      [&] {
        CopyDirectoryTree(1, "b.cpp", wideTree.c_str(), wideCopy.c_str());
        Run("rm -rf '" + copy + "'");
      },
      [&] {
        Run("cp -r '" + tree + "' '" + hand + "'");
        Run("rm -rf '" + hand + "'");
      },
      0, once);
  bench::Compare(
      "DeleteDirectoryTree / rm -rf (+ cp -r both)", 2.5,
      [&] {
        Run("cp -r '" + tree + "' '" + copy + "'");
        DeleteDirectoryTree(1, "b.cpp", wideCopy.c_str(), TRUE, TRUE);
      },
      [&] {
        Run("cp -r '" + tree + "' '" + hand + "'");
        Run("rm -rf '" + hand + "'");
      },
      0, once);
  std::filesystem::remove_all(tree);
}
