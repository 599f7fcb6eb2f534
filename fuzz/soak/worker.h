// One process of a soak: random operations on files of its own, whose contents it knows, on files and objects that all
// share, and lines in the log.
#pragma once
#include <cstdint>
#include <string>

#include "fuzz/soak/board.h"

namespace qel::soak {

/// Works until the board says stop. `folder` holds everything; `number` tells the workers apart. Returns 0, or 1 after
/// a finding.
int RunWorker(Board& board, const std::wstring& folder, int number, uint32_t seed);

/// A line of the log: its file, and the text that it must hold.
std::wstring LogFileOf(int worker, uint32_t line);
std::string LogText(int worker, uint32_t line);

}  // namespace qel::soak
