// What the address sanitizer cannot take.
#pragma once
#include <gtest/gtest.h>

// For a test that leaves frames behind, or another stack, without the sanitizer's knowledge, which then reports its own
// marks on the reused stack; and for one that needs signals, an allocator or an end of the process that the sanitizer
// has taken for itself.
#ifdef QEL_SANITIZE
#define SKIP_UNDER_ASAN() GTEST_SKIP() << "the sanitizer keeps stacks, signals and the heap to itself"
#else
#define SKIP_UNDER_ASAN() static_cast<void>(0)
#endif
