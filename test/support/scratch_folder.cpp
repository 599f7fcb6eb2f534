#include "test/support/scratch_folder.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

#include "qelibaselib/platform/win32.h"

namespace qel::test {
namespace fs = std::filesystem;
namespace {

fs::path DefaultParent() {
  const char* parent = std::getenv("TEST_SCRATCH");
  return parent ? fs::path(parent) : fs::temp_directory_path();
}

// A tree may hold what a test made read-only.
void RemoveTree(const fs::path& folder) {
  std::error_code ignored;
  for (auto entry = fs::recursive_directory_iterator(folder, ignored); entry != fs::recursive_directory_iterator();
       entry.increment(ignored)) {
    if (!entry->is_symlink(ignored))
      fs::permissions(entry->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
  }
  fs::remove_all(folder, ignored);
}

}  // namespace

ScratchFolder::ScratchFolder() : ScratchFolder(DefaultParent()) {}

ScratchFolder::ScratchFolder(const fs::path& parent) {
  static std::atomic<unsigned> count{0};
  const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
  for (;;) {
    path_ = parent / ("qel-test-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(count++) + "-" +
                      std::to_string(now % 1000000));
    if (fs::create_directories(path_)) return;
  }
}

ScratchFolder::~ScratchFolder() { RemoveTree(path_); }

std::wstring ScratchFolder::Wide(const std::string& name) const {
  return fs::path(name.empty() ? path_ : path_ / name).make_preferred().wstring();
}
std::string ScratchFolder::Narrow(const std::string& name) const {
  return fs::path(name.empty() ? path_ : path_ / name).make_preferred().string();
}

std::string ReadWholeFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void WriteWholeFile(const fs::path& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace qel::test
