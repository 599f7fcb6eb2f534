/// @file
/// Watcher threads that their watchdog could not wait for.
///
/// A watchdog's destructor gives a callback that runs 30 s and then takes everything away: handles, registrations, the
/// object itself. The watcher thread is told so here, by its id, since it can look at nothing else: when its callback
/// returns at last, it ends without touching any of that.
#pragma once
#include "qelibaselib/platform/win32.h"

namespace qel::watch {

/// Tells a watcher that its watchdog is gone. For the watchdog, before it takes anything away.
void AbandonWatcher(DWORD threadId);

/// Whether the calling watcher's watchdog is gone.
bool IsAbandoned();

/// For the end of a watcher thread: its id may be given to another.
void ForgetWatcher();

}  // namespace qel::watch
