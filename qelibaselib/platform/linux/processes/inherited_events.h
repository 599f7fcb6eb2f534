/// @file
/// Handles that a process which is started by this one has, too. Of all objects only unnamed events can be inherited: a
/// debugger is handed one to signal when it is attached.
///
/// The event's memory is behind a descriptor that the child gets under the same number. The variable
/// QEL_INHERITED_EVENTS tells it which handle that is: "<handle>:<descriptor>" in hexadecimal and decimal, with ";"
/// between them. The layer in the child gives the event the same handle when it is loaded; a shell in between, which
/// passes variable and descriptor on, does no harm.
#pragma once
#include <string>
#include <vector>

#include "qelibaselib/platform/linux/objects/event.h"

namespace qel::layer {

inline constexpr char kInheritedEventsVariable[] = "QEL_INHERITED_EVENTS";

struct InheritedEvents {
  std::string value;                            ///< of the variable; empty when there are none
  std::vector<int> descriptors;                 ///< to be left open in the child
  std::vector<Reference<EventObject>> objects;  ///< keeps the descriptors valid
};
/// The events that a process started now inherits.
InheritedEvents ListInheritedEvents();

/// In the child, before any handle is given out.
void AdoptInheritedEvents();

}  // namespace qel::layer
