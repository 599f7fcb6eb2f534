// Handles for the tests of kernel objects.
#pragma once
#include <string>
#include <utility>

#include "test/support/text.h"
#include "test/support/worker.h"

namespace qel::test {

// What the call leaves as last error, and its result.
template <class Call>
auto WithLastError(DWORD before, Call call) {
  SetLastError(before);
  auto result = call();
  const DWORD error = GetLastError();
  return std::pair{std::move(result), error};
}

inline constexpr DWORD kUntouched = 0x2BAD;
#define EXPECT_CALL(call, result, error)                                                        \
  do {                                                                                          \
    const auto outcome = qel::test::WithLastError(qel::test::kUntouched, [&] { return call; }); \
    EXPECT_EQ(outcome.first, result);                                                           \
    EXPECT_EQ(outcome.second, static_cast<DWORD>(error));                                       \
  } while (false)

// A call that makes an object; its handle is closed at once.
#define EXPECT_MADE(call, error)                                                                                \
  do {                                                                                                          \
    const auto made = qel::test::WithLastError(qel::test::kUntouched, [&] { return qel::test::Handle(call); }); \
    EXPECT_TRUE(made.first);                                                                                    \
    EXPECT_EQ(made.second, static_cast<DWORD>(error));                                                          \
  } while (false)

}  // namespace qel::test
