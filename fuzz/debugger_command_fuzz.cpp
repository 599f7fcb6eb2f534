// clang-format off
// fuzz-sources: qelibaselib/modulestatus/debugger_command.cpp qelibaselib/base/format.cpp qelibaselib/base/format_conversion.cpp qelibaselib/base/format_number.cpp qelibaselib/base/format_text.cpp qelibaselib/base/formatted_text.cpp
// clang-format on

// Registered debugger commands on any bytes: the first byte says how long a buffer is. A short buffer takes the
// beginning of what a long one takes, and a command without conversions stays as it is.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "qelibaselib/modulestatus/debugger_command.h"

namespace {

// A buffer of exactly `size` bytes, so that the sanitizer sees the first one behind it.
std::string Format(const std::string& command, size_t size) {
  const auto text = std::make_unique<char[]>(size);
  std::memset(text.get(), '?', size);
  qel::report::FormatDebuggerCommand(text.get(), size, command.c_str(), 4711, reinterpret_cast<HANDLE>(0x1234));
  const void* end = std::memchr(text.get(), 0, size);
  if (!end) std::abort();
  return text.get();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t count) {
  if (count == 0) return 0;
  // The registered text comes from a buffer of 260 characters and ends at its first zero.
  const std::string command =
      std::string(reinterpret_cast<const char*>(bytes + 1), std::min<size_t>(count - 1, 259)).c_str();
  const bool usable = qel::report::IsDebuggerCommand(command.c_str());
  if (usable && command.empty()) std::abort();
  const std::string whole = Format(command, 1 << 16), cut = Format(command, 1 + bytes[0]);
  if (cut != whole.substr(0, bytes[0])) std::abort();
  if (command.find('%') == command.npos && (whole != command || usable == command.empty())) std::abort();
  return 0;
}
