/// @file
/// The values that a host sets once at its start and every part of the library reads.
///
/// Folders are safe to set from several threads, of which exactly one wins; a reader that races with the winner may see
/// a part of the path, so hosts set them before other threads use the library. The other values are plain words.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN

/// Sets the folder of logs and reports. The first call in a process counts, cut to 259 characters; later ones change
/// nothing. Returns non-zero either way.
QEL_API int VemoSetLogPath(const wchar_t* path);
/// The same for the folder of temporary files.
QEL_API int VemoSetTmpPath(const wchar_t* path);
/// The same for the folder of the product's data.
QEL_API int VemoSetDataPath(const wchar_t* path);
/// The same for the base folder of the product.
QEL_API int VemoSetBasePath(const wchar_t* path);
/// The same for the folder of the executable.
QEL_API int VemoSetExePath(const wchar_t* path);

/// The folder of logs and reports, for the life of the process; before it is set "?:\???", on which every use fails.
QEL_API const wchar_t* VemoGetLogPath();
/// The same for the folder of temporary files.
QEL_API const wchar_t* VemoGetTmpPath();
/// The same for the folder of the product's data.
QEL_API const wchar_t* VemoGetDataPath();
/// The same for the base folder of the product.
QEL_API const wchar_t* VemoGetBasePath();
/// The same for the folder of the executable.
QEL_API const wchar_t* VemoGetExePath();

/// Sets `bits` in the debug mode and returns them. The bits are the host's own: the library gives none a meaning.
QEL_API DWORD VemoSetDebugMode(DWORD bits);
/// Clears `bits` and returns their complement.
QEL_API DWORD VemoResetDebugMode(DWORD bits);
/// The bits that are set.
QEL_API DWORD VemoGetDebugMode();

/// Sets the limits of the no-cache decision (qelibaselib/file/file.h): a file's size in bytes and the memory load in
/// percent. Returns `size`.
QEL_API DWORD VemoSetNoCacheFlushLimit(DWORD size, DWORD memoryLoad);
/// Returns the size (33,554,432 at first) and stores the memory load (50 at first).
QEL_API DWORD VemoGetNoCacheFlushLimit(DWORD* memoryLoad);

QEL_FUNCTIONS_END
