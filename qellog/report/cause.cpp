#include "qellog/report/cause.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace qellog {
namespace {

constexpr std::uint32_t kAccessViolation = 0xC0000005;
constexpr std::uint32_t kInPageError = 0xC0000006;

struct NamedCode {
  std::uint32_t code;
  const char* name;
};

constexpr NamedCode kCodes[] = {
    {0x40010005, "Ctrl-C"},
    {0x80000001, "access to a guard page"},
    {0x80000002, "misaligned access"},
    {0x80000003, "breakpoint"},
    {0x80000004, "single step"},
    {kAccessViolation, "access violation"},
    {kInPageError, "page of a file could not be read"},
    {0xC0000008, "invalid handle"},
    {0xC0000017, "out of memory"},
    {0xC000001D, "illegal instruction"},
    {0xC0000025, "exception that cannot be continued"},
    {0xC0000026, "invalid disposition"},
    {0xC000008C, "array bounds exceeded"},
    {0xC000008D, "floating-point denormal operand"},
    {0xC000008E, "floating-point division by zero"},
    {0xC000008F, "floating-point inexact result"},
    {0xC0000090, "invalid floating-point operation"},
    {0xC0000091, "floating-point overflow"},
    {0xC0000092, "floating-point stack check"},
    {0xC0000093, "floating-point underflow"},
    {0xC0000094, "integer division by zero"},
    {0xC0000095, "integer overflow"},
    {0xC0000096, "privileged instruction"},
    {0xC00000FD, "stack overflow"},
    {0xC0000135, "module not found"},
    {0xC000013A, "ended by Ctrl-C"},
    {0xC0000374, "damaged heap"},
    {0xC0000409, "stack buffer overrun"},
    {0xE06D7363, "C++ exception"},
};

std::string AddressText(std::uint32_t address) { return address == 0 ? "0" : ShortHexText(address); }

/// How the memory was accessed, by the first parameter of an access violation.
const char* AccessName(std::uint32_t access) {
  switch (access) {
    case 0:
      return "read of";
    case 1:
      return "write to";
    case 8:
      return "execution of";
    default:
      return "access to";
  }
}

std::string WhatHappened(const ExceptionRecord& exception) {
  const auto& parameters = exception.parameters;
  const bool byMemory = exception.code == kAccessViolation || exception.code == kInPageError;
  if (exception.code == kAccessViolation && parameters.size() == 3)
    return "bad buffer (" + AddressText(parameters[0]) + ", " + AddressText(parameters[1]) + ", " +
           std::to_string(parameters[2]) + " bytes)";
  if (!byMemory || parameters.size() < 2) return ExceptionName(exception.code);
  const std::string access = std::string(AccessName(parameters[0])) + " address " + AddressText(parameters[1]);
  return exception.code == kInPageError ? "unreadable file page: " + access : access;
}

bool IsOfGuard(const StackFrame& frame) { return frame.function.starts_with("fault_run"); }

}  // namespace

std::string HexText(std::uint32_t value) {
  std::array<char, 16> text;
  std::snprintf(text.data(), text.size(), "0x%08x", value);
  return text.data();
}

std::string ShortHexText(std::uint32_t value) {
  std::array<char, 16> text;
  std::snprintf(text.data(), text.size(), "0x%x", value);
  return text.data();
}

std::string ExceptionName(std::uint32_t code) {
  const auto* const found =
      std::find_if(std::begin(kCodes), std::end(kCodes), [code](const NamedCode& row) { return row.code == code; });
  return found != std::end(kCodes) ? found->name : "exception " + HexText(code);
}

std::string CauseOf(const ExceptionReport& report) {
  if (!report.exception)
    return "exception without a record, caught at " + report.sourceFile + "(" + std::to_string(report.sourceLine) + ")";
  std::string cause = WhatHappened(*report.exception);
  if (!report.frames.empty() && !report.frames.front().function.empty())
    cause += " in " + report.frames.front().function;
  return cause;
}

std::string TopFrames(const ExceptionReport& report, std::size_t count) {
  std::string text;
  for (const StackFrame& frame : report.frames) {
    if (count == 0) break;
    if (IsOfGuard(frame)) continue;
    text += (text.empty() ? "" : " < ") + (frame.function.empty() ? HexText(frame.address) : frame.function);
    --count;
  }
  return text;
}

}  // namespace qellog
