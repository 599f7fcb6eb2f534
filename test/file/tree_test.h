// What the tests of folder trees share.
#pragma once
#include "test/file/file_test.h"
#include "test/support/library.h"

namespace qel::test {

class DirectoryTree : public FileTest {
 protected:
  // "a", "a/b" and so on with their folders, each file holding as many bytes as its path has characters.
  void MakeFiles(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
      fs::create_directories((Path(path)).parent_path());
      Write(path, std::string(path.size(), 'x'));
    }
  }
  void MakeReadOnly(const std::string& path) { SetFileAttributesW(Wide(path).c_str(), FILE_ATTRIBUTE_READONLY); }
  size_t EntryCount(const std::string& path) {
    return static_cast<size_t>(std::distance(fs::directory_iterator(Path(path)), fs::directory_iterator()));
  }

  // Whether the size could be told, and what was told.
  using Told = std::pair<bool, unsigned long long>;
  static Told Size(const std::wstring& path) {
    unsigned long long size = 99;
    const bool told = GetFileSizeDirectoryTree(HOST, path.c_str(), &size);
    return {told, size};
  }
  BOOL Delete(const std::string& path, BOOL removeFolder, BOOL recurse) {
    return DeleteDirectoryTree(HOST, Wide(path).c_str(), removeFolder, recurse);
  }
  BOOL Copy(const std::string& from, const std::string& to) {
    return CopyDirectoryTree(HOST, Wide(from).c_str(), Wide(to).c_str());
  }
};

}  // namespace qel::test
