#include "qelibaselib/settings/settings.h"

#include "qelibaselib/base/bounded_text.h"
#include "qelibaselib/guard/exception_guard.h"

namespace {

struct FolderSetting {
  LONG set = 0;
  wchar_t path[MAX_PATH] = L"?:\\???";  // no valid path: what is built on a folder that nobody set fails
};

constinit FolderSetting g_logFolder;
constinit FolderSetting g_temporaryFolder;
constinit FolderSetting g_dataFolder;
constinit FolderSetting g_baseFolder;
constinit FolderSetting g_executableFolder;
constinit DWORD g_debugMode = 0;
constinit DWORD g_noCacheFlushLimitBytes = 0x2000000;
constinit DWORD g_noCacheMemoryLoad = 50;

// The path is read before the flag is taken, so that a bad pointer does not use up the only chance; once the folder is
// set it is not read at all.
int SetFolderOnce(qel::SourcePosition position, FolderSetting& folder, const wchar_t* path) {
  if (InterlockedCompareExchange(&folder.set, 0, 0) != 0) return TRUE;
  qel::Guarded(position, [&] {
    wchar_t copy[MAX_PATH];
    qel::CopyBounded(copy, path);
    if (InterlockedCompareExchange(&folder.set, 1, 0) == 0) qel::CopyBounded(folder.path, copy);
  });
  return TRUE;
}

}  // namespace

int VemoSetLogPath(const wchar_t* path) { return SetFolderOnce(QEL_HERE, g_logFolder, path); }
int VemoSetTmpPath(const wchar_t* path) { return SetFolderOnce(QEL_HERE, g_temporaryFolder, path); }
int VemoSetDataPath(const wchar_t* path) { return SetFolderOnce(QEL_HERE, g_dataFolder, path); }
int VemoSetBasePath(const wchar_t* path) { return SetFolderOnce(QEL_HERE, g_baseFolder, path); }
int VemoSetExePath(const wchar_t* path) { return SetFolderOnce(QEL_HERE, g_executableFolder, path); }

const wchar_t* VemoGetLogPath() { return g_logFolder.path; }
const wchar_t* VemoGetTmpPath() { return g_temporaryFolder.path; }
const wchar_t* VemoGetDataPath() { return g_dataFolder.path; }
const wchar_t* VemoGetBasePath() { return g_baseFolder.path; }
const wchar_t* VemoGetExePath() { return g_executableFolder.path; }

DWORD VemoSetDebugMode(DWORD bits) {
  g_debugMode |= bits;
  return bits;
}

DWORD VemoResetDebugMode(DWORD bits) {
  g_debugMode &= ~bits;
  return ~bits;
}

DWORD VemoGetDebugMode() { return g_debugMode; }

DWORD VemoSetNoCacheFlushLimit(DWORD size, DWORD memoryLoad) {
  g_noCacheFlushLimitBytes = size;
  g_noCacheMemoryLoad = memoryLoad;
  return size;
}

DWORD VemoGetNoCacheFlushLimit(DWORD* memoryLoad) {
  qel::Guarded(QEL_HERE, [&] { *memoryLoad = g_noCacheMemoryLoad; });
  return g_noCacheFlushLimitBytes;
}
