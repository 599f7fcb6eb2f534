// A host that unloads the library while a thread of it runs.
#include <dlfcn.h>

#include <chrono>
#include <fstream>

#include "test/support/library.h"

using namespace qel::test;

namespace {

bool IsMapped(const std::string& path) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);)
    if (line.ends_with(path)) return true;
  return false;
}

// A copy of the library under another name is a module of its own, which nothing else keeps loaded.
CHILD_ROLE(UnloadAfterBeep) {
  const ScratchFolder folder;
  const std::string path = folder.Narrow("copy.so");
  Dl_info info;
  if (!dladdr(reinterpret_cast<void*>(&VemoDispInf), &info)) return 1;
  std::filesystem::copy_file(info.dli_fname, path);
  void* const module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) return 2;
  const auto display = reinterpret_cast<decltype(&VemoDispInf)>(dlsym(module, "VemoDispInf"));
  display("text", FALSE);
  dlclose(module);  // the thread may have ended already; if it has not and its code is gone, this process dies
  for (int i = 0; i < 600 && IsMapped(path); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  return IsMapped(path) ? 3 : 0;
}

TEST(DisplayThread, KeepsTheLibraryUntilItHasEnded) {
  SKIP_UNDER_ASAN();
  EXPECT_EQ(ChildProcess("UnloadAfterBeep").Wait(), 0);
}

}  // namespace
