// A file that another process holds open.
#pragma once
#include "test/platform/files/file_calls.h"
#include "test/support/child_process.h"

namespace qel::test {

class SharingTest : public FileTest {
 protected:
  SharingTest() { Write("f"); }
  ChildProcess Hold(DWORD access, DWORD share) {
    ChildProcess child("HoldOpen", {scratch.Narrow("f"), std::to_string(access), std::to_string(share)});
    EXPECT_EQ(child.WaitForLine(), "open");
    return child;
  }
};

}  // namespace qel::test
