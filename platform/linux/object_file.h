/// @file
/// Locks on the file of a named object: they alone say whether it lives.
#pragma once
#include <cstdint>

namespace qel::layer {

enum class FileHolder { kNone, kMaker, kUser };

/// Becomes the maker (or remover) of the object; false when anyone holds it.
bool TryHoldExclusive(int file);
/// Becomes a user of the object, from maker or from nothing. False while a maker is at work.
bool TryHoldShared(int file);
void DropHold(int file);
/// Who keeps this descriptor from becoming the maker. A maker is no proof of life: it may be killed before it is done.
FileHolder HolderOf(int file);

/// Takes the name from the file if it is still this file's.
void UnlinkFile(int folder, int file, const char* fileName);
/// Whether it is an ordinary file of this user that nobody else may open.
bool IsOwnFile(int file, unsigned user);
/// Gives up the hold; the last user removes the file.
void LeaveFile(int folder, int file, const char* fileName);
/// Removes every file of the folder that nobody holds.
void RemoveUnheldFiles(int folder);

}  // namespace qel::layer
