// What happens when the layer is loaded and unloaded, and in a forked child.
#include <pthread.h>

#include "platform/linux/handle_table.h"
#include "platform/linux/inheritance.h"
#include "platform/linux/module_list.h"
#include "platform/linux/mutex.h"
#include "platform/linux/object_namespace.h"
#include "platform/linux/process_object.h"
#include "platform/linux/thread_data.h"

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
