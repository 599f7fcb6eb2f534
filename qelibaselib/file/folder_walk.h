/// @file
/// The entries of one folder of a tree.
#pragma once
#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/memory/memory.h"
#include "qelibaselib/platform/win32.h"

namespace qel {

/// How many folders one walk may visit, whatever the depth: what ends a walk through a folder that never ends.
class FolderBudget {
 public:
  /// Counts a folder; false when it is one too many.
  bool Enter() { return ++visited_ <= kMostFolders; }

 private:
  static constexpr DWORD kMostFolders = 1024;
  DWORD visited_ = 0;
};

/// A path of 260 characters on the heap, since a walk goes deep. Throws std::bad_alloc without memory.
class TreePath {
 public:
  TreePath();
  explicit TreePath(const wchar_t* path);

  /// Where `path` leads from the current folder. A walk starts from such a path only: joined to a name, "..\x" would be
  /// taken for a path from the root. Stays empty, which no folder is, when there is none or it does not fit.
  void SetFullPath(const wchar_t* path);

  const wchar_t* Get() const { return text_.get(); }
  /// False, the path being empty, when the two together do not fit.
  bool Combine(const wchar_t* folder, const wchar_t* name) {
    return PathCombineW(text_.get(), folder, name) != nullptr;
  }
  void StripBackslashes();
  /// Whether this is `folder` or a path below it, by the text, the case ignored.
  bool LiesWithin(const wchar_t* folder) const;
  /// Makes the folders on the way to this one, as far as that goes.
  void MakeParents() const;

 private:
  auto_MemAlloc<wchar_t> text_;
};

/// Enumerates a folder, the two dot entries left out:
///     FolderWalk walk(path);
///     if (!walk.Begin()) ... the folder cannot be read
///     while (walk.Next()) ... the entry
///     if (!walk.ReachedEnd()) ... not all of it could be read
class FolderWalk {
 public:
  explicit FolderWalk(const wchar_t* folder);
  FolderWalk(const FolderWalk&) = delete;
  FolderWalk& operator=(const FolderWalk&) = delete;

  /// Without trailing backslashes.
  const wchar_t* Folder() const { return folder_.Get(); }

  bool Begin();
  bool Next();
  bool ReachedEnd() const { return reachedEnd_; }
  /// Closes the enumeration ahead of the scope's end; false when the system refuses.
  bool End() { return find_.Close(); }

  const wchar_t* Name() const { return entry_.cFileName; }
  bool IsFolder() const { return entry_.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY; }
  /// A symbolic link or junction: what is below it belongs to another folder.
  bool IsLink() const;
  /// A device, pipe or socket, or a link that leads nowhere: waiting does not make a file of it. The entry's path must
  /// have been made.
  bool HoldsNoFile() const;
  unsigned long long FileSize() const {
    return static_cast<unsigned long long>(entry_.nFileSizeHigh) << 32 | entry_.nFileSizeLow;
  }
  /// Puts the entry's path together; false when it is too long.
  bool MakeEntryPath() { return entryPath_.Combine(Folder(), Name()); }
  const wchar_t* EntryPath() const { return entryPath_.Get(); }

 private:
  bool IsDots() const;

  TreePath folder_, entryPath_;
  ScopedFind find_;
  WIN32_FIND_DATAW entry_;
  bool hasFirst_ = false;
  bool reachedEnd_ = false;
};

}  // namespace qel
