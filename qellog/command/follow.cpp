#include <algorithm>
#include <chrono>
#include <deque>
#include <map>
#include <thread>

#include "qellog/command/record_writer.h"
#include "qellog/command/request.h"
#include "qellog/system/input_file.h"
#include "qellog/system/terminal.h"

namespace qellog {
namespace {

constexpr std::chrono::milliseconds kPollInterval{200};
constexpr std::size_t kMostBytesAtOnce = 4u << 20;
constexpr std::size_t kTailBytes = 64u << 10;
constexpr std::size_t kHeadBytes = 64;

/// How far a file was read. A file that was replaced begins differently (its first line holds another time) or is
/// shorter; it is read from its start.
struct Progress {
  std::uint64_t offset = 0;
  std::uint64_t sizeBefore = 0;
  std::string head;
};

std::string ReadAt(InputFile& file, std::uint64_t offset, std::size_t most) {
  std::string bytes(most, '\0');
  std::size_t length = 0;
  file.MoveTo(offset);
  while (length < most) {
    const std::size_t count = file.Read(bytes.data() + length, most - length);
    if (count == 0) break;
    length += count;
  }
  bytes.resize(length);
  return bytes;
}

/// A shown record and its place in time.
struct Shown {
  Timestamp time;
  std::string text;
};

class Follower {
 public:
  Follower(const Request& request, Problems& problems, Output& output)
      : request_(request), problems_(problems), output_(output), writer_(request, output) {}

  void ShowLastLines() {
    for (const LogFile& file : Files()) ReadTail(file);
    SortByTime();
    if (round_.size() > request_.lastLines)
      round_.erase(round_.begin(), round_.end() - static_cast<std::ptrdiff_t>(request_.lastLines));
    ShowRound();
  }
  void ShowNews() {
    for (const LogFile& file : Files()) ReadNews(file);
    SortByTime();
    ShowRound();
  }

 private:
  // What cannot be read is told once; a file that vanished may come back.
  std::vector<LogFile> Files() {
    auto files = FindLogFiles(request_.names, [this](const std::string& name, const std::string& problem) {
      if (told_.try_emplace(name, problem).second) problems_.Tell(name, problem);
    });
    std::erase_if(files,
                  [this](const LogFile& file) { return !request_.filter.TakesFile(file) || file.isStandardInput; });
    return files;
  }
  void ReadTail(const LogFile& file) {
    InputFile input(file.path);
    const std::uint64_t size = input.Size();
    const std::uint64_t begin = size > kTailBytes ? size - kTailBytes : 0;
    Progress& progress = progress_[file.path];
    progress.head = ReadAt(input, 0, kHeadBytes);
    std::string bytes = ReadAt(input, begin, kTailBytes);
    progress.offset = begin + WholeLines(bytes);
    progress.sizeBefore = size;
    const bool startsInside = begin > 0;
    Collect(file, bytes, startsInside);
  }
  void ReadNews(const LogFile& file) {
    InputFile input(file.path);
    const std::uint64_t size = input.Size();
    Progress& progress = progress_[file.path];
    const std::string head = ReadAt(input, 0, kHeadBytes);
    if (size < progress.offset || !head.starts_with(progress.head)) progress = {};
    progress.head = head;
    const bool grows = size != progress.sizeBefore;
    progress.sizeBefore = size;
    if (size <= progress.offset || (!IsOfLines(file) && grows))
      return;  // a report comes line by line: wait for its end
    std::string bytes = ReadAt(input, progress.offset, kMostBytesAtOnce);
    progress.offset += WholeLines(bytes);
    Collect(file, bytes, false);
  }
  static bool IsOfLines(const LogFile& file) {
    return file.role == FileRole::kChannel || file.role == FileRole::kDayHistory;
  }
  // Takes an unfinished last line away, unless there is nothing else: a very long one. Returns what is left.
  static std::size_t WholeLines(std::string& bytes) {
    const std::size_t end = bytes.rfind('\n');
    if (end != bytes.npos)
      bytes.resize(end + 1);
    else if (bytes.size() < kMostBytesAtOnce)
      bytes.clear();
    return bytes.size();
  }
  void Collect(const LogFile& file, std::string_view bytes, bool startsInside) {
    MemorySource source(bytes);
    RecordReader reader(source, file.role, kMostBytesAtOnce);
    FileRecord found{&file, {}};
    while (reader.Next(found.record)) {
      const bool rest = startsInside && found.record.offset == 0 && found.record.kind == RecordKind::kForeignText;
      if (!rest && request_.filter.Takes(found.record)) round_.push_back({found.record.time, writer_.TextOf(found)});
    }
  }
  void SortByTime() {
    std::stable_sort(round_.begin(), round_.end(),
                     [](const Shown& left, const Shown& right) { return left.time < right.time; });
  }
  void ShowRound() {
    for (const Shown& shown : round_) output_.Write(shown.text);
    if (!round_.empty()) output_.Flush();
    round_.clear();
  }

  const Request& request_;
  Problems& problems_;
  Output& output_;
  RecordWriter writer_;
  std::map<std::filesystem::path, Progress> progress_;
  std::map<std::string, std::string> told_;
  std::vector<Shown> round_;
};

}  // namespace

Outcome RunFollow(const Request& request, Problems& problems, Output& output) {
  CatchInterrupts();
  Follower follower(request, problems, output);
  follower.ShowLastLines();
  output.Flush();
  while (!Interrupted()) {
    std::this_thread::sleep_for(kPollInterval);
    follower.ShowNews();
  }
  return Outcome::kGood;
}

}  // namespace qellog
