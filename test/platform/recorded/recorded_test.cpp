// Each section of the records is a test; see script.h.
#include <gtest/gtest.h>

#include "test/platform/recorded/script.h"
#include "test/support/scratch_folder.h"

namespace qel::test {
namespace {

class RecordedSection : public testing::Test {
 public:
  explicit RecordedSection(Section section) : section_(std::move(section)) {}
  void TestBody() override {
    const std::vector<std::string> given = AskAll(section_);
    for (size_t i = 0; i < given.size(); ++i)
      EXPECT_TRUE(given[i] == section_.lines[i]) << "recorded: " << section_.lines[i] << "\n   given: " << given[i];
  }

 private:
  const Section section_;
};

const bool kRegistered = [] {
  for (const auto& file : std::filesystem::directory_iterator(QEL_RECORDS)) {
    if (file.path().extension() != ".golden") continue;
    for (const Section& section : ReadSections(ReadWholeFile(file.path())))
      testing::RegisterTest(file.path().stem().c_str(), section.name.c_str(), nullptr, nullptr, __FILE__, __LINE__,
                            [section]() -> testing::Test* { return new RecordedSection(section); });
  }
  return true;
}();

}  // namespace
}  // namespace qel::test
