// Streams in text mode: a line feed goes out as CR LF and CR LF comes in as a line feed.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/files/file_sharing.h"
#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/win32/crt.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr char kEndOfText = 0x1A;

struct TextStream {
  int descriptor;
  FILE* file = nullptr;
  bool ended = false;  // an end-of-text mark was read
};

bool WriteAll(int descriptor, const char* data, size_t length) {
  while (length > 0) {
    const ssize_t written = write(descriptor, data, length);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    data += written;
    length -= static_cast<size_t>(written);
  }
  return true;
}

// One write for what the stream had buffered, so that a line is never torn by another process.
ssize_t Write(void* cookie, const char* data, size_t length) {
  const auto* stream = static_cast<TextStream*>(cookie);
  char out[2 * BUFSIZ];
  size_t used = 0;
  const char* const end = data + length;
  while (data != end) {
    if (used + 2 > sizeof out) {
      if (!WriteAll(stream->descriptor, out, used)) return 0;
      used = 0;
    }
    if (*data == '\n') {
      out[used++] = '\r';
      out[used++] = *data++;
      continue;
    }
    const size_t part = std::min<size_t>(end - data, sizeof out - used);
    const void* const lineFeed = std::memchr(data, '\n', part);
    const size_t text = lineFeed ? static_cast<const char*>(lineFeed) - data : part;
    std::memcpy(out + used, data, text);
    used += text;
    data += text;
  }
  return WriteAll(stream->descriptor, out, used) ? static_cast<ssize_t>(length) : 0;
}

// Folds the CR LF of [data, data + length) in place and returns the new length.
size_t Fold(TextStream& stream, char* data, size_t length) {
  size_t kept = 0;
  for (size_t i = 0; i < length && !stream.ended; ++i) {
    stream.ended = data[i] == kEndOfText;
    if (stream.ended || (data[i] == '\r' && i + 1 < length && data[i + 1] == '\n')) continue;
    data[kept++] = data[i];
  }
  return kept;
}

ssize_t Read(void* cookie, char* data, size_t length) {
  auto& stream = *static_cast<TextStream*>(cookie);
  if (stream.ended) return 0;
  ssize_t got;
  do got = read(stream.descriptor, data, length);
  while (got < 0 && errno == EINTR);
  if (got <= 0) return got;
  const bool endsInReturn = data[got - 1] == '\r';
  const size_t kept = Fold(stream, data, static_cast<size_t>(got));
  if (endsInReturn && !stream.ended) {  // the byte after the block decides
    char next;
    if (read(stream.descriptor, &next, 1) == 1) {
      if (next == '\n')
        data[kept - 1] = '\n';
      else
        lseek(stream.descriptor, -1, SEEK_CUR);
    }
  }
  return static_cast<ssize_t>(kept);
}

// ftell counts the bytes of the file: each line feed that still waits in the buffer will be two.
off64_t WaitingLineFeeds(const FILE* file) {
  return file->_IO_write_ptr > file->_IO_write_base ? std::count(file->_IO_write_base, file->_IO_write_ptr, '\n') : 0;
}

int Seek(void* cookie, off64_t* offset, int whence) {
  auto& stream = *static_cast<TextStream*>(cookie);
  const off64_t at = lseek64(stream.descriptor, *offset, whence);
  if (at < 0) return -1;
  if (whence == SEEK_CUR && *offset == 0) {
    *offset = at + WaitingLineFeeds(stream.file);
    return 0;
  }
  stream.ended = false;
  *offset = at;
  return 0;
}

int Close(void* cookie) {
  auto* stream = static_cast<TextStream*>(cookie);
  const int result = close(stream->descriptor);
  delete stream;
  return result;
}

struct Mode {
  int flags;
  const char* stdio;
  bool text;
  ShareMode share;
};

// What fopen knows: r, w or a, then + and one of t and b in any order. A text stream goes one way only.
bool ParseMode(const wchar_t* text, Mode& mode) {
  constexpr unsigned kShared = kReading | kWriting;
  bool update = false, binary = false, isText = false;
  const wchar_t kind = text ? *text : 0;
  for (const wchar_t* c = text + (kind ? 1 : 0); kind && *c; ++c) {
    bool& seen = *c == L'+' ? update : *c == L'b' ? binary : isText;
    if ((*c != L'+' && *c != L'b' && *c != L't') || seen) return false;
    seen = true;
  }
  if ((binary && isText) || (update && !binary)) return false;
  const bool read = kind == L'r';
  mode.flags = update ? O_RDWR : read ? O_RDONLY : O_WRONLY;
  mode.share = {update ? kReading | kWriting : read ? kReading : kWriting, kShared};
  mode.text = !binary;
  switch (kind) {
    case L'r':
      mode.stdio = update ? "r+" : "r";
      return true;
    case L'w':
      mode.flags |= O_CREAT;  // emptied when nobody objects
      mode.stdio = update ? "w+" : "w";
      return true;
    case L'a':
      mode.flags |= O_CREAT | O_APPEND;
      mode.stdio = update ? "a+" : "a";
      return true;
    default:
      return false;
  }
}

// The system's answer for those who may pass over every permission is not the file's.
DWORD CheckOpened(int descriptor, const Mode& mode) {
  struct stat status;
  if (fstat(descriptor, &status) != 0) return ErrorFromErrno(errno);
  if (S_ISDIR(status.st_mode)) return ERROR_ACCESS_DENIED;
  if ((mode.share.access & kWriting) && !(status.st_mode & 0222)) return ERROR_ACCESS_DENIED;
  if (!MayShare(descriptor, mode.share)) return ERROR_SHARING_VIOLATION;
  if (mode.stdio[0] == 'w' && status.st_size > 0 && ftruncate(descriptor, 0) != 0) return ErrorFromErrno(errno);
  return ERROR_SUCCESS;
}

DWORD OpenDescriptor(const wchar_t* name, const Mode& mode, int& descriptor) {
  SystemPath path;
  if (const DWORD error = path.ParseFile(name)) return error;
  descriptor = open(path.text(), mode.flags | O_CLOEXEC | O_NOCTTY, 0666);
  if (descriptor < 0) return PathError(errno, path);
  const DWORD error = CheckOpened(descriptor, mode);
  if (error) close(descriptor);
  return error;
}

FILE* OpenStream(int descriptor, const Mode& mode) {
  if (!mode.text) return fdopen(descriptor, mode.stdio);
  auto* stream = new (std::nothrow) TextStream{descriptor};
  if (!stream) return nullptr;
  // The descriptor appends, the stream need not know: it would ask for the end of the file at every ftell.
  FILE* file = fopencookie(stream, mode.stdio[0] == 'r' ? "r" : "w", {Read, Write, Seek, Close});
  if (file)
    stream->file = file;
  else
    delete stream;
  return file;
}

int ErrnoOf(DWORD error) {
  switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
      return ENOENT;
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
      return EACCES;
    case ERROR_TOO_MANY_OPEN_FILES:
      return EMFILE;
    case ERROR_NOT_ENOUGH_MEMORY:
      return ENOMEM;
    case ERROR_DISK_FULL:
      return ENOSPC;
    default:
      return EINVAL;
  }
}

}  // namespace
}  // namespace qel::layer

FILE* _wfopen(const wchar_t* path, const wchar_t* mode) {
  using namespace qel::layer;
  Mode parsed;
  if (!ParseMode(mode, parsed)) {
    errno = EINVAL;
    return nullptr;
  }
  int descriptor = -1;
  if (const DWORD error = OpenDescriptor(path, parsed, descriptor)) {
    SetLastError(error);
    errno = ErrnoOf(error);
    return nullptr;
  }
  FILE* file = OpenStream(descriptor, parsed);
  if (!file) {
    close(descriptor);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    errno = ENOMEM;
  }
  return file;
}
