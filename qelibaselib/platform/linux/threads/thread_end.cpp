#include <cxxabi.h>
#include <dlfcn.h>
#include <pthread.h>

#include <cstdlib>
#include <utility>

#include "qelibaselib/platform/linux/modules/module_list.h"
#include "qelibaselib/platform/linux/objects/mutex.h"
#include "qelibaselib/platform/linux/threads/thread_data.h"
#include "qelibaselib/platform/linux/threads/thread_object.h"

extern "C" void* __dso_handle;

namespace qel::layer {

thread_local constinit ThreadData t_thread = {};
thread_local constinit ThreadSlot t_directSlots[kDirectSlots] = {};

namespace {

constexpr int kDetachRounds = 4;  // a detach may fill a slot again

// In this order: the modules may still log and lock while they detach; who waits for the thread finds all of it done.
void EndThread(void*) {
  ThreadData& thread = t_thread;
  for (int round = 0; round < kDetachRounds && std::exchange(thread.attached, false); ++round)
    NotifyModules(DLL_THREAD_DETACH);
  FreeThreadSlots();
  FreeSnapshot();
  FreeThreadLocale();
  AbandonMutexes();
  if (ThreadObject* object = std::exchange(thread.object, nullptr)) {
    object->SignalEnd();
    object->Release();
  }
  // A destructor of the host's that runs after this one and calls the library arms the thread's end once more.
  thread.endArmed = false;
  thread.attached = false;
  ReleaseModule(std::exchange(thread.module, nullptr));
}

// For a thread that is armed while there is no memory: the C library would end the process. The first keys of a process
// need none.
pthread_key_t g_endKey;
const bool g_haveEndKey = pthread_key_create(&g_endKey, &EndThread) == 0;

bool HeapIsUsedUp() {
  // Too large for the thread's own cache, which calloc, with which the C library makes its entry, passes over.
  constexpr size_t kProbeBytes = 4096;
  void* volatile memory = std::calloc(1, kProbeBytes);
  std::free(memory);
  return !memory;
}

}  // namespace

void ArmThreadEndSlowly() {
  t_thread.endArmed = true;
  if (HeapIsUsedUp()) {
    t_thread.endArmed = g_haveEndKey && pthread_setspecific(g_endKey, &t_thread) == 0;
    return;
  }
  // Runs among the destructors of the thread's objects, at the end of the main thread too, as a key's does not.
  __cxxabiv1::__cxa_thread_atexit(&EndThread, nullptr, &__dso_handle);
}

void ReleaseModule(void* module) {
  if (module) dlclose(module);
}

}  // namespace qel::layer
