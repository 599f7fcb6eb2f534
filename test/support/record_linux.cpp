// Each section is a test that compares with the record.
#include <gtest/gtest.h>

#include <sstream>

#include "test/support/record.h"
#include "test/support/scratch_folder.h"

namespace qel::test {
namespace {

// A line of the file that begins with blanks continues the one before it.
std::string RecordedSection(const std::string& folder, const std::string& name) {
  std::istringstream file(ReadWholeFile(std::string(QEL_TEST_FOLDER) + "/platform/" + folder + ".golden"));
  std::string result;
  bool isInside = false;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("== ")) {
      isInside = line == "== " + name;
    } else if (isInside && !line.empty()) {
      if (line.starts_with("  ")) result.pop_back();
      result += line.substr(line.starts_with("  ") ? 1 : 0) + "\n";
    }
  }
  return result;
}

class RecordedCalls : public testing::Test {
 public:
  RecordedCalls(const char* folder, const char* name, RecordSection section)
      : folder_(folder), name_(name), section_(section) {}
  void TestBody() override {
    Record record;
    section_(record);
    std::istringstream recorded(RecordedSection(folder_, name_)), given(record.Finish());
    for (std::string expected, line; std::getline(recorded, expected) || given.peek() != EOF; expected.clear()) {
      line.clear();
      std::getline(given, line);
      EXPECT_TRUE(line == expected) << "recorded: " << expected << "\n   given: " << line;
    }
  }

 private:
  const char *folder_, *name_;
  RecordSection section_;
};

}  // namespace

RecordRegistration::RecordRegistration(const char* folder, const char* name, RecordSection section) {
  testing::RegisterTest("RecordedCalls", name, nullptr, nullptr, __FILE__, __LINE__,
                        [=]() -> testing::Test* { return new RecordedCalls(folder, name, section); });
}

}  // namespace qel::test
