#include "qelibaselib/platform/linux/memory/named_section.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/memory/regions.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

// In the object's parameter, beside the protection.
constexpr uint32_t kFileBacked = 0x80000000;

// What stands in the data of a section that a file is behind. The path can lead to another file by now, so the file is
// known by its number.
struct FileRecord {
  std::atomic<uint32_t> ready;
  uint64_t device, inode, bytes;
  char path[4000];
};
static_assert(sizeof(FileRecord) <= kPageSize);

// The record in the memory that all processes share.
class SharedRecord {
 public:
  explicit SharedRecord(int descriptor) {
    void* const got =
        mmap(nullptr, sizeof(FileRecord), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, kSectionDataOffset);
    record_ = got == MAP_FAILED ? nullptr : static_cast<FileRecord*>(got);
  }
  SharedRecord(const SharedRecord&) = delete;
  SharedRecord& operator=(const SharedRecord&) = delete;
  ~SharedRecord() {
    if (record_) munmap(record_, sizeof(FileRecord));
  }
  FileRecord* operator->() const { return record_; }
  explicit operator bool() const { return record_ != nullptr; }

 private:
  FileRecord* record_;
};

DWORD WriteRecord(const Storage& storage, const Mapping::Contents& contents) {
  struct stat file;
  if (fstat(contents.descriptor->get(), &file) != 0) return ErrorFromErrno(errno);
  const SharedRecord record(storage.descriptor());
  if (!record) return ERROR_NOT_ENOUGH_MEMORY;
  char link[32];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", contents.descriptor->get());
  const ssize_t length = readlink(link, record->path, sizeof record->path - 1);
  record->path[length > 0 ? length : 0] = 0;
  record->device = file.st_dev;
  record->inode = file.st_ino;
  record->bytes = contents.bytes;
  record->ready.store(1, std::memory_order_release);
  return ERROR_SUCCESS;
}

// The maker writes the record right after the name has come to life; one that was killed in between never does.
bool WaitUntilReady(const SharedRecord& record) {
  constexpr int kPolls = 200;
  constexpr timespec kPause = {0, 500'000};
  for (int i = 0; i < kPolls; ++i) {
    if (record->ready.load(std::memory_order_acquire) != 0) return true;
    nanosleep(&kPause, nullptr);
  }
  return false;
}

bool IsFileOf(const FileRecord& record, int descriptor) {
  struct stat file;
  return fstat(descriptor, &file) == 0 && file.st_dev == record.device && file.st_ino == record.inode;
}

DWORD OpenRecordedFile(const Storage& storage, DWORD protection, Mapping::Contents* contents) {
  const SharedRecord record(storage.descriptor());
  if (!record) return ERROR_NOT_ENOUGH_MEMORY;
  if (!WaitUntilReady(record)) return ERROR_FILE_NOT_FOUND;
  const int mode = protection == PAGE_READWRITE ? O_RDWR : O_RDONLY;
  const int descriptor = open(record->path, mode | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
  if (descriptor < 0) return ErrorFromErrno(errno);
  contents->descriptor = std::make_shared<SharedDescriptor>(descriptor);
  contents->start = 0;
  contents->bytes = record->bytes;
  contents->identity = {record->device, record->inode};
  return IsFileOf(*record.operator->(), descriptor) ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
}

// The data of the name itself. The descriptor is a duplicate: the memory lives on in views when the name has gone.
DWORD UseOwnData(const Storage& storage, uint64_t bytes, Mapping::Contents* contents) {
  const int descriptor = fcntl(storage.descriptor(), F_DUPFD_CLOEXEC, 0);
  if (descriptor < 0) return ErrorFromErrno(errno);
  contents->descriptor = std::make_shared<SharedDescriptor>(descriptor);
  contents->start = kSectionDataOffset;
  contents->bytes = bytes;
  contents->identity = {};
  return ERROR_SUCCESS;
}

DWORD Join(Storage* storage, Mapping::Contents* contents) {
  const uint32_t parameter = storage->state().parameter;
  contents->isFile = (parameter & kFileBacked) != 0;
  contents->protection = parameter & ~kFileBacked;
  if (contents->isFile) return OpenRecordedFile(*storage, contents->protection, contents);
  return UseOwnData(*storage, storage->state().sectionSize, contents);
}

}  // namespace

DWORD CreateNamedSection(LPCWSTR name, Mapping::Contents* contents, StorageReference* storage) {
  StorageRequest request = {};
  request.kind = Kind::kMapping;
  request.parameter = contents->protection | (contents->isFile ? kFileBacked : 0);
  request.sectionSize = contents->isFile ? sizeof(FileRecord) : contents->bytes;
  const DWORD error = CreateStorage(name, request, storage);
  if (error != ERROR_SUCCESS && error != ERROR_ALREADY_EXISTS) return error;
  const DWORD next = error == ERROR_ALREADY_EXISTS ? Join(storage->get(), contents)
                     : contents->isFile            ? WriteRecord(*storage->get(), *contents)
                                                   : UseOwnData(*storage->get(), contents->bytes, contents);
  return next != ERROR_SUCCESS ? next : error;
}

DWORD OpenNamedSection(LPCWSTR name, Mapping::Contents* contents, StorageReference* storage) {
  if (const DWORD error = OpenStorage(name, Kind::kMapping, storage)) return error;
  return Join(storage->get(), contents);
}

}  // namespace qel::layer
