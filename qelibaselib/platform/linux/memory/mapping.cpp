#include "qelibaselib/platform/linux/memory/mapping.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/file_size_limit.h"
#include "qelibaselib/platform/linux/files/file_object.h"
#include "qelibaselib/platform/linux/memory/file_record.h"
#include "qelibaselib/platform/linux/memory/named_section.h"
#include "qelibaselib/platform/linux/memory/regions.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"
#include "qelibaselib/platform/linux/win32/sysinfoapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {

Mapping::Mapping(Contents contents, Rights rights, StorageReference name)
    : Object(Kind::kMapping), contents_(std::move(contents)), rights_(rights), name_(std::move(name)) {
  if (IsNamedFile()) EnterFileHolder(*name_.get(), contents_.descriptor->get());
}

Mapping::~Mapping() {
  if (IsNamedFile()) RemoveFileHolder(*name_.get(), contents_.descriptor->get());
}

namespace {

bool IsKnownProtection(DWORD protection) {
  return protection == PAGE_READONLY || protection == PAGE_READWRITE || protection == PAGE_WRITECOPY;
}

// Memory that nobody has touched costs nothing, so a size that can never be had is refused by comparing. Small ones are
// not worth the question.
DWORD CheckCommit(uint64_t bytes) {
  constexpr uint64_t kNotAskedBytes = 16 << 20;
  if (bytes <= kNotAskedBytes) return ERROR_SUCCESS;
  MEMORYSTATUSEX status = {};
  status.dwLength = sizeof status;
  GlobalMemoryStatusEx(&status);
  return bytes > status.ullAvailPageFile ? ERROR_COMMITMENT_LIMIT : ERROR_SUCCESS;
}

DWORD MakeMemory(Mapping::Contents* contents) {
  Descriptor memory(memfd_create("qel-mapping", MFD_CLOEXEC));
  if (memory.get() < 0) return ErrorFromErrno(errno);
  const auto bytes = static_cast<off_t>(RoundUp(contents->bytes, kPageSize));
  const FileGrowth growth;
  if (ftruncate(memory.get(), bytes) != 0) return ERROR_COMMITMENT_LIMIT;
  contents->descriptor = std::make_shared<MappedDescriptor>(memory);
  return ERROR_SUCCESS;
}

// A file system that fills up half-way may have made the file longer already, so the old size is put back. A size that
// the file system cannot have at all counts as one that does not fit.
DWORD GrowWholly(int descriptor, off_t size, off_t wanted) {
  const DWORD error = GrowFile(descriptor, size, wanted);
  struct stat status;
  if (error != ERROR_SUCCESS && fstat(descriptor, &status) == 0 && status.st_size > size && status.st_size < wanted) {
    [[maybe_unused]] const int result = ftruncate(descriptor, size);
  }
  return error == ERROR_FILE_TOO_LARGE ? ERROR_DISK_FULL : error;
}

// The size of the mapping, for which the file grows where that is allowed.
DWORD DecideSize(int descriptor, uint64_t wanted, Mapping::Contents* contents) {
  struct stat status;
  if (fstat(descriptor, &status) != 0) return ErrorFromErrno(errno);
  const uint64_t size = status.st_size;
  if (wanted == 0 && size == 0) return ERROR_FILE_INVALID;
  contents->bytes = wanted ? wanted : size;
  if (wanted <= size) return ERROR_SUCCESS;
  if (contents->protection != PAGE_READWRITE) return ERROR_NOT_ENOUGH_MEMORY;
  return wanted > INT64_MAX ? ERROR_DISK_FULL : GrowWholly(descriptor, status.st_size, static_cast<off_t>(wanted));
}

DWORD HoldFileOf(HANDLE handle, uint64_t wanted, Mapping::Contents* contents) {
  const Pin pin(handle);
  const auto* const file = pin.As<FileObject>(Kind::kFile);
  if (!file) return ERROR_INVALID_HANDLE;
  if (!file->MayRead() || (contents->protection == PAGE_READWRITE && !file->MayWrite())) return ERROR_ACCESS_DENIED;
  std::shared_ptr<MappingMarks> marks = file->Marks();
  if (!marks) return ERROR_NOT_ENOUGH_MEMORY;
  const auto held = std::make_shared<MappedDescriptor>(std::move(marks));
  if (const DWORD error = held->HoldFile(contents->protection == PAGE_READWRITE)) return error;
  contents->descriptor = held;
  contents->isFile = true;
  return DecideSize(held->get(), wanted, contents);  // once nobody can cut it any more
}

Mapping::Rights RightsFor(DWORD protection) { return {true, protection == PAGE_READWRITE}; }

DWORD MakeHandle(Mapping::Contents&& contents, Mapping::Rights rights, StorageReference&& name, HANDLE* handle) {
  *handle = InsertHandle(new Mapping(std::move(contents), rights, std::move(name)));
  return *handle ? ERROR_SUCCESS : ERROR_TOO_MANY_OPEN_FILES;
}

// ERROR_ALREADY_EXISTS comes with a handle.
DWORD CreateMapping(HANDLE file, DWORD protection, uint64_t bytes, LPCWSTR name, HANDLE* handle) try {
  if (!IsKnownProtection(protection)) return ERROR_INVALID_PARAMETER;
  const bool isFile = file && file != INVALID_HANDLE_VALUE;
  const bool isNamed = name && name[0];
  Mapping::Contents contents = {nullptr, 0, bytes, protection, false};
  if (!isFile && bytes == 0) return ERROR_INVALID_PARAMETER;
  DWORD error = isFile ? HoldFileOf(file, bytes, &contents) : CheckCommit(bytes);
  if (error == ERROR_SUCCESS && !isFile && !isNamed) error = MakeMemory(&contents);
  if (error != ERROR_SUCCESS) return error;
  StorageReference storage;
  if (isNamed) error = CreateNamedSection(name, &contents, &storage);
  if (error != ERROR_SUCCESS && error != ERROR_ALREADY_EXISTS) return error;
  const DWORD failure = MakeHandle(std::move(contents), RightsFor(protection), std::move(storage), handle);
  return failure != ERROR_SUCCESS ? failure : error;
} catch (const std::bad_alloc&) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

DWORD OpenMapping(DWORD access, LPCWSTR name, HANDLE* handle) try {
  if (!name || (access & ~FILE_MAP_ALL_ACCESS) != 0) return ERROR_INVALID_PARAMETER;
  if (!name[0]) return ERROR_INVALID_HANDLE;
  Mapping::Contents contents = {};
  StorageReference storage;
  if (const DWORD error = OpenNamedSection(name, &contents, &storage)) return error;
  const Mapping::Rights rights = {(access & FILE_MAP_READ) != 0 || access == FILE_MAP_COPY,
                                  (access & FILE_MAP_WRITE) != 0};
  return MakeHandle(std::move(contents), rights, std::move(storage), handle);
} catch (const std::bad_alloc&) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

}  // namespace
}  // namespace qel::layer

// The security attributes are not looked at: a mapping belongs to its user and is not inherited.
HANDLE CreateFileMappingW(HANDLE file, LPSECURITY_ATTRIBUTES, DWORD protection, DWORD sizeHigh, DWORD sizeLow,
                          LPCWSTR name) {
  HANDLE handle = nullptr;
  SetLastError(qel::layer::CreateMapping(file, protection, uint64_t{sizeHigh} << 32 | sizeLow, name, &handle));
  return handle;
}

HANDLE OpenFileMappingW(DWORD access, BOOL, LPCWSTR name) {
  HANDLE handle = nullptr;
  const DWORD error = qel::layer::OpenMapping(access, name, &handle);
  if (error != ERROR_SUCCESS) SetLastError(error);
  return handle;
}
