// The main of every test program: plays a role for a parent, or runs the tests, with a log folder from the start. (A
// role may be one that has none yet.)
#include <gtest/gtest.h>

#include "test/support/child_process.h"
#include "test/support/log_folder.h"

int main(int argumentCount, char** arguments) {
  int exitCode = 0;
  if (qel::test::PlayRole(argumentCount, arguments, exitCode)) return exitCode;
  testing::InitGoogleTest(&argumentCount, arguments);
  qel::test::LogFolder();
  return RUN_ALL_TESTS();
}
