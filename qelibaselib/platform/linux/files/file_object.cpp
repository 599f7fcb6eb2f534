#include "qelibaselib/platform/linux/files/file_object.h"

#include <unistd.h>

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

FileObject::~FileObject() {
  FreeRangeLocks();
  if (marks_) marks_->TakeOver(opened_.HandOver());
}

}  // namespace qel::layer
