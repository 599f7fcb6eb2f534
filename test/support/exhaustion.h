// Takes everything that a process can have of a resource, so that whoever asks next gets nothing.
#pragma once

namespace qel::test {

// The address space alone (the heap keeps what it has), that and the heap down to its last small block, or all files
// that can be open at once.
enum class Resource { kAddressSpace, kMemory, kFiles };

void TakeAll(Resource resource);
void GiveBack();

}  // namespace qel::test
