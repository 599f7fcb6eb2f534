/// @file
/// What differs between the systems in how a program meets its user.
#pragma once
#include <cstdio>
#include <string>
#include <vector>

#include "qellog/record/timestamp.h"

namespace qellog {

/// Creates or empties a file whose name is UTF-8; null when that fails.
std::FILE* OpenForWriting(const std::string& path);
bool IsTerminal(std::FILE* stream);
/// Columns of the terminal; 100 where there is none.
std::size_t TerminalWidth();
/// Makes standard output take UTF-8 and colours, bytes unchanged.
void PrepareConsole();
/// The command line in UTF-8, without the program.
std::vector<std::string> CommandLine(int count, char** values);
/// From now on Ctrl-C only sets what Interrupted tells.
void CatchInterrupts();
bool Interrupted();
Timestamp LocalNow();
/// Runs a program without a shell and returns what it prints; empty when it cannot be run.
std::string OutputOf(const std::vector<std::string>& commandLine);

/// A stream into the pager that $PAGER names; null when it cannot be started.
std::FILE* OpenPager(const std::string& command);
void ClosePager(std::FILE* pager);

}  // namespace qellog
