#include "bench/by_hand.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace by_hand {
namespace {

unsigned long long Field(const char* text, const char* name) {
  const char* at = std::strstr(text, name);
  return at ? std::strtoull(at + std::strlen(name), nullptr, 10) : 0;
}

const char* ProgramPath() {
  static char path[260];
  if (!path[0]) {
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    path[length > 0 ? length : 0] = '\0';
  }
  return path;
}

}  // namespace

unsigned MemoryLoad() {
  static const int file = open("/proc/meminfo", O_RDONLY | O_CLOEXEC);
  char text[4096];
  const ssize_t length = pread(file, text, sizeof text - 1, 0);
  text[length > 0 ? length : 0] = '\0';
  const auto total = Field(text, "MemTotal:"), available = Field(text, "MemAvailable:");
  return total ? static_cast<unsigned>((total - available) * 100 / total) : 0;
}

MappedMutex::MappedMutex(const char* name) : name_(name) {
  const int file = shm_open(name, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (ftruncate(file, 4096) != 0) std::abort();
  page_ = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(static_cast<pthread_mutex_t*>(page_), &attributes);
  pthread_mutexattr_destroy(&attributes);
}

MappedMutex::~MappedMutex() {
  munmap(page_, 4096);
  shm_unlink(name_.c_str());
}

void MappedMutex::Lock() {
  auto* mutex = static_cast<pthread_mutex_t*>(page_);
  timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += 60;
  if (pthread_mutex_trylock(mutex) == EBUSY) pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &deadline);
}

void MappedMutex::Unlock() { pthread_mutex_unlock(static_cast<pthread_mutex_t*>(page_)); }

void LogLine(MappedMutex& mutex, const char* path, const char* message, int line, const char* sourceFile) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  tm local;
  localtime_r(&now.tv_sec, &local);
  char text[1024];
  const int length = std::snprintf(
      text, sizeof text, "%04d/%02d/%02d, %02d:%02d:%02d.%03d, ML=%u, %s, %lu, %lu, %s(%d):%s\r\n",
      local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
      static_cast<int>(now.tv_nsec / 1000000), MemoryLoad(), ProgramPath(), static_cast<unsigned long>(getpid()),
      static_cast<unsigned long>(syscall(SYS_gettid)), sourceFile, line, message);
  mutex.Lock();
  struct stat status;
  if (stat(path, &status) != 0 || status.st_size <= 0x100000) {
    const int file = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (write(file, text, static_cast<size_t>(length)) != length) std::abort();
    close(file);
  }
  mutex.Unlock();
}

size_t WalkAddressSpace() {
  static char text[1 << 20];
  const int file = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  size_t size = 0;
  for (ssize_t part; (part = read(file, text + size, sizeof text - 1 - size)) > 0;) size += static_cast<size_t>(part);
  close(file);
  text[size] = '\0';
  unsigned long end = 0;
  size_t freeBytes = 0;
  for (const char* line = text; line && *line;) {
    char* next = nullptr;
    const unsigned long from = std::strtoul(line, &next, 16), to = std::strtoul(next + 1, &next, 16);
    freeBytes += from - end;
    end = to;
    line = std::strchr(next, '\n');
    if (line) ++line;
  }
  return freeBytes;
}

}  // namespace by_hand
