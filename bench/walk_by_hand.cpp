#include "bench/walk_by_hand.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/by_hand.h"
#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/lock_range.h"

namespace by_hand {
namespace {

using qel::layer::Descriptor;
using qel::layer::LockRange;

void Check(bool done) {
  if (!done) std::abort();
}

// An open file that others see: its byte is placed, then those of others are looked at.
class SharedFile {
 public:
  SharedFile(const std::string& path, int flags, mode_t mode, int byte)
      : file_(open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode)), byte_(byte) {
    Check(file_.get() >= 0);
    Set(F_RDLCK);
    auto held = LockRange(F_WRLCK, kShareBytes, 64);
    Check(fcntl(file_.get(), F_OFD_GETLK, &held) == 0 && held.l_type == F_UNLCK);
  }
  ~SharedFile() { Set(F_UNLCK); }
  SharedFile(const SharedFile&) = delete;
  SharedFile& operator=(const SharedFile&) = delete;
  int get() const { return file_.get(); }

 private:
  void Set(short type) {
    auto own = LockRange(type, kShareBytes + byte_, 1);
    Check(fcntl(file_.get(), F_OFD_SETLK, &own) == 0);
  }
  const Descriptor file_;
  const int byte_;
};

// The names in a folder, sorted.
std::vector<std::string> Names(const std::string& folder) {
  DIR* const entries = opendir(folder.c_str());
  Check(entries != nullptr);
  std::vector<std::string> names;
  while (const dirent* entry = readdir(entries))
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
      names.emplace_back(entry->d_name);
  closedir(entries);
  std::sort(names.begin(), names.end());
  return names;
}

bool IsFolder(const std::string& path) {
  struct stat status;
  Check(lstat(path.c_str(), &status) == 0);
  return S_ISDIR(status.st_mode);
}

// Makes the folders of both sides, should they be missing.
void CopyOne(const std::string& sourceFolder, const std::string& source, const std::string& targetFolder,
             const std::string& target) {
  mkdir(sourceFolder.c_str(), 0777);
  mkdir(targetFolder.c_str(), 0777);
  const SharedFile from(source, O_RDONLY, 0, 15);
  struct stat status;
  Check(fstat(from.get(), &status) == 0);
  const SharedFile to(target, O_RDWR | O_CREAT | O_EXCL, status.st_mode & 0777, 17);
  for (off_t left = status.st_size; left > 0;) {
    const ssize_t copied = copy_file_range(from.get(), nullptr, to.get(), nullptr, static_cast<size_t>(left), 0);
    Check(copied > 0);
    left -= copied;
  }
  const timespec times[] = {{0, UTIME_OMIT}, status.st_mtim};
  Check(futimens(to.get(), times) == 0);
}

// Without the attributes of a new file, when it exists, under a lock that no other remover can hold.
void DeleteOne(const std::string& path) {
  struct stat status, named;
  Check(lstat(path.c_str(), &status) == 0 && chmod(path.c_str(), (status.st_mode & 07777) | S_ISVTX) == 0);
  Check(stat(path.c_str(), &status) == 0);
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  Check(file.get() >= 0 && fstat(file.get(), &status) == 0 && flock(file.get(), LOCK_EX | LOCK_NB) == 0);
  auto own = LockRange(F_RDLCK, kShareBytes + 39, 1);
  auto held = LockRange(F_WRLCK, kShareBytes, 64);
  Check(fcntl(file.get(), F_OFD_SETLK, &own) == 0);
  Check(fcntl(file.get(), F_OFD_GETLK, &held) == 0 && held.l_type == F_UNLCK);
  Check(lstat(path.c_str(), &named) == 0 && named.st_dev == status.st_dev && named.st_ino == status.st_ino);
  Check(unlink(path.c_str()) == 0);
}

std::string Join(const std::string& folder, const std::string& name) {
  std::string path = folder;
  return path.append(1, '/').append(name);
}

}  // namespace

void CopyTree(const std::string& source, const std::string& target) {
  const auto names = Names(source);
  struct stat status;
  Check(mkdir(target.c_str(), 0777) == 0);
  Check(stat(source.c_str(), &status) == 0 && stat(target.c_str(), &status) == 0);  // the attributes
  for (const std::string& name : names) {
    const std::string from = Join(source, name), to = Join(target, name);
    if (IsFolder(from))
      CopyTree(from, to);
    else
      CopyOne(source, from, target, to);
  }
}

void DeleteTree(const std::string& folder) {
  for (const std::string& name : Names(folder)) {
    const std::string path = Join(folder, name);
    if (IsFolder(path))
      DeleteTree(path);
    else
      DeleteOne(path);
  }
  Check(rmdir(folder.c_str()) == 0);
}

}  // namespace by_hand
