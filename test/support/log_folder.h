// The log folder of a test program and what the channels in it hold. The folder is made, and given to the library, on
// first use; children share it. The library takes a folder only once in a process.
#pragma once
#include <filesystem>
#include <string>
#include <vector>

#include "qelibaselib/log/log_channel.h"
#include "test/support/text.h"

namespace qel::test {

struct LogLine {
  std::string time;  // "2024/03/05, 14:07:09.042"
  unsigned memoryLoad;
  std::string program;
  unsigned long processId, threadId;
  std::string sourceFile;
  int line;
  std::string message;
};

// Sets the folder when that has not been done.
const std::filesystem::path& LogFolder();
std::filesystem::path ChannelFile(const LogChannel& channel);

// The lines of a channel so far. A line that has not the main form fails the test. Messages may hold line feeds: what
// follows up to the next line that starts with a time belongs to the message.
std::vector<LogLine> ReadLines(const LogChannel& channel);
std::vector<LogLine> ReadLines(const std::filesystem::path& file);
// As ReadLines, and empties the channel: what came since the last call.
std::vector<LogLine> TakeLines(const LogChannel& channel);
// Only the messages of TakeLines.
Messages TakeMessages(const LogChannel& channel);
// The messages with the position that they name: "source.cpp(12): message".
Messages TakePlacedMessages(const LogChannel& channel);
// One line of the main form; false when it is none.
bool ParseLine(const std::string& text, LogLine& line);

}  // namespace qel::test
