// LockFileEx and UnlockFileEx.
//
// The problem: the kernel joins and splits the ranges of one owner, while Win32 unlocks each range as it was locked,
// and shared ones may overlap.
//
// The idea: each handle keeps a list of its ranges and lets the kernel hold what they cover, as locks of the open file
// description. An exclusive lock needs a descriptor that writes; a handle for reading opens one for that.
//
// The invariant: the kernel's locks are the union of the list. They end with the handle, which frees them although a
// view may keep the open file description, and with a process that is killed. A forked child leaves them alone.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <new>
#include <vector>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/fork_count.h"
#include "qelibaselib/platform/linux/base/lock_range.h"
#include "qelibaselib/platform/linux/base/retry_on_interrupt.h"
#include "qelibaselib/platform/linux/files/file_object.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {

constinit std::atomic<bool> FileObject::g_rangesEverLocked{false};

class RangeLocks {
 public:
  explicit RangeLocks(int descriptor) : descriptor_(descriptor) {}
  /// Frees what is still locked, since a view keeps the open file description.
  ~RangeLocks();

  /// The descriptor that the own locks are not in the way of.
  int descriptor() const { return writable_ >= 0 ? writable_.load() : descriptor_; }
  DWORD Lock(off_t from, off_t to, bool exclusive, bool wait);
  DWORD Unlock(off_t from, off_t to);

 private:
  struct LockedRange {
    off_t from, to;
    bool exclusive;
    bool IsEmpty() const { return from == to; }
    bool Overlaps(const LockedRange& other) const {
      return from < other.to && other.from < to && !IsEmpty() && !other.IsEmpty();
    }
  };
  DWORD LockInKernel(const LockedRange& range, bool wait);
  void FreeInKernel(const LockedRange& freed);
  int DescriptorFor(const LockedRange& range);

  const int descriptor_;
  const unsigned forks_ = g_forkCount;
  std::atomic<int> writable_{-1};  // an exclusive lock needs a descriptor that writes
  std::mutex mutex_;
  std::vector<LockedRange> held_;
};

int RangeLocks::DescriptorFor(const LockedRange& range) {
  if (!range.exclusive || (fcntl(descriptor_, F_GETFL) & O_ACCMODE) != O_RDONLY) return descriptor_;
  if (writable_ < 0) {
    char name[32];
    std::snprintf(name, sizeof name, "/proc/self/fd/%d", descriptor_);
    writable_ = MoveBehindStandard(open(name, O_RDWR | O_CLOEXEC));
  }
  return writable_;
}

DWORD RangeLocks::LockInKernel(const LockedRange& range, bool wait) {
  if (range.IsEmpty()) return ERROR_SUCCESS;  // an empty range is in nobody's way; for the kernel it is endless
  const int descriptor = DescriptorFor(range);
  if (descriptor < 0) return ERROR_ACCESS_DENIED;
  struct flock kernel = LockRange(range.exclusive ? F_WRLCK : F_RDLCK, range.from, range.to - range.from);
  if (RetryOnInterrupt([&] { return fcntl(descriptor, wait ? F_OFD_SETLKW : F_OFD_SETLK, &kernel); }) == 0)
    return ERROR_SUCCESS;
  return errno == EAGAIN || errno == EACCES ? ERROR_LOCK_VIOLATION : ErrorFromErrno(errno);
}

DWORD RangeLocks::Lock(off_t from, off_t to, bool exclusive, bool wait) {
  const LockedRange range{from, to, exclusive};
  {
    const std::lock_guard lock(mutex_);
    for (const LockedRange& held : held_)
      if (held.Overlaps(range) && (held.exclusive || exclusive)) return ERROR_LOCK_VIOLATION;
    held_.reserve(held_.size() + 1);
  }
  if (const DWORD error = LockInKernel(range, wait)) return error;
  const std::lock_guard lock(mutex_);
  if (held_.empty()) MarkRangesLocked(descriptor_, true);
  held_.push_back(range);
  return ERROR_SUCCESS;
}

DWORD RangeLocks::Unlock(off_t from, off_t to) {
  const std::lock_guard lock(mutex_);
  auto found = held_.begin();
  while (found != held_.end() && (found->from != from || found->to != to)) ++found;
  if (found == held_.end()) return ERROR_NOT_LOCKED;
  const LockedRange freed = *found;
  held_.erase(found);
  FreeInKernel(freed);
  if (held_.empty()) MarkRangesLocked(descriptor_, false);
  return ERROR_SUCCESS;
}

// The kernel frees the whole range, also where another shared range of this handle overlaps it, so that one is locked
// again.
void RangeLocks::FreeInKernel(const LockedRange& freed) {
  if (freed.IsEmpty()) return;
  struct flock kernel = LockRange(F_UNLCK, freed.from, freed.to - freed.from);
  fcntl(freed.exclusive ? DescriptorFor(freed) : descriptor_, F_OFD_SETLK, &kernel);
  for (const LockedRange& held : held_)
    if (held.Overlaps(freed)) LockInKernel(held, false);
}

RangeLocks::~RangeLocks() {
  if (!held_.empty() && forks_ == g_forkCount) {
    struct flock all = LockRange(F_UNLCK, 0, kEndOfRanges);
    fcntl(descriptor_, F_OFD_SETLK, &all);
    MarkRangesLocked(descriptor_, false);
  }
  if (writable_ >= 0) CloseDescriptor(writable_);
}

RangeLocks* FileObject::Ranges() {
  RangeLocks* ranges = ranges_.load();
  if (ranges) return ranges;
  auto* fresh = new (std::nothrow) RangeLocks(descriptor());
  if (!fresh) return nullptr;
  if (ranges_.compare_exchange_strong(ranges, fresh)) return fresh;
  delete fresh;
  return ranges;
}

int FileObject::RangeDescriptor() const {
  const RangeLocks* ranges = ranges_.load();
  return ranges ? ranges->descriptor() : descriptor();
}

void FileObject::FreeRangeLocks() { delete ranges_.load(); }

namespace {

// The range [from, to) that the arguments of a call mean. The kernel's offsets end before Win32's do.
struct RangeBounds {
  off_t from, to;
  bool valid;
};
RangeBounds BoundsOf(const OVERLAPPED& overlapped, DWORD low, DWORD high) {
  const ULONGLONG from = static_cast<ULONGLONG>(overlapped.OffsetHigh) << 32 | overlapped.Offset;
  const ULONGLONG length = static_cast<ULONGLONG>(high) << 32 | low;
  constexpr auto kEnd = static_cast<ULONGLONG>(kEndOfRanges);
  if (from >= kEnd) return {0, 0, false};
  const ULONGLONG to = length > kEnd - from ? kEnd : from + length;
  return {static_cast<off_t>(from), static_cast<off_t>(to), true};
}

template <class Use>
BOOL UseRanges(HANDLE handle, const OVERLAPPED* overlapped, DWORD low, DWORD high, Use use) {
  DWORD error = ERROR_INVALID_HANDLE;
  Reference<FileObject> file;  // the call may wait
  {
    const Pin pin(handle);
    file = Reference<FileObject>::Share(pin.As<FileObject>(Kind::kFile));
  }
  if (file) {
    const RangeBounds bounds = overlapped ? BoundsOf(*overlapped, low, high) : RangeBounds{0, 0, false};
    RangeLocks* ranges = bounds.valid ? file->Ranges() : nullptr;
    try {
      error = !bounds.valid ? ERROR_INVALID_PARAMETER : ranges ? use(*ranges, bounds) : ERROR_NOT_ENOUGH_MEMORY;
    } catch (const std::bad_alloc&) {
      error = ERROR_NOT_ENOUGH_MEMORY;
    }
  }
  return ReportResult(error);
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

BOOL LockFileEx(HANDLE file, DWORD flags, DWORD, DWORD bytesLow, DWORD bytesHigh, LPOVERLAPPED overlapped) {
  if (flags & ~(LOCKFILE_FAIL_IMMEDIATELY | LOCKFILE_EXCLUSIVE_LOCK)) return ReportResult(ERROR_INVALID_PARAMETER);
  return UseRanges(file, overlapped, bytesLow, bytesHigh, [&](RangeLocks& ranges, const RangeBounds& bounds) {
    FileObject::NoteRangeLock();
    return ranges.Lock(bounds.from, bounds.to, (flags & LOCKFILE_EXCLUSIVE_LOCK) != 0,
                       (flags & LOCKFILE_FAIL_IMMEDIATELY) == 0);
  });
}

BOOL UnlockFileEx(HANDLE file, DWORD, DWORD bytesLow, DWORD bytesHigh, LPOVERLAPPED overlapped) {
  return UseRanges(file, overlapped, bytesLow, bytesHigh,
                   [](RangeLocks& ranges, const RangeBounds& bounds) { return ranges.Unlock(bounds.from, bounds.to); });
}
