#include "qelibaselib/platform/linux/system/disk_question.h"

#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <new>
#include <string>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/retry_on_interrupt.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

// The folders whose threads were left behind: the process in the upper half, so that a forked child, which has none of
// the threads, finds the places free; a hash of the path in the lower one, never 0.
using Place = std::atomic<uint64_t>;
constinit Place g_left[16] = {};

uint64_t EntryFor(const char* path) {
  uint32_t hash = 2166136261;
  for (const char* at = path; *at; ++at) hash = (hash ^ static_cast<unsigned char>(*at)) * 16777619;
  return uint64_t{static_cast<uint32_t>(getpid())} << 32 | hash | 1;
}

bool IsFree(uint64_t entry, uint64_t own) { return entry == 0 || entry >> 32 != own >> 32; }

// Null when there is none.
Place* TakePlace(uint64_t own) {
  for (Place& place : g_left) {
    uint64_t entry = place.load();
    if (IsFree(entry, own) && place.compare_exchange_strong(entry, own)) return &place;
  }
  return nullptr;
}

// A thread already waits for this folder, or as many wait as may.
bool IsHopeless(uint64_t own) {
  bool isFull = true;
  for (const Place& place : g_left) {
    if (place.load() == own) return true;
    isFull = isFull && !IsFree(place.load(), own);
  }
  return isFull;
}

// What the asking thread and the waiting one share; the last of them frees it.
class Question {
 public:
  explicit Question(const char* folder) : folder_(folder) { sem_init(&answered_, 0, 0); }
  Question(const Question&) = delete;
  Question& operator=(const Question&) = delete;
  ~Question() { sem_destroy(&answered_); }

  void Ask() {
    const int result = RetryOnInterrupt([&] { return statvfs(folder_.c_str(), &figures); });
    error = result == 0 ? 0 : errno;
    sem_post(&answered_);
    FreePlace();
  }
  bool WaitForAnswer() {
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += 1;
    return RetryOnInterrupt([&] { return sem_clockwait(&answered_, CLOCK_MONOTONIC, &end); }) == 0;
  }
  // False when the answer has come after all. The place is taken before the last look, so that one of the two threads
  // frees it.
  bool LeaveBehind() {
    place_.store(TakePlace(EntryFor(folder_.c_str())));
    if (sem_trywait(&answered_) != 0) return true;
    FreePlace();
    return false;
  }

  int error = 0;
  struct statvfs figures = {};

 private:
  void FreePlace() {
    if (Place* const place = place_.exchange(nullptr)) place->store(0);
  }

  const std::string folder_;
  sem_t answered_;
  std::atomic<Place*> place_{nullptr};
};
using SharedQuestion = std::shared_ptr<Question>;

void* AskInThread(void* argument) {
  const std::unique_ptr<SharedQuestion> question(static_cast<SharedQuestion*>(argument));
  (*question)->Ask();
  return nullptr;
}

DWORD StartThread(const SharedQuestion& question) {
  constexpr size_t kStackBytes = 64 << 10;
  auto argument = std::make_unique<SharedQuestion>(question);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, kStackBytes);
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread;
  const int error = pthread_create(&thread, &attributes, &AskInThread, argument.get());
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  if (error != 0) return ERROR_NOT_ENOUGH_MEMORY;
  [[maybe_unused]] const SharedQuestion* const taken = argument.release();
  return ERROR_SUCCESS;
}

// A thread that is left behind runs on in this module.
void KeepModuleLoaded() {
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&AskInThread), &info) != 0)
    dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
}

DWORD ErrorOfAnswer(int error) {
  if (error == 0) return ERROR_SUCCESS;
  if (error == ENOENT) return ERROR_PATH_NOT_FOUND;
  return error == ENXIO || error == ENODEV ? ERROR_NOT_READY : ErrorFromErrno(error);
}

}  // namespace

DWORD AskDisk(const char* folder, struct statvfs* figures) try {
  if (IsHopeless(EntryFor(folder))) return ERROR_NOT_READY;
  const auto question = std::make_shared<Question>(folder);
  if (const DWORD error = StartThread(question)) return error;
  if (!question->WaitForAnswer() && question->LeaveBehind()) {
    KeepModuleLoaded();
    return ERROR_NOT_READY;
  }
  *figures = question->figures;
  return ErrorOfAnswer(question->error);
} catch (const std::bad_alloc&) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

}  // namespace qel::layer
