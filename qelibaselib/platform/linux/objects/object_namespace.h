/// @file
/// Names of kernel objects, which all kinds share.
///
/// The room objects/ holds events, mutexes, semaphores and timers, the waits for all objects, and what is behind their
/// names:
///   object_name.h        what a name may look like, and the key that stands for it
///   shared_folder.h      the user's folder in shared memory, where the files of names are
///   object_locks.h       locks on such a file, which say who is there
///   object_users.h       which of them use the object
///   object_attachment.h  this process at one file: how an object is made, joined, given up
///   storage.h            the memory of one object in this process
///   object_namespace.h   all names of this process
/// It may use base/, handles/ and the data of threads; sections of memory/ use it for their names.
///
/// For each name that this process has to do with, one Storage stands in a table. There is only one mapping of a name's
/// file in a process: the C library's robust mutexes are found by their address, and releasing one through a second
/// mapping would not return.
///
/// What happens to a named storage with a file:
///
///   | state      | event                              | next                                                 |
///   |------------|------------------------------------|------------------------------------------------------|
///   | (none)     | created or opened                  | kUsed                                                |
///   | kUsed      | last handle closed, a mutex        | kParked; kOwnerOnly when a thread here owns it       |
///   | kUsed      | last handle closed, any other kind | the file is left, the storage freed                  |
///   | kParked    | created, or opened while others    | kUsed                                                |
///   |            | use it                             |                                                      |
///   | kParked    | 16 younger ones, or the file lost  | the file is left, the storage freed                  |
///   | kOwnerOnly | created or opened while others use | kUsed                                                |
///   |            | it                                 |                                                      |
///   | kOwnerOnly | created while nobody uses it       | kUnnamed; the name gets a new file and a new storage |
///   | kOwnerOnly | the owner's thread ends            | kParked                                              |
///   | any        | fork, in the child                 | kUnnamed; the file stays the parent's                |
///   | kUnnamed   | last reference and owner gone      | freed                                                |
///
/// Only in kUsed is this process a user of the object. A parked mutex costs its next creation no system call.
///
/// Clean-up jobs that remove files in shared memory under running programs split an object in two: its holders go on,
/// whoever comes later makes another. A host that closes all descriptors loses its part in the objects that it has open
/// then: others do not see it as a user any more; later creations start afresh.
#pragma once
#include "qelibaselib/platform/linux/base/forked_part.h"
#include "qelibaselib/platform/linux/objects/storage.h"

namespace qel::layer {

/// Creates or joins. A name that is null or empty gives a new unnamed object. 0: made new. ERROR_ALREADY_EXISTS:
/// joined, `storage` is set as well. Else an error: of the name (see ParseObjectName), ERROR_INVALID_HANDLE for an
/// object of another kind, ERROR_COMMITMENT_LIMIT for a section that does not fit. A mutex of a well-formed name never
/// fails for want of shared memory: it becomes one of this process alone then.
DWORD CreateStorage(const wchar_t* name, const StorageRequest& request, StorageReference* storage);

/// Joins an object that exists. ERROR_FILE_NOT_FOUND when there is none, ERROR_INVALID_HANDLE for another kind and for
/// an empty name, which is the folder of names itself; ERROR_INVALID_PARAMETER for no name.
DWORD OpenStorage(const wchar_t* name, Kind kind, StorageReference* storage);

/// In a forked child everything named is forgotten, and its files are left alone.
extern const ForkedPart kNamespaceAtFork;

/// At the end of the process: gives up every hold and removes the files that nobody holds, and the folder with the
/// last of them. Named objects are of this process alone from then on.
void LeaveNamespace();

}  // namespace qel::layer
