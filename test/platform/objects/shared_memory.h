// Where named objects live, as far as a test may see it.
#pragma once
#include <string>
#include <vector>

namespace qel::test {

// Gives this process and its children shared memory of their own, where that can be done and there is any.
bool UsePrivateSharedMemory(const std::string& mountOptions = "size=4m");

// Files and folders that named objects have left there: "folder" and "folder/file". Only what is the system's matter
// is nothing.
std::vector<std::string> ListSharedMemory();

}  // namespace qel::test
