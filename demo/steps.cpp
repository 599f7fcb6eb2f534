#include "demo/steps.h"

#include <cstdio>
#include <cstring>

#include "demo/chart.h"
#include "demo/image.h"
#include "demo/image_folder.h"
#include "demo/second_process.h"
#include "qelibaselib/qelibaselib.h"

namespace {

constexpr DWORD kObjectBytes = 8u << 20;

// Called by the library's watchdog when an image takes too long; the thread that works goes on.
void CALLBACK LogOverrun(unsigned long startTick, void*, unsigned long threadId, void* argument) {
  char message[160];
  std::snprintf(message, sizeof message, "image operation of thread %lu runs for %lu ms: %s", threadId,
                GetTickCount() - startTick, static_cast<const char*>(argument));
  VemoLogOutMisc(message, __LINE__, __FILE__);
}

// Lines of a text file that hold a word; prints them.
int PrintLinesWith(const std::wstring& path, const char* word, int most) {
  FILE* file = _wfopen(path.c_str(), L"rt");
  if (!file) return 0;
  char line[1024];
  int found = 0;
  while (std::fgets(line, sizeof line, file)) {
    if (!std::strstr(line, word)) continue;
    if (++found <= most) std::printf("  | %s", line);
  }
  std::fclose(file);
  return found;
}

}  // namespace

void Title(const char* text) { std::printf("\n== %s\n", text); }

void ShowImages(const Folders& folders, const std::vector<std::wstring>& images) {
  Title("images: read, filtered in parallel, written, each under a watchdog");
  CWatchThreadStat2 watcher;
  int done = 0, skipped = 0, threads = 1;
  unsigned long long pixels = 0;
  for (const auto& path : images) {
    std::string name = Narrow(PathFindFileNameW(path.c_str()));
    const CWatchThreadStat2Wrap watch(&watcher, 2000, 2000, &LogOverrun, name.data());
    Image image, filtered;
    if (LoadImage24(path, image)) {
      threads = Filter(image, filtered);
      pixels += static_cast<unsigned long long>(image.width) * static_cast<unsigned long long>(image.height);
      if (SaveBmp(Join(folders.output, Wide(name + ".bmp")), filtered)) ++done;
    } else {
      ++skipped;
      VemoLogOutMisc(("no image that is understood: " + name).c_str(), __LINE__, __FILE__);
    }
    std::printf("\r  %d of %zu images", done + skipped, images.size());
    std::fflush(stdout);
  }
  std::printf("\n  %d filtered (%llu pixels, up to %d threads), %d skipped\n", done, pixels, threads, skipped);
}

void ShowHeldFile(const Folders& folders) {
  Title("a file that another process holds is waited for");
  const std::wstring path = Join(folders.work, L"held.bmp");
  SaveBmp(path, MakeImage(64, 64, 5));
  const std::wstring readyName = L"Local\\QelDemoHeld_" + std::to_wstring(GetCurrentProcessId());
  HANDLE ready = CreateEventX(__LINE__, __FILE__, nullptr, TRUE, FALSE, readyName.c_str());
  SecondProcess holder("hold", {path, readyName, L"1000"});
  if (!holder.Started() || WaitForSingleObject(ready, 10000) != WAIT_OBJECT_0) {
    CloseHandle(ready);
    return;
  }
  const DWORD start = GetTickCount();
  HANDLE file = CreateFileX(__LINE__, __FILE__, path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                            FILE_ATTRIBUTE_NORMAL, nullptr, 5000, 200);
  std::printf("  opened %s after %lu ms; what the file channel says of it:\n",
              file != INVALID_HANDLE_VALUE ? "" : "not", GetTickCount() - start);
  if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
  PrintLinesWith(Join(folders.log, L"VemoFileOperation_7EFEA029.txt"), "Complete", 1);
  holder.Wait();
  CloseHandle(ready);
}

void ShowSharedMemory(const Folders& folders) {
  Title("an image stack in shared memory, saved, and loaded again by a second process");
  const std::wstring name = L"Local\\QelDemoStack_" + std::to_wstring(GetCurrentProcessId());
  const std::wstring copyName = name + L"_copy";
  HANDLE stack = CreateFileMappingX(__LINE__, __FILE__, INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, kObjectBytes, 0,
                                    name.c_str());
  HANDLE copy = CreateFileMappingX(__LINE__, __FILE__, INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, kObjectBytes, 0,
                                   copyName.c_str());
  void* view = MapViewOfFileX(__LINE__, __FILE__, stack, FILE_MAP_ALL_ACCESS, 0, 0, 0, 1000);
  void* copyView = MapViewOfFileX(__LINE__, __FILE__, copy, FILE_MAP_ALL_ACCESS, 0, 0, 0, 1000);
  if (view && copyView) {
    for (DWORD slice = 0; slice < 8; ++slice) {
      const Image image = MakeImage(512, 512, static_cast<int>(slice));
      _MemCpy(static_cast<char*>(view) + slice * (kObjectBytes / 8), image.pixels.data(),
              static_cast<DWORD>(image.pixels.size()), __LINE__, __FILE__);
    }
    const std::wstring file = Join(folders.work, L"stack.raw");
    const BOOL saved = ObjectToFile(__LINE__, __FILE__, name.c_str(), kObjectBytes, 0, file.c_str(), -1);
    SecondProcess loader("load", {file, copyName, std::to_wstring(kObjectBytes)});
    const bool loaded = loader.Wait() == 0;
    const bool same = _MemCmp(view, copyView, kObjectBytes, __LINE__, __FILE__) == 0;
    std::printf("  %lu MiB saved: %s, loaded by the second process: %s, the same: %s\n", kObjectBytes >> 20,
                saved ? "yes" : "no", loaded ? "yes" : "no", same ? "yes" : "no");
  }
  for (void* mapped : {view, copyView})
    if (mapped) UnmapViewOfFileX(__LINE__, __FILE__, mapped);
  for (HANDLE object : {stack, copy})
    if (object) CloseHandle(object);
}

void ShowTrees(const Folders& folders) {
  Title("the output tree copied, sized and deleted");
  const std::wstring copy = Join(folders.work, L"copy");
  unsigned long long size = 0, copySize = 0;
  GetFileSizeDirectoryTree(__LINE__, __FILE__, folders.output.c_str(), &size);
  const BOOL copied = CopyDirectoryTree(__LINE__, __FILE__, folders.output.c_str(), copy.c_str());
  GetFileSizeDirectoryTree(__LINE__, __FILE__, copy.c_str(), &copySize);
  const BOOL deleted = DeleteDirectoryTree(__LINE__, __FILE__, copy.c_str(), TRUE, TRUE);
  std::printf("  %llu bytes, copied: %s (%llu bytes), copy deleted: %s\n", size, copied ? "yes" : "no", copySize,
              deleted ? "yes" : "no");
}

void ShowSurvivedFault() {
  Title("a fault inside an exported call ends in its failure value");
  const auto* bad = reinterpret_cast<const wchar_t*>(0x10);  // no such address
  HANDLE file = CreateFileX(__LINE__, __FILE__, bad, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr, 0, 0);
  std::printf("  CreateFileX with an unreadable name: %s, and the process lives\n",
              file == INVALID_HANDLE_VALUE ? "INVALID_HANDLE_VALUE" : "a handle?!");
}

void ShowStartUpChecks() {
  Title("start-up checks: a second start is refused");
  const std::wstring stem = L"QelDemo_" + std::to_wstring(GetCurrentProcessId());
  const int first = VemoChkMultiStartUp(__LINE__, __FILE__, stem.c_str(), FALSE, 0);
  SecondProcess second("start", {stem});
  std::printf("  first instance: %d, second instance: %lu, system version known: %s\n", first, second.Wait(),
              VemoChkOSVer() ? "yes" : "no");
}

void ShowBenchmark() {
  Title("benchmark of this machine");
  CQelSystemBenchmark benchmark;
  benchmark.m_iterations = 3;
  const T_RESULT result = benchmark.OverAll();
  std::vector<std::pair<std::string, double>> figures{
      {"memory, sequential copy", result.memorySequentialReadWrite},
      {"mapped file, sequential copy", result.mappedSequentialReadWrite}};
  for (long threads = 1; benchmark.m_threadRates && threads <= benchmark.m_maximumThreads; ++threads)
    figures.emplace_back("pixel loop, " + std::to_string(threads) + " threads", benchmark.m_threadRates[threads]);
  PrintBars(figures, "MiB/s");
  benchmark.LogOutResult("demo", L"demo", 0);
}

void ShowCrashReport(const Folders& folders) {
  Title("a second process crashes on purpose; its report names the function and its caller");
  SecondProcess victim("crash", {});
  std::printf("  it ended with code 0x%lx; from the report:\n", victim.Wait());
  const std::wstring report = Join(folders.log, L"VemoExceptLogOut_4DE2C31F.txt");
  PrintLinesWith(report, "ExceptionCode", 4);
  PrintLinesWith(report, "SumPixels", 1);
  PrintLinesWith(report, "MeasureBrightness", 1);
  VemoModuleStatusLogOut(L"demo", "on demand");
}

void ShowLogFolder(const Folders& folders) {
  Title("the log folder now");
  WIN32_FIND_DATAW entry;
  HANDLE find = FindFirstFileW(Join(folders.log, L"*.txt").c_str(), &entry);
  if (find == INVALID_HANDLE_VALUE) return;
  do {
    const int lines = PrintLinesWith(Join(folders.log, entry.cFileName), "", 0);
    std::printf("  %-44s %7lu bytes %5d lines\n", Narrow(entry.cFileName).c_str(), entry.nFileSizeLow, lines);
  } while (FindNextFileW(find, &entry));
  FindClose(find);
  std::printf("  in %s\n", Narrow(folders.log).c_str());
}
