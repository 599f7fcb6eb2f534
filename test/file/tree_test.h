// What the tests of folder trees share.
#pragma once
#include "test/file/file_test.h"

namespace qel::test {
namespace fs = std::filesystem;

class DirectoryTree : public FileTest {
 protected:
  // "a", "a/b" and so on with their folders, each file holding as many bytes as its path has characters.
  void MakeFiles(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
      fs::create_directories((folder_.Path() / path).parent_path());
      WriteWholeFile(folder_.Path() / path, std::string(path.size(), 'x'));
    }
  }
  void MakeReadOnly(const std::string& path) {
    SetFileAttributesW(folder_.Wide(path).c_str(), FILE_ATTRIBUTE_READONLY);
  }
  bool Exists(const std::string& path) { return fs::exists(folder_.Path() / path); }
  size_t EntryCount(const std::string& path) {
    return static_cast<size_t>(std::distance(fs::directory_iterator(folder_.Path() / path), fs::directory_iterator()));
  }

  BOOL Size(const std::wstring& path, unsigned long long& size) {
    return GetFileSizeDirectoryTree(HOST, path.c_str(), &size);
  }
  BOOL Delete(const std::string& path, BOOL removeFolder, BOOL recurse) {
    return DeleteDirectoryTree(HOST, folder_.Wide(path).c_str(), removeFolder, recurse);
  }
  BOOL Copy(const std::string& from, const std::string& to) {
    return CopyDirectoryTree(HOST, folder_.Wide(from).c_str(), folder_.Wide(to).c_str());
  }
};

}  // namespace qel::test
