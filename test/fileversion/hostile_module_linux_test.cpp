// Modules that somebody has tampered with: nothing is read outside them. On Windows the parser is the system's.
#include <sys/resource.h>

#include <random>

#include "test/fileversion/module_builder.h"
#include "test/support/library.h"

namespace {

using namespace qel::test;

// Reads all that there is to read, as a host would.
void ReadAll(const std::wstring& file, const ByteVector& bytes, const std::filesystem::path& path) {
  WriteWholeFile(path, {bytes.begin(), bytes.end()});
  const VersionHandle version(file);
  ASSERT_NE(version.handle, nullptr);
  if (char** strings = version.strings()) {
    for (int column = 0; column < kVersionStringCount; ++column) {
      if (strings[column]) {
        ASSERT_LT(std::strlen(strings[column]), 200000u);
      }
    }
  }
}

TEST(HostileModule, DamagedBytesAndCutFilesNeverFault) {
  const ScratchFolder folder;
  const std::wstring file = folder.Wide("module.dll");
  const auto path = folder.Path() / "module.dll";
  const ByteVector sound = BuildModule(
      BuildVersionResource({{{"040904e4", {{"CompanyName", u"ACME"}, {"FileVersion", std::u16string(300, u'\u20AC')}}}},
                            {{0x0409, 0x04E4}}}));
  std::mt19937 random(20240305);
  const auto below = [&](size_t limit) { return random() % limit; };
  constexpr int kRounds = 6000;
  for (int round = 0; round < kRounds; ++round) {
    ByteVector bytes = sound;
    const size_t changes = 1 + below(4);
    for (size_t i = 0; i < changes; ++i) {
      // Half of the damage goes where offsets and lengths stand.
      const size_t at = below(2) ? below(bytes.size()) : 0x3C + below(0x200);
      static constexpr uint8_t kInteresting[] = {0, 1, 0x7F, 0x80, 0xFF};
      bytes[at % bytes.size()] = below(2) ? kInteresting[below(5)] : static_cast<uint8_t>(random());
    }
    if (below(8) == 0) bytes.resize(below(bytes.size()));
    ReadAll(file, bytes, path);
  }
  EXPECT_TRUE(TakeLines(qel::channel::kAssert).empty()) << "a fault was caught by the guard";
}

TEST(HugeModule, IsNotReadWhole) {
  const ScratchFolder folder;
  const auto path = folder.Path() / "huge.dll";
  const ByteVector module =
      BuildModule(BuildVersionResource({{{"040904e4", {{"CompanyName", u"ACME"}}}}, {{0x0409, 0x04E4}}}));
  WriteWholeFile(path, {module.begin(), module.end()});
  std::filesystem::resize_file(path, 1'900'000'000);
  rusage before, after;
  getrusage(RUSAGE_SELF, &before);
  const VersionHandle version(folder.Wide("huge.dll"));
  getrusage(RUSAGE_SELF, &after);
  char** strings = version.strings();
  ASSERT_NE(strings, nullptr);
  EXPECT_STREQ(strings[1], "ACME");
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 32 * 1024) << "in KiB";
}

}  // namespace
