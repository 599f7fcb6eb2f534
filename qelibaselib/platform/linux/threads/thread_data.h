/// @file
/// What the layer keeps for each thread.
///
/// The room threads/ holds threads as objects, thread-local slots, and what happens when a thread ends: the modules are
/// told, then its mutexes are given up, then it counts as ended. It may use base/, handles/, objects/, and the list of
/// modules that are told.
///
/// A thread that the host started is known from its first use of the layer on. Its end is seen by a destructor of the C
/// library's for thread-local objects, which is registered when the thread first has something to give up.
#pragma once
#include "qelibaselib/platform/linux/base/forked_part.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

class Storage;
class ThreadObject;

struct ThreadSlot {
  LPVOID value;
  uint32_t generation;  ///< of the slot when the value was set; the value is void when the slot was freed since
};
inline constexpr DWORD kDirectSlots = 64;
inline constexpr DWORD kFurtherSlots = 1024;

struct ThreadData {
  DWORD id;                  ///< 0 until it is asked for
  bool endArmed;             ///< EndThread will run
  bool attached;             ///< the modules are owed a detach
  ThreadObject* object;      ///< a reference of the thread's own; null until it is asked for
  Storage* owned;            ///< mutexes that the thread owns
  ThreadSlot* furtherSlots;  ///< made when the first of them is set
  void* module;              ///< keeps the code of a thread of CreateThread loaded, see thread.cpp
};
// In every thread's fixed block: each wait and release looks here, and a few words fit even when loaded late.
extern thread_local constinit ThreadData t_thread;
extern thread_local constinit ThreadSlot t_directSlots[kDirectSlots];

/// Sees to it that the thread's end gives up what it holds. Whoever puts something into t_thread calls it.
void ArmThreadEndSlowly();
inline void ArmThreadEnd() {
  if (!t_thread.endArmed) ArmThreadEndSlowly();
}

extern const ForkedPart kThreadSlotsAtFork;

/// Lets go of the module that a thread holds; null does nothing.
void ReleaseModule(void* module);

/// Frees the thread's slot values; what they point to is the modules' matter.
void FreeThreadSlots();
/// Free what the thread has of these, for its end. None of it is an object with a destructor: its registration takes
/// memory, and the C library ends the process when there is none.
void FreeSnapshot();
void FreeThreadLocale();

}  // namespace qel::layer
