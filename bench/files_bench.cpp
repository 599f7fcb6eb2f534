// File wrappers.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/by_hand.h"
#include "bench/harness.h"
#include "qelibaselib/platform/linux/base/lock_range.h"
#include "qelibaselib/qelibaselib.h"

namespace {

using by_hand::kShareBytes;
using qel::layer::LockRange;

constexpr DWORD kFileBytes = 2 << 20;

// Opening with a share mode: the held bytes are looked at and the own one placed under a gate.
int EnterShared(int file) {
  flock(file, LOCK_EX | LOCK_NB);
  struct stat status;
  fstat(file, &status);
  auto held = LockRange(F_WRLCK, kShareBytes, 64);
  fcntl(file, F_OFD_GETLK, &held);
  auto own = LockRange(F_RDLCK, kShareBytes + 9, 1);
  fcntl(file, F_OFD_SETLK, &own);
  flock(file, LOCK_UN);
  return file;
}
int OpenShared(const char* path) { return EnterShared(open(path, O_RDONLY | O_CLOEXEC)); }

// In a folder that is made first; whether the file existed is reported, and only a file that nobody holds is emptied.
int CreateShared(const char* path) {
  mkdir(bench::Folder().c_str(), 0777);
  int file = open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (file >= 0) return EnterShared(file);
  file = EnterShared(open(path, O_RDWR | O_CLOEXEC));
  struct stat status;
  if (fstat(file, &status) == 0 && status.st_size > 0 && ftruncate(file, 0) != 0) std::abort();
  return file;
}
void CloseShared(int file) {
  auto own = LockRange(F_UNLCK, kShareBytes + 9, 1);
  fcntl(file, F_OFD_SETLK, &own);
  close(file);
}

// A file that is about to be deleted or moved: whether somebody holds it, and, with the gate held, whether the name
// still leads to it. A folder and a read-only file are refused by the mode.
int OpenForRemoval(const char* path) {
  const int file = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  struct stat status, named;
  fstat(file, &status);
  flock(file, LOCK_EX | LOCK_NB);
  auto held = LockRange(F_WRLCK, kShareBytes, 64);
  fcntl(file, F_OFD_GETLK, &held);
  lstat(path, &named);
  if (named.st_ino != status.st_ino || !S_ISREG(named.st_mode) || !(named.st_mode & 0222)) std::abort();
  return file;
}

// A missing file is told from a missing folder.
void TellMissing() {
  if (access(bench::Folder().c_str(), F_OK) != 0) std::abort();
}

HANDLE Open(const std::wstring& path, DWORD access, DWORD disposition) {
  return CreateFileX(__LINE__, __FILE__, path.c_str(), access, FILE_SHARE_READ, nullptr, disposition,
                     FILE_ATTRIBUTE_NORMAL, nullptr, 0, 0);
}

void CompareOpening(const std::wstring& wide, const std::string& path) {
  bench::Compare(
      "CreateFileX + CloseHandle, open", 1.20, [&] { CloseHandle(Open(wide, GENERIC_READ, OPEN_EXISTING)); },
      [&] { CloseShared(OpenShared(path.c_str())); });
  const std::wstring made = bench::WidePath("made");
  const std::string madePath = bench::Path("made"), madeByHand = bench::Path("made.hand");
  const auto create = [&] { CloseHandle(Open(made, GENERIC_READ | GENERIC_WRITE, CREATE_ALWAYS)); };
  const auto createByHand = [&] { CloseShared(CreateShared(madeByHand.c_str())); };
  bench::Compare(
      "CreateFileX + CloseHandle, create", 1.25,
      [&] {
        create();
        unlink(madePath.c_str());
      },
      [&] {
        createByHand();
        unlink(madeByHand.c_str());
      });
  create();
  createByHand();
  bench::Compare("CreateFileX + CloseHandle, replace", 1.25, create, createByHand);
  const std::wstring missing = bench::WidePath("missing");
  const std::string missingPath = bench::Path("missing"), log = bench::Path("failed.txt");
  by_hand::MappedMutex mutex("/qelibaselib-bench-failed");
  bench::Compare(
      "failed open with its log line", 1.25, [&] { Open(missing, GENERIC_READ, OPEN_EXISTING); },
      [&] {
        if (open(missingPath.c_str(), O_RDONLY | O_CLOEXEC) >= 0) std::abort();
        TellMissing();
        char message[512];
        std::snprintf(message, sizeof message,
                      "retryCount=%lu, lastErr=%lu, %s, %s(%s, 0x%lx, 0x%lx, %p, 0x%lx, 0x%lx, 0x%lx, %lu, %lu)", 0ul,
                      2ul, "Complete", "CreateFileX", missingPath.c_str(), GENERIC_READ, FILE_SHARE_READ,
                      static_cast<void*>(nullptr), OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, 0ul, 0ul, 0ul);
        by_hand::LogLine(mutex, log.c_str(), message, __LINE__, __FILE__);
      },
      0, {11, 200});
}

// What a transfer below 64 KiB may cost over the raw call: a page is moved in the time of a few guards, so nobody who
// waits for a file sees more, and plain code is worth it.
constexpr double kSmallTransferSlackNs = 100;

void CompareTransfer(const std::wstring& wide, const std::string& path) {
  HANDLE file = Open(wide, GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING);
  const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
  std::vector<char> buffer(1 << 20, 'x');
  for (DWORD size : {64ul, 4096ul, 1ul << 20}) {
    const bool large = size > 4096;
    DWORD done = 0;
    OVERLAPPED start{};
    const std::string name = std::to_string(size) + " bytes";
    bench::Compare(
        "ReadFileX " + name, large ? 1.02 : 1.05,
        [&] {
          start = {};
          ReadFileX(__LINE__, __FILE__, file, buffer.data(), size, &done, &start);
        },
        [&] {
          if (pread(descriptor, buffer.data(), size, 0) < 0) std::abort();
        },
        large ? 0 : kSmallTransferSlackNs);
    bench::Compare(
        "WriteFileX " + name, large ? 1.02 : 1.05,
        [&] {
          start = {};
          WriteFileX(__LINE__, __FILE__, file, buffer.data(), size, &done, &start);
        },
        [&] {
          if (pwrite(descriptor, buffer.data(), size, 0) < 0) std::abort();
        },
        large ? 0 : kSmallTransferSlackNs);
  }
  close(descriptor);
  CloseHandle(file);
}

// The position moves on by itself; at the end of the file it goes back to the start.
void CompareSequentialTransfer(const std::wstring& wide, const std::string& path) {
  HANDLE file = Open(wide, GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING);
  const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
  std::vector<char> buffer(4096, 'x');
  for (DWORD size : {64ul, 4096ul}) {
    DWORD done = 0, left[2] = {kFileBytes, kFileBytes};
    const auto own = [&](auto transfer) {
      transfer();
      if (left[0] -= size) return;
      SetFilePointerEx(file, {}, nullptr, FILE_BEGIN);
      left[0] = kFileBytes;
    };
    const auto byHand = [&](auto transfer) {
      if (transfer() < 0) std::abort();
      if (left[1] -= size) return;
      lseek(descriptor, 0, SEEK_SET);
      left[1] = kFileBytes;
    };
    const std::string name = std::to_string(size) + " bytes, one after the other";
    bench::Compare(
        "ReadFileX " + name, 1.05,
        [&] { own([&] { ReadFileX(__LINE__, __FILE__, file, buffer.data(), size, &done, nullptr); }); },
        [&] { byHand([&] { return read(descriptor, buffer.data(), size); }); }, kSmallTransferSlackNs);
    bench::Compare(
        "WriteFileX " + name, 1.05,
        [&] { own([&] { WriteFileX(__LINE__, __FILE__, file, buffer.data(), size, &done, nullptr); }); },
        [&] { byHand([&] { return write(descriptor, buffer.data(), size); }); }, kSmallTransferSlackNs);
  }
  close(descriptor);
  CloseHandle(file);
}

void CompareNames(const std::wstring& wide, const std::string& path) {
  bench::Compare(
      "GetFileSizeX", 1.3,
      [&] {
        WIN32_FIND_DATAW data;
        DWORD error = 0;
        bench::Keep(GetFileSizeX(wide.c_str(), &data, &error));
      },
      [&] {
        struct stat status;
        stat(path.c_str(), &status);
        bench::Keep(status.st_size);
      });
  const std::wstring gone = bench::WidePath("gone");
  const std::string gonePath = bench::Path("gone");
  const auto make = [&] { close(open(gonePath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666)); };
  bench::Compare(
      "DeleteFileX (with creat)", 1.2,
      [&] {
        make();
        DeleteFileX(__LINE__, __FILE__, gone.c_str(), 0, 0);
      },
      [&] {
        make();
        struct stat status;
        stat(gonePath.c_str(), &status);
        const int file = OpenForRemoval(gonePath.c_str());
        unlink(gonePath.c_str());
        close(file);
      });
  const std::wstring from = bench::WidePath("from"), to = bench::WidePath("to");
  const std::string fromPath = bench::Path("from.hand"), toPath = bench::Path("to.hand");
  CloseHandle(Open(from, GENERIC_WRITE, CREATE_ALWAYS));
  close(open(fromPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
  const auto move = [](const std::string& source, const std::string& target) {
    mkdir(bench::Folder().c_str(), 0777);
    struct stat status;
    stat(target.c_str(), &status);  // nothing there to delete
    TellMissing();
    const int file = OpenForRemoval(source.c_str());
    renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE);
    close(file);
  };
  bench::Compare(
      "MoveFileX there and back", 1.25,
      [&] {
        MoveFileX(__LINE__, __FILE__, from.c_str(), to.c_str());
        MoveFileX(__LINE__, __FILE__, to.c_str(), from.c_str());
      },
      [&] {
        move(fromPath, toPath);
        move(toPath, fromPath);
      });
}

void CompareCopy() {
  const std::wstring source = bench::WidePath("large"), target = bench::WidePath("large.copy");
  const std::vector<char> contents(64 << 20, 'c');
  Mem2File(__LINE__, __FILE__, contents.data(), static_cast<DWORD>(contents.size()), source.c_str());
  const std::string command = "cp '" + bench::Path("large") + "' '" + bench::Path("large.hand") + "'";
  bench::Compare(
      "CopyFileX 64 MiB / cp", 1.05,
      [&] { CopyFileX(__LINE__, __FILE__, source.c_str(), target.c_str(), FALSE, 0, 0); },
      [&] {
        if (std::system(command.c_str()) != 0) std::abort();
      },
      0, {9, 1});
  for (const char* name : {"large", "large.copy", "large.hand"}) unlink(bench::Path(name).c_str());
}

}  // namespace

BENCHMARK_GROUP(files) {
  const std::wstring wide = bench::WidePath("file");
  const std::string path = bench::Path("file");
  const std::vector<char> contents(kFileBytes, 'f');
  Mem2File(__LINE__, __FILE__, contents.data(), static_cast<DWORD>(contents.size()), wide.c_str());
  CompareOpening(wide, path);
  CompareTransfer(wide, path);
  CompareSequentialTransfer(wide, path);
  CompareNames(wide, path);
  CompareCopy();
}
