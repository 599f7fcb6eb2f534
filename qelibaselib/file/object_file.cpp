#include "qelibaselib/file/object_file.h"

#include "qelibaselib/file/chunk_source.h"
#include "qelibaselib/file/clean_path.h"
#include "qelibaselib/file/mapping_calls.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"

namespace qel {
namespace {

ScopedMapping OpenTargetObject(SourcePosition caller, const wchar_t* name) {
  ScopedMapping object(OpenFileMappingX(caller.line, caller.sourceFile, FILE_MAP_WRITE, FALSE, name));
  if (!object) WriteAssertion(QEL_HERE);
  return object;
}

bool SaveObject(SourcePosition caller, const wchar_t* object, unsigned long long size, const wchar_t* path,
                int shortageThreshold) {
  ChunkSource source(caller);
  if (!source.OpenObject(object)) return false;
  const ScopedFile file = CreateTarget(caller, path, CREATE_ALWAYS);
  if (!file) return false;
  const ScopedMapping mapping = MapWholeFile(caller, file.Get(), PAGE_READWRITE, size);
  return mapping && CopyChunks(caller, source, mapping.Get(), size, shortageThreshold);
}

bool LoadObject(SourcePosition caller, const wchar_t* path, unsigned long long size, const wchar_t* object,
                int shortageThreshold, bool mapSource) {
  ChunkSource source(caller);
  if (!source.OpenFile(path)) return false;
  if (source.FileSize() != size) {
    WriteAssertion(QEL_HERE);
    return false;
  }
  if (!source.PrepareFile(mapSource)) return false;
  const ScopedMapping target = OpenTargetObject(caller, object);
  return target && CopyChunks(caller, source, target.Get(), size, shortageThreshold);
}

bool CopyBetweenObjects(SourcePosition caller, const wchar_t* from, unsigned long long size, const wchar_t* to,
                        int shortageThreshold) {
  ChunkSource source(caller);
  if (!source.OpenObject(from)) return false;
  const ScopedMapping target = OpenTargetObject(caller, to);
  return target && CopyChunks(caller, source, target.Get(), size, shortageThreshold);
}

}  // namespace
}  // namespace qel

BOOL ObjectToFile(int line, const char* sourceFile, const wchar_t* objectName, DWORD sizeLow, DWORD sizeHigh,
                  const wchar_t* fileName, int shortageThreshold) {
  BOOL done = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    done = qel::SaveObject({line, sourceFile}, objectName, qel::Join(sizeLow, sizeHigh), qel::CleanPath(fileName),
                           shortageThreshold);
  });
  return done;
}

BOOL FileToObject(int line, const char* sourceFile, const wchar_t* fileName, DWORD sizeLow, DWORD sizeHigh,
                  const wchar_t* objectName, int shortageThreshold, BOOL mapSource) {
  BOOL done = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    done = qel::LoadObject({line, sourceFile}, qel::CleanPath(fileName), qel::Join(sizeLow, sizeHigh), objectName,
                           shortageThreshold, mapSource != FALSE);
  });
  return done;
}

BOOL CopyObject(int line, const char* sourceFile, const wchar_t* sourceObjectName, DWORD sizeLow, DWORD sizeHigh,
                const wchar_t* targetObjectName, int shortageThreshold) {
  BOOL done = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    done = qel::CopyBetweenObjects({line, sourceFile}, sourceObjectName, qel::Join(sizeLow, sizeHigh), targetObjectName,
                                   shortageThreshold);
  });
  return done;
}
