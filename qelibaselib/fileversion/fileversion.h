/// @file
/// The version strings of a module, through an opaque handle.
///
///     void* version = CreateCFileVersion(L"C:\\product\\module.dll");
///     if (char** strings = GetVerCFileVersion(version))
///       if (strings[kVersionFileVersion]) printf("%s\n", strings[kVersionFileVersion]);
///     ReleaseCFileVersion(version);
#pragma once
#include "qelibaselib/base/export.h"

/// The columns of a row of version strings.
enum E_VERSIONSTRING {
  kVersionComments,
  kVersionCompanyName,
  kVersionFileDescription,
  kVersionFileVersion,
  kVersionInternalName,
  kVersionLegalCopyright,
  kVersionLegalTrademarks,
  kVersionOriginalFilename,
  kVersionProductName,
  kVersionProductVersion,
  kVersionPrivateBuild,
  kVersionSpecialBuild,
  kVersionStringCount
};

QEL_FUNCTIONS_BEGIN
/// Reads the version resource of `fileName` at once and keeps its strings. The handle is the caller's, who gives it to
/// ReleaseCFileVersion; a file without a version resource, or none at all, gives a handle too. Null when no memory is
/// to be had or after an exception. The last error is whatever the reading left. Any thread.
QEL_API void* CreateCFileVersion(const wchar_t* fileName);

/// The table of narrow strings: one row of kVersionStringCount pointers for each language and code page that the
/// resource lists, in its order. A string that is missing or empty is null. Table and strings belong to the handle and
/// live as long. Null for a null handle and when the file has no usable resource; the number of rows is not told.
QEL_API char** GetVerCFileVersion(void* version);

/// Frees the handle with all its strings; null is ignored. A handle is freed once.
QEL_API void ReleaseCFileVersion(void* version);
QEL_FUNCTIONS_END
