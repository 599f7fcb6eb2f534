#include "qelibaselib/fileversion/fileversion.h"

#include <memory>
#include <new>

#include "qelibaselib/fileversion/file_version_reader.h"
#include "qelibaselib/guard/exception_guard.h"

void* CreateCFileVersion(const wchar_t* fileName) {
  qel::CFileVersion* version = nullptr;
  qel::Guarded(QEL_HERE, [&] { version = new (std::nothrow) qel::CFileVersion(fileName); });
  return version;
}

char** GetVerCFileVersion(void* version) {
  char** strings = nullptr;
  qel::Guarded(QEL_HERE, [&] {
    if (version) strings = static_cast<qel::CFileVersion*>(version)->Strings();
  });
  return strings;
}

void ReleaseCFileVersion(void* version) {
  qel::Guarded(QEL_HERE, [&] { delete static_cast<qel::CFileVersion*>(version); });
}
