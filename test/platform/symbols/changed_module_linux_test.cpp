// Names of a module whose file is no longer what was loaded.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "test/platform/symbols/named_place.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

struct FileChange {
  const char* name;
  void (*make)(const fs::path& file);
};

const FileChange kChanges[] = {
    {"none", [](const fs::path&) {}},
    {"deleted", [](const fs::path& file) { fs::remove(file); }},
    {"replaced",
     [](const fs::path& file) {
       fs::remove(file);
       fs::copy_file("/proc/self/exe", file);
     }},
    {"cut", [](const fs::path& file) { fs::resize_file(file, fs::file_size(file) - 600); }},
    {"no module any more",
     [](const fs::path& file) {
       fs::remove(file);
       std::ofstream(file) << "text";
     }},
};

TEST(ChangedModule, KeepsItsNames) {
  ScratchFolder folder;
  for (const auto& change : kChanges) {
    SCOPED_TRACE(change.name);
    const fs::path file = folder.Path() / (std::string("copy of ") + change.name + ".so");
    fs::copy_file(fs::canonical("/usr/lib32/libnsl.so.1"), file);
    const std::unique_ptr<void, int (*)(void*)> copy(dlopen(file.c_str(), RTLD_NOW), &dlclose);
    ASSERT_TRUE(copy) << dlerror();
    const auto function = reinterpret_cast<DWORD>(dlvsym(copy.get(), "yp_all", "GLIBC_2.0"));
    ASSERT_NE(function, 0u);
    change.make(file);
    const Session session;
    EXPECT_EQ(NameOf(function + 7).name, "yp_all");
    EXPECT_EQ(NameOf(function + 7).displacement, 7u);
    // The start of the module is no function.
    const DWORD start = SymGetModuleBase(GetCurrentProcess(), function);
    EXPECT_EQ(NameOf(start + 0x12).name, file.filename());
    EXPECT_EQ(NameOf(start + 0x12).displacement, 0x12u);
  }
}

TEST(ChangedModule, IsStillNamedWhenNothingIsLeftOfItsFile) {
  ScratchFolder folder;
  const fs::path file = folder.Path() / "empty.so";
  fs::copy_file(fs::canonical("/usr/lib32/libnsl.so.1"), file);
  // In a child: neither the module nor a process that holds it can be left in an orderly way any more.
  const auto look = [&] {
    const auto function = reinterpret_cast<DWORD>(dlvsym(dlopen(file.c_str(), RTLD_NOW), "yp_all", "GLIBC_2.0"));
    fs::resize_file(file, 0);
    SymInitialize(GetCurrentProcess(), nullptr, TRUE);
    std::fprintf(stderr, "%s and %s", NameOf(function).name.c_str(),
                 NameOf(reinterpret_cast<DWORD>(&NameOf)).name.c_str());
    _exit(0);
  };
  EXPECT_EXIT(look(), testing::ExitedWithCode(0), "empty.so and qel::test::NameOf");
}

TEST(KernelsModule, HasItsNamesInMemory) {
  const Session session;
  DWORD entry;
  __asm__("movl %%gs:0x10, %0" : "=r"(entry));  // where the C library enters the kernel
  EXPECT_EQ(NameOf(entry).name, "__kernel_vsyscall");
}

}  // namespace
}  // namespace qel::test
