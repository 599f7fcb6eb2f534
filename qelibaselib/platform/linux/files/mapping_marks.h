/// @file
/// How a mapping holds its file.
///
/// The problem: while a mapping exists, with or without a view, nobody may empty or cut its file, in any process: the
/// views would lose their contents, and touching them would raise faults. A writable mapping moreover holds off opens
/// that do not share writing. Both must outlive the handle that the mapping was made of.
///
/// The idea: a mapping keeps a duplicate of the file's descriptor, and the open file description behind both carries
/// marks, two more of the bytes by which opens tell each other of their share modes (file_sharing.h). Whoever empties
/// or cuts takes the first of these bytes for himself alone for that moment.
///
/// The invariant: the marks stand exactly while one of the mappings and views lives that were made of this open file
/// description; so they are counted for each description. The kernel lifts them when the process ends, also after
/// SIGKILL. A forked child shares the description and lifts nothing.
#pragma once
#include <sys/types.h>

#include <memory>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/forked_part.h"
#include "qelibaselib/platform/linux/win32/windef.h"

namespace qel::layer {

/// The marks of one open file description. All its functions may be called by several threads.
class MappingMarks {
 public:
  MappingMarks();
  MappingMarks(const MappingMarks&) = delete;
  MappingMarks& operator=(const MappingMarks&) = delete;

  /// ERROR_USER_MAPPED_FILE when another has been cutting the file for too long.
  DWORD Add(int descriptor, bool forWriting);
  void Remove(int descriptor, bool forWriting);
  /// Cuts the file, unless any mapping of it exists: ERROR_USER_MAPPED_FILE.
  DWORD CutFile(int descriptor, off_t size);

 private:
  unsigned mappings_ = 0, writable_ = 0;
  const unsigned forks_;
};

/// The same for a descriptor of whose open file description no mapping can have been made yet.
DWORD CutUnmappedFile(int descriptor, off_t size);

/// Gives the marks, which are made at the first use; null without memory.
std::shared_ptr<MappingMarks> ShareMarks(std::shared_ptr<MappingMarks>* marks);

/// The descriptor that a mapping and its views share. It is closed, and the file held no longer, with the last of them.
class MappedDescriptor {
 public:
  /// Takes the descriptor over.
  explicit MappedDescriptor(Descriptor& descriptor) : descriptor_(descriptor.Detach()) {}
  MappedDescriptor(const MappedDescriptor&) = delete;
  MappedDescriptor& operator=(const MappedDescriptor&) = delete;
  ~MappedDescriptor();

  /// Holds the file from now on, with the marks of its open file description. To be called once, and not for memory
  /// that no file stands behind.
  DWORD HoldFile(std::shared_ptr<MappingMarks> marks, bool forWriting);
  int get() const { return descriptor_; }

 private:
  const int descriptor_;
  bool forWriting_ = false;
  std::shared_ptr<MappingMarks> marks_;
};

extern const ForkedPart kMappingMarksAtFork;

}  // namespace qel::layer
