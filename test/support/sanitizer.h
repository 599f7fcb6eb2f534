// What the address sanitizer cannot take.
#pragma once
#include <gtest/gtest.h>

// For a test that leaves frames behind, or another stack, without the sanitizer's knowledge: it then reports its own
// marks on the reused stack.
#ifdef QEL_SANITIZE
#define SKIP_UNDER_ASAN() GTEST_SKIP() << "the sanitizer reports its own access on the broken stack"
#else
#define SKIP_UNDER_ASAN() static_cast<void>(0)
#endif
