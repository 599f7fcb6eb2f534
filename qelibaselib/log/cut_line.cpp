#include "qelibaselib/log/cut_line.h"

#include "qelibaselib/base/scoped_handles.h"

namespace qel {
namespace {

constexpr DWORD kBlockBytes = 512;

class LogFile {
 public:
  explicit LogFile(const wchar_t* path)
      : file_(CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                          OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)) {}

  /// 0 when the file cannot be opened or asked.
  ULONGLONG Size() const {
    LARGE_INTEGER size;
    return file_ && GetFileSizeEx(file_.Get(), &size) ? static_cast<ULONGLONG>(size.QuadPart) : 0;
  }
  DWORD Read(ULONGLONG offset, char* bytes, DWORD count) const {
    DWORD read = 0;
    return MoveTo(offset) && ReadFile(file_.Get(), bytes, count, &read, nullptr) ? read : 0;
  }
  DWORD Append(const char* bytes, DWORD count) const {
    DWORD written = 0;
    return MoveTo(Size()) && WriteFile(file_.Get(), bytes, count, &written, nullptr) ? written : 0;
  }
  void CutAt(ULONGLONG size) const {
    if (MoveTo(size)) SetEndOfFile(file_.Get());
  }

 private:
  bool MoveTo(ULONGLONG offset) const {
    LARGE_INTEGER distance;
    distance.QuadPart = static_cast<LONGLONG>(offset);
    return SetFilePointerEx(file_.Get(), distance, nullptr, FILE_BEGIN) != FALSE;
  }
  const ScopedFile file_;
};

/// A text as it stands in a file of text lines, one byte after the other: each line end has a carriage return in front.
class LineBytes {
 public:
  explicit LineBytes(const char* text) : text_(text) {}
  /// Whether the next byte of the text is `byte`; nothing is behind its end.
  bool ContinueWith(char byte) {
    const bool needsReturn = *text_ == '\n' && !hasReturn_;
    const char expected = needsReturn ? '\r' : *text_;
    if (*text_ == '\0' || byte != expected) return false;
    hasReturn_ = needsReturn;
    if (!needsReturn) ++text_;
    return true;
  }

 private:
  const char* text_;
  bool hasReturn_ = false;
};

/// Whether all bytes from `offset` on are the beginning of `line`.
bool EndsInPartOf(const LogFile& file, ULONGLONG offset, LineBytes line) {
  char block[kBlockBytes];
  while (const DWORD count = file.Read(offset, block, kBlockBytes)) {
    for (DWORD i = 0; i < count; ++i)
      if (!line.ContinueWith(block[i])) return false;
    offset += count;
  }
  return offset == file.Size();
}

}  // namespace

ULONGLONG EndCutLine(const wchar_t* path) {
  const LogFile file(path);
  const ULONGLONG size = file.Size();
  char last = '\0';
  if (size == 0 || file.Read(size - 1, &last, 1) != 1 || last == '\n') return 0;
  return last == '\r' ? file.Append("\n", 1) : file.Append("\r\n", 2);
}

void TakeBackPartOfLine(const wchar_t* path, ULONGLONG sizeBefore, const char* text) {
  const LogFile file(path);
  if (file.Size() > sizeBefore && EndsInPartOf(file, sizeBefore, LineBytes(text))) file.CutAt(sizeBefore);
}

}  // namespace qel
