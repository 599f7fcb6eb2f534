// The problem: a child has a copy of its parent's memory, but of the parent's threads only the one that forked. A lock
// that another thread held at that moment stays locked in the child for ever, and what it protects may be half done.
//
// The idea: the forking thread takes every lock of the layer before the fork, and gives them back afterwards in both
// processes. In the child each room also forgets what cannot be shared: names of objects, mutexes of the parent's
// threads, file locks.
//
// The invariant: kParts holds every lock of the layer, each behind those under which it is taken. A lock that is
// missing here can hang a child; one in the wrong place can hang the parent. No lock of a single object may be needed
// by a child, apart from closing the handles that it finds.
//
// Of the C library's locks the library needs only those that fork itself looks after (heap, streams) for its log lines
// and files. Looking up a user may take others; a process with threads therefore does that before its first fork.
#include "qelibaselib/platform/linux/modules/fork.h"

#include <pthread.h>

#include <iterator>

#include "qelibaselib/platform/linux/base/fork_count.h"
#include "qelibaselib/platform/linux/faults/fault_thread.h"
#include "qelibaselib/platform/linux/files/delete_on_close.h"
#include "qelibaselib/platform/linux/files/mapping_marks.h"
#include "qelibaselib/platform/linux/handles/handle_table.h"
#include "qelibaselib/platform/linux/memory/page_locks.h"
#include "qelibaselib/platform/linux/memory/view_table.h"
#include "qelibaselib/platform/linux/modules/module_list.h"
#include "qelibaselib/platform/linux/modules/symbol_store.h"
#include "qelibaselib/platform/linux/objects/mutex.h"
#include "qelibaselib/platform/linux/objects/object_namespace.h"
#include "qelibaselib/platform/linux/processes/process_object.h"
#include "qelibaselib/platform/linux/system/user_name.h"
#include "qelibaselib/platform/linux/threads/thread_data.h"

namespace qel::layer {
namespace {

const ForkedPart* const kParts[] = {
    &kModuleListAtFork,     // held while a module is told of a thread; the module may use everything below
    &kSymbolStoreAtFork,    // reads the files of modules
    &kChildrenAtFork,       //
    &kViewTableAtFork,      //
    &kPageLocksAtFork,      //
    &kDeleteOnCloseAtFork,  //
    &kMappingMarksAtFork,   // given up with a view
    &kNamespaceAtFork,      //
    &kHandleTableAtFork,    //
    &kThreadSlotsAtFork,    //
    &kFaultSignalsAtFork,   //
    &kReportDescriptorsAtFork,
};

void LockBeforeFork() {
  LearnUserNameBeforeFork();
  for (const ForkedPart* part : kParts) part->lock();
}

void UnlockAfterFork(bool inChild) {
  for (auto part = std::rbegin(kParts); part != std::rend(kParts); ++part) (*part)->unlock(inChild);
}

void UnlockInParent() { UnlockAfterFork(false); }

// The child goes on as a thread with a number of its own that owns nothing.
void StartChild() {
  ++g_forkCount;
  ForgetMutexes();  // first: the storages of some of them are freed with their names
  UnlockAfterFork(true);
  ForgetProcessId();
  t_thread.id = 0;
  t_thread.object = nullptr;
}

}  // namespace

void InstallForkHandlers() { pthread_atfork(LockBeforeFork, UnlockInParent, StartChild); }

}  // namespace qel::layer
