// A folder of its own for a test, gone with all that it holds at the end of the scope.
#pragma once
#include <filesystem>
#include <string>

namespace qel::test {

class ScratchFolder {
 public:
  ScratchFolder();  // under the system's temporary folder, or below TEST_SCRATCH when that is set
  explicit ScratchFolder(const std::filesystem::path& parent);
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  ~ScratchFolder();

  const std::filesystem::path& Path() const { return path_; }
  // The path of a name inside, as the library takes it.
  std::wstring Wide(const std::string& name = {}) const;
  std::string Narrow(const std::string& name = {}) const;

 private:
  std::filesystem::path path_;
};

// Whole files, byte for byte. Reading a missing file gives an empty text.
std::string ReadWholeFile(const std::filesystem::path& path);
void WriteWholeFile(const std::filesystem::path& path, const std::string& bytes);

}  // namespace qel::test
