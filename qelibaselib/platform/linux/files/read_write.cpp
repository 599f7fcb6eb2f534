// Reading, writing, position and size of an open file.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/file_size_limit.h"
#include "qelibaselib/platform/linux/base/page_size.h"
#include "qelibaselib/platform/linux/faults/fault_probe.h"
#include "qelibaselib/platform/linux/faults/fault_thread.h"
#include "qelibaselib/platform/linux/files/file_object.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"
#include "qelibaselib/platform/linux/win32/synchapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr off_t kHere = -1;                  // at the file's position, which moves on
constexpr ssize_t kMostAtOnce = 0x7FFFF000;  // what the kernel moves with one call

struct Transfer {
  DWORD bytes = 0;
  DWORD error = ERROR_SUCCESS;
};

ssize_t ReadOnce(int descriptor, char* buffer, size_t length, off_t at) {
  return at == kHere ? read(descriptor, buffer, length) : pread(descriptor, buffer, length, at);
}
ssize_t WriteOnce(int descriptor, const char* buffer, size_t length, off_t at) {
  const FileGrowth growth;
  return at == kHere ? write(descriptor, buffer, length) : pwrite(descriptor, buffer, length, at);
}

// Goes on behind a first call that moved `done` bytes, until all is moved or a call moves nothing.
template <class Once, class Byte>
Transfer MoveRest(Once once, int descriptor, Byte* buffer, DWORD length, off_t at, ssize_t done) {
  Transfer transfer;
  auto moved = static_cast<size_t>(done > 0 ? done : 0);
  while (done > 0 ? moved < length : done < 0 && errno == EINTR) {
    done = once(descriptor, buffer + moved, length - moved, at == kHere ? kHere : at + static_cast<off_t>(moved));
    if (done > 0) moved += static_cast<size_t>(done);
  }
  transfer.bytes = static_cast<DWORD>(moved);
  if (done < 0) transfer.error = ErrorFromErrno(errno);
  return transfer;
}

bool CanRead(const char* byte) { return fault_probe_read(byte) == 0; }
bool CanWrite(char* byte) { return fault_probe_write(byte) == 0; }
void PrepareToProbe() {
  if (!t_faultThread.ready) PrepareFaultThread();
}

// Whether the part of a buffer that a short read left alone could have been filled, too. Its two ends stand for it.
bool IsRestWritable(char* buffer, DWORD length, DWORD done) {
  if (done >= length) return true;
  PrepareToProbe();
  return CanWrite(buffer + done) && CanWrite(buffer + length - 1);
}

// Windows looks at the whole buffer before it reads, the kernel only at what it fills. So a read that ends early, at
// the end of the file or in front of a bad page, is looked at again, and one that fails leaves the position.
Transfer Read(const FileObject& file, char* buffer, DWORD length, off_t at) {
  const int descriptor = at == kHere ? file.PositionedDescriptor() : file.descriptor();
  const ssize_t done = ReadOnce(descriptor, buffer, length, at);
  if (done >= 0 && static_cast<DWORD>(done) == length) return {length, ERROR_SUCCESS};
  Transfer transfer{static_cast<DWORD>(done), ERROR_SUCCESS};
  if (done < 0 || done >= kMostAtOnce) transfer = MoveRest(ReadOnce, descriptor, buffer, length, at, done);
  if (!transfer.error && !IsRestWritable(buffer, length, transfer.bytes)) transfer.error = ERROR_NOACCESS;
  if (!transfer.error) return transfer;
  if (at == kHere) lseek(descriptor, -static_cast<off_t>(transfer.bytes), SEEK_CUR);
  return {0, transfer.error};
}

// The kernel would write what stands before a bad page. Within one page it notices in time itself.
bool CanReadPages(const char* buffer, DWORD length) {
  const uintptr_t first = reinterpret_cast<uintptr_t>(buffer), last = first + length - 1;
  if (last < first) return false;
  if (first / kPageSize == last / kPageSize) return true;
  PrepareToProbe();
  for (const char* byte = buffer; byte < buffer + length; byte += kPageSize)
    if (!CanRead(byte)) return false;
  return CanRead(buffer + length - 1);
}

Transfer Write(const FileObject& file, const char* buffer, DWORD length, off_t at) {
  if (length == 0) return {};
  const int descriptor = at == kHere ? file.PositionedDescriptor() : file.descriptor();
  if (!CanReadPages(buffer, length)) return {0, ERROR_INVALID_USER_BUFFER};
  const ssize_t done = WriteOnce(descriptor, buffer, length, at);
  if (done >= 0 && static_cast<DWORD>(done) == length) return {length, ERROR_SUCCESS};
  Transfer transfer = MoveRest(WriteOnce, descriptor, buffer, length, at, done);
  if (transfer.error == ERROR_NOACCESS) transfer.error = ERROR_INVALID_USER_BUFFER;
  return transfer;
}

off_t Position(const FileObject& file) { return lseek(file.PositionedDescriptor(), 0, SEEK_CUR); }

// A lock that another handle has on the bytes of the transfer.
DWORD CheckRanges(const FileObject& file, DWORD length, off_t at, bool writing) {
  return file.CheckRanges(length, writing, [&] { return at == kHere ? Position(file) : at; });
}

constexpr DWORD kStatusEndOfFile = 0xC0000011;
constexpr DWORD kStatusOfError = 0xC0070000;  // plus the Win32 error

off_t OffsetOf(const FileObject& file, const OVERLAPPED& overlapped, bool writing) {
  const bool atEnd = overlapped.Offset == MAXDWORD && overlapped.OffsetHigh == MAXDWORD;
  if (writing && atEnd) {
    FileStatus status;
    return ReadStatus(file.descriptor(), status) == 0 ? static_cast<off_t>(status.size) : 0;
  }
  return static_cast<off_t>(static_cast<ULONGLONG>(overlapped.OffsetHigh) << 32 | overlapped.Offset);
}

void RecordResult(OVERLAPPED& overlapped, const Transfer& transfer) {
  overlapped.InternalHigh = transfer.bytes;
  overlapped.Internal = transfer.error == ERROR_HANDLE_EOF ? kStatusEndOfFile
                        : transfer.error                   ? kStatusOfError | transfer.error
                                                           : 0;
}

// Ends a transfer at an offset of the caller's. On a synchronous handle the position moves behind the data. The caller
// with an overlapped handle hears that the transfer goes on, and finds it finished when asking.
Transfer FinishAtOffset(const FileObject& file, OVERLAPPED& overlapped, off_t at, Transfer transfer) {
  RecordResult(overlapped, transfer);
  if (transfer.error && transfer.error != ERROR_HANDLE_EOF) return transfer;
  if (!file.overlapped()) {
    file.SetPosition(at + transfer.bytes);
    return transfer;
  }
  if (overlapped.hEvent) SetEvent(overlapped.hEvent);
  return {0, ERROR_IO_PENDING};
}

// `move(at)` reads or writes `length` bytes at an offset or, with kHere, at the position.
template <class Move>
Transfer PerformTransfer(const FileObject& file, DWORD length, OVERLAPPED* overlapped, bool writing, Move move) {
  if (!(writing ? file.MayWrite() : file.MayRead())) return {0, ERROR_ACCESS_DENIED};
  if (file.IsFolder()) return {0, ERROR_INVALID_FUNCTION};
  if (!overlapped && file.overlapped()) return {0, ERROR_INVALID_PARAMETER};
  const off_t at = overlapped ? OffsetOf(file, *overlapped, writing) : kHere;
  if (overlapped && at < 0) return {0, ERROR_INVALID_PARAMETER};
  if (const DWORD error = CheckRanges(file, length, at, writing)) return {0, error};
  Transfer transfer = move(at);
  if (!overlapped) return transfer;
  if (!writing && !transfer.error && transfer.bytes == 0 && length > 0) transfer.error = ERROR_HANDLE_EOF;
  return FinishAtOffset(file, *overlapped, at, transfer);
}

// Runs `use` on the file behind a handle.
template <class Use>
BOOL WithFile(HANDLE handle, Use use) {
  const Pin pin(handle);
  const auto* file = pin.As<FileObject>(Kind::kFile);
  return ReportResult(file ? use(*file) : ERROR_INVALID_HANDLE);
}

DWORD SetPosition(int descriptor, LONGLONG distance, LARGE_INTEGER* position, DWORD method) {
  constexpr int kWhence[] = {SEEK_SET, SEEK_CUR, SEEK_END};
  const off_t at = lseek(descriptor, distance, kWhence[method]);
  if (at < 0) return errno == EINVAL || errno == EOVERFLOW ? ERROR_NEGATIVE_SEEK : ErrorFromErrno(errno);
  if (position) position->QuadPart = at;
  return ERROR_SUCCESS;
}

DWORD EndFileHere(const FileObject& file) {
  if (!file.MayWrite()) return ERROR_ACCESS_DENIED;
  FileStatus status;
  if (const int error = ReadStatus(file.descriptor(), status)) return ErrorFromErrno(error);
  const off_t end = Position(file), size = static_cast<off_t>(status.size);
  if (end > size) return GrowFile(file.descriptor(), size, end);
  if (end == size) return ERROR_SUCCESS;
  const std::shared_ptr<MappingMarks> marks = file.Marks();
  return marks ? marks->CutFile(end) : ERROR_NOT_ENOUGH_MEMORY;
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

BOOL ReadFile(HANDLE handle, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead, LPOVERLAPPED overlapped) {
  if (bytesRead) *bytesRead = 0;
  return WithFile(handle, [&](const FileObject& file) {
    const Transfer transfer = PerformTransfer(file, bytesToRead, overlapped, false, [&](off_t at) {
      return Read(file, static_cast<char*>(buffer), bytesToRead, at);
    });
    if (bytesRead) *bytesRead = transfer.bytes;
    return transfer.error;
  });
}

BOOL WriteFile(HANDLE handle, LPCVOID buffer, DWORD bytesToWrite, LPDWORD bytesWritten, LPOVERLAPPED overlapped) {
  if (bytesWritten) *bytesWritten = 0;
  return WithFile(handle, [&](const FileObject& file) {
    const Transfer transfer = PerformTransfer(file, bytesToWrite, overlapped, true, [&](off_t at) {
      return Write(file, static_cast<const char*>(buffer), bytesToWrite, at);
    });
    if (bytesWritten) *bytesWritten = transfer.bytes;
    return transfer.error;
  });
}

BOOL GetOverlappedResult(HANDLE handle, LPOVERLAPPED overlapped, LPDWORD bytes, BOOL) {
  return WithFile(handle, [&](const FileObject&) -> DWORD {
    *bytes = overlapped->InternalHigh;
    if (overlapped->Internal == kStatusEndOfFile) return ERROR_HANDLE_EOF;
    return overlapped->Internal & 0xFFFF;
  });
}

BOOL SetFilePointerEx(HANDLE handle, LARGE_INTEGER distance, PLARGE_INTEGER position, DWORD method) {
  if (method > FILE_END) return ReportResult(ERROR_INVALID_PARAMETER);
  if (method == FILE_BEGIN && distance.QuadPart < 0) return ReportResult(ERROR_NEGATIVE_SEEK);
  return WithFile(handle, [&](const FileObject& file) {
    return SetPosition(file.PositionedDescriptor(), distance.QuadPart, position, method);
  });
}

BOOL GetFileSizeEx(HANDLE handle, PLARGE_INTEGER size) {
  return WithFile(handle, [&](const FileObject& file) -> DWORD {
    FileStatus status;
    if (const int error = ReadStatus(file.descriptor(), status)) return ErrorFromErrno(error);
    size->QuadPart = static_cast<LONGLONG>(status.size);
    return ERROR_SUCCESS;
  });
}

BOOL SetEndOfFile(HANDLE handle) { return WithFile(handle, EndFileHere); }

BOOL FlushFileBuffers(HANDLE handle) {
  return WithFile(handle, [](const FileObject& file) -> DWORD {
    if (!file.MayWrite()) return ERROR_ACCESS_DENIED;
    return fsync(file.descriptor()) == 0 || errno == EINVAL ? ERROR_SUCCESS : ErrorFromErrno(errno);
  });
}
