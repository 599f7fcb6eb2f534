#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "qellog/system/input_file.h"

namespace qellog {

InputFile::InputFile(const std::filesystem::path& path)
    : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {
  if (!IsOpen()) NoteFailure();
}

InputFile::InputFile() : file_(STDIN_FILENO), ownsFile_(false) {}

InputFile::~InputFile() {
  if (IsOpen() && ownsFile_) close(static_cast<int>(file_));
}

std::size_t InputFile::Read(char* buffer, std::size_t size) {
  if (!IsOpen()) return 0;
  ssize_t count = -1;
  do {
    count = read(static_cast<int>(file_), buffer, size);
  } while (count < 0 && errno == EINTR);
  if (count < 0) NoteFailure();
  return count > 0 ? static_cast<std::size_t>(count) : 0;
}

void InputFile::MoveTo(std::uint64_t offset) {
  if (IsOpen() && lseek(static_cast<int>(file_), static_cast<off_t>(offset), SEEK_SET) < 0) NoteFailure();
}

std::uint64_t InputFile::Size() const {
  struct stat status {};
  return IsOpen() && fstat(static_cast<int>(file_), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

bool InputFile::IsOpen() const { return file_ >= 0; }

void InputFile::NoteFailure() { failure_ = std::strerror(errno); }

}  // namespace qellog
