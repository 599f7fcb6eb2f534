// The main of every test program: plays a role for a parent, or runs the tests.
#include <gtest/gtest.h>

#include "test/support/child_process.h"

int main(int argumentCount, char** arguments) {
  int exitCode = 0;
  if (qel::test::PlayRole(argumentCount, arguments, exitCode)) return exitCode;
  testing::InitGoogleTest(&argumentCount, arguments);
  return RUN_ALL_TESTS();
}
