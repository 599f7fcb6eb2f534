/// @file
/// Chunked transfers into a mapping, whatever the bytes come from.
#pragma once
#include <optional>

#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/file/chunked_view.h"

namespace qel {

/// Where a transfer takes its bytes from: memory, a named object, or a file, through views or read into a buffer of one
/// chunk. A step that fails writes an assertion line and leaves its last error.
class ChunkSource {
 public:
  /// `caller` is what the wrappers log.
  explicit ChunkSource(SourcePosition caller) : caller_(caller) {}
  ChunkSource(const ChunkSource&) = delete;
  ChunkSource& operator=(const ChunkSource&) = delete;
  ~ChunkSource();

  void UseMemory(const void* bytes) {
    memory_ = static_cast<const BYTE*>(bytes);
    usesMemory_ = true;
  }
  bool OpenObject(const wchar_t* name);
  /// Opens a file, which others may read, within 10 s.
  bool OpenFile(const wchar_t* path);
  /// Of the open file.
  unsigned long long FileSize() const { return fileSize_; }
  /// Maps the open file whole, or allocates the buffer.
  bool PrepareFile(bool map) { return map ? MapFile() : AllocateBuffer(); }

  /// The bytes of a chunk, until Finish. Chunks are asked for in order. False when they could not be had.
  bool Get(Chunk chunk, const void*& bytes);
  /// Gives the chunk back, a view flushed first when memory is short.
  void Finish(int shortageThreshold);

 private:
  bool MapFile();
  bool AllocateBuffer();
  bool View(Chunk chunk);
  bool Read(Chunk chunk);

  const SourcePosition caller_;
  bool usesMemory_ = false;
  const BYTE* memory_ = nullptr;  // the caller's, not looked at here
  ScopedFile file_;
  unsigned long long fileSize_ = 0;
  ScopedMapping mapping_;
  std::optional<ScopedView> view_;
  void* buffer_ = nullptr;
};

/// The mapping of all of a file that gets `size` bytes. Null with an assertion line.
ScopedMapping MapWholeFile(SourcePosition caller, HANDLE file, DWORD protect, unsigned long long size);

/// Makes or replaces a file that is going to be written (CREATE_NEW: only makes one), within 10 s. None with an
/// assertion line.
ScopedFile CreateTarget(SourcePosition caller, const wchar_t* path, DWORD disposition);

/// Copies `size` bytes from the start of `source` to that of the mapping `target`. False, with an assertion line and
/// the last error of the step, as soon as a view or chunk cannot be had.
bool CopyChunks(SourcePosition caller, ChunkSource& source, HANDLE target, unsigned long long size,
                int shortageThreshold);

}  // namespace qel
