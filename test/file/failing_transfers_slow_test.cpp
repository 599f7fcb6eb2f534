// Two chunks each, so that views fail in the middle.
#include "test/file/failing_calls_test.h"

namespace qel::test {
namespace {

constexpr DWORD kBytes = kChunk + 100;

TEST_F(FailingCalls, OfViews) { Drive(TestedExports(kBytes).OfViews()); }
TEST_F(FailingCalls, OfTransfers) { Drive(TestedExports(kBytes).OfTransfers()); }
TEST_F(FailingCalls, OfObjects) { Drive(TestedExports(kBytes).OfObjects()); }

}  // namespace
}  // namespace qel::test
