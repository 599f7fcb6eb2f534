#include "qelibaselib/log/cut_line.h"

#include "qelibaselib/platform/win32.h"

namespace qel {
namespace {

constexpr LONGLONG kBlockBytes = 512;

class LogFile {
 public:
  explicit LogFile(const wchar_t* path)
      : file_(CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                          OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)) {}
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;
  ~LogFile() {
    if (file_ != INVALID_HANDLE_VALUE) CloseHandle(file_);
  }

  // -1 when the file cannot be opened or asked.
  LONGLONG Size() const {
    LARGE_INTEGER size;
    return file_ != INVALID_HANDLE_VALUE && GetFileSizeEx(file_, &size) ? size.QuadPart : -1;
  }
  DWORD Read(LONGLONG offset, char* bytes, LONGLONG count) const {
    DWORD read = 0;
    return MoveTo(offset) && ReadFile(file_, bytes, static_cast<DWORD>(count), &read, nullptr) ? read : 0;
  }
  void Append(const char* bytes, DWORD count) const {
    DWORD written = 0;
    if (MoveTo(Size())) WriteFile(file_, bytes, count, &written, nullptr);
  }
  void CutAt(LONGLONG size) const {
    if (MoveTo(size)) SetEndOfFile(file_);
  }

 private:
  bool MoveTo(LONGLONG offset) const {
    LARGE_INTEGER distance;
    distance.QuadPart = offset;
    return SetFilePointerEx(file_, distance, nullptr, FILE_BEGIN) != FALSE;
  }
  const HANDLE file_;
};

}  // namespace

void EndCutLine(const wchar_t* path) {
  const LogFile file(path);
  const LONGLONG size = file.Size();
  char last = '\0';
  if (size <= 0 || file.Read(size - 1, &last, 1) != 1 || last == '\n') return;
  if (last == '\r')
    file.Append("\n", 1);
  else
    file.Append("\r\n", 2);
}

void RemoveCutLine(const wchar_t* path) {
  const LogFile file(path);
  for (LONGLONG end = file.Size(); end >= 0;) {
    const LONGLONG begin = end > kBlockBytes ? end - kBlockBytes : 0;
    char block[kBlockBytes];
    DWORD count = file.Read(begin, block, end - begin);
    if (count != static_cast<DWORD>(end - begin)) return;
    while (count > 0 && block[count - 1] != '\n') --count;
    if (count > 0 || begin == 0) return file.CutAt(begin + static_cast<LONGLONG>(count));
    end = begin;
  }
}

}  // namespace qel
