// Assertions whose position lies in the library, where it moves with the code.
#pragma once
#include "test/support/library.h"

namespace qel::test {

// What the new lines say behind "ASSERT : " and their own position.
inline Messages TakeAssertions() {
  Messages ends;
  for (const LogLine& line : TakeLines(channel::kAssert)) {
    const std::string head = "ASSERT : " + line.sourceFile + "(" + std::to_string(line.line) + ")";
    EXPECT_TRUE(line.message.starts_with(head)) << line.message;
    ends.push_back(line.message.substr(head.size()));
  }
  return ends;
}

}  // namespace qel::test
