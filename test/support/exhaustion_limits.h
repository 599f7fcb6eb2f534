// The limits that make a resource scarce enough to be used up, where the system has such.
#pragma once

namespace qel::test {

extern const char* const kAnyFile;  // can be opened as often as one likes
void LimitAddressSpace();           // to what the process has now
void LimitFiles();
void LiftLimits();

}  // namespace qel::test
