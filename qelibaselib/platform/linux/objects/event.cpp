#include "qelibaselib/platform/linux/objects/event.h"

#include "qelibaselib/platform/linux/handles/inheritance.h"
#include "qelibaselib/platform/linux/win32/synchapi.h"

namespace qel::layer {

// From signalled to not or back; false when it is not so.
bool Event::Toggle(bool signalled) {
  uint32_t value = word().load();
  while (((value & 1) != 0) == signalled)
    if (word().compare_exchange_weak(value, value + 1)) return true;
  return false;
}

Taken Event::TryTake() {
  const bool manual = state().parameter != 0;
  return (manual ? IsReady() : Toggle(true)) ? Taken::kYes : Taken::kNo;
}

void Event::Set() {
  if (Toggle(false)) Changed(word(), scope());
}

void Event::Reset() { Toggle(true); }

}  // namespace qel::layer

using namespace qel::layer;

HANDLE CreateEventW(LPSECURITY_ATTRIBUTES security, BOOL manualReset, BOOL initialState, LPCWSTR name) {
  const bool inheritable = security && security->bInheritHandle;
  const HANDLE handle = CreateStored<Event>(name, {.kind = Kind::kEvent,
                                                   .word = initialState != FALSE,
                                                   .parameter = manualReset != FALSE,
                                                   .inheritable = inheritable});
  if (handle && inheritable) AllowInheritance(handle);
  return handle;
}

HANDLE OpenEventW(DWORD, BOOL, LPCWSTR name) { return OpenStored<Event>(name, Kind::kEvent); }

BOOL SetEvent(HANDLE handle) {
  const Pin pin(handle);
  auto* event = pin.As<Event>(Kind::kEvent);
  if (event) event->Set();
  if (!event) SetLastError(ERROR_INVALID_HANDLE);
  return event != nullptr;
}

BOOL ResetEvent(HANDLE handle) {
  const Pin pin(handle);
  auto* event = pin.As<Event>(Kind::kEvent);
  if (event) event->Reset();
  if (!event) SetLastError(ERROR_INVALID_HANDLE);
  return event != nullptr;
}
