// Makes calls of functions nameable by lines.
#pragma once
#include <tuple>
#include <utility>

#include "test/platform/recorded/call_scope.h"
#include "test/platform/recorded/script.h"

namespace qel::test {

inline constexpr DWORD kNoError = 0x2BAD;  // the last error before each call

inline std::string ShowError(DWORD error) { return error == kNoError ? "" : " (" + std::to_string(error) + ")"; }

template <class Result>
std::string ShowResult(const CallScope& scope, const Result& result) {
  if constexpr (std::is_same_v<Result, std::string>)
    return result;
  else if constexpr (std::is_pointer_v<Result>)
    return scope.Describe(result);
  else
    return std::to_string(static_cast<long long>(static_cast<std::make_signed_t<Result>>(result)));
}

template <class Result, class... Parameters>
RecordedCall Bind(std::function<Result(Parameters...)> call, Closer closer = nullptr) {
  return [call, closer](CallScope& scope, const std::vector<std::string>& words) -> std::string {
    if (words.size() != 1 + sizeof...(Parameters)) return "wrong number of arguments";
    const std::string& variable = words.front();
    [[maybe_unused]] auto word = words.begin();
    std::tuple<Parameters...> values{scope.Value<Parameters>(*++word)...};
    SetLastError(kNoError);
    const Result result = std::apply(call, values);
    const DWORD error = GetLastError();
    std::string shown = ShowResult(scope, result);
    // What these do themselves may touch the last error.
    if constexpr (!std::is_same_v<Result, std::string>) shown += ShowError(error);
    if constexpr (std::is_pointer_v<Result>) {
      const auto value = const_cast<void*>(static_cast<const void*>(result));
      if (!variable.empty()) scope.SetVariable(variable, value, closer);
      // A page of a block is no block.
      else if (closer && closer != &ReleaseBlock && value && value != INVALID_HANDLE_VALUE)
        closer(value);
    } else if constexpr (std::is_integral_v<Result>) {
      if (!variable.empty()) {
        scope.SetVariable(variable, reinterpret_cast<void*>(static_cast<uintptr_t>(result)), nullptr);
        shown = "given";
      }
    }
    return shown + scope.TakeWritten();
  };
}

template <class Result, class... Parameters>
RecordedCall Bind(Result(WINAPI* call)(Parameters...), Closer closer = nullptr) {
  return Bind(std::function<Result(Parameters...)>(call), closer);
}

// For a function that is no pointer: a lambda.
template <class Function>
RecordedCall BindLambda(Function function, Closer closer = nullptr) {
  return Bind(std::function(function), closer);
}

struct CallRegistration {
  explicit CallRegistration(void (*add)(std::map<std::string, RecordedCall>& calls)) { add(RecordedCalls()); }
};

}  // namespace qel::test

#define BIND(name, ...) calls[#name] = qel::test::Bind(&name __VA_OPT__(, ) __VA_ARGS__)
