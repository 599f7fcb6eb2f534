// Figures as bars on the terminal.
#pragma once
#include <string>
#include <utility>
#include <vector>

void PrintBars(const std::vector<std::pair<std::string, double>>& figures, const char* unit);
