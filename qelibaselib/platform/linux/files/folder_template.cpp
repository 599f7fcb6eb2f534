// New folders after the model of others.
#include <sys/stat.h>

#include <cerrno>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/files/file_attributes.h"
#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"

namespace qel::layer {
namespace {

DWORD ReadTemplate(LPCWSTR name, FileStatus& status, DWORD& attributes) {
  SystemPath path;
  if (const DWORD error = path.Parse(name)) return error;
  if (const int error = ReadStatus(AT_FDCWD, path.text(), 0, status)) return PathError(error, path);
  if (!status.IsFolder()) return ERROR_DIRECTORY;
  attributes = AttributesOf(status, path.text());
  return ERROR_SUCCESS;
}

DWORD SetAttributesOf(const SystemPath& folder, DWORD attributes) {
  FileStatus status;
  int error = ReadStatus(AT_FDCWD, folder.text(), AT_SYMLINK_NOFOLLOW, status);
  if (!error) error = WriteAttributes(folder.text(), status, attributes);
  return error ? ErrorFromErrno(error) : ERROR_SUCCESS;
}

// The owner always may do everything in the new folder: a copy of a tree could not be filled otherwise. The sticky bit
// goes along; set-user-id announces attributes and set-group-id comes from the parent.
DWORD CreateFolderLike(LPCWSTR templateName, LPCWSTR name) {
  constexpr mode_t kCopiedRights = 01777;
  FileStatus model;
  DWORD attributes = 0;
  SystemPath path;
  if (const DWORD error = ReadTemplate(templateName, model, attributes)) return error;
  if (const DWORD error = path.Parse(name)) return error;
  if (mkdir(path.text(), (model.mode & kCopiedRights) | S_IRWXU) != 0) {
    if (errno == EEXIST) return ERROR_ALREADY_EXISTS;
    return errno == ENOENT ? ERROR_PATH_NOT_FOUND : ErrorFromErrno(errno);
  }
  return attributes == FILE_ATTRIBUTE_DIRECTORY ? ERROR_SUCCESS : SetAttributesOf(path, attributes);
}

}  // namespace
}  // namespace qel::layer

using namespace qel::layer;

BOOL CreateDirectoryExW(LPCWSTR templateFolder, LPCWSTR name, LPSECURITY_ATTRIBUTES) {
  return ReportResult(CreateFolderLike(templateFolder, name));
}
