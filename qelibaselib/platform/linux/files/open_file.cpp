#include "qelibaselib/platform/linux/files/open_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/win32/crt.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/synchapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr DWORD kAgain = 0xFFFFFFFF;  // the file went away, or came, in the middle
constexpr int kTries = 100;

bool Empties(DWORD disposition) { return disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING; }
bool Makes(DWORD disposition) { return disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS; }

int FlagsFor(const OpenRequest& request) {
  const bool writes = (request.mode.access & kWriting) || Empties(request.disposition);
  return (writes ? O_RDWR : O_RDONLY) | (request.writesThrough ? O_DSYNC : 0) | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
}

}  // namespace

OpenedFile::OpenedFile(OpenedFile&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      entered_(other.entered_),
      existed_(other.existed_),
      rangesLocked_(other.rangesLocked_),
      mode_(other.mode_),
      status_(other.status_) {}

OpenedFile::~OpenedFile() { Close(); }

void OpenedFile::Close() {
  if (descriptor_ < 0) return;
  if (entered_) LeaveSharing(descriptor_, mode_);
  close(std::exchange(descriptor_, -1));
  entered_ = false;
}

DWORD OpenedFile::Open(const SystemPath& path, const OpenRequest& request) {
  DWORD error = kAgain;
  for (int i = 0; i < kTries && error == kAgain; ++i) {
    error = OpenDescriptor(path, request);
    if (!error) error = Enter(request);
    if (error) Close();
  }
  return error == kAgain ? ERROR_ACCESS_DENIED : error;
}

// A descriptor for both ways where one is asked for: the sharing lock needs one that reads. What the user may only
// write, or only ask about, is opened as far as it goes.
int OpenedFile::OpenExisting(const SystemPath& path, const OpenRequest& request) const {
  const int flags = FlagsFor(request);
  const int descriptor = open(path.text(), flags);
  if (descriptor >= 0) return descriptor;
  if (errno == EACCES && !(request.mode.access & kReading) && (flags & O_ACCMODE) == O_RDWR)
    return open(path.text(), (flags & ~O_ACCMODE) | O_WRONLY);
  if (errno == EACCES && request.mode.access == 0) return open(path.text(), O_PATH | O_CLOEXEC);
  if (errno == EISDIR && request.folders && !Empties(request.disposition))
    return open(path.text(), (flags & ~O_ACCMODE) | O_RDONLY);
  return descriptor;
}

DWORD OpenedFile::OpenDescriptor(const SystemPath& path, const OpenRequest& request) {
  existed_ = true;
  // What is to be emptied is most often not there, and what may stay as it is most often is.
  const bool makesFirst = request.disposition == CREATE_NEW || request.disposition == CREATE_ALWAYS;
  if (!makesFirst) {
    descriptor_ = OpenExisting(path, request);
    if (descriptor_ >= 0) return ERROR_SUCCESS;
    if (errno != ENOENT || !Makes(request.disposition)) return PathError(errno, path);
  }
  const bool readOnly = (request.attributes & FILE_ATTRIBUTE_READONLY) != 0;
  const mode_t permissions = request.permissions & ~(readOnly ? kWriteBits : 0);
  descriptor_ = open(path.text(), FlagsFor(request) | O_CREAT | O_EXCL, permissions);
  if (descriptor_ >= 0) {
    existed_ = false;
    return ERROR_SUCCESS;
  }
  if (errno != EEXIST) return errno == ENOENT ? ERROR_PATH_NOT_FOUND : ErrorFromErrno(errno);
  if (request.disposition == CREATE_NEW) return ERROR_FILE_EXISTS;
  if (makesFirst) {
    descriptor_ = OpenExisting(path, request);
    if (descriptor_ >= 0) return ERROR_SUCCESS;
    if (errno != ENOENT) return PathError(errno, path);
  }
  // Made by another a moment ago, or a link to what does not exist yet.
  descriptor_ = open(path.text(), FlagsFor(request) | O_CREAT, permissions);
  return descriptor_ >= 0 ? ERROR_SUCCESS : PathError(errno, path);
}

DWORD OpenedFile::Enter(const OpenRequest& request) {
  mode_ = request.mode;
  if (mode_.access != 0 && request.shared) {
    if (const DWORD error = EnterSharing(descriptor_, mode_, !existed_, &rangesLocked_)) return error;
    entered_ = true;
  }
  // A copy that is deleted before it has contents is one that is deleted afterwards.
  if (request.source && !existed_) return ERROR_SUCCESS;
  if (const int error = ReadStatus(descriptor_, status_)) return ErrorFromErrno(error);
  // Deleted before it was entered, also when it was made here a moment ago: the name is free or another file's.
  if (status_.links == 0) return kAgain;
  if (existed_) {
    if (const DWORD error = CheckExisting(request)) return error;
    // Only a pipe or a terminal notices that it was opened without waiting.
    if (!S_ISREG(status_.mode) && !status_.IsFolder() && mode_.access) fcntl(descriptor_, F_SETFL, 0);
  }
  return SetContentsAndAttributes(request);
}

DWORD OpenedFile::CheckExisting(const OpenRequest& request) const {
  if (request.source && status_.SameFile(*request.source)) return ERROR_SHARING_VIOLATION;
  if (status_.IsFolder()) return request.folders ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
  const bool changes = (request.mode.access & kWriting) || Empties(request.disposition) || request.deletes;
  if (status_.IsReadOnlyFile() && changes) return ERROR_ACCESS_DENIED;
  if (request.disposition != CREATE_ALWAYS) return ERROR_SUCCESS;
  constexpr DWORD kMustBeGiven = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
  return AttributesOf(status_, descriptor_) & kMustBeGiven & ~request.attributes ? ERROR_ACCESS_DENIED : ERROR_SUCCESS;
}

DWORD OpenedFile::SetContentsAndAttributes(const OpenRequest& request) {
  if (existed_ && !Empties(request.disposition)) return ERROR_SUCCESS;
  if (existed_ && status_.size > 0)
    if (const DWORD error = CutUnmappedFile(descriptor_, 0)) return error;
  if (request.disposition == TRUNCATE_EXISTING) return ERROR_SUCCESS;
  constexpr DWORD kUsual = FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_NORMAL;
  const bool special = (request.attributes & ~kUsual) || (existed_ && (status_.mode & S_ISVTX));
  if (!special || (!existed_ && !(request.attributes & ~kUsual & ~FILE_ATTRIBUTE_READONLY))) return ERROR_SUCCESS;
  const int error = WriteAttributes(descriptor_, status_, request.attributes | FILE_ATTRIBUTE_ARCHIVE);
  return error ? ErrorFromErrno(error) : ERROR_SUCCESS;
}

DWORD GrowFile(int descriptor, off_t from, off_t to) {
  if (fallocate(descriptor, 0, from, to - from) == 0) return ERROR_SUCCESS;
  if ((errno == EOPNOTSUPP || errno == ENOSYS) && ftruncate(descriptor, to) == 0) return ERROR_SUCCESS;
  return ErrorFromErrno(errno);
}

File::File(OpenedFile&& opened, bool overlapped)
    : Object(Kind::kFile), opened_(std::move(opened)), overlapped_(overlapped), checksRanges_(opened_.rangesLocked()) {}

// Those that come meanwhile find the position still here, and wait.
void File::MovePosition() const {
  const std::lock_guard lock(positionMutex_);
  off_t position = position_.load(std::memory_order_acquire);
  while (position != kDescriptorsOwn) {
    lseek(descriptor(), position, SEEK_SET);
    if (position_.compare_exchange_strong(position, kDescriptorsOwn, std::memory_order_acq_rel)) break;
  }
}

bool File::DeleteOnClose(const SystemPath& path) {
  deletedName_.reset(new (std::nothrow) char[path.length() + 1]);
  if (deletedName_) std::memcpy(deletedName_.get(), path.text(), path.length() + 1);
  return deletedName_ != nullptr;
}

// The name may lead to another file by now.
File::~File() {
  FreeRangeLocks();
  if (!deletedName_) return;
  const SharingGate gate(descriptor());
  FileStatus own, named;
  if (ReadStatus(descriptor(), own) == 0 && ReadStatus(AT_FDCWD, deletedName_.get(), AT_SYMLINK_NOFOLLOW, named) == 0 &&
      own.SameFile(named))
    unlink(deletedName_.get());
}

namespace {

struct Access {
  DWORD bits;
  unsigned rights;
};
constexpr Access kAccess[] = {
    {GENERIC_READ, kReading},   {GENERIC_WRITE, kWriting},   {GENERIC_ALL, kAllRights},
    {FILE_READ_DATA, kReading}, {FILE_WRITE_DATA, kWriting}, {DELETE, kDeleting},
    {FILE_READ_ATTRIBUTES, 0},  {FILE_WRITE_ATTRIBUTES, 0},  {SYNCHRONIZE, 0},
};
constexpr DWORD kFlags = FILE_FLAG_DELETE_ON_CLOSE | FILE_FLAG_SEQUENTIAL_SCAN | FILE_FLAG_RANDOM_ACCESS |
                         FILE_FLAG_WRITE_THROUGH | FILE_FLAG_OVERLAPPED | FILE_FLAG_BACKUP_SEMANTICS;

DWORD ReadRequest(DWORD access, DWORD share, DWORD disposition, DWORD flags, OpenRequest& request) {
  if (disposition < CREATE_NEW || disposition > TRUNCATE_EXISTING || (share & ~DWORD{kAllRights}) != 0 ||
      !AreKnownAttributes(flags & ~kFlags))
    return ERROR_INVALID_PARAMETER;
  request = {{0, share}, disposition};
  for (const Access& known : kAccess) {
    if (access & known.bits) request.mode.access |= known.rights;
    access &= ~known.bits;
  }
  if (access != 0) return ERROR_INVALID_PARAMETER;
  if (disposition == TRUNCATE_EXISTING && !(request.mode.access & kWriting)) return ERROR_INVALID_PARAMETER;
  request.attributes = flags & ~kFlags & ~FILE_ATTRIBUTE_DIRECTORY;
  request.folders = (flags & FILE_FLAG_BACKUP_SEMANTICS) != 0;
  request.deletes = (flags & FILE_FLAG_DELETE_ON_CLOSE) != 0;
  request.writesThrough = (flags & FILE_FLAG_WRITE_THROUGH) != 0;
  if (request.deletes) request.mode.access |= kDeleting;
  return ERROR_SUCCESS;
}

// By these names alone: with a folder or an extension it is the name of a file that may well exist here.
bool IsNullDevice(LPCWSTR name) { return _wcsnicmp(name, L"NUL", 4) == 0 || _wcsnicmp(name, L"\\\\.\\NUL", 8) == 0; }

DWORD Create(LPCWSTR name, const OpenRequest& request, bool overlapped, HANDLE& handle, bool& existed) {
  SystemPath path;
  if (const DWORD error = path.Parse(name)) return error;
  if (path.EndsInSeparator() && !request.folders) return path.SeparatorError();
  OpenedFile opened;
  if (const DWORD error = opened.Open(path, request)) return error;
  existed = opened.existed();
  auto* file = new (std::nothrow) File(std::move(opened), overlapped);
  if (!file) return ERROR_NOT_ENOUGH_MEMORY;
  if (request.deletes && !file->DeleteOnClose(path)) {
    file->Release();
    return ERROR_NOT_ENOUGH_MEMORY;
  }
  handle = InsertHandle(file);
  return handle ? ERROR_SUCCESS : ERROR_TOO_MANY_OPEN_FILES;
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

HANDLE CreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES, DWORD disposition,
                   DWORD flagsAndAttributes, HANDLE) {
  OpenRequest request;
  HANDLE handle = nullptr;
  bool existed = false;
  DWORD error = ReadRequest(access, share, disposition, flagsAndAttributes, request);
  if (!error && name && IsNullDevice(name)) {
    name = L"/dev/null";
    request.disposition = disposition = OPEN_EXISTING;
    request.deletes = request.shared = false;
  }
  if (!error) error = Create(name, request, (flagsAndAttributes & FILE_FLAG_OVERLAPPED) != 0, handle, existed);
  const bool opensAnyway = disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS;
  SetLastError(!error && existed && opensAnyway ? ERROR_ALREADY_EXISTS : error);
  return error ? INVALID_HANDLE_VALUE : handle;
}
