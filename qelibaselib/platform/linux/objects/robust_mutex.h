/// @file
/// The C library's robust mutexes between processes, as named mutexes and the gates of objects need them.
#pragma once
#include <pthread.h>

#include <cstdint>

namespace qel::layer {

/// Makes a mutex in memory that no thread has locked; `owned` by the calling thread at once.
void InitialiseMutex(pthread_mutex_t& mutex, bool owned);

/// For one that a try did not get: tries for a moment more, then sleeps. Returns what pthread_mutex_clocklock does.
int LockUntil(pthread_mutex_t& mutex, int64_t deadlineNs);

/// Whether a living thread has it locked.
bool IsLockedByAnyone(pthread_mutex_t& mutex);

}  // namespace qel::layer
