// What the loader does for a DLL on Windows: calls DllMain of the library that this file is linked into.
#include "qelibaselib/platform/win32.h"

extern "C" {
extern char __ehdr_start[];
BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved);
}

namespace {
__attribute__((constructor)) void Attach() { QelRegisterModule(reinterpret_cast<HINSTANCE>(__ehdr_start), &DllMain); }
__attribute__((destructor)) void Detach() { QelUnregisterModule(&DllMain); }
}  // namespace
