// The room text/ holds text streams, conversions between wide and narrow text, comparisons, and the locale of a thread.
// It uses base/, the share modes and paths of files/, and the ends of threads/.
//
// _wfopen, and streams in text mode: a line feed goes out as CR LF and CR LF comes in as a line feed.
//
// The C library has no text mode, so such a stream is one of its cookie streams, whose reading, writing and seeking are
// the functions below. It counts the characters that the program sees, and a file has more bytes than those. Whoever
// asks for the position (ftell, or fseek by 0 from here) gets that of the file all the same: Seek adds the line feeds
// that still wait to be written, or finds out how far into the last block that was read the program has come.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/file_size_limit.h"
#include "qelibaselib/platform/linux/base/retry_on_interrupt.h"
#include "qelibaselib/platform/linux/files/file_attributes.h"
#include "qelibaselib/platform/linux/files/file_sharing.h"
#include "qelibaselib/platform/linux/files/mapping_marks.h"
#include "qelibaselib/platform/linux/files/path.h"
#include "qelibaselib/platform/linux/win32/crt.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr char kEndOfText = 0x1A;

struct TextStream {
  int descriptor;
  FILE* file = nullptr;
  bool ended = false;     // an end-of-text mark was read
  size_t bytes = 0;       // of the file, that the last block took
  size_t characters = 0;  // that the program was given for them
};

bool WriteAll(int descriptor, const char* data, size_t length) {
  const FileGrowth growth;
  while (length > 0) {
    const ssize_t written = RetryOnInterrupt([&] { return write(descriptor, data, length); });
    if (written < 0) return false;
    data += written;
    length -= static_cast<size_t>(written);
  }
  return true;
}

// Writes with one call what the stream had buffered, so that no other process tears a line.
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

// Folds the CR LF of a block in place and returns the new length. `taken` says how many bytes were looked at: an
// end-of-text mark or `most` characters end it.
size_t Fold(char* data, size_t length, size_t most, size_t& taken) {
  size_t kept = 0;
  for (taken = 0; taken < length && kept < most && data[taken] != kEndOfText; ++taken) {
    if (data[taken] == '\r' && taken + 1 < length && data[taken + 1] == '\n') continue;
    data[kept++] = data[taken];
  }
  return kept;
}

// The byte after a block that ends in CR decides whether that is a part of a line end.
void FoldAtEnd(TextStream& stream, char& last) {
  char next;
  if (read(stream.descriptor, &next, 1) != 1) return;
  if (next == '\n') {
    last = '\n';
    ++stream.bytes;
  } else {
    lseek(stream.descriptor, -1, SEEK_CUR);
  }
}

ssize_t Read(void* cookie, char* data, size_t length) {
  auto& stream = *static_cast<TextStream*>(cookie);
  if (stream.ended) return 0;
  const ssize_t got = RetryOnInterrupt([&] { return read(stream.descriptor, data, length); });
  if (got <= 0) return got;
  const bool endsInReturn = data[got - 1] == '\r';
  size_t taken;
  stream.bytes = static_cast<size_t>(got);
  stream.characters = Fold(data, stream.bytes, stream.bytes, taken);
  stream.ended = taken < stream.bytes;
  if (endsInReturn && !stream.ended) FoldAtEnd(stream, data[stream.characters - 1]);
  return static_cast<ssize_t>(stream.characters);
}

// Each line feed that waits in the buffer of the stream will be two bytes of the file.
off64_t WaitingLineFeeds(const FILE* file) {
  return file->_IO_write_ptr > file->_IO_write_base ? std::count(file->_IO_write_base, file->_IO_write_ptr, '\n') : 0;
}
size_t UnreadCharacters(const FILE* file) { return static_cast<size_t>(file->_IO_read_end - file->_IO_read_ptr); }

// Counts the bytes behind the program's place in the last block. The block is read again, because nobody keeps its
// bytes.
off64_t UnreadBytes(const TextStream& stream, size_t unread, off64_t end) {
  char block[BUFSIZ];
  size_t wanted = stream.characters - unread;
  off64_t at = end - static_cast<off64_t>(stream.bytes);
  while (wanted > 0 && at < end) {
    const auto part = static_cast<size_t>(std::min<off64_t>(end - at, sizeof block));
    const ssize_t got = pread(stream.descriptor, block, part, at);
    if (got <= 0) break;
    size_t taken;
    // A CR at the end of this part is the first half of a line end, or a character that is counted with the next part.
    const bool splits = got > 1 && block[got - 1] == '\r' && at + got < end;
    wanted -= Fold(block, static_cast<size_t>(got) - splits, wanted, taken);
    if (taken == 0) break;
    at += static_cast<off64_t>(taken);
  }
  return end - at;
}

// How much more of the file the program has left unread, or will have written, than the C library counts.
off64_t Correction(const TextStream& stream, off64_t end) {
  const size_t unread = UnreadCharacters(stream.file);
  if (unread == 0 || unread > stream.characters) return WaitingLineFeeds(stream.file);
  return static_cast<off64_t>(unread) - UnreadBytes(stream, unread, end);
}

// From the current position the C library asks with 0 for ftell, and for fseek with what the program has not read yet
// taken off.
int Seek(void* cookie, off64_t* offset, int whence) {
  auto& stream = *static_cast<TextStream*>(cookie);
  const off64_t end = whence == SEEK_CUR ? lseek64(stream.descriptor, 0, SEEK_CUR) : 0;
  if (end < 0) return -1;
  const off64_t correction = whence == SEEK_CUR ? Correction(stream, end) : 0;
  if (whence == SEEK_CUR && *offset == 0) {
    *offset = end + correction;
    return 0;
  }
  const off64_t at = lseek64(stream.descriptor, *offset + correction, whence);
  if (at < 0) return -1;
  stream.ended = false;
  stream.bytes = stream.characters = 0;
  *offset = at;
  return 0;
}

// A binary stream is a cookie stream too, since a write of the C library's own beyond RLIMIT_FSIZE would end the host.
ssize_t WritePlain(void* cookie, const char* data, size_t length) {
  return WriteAll(static_cast<TextStream*>(cookie)->descriptor, data, length) ? static_cast<ssize_t>(length) : 0;
}
ssize_t ReadPlain(void* cookie, char* data, size_t length) {
  return RetryOnInterrupt([&] { return read(static_cast<TextStream*>(cookie)->descriptor, data, length); });
}
int SeekPlain(void* cookie, off64_t* offset, int whence) {
  const off64_t at = lseek64(static_cast<TextStream*>(cookie)->descriptor, *offset, whence);
  if (at >= 0) *offset = at;
  return at < 0 ? -1 : 0;
}

int Close(void* cookie) {
  auto* stream = static_cast<TextStream*>(cookie);
  const int result = static_cast<int>(syscall(SYS_close, stream->descriptor));  // no point of cancellation
  delete stream;
  return result;
}

struct OpenMode {
  int flags;
  const char* stdio;
  bool text;
  ShareMode share;
};

// Reads a mode as fopen does: r, w or a, then + and one of t and b in any order. A text stream goes one way only.
bool ParseMode(const wchar_t* text, OpenMode& mode) {
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

// Takes files, terminals and the null device. Perhaps nobody ever reads the other end of a pipe, and the writer of a
// log must not wait for that. A read-only file is refused here, because the system lets root write it.
DWORD CheckOpened(int descriptor, const OpenMode& mode) {
  struct stat status;
  if (fstat(descriptor, &status) != 0) return ErrorFromErrno(errno);
  if (!S_ISREG(status.st_mode) && !S_ISCHR(status.st_mode)) return ERROR_ACCESS_DENIED;
  if ((mode.share.access & kWriting) && !(status.st_mode & kWriteBits)) return ERROR_ACCESS_DENIED;
  if (!SharePlace::IsFree(descriptor, mode.share)) return ERROR_SHARING_VIOLATION;
  if (mode.stdio[0] == 'w' && status.st_size > 0) return CutUnmappedFile(descriptor, 0);
  return ERROR_SUCCESS;
}

// With O_NONBLOCK the open of a pipe does not wait for its other end. For a file it changes nothing.
DWORD OpenDescriptor(const wchar_t* name, const OpenMode& mode, int& result) {
  SystemPath path;
  if (const DWORD error = path.ParseFile(name)) return error;
  Descriptor descriptor(open(path.text(), mode.flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666));
  if (descriptor.get() < 0) return errno == ENXIO ? ERROR_ACCESS_DENIED : PathError(errno, path);
  if (const DWORD error = CheckOpened(descriptor.get(), mode)) return error;
  result = descriptor.Detach();
  return ERROR_SUCCESS;
}

FILE* OpenCookieStream(int descriptor, const OpenMode& mode) {
  auto* stream = new (std::nothrow) TextStream{descriptor};
  if (!stream) return nullptr;
  // The descriptor appends, a text stream need not know: it would ask for the end of the file at every ftell.
  FILE* file = mode.text ? fopencookie(stream, mode.stdio[0] == 'r' ? "r" : "w", {Read, Write, Seek, Close})
                         : fopencookie(stream, mode.stdio, {ReadPlain, WritePlain, SeekPlain, Close});
  if (file)
    stream->file = file;
  else
    delete stream;
  return file;
}

DWORD OpenStream(const wchar_t* name, const OpenMode& mode, FILE*& file) {
  int descriptor = -1;
  if (const DWORD error = OpenDescriptor(name, mode, descriptor)) return error;
  file = OpenCookieStream(descriptor, mode);
  if (file) return ERROR_SUCCESS;
  close(descriptor);
  return ERROR_NOT_ENOUGH_MEMORY;
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
  OpenMode parsed;
  if (!ParseMode(mode, parsed)) {
    errno = EINVAL;
    return nullptr;
  }
  FILE* file = nullptr;
  if (const DWORD error = OpenStream(path, parsed, file)) {
    SetLastError(error);
    errno = ErrnoOf(error);
  }
  return file;
}
