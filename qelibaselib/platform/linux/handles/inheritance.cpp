#include "qelibaselib/platform/linux/handles/inheritance.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace qel::layer {
namespace {

constinit std::mutex g_gate;
std::vector<HANDLE>* g_inheritable = nullptr;  // made under the gate, and outlives every static destructor
std::vector<HANDLE>& Inheritable() {
  if (!g_inheritable) g_inheritable = new std::vector<HANDLE>;
  return *g_inheritable;
}

bool IsClosed(HANDLE handle) { return !Pin(handle).get(); }

}  // namespace

const ForkedPart kInheritanceAtFork = {[] { g_gate.lock(); }, [](bool) { g_gate.unlock(); }};

void AllowInheritance(HANDLE event) {
  const std::lock_guard lock(g_gate);
  std::erase_if(Inheritable(), IsClosed);
  Inheritable().push_back(event);
}

InheritedEvents ListInheritance() {
  InheritedEvents result;
  const std::lock_guard lock(g_gate);
  for (const HANDLE handle : Inheritable()) {
    const Pin pin(handle);
    auto* event = pin.As<Event>(Kind::kEvent);
    const int descriptor = event ? event->storage().descriptor() : -1;
    if (descriptor < 0) continue;
    char text[32];
    std::snprintf(text, sizeof text, "%s%lx:%d", result.value.empty() ? "" : ";",
                  static_cast<DWORD>(reinterpret_cast<uintptr_t>(handle)), descriptor);
    result.value += text;
    result.descriptors.push_back(descriptor);
    result.objects.push_back(Reference<Event>::Share(event));
  }
  return result;
}

void AdoptInheritance() {
  const char* text = std::getenv(kInheritedEventsVariable);
  while (text && *text) {
    char* end;
    const unsigned long handle = std::strtoul(text, &end, 16);
    if (*end != ':') return;
    const long descriptor = std::strtol(end + 1, &end, 10);
    if (Storage* storage = AdoptInherited(static_cast<int>(descriptor), Kind::kEvent))
      InsertHandleAt(reinterpret_cast<HANDLE>(handle), new Event(StorageReference(storage)));
    text = *end == ';' ? end + 1 : nullptr;
  }
}

}  // namespace qel::layer
