/// @file
/// Whole folder trees. See qelibaselib/file/file.h for what holds for all.
///
/// One walk visits at most 1024 folders, the start folder included; every folder beyond that is a failure. A failure
/// does not end a walk: everything else is still tried, each failure writes an assertion line, and the result is FALSE.
///
/// A link to a folder (symbolic link, junction) is the tree's, what it leads to is not: no walk goes through one that
/// it meets. It counts as size 0, is deleted itself, and is not copied. The folder that the caller names may be a link.
/// A path that would not fit in 260 characters is a failure, and so is an empty path of a folder. A relative path is
/// taken from the current folder.
#pragma once
#include "qelibaselib/base/export.h"

QEL_FUNCTIONS_BEGIN
/// Adds up the sizes of all files. `*totalSize` is what could be read when the result is FALSE.
QEL_API BOOL GetFileSizeDirectoryTree(int line, const char* sourceFile, const wchar_t* folder,
                                      unsigned long long* totalSize);

/// Deletes the files of a folder, also read-only ones; with `recurse` those of its sub-folders and these themselves;
/// with `removeFolder` the folder itself, which must be empty then. A file in use is waited for, up to 1 s.
QEL_API BOOL DeleteDirectoryTree(int line, const char* sourceFile, const wchar_t* folder, BOOL removeFolder,
                                 BOOL recurse);

/// Copies a tree into `targetFolder`, which is made with every missing folder above it; files there are overwritten,
/// and folders take over the attributes of their sources, new ones on Linux their rights too. A device, pipe or socket
/// and a link that leads nowhere are failures, without any waiting. Fails without copying when the target is the source
/// or lies inside it. A file in use is waited for, up to 10 s.
QEL_API BOOL CopyDirectoryTree(int line, const char* sourceFile, const wchar_t* sourceFolder,
                               const wchar_t* targetFolder);
QEL_FUNCTIONS_END
