// Reads the two reports line by line against their exact formats. Whatever does not fit fails the test.
#pragma once
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace qel::test {

class ReportReader {
 public:
  // Takes text with "\n" or "\r\n" line ends.
  explicit ReportReader(const std::string& text);
  void Expect(const std::string& line);
  // The groups of the expression, which must match the whole next line.
  std::vector<std::string> Match(const std::string& expression);
  // As Match, but leaves a line that does not match and returns nothing.
  std::vector<std::string> MatchIf(const std::string& expression);
  bool AtEnd() const { return next_ == lines_.size(); }

 private:
  std::vector<std::string> lines_;
  size_t next_ = 0;
};

struct StatusReport {
  std::string title, program, logPath, tempPath, dataPath;
  unsigned long processId;
  int threads;
  std::vector<std::string> modules;  // file names
  struct Region {
    unsigned long start, end;
  };
  std::vector<Region> freeRegions;
  unsigned long freeBytes[4];  // total, of 16 MiB and more, of 32 MiB and more, largest
  std::map<std::string, unsigned long long> memory;
  std::vector<std::string> disks;  // whole lines
};
StatusReport ReadStatusReport(ReportReader& reader);

struct DumpLine {
  unsigned long address;
  bool marked;
  std::vector<int> bytes;  // -1 for one that could not be read
};

struct Frame {
  unsigned long address;
  std::string function;  // empty without a symbol
  unsigned long displacement;
};

struct ExceptionReport {
  std::string title, program, source;
  unsigned long count, processId, threadId;
  bool hasRecord, hasContext;
  std::map<std::string, unsigned long> record;  // by the names in the report
  std::vector<unsigned long> parameters;
  std::map<std::string, unsigned long> registers;
  std::vector<int> floatArea, extendedArea;
  std::vector<DumpLine> code;
  std::vector<Frame> frames;
  std::vector<DumpLine> stack;
  StatusReport status;
};
ExceptionReport ReadExceptionReport(ReportReader& reader);
// Walk and raw dump alone, as StackWalkLogOut writes them with a context.
void ReadStackWalk(ReportReader& reader, std::vector<Frame>& frames, std::vector<DumpLine>& stack);

// What `write` puts into a stream.
std::string WrittenBy(const std::function<void(std::FILE* stream)>& write);

}  // namespace qel::test
