#include "qelibaselib/platform/linux/files/delete_on_close.h"

#include <unistd.h>

#include <cstring>
#include <mutex>
#include <new>

#include "qelibaselib/platform/linux/base/fork_count.h"
#include "qelibaselib/platform/linux/files/file_attributes.h"
#include "qelibaselib/platform/linux/files/sharing_gate.h"

namespace qel::layer {
namespace {

constinit std::mutex g_mutex;
constinit DeleteOnClose* g_first = nullptr;

}  // namespace

const ForkedPart kDeleteOnCloseAtFork = {[] { g_mutex.lock(); }, [](bool) { g_mutex.unlock(); }};

bool DeleteOnClose::Intend(int descriptor, const SystemPath& path) {
  path_.reset(new (std::nothrow) char[path.length() + 1]);
  if (!path_) return false;
  std::memcpy(path_.get(), path.text(), path.length() + 1);
  descriptor_ = descriptor;
  forks_ = g_forkCount;
  const std::lock_guard lock(g_mutex);
  next_ = g_first;
  if (next_) next_->previous_ = this;
  g_first = this;
  return true;
}

DeleteOnClose::~DeleteOnClose() {
  if (!path_) return;
  {
    const std::lock_guard lock(g_mutex);
    (previous_ ? previous_->next_ : g_first) = next_;
    if (next_) next_->previous_ = previous_;
  }
  Delete();
}

// The name may lead to another file by now.
void DeleteOnClose::Delete() const {
  if (forks_ != g_forkCount) return;
  FileStatus own, named;
  if (ReadStatus(descriptor_, own) != 0) return;
  const SharingGate gate(own.Key());
  if (ReadStatus(AT_FDCWD, path_.get(), AT_SYMLINK_NOFOLLOW, named) == 0 && own.SameFile(named)) unlink(path_.get());
}

void DeleteOpenFiles() {
  const std::lock_guard lock(g_mutex);
  for (const DeleteOnClose* file = g_first; file; file = file->next_) file->Delete();
}

}  // namespace qel::layer
