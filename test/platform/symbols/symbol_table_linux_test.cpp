#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <random>

#include "qelibaselib/platform/linux/modules/loaded_module.h"
#include "qelibaselib/platform/linux/modules/symbol_name.h"
#include "test/platform/symbols/named_place.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

using layer::ReadableName;
using layer::ReadFileSymbols;
using layer::SymbolTable;

class MemoryFile {
 public:
  explicit MemoryFile(const std::string& bytes) : file_(memfd_create("symbols", MFD_CLOEXEC)) {
    EXPECT_EQ(write(file_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  ~MemoryFile() { close(file_); }
  int get() const { return file_; }

 private:
  const int file_;
};

// A small module with a table of its own: sections, names and functions where the test puts them.
struct MadeModule {
  Elf32_Ehdr header{};
  Elf32_Shdr sections[3]{};
  Elf32_Sym symbols[4]{};
  char names[32] = "\0first\0second\0other";

  MadeModule() {
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = ELFCLASS32;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_machine = EM_386;
    header.e_shoff = offsetof(MadeModule, sections);
    header.e_shentsize = sizeof(Elf32_Shdr);
    header.e_shnum = 3;
    sections[1] = {0, SHT_SYMTAB, 0, 0, offsetof(MadeModule, symbols), sizeof symbols, 2, 0, 4, sizeof(Elf32_Sym)};
    sections[2] = {0, SHT_STRTAB, 0, 0, offsetof(MadeModule, names), sizeof names, 0, 0, 1, 0};
    symbols[1] = {1, 0x1000, 0x10, ELF32_ST_INFO(STB_LOCAL, STT_FUNC), 0, 1};
    symbols[2] = {7, 0x2000, 0, ELF32_ST_INFO(STB_GLOBAL, STT_FUNC), 0, 1};
    symbols[3] = {14, 0x1000, 0x10, ELF32_ST_INFO(STB_WEAK, STT_FUNC), 0, 1};
  }
  std::string Bytes() const { return {reinterpret_cast<const char*>(this), sizeof *this}; }
  SymbolTable Table() const { return ReadFileSymbols(MemoryFile(Bytes()).get()); }
};

std::string NameAt(const SymbolTable& table, uint32_t address) {
  const auto* function = table.Find(address);
  if (!function) return {};
  char name[64];
  table.Name(*function, name, sizeof name);
  return name;
}

TEST(SymbolTable, FindsTheFunctionAroundAnAddress) {
  const auto table = MadeModule().Table();
  EXPECT_EQ(table.size(), 2u);
  EXPECT_EQ(NameAt(table, 0xFFF), "");
  EXPECT_EQ(NameAt(table, 0x1000), "other") << "of two names the wider known one stands";
  EXPECT_EQ(NameAt(table, 0x100F), "other");
  EXPECT_EQ(NameAt(table, 0x1010), "") << "behind the function's size";
  EXPECT_EQ(NameAt(table, 0x2000), "second");
  EXPECT_EQ(NameAt(table, 0xFFFFFFFF), "second") << "a function without a size";
}

TEST(SymbolTable, TakesNothingFromAFileThatLies) {
  const auto refused = [](auto change) {
    MadeModule module;
    change(module);
    return module.Table().size() == 0;
  };
  EXPECT_TRUE(refused([](auto& m) { m.header.e_ident[0] = 'M'; }));
  EXPECT_TRUE(refused([](auto& m) { m.header.e_ident[EI_CLASS] = ELFCLASS64; }));
  EXPECT_TRUE(refused([](auto& m) { m.header.e_machine = EM_X86_64; }));
  EXPECT_TRUE(refused([](auto& m) { m.header.e_shoff = 0xFFFFFFF0; }));
  EXPECT_TRUE(refused([](auto& m) { m.header.e_shentsize = 1; }));
  EXPECT_TRUE(refused([](auto& m) { m.header.e_shnum = 0xFFFF; }));
  EXPECT_TRUE(refused([](auto& m) { m.sections[1].sh_size = 0xFFFFFFF0; }));
  EXPECT_TRUE(refused([](auto& m) { m.sections[1].sh_offset = 0xFFFFFF00; }));
  EXPECT_TRUE(refused([](auto& m) { m.sections[1].sh_entsize = 0; }));
  EXPECT_TRUE(refused([](auto& m) { m.sections[1].sh_link = 77; }));
  EXPECT_TRUE(refused([](auto& m) { m.sections[1].sh_link = 1; }));
  EXPECT_TRUE(refused([](auto& m) { m.sections[2].sh_size = 0x40000000; }));
  EXPECT_TRUE(refused([](auto& m) { ++m.sections[2].sh_size; }));  // a byte beyond the file
  EXPECT_TRUE(refused([](auto& m) { m.sections[2].sh_offset = 0xFFFFFFFF; }));
  EXPECT_TRUE(refused([](auto& m) { m.symbols[1].st_name = m.symbols[2].st_name = m.symbols[3].st_name = 0xFFFF; }));
  EXPECT_EQ(ReadFileSymbols(-1).size(), 0u);
  EXPECT_EQ(ReadFileSymbols(MemoryFile("").get()).size(), 0u);
}

TEST(SymbolTable, EndsNamesWithTheStrings) {
  MadeModule module;
  std::memset(module.names, 'x', sizeof module.names);
  const auto table = module.Table();
  EXPECT_EQ(NameAt(table, 0x2000), std::string(sizeof module.names - 7, 'x'));
  char cut[5];
  EXPECT_EQ(table.Name(*table.Find(0x2000), cut, sizeof cut), 4u);
  EXPECT_STREQ(cut, "xxxx");
}

TEST(SymbolTable, SurvivesAFileThatIsCutLater) {
  const MemoryFile file(MadeModule().Bytes());
  const SymbolTable table = ReadFileSymbols(file.get());
  ASSERT_EQ(ftruncate(file.get(), 0), 0);
  EXPECT_EQ(NameAt(table, 0x2000), "");
}

TEST(SymbolTable, SurvivesAnyFile) {
  const std::string sound = ReadWholeFile("/proc/self/exe");
  ASSERT_GT(ReadFileSymbols(MemoryFile(sound).get()).size(), 100u);
  std::mt19937 random(7);
  Elf32_Ehdr header;
  std::memcpy(&header, sound.data(), sizeof header);
  for (int round = 0; round < 200; ++round) {
    std::string bytes = sound;
    if (round % 4 == 0) {
      bytes.resize(random() % bytes.size());
    } else {
      // Where the sizes and offsets stand.
      for (int i = 0; i < 8; ++i) {
        const size_t table = header.e_shnum * sizeof(Elf32_Shdr);
        const size_t at = i % 2 ? random() % sizeof header : header.e_shoff + random() % table;
        bytes[at] = static_cast<char>(random());
      }
    }
    const MemoryFile file(bytes);
    const SymbolTable table = ReadFileSymbols(file.get());
    for (int i = 0; i < 50; ++i) NameAt(table, static_cast<uint32_t>(random()));
  }
}

// As distributions leave it in modules that they strip.
TEST(SymbolTable, ReadsMiniDebugInfo) {
  const ScratchFolder folder;
  const std::string at = "cd '" + folder.Narrow() + "' && ";
  const std::string make =
      "head -c 300000 /dev/urandom >noise && "  // what cannot be packed is copied
      "objcopy -g --only-keep-debug --add-section .noise=noise /proc/$PPID/exe hidden && xz -0 hidden && "
      "strip -s -o stripped /proc/$PPID/exe && "
      "objcopy --add-section .gnu_debugdata=hidden.xz stripped packed";
  if (std::system((at + make).c_str()) != 0) GTEST_SKIP() << "no tools that strip and pack";
  const MemoryFile sound(ReadWholeFile("/proc/self/exe")), stripped(ReadWholeFile(folder.Path() / "stripped"));
  const std::string bytes = ReadWholeFile(folder.Path() / "packed");
  const auto all = ReadFileSymbols(sound.get());
  const auto found = ReadFileSymbols(MemoryFile(bytes).get());
  ASSERT_LT(ReadFileSymbols(stripped.get()).size(), all.size() / 2);
  EXPECT_EQ(found.size(), all.size());
  Dl_info info;
  const auto local = reinterpret_cast<uint32_t>(static_cast<std::string (*)(const SymbolTable&, uint32_t)>(&NameAt));
  ASSERT_NE(dladdr(reinterpret_cast<void*>(local), &info), 0);
  const uint32_t linked = local - reinterpret_cast<uint32_t>(info.dli_fbase);
  EXPECT_NE(NameAt(all, linked), "");
  EXPECT_EQ(NameAt(found, linked), NameAt(all, linked));
  // Damage in the packed part costs names, nothing else.
  std::mt19937 random(11);
  const size_t start = bytes.find("7zXZ");
  for (int round = 0; round < 4; ++round) {
    std::string damaged = bytes;
    for (int i = 0; i < 3; ++i) damaged[start + random() % 3000] = static_cast<char>(random());
    NameAt(ReadFileSymbols(MemoryFile(damaged).get()), linked);
  }
}

std::string Readable(const char* stored, size_t size = 200) {
  std::string name(size, '?');
  ReadableName(stored, name.data(), size);
  return name.c_str();
}

TEST(SymbolName, IsWhatAReaderWrote) {
  const std::pair<const char*, const char*> names[] = {
      {"main", "main"},
      {"memcpy@@GLIBC_2.0", "memcpy"},
      {"helper.part.0", "helper"},
      {"_Z4Freei", "Free"},
      {"_ZL5Localv", "Local"},
      {"_ZN5outer5inner4CallEPKc", "outer::inner::Call"},
      {"_ZN5outer12_GLOBAL__N_16HiddenEi", "outer::Hidden"},
      {"_ZNK5outer5Thing3GetEv", "outer::Thing::Get"},
      {"_ZN5outer5ThingC2Ev", "outer::Thing::Thing"},
      {"_ZN5outer5ThingD0Ev", "outer::Thing::~Thing"},
      {"_ZNSt6thread4joinEv", "std::thread::join"},
      {"_ZN5outer4TmplIiEEvT_", "outer::Tmpl<int>"},
      {"_Z5ApplyIPFvvEEiT_", "Apply<void (*)()>"},
      {"_ZN5ThingeqERKS_", "Thing::operator=="},
      {"_ZN5ThingcvjEv", "Thing::operator unsigned int"},
      {"_ZN5outer3RunEv.cold", "outer::Run"},
      {"_ZZN5outer3RunEvENKUliE_clEi", "outer::Run()::{lambda(int)#1}::operator()"},
      {"_Z", "_Z"},
      {"_ZN", "_ZN"},
      {"_ZN99999999999999999999aE", "_ZN99999999999999999999aE"},
      {"_ZN3abcD", "_ZN3abcD"},
      {"", ""},
  };
  for (const auto& [stored, readable] : names) EXPECT_EQ(Readable(stored), readable) << stored;
  EXPECT_EQ(Readable("_ZN5outer5inner4CallEPKc", 9), "outer::i");
  EXPECT_EQ(Readable("main", 1), "");
}

TEST(Symbols, FollowModulesThatComeAndGo) {
  // Something that this program does not load by itself.
  void* module = dlopen("libnsl.so.1", RTLD_NOW);
  if (!module) GTEST_SKIP() << dlerror();
  const auto function = reinterpret_cast<DWORD>(dlvsym(module, "yp_all", "GLIBC_2.0"));
  if (!function) GTEST_SKIP() << dlerror();
  for (int round = 0; round < 3; ++round) {
    const Session session;
    EXPECT_EQ(NameOf(function).name, "yp_all");
  }
  dlclose(module);
  const Session session;
  EXPECT_EQ(NameOf(function).displacement, ERROR_MOD_NOT_FOUND);
}

}  // namespace
}  // namespace qel::test
