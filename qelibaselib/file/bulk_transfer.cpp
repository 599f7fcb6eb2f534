#include "qelibaselib/file/bulk_transfer.h"

#include "qelibaselib/base/saved_error.h"
#include "qelibaselib/file/chunk_source.h"
#include "qelibaselib/file/clean_path.h"
#include "qelibaselib/file/mapping_calls.h"
#include "qelibaselib/file/plain_calls.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/platform/fault/may_fault.h"

namespace qel {
namespace {

constexpr long long kEndOfFile = -1;

// The arguments of WriteFileMMF2, and its steps.
struct PositionedWrite {
  SourcePosition caller;
  HANDLE file;
  const void* buffer;
  unsigned long long size;
  unsigned long long* bytesWritten;
  void* reserved;
  long long offset;
  int shortageThreshold;

  unsigned long long End() const { return offset + size; }

  bool Run() {
    *bytesWritten = 0;
    if (offset == kEndOfFile) {
      LARGE_INTEGER fileSize;
      if (!GetFileSizeEx(file, &fileSize)) return Fail(QEL_HERE);
      offset = fileSize.QuadPart;
    }
    ScopedMapping mapping(CreateFileMappingX(caller.line, caller.sourceFile, file, nullptr, PAGE_READWRITE, Low(End()),
                                             High(End()), nullptr));
    if (!mapping) return Fail(QEL_HERE);
    const DWORD granularity = AllocationGranularity();
    for (const Chunk chunk : Chunks(size)) {
      if (!WriteChunk(mapping.Get(), chunk, granularity)) return Fail(QEL_HERE);
    }
    mapping.Close();
    LARGE_INTEGER end;
    end.QuadPart = static_cast<LONGLONG>(End());
    return SetFilePointerEx(file, end, nullptr, FILE_BEGIN) || Fail(QEL_HERE);
  }

  bool WriteChunk(HANDLE mapping, Chunk chunk, DWORD granularity) {
    const unsigned long long position = offset + chunk.offset;
    const DWORD delta = static_cast<DWORD>(position % granularity);
    ScopedView view(caller, mapping, FILE_MAP_ALL_ACCESS, position - delta, delta + chunk.bytes);
    if (!view) return false;
    BYTE* target = view.Get() + delta;
    // The C library's copy cannot be unwound from everywhere; a Run of its own lets a fault start here, with the view
    // and the mapping given back.
    fault::Run([&] { may_fault::CopyBytes(target, static_cast<const BYTE*>(buffer) + chunk.offset, chunk.bytes); });
    view.Finish(shortageThreshold, target, file);
    *bytesWritten += chunk.bytes;
    return true;
  }

  bool Fail(SourcePosition step) const {
    WriteLineF(channel::kFileOperation, caller, "lastErr=%lu, %s(0x%lx, 0x%p, %I64d, 0x%p, 0x%p, %I64d, %lu)",
               GetLastError(), "WriteFileMMF2", reinterpret_cast<ULONG_PTR>(file), buffer, size, bytesWritten, reserved,
               offset, static_cast<DWORD>(shortageThreshold));
    WriteAssertion(step);
    return false;
  }
};

bool WriteNewFile(SourcePosition caller, const void* buffer, DWORD size, const wchar_t* path, int shortageThreshold) {
  const ScopedFile file = CreateTarget(caller, path, CREATE_ALWAYS);
  if (!file) return false;
  const ScopedMapping mapping = MapWholeFile(caller, file.Get(), PAGE_READWRITE, size);
  if (!mapping) return false;
  ChunkSource source(caller);
  source.UseMemory(buffer);
  return CopyChunks(caller, source, mapping.Get(), size, shortageThreshold);
}

bool CopyWholeFile(SourcePosition caller, const wchar_t* existing, const wchar_t* target, DWORD disposition,
                   int shortageThreshold, bool mapSource) {
  ChunkSource source(caller);
  if (!source.OpenFile(existing) || !source.PrepareFile(mapSource)) return false;
  const ScopedFile file = CreateTarget(caller, target, disposition);
  if (!file) return false;
  const ScopedMapping mapping = MapWholeFile(caller, file.Get(), PAGE_READWRITE, source.FileSize());
  return mapping && CopyChunks(caller, source, mapping.Get(), source.FileSize(), shortageThreshold);
}

}  // namespace
}  // namespace qel

BOOL WriteFileMMF2(int line, const char* sourceFile, HANDLE file, const void* buffer, unsigned long long size,
                   unsigned long long* bytesWritten, void* reserved, long long offset, int shortageThreshold) {
  BOOL done = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    qel::PositionedWrite write{{line, sourceFile}, file,     buffer, size,
                               bytesWritten,       reserved, offset, shortageThreshold};
    done = write.Run();
  });
  return done;
}

BOOL WriteFileMMF(int line, const char* sourceFile, HANDLE file, const void* buffer, DWORD size, DWORD* bytesWritten,
                  void* reserved, int shortageThreshold) {
  BOOL done = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    LARGE_INTEGER position;
    if (!SetFilePointerEx(file, {}, &position, FILE_CURRENT)) {
      qel::WriteLineF(qel::channel::kFileOperation, {line, sourceFile},
                      "lastErr=%lu, %s(0x%lx, 0x%p, %lu, 0x%p, 0x%p, %lu)", GetLastError(), "WriteFileMMF",
                      reinterpret_cast<ULONG_PTR>(file), buffer, size, bytesWritten, reserved,
                      static_cast<DWORD>(shortageThreshold));
      return;
    }
    unsigned long long written = 0;
    done =
        WriteFileMMF2(line, sourceFile, file, buffer, size, &written, reserved, position.QuadPart, shortageThreshold);
    *bytesWritten = qel::Low(written);
  });
  return done;
}

BOOL Mem2FileMMF(int line, const char* sourceFile, const void* buffer, DWORD size, const wchar_t* fileName,
                 int shortageThreshold) {
  BOOL done = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    done = qel::WriteNewFile({line, sourceFile}, buffer, size, qel::CleanPath(fileName), shortageThreshold);
  });
  return done;
}

BOOL Mem2File(int line, const char* sourceFile, const void* buffer, DWORD size, const wchar_t* fileName) {
  BOOL done = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    DWORD creationError = ERROR_SUCCESS;
    {
      const qel::ScopedFile file = qel::CreateTarget({line, sourceFile}, qel::CleanPath(fileName), CREATE_ALWAYS);
      if (file) {
        DWORD written = 0;
        done = WriteFileX(line, sourceFile, file.Get(), buffer, size, &written, nullptr);
      } else {
        creationError = GetLastError();
      }
    }
    // Not the error of a failed write: callers tell the two failures apart by it.
    if (!done) SetLastError(creationError);
  });
  return done;
}

BOOL CopyFileMMF(int line, const char* sourceFile, const wchar_t* existingFileName, const wchar_t* newFileName,
                 BOOL failIfExists, int shortageThreshold, BOOL mapSource) {
  BOOL done = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    const qel::CleanPath existing(existingFileName), target(newFileName);
    done = qel::CopyWholeFile({line, sourceFile}, existing, target, failIfExists ? CREATE_NEW : CREATE_ALWAYS,
                              shortageThreshold, mapSource != FALSE);
  });
  return done;
}
