/// @file
/// What the command line asks for.
#pragma once
#include <string>
#include <vector>

#include "qellog/folder/filter.h"
#include "qellog/output/output.h"

namespace qellog {

enum class Format { kText, kJson, kCsv };

struct Request {
  std::vector<std::string> names;  ///< folders and files
  Filter filter;
  Format format = Format::kText;
  std::size_t number = 0;  ///< of `report`
  bool whole = false;      ///< the report as it stands
  std::string symbolFolder;
  std::string pageFile;  ///< of `html`
  std::size_t lineLimit = 20'000;
  std::size_t lastLines = 10;  ///< that `follow` begins with
  bool colours = false;
  std::size_t width = 100;
};

/// The exit code of a command that worked, one that found damage and one that could not read something.
enum class Outcome { kGood = 0, kDamage = 1, kUnreadable = 2 };

/// Tells what could not be read on standard error and remembers that there was something.
class Problems {
 public:
  void Tell(const std::string& name, const std::string& problem);
  ReportProblem Teller() {
    return [this](const std::string& name, const std::string& problem) { Tell(name, problem); };
  }
  bool Any() const { return any_; }

 private:
  bool any_ = false;
};

/// The log files that the request names; tells when there is none.
std::vector<LogFile> FilesOf(const Request& request, Problems& problems);

Outcome RunSummary(const Request& request, Problems& problems, Output& output);
Outcome RunCat(const Request& request, Problems& problems, Output& output);
Outcome RunFollow(const Request& request, Problems& problems, Output& output);
Outcome RunReports(const Request& request, Problems& problems, Output& output);
Outcome RunReport(const Request& request, Problems& problems, Output& output);
Outcome RunCheck(const Request& request, Problems& problems, Output& output);
Outcome RunHtml(const Request& request, Problems& problems, Output& output);
Outcome RunJson(const Request& request, Problems& problems, Output& output);

}  // namespace qellog
