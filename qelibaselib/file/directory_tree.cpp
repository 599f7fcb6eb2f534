#include "qelibaselib/file/directory_tree.h"

#include "qelibaselib/file/clean_path.h"
#include "qelibaselib/file/folder_walk.h"
#include "qelibaselib/file/plain_calls.h"
#include "qelibaselib/file/retrying_calls.h"
#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/log/log_channel.h"

namespace qel {
namespace {

constexpr DWORD kDeleteTimeoutMs = 1000;
constexpr DWORD kDeleteIntervalMs = 100;
constexpr DWORD kCopyTimeoutMs = 10000;
constexpr DWORD kCopyIntervalMs = 1000;

// Counts the failures of one folder, each with an assertion line of the step that stands there.
class Failures {
 public:
  void Count(bool succeeded, SourcePosition step) {
    if (succeeded) return;
    WriteAssertion(step);
    any_ = true;
  }
  bool None() const { return !any_; }

 private:
  bool any_ = false;
};

// The folder that a tree call is given, as a path that can be joined to.
class StartFolder : public TreePath {
 public:
  explicit StartFolder(const wchar_t* path) { SetFullPath(CleanPath(path)); }
};

// Fails with an assertion line.
bool Refuse(SourcePosition step) {
  WriteAssertion(step);
  return false;
}

bool AddSizes(const wchar_t* path, unsigned long long& total, FolderBudget& budget) {
  if (!budget.Enter()) return false;
  FolderWalk walk(path);
  if (!walk.Begin()) return false;
  Failures failures;
  while (walk.Next()) {
    if (!walk.IsFolder())
      total += walk.FileSize();
    else if (!walk.IsLink())
      failures.Count(walk.MakeEntryPath() && AddSizes(walk.EntryPath(), total, budget), QEL_HERE);
  }
  failures.Count(walk.ReachedEnd(), QEL_HERE);
  return failures.None();
}

bool RemoveFolder(const wchar_t* path) {
  SetFileAttributesW(path, FILE_ATTRIBUTE_NORMAL);
  return RemoveDirectoryW(path);
}

struct TreeDeletion {
  SourcePosition caller;
  FolderBudget budget;

  bool Delete(const wchar_t* path, bool removeThis, bool recurse) {
    if (!budget.Enter()) return false;
    FolderWalk walk(path);
    if (!walk.Begin()) return false;
    Failures failures;
    while (walk.Next()) {
      if (walk.IsFolder() && !recurse) continue;
      failures.Count(walk.MakeEntryPath() && DeleteEntry(walk), QEL_HERE);
    }
    failures.Count(walk.ReachedEnd(), QEL_HERE);
    failures.Count(walk.End(), QEL_HERE);
    if (removeThis) failures.Count(RemoveFolder(walk.Folder()), QEL_HERE);
    return failures.None();
  }

  bool DeleteEntry(const FolderWalk& walk) {
    const wchar_t* path = walk.EntryPath();
    if (walk.IsFolder()) return walk.IsLink() ? RemoveDirectoryW(path) : Delete(path, true, true);
    // The attributes of a link are those of what it leads to, which is not the tree's.
    if (!walk.IsLink()) SetFileAttributesW(path, FILE_ATTRIBUTE_NORMAL);
    return DeleteFileX(caller.line, caller.sourceFile, path, kDeleteTimeoutMs, kDeleteIntervalMs);
  }
};

struct TreeCopy {
  SourcePosition caller;
  FolderBudget budget;

  bool Copy(const wchar_t* source, const wchar_t* target) {
    if (!budget.Enter()) return Refuse(QEL_HERE);
    FolderWalk walk(source);
    TreePath targetFolder(target);
    targetFolder.StripBackslashes();
    if (targetFolder.LiesWithin(walk.Folder())) return Refuse(QEL_HERE);
    if (!walk.Begin()) return Refuse(QEL_HERE);
    if (!MakeLike(walk.Folder(), targetFolder)) return Refuse(QEL_HERE);
    Failures failures;
    TreePath targetEntry;
    while (walk.Next()) {
      if (walk.IsFolder() && walk.IsLink()) continue;
      failures.Count(walk.MakeEntryPath() && targetEntry.Combine(targetFolder.Get(), walk.Name()) &&
                         CopyEntry(walk, targetEntry.Get()),
                     QEL_HERE);
    }
    failures.Count(walk.ReachedEnd(), QEL_HERE);
    return failures.None();
  }

  bool CopyEntry(const FolderWalk& walk, const wchar_t* target) {
    if (walk.IsFolder()) return Copy(walk.EntryPath(), target);
    const DWORD timeoutMs = walk.HoldsNoFile() ? 0 : kCopyTimeoutMs;
    return CopyFileX(__LINE__, __FILE__, walk.EntryPath(), target, FALSE, timeoutMs, kCopyIntervalMs);
  }

  bool MakeLike(const wchar_t* source, const TreePath& target) const {
    const DWORD attributes = GetFileAttributesW(source);
    if (attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_REPARSE_POINT))
      MakeFromTemplate(source, target);
    if (!SHCreateDirectoryExX(caller.line, caller.sourceFile, target.Get())) return false;
    if (attributes != INVALID_FILE_ATTRIBUTES) SetFileAttributesW(target.Get(), attributes);
    return true;
  }

  // A folder made after a template gets its rights too, where the system has such. What fails here is tried again, and
  // reported, by the call that makes an ordinary one. A link is no template: the result would be another link.
  static void MakeFromTemplate(const wchar_t* source, const TreePath& target) {
    if (CreateDirectoryExW(source, target.Get(), nullptr) || GetLastError() != ERROR_PATH_NOT_FOUND) return;
    target.MakeParents();
    CreateDirectoryExW(source, target.Get(), nullptr);
  }
};

}  // namespace
}  // namespace qel

BOOL GetFileSizeDirectoryTree(int, const char*, const wchar_t* folder, unsigned long long* totalSize) {
  BOOL done = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    *totalSize = 0;
    qel::FolderBudget budget;
    done = qel::AddSizes(qel::StartFolder(folder).Get(), *totalSize, budget);
  });
  return done;
}

BOOL DeleteDirectoryTree(int line, const char* sourceFile, const wchar_t* folder, BOOL removeFolder, BOOL recurse) {
  BOOL done = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    qel::TreeDeletion deletion{{line, sourceFile}, {}};
    done = deletion.Delete(qel::StartFolder(folder).Get(), removeFolder != FALSE, recurse != FALSE);
  });
  return done;
}

BOOL CopyDirectoryTree(int line, const char* sourceFile, const wchar_t* sourceFolder, const wchar_t* targetFolder) {
  BOOL done = FALSE;
  qel::Guarded(QEL_HERE, [&] {
    const qel::StartFolder source(sourceFolder), target(targetFolder);
    qel::TreeCopy copy{{line, sourceFile}, {}};
    done = copy.Copy(source.Get(), target.Get());
  });
  return done;
}
