// What happens when the layer is loaded and unloaded.
#include "qelibaselib/platform/linux/base/file_size_limit.h"
#include "qelibaselib/platform/linux/faults/fault_thread.h"
#include "qelibaselib/platform/linux/files/delete_on_close.h"
#include "qelibaselib/platform/linux/files/sharing_board.h"
#include "qelibaselib/platform/linux/modules/fork.h"
#include "qelibaselib/platform/linux/objects/object_namespace.h"
#include "qelibaselib/platform/linux/processes/inherited_events.h"

namespace qel::layer {
namespace {

__attribute__((constructor)) void Load() {
  GuardFileSizeLimit([] { return t_faultThread.innermost != nullptr; });
  InstallForkHandlers();
  AdoptInheritedEvents();
}

__attribute__((destructor)) void Unload() {
  DeleteOpenFiles();
  LeaveSharingBoard();
  LeaveNamespace();
}

}  // namespace
}  // namespace qel::layer
