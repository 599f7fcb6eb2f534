// What happens when the layer is loaded and unloaded, and in a forked child.
#include <pthread.h>

#include "qelibaselib/platform/linux/handles/handle_table.h"
#include "qelibaselib/platform/linux/handles/inheritance.h"
#include "qelibaselib/platform/linux/modules/module_list.h"
#include "qelibaselib/platform/linux/objects/mutex.h"
#include "qelibaselib/platform/linux/objects/object_namespace.h"
#include "qelibaselib/platform/linux/processes/process_object.h"
#include "qelibaselib/platform/linux/threads/thread_data.h"

namespace qel::layer {
namespace {

void BeforeFork() {
  LockModulesForFork();
  LockNamespaceForFork();
  LockHandlesForFork();
}

void AfterFork(bool inChild) {
  UnlockHandlesAfterFork();
  UnlockNamespaceAfterFork(inChild);
  UnlockModulesAfterFork(inChild);
}

void InParent() { AfterFork(false); }

// The child goes on as a thread of another name that owns nothing. Handles that it inherited this way are not
// supported, beyond being closed.
void InChild() {
  AfterFork(true);
  t_thread.id = 0;
  ForgetProcessId();
  ForgetMutexes();
  t_thread.object = nullptr;
}

__attribute__((constructor)) void Load() {
  pthread_atfork(BeforeFork, InParent, InChild);
  AdoptInheritance();
}

__attribute__((destructor)) void Unload() { LeaveNamespace(); }

}  // namespace
}  // namespace qel::layer
