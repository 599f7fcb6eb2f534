/// @file
/// The name of the process's user.
#pragma once

namespace qel::layer {

/// Before a fork: asking for a user's name can take locks of the C library that a child would find held for ever. A
/// process with threads that has not asked yet does so now, so that the child need not.
void LearnUserNameBeforeFork();

}  // namespace qel::layer
