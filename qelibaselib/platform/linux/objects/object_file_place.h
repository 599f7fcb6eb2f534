/// @file
/// Where the file of a named object stands.
#pragma once
#include "qelibaselib/platform/linux/objects/object_name.h"
#include "qelibaselib/platform/linux/objects/shared_folder.h"

namespace qel::layer {

/// The file of a key in the user's folder. Nothing is looked up before it is asked for.
class ObjectFilePlace {
 public:
  ObjectFilePlace(SharedFolder& folder, const ObjectKey& key) : folder_(folder), key_(key) {}
  /// A descriptor of the file, which is the user's alone; -1 with the error in `error`. A missing file is created when
  /// `create` says so.
  int OpenFile(bool create, DWORD* error) const;
  /// Takes the name from the file if it is still this file's.
  void UnlinkFile(int file) const;
  /// Gives up all locks on the file; the last one removes it.
  void LeaveFile(int file) const;

 private:
  SharedFolder& folder_;
  const ObjectKey& key_;
};

}  // namespace qel::layer
