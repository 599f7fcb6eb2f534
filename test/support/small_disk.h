// A disk that is soon full, where the user may mount one.
#pragma once
#include "test/support/scratch_folder.h"

namespace qel::test {

class SmallDisk {
 public:
  explicit SmallDisk(const char* size);  // as the option of tmpfs has it: "64k", "1m"
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  ~SmallDisk();

  bool IsMounted() const { return mounted_; }
  const std::filesystem::path& Path() const { return folder_.Path(); }
  std::wstring Wide(const std::string& name) const { return folder_.Wide(name); }

 private:
  const ScratchFolder folder_;
  const bool mounted_;
};

}  // namespace qel::test
