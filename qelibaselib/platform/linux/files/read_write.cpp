// Reading, writing, position and size of an open file.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/kernel_call.h"
#include "qelibaselib/platform/linux/faults/fault_internal.h"
#include "qelibaselib/platform/linux/faults/fault_probe.h"
#include "qelibaselib/platform/linux/files/open_file.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"
#include "qelibaselib/platform/linux/win32/synchapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr off_t kHere = -1;  // at the file's position, which moves on
constexpr uintptr_t kPage = 4096;
constexpr ssize_t kMostAtOnce = 0x7FFFF000;  // what the kernel moves with one call

struct Transfer {
  DWORD bytes = 0;
  DWORD error = ERROR_SUCCESS;
};

bool IsAll(ssize_t done, DWORD length) { return done >= 0 && static_cast<DWORD>(done) == length; }

template <class Byte>
[[gnu::always_inline]] inline ssize_t Move(long call, long callAt, int descriptor, Byte* buffer, size_t length,
                                           off_t at) {
  if (at == kHere) return KernelCall(call, descriptor, buffer, length);
  return KernelCall(callAt, descriptor, buffer, length, static_cast<uint32_t>(at), static_cast<uint32_t>(at >> 32));
}
[[gnu::always_inline]] inline ssize_t ReadOnce(int descriptor, void* buffer, size_t length, off_t at) {
  return Move(SYS_read, SYS_pread64, descriptor, buffer, length, at);
}
[[gnu::always_inline]] inline ssize_t WriteOnce(int descriptor, const void* buffer, size_t length, off_t at) {
  return Move(SYS_write, SYS_pwrite64, descriptor, buffer, length, at);
}

// The kernel stops without an error in front of a bad page when it has moved something, and at the most that one call
// moves. The position goes back when the rest fails.
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

int DescriptorAt(const File& file, off_t at) { return at == kHere ? file.PositionedDescriptor() : file.descriptor(); }

Transfer Read(const File& file, void* buffer, DWORD length, off_t at) {
  const int descriptor = DescriptorAt(file, at);
  auto* bytes = static_cast<char*>(buffer);
  const ssize_t done = ReadOnce(descriptor, bytes, length, at);
  if (IsAll(done, length)) return {length, ERROR_SUCCESS};
  // Less than asked is the end of the file, unless it stops where a page of the buffer begins.
  if (done >= 0 && done < kMostAtOnce && (reinterpret_cast<uintptr_t>(bytes + done) & (kPage - 1)) != 0)
    return {static_cast<DWORD>(done), ERROR_SUCCESS};
  Transfer transfer = MoveRest(ReadOnce, descriptor, bytes, length, at, done);
  if (transfer.error && at == kHere) lseek(descriptor, -static_cast<off_t>(transfer.bytes), SEEK_CUR);
  if (transfer.error) transfer.bytes = 0;
  return transfer;
}

bool IsReadable(const char* byte) {
  if (!t_faultThread.ready) [[unlikely]]
    PrepareFaultThread();
  return fault_probe_read(byte) == 0;
}

// The kernel would write what stands before the bad page.
bool EndsInBadPage(const char* buffer, DWORD length) {
  const char* const last = buffer + length - 1;
  const bool crosses = ((reinterpret_cast<uintptr_t>(buffer) ^ reinterpret_cast<uintptr_t>(last)) & ~(kPage - 1)) != 0;
  return crosses && !IsReadable(last);
}

Transfer Write(const File& file, const void* buffer, DWORD length, off_t at) {
  if (length == 0) return {};
  const int descriptor = DescriptorAt(file, at);
  const auto* bytes = static_cast<const char*>(buffer);
  if (EndsInBadPage(bytes, length)) return {0, ERROR_INVALID_USER_BUFFER};
  const ssize_t done = WriteOnce(descriptor, bytes, length, at);
  if (IsAll(done, length)) return {length, ERROR_SUCCESS};
  Transfer transfer = MoveRest(WriteOnce, descriptor, bytes, length, at, done);
  if (transfer.error == ERROR_NOACCESS) transfer.error = ERROR_INVALID_USER_BUFFER;
  return transfer;
}

off_t Position(const File& file) { return lseek(file.PositionedDescriptor(), 0, SEEK_CUR); }

// Where the transfer begins as a number, for the locks of others.
DWORD CheckRanges(const File& file, DWORD length, off_t at, bool writing) {
  return file.CheckRanges(length, writing, [&] { return at == kHere ? Position(file) : at; });
}

constexpr DWORD kStatusEndOfFile = 0xC0000011;
constexpr DWORD kStatusOfError = 0xC0070000;  // plus the Win32 error

off_t OffsetOf(const File& file, const OVERLAPPED& overlapped, bool writing) {
  const bool atEnd = overlapped.Offset == MAXDWORD && overlapped.OffsetHigh == MAXDWORD;
  if (writing && atEnd) {
    FileStatus status;
    return ReadStatus(file.descriptor(), status) == 0 ? static_cast<off_t>(status.size) : 0;
  }
  return static_cast<off_t>(static_cast<ULONGLONG>(overlapped.OffsetHigh) << 32 | overlapped.Offset);
}

void KeepResult(OVERLAPPED& overlapped, const Transfer& transfer) {
  overlapped.InternalHigh = transfer.bytes;
  overlapped.Internal = transfer.error == ERROR_HANDLE_EOF ? kStatusEndOfFile
                        : transfer.error                   ? kStatusOfError | transfer.error
                                                           : 0;
}

// What follows a transfer with an offset of the caller's. On a synchronous handle the position moves behind the data.
// An overlapped one is told that the transfer goes on, and finds its end at once.
[[gnu::always_inline]] inline Transfer EndAt(const File& file, OVERLAPPED& overlapped, off_t at, Transfer transfer) {
  KeepResult(overlapped, transfer);
  if (transfer.error && transfer.error != ERROR_HANDLE_EOF) return transfer;
  if (!file.overlapped()) {
    file.SetPosition(at + transfer.bytes);
    return transfer;
  }
  if (overlapped.hEvent) SetEvent(overlapped.hEvent);
  return {0, ERROR_IO_PENDING};
}

// `move(at)` is there once, so that it becomes a part of the call: each function around a system call costs as much as
// all the rest here, since the processor does not foresee its return.
template <class Move>
Transfer Perform(const File& file, DWORD length, OVERLAPPED* overlapped, bool writing, Move move) {
  if (!(writing ? file.MayWrite() : file.MayRead())) return {0, ERROR_ACCESS_DENIED};
  if (!overlapped && file.overlapped()) return {0, ERROR_INVALID_PARAMETER};
  const off_t at = overlapped ? OffsetOf(file, *overlapped, writing) : kHere;
  if (overlapped && at < 0) return {0, ERROR_INVALID_PARAMETER};
  if (const DWORD error = CheckRanges(file, length, at, writing)) return {0, error};
  Transfer transfer = move(at);
  if (!overlapped) return transfer;
  if (!writing && !transfer.error && transfer.bytes == 0 && length > 0) transfer.error = ERROR_HANDLE_EOF;
  return EndAt(file, *overlapped, at, transfer);
}

BOOL Finish(DWORD error) {
  if (error) SetLastError(error);
  return error == ERROR_SUCCESS;
}

// Runs `use` on the file behind a handle.
template <class Use>
BOOL WithFile(HANDLE handle, Use use) {
  const Pin pin(handle);
  const auto* file = pin.As<File>(Kind::kFile);
  return Finish(file ? use(*file) : ERROR_INVALID_HANDLE);
}

DWORD SetPosition(int descriptor, LONGLONG distance, LARGE_INTEGER* position, DWORD method) {
  constexpr int kWhence[] = {SEEK_SET, SEEK_CUR, SEEK_END};
  if (method > FILE_END) return ERROR_INVALID_PARAMETER;
  const off_t at = lseek(descriptor, distance, kWhence[method]);
  if (at < 0) return errno == EINVAL || errno == EOVERFLOW ? ERROR_NEGATIVE_SEEK : ErrorFromErrno(errno);
  if (position) position->QuadPart = at;
  return ERROR_SUCCESS;
}

DWORD EndFileHere(const File& file) {
  if (!file.MayWrite()) return ERROR_ACCESS_DENIED;
  FileStatus status;
  if (const int error = ReadStatus(file.descriptor(), status)) return ErrorFromErrno(error);
  const off_t end = Position(file), size = static_cast<off_t>(status.size);
  if (end > size) return GrowFile(file.descriptor(), size, end);
  if (end == size) return ERROR_SUCCESS;
  const std::shared_ptr<MappingMarks> marks = file.Marks();
  return marks ? marks->CutFile(file.descriptor(), end) : ERROR_NOT_ENOUGH_MEMORY;
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

BOOL ReadFile(HANDLE handle, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead, LPOVERLAPPED overlapped) {
  if (bytesRead) *bytesRead = 0;
  return WithFile(handle, [&](const File& file) {
    const Transfer transfer =
        Perform(file, bytesToRead, overlapped, false, [&](off_t at) { return Read(file, buffer, bytesToRead, at); });
    if (bytesRead) *bytesRead = transfer.bytes;
    return transfer.error;
  });
}

BOOL WriteFile(HANDLE handle, LPCVOID buffer, DWORD bytesToWrite, LPDWORD bytesWritten, LPOVERLAPPED overlapped) {
  if (bytesWritten) *bytesWritten = 0;
  return WithFile(handle, [&](const File& file) {
    const Transfer transfer =
        Perform(file, bytesToWrite, overlapped, true, [&](off_t at) { return Write(file, buffer, bytesToWrite, at); });
    if (bytesWritten) *bytesWritten = transfer.bytes;
    return transfer.error;
  });
}

BOOL GetOverlappedResult(HANDLE handle, LPOVERLAPPED overlapped, LPDWORD bytes, BOOL) {
  return WithFile(handle, [&](const File&) -> DWORD {
    *bytes = overlapped->InternalHigh;
    if (overlapped->Internal == kStatusEndOfFile) return ERROR_HANDLE_EOF;
    return overlapped->Internal & 0xFFFF;
  });
}

BOOL SetFilePointerEx(HANDLE handle, LARGE_INTEGER distance, PLARGE_INTEGER position, DWORD method) {
  return WithFile(handle, [&](const File& file) {
    return SetPosition(file.PositionedDescriptor(), distance.QuadPart, position, method);
  });
}

BOOL GetFileSizeEx(HANDLE handle, PLARGE_INTEGER size) {
  return WithFile(handle, [&](const File& file) -> DWORD {
    FileStatus status;
    if (const int error = ReadStatus(file.descriptor(), status)) return ErrorFromErrno(error);
    size->QuadPart = static_cast<LONGLONG>(status.size);
    return ERROR_SUCCESS;
  });
}

BOOL SetEndOfFile(HANDLE handle) { return WithFile(handle, EndFileHere); }

BOOL FlushFileBuffers(HANDLE handle) {
  return WithFile(handle, [](const File& file) -> DWORD {
    if (!file.MayWrite()) return ERROR_ACCESS_DENIED;
    return fsync(file.descriptor()) == 0 || errno == EINVAL ? ERROR_SUCCESS : ErrorFromErrno(errno);
  });
}
