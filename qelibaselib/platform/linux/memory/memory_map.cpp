#include "qelibaselib/platform/linux/memory/memory_map.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/retry_on_interrupt.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

// The kernel's question for one mapping, since Linux 6.11. The headers that this is built with are older.
struct MapQuestion {
  uint64_t size, flags, address;
  uint64_t start, end, permissions, pageSize, offset, inode;
  uint32_t deviceMajor, deviceMinor, nameSize, buildIdSize;
  uint64_t name, buildId;
};
static_assert(sizeof(MapQuestion) == 104);
constexpr unsigned long kAskMap = _IOWR('f', 17, MapQuestion);
constexpr uint64_t kThisOrNext = 0x10;
constexpr uint64_t kReadable = 1, kWritable = 2, kExecutable = 4, kShared = 8;

}  // namespace

MemoryMapReader::MemoryMapReader(uintptr_t from)
    : file_(open("/proc/self/maps", O_RDONLY | O_CLOEXEC)),
      next_(from),
      error_(file_.get() >= 0 ? ERROR_SUCCESS : ErrorFromErrno(errno)) {}

bool MemoryMapReader::Next(MapLine* line) {
  if (error_ != ERROR_SUCCESS) return false;
  if (asks_) {
    if (AskForNext(line)) return true;
    if (asks_) return false;
  }
  while (ReadNext(line))
    if (line->end > next_) return true;
  return false;
}

bool MemoryMapReader::AskForNext(MapLine* line) {
  MapQuestion question = {};
  question.size = sizeof question;
  question.flags = kThisOrNext;
  question.address = next_;
  if (ioctl(file_.get(), kAskMap, &question) != 0) {
    asks_ = errno == ENOENT;  // no mapping from there on; every other error is that of a kernel that must be read
    return false;
  }
  const auto has = [&](uint64_t permission) { return (question.permissions & permission) != 0; };
  *line = {static_cast<uintptr_t>(question.start),
           static_cast<uintptr_t>(question.end),
           has(kReadable),
           has(kWritable),
           has(kExecutable),
           has(kShared),
           question.offset,
           question.deviceMajor << 20 | question.deviceMinor,
           question.inode};
  next_ = question.end;
  return true;
}

bool MemoryMapReader::ReadNext(MapLine* line) {
  for (std::string_view text; TakeLineBeginning(&text);)
    if (ParseMapLine(text, line)) return true;
  return false;
}

// Gives each line once: whole, or as much of it as fills the buffer.
bool MemoryMapReader::TakeLineBeginning(std::string_view* line) {
  for (bool isTaken = true; isTaken;) {
    const size_t length = unread_.find('\n');
    const bool isWhole = length != std::string_view::npos;
    if (!isWhole && unread_.size() < sizeof buffer_) {
      if (!Refill()) return false;
      continue;
    }
    isTaken = std::exchange(isInsideLine_, !isWhole);
    *line = unread_.substr(0, length);
    unread_.remove_prefix(isWhole ? length + 1 : unread_.size());
  }
  return true;
}

bool MemoryMapReader::Refill() {
  const size_t kept = unread_.size();
  if (kept > 0) std::memmove(buffer_, unread_.data(), kept);
  const ssize_t got = RetryOnInterrupt([&] { return read(file_.get(), buffer_ + kept, sizeof buffer_ - kept); });
  if (got < 0) error_ = ErrorFromErrno(errno);
  if (got <= 0) return false;
  unread_ = {buffer_, kept + got};
  return true;
}

}  // namespace qel::layer
