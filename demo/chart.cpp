#include "demo/chart.h"

#include <algorithm>
#include <cstdio>

void PrintBars(const std::vector<std::pair<std::string, double>>& figures, const char* unit) {
  constexpr double kWidth = 40;
  double largest = 0;
  for (const auto& figure : figures) largest = std::max(largest, figure.second);
  for (const auto& [name, value] : figures) {
    const int length = largest > 0 ? static_cast<int>(value / largest * kWidth + 0.5) : 0;
    std::printf("  %-28s %10.1f %s %s\n", name.c_str(), value, unit,
                std::string(static_cast<size_t>(length), '#').c_str());
  }
}
