/// @file
/// Whether the system still starts threads.
#pragma once

namespace qel {

/// Starts two threads that end at once, and tells whether both could be had at the same time. The OpenMP run-time ends
/// the process when it cannot start one of its own, so the benchmark asks before each thread that a region has more
/// than the one before: one for the region, one to spare. Room for one more stack is kept free meanwhile, since the two
/// may still have theirs when OpenMP starts its own.
bool CanStartThreads();

}  // namespace qel
