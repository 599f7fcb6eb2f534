#include "test/file/failing_calls_test.h"

namespace qel::test {
namespace {

constexpr DWORD kBytes = 70000;

TEST_F(FailingCalls, OfFiles) { Drive(TestedExports(kBytes).OfFiles()); }
TEST_F(FailingCalls, OfTrees) { Drive(TestedExports(kBytes).OfTrees()); }
TEST_F(FailingCalls, OfMappings) { Drive(TestedExports(kBytes).OfMappings()); }

}  // namespace
}  // namespace qel::test
