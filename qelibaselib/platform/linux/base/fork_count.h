/// @file
/// How a process knows what it inherited from its parent by fork.
#pragma once

namespace qel::layer {

/// The forks between the first process of the family and this one; modules/fork.cpp counts. Whoever holds something
/// that a child shares and must not give up for its parent (a lock of an open file, a name to delete) remembers the
/// count, and gives it up only while the count is still the same.
inline constinit unsigned g_forkCount = 0;

}  // namespace qel::layer
