/// @file
/// The contents of named file-mapping objects, which the host has made, to and from files: exactly the bytes, no
/// header. See qelibaselib/file/file.h for what holds for all, qelibaselib/file/bulk_transfer.h for `shortageThreshold`
/// and what a failure leaves.
///
/// The size of the object comes from the caller, the low half first. A size larger than the object fails at its first
/// view that does not fit.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN
/// Saves an object as a file, replacing one of that name.
QEL_API BOOL ObjectToFile(int line, const char* sourceFile, const wchar_t* objectName, DWORD sizeLow, DWORD sizeHigh,
                          const wchar_t* fileName, int shortageThreshold);

/// Loads a file, which must have exactly the given size, into an existing object. `mapSource` FALSE reads the file into
/// a buffer of one chunk instead of mapping it. Does not touch the object when the size differs.
QEL_API BOOL FileToObject(int line, const char* sourceFile, const wchar_t* fileName, DWORD sizeLow, DWORD sizeHigh,
                          const wchar_t* objectName, int shortageThreshold, BOOL mapSource);

/// Copies one existing object into another.
QEL_API BOOL CopyObject(int line, const char* sourceFile, const wchar_t* sourceObjectName, DWORD sizeLow,
                        DWORD sizeHigh, const wchar_t* targetObjectName, int shortageThreshold);
QEL_FUNCTIONS_END
