#include "qellog/folder/log_file.h"

#include <algorithm>

#include "qellog/folder/recognise_content.h"

namespace qellog {
namespace fs = std::filesystem;
namespace {

std::optional<LogFile> Recognise(const fs::path& path, const ReportProblem& problem) {
  LogFile file;
  file.path = path;
  std::error_code error;
  file.size = fs::file_size(path, error);
  if (const auto channel = ChannelOfFile(PathText(path.filename()))) {
    file.channel = channel->name;
    file.role = channel->role;
    return file;
  }
  std::string failure;
  const auto role = RoleByContent(path, failure);
  if (!failure.empty()) problem(PathText(path), failure);
  if (!role) return std::nullopt;
  file.channel = PathText(path.stem());
  file.role = *role;
  return file;
}

void AddFolder(const fs::path& folder, std::vector<LogFile>& files, const ReportProblem& problem) {
  std::error_code error;
  std::vector<fs::path> paths;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    std::error_code ignored;  // an entry that vanishes meanwhile is no file
    if (entry->is_regular_file(ignored)) paths.push_back(entry->path());
  }
  if (error) problem(PathText(folder), error.message());
  std::sort(paths.begin(), paths.end());
  for (const fs::path& path : paths)
    if (auto file = Recognise(path, problem)) files.push_back(std::move(*file));
}

void AddFile(const fs::path& path, std::vector<LogFile>& files, const ReportProblem& problem) {
  if (auto file = Recognise(path, problem)) {
    files.push_back(std::move(*file));
    return;
  }
  std::error_code error;
  files.push_back({path, PathText(path.stem()), FileRole::kMixed, fs::file_size(path, error), false});
}

}  // namespace

std::string PathText(const fs::path& path) {
  const auto text = path.u8string();
  return {text.begin(), text.end()};
}

std::vector<LogFile> FindLogFiles(const std::vector<std::string>& names, const ReportProblem& problem) {
  std::vector<LogFile> files;
  for (const std::string& name : names) {
    if (name == "-") {
      files.push_back({"-", "stdin", FileRole::kMixed, 0, true});
      continue;
    }
    const fs::path path(std::u8string(name.begin(), name.end()));
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (fs::is_directory(status))
      AddFolder(path, files, problem);
    else if (fs::exists(status))
      AddFile(path, files, problem);
    else
      problem(name, error ? error.message() : "no such file or folder");
  }
  return files;
}

}  // namespace qellog
