#include "qelibaselib/platform/linux/modules/module_list.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <utility>

#include "qelibaselib/platform/linux/base/never_destroyed.h"
#include "qelibaselib/platform/linux/win32/processthreadsapi.h"

namespace qel::layer {
namespace {

struct RegisteredModule {
  HINSTANCE instance;
  QelModuleEntry entry;
};
constexpr size_t kMostModules = 16;
constinit RegisteredModule g_modules[kMostModules] = {};
constinit size_t g_moduleCount = 0;

// Held while an entry runs, so that a module is not unloaded under a call of it. Recursive: an entry may load another.
std::recursive_mutex& Gate() {
  static NeverDestroyed<std::recursive_mutex> gate;
  return *gate;
}

}  // namespace

void NotifyModules(DWORD reason) {
  const std::lock_guard lock(Gate());
  if (reason == DLL_THREAD_ATTACH) {
    for (size_t i = 0; i < g_moduleCount; ++i) g_modules[i].entry(g_modules[i].instance, reason, nullptr);
  } else {
    for (size_t i = g_moduleCount; i-- > 0;) g_modules[i].entry(g_modules[i].instance, reason, nullptr);
  }
}

const ForkedPart kModuleListAtFork = {[] { Gate().lock(); },
                                      [](bool inChild) {
                                        if (inChild)
                                          new (&Gate()) std::recursive_mutex;  // which knows its owner by another id
                                        else
                                          Gate().unlock();
                                      }};

}  // namespace qel::layer

using namespace qel::layer;

BOOL QelRegisterModule(HINSTANCE instance, QelModuleEntry entry) {
  const std::lock_guard lock(Gate());
  if (g_moduleCount == kMostModules || !entry(instance, DLL_PROCESS_ATTACH, nullptr)) return FALSE;
  g_modules[g_moduleCount++] = {instance, entry};
  return TRUE;
}

void QelUnregisterModule(QelModuleEntry entry) {
  const std::lock_guard lock(Gate());
  RegisteredModule* end = g_modules + g_moduleCount;
  RegisteredModule* module =
      std::find_if(g_modules, end, [entry](const RegisteredModule& m) { return m.entry == entry; });
  if (module == end) return;
  const HINSTANCE instance = module->instance;
  std::move(module + 1, end, module);
  --g_moduleCount;
  entry(instance, DLL_PROCESS_DETACH, nullptr);
}
