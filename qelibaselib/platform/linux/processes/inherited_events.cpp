#include "qelibaselib/platform/linux/processes/inherited_events.h"

#include <charconv>
#include <cstdlib>
#include <iterator>

namespace qel::layer {
namespace {

void AppendNumber(unsigned long number, int base, std::string* text) {
  char digits[16];
  text->append(digits, std::to_chars(digits, std::end(digits), number, base).ptr);
}

}  // namespace

InheritedEvents ListInheritedEvents() {
  InheritedEvents result;
  VisitHandles([&](HANDLE handle, Object* object) {
    if (object->kind() != Kind::kEvent) return;
    auto* event = static_cast<EventObject*>(object);
    if (!event->storage().IsInheritable()) return;
    const int descriptor = event->storage().descriptor();
    if (!result.value.empty()) result.value += ';';
    AppendNumber(static_cast<DWORD>(reinterpret_cast<uintptr_t>(handle)), 16, &result.value);
    result.value += ':';
    AppendNumber(static_cast<unsigned>(descriptor), 10, &result.value);
    result.descriptors.push_back(descriptor);
    result.objects.push_back(Reference<EventObject>::Share(event));
  });
  return result;
}

void AdoptInheritedEvents() {
  const char* text = secure_getenv(kInheritedEventsVariable);
  while (text && *text) {
    char* end;
    const unsigned long handle = std::strtoul(text, &end, 16);
    if (*end != ':') return;
    const long descriptor = std::strtol(end + 1, &end, 10);
    if (Storage* storage = AdoptInherited(static_cast<int>(descriptor), Kind::kEvent))
      InsertHandleAt(reinterpret_cast<HANDLE>(handle), new EventObject(StorageReference(storage)));
    text = *end == ';' ? end + 1 : nullptr;
  }
}

}  // namespace qel::layer
