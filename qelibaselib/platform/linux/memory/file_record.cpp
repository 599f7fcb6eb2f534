#include "qelibaselib/platform/linux/memory/file_record.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <memory>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/page_size.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"

namespace qel::layer {
namespace {

// A descriptor of a process. No holder is 0: descriptors of process 0 are nobody's.
struct Holder {
  uint32_t process, descriptor;
  static Holder From(uint64_t entry) { return {static_cast<uint32_t>(entry >> 32), static_cast<uint32_t>(entry)}; }
  uint64_t Entry() const { return uint64_t{process} << 32 | descriptor; }
  bool IsGone() const { return process == 0 || (kill(static_cast<pid_t>(process), 0) != 0 && errno == ESRCH); }
};

Holder OwnHolder(int descriptor) { return {static_cast<uint32_t>(getpid()), static_cast<uint32_t>(descriptor)}; }

struct FileRecord {
  std::atomic<uint32_t> ready;
  uint64_t device, inode, bytes;
  std::atomic<uint64_t> holders[64];
  char path[4096];
};

// The record in the memory that all processes share.
class SharedFileRecord {
 public:
  explicit SharedFileRecord(const Storage& storage) {
    void* const got =
        mmap(nullptr, sizeof(FileRecord), PROT_READ | PROT_WRITE, MAP_SHARED, storage.descriptor(), kSectionDataOffset);
    record_ = got == MAP_FAILED ? nullptr : static_cast<FileRecord*>(got);
  }
  SharedFileRecord(const SharedFileRecord&) = delete;
  SharedFileRecord& operator=(const SharedFileRecord&) = delete;
  ~SharedFileRecord() {
    if (record_) munmap(record_, sizeof(FileRecord));
  }
  FileRecord* operator->() const { return record_; }
  FileRecord& operator*() const { return *record_; }
  explicit operator bool() const { return record_ != nullptr; }

 private:
  FileRecord* record_;
};

struct DescriptorPath {
  char text[48];
  explicit DescriptorPath(const Holder& holder) {
    std::snprintf(text, sizeof text, "/proc/%u/fd/%u", holder.process, holder.descriptor);
  }
};

bool IsRecorded(const FileRecord& record, const struct stat& file) {
  return file.st_dev == record.device && file.st_ino == record.inode;
}

// The first look keeps devices and pipes, which an entry may lead to by now, from being opened.
int OpenIfRecorded(const FileRecord& record, const char* path, int flags) {
  struct stat file;
  if (stat(path, &file) != 0 || !IsRecorded(record, file)) return -1;
  Descriptor opened(open(path, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (opened.get() < 0 || fstat(opened.get(), &file) != 0 || !IsRecorded(record, file)) return -1;
  return opened.Detach();
}

int OpenByAnyWay(const FileRecord& record, int flags) {
  int descriptor = OpenIfRecorded(record, record.path, flags);
  for (size_t i = 0; i < std::size(record.holders) && descriptor < 0; ++i) {
    const Holder holder = Holder::From(record.holders[i].load());
    if (holder.process != 0) descriptor = OpenIfRecorded(record, DescriptorPath(holder).text, flags);
  }
  return descriptor;
}

// The maker writes the record right after the name has come to life; one that was killed in between never does.
bool WaitUntilReady(const FileRecord& record) {
  constexpr int kPolls = 200;
  constexpr timespec kPause = {0, 500'000};
  for (int i = 0; i < kPolls; ++i) {
    if (record.ready.load(std::memory_order_acquire) != 0) return true;
    nanosleep(&kPause, nullptr);
  }
  return false;
}

}  // namespace

constinit const size_t kFileRecordBytes = sizeof(FileRecord);

DWORD WriteFileRecord(const Storage& storage, const Mapping::Contents& contents) {
  struct stat file;
  const int descriptor = contents.descriptor->get();
  if (fstat(descriptor, &file) != 0) return ErrorFromErrno(errno);
  const SharedFileRecord record(storage);
  if (!record) return ERROR_NOT_ENOUGH_MEMORY;
  const ssize_t length = readlink(DescriptorPath(OwnHolder(descriptor)).text, record->path, sizeof record->path - 1);
  record->path[length > 0 ? length : 0] = 0;
  record->device = file.st_dev;
  record->inode = file.st_ino;
  record->bytes = contents.bytes;
  record->ready.store(1, std::memory_order_release);
  return ERROR_SUCCESS;
}

DWORD OpenRecordedFile(const Storage& storage, Mapping::Contents* contents) {
  const SharedFileRecord record(storage);
  if (!record) return ERROR_NOT_ENOUGH_MEMORY;
  if (!WaitUntilReady(*record)) return ERROR_FILE_NOT_FOUND;
  const bool forWriting = contents->protection == PAGE_READWRITE;
  Descriptor opened(OpenByAnyWay(*record, forWriting ? O_RDWR : O_RDONLY));
  if (opened.get() < 0) return ERROR_FILE_NOT_FOUND;
  const auto marks = std::make_shared<MappingMarks>(opened.get());
  marks->TakeOver(opened.Detach());
  const auto held = std::make_shared<MappedDescriptor>(marks);
  if (const DWORD error = held->HoldFile(forWriting)) return error;
  contents->descriptor = held;
  contents->start = 0;
  contents->bytes = record->bytes;
  return ERROR_SUCCESS;
}

void EnterFileHolder(const Storage& storage, int descriptor) {
  const SharedFileRecord record(storage);
  if (!record) return;
  for (std::atomic<uint64_t>& place : record->holders) {
    uint64_t entry = place.load();
    if (Holder::From(entry).IsGone() && place.compare_exchange_strong(entry, OwnHolder(descriptor).Entry())) return;
  }
}

void RemoveFileHolder(const Storage& storage, int descriptor) {
  const SharedFileRecord record(storage);
  if (!record) return;
  for (std::atomic<uint64_t>& place : record->holders) {
    uint64_t own = OwnHolder(descriptor).Entry();
    if (place.compare_exchange_strong(own, 0)) return;
  }
}

}  // namespace qel::layer
