// The program that records on Windows: prints all sections. See test/support/record.h.
#include <cstdio>
#include <map>

#include "test/support/record.h"

namespace qel::test {
static std::map<std::string, RecordSection>& Sections() {
  static std::map<std::string, RecordSection> sections;
  return sections;
}
RecordRegistration::RecordRegistration(const char* folder, const char* name, RecordSection section) {
  Sections()[std::string(folder) + " " + name] = section;
}
}  // namespace qel::test

int main() {
  for (const auto& [name, section] : qel::test::Sections()) {
    qel::test::Record record;
    section(record);
    std::printf("== %s\n%s", name.c_str(), record.Finish().c_str());
    std::fflush(stdout);
  }
}
