/// @file
/// What every process that has an object sees of it.
#pragma once
#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "qelibaselib/platform/linux/base/page_size.h"
#include "qelibaselib/platform/linux/handles/handle_table.h"
#include "qelibaselib/platform/linux/objects/futex.h"
#include "qelibaselib/platform/linux/objects/object_users.h"

namespace qel::layer {

/// Where a section's data begins in its file.
inline constexpr uint64_t kSectionDataOffset = kPageSize;

/// The state of an object of any kind; a kind leaves alone what it does not need.
struct ObjectState {
  std::atomic<uint32_t> mark;  ///< written last by the maker of the file; names the layout
  Kind kind;
  Word word;                                        ///< event: bit 0 and changes; semaphore: count; timer: changes
  uint32_t parameter;                               ///< event, timer: manual reset; semaphore: greatest count
  std::atomic<uint32_t> orphaned;                   ///< mutex given up by the end of its thread
  alignas(8) std::atomic<int64_t> dueNs, periodNs;  ///< timer
  uint64_t sectionSize;                             ///< section: bytes of data
  pthread_mutex_t mutex;
};

/// The first page of the file of a name.
struct SharedPage {
  ObjectState state;
  ObjectUsers users;
};
inline constexpr size_t kSharedPageBytes = kSectionDataOffset;
static_assert(sizeof(SharedPage) <= kSharedPageBytes);

/// What is wanted, and what a new object starts with; one that exists already stays as it is.
struct StorageRequest {
  Kind kind;
  uint32_t word = 0;
  uint32_t parameter = 0;
  bool owned = false;        ///< mutex: the calling thread has it before anyone else can
  bool inheritable = false;  ///< unnamed: in memory that a child can be given
  uint64_t sectionSize = 0;  ///< section: bytes of data, all reserved at once
};

void InitialiseState(ObjectState& state, const StorageRequest& request);
/// Whether it is of this layout and complete.
bool IsValid(const ObjectState& state);
void MarkValid(ObjectState& state);

/// Reserves memory for the whole file at once: a page that is missing later would be a fault in the middle of a call.
/// Never raises SIGXFSZ.
DWORD ReserveStateAndSection(int file, uint64_t sectionSize);
/// Null without address space.
ObjectState* MapState(int file);
void UnmapState(ObjectState* state);

}  // namespace qel::layer
