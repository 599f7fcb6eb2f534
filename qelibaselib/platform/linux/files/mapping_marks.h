/// @file
/// How a mapping holds its file.
///
/// The problem: while a mapping exists, with or without a view, nobody may empty or cut its file, in any process: the
/// views would lose their contents, and touching them would raise faults. A writable mapping moreover holds off opens
/// that do not share writing. Both must outlive the handle that the mapping was made of.
///
/// The idea: a mapping shares the descriptor of the file object, which hands it over when it ends first, and the open
/// file description carries marks, two more of the bytes by which opens tell each other of their share modes
/// (file_sharing.h). Whoever empties or cuts takes the first of these bytes for himself alone for that moment.
///
/// The invariant: the marks stand exactly while one of the mappings and views lives that were made of this open file
/// description; so they are counted for each description. The kernel lifts them when the process ends, also after
/// SIGKILL. A forked child shares the description and lifts nothing.
#pragma once
#include <sys/types.h>

#include <memory>
#include <utility>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/forked_part.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

/// The marks of one open file description, which a file object and the mappings of it share. All functions but
/// TakeOver may be called by several threads.
class MappingMarks {
 public:
  /// `descriptor` stays open as long as this lives.
  explicit MappingMarks(int descriptor);
  MappingMarks(const MappingMarks&) = delete;
  MappingMarks& operator=(const MappingMarks&) = delete;
  ~MappingMarks();

  int descriptor() const { return descriptor_; }
  /// Has this close the descriptor at its end. For its owner so far, who still shares the marks.
  void TakeOver(int descriptor) { owned_ = descriptor; }

  /// ERROR_USER_MAPPED_FILE when another has been cutting the file for too long.
  DWORD Add(bool forWriting);
  void Remove(bool forWriting);
  /// Cuts the file, unless any mapping of it exists: ERROR_USER_MAPPED_FILE.
  DWORD CutFile(off_t size);

 private:
  const int descriptor_;
  int owned_ = -1;
  unsigned mappings_ = 0, writable_ = 0;
  const unsigned forks_;
};

/// The same for a descriptor of whose open file description no mapping can have been made yet.
DWORD CutUnmappedFile(int descriptor, off_t size);

/// Gives the marks, which are made at the first use; null without memory.
std::shared_ptr<MappingMarks> ShareMarks(std::shared_ptr<MappingMarks>* marks, int descriptor);

/// The descriptor that a mapping and its views share. The last of them lets it go, and holds the file no longer.
class MappedDescriptor {
 public:
  /// Of memory that no file stands behind. Takes the descriptor over.
  explicit MappedDescriptor(Descriptor& memory) : descriptor_(memory.Detach()) {}
  /// Of a file.
  explicit MappedDescriptor(std::shared_ptr<MappingMarks> marks)
      : descriptor_(marks->descriptor()), marks_(std::move(marks)) {}
  MappedDescriptor(const MappedDescriptor&) = delete;
  MappedDescriptor& operator=(const MappedDescriptor&) = delete;
  ~MappedDescriptor();

  /// Holds the file from now on. To be called once, and not for memory.
  DWORD HoldFile(bool forWriting);
  int get() const { return descriptor_; }

 private:
  const int descriptor_;
  bool holdsFile_ = false, forWriting_ = false;
  const std::shared_ptr<MappingMarks> marks_;  // null for memory
};

extern const ForkedPart kMappingMarksAtFork;

}  // namespace qel::layer
