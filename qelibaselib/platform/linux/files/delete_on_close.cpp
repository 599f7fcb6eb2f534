#include "qelibaselib/platform/linux/files/delete_on_close.h"

#include <unistd.h>

#include <cstdio>
#include <mutex>

#include "qelibaselib/platform/linux/base/fork_count.h"
#include "qelibaselib/platform/linux/files/file_attributes.h"
#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/files/sharing_gate.h"

namespace qel::layer {
namespace {

constinit std::mutex g_mutex;
constinit DeleteOnClose* g_first = nullptr;

}  // namespace

const ForkedPart kDeleteOnCloseAtFork = {[] { g_mutex.lock(); }, [](bool) { g_mutex.unlock(); }};

void DeleteOnClose::Intend(int descriptor) {
  descriptor_ = descriptor;
  forks_ = g_forkCount;
  const std::lock_guard lock(g_mutex);
  next_ = g_first;
  if (next_) next_->previous_ = this;
  g_first = this;
}

DeleteOnClose::~DeleteOnClose() {
  if (descriptor_ < 0) return;
  {
    const std::lock_guard lock(g_mutex);
    (previous_ ? previous_->next_ : g_first) = next_;
    if (next_) next_->previous_ = previous_;
  }
  Delete();
}

// The kernel tells the name that the file has now, which is right also after a move, for a relative name and for a
// link. It may lead to another file all the same, where a deleted file was replaced.
void DeleteOnClose::Delete() const {
  if (forks_ != g_forkCount) return;
  char link[32], path[SystemPath::kSize];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor_);
  FileStatus own, named;
  if (ReadStatus(descriptor_, own) != 0) return;
  const SharingGate gate(own.Key());
  const ssize_t length = readlink(link, path, sizeof path - 1);
  if (length <= 0) return;
  path[length] = 0;
  if (ReadStatus(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, named) == 0 && own.SameFile(named)) unlink(path);
}

void DeleteOpenFiles() {
  const std::lock_guard lock(g_mutex);
  for (const DeleteOnClose* file = g_first; file; file = file->next_) file->Delete();
}

}  // namespace qel::layer
