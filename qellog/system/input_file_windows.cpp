#include <windows.h>

#include <algorithm>

#include "qellog/system/input_file.h"

namespace qellog {
namespace {

HANDLE HandleOf(std::intptr_t file) { return reinterpret_cast<HANDLE>(file); }

std::string MessageOf(DWORD error) {
  char text[256] = "";
  FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK, nullptr,
                 error, 0, text, sizeof text, nullptr);
  return text[0] ? text : "error " + std::to_string(error);
}

}  // namespace

InputFile::InputFile(const std::filesystem::path& path)
    : file_(reinterpret_cast<std::intptr_t>(CreateFileW(path.c_str(), GENERIC_READ,
                                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr))) {
  if (!IsOpen()) NoteFailure();
}

InputFile::InputFile() : file_(reinterpret_cast<std::intptr_t>(GetStdHandle(STD_INPUT_HANDLE))), ownsFile_(false) {}

InputFile::~InputFile() {
  if (IsOpen() && ownsFile_) CloseHandle(HandleOf(file_));
}

std::size_t InputFile::Read(char* buffer, std::size_t size) {
  constexpr std::size_t kMost = 1u << 30;
  DWORD count = 0;
  if (!IsOpen()) return 0;
  if (!ReadFile(HandleOf(file_), buffer, static_cast<DWORD>(std::min(size, kMost)), &count, nullptr) &&
      GetLastError() != ERROR_BROKEN_PIPE) {
    NoteFailure();
  }
  return count;
}

void InputFile::MoveTo(std::uint64_t offset) {
  LARGE_INTEGER distance;
  distance.QuadPart = static_cast<LONGLONG>(offset);
  if (IsOpen() && !SetFilePointerEx(HandleOf(file_), distance, nullptr, FILE_BEGIN)) NoteFailure();
}

std::uint64_t InputFile::Size() const {
  LARGE_INTEGER size{};
  return IsOpen() && GetFileSizeEx(HandleOf(file_), &size) ? static_cast<std::uint64_t>(size.QuadPart) : 0;
}

bool InputFile::IsOpen() const { return HandleOf(file_) != INVALID_HANDLE_VALUE && file_ != 0; }

void InputFile::NoteFailure() { failure_ = MessageOf(GetLastError()); }

}  // namespace qellog
