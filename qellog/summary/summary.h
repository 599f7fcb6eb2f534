/// @file
/// The figures of a whole log folder, gathered in one pass over its records.
#pragma once
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "qellog/folder/damage.h"

namespace qellog {

struct CountedText {
  std::string text;
  std::uint64_t count = 0;
};

/// Counts texts. A hostile log may hold any number of them: those that come after very many others share one entry.
class TextCounter {
 public:
  void Add(std::string_view text);
  std::vector<CountedText> MostFrequent(std::size_t count) const;

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  std::unordered_map<std::string, std::uint64_t, Hash, std::equal_to<>> counts_;
};

struct Process {
  std::string program;
  std::uint32_t id = 0;
  Timestamp first;
  Timestamp last;
  std::uint64_t lines = 0;
  std::uint64_t reports = 0;
};

struct ChannelFigures {
  std::string name;
  std::uint64_t records = 0;  ///< lines or reports
  std::uint64_t bytes = 0;
  std::uint64_t fullFiles = 0;  ///< over the limit: the library drops what comes now
};

struct LongWait {
  std::int64_t milliseconds = 0;
  Timestamp time;
  std::string what;
};

struct Silence {
  Timestamp from;
  Timestamp to;
  std::int64_t Length() const { return to.milliseconds - from.milliseconds; }
};

struct Summary {
  std::optional<Timestamp> first;
  std::optional<Timestamp> last;
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::uint64_t lines = 0;
  std::uint64_t unfinished = 0;
  std::vector<ChannelFigures> channels;
  std::vector<Process> processes;    ///< in the order of their first lines
  std::uint64_t otherProcesses = 0;  ///< lines of processes beyond those that are kept
  TextCounter sources;
  std::map<std::uint32_t, std::uint64_t> errors;
  std::uint64_t retriesEndedWell = 0;
  std::uint64_t retriesEndedBadly = 0;
  TextCounter functionsGivenUp;
  std::vector<LongWait> waits;  ///< the longest, longest first
  TextCounter causes;           ///< of exception reports
  std::uint64_t exceptionReports = 0;
  std::uint64_t statusReports = 0;
  std::uint64_t benchmarks = 0;
  std::vector<Silence> silences;  ///< the longest, longest first
  std::map<DamageKind, std::uint64_t> damage;
};

class SummaryBuilder {
 public:
  explicit SummaryBuilder(const std::vector<LogFile>& files);
  void Add(const FileRecord& record);
  Summary Finish();

 private:
  struct RetryStart {
    Timestamp time;
    std::string function;
  };
  void AddTime(Timestamp time);
  void AddLine(const LogLine& line);
  void AddMessage(const LogLine& line);
  void AddRetry(const LogLine& line);
  void AddException(const Record& record);
  void AddStatus(const Record& record);
  Process* ProcessOf(std::string_view program, std::uint32_t id, Timestamp time);
  void AddWait(LongWait wait);

  Summary summary_;
  DamageFinder damage_;
  std::map<std::string, std::size_t, std::less<>> channels_;
  std::unordered_map<std::uint32_t, std::vector<std::size_t>> processes_;  ///< by id, which systems use again
  std::unordered_map<std::uint64_t, RetryStart> retries_;                  ///< by process and thread
  std::string sourceText_;
};

}  // namespace qellog
