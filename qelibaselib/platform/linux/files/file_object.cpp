#include "qelibaselib/platform/linux/files/file_object.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <new>
#include <utility>

namespace qel::layer {

FileObject::FileObject(OpenedFile&& opened, bool overlapped)
    : Object(Kind::kFile), opened_(std::move(opened)), overlapped_(overlapped), checksRanges_(opened_.rangesLocked()) {}

// A thread that arrives now still sees our copy of the file position and waits for this mutex.
void FileObject::MovePosition() const {
  const std::lock_guard lock(positionMutex_);
  off_t position = position_.load(std::memory_order_acquire);
  while (position != kDescriptorsOwn) {
    lseek(descriptor(), position, SEEK_SET);
    if (position_.compare_exchange_strong(position, kDescriptorsOwn, std::memory_order_acq_rel)) break;
  }
}

bool FileObject::DeleteOnClose(const SystemPath& path) {
  deletedName_.reset(new (std::nothrow) char[path.length() + 1]);
  if (deletedName_) std::memcpy(deletedName_.get(), path.text(), path.length() + 1);
  return deletedName_ != nullptr;
}

// The name may lead to another file by now.
FileObject::~FileObject() {
  FreeRangeLocks();
  if (!deletedName_) return;
  const SharingGate gate(descriptor());
  FileStatus own, named;
  if (ReadStatus(descriptor(), own) == 0 && ReadStatus(AT_FDCWD, deletedName_.get(), AT_SYMLINK_NOFOLLOW, named) == 0 &&
      own.SameFile(named))
    unlink(deletedName_.get());
}

}  // namespace qel::layer
