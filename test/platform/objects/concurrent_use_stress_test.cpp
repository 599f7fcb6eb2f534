// Several threads do everything at once to the same handles, names, files and addresses. Under the thread sanitizer
// (script/test tsan) this is where the layer's own structures are looked at.
#include <memory>
#include <random>

#include "test/platform/files/file_calls.h"
#include "test/platform/memory/mapped_file.h"
#include "test/support/child_process.h"
#include "test/support/open_handles.h"

using namespace qel::test;

namespace {

using Random = std::minstd_rand;
constexpr unsigned kThreads = 4;

// Each thread calls `turn(random)` so many times, until one answers false. They begin together.
template <class Turn>
void RunTurns(int turns, Turn turn) {
  const Handle go = NewEvent(true);
  std::vector<std::unique_ptr<Worker>> workers;
  for (unsigned i = 0; i < kThreads; ++i)
    workers.push_back(std::make_unique<Worker>([&, i]() -> DWORD {
      Random random(i + 1);
      WaitForSingleObject(go, INFINITE);
      for (int done = 0; done < turns; ++done)
        if (!turn(random)) return 1;
      return 0;
    }));
  SetEvent(go);
  for (auto& worker : workers) EXPECT_EQ(worker->Join(), 0u);
}

HANDLE NewObject(Random& random) {
  switch (random() % 4) {
    case 0:
      return CreateMutexW(nullptr, FALSE, nullptr);
    case 1:
      return CreateSemaphoreW(nullptr, 1, 2, nullptr);
    case 2:
      return CreateWaitableTimerA(nullptr, FALSE, nullptr);
    default:
      return CreateEventW(nullptr, random() % 2, TRUE, nullptr);
  }
}

// What others use at that moment is closed and given out again. Nothing of it stays.
TEST(ConcurrentUse, Handles) {
  const HANDLE process = GetCurrentProcess();
  Handle(NewEvent()).Close();
  const unsigned long before = OpenHandleCount();
  std::atomic<HANDLE> shared[8] = {};
  RunTurns(4000, [&](Random& random) {
    std::atomic<HANDLE>& place = shared[random() % std::size(shared)];
    const HANDLE seen = place;
    HANDLE copy = nullptr;
    const HANDLE handles[] = {seen, shared[0]};
    const LARGE_INTEGER soon = {{1, 0}};
    switch (random() % 7) {
      case 0:
        Handle(place.exchange(NewObject(random))).Close();
        break;
      case 1:
        if (DuplicateHandle(process, seen, process, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS))
          Handle(place.exchange(copy)).Close();
        break;
      case 2:
        WaitForMultipleObjects(2, handles, random() % 2, random() % 2);
        break;
      case 3:
        SetEvent(seen);
        SetWaitableTimer(seen, &soon, 1, nullptr, nullptr, FALSE);
        break;
      case 4:
        ReleaseSemaphore(seen, 1, nullptr);
        break;
      default:
        WaitForSingleObject(seen, random() % 2);
        break;
    }
    ReleaseMutex(seen);
    return true;
  });
  for (std::atomic<HANDLE>& place : shared) Handle(place.exchange(nullptr)).Close();
  EXPECT_EQ(OpenHandleCount(), before);
}

// The mutex of a name excludes, whoever made it, also while its last handle goes and others come. The count is no
// atomic one: the mutex is what keeps it right.
TEST(ConcurrentUse, Names) {
  struct Name {
    std::wstring mutex = UniqueName(), event = UniqueName(), other = UniqueName();
    unsigned count = 0;
  } names[3];
  constexpr int kTurns = 1500;
  const Handle held = CreateMutexW(nullptr, FALSE, names[0].mutex.c_str());
  RunTurns(kTurns, [&](Random& random) {
    Name& name = names[random() % std::size(names)];
    const Handle event = CreateEventW(nullptr, FALSE, TRUE, name.event.c_str());
    const Handle opened = OpenEventW(EVENT_ALL_ACCESS, FALSE, name.event.c_str());
    const Handle other = random() % 2 ? CreateSemaphoreW(nullptr, 0, 1, name.other.c_str())
                                      : CreateMutexW(nullptr, FALSE, name.other.c_str());
    SetEvent(opened);
    const Handle mutex = CreateMutexW(nullptr, FALSE, name.mutex.c_str());
    if (!opened || WaitForSingleObject(mutex, kLongMs) != WAIT_OBJECT_0) return false;
    ++name.count;
    return ReleaseMutex(mutex) != FALSE;
  });
  EXPECT_EQ(names[0].count + names[1].count + names[2].count, kThreads * kTurns);
}

// The mutex of a thread that ends goes to one of those that wait for it.
TEST(ConcurrentUse, Threads) {
  const Handle mutex = CreateMutexW(nullptr, FALSE, UniqueName().c_str());
  const DWORD slot = TlsAlloc();
  unsigned owners = 0;
  constexpr int kTurns = 60;
  RunTurns(kTurns, [&](Random&) {
    Worker owner([&]() -> DWORD {
      if (!TlsSetValue(slot, &owners) || !TlsFree(TlsAlloc())) return 3;
      const DWORD result = WaitForSingleObject(mutex, kLongMs);
      if (result != WAIT_OBJECT_0 && result != WAIT_ABANDONED) return 1;
      ++owners;
      return TlsGetValue(slot) == &owners ? 0 : 2;
    });
    return owner.Join() == 0;
  });
  TlsFree(slot);
  EXPECT_EQ(owners, kThreads * kTurns);
}

// Blocks, views and locked pages come and go beside each other, and each thread finds its own as they are.
TEST(ConcurrentUse, Addresses) {
  constexpr SIZE_T kBytes = 128 << 10, kPage = 4096;
  const MappedFile file(256 << 10);
  const Handle opened = file.Open(GENERIC_READ | GENERIC_WRITE);
  const Handle mapping = CreateFileMappingW(opened, nullptr, PAGE_READWRITE, 0, 0, nullptr);
  const unsigned long before = OpenHandleCount();
  RunTurns(100, [&](Random& random) {
    auto* const block = static_cast<char*>(VirtualAlloc(nullptr, kBytes, MEM_RESERVE, PAGE_READWRITE));
    char* const pages = block + kPage;
    if (!block || VirtualAlloc(pages, 2 * kPage, MEM_COMMIT, PAGE_READWRITE) != pages) return false;
    pages[kPage] = 1;
    View view(mapping, FILE_MAP_WRITE, (random() % 2) << 16, kPage);
    const Handle another = CreateFileMappingW(file.handle(), nullptr, PAGE_READONLY, 0, 0, nullptr);
    DWORD former = 0;
    const bool good = view && another && VirtualLock(pages, kPage) && Query(block).AllocationBase == block &&
                      Query(pages).RegionSize == 2 * kPage && Query(view.base()).Type == MEM_MAPPED &&
                      VirtualProtect(pages, kPage, PAGE_READONLY, &former) && former == PAGE_READWRITE &&
                      VirtualUnlock(pages, kPage) && VirtualFree(pages, kPage, MEM_DECOMMIT);
    return VirtualFree(block, 0, MEM_RELEASE) && good;
  });
  EXPECT_EQ(OpenHandleCount(), before);
}

// A file that shares nothing is had by one at a time, while it is deleted and made again under the others.
TEST(ConcurrentUse, Files) {
  const ScratchFolder folder;
  struct Wanted {
    std::wstring name;
    std::atomic<int> owners{0};
  } wanted[2];
  for (size_t i = 0; i < std::size(wanted); ++i) wanted[i].name = folder.Wide("wanted-" + std::to_string(i));
  const FileHandle ranges(folder.Wide("ranges"));
  std::atomic<int> had{0};
  RunTurns(300, [&](Random& random) {
    Wanted& file = wanted[random() % std::size(wanted)];
    const DWORD flags = random() % 4 == 0 ? FILE_FLAG_DELETE_ON_CLOSE : FILE_ATTRIBUTE_NORMAL;
    const bool alone = random() % 2 == 0;
    FileHandle handle(file.name, kRW, alone ? 0 : kShareAll, OPEN_ALWAYS, flags);
    if (handle.IsOpen() && alone) {
      ++had;
      const bool isAlone = ++file.owners == 1;
      --file.owners;
      if (!isAlone) return false;
    }
    DWORD bytes = 0;
    if (handle.IsOpen() && (!WriteFile(handle, "text", 4, &bytes, nullptr) || bytes != 4)) return false;
    OVERLAPPED range = {};
    range.Offset = random() % 4;
    if (LockFileEx(ranges, LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &range)) UnlockFileEx(ranges, 0, 1, 0, &range);
    return true;
  });
  EXPECT_GT(had, 0);
}

// What the layer makes at its first use, or learns then and keeps, when the first users come at once.
CHILD_ROLE(UseAllFirst) {
  const std::wstring path = Widen(arguments[0]), name = Widen(arguments[1]);
  RunTurns(1, [&](Random&) {
    const FileHandle file(path);
    const Handle mapping = CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, 4096, name.c_str());
    const View view(mapping, FILE_MAP_WRITE, 0, 0);
    const Handle mutex = CreateMutexW(nullptr, FALSE, (L"Global\\" + name).c_str());
    MEMORYSTATUSEX memory = {};
    memory.dwLength = sizeof memory;
    SYSTEMTIME time;
    GetLocalTime(&time);
    wchar_t user[257];
    DWORD size = std::size(user);
    return view && mutex && SetThreadPriority(GetCurrentThread(), 1) && GlobalMemoryStatusEx(&memory) &&
           GetUserNameW(user, &size) && GetCurrentProcessId() != 0;
  });
  return testing::Test::HasFailure();
}

TEST(ConcurrentUse, FirstUses) {
  const ScratchFolder folder;
  for (int i = 0; i < 5; ++i) {
    ChildProcess child("UseAllFirst", {folder.Narrow("file"), Narrow(UniqueName())});
    EXPECT_EQ(child.Wait(), 0);
  }
}

}  // namespace
