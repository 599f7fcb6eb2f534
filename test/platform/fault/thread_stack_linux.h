// A stack that is nearly used up.
#pragma once
#include <cstddef>
#include <functional>

namespace qel::test {

// How many bytes of the calling thread's stack are left.
size_t RemainingStack();
// Calls `body` with about that many bytes left of the stack, or with all that are left when these are fewer.
void WithStackLeft(size_t left, const std::function<void()>& body);

}  // namespace qel::test
