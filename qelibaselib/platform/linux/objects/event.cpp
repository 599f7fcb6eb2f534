#include "qelibaselib/platform/linux/objects/event.h"

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/win32/synchapi.h"

namespace qel::layer {

// From signalled to not or back; false when it is not so.
bool EventObject::ChangeFrom(bool signalled) {
  uint32_t value = word().load();
  while (((value & 1) != 0) == signalled)
    if (word().compare_exchange_weak(value, value + 1)) return true;
  return false;
}

Taken EventObject::TryTake() {
  const bool manual = state().parameter != 0;
  return (manual ? IsReady() : ChangeFrom(true)) ? Taken::kYes : Taken::kNo;
}

void EventObject::Set() {
  if (ChangeFrom(false)) WakeWaitsFor(word(), scope());
}

void EventObject::Reset() { ChangeFrom(true); }

}  // namespace qel::layer

using namespace qel::layer;

HANDLE CreateEventW(LPSECURITY_ATTRIBUTES security, BOOL manualReset, BOOL initialState, LPCWSTR name) {
  return CreateStored<EventObject>(name, {.kind = Kind::kEvent,
                                          .word = initialState != FALSE,
                                          .parameter = manualReset != FALSE,
                                          .inheritable = security && security->bInheritHandle});
}

HANDLE OpenEventW(DWORD, BOOL, LPCWSTR name) { return OpenStored<EventObject>(name, Kind::kEvent); }

namespace {

// Does something to the event behind a handle.
template <class Change>
BOOL ChangeEvent(HANDLE handle, Change change) {
  const Pin pin(handle);
  auto* event = pin.As<EventObject>(Kind::kEvent);
  if (event) change(*event);
  return ReportResult(event ? ERROR_SUCCESS : ERROR_INVALID_HANDLE);
}

}  // namespace

BOOL SetEvent(HANDLE handle) {
  return ChangeEvent(handle, [](EventObject& event) { event.Set(); });
}

BOOL ResetEvent(HANDLE handle) {
  return ChangeEvent(handle, [](EventObject& event) { event.Reset(); });
}
