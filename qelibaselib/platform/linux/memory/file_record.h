/// @file
/// Which file stands behind a named mapping, for the processes that open it by its name.
///
/// The problem: a process that opens the name needs a descriptor of the file, which may have been renamed or replaced
/// since the mapping was made. The idea: the data of the name holds a record of the file's number, its path at the
/// creation, and a list of holders: descriptors of the processes that have the mapping open. The path is tried first,
/// then the holders' descriptors through /proc, which lead to the file by whatever name, or none. The invariant:
/// nothing is believed before its device and node are those of the record, so an entry of a process that has died,
/// whose number and descriptor may be another's by now, does no harm; its place is used again.
#pragma once
#include "qelibaselib/platform/linux/memory/mapping.h"

namespace qel::layer {

/// The size of the data of such a name.
extern const size_t kFileRecordBytes;

/// Fills the record of a name that was just made. Others wait for it, for about a tenth of a second.
DWORD WriteFileRecord(const Storage& storage, const Mapping::Contents& contents);

/// Opens the file for a mapping of its protection. ERROR_FILE_NOT_FOUND when it cannot be reached any more.
DWORD OpenRecordedFile(const Storage& storage, Mapping::Contents* contents);

/// Enters and removes a descriptor of this process. A list that is full takes no more, which only matters when the file
/// has another name by the time that all entered holders have gone.
void EnterFileHolder(const Storage& storage, int descriptor);
void RemoveFileHolder(const Storage& storage, int descriptor);

}  // namespace qel::layer
