#include "test/systemcalls/system_calls_test.h"

namespace qel::test {
namespace {

using FileCalls = SystemCalls;

TEST_F(FileCalls, OfFiles) { DriveAll(exports_.OfFiles()); }
TEST_F(FileCalls, OfMappings) { DriveAll(exports_.OfMappings()); }
TEST_F(FileCalls, OfViews) { DriveAll(exports_.OfViews()); }
TEST_F(FileCalls, OfTransfers) { DriveAll(exports_.OfTransfers()); }
TEST_F(FileCalls, OfObjects) { DriveAll(exports_.OfObjects()); }

TEST_F(FileCalls, OfTrees) {
  std::vector<TestedExport> trees = exports_.OfTrees();
  for (TestedExport& each : trees) {
    each.prepare = [this, prepare = each.prepare] {
      prepare();
      fs::permissions(exports_.Path("t/a/2"), fs::perms(0444));
    };
  }
  DriveAll(trees);
}

}  // namespace
}  // namespace qel::test
