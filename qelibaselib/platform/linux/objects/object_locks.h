/// @file
/// Locks on the file of a named object: they alone say which processes use the object.
///
/// The locks belong to the open file description (OFD locks), so that a thread that opens and closes the same file does
/// not drop them, and the kernel lifts them when the last process that shares the description ends.
#pragma once
#include <cstdint>

namespace qel::layer {

enum class FileHolder { kNone, kMaker, kUser };

/// Becomes the maker (or remover) of the file; false when anyone holds it (errno EAGAIN or EACCES), or when the system
/// gives no locks (any other errno).
bool TryHoldExclusive(int file);
/// Becomes one of the processes that use the object, from maker or from nothing. False while a maker is at work.
bool TryHoldShared(int file);
/// Takes the number of a process; false when another has it. The kernel lifts the lock when the process ends, also
/// after SIGKILL.
bool TryHoldNumber(int file, uint32_t number);
/// Whether another process has the number.
bool IsNumberHeld(int file, uint32_t number);
/// Gives up the file and the number.
void DropHolds(int file);
/// Who keeps this descriptor from becoming the maker. A maker is no proof of life: it may be killed before it is done.
FileHolder HolderOf(int file);

/// Takes the name from the file if it is still this file's.
void UnlinkFile(int folder, int file, const char* fileName);
/// Whether it is an ordinary file of the account `user` that no other account may open.
bool IsOwnFile(int file, unsigned user);
/// Gives up all holds; the last user removes the file.
void LeaveFile(int folder, int file, const char* fileName);
/// Removes every file of the folder that nobody holds.
void RemoveUnheldFiles(int folder);

}  // namespace qel::layer
