#include "qellog/command/request.h"

#include "qellog/text/visible_text.h"

namespace qellog {

void Problems::Tell(const std::string& name, const std::string& problem) {
  any_ = true;
  std::fflush(stdout);
  std::fprintf(stderr, "qellog: %s: %s\n", VisibleText(name).c_str(), problem.c_str());
}

std::vector<LogFile> FilesOf(const Request& request, Problems& problems) {
  std::vector<LogFile> files = FindLogFiles(request.names, problems.Teller());
  std::erase_if(files, [&request](const LogFile& file) { return !request.filter.TakesFile(file); });
  if (files.empty() && !problems.Any()) std::fprintf(stderr, "qellog: no log files there\n");
  return files;
}

}  // namespace qellog
