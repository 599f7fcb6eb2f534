/// @file
/// Files that are read while others write, rename and delete them.
#pragma once
#include <cstdint>
#include <filesystem>
#include <string>

#include "qellog/record/byte_source.h"

namespace qellog {

class InputFile : public ByteSource {
 public:
  /// Opens for reading only and keeps nobody from writing or renaming. A failure is told by Failure().
  explicit InputFile(const std::filesystem::path& path);
  /// Reads standard input.
  InputFile();
  ~InputFile() override;
  std::size_t Read(char* buffer, std::size_t size) override;
  void MoveTo(std::uint64_t offset);
  std::uint64_t Size() const;
  /// Why it could not be opened or read; empty when nothing failed.
  const std::string& Failure() const { return failure_; }

 private:
  bool IsOpen() const;
  void NoteFailure();
  std::intptr_t file_;
  bool ownsFile_ = true;
  std::string failure_;
};

}  // namespace qellog
