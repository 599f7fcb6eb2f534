#include "qellog/command/arguments.h"

#include <CLI/CLI.hpp>
#include <cstdlib>

#include "qellog/command/manual.h"
#include "qellog/system/terminal.h"
#include "qellog/version.h"

namespace qellog {
namespace {

/// The texts of options as they come, before they are turned into a filter.
struct FilterTexts {
  std::string since, until;
  std::vector<std::string> errors, texts;
  bool ignoreCase = false;
  std::string format = "text";
  bool noPager = false;
};

void AddFilterOptions(CLI::App& app, Request& request, FilterTexts& texts) {
  app.add_option("--channel", request.filter.channels,
                 "Only channels with this in their name (file, assert, alloc, ...)")
      ->allow_extra_args(false)
      ->type_name("NAME")
      ->group("Filter");
  app.add_option("--since", texts.since, "Not before: 2026/11/25, '2026-11-25 10:00', 10:00 (today), -2h (before now)")
      ->type_name("TIME")
      ->group("Filter");
  app.add_option("--until", texts.until, "Not after, written as --since")->type_name("TIME")->group("Filter");
  app.add_option("--pid", request.filter.processIds, "Only this process")
      ->allow_extra_args(false)
      ->type_name("ID")
      ->group("Filter");
  app.add_option("--tid", request.filter.threadIds, "Only this thread")
      ->allow_extra_args(false)
      ->type_name("ID")
      ->group("Filter");
  app.add_option("--program", request.filter.programs, "Only programs with this in their path")
      ->allow_extra_args(false)
      ->type_name("TEXT")
      ->group("Filter");
  app.add_option("--source", request.filter.sources, "Only source positions with this in them, as 'viewer.cpp(12)'")
      ->allow_extra_args(false)
      ->type_name("TEXT")
      ->group("Filter");
  app.add_option("--error", texts.errors, "Only this error: 32, 0x20, sharing_violation; of reports the exception code")
      ->allow_extra_args(false)
      ->type_name("ERROR")
      ->group("Filter");
  app.add_option("--grep", texts.texts, "Only records that hold this text; all texts when given more than once")
      ->allow_extra_args(false)
      ->type_name("TEXT")
      ->group("Filter");
  app.add_flag("-i,--ignore-case", texts.ignoreCase, "--grep takes small and capital letters as equal")
      ->group("Filter");
}

void AddOutputOptions(CLI::App& app, FilterTexts& texts, const std::vector<std::string>& formats) {
  app.add_option("-o,--output", texts.format, "Format of the output")
      ->type_name("FORMAT")
      ->check(CLI::IsMember(formats))
      ->capture_default_str();
  app.add_flag("--no-pager", texts.noPager, "Write straight to the terminal, whatever $PAGER says");
}

struct CommandRow {
  const char* name;
  const char* description;
  Command command;
  std::vector<std::string> formats;
  bool pages;
};

const std::vector<CommandRow>& Commands() {
  static const std::vector<CommandRow> commands = {
      {"summary",
       "One screen: times, processes, channels, errors, retries, crashes, damage",
       &RunSummary,
       {"text", "json"},
       true},
      {"cat", "All lines of all files in the order of their times", &RunCat, {"text", "json", "csv"}, true},
      {"follow",
       "The same, live, as lines arrive and files appear; ends on Ctrl-C",
       &RunFollow,
       {"text", "json", "csv"},
       false},
      {"reports", "A table of the exception, status and benchmark reports", &RunReports, {"text", "json"}, true},
      {"report", "One report, folded to what matters", &RunReport, {"text", "json"}, true},
      {"check", "Looks for damage; exit code 1 when there is any", &RunCheck, {"text", "json"}, true},
      {"html", "Writes a page with a timeline, tables and reports, all in one file", &RunHtml, {}, false},
      {"json", "Everything as one document", &RunJson, {}, false},
  };
  return commands;
}

void AddSpecialOptions(CLI::App& app, const std::string& name, Request& request) {
  if (name == "report") {
    app.add_option("NUMBER", request.number, "The report's number, as `reports` tells")->type_name("")->required();
    app.add_flag("--full", request.whole, "The report as it stands in the file");
    app.add_option("--symbols", request.symbolFolder,
                   "Folder with debug files: adds places in the source, by addr2line")
        ->type_name("FOLDER");
  }
  if (name == "html") {
    app.add_option("OUT", request.pageFile, "The page to write")->type_name("")->required();
    app.add_option("--lines", request.lineLimit,
                   "How many lines the page holds at most, the latest and those round crashes")
        ->type_name("COUNT")
        ->capture_default_str();
  }
  if (name == "follow")
    app.add_option("-n,--last", request.lastLines, "How many lines to begin with")
        ->type_name("COUNT")
        ->capture_default_str();
  app.add_option("FOLDER", request.names, "Folders of logs, or files; - for standard input")->type_name("")->required();
}

std::optional<Timestamp> MomentOrThrow(const std::string& name, const std::string& text) {
  if (text.empty()) return std::nullopt;
  const auto moment = ParseMoment(text, LocalNow());
  if (!moment) throw CLI::ValidationError(name, "'" + text + "' is no time");
  return moment;
}

void CompleteFilter(Filter& filter, const FilterTexts& texts) {
  filter.since = MomentOrThrow("--since", texts.since);
  filter.until = MomentOrThrow("--until", texts.until);
  for (const std::string& text : texts.errors) {
    const auto error = ParseError(text);
    if (!error) throw CLI::ValidationError("--error", "'" + text + "' is no error");
    filter.errors.push_back(*error);
  }
  for (const std::string& text : texts.texts)
    filter.texts.emplace_back(text, texts.ignoreCase ? LetterCase::kIgnored : LetterCase::kExact);
}

Format FormatOf(const std::string& name) {
  if (name == "json") return Format::kJson;
  return name == "csv" ? Format::kCsv : Format::kText;
}

bool WantsColours() {
  const char* const noColour = std::getenv("NO_COLOR");
  return IsTerminal(stdout) && !(noColour && *noColour);
}

/// Without a command the first argument is a folder: then the summary is meant.
std::vector<std::string> WithCommand(std::vector<std::string> arguments) {
  const std::string first = arguments.empty() ? "" : arguments.front();
  const bool isCommand =
      std::any_of(Commands().begin(), Commands().end(), [&](const auto& row) { return first == row.name; });
  const bool isOfProgram =
      first.empty() || first == "--help" || first == "-h" || first == "--version" || first.starts_with("--print-");
  if (!isCommand && !isOfProgram) arguments.insert(arguments.begin(), "summary");
  return arguments;
}

}  // namespace

std::optional<Call> ParseCommandLine(const std::vector<std::string>& arguments, int& exitCode) {
  CLI::App app("Reads a folder of logs that QelIBaseLib has written.", "qellog");
  app.set_version_flag("--version", "qellog " QELLOG_VERSION);
  app.footer(
      "Without a command: summary. Exit code 0, 1 when check has found damage, 2 when something could not be read\n"
      "or the command line is wrong. NO_COLOR turns colours off, PAGER names the pager.");
  Call call;
  FilterTexts texts;
  bool printManual = false, printCompletion = false;
  app.add_flag("--print-man", printManual, "Prints the man page")->group("");
  app.add_flag("--print-completion", printCompletion, "Prints the completion for bash")->group("");
  app.require_subcommand(0, 1);
  for (const CommandRow& row : Commands()) {
    CLI::App* const command = app.add_subcommand(row.name, row.description);
    AddSpecialOptions(*command, row.name, call.request);
    if (row.command != &RunReport && row.command != &RunCheck) AddFilterOptions(*command, call.request, texts);
    if (!row.formats.empty()) AddOutputOptions(*command, texts, row.formats);
    command->callback([&call, &row] {
      call.command = row.command;
      call.wantsPager = row.pages;
    });
  }
  try {
    std::vector<std::string> reversed = WithCommand(arguments);
    std::reverse(reversed.begin(), reversed.end());
    app.parse(reversed);
    CompleteFilter(call.request.filter, texts);
  } catch (const CLI::ParseError& error) {
    const int code = app.exit(error, std::cout, std::cerr);
    exitCode = code == 0 ? 0 : static_cast<int>(Outcome::kUnreadable);
    return std::nullopt;
  }
  if (printManual || printCompletion || !call.command) {
    std::cout << (printManual ? ManualPage(app) : printCompletion ? BashCompletion(app) : app.help());
    exitCode = printManual || printCompletion ? 0 : static_cast<int>(Outcome::kUnreadable);
    return std::nullopt;
  }
  call.request.format = FormatOf(texts.format);
  call.request.colours = WantsColours();
  call.request.width = TerminalWidth();
  call.wantsPager = call.wantsPager && !texts.noPager && IsTerminal(stdout);
  return call;
}

}  // namespace qellog
