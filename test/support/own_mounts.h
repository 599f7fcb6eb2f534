// Mounts that only this process and its children see, where the user may have such.
#pragma once
#include <cstddef>
#include <string>

namespace qel::test {

bool EnterOwnMountSpace();
// Gives this process and its children shared memory of their own, where named objects live.
bool UsePrivateSharedMemory(const std::string& mountOptions = "size=4m");
// How many files and folders named objects have there.
size_t CountSharedMemory();

}  // namespace qel::test
