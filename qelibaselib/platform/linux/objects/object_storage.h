/// @file
/// The memory behind an object: of this process alone, of a descriptor that a child can be given, or of the file of a
/// name.
#pragma once
#include "qelibaselib/platform/linux/objects/object_namespace.h"
#include "qelibaselib/platform/linux/objects/object_users.h"

namespace qel::layer {

/// The first page of the file of a name.
struct SharedPage {
  ObjectState state;
  ObjectUsers users;
};

inline constexpr size_t kStateBytes = kSectionDataOffset;
static_assert(sizeof(SharedPage) <= kStateBytes);

void InitialiseState(ObjectState& state, const StorageRequest& request);
/// Whether it is of this layout and complete.
bool IsValid(const ObjectState& state);
void MarkValid(ObjectState& state);

/// Reserves memory for the whole file at once: a page that is missing later would be a fault in the middle of a call.
DWORD Reserve(int file, uint64_t sectionSize);
/// Null without address space.
ObjectState* MapState(int file);

}  // namespace qel::layer
