#include "qelibaselib/platform/linux/memory/named_section.h"

#include <fcntl.h>

#include <cerrno>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/memory/file_record.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

// In the object's parameter, beside the protection.
constexpr uint32_t kFileBacked = 0x80000000;

// The data of the name itself. The descriptor is a duplicate: the memory lives on in views when the name has gone.
DWORD UseOwnData(Storage& storage, uint64_t bytes, Mapping::Contents* contents) {
  Descriptor duplicate(fcntl(storage.descriptor(), F_DUPFD_CLOEXEC, 0));
  if (duplicate.get() < 0) return ErrorFromErrno(errno);
  contents->descriptor = std::make_shared<MappedDescriptor>(duplicate);
  contents->start = kSectionDataOffset;
  contents->bytes = bytes;
  return ERROR_SUCCESS;
}

DWORD JoinSection(Storage& storage, Mapping::Contents* contents) {
  const uint32_t parameter = storage.state().parameter;
  contents->isFile = (parameter & kFileBacked) != 0;
  contents->protection = parameter & ~kFileBacked;
  if (contents->isFile) return OpenRecordedFile(storage, contents);
  return UseOwnData(storage, storage.state().sectionSize, contents);
}

}  // namespace

DWORD CreateNamedSection(LPCWSTR name, Mapping::Contents* contents, StorageReference* storage) {
  StorageRequest request = {};
  request.kind = Kind::kMapping;
  request.parameter = contents->protection | (contents->isFile ? kFileBacked : 0);
  request.sectionSize = contents->isFile ? kFileRecordBytes : contents->bytes;
  const DWORD error = CreateStorage(name, request, storage);
  if (error != ERROR_SUCCESS && error != ERROR_ALREADY_EXISTS) return error;
  const DWORD next = error == ERROR_ALREADY_EXISTS ? JoinSection(*storage->get(), contents)
                     : contents->isFile            ? WriteFileRecord(*storage->get(), *contents)
                                                   : UseOwnData(*storage->get(), contents->bytes, contents);
  return next != ERROR_SUCCESS ? next : error;
}

DWORD OpenNamedSection(LPCWSTR name, Mapping::Contents* contents, StorageReference* storage) {
  if (const DWORD error = OpenStorage(name, Kind::kMapping, storage)) return error;
  return JoinSection(*storage->get(), contents);
}

}  // namespace qel::layer
