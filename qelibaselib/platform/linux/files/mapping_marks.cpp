#include "qelibaselib/platform/linux/files/mapping_marks.h"

#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <new>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/fork_count.h"
#include "qelibaselib/platform/linux/files/file_sharing.h"

namespace qel::layer {
namespace {

// One for all files: it is held for a few system calls, and a forked child must find it free.
constinit std::mutex g_mutex;

}  // namespace

const ForkedPart kMappingMarksAtFork = {[] { g_mutex.lock(); }, [](bool) { g_mutex.unlock(); }};

MappingMarks::MappingMarks(int descriptor) : descriptor_(descriptor), forks_(g_forkCount) {}

MappingMarks::~MappingMarks() {
  if (owned_ >= 0) CloseDescriptor(owned_);
}

DWORD MappingMarks::Add(bool forWriting) {
  const std::lock_guard lock(g_mutex);
  if (!PlaceMappedMark(descriptor_, forWriting)) return ERROR_USER_MAPPED_FILE;
  ++mappings_;
  writable_ += forWriting ? 1 : 0;
  return ERROR_SUCCESS;
}

void MappingMarks::Remove(bool forWriting) {
  const std::lock_guard lock(g_mutex);
  --mappings_;
  writable_ -= forWriting ? 1 : 0;
  if (forks_ != g_forkCount) return;
  if (mappings_ == 0)
    LiftMappedMark(descriptor_, LiftedMark::kAll);
  else if (forWriting && writable_ == 0)
    LiftMappedMark(descriptor_, LiftedMark::kForWriting);
}

DWORD MappingMarks::CutFile(off_t size) {
  const std::lock_guard lock(g_mutex);
  return mappings_ > 0 ? ERROR_USER_MAPPED_FILE : CutUnmappedFile(descriptor_, size);
}

DWORD CutUnmappedFile(int descriptor, off_t size) {
  const MappingHoldOff others(descriptor);
  if (others.IsMapped()) return ERROR_USER_MAPPED_FILE;
  return ftruncate(descriptor, size) == 0 ? ERROR_SUCCESS : ErrorFromErrno(errno);
}

std::shared_ptr<MappingMarks> ShareMarks(std::shared_ptr<MappingMarks>* marks, int descriptor) try {
  const std::lock_guard lock(g_mutex);
  if (!*marks) *marks = std::make_shared<MappingMarks>(descriptor);
  return *marks;
} catch (const std::bad_alloc&) {
  return nullptr;
}

MappedDescriptor::~MappedDescriptor() {
  if (holdsFile_) marks_->Remove(forWriting_);
  if (!marks_) CloseDescriptor(descriptor_);
}

DWORD MappedDescriptor::HoldFile(bool forWriting) {
  if (const DWORD error = marks_->Add(forWriting)) return error;
  holdsFile_ = true;
  forWriting_ = forWriting;
  return ERROR_SUCCESS;
}

}  // namespace qel::layer
