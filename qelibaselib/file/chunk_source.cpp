#include "qelibaselib/file/chunk_source.h"

#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/file/mapping_calls.h"
#include "qelibaselib/file/retrying_calls.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/memory/checked_memory.h"
#include "qelibaselib/memory/guarded_allocation.h"

namespace qel {
namespace {

constexpr DWORD kOpenTimeoutMs = 10000;
constexpr DWORD kOpenIntervalMs = 1000;
constexpr DWORD kAllocationTimeoutMs = 10000;

ScopedFile Open(SourcePosition caller, const wchar_t* path, DWORD access, DWORD disposition) {
  return ScopedFile(CreateFileX(caller.line, caller.sourceFile, path, access, FILE_SHARE_READ, nullptr, disposition,
                                FILE_ATTRIBUTE_NORMAL, nullptr, kOpenTimeoutMs, kOpenIntervalMs));
}

// Writes the assertion line of the step that stands there when it failed.
bool Check(bool succeeded, SourcePosition step) {
  if (!succeeded) WriteAssertion(step);
  return succeeded;
}

}  // namespace

ChunkSource::~ChunkSource() {
  if (!buffer_) return;
  PreserveLastError keep;
  _MemFree(caller_.sourceFile, caller_.line, buffer_);
}

bool ChunkSource::OpenObject(const wchar_t* name) {
  mapping_ = ScopedMapping(OpenFileMappingX(caller_.line, caller_.sourceFile, FILE_MAP_READ, FALSE, name));
  return Check(static_cast<bool>(mapping_), QEL_HERE);
}

bool ChunkSource::OpenFile(const wchar_t* path) {
  file_ = Open(caller_, path, GENERIC_READ, OPEN_EXISTING);
  if (!Check(static_cast<bool>(file_), QEL_HERE)) return false;
  LARGE_INTEGER size;
  if (!Check(GetFileSizeEx(file_.Get(), &size), QEL_HERE)) return false;
  fileSize_ = static_cast<unsigned long long>(size.QuadPart);
  return true;
}

bool ChunkSource::MapFile() {
  mapping_ = MapWholeFile(caller_, file_.Get(), PAGE_READONLY, fileSize_);
  return static_cast<bool>(mapping_);
}

bool ChunkSource::AllocateBuffer() {
  buffer_ = _MemAlloc(caller_.sourceFile, caller_.line, ChunkBytes(), kAllocationTimeoutMs);
  return Check(buffer_ != nullptr, QEL_HERE);
}

bool ChunkSource::Get(Chunk chunk, const void*& bytes) {
  if (usesMemory_) {
    bytes = memory_ + chunk.offset;
    return true;
  }
  const bool mapped = static_cast<bool>(mapping_);
  if (!(mapped ? View(chunk) : Read(chunk))) return false;
  bytes = mapped ? view_->Get() : buffer_;
  return true;
}

bool ChunkSource::View(Chunk chunk) {
  view_.emplace(caller_, mapping_.Get(), FILE_MAP_READ, chunk.offset, chunk.bytes);
  return Check(static_cast<bool>(*view_), QEL_HERE);
}

bool ChunkSource::Read(Chunk chunk) {
  DWORD bytesRead = 0;
  return Check(ReadFile(file_.Get(), buffer_, chunk.bytes, &bytesRead, nullptr) && bytesRead == chunk.bytes, QEL_HERE);
}

void ChunkSource::Finish(int shortageThreshold) {
  if (view_) view_->Finish(shortageThreshold);
  view_.reset();
}

ScopedMapping MapWholeFile(SourcePosition caller, HANDLE file, DWORD protect, unsigned long long size) {
  ScopedMapping mapping(
      CreateFileMappingX(caller.line, caller.sourceFile, file, nullptr, protect, Low(size), High(size), nullptr));
  Check(static_cast<bool>(mapping), QEL_HERE);
  return mapping;
}

ScopedFile CreateTarget(SourcePosition caller, const wchar_t* path, DWORD disposition) {
  ScopedFile file = Open(caller, path, GENERIC_READ | GENERIC_WRITE, disposition);
  Check(static_cast<bool>(file), QEL_HERE);
  return file;
}

bool CopyChunks(SourcePosition caller, ChunkSource& source, HANDLE target, unsigned long long size,
                int shortageThreshold) {
  for (const Chunk chunk : Chunks(size)) {
    const void* bytes;
    if (!source.Get(chunk, bytes)) return false;
    ScopedView view(caller, target, FILE_MAP_ALL_ACCESS, chunk.offset, chunk.bytes);
    if (!Check(static_cast<bool>(view), QEL_HERE)) return false;
    _MemCpy(view.Get(), bytes, chunk.bytes, caller.line, caller.sourceFile);
    source.Finish(shortageThreshold);
    view.Finish(shortageThreshold);
  }
  return true;
}

}  // namespace qel
