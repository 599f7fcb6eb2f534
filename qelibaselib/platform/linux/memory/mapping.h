/// @file
/// A file mapping: what its views show, and what a handle of it allows.
#pragma once
#include <memory>
#include <utility>

#include "qelibaselib/platform/linux/handles/handle_table.h"
#include "qelibaselib/platform/linux/memory/view_table.h"
#include "qelibaselib/platform/linux/objects/object_namespace.h"

namespace qel::layer {

class Mapping : public Object {
 public:
  struct Rights {
    bool read, write;
  };
  /// What stands behind the views. Memory of the page file is a file without a name, or the data of a named object.
  struct Contents {
    std::shared_ptr<const MappedDescriptor> descriptor;
    uint64_t start;  ///< of the data in the descriptor's file
    uint64_t bytes;
    DWORD protection;  ///< PAGE_READONLY, PAGE_READWRITE or PAGE_WRITECOPY
    bool isFile;
  };

  /// `name` is empty for a mapping without one. The name lives as long as a handle of it does, here or elsewhere.
  Mapping(Contents contents, Rights rights, StorageReference name);

  const Contents& contents() const { return contents_; }
  Rights rights() const { return rights_; }

 private:
  ~Mapping() override;
  bool IsNamedFile() const { return contents_.isFile && name_; }

  const Contents contents_;
  const Rights rights_;
  const StorageReference name_;
};

}  // namespace qel::layer
