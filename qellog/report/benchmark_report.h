/// @file
/// A report of the benchmark, taken apart.
#pragma once
#include "qellog/report/status_report.h"

namespace qellog {

struct BenchmarkFigure {
  std::string name;
  double mebibytesPerSecond = 0;
};

struct BenchmarkReport {
  std::optional<Timestamp> time;  ///< when it was written
  std::optional<Timestamp> measured;
  std::vector<BenchmarkFigure> figures;  ///< memory, mapped file, then one for each thread count
  std::int32_t errorLine = 0;
  std::int32_t errorNumber = 0;
  std::string heading;  ///< "title(message), value"
};

BenchmarkReport ParseBenchmarkReport(std::string_view text);

}  // namespace qellog
