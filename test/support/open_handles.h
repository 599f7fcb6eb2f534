// How many handles this process holds: what a test counts before and after, to see that nothing stays open.
#pragma once

namespace qel::test {

unsigned long OpenHandleCount();

}  // namespace qel::test
