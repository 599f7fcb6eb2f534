/// @file
/// An exception report, taken apart. The texts are bytes of the report: whoever shows them makes them visible first.
#pragma once
#include "qellog/report/status_report.h"

namespace qellog {

/// The record of the exception.
struct ExceptionRecord {
  std::uint32_t code = 0;
  std::uint32_t flags = 0;
  std::uint32_t address = 0;
  std::uint32_t parameterCount = 0;  ///< as the record says; at most 15 are printed
  std::vector<std::uint32_t> parameters;
};

struct StackFrame {
  std::uint32_t address = 0;
  std::string function;  ///< empty for an address without a name
  std::uint32_t displacement = 0;
};

struct ExceptionReport {
  std::optional<Timestamp> time;
  std::string heading;  ///< "title(message)"
  std::string program;
  std::uint32_t count = 0;  ///< of the reports of the process
  std::uint32_t processId = 0;
  std::uint32_t threadId = 0;
  std::string sourceFile;  ///< where the exception was caught
  std::int32_t sourceLine = 0;
  std::int32_t ompThread = 0;
  std::optional<ExceptionRecord> exception;
  std::vector<NamedValue> registers;  ///< integer, debug and floating-point words; empty without a context
  std::vector<std::string> areas;     ///< lines of the floating-point and extended register areas
  std::vector<std::string> code;      ///< lines of the code dump, the faulting instruction's marked by ">"
  std::vector<StackFrame> frames;
  std::vector<std::string> rawStack;
  std::optional<StatusReport> status;  ///< missing in a report that was cut short

  /// Whether the report goes on to its last section.
  bool IsWhole() const { return status && status->reachesDrives; }
};

ExceptionReport ParseExceptionReport(std::string_view text);

}  // namespace qellog
