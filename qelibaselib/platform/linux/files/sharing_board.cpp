#include "qelibaselib/platform/linux/files/sharing_board.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>

#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/base/file_size_limit.h"
#include "qelibaselib/platform/linux/base/fork_count.h"
#include "qelibaselib/platform/linux/base/page_size.h"
#include "qelibaselib/platform/linux/objects/object_locks.h"
#include "qelibaselib/platform/linux/objects/shared_folder.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

// The number is that of the layout; a program of 64 bits, whose mutexes are longer, has a page of its own.
constexpr const char* kFileName = sizeof(void*) == 4 ? "file-sharing-1" : "file-sharing-1-64";
constexpr uint32_t kReady = 0x51454C31;
static_assert(sizeof(SharingBoard) <= kPageSize);

// A page and the descriptor that holds it. Never freed: a thread may use it while the process ends.
struct AttachedBoard {
  SharingBoard* board = nullptr;
  int descriptor = -1;
  unsigned forks = g_forkCount;
};

constinit SharingBoard g_ownBoard = {};
constinit AttachedBoard g_own{&g_ownBoard, -1, 0};
constinit std::atomic<AttachedBoard*> g_attached{nullptr};

void InitialiseGates(SharingBoard& board, int shared) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, shared);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  // Moving a file to another disk opens both files with the gate of the first held, and both may have the same gate.
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  for (pthread_mutex_t& gate : board.gates) pthread_mutex_init(&gate, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

SharingBoard* MapBoard(int file) {
  void* const page = mmap(nullptr, kPageSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  return page == MAP_FAILED ? nullptr : static_cast<SharingBoard*>(page);
}

enum class Joining { kJoined, kAgain, kFailed };

// Nobody else uses the file, so whatever stands in it is over.
Joining MakeBoard(int file, SharingBoard** board) {
  const FileGrowth growth;
  if (fallocate(file, 0, 0, kPageSize) != 0 || (*board = MapBoard(file)) == nullptr) return Joining::kFailed;
  (*board)->isReady.store(0);
  (*board)->hasStandIns.store(0);
  InitialiseGates(**board, PTHREAD_PROCESS_SHARED);
  (*board)->isReady.store(kReady);
  return TryHoldShared(file) ? Joining::kJoined : Joining::kFailed;
}

// A maker that was killed leaves a page that is not ready; the next try makes it anew.
Joining UseBoard(int file, SharingBoard** board) {
  struct stat status;
  if (!TryHoldShared(file)) return Joining::kAgain;
  if (fstat(file, &status) != 0) return Joining::kFailed;
  if (status.st_nlink == 0 || status.st_size < static_cast<off_t>(kPageSize)) return Joining::kAgain;
  if ((*board = MapBoard(file)) == nullptr) return Joining::kFailed;
  if ((*board)->isReady.load() == kReady) return Joining::kJoined;
  munmap(*board, kPageSize);
  return Joining::kAgain;
}

Joining JoinBoard(int folder, uid_t user, AttachedBoard* attached) {
  Descriptor file(openat(folder, kFileName, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (file.get() < 0 && errno == EACCES) return Joining::kAgain;  // made a moment ago, under a strict umask
  if (file.get() < 0 || fchmod(file.get(), 0600) != 0 || !IsOwnFile(file.get(), user)) return Joining::kFailed;
  Joining result = Joining::kAgain;
  if (TryHoldExclusive(file.get())) {
    struct stat status;
    if (fstat(file.get(), &status) == 0 && status.st_nlink != 0) result = MakeBoard(file.get(), &attached->board);
  } else if (HolderOf(file.get()) == FileHolder::kUser) {
    result = UseBoard(file.get(), &attached->board);
  }
  if (result == Joining::kFailed) LeaveFile(folder, file.get(), kFileName);
  if (result == Joining::kJoined) attached->descriptor = file.Detach();
  return result;
}

bool Attach(AttachedBoard* attached) {
  constexpr int kTries = 200;
  constexpr useconds_t kPauseUs = 50;
  SharedFolder folder;
  DWORD error = ERROR_SUCCESS;
  const uid_t user = geteuid();
  Joining result = Joining::kAgain;
  for (int i = 0; i < kTries && result == Joining::kAgain; ++i) {
    if (i > 0) usleep(kPauseUs);
    folder.ForgetIfRemoved();
    const int descriptor = folder.Open(user, &error);
    if (descriptor < 0) break;
    result = JoinBoard(descriptor, user, attached);
  }
  if (result != Joining::kJoined) folder.RemoveIfEmpty();
  folder.Forget();
  return result == Joining::kJoined;
}

AttachedBoard* MakeOwn() {
  if (g_ownBoard.isReady.exchange(kReady) != kReady) InitialiseGates(g_ownBoard, PTHREAD_PROCESS_PRIVATE);
  return &g_own;
}

// Of threads that come at once each attaches a page, one keeps it, and the others take theirs back.
AttachedBoard* AttachOrMakeOwn() {
  std::unique_ptr<AttachedBoard> attached(new (std::nothrow) AttachedBoard);
  const bool isShared = attached && Attach(attached.get());
  AttachedBoard* const chosen = isShared ? attached.get() : MakeOwn();
  AttachedBoard* former = nullptr;
  if (g_attached.compare_exchange_strong(former, chosen)) {
    if (isShared) (void)attached.release();
    return chosen;
  }
  if (isShared) {
    munmap(attached->board, kPageSize);
    close(attached->descriptor);
  }
  return former;
}

const AttachedBoard& Attached() {
  const AttachedBoard* const attached = g_attached.load(std::memory_order_acquire);
  return attached ? *attached : *AttachOrMakeOwn();
}

unsigned long long HashOf(FileKey file) {
  unsigned long long hash = (file.device * 0x9E3779B97F4A7C15ull) ^ file.node;
  hash = (hash ^ (hash >> 32)) * 0xD6E8FEB86659FD93ull;
  hash = (hash ^ (hash >> 32)) * 0xD6E8FEB86659FD93ull;
  return hash ^ (hash >> 32);
}

}  // namespace

pthread_mutex_t& SharingBoard::GateOf(FileKey file) { return gates[HashOf(file) % kGates]; }

SharingBoard& OpenSharingBoard() { return *Attached().board; }

// Stand-ins lie behind the page, in steps that are longer than the bytes of one file, and end before the largest
// offset.
off_t StandInOf(FileKey file) {
  constexpr int kStepBits = 8, kPlaceBits = 52;
  const unsigned long long place = HashOf(file) & ((1ull << kPlaceBits) - 1);
  return static_cast<off_t>((place + kPageSize) << kStepBits);
}

int SharingBoardDescriptor() { return Attached().descriptor; }

int OpenStandIns() {
  const int board = SharingBoardDescriptor();
  if (board < 0) return -1;
  char name[32];
  std::snprintf(name, sizeof name, "/proc/self/fd/%d", board);
  Descriptor file(open(name, O_RDWR | O_CLOEXEC));
  return file.Detach();
}

void LeaveSharingBoard() {
  const AttachedBoard* const attached = g_attached.load();
  if (!attached || attached->descriptor < 0 || attached->forks != g_forkCount) return;
  SharedFolder folder;
  DWORD error;
  const int descriptor = folder.Open(geteuid(), &error);
  if (descriptor >= 0 && IsOwnFile(attached->descriptor, geteuid())) {
    LeaveFile(descriptor, attached->descriptor, kFileName);
    folder.RemoveIfEmpty();
  }
  folder.Forget();
}

}  // namespace qel::layer
