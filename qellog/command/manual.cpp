#include "qellog/command/manual.h"

#include <CLI/CLI.hpp>

#include "qellog/version.h"

namespace qellog {
namespace {

/// Text of a man page: a hyphen is a minus, a backslash and a dot at the start of a line are no commands.
std::string Troff(const std::string& text) {
  std::string page;
  bool atStart = true;
  for (const char character : text) {
    if (atStart && (character == '.' || character == '\'')) page += "\\&";
    atStart = character == '\n';
    if (character == '\\')
      page += "\\e";
    else if (character == '-')
      page += "\\-";
    else
      page += character;
  }
  return page;
}

bool IsShown(const CLI::Option* option) { return !option->get_group().empty(); }

/// "-o, --output FORMAT"
std::string NamesOf(const CLI::Option* option) {
  std::string names;
  for (const std::string& name : option->get_snames()) names += (names.empty() ? "-" : ", -") + name;
  for (const std::string& name : option->get_lnames()) names += (names.empty() ? "--" : ", --") + name;
  if (option->get_items_expected_max() > 0) names += " " + option->get_type_name();
  return names;
}

std::string Synopsis(const CLI::App* command) {
  std::string text = ".B qellog " + command->get_name() + "\n";
  for (const CLI::Option* option : command->get_options())
    if (option->get_positional()) text += ".I " + Troff(option->get_name(true)) + "\n";
  return text + "[options]\n.br\n";
}

std::string Section(const CLI::App* command) {
  std::string text = ".SS " + command->get_name() + "\n" + Troff(command->get_description()) + ".\n";
  for (const CLI::Option* option : command->get_options()) {
    if (!IsShown(option)) continue;
    const std::string names = option->get_positional() ? option->get_name(true) : NamesOf(option);
    text += ".TP\n.B " + Troff(names) + "\n" + Troff(option->get_description()) + "\n";
  }
  return text;
}

std::string WordsOf(const CLI::App* command) {
  std::string words;
  for (const CLI::Option* option : command->get_options()) {
    if (!IsShown(option)) continue;
    for (const std::string& name : option->get_lnames()) words += (words.empty() ? "--" : " --") + name;
  }
  return words;
}

}  // namespace

std::string ManualPage(const CLI::App& app) {
  std::string text =
      ".TH QELLOG 1 \"\" \"QelIBaseLib " QELLOG_VERSION "\"\n.SH NAME\nqellog \\- reads a folder of logs\n";
  text += ".SH SYNOPSIS\n";
  const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
  for (const CLI::App* command : commands) text += Synopsis(command);
  text += ".SH DESCRIPTION\n" + Troff(app.get_description()) + "\n" + Troff(app.get_footer()) + "\n.SH COMMANDS\n";
  for (const CLI::App* command : commands) text += Section(command);
  return text;
}

std::string BashCompletion(const CLI::App& app) {
  const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
  std::string names;
  std::string cases;
  for (const CLI::App* command : commands) {
    names += (names.empty() ? "" : " ") + command->get_name();
    cases += "    " + command->get_name() + ") words=\"" + WordsOf(command) + "\" ;;\n";
  }
  return "_qellog() {\n  local word=${COMP_WORDS[COMP_CWORD]} words=\n  case ${COMP_WORDS[1]} in\n" + cases +
         "  esac\n  if [ \"$COMP_CWORD\" = 1 ]; then\n    COMPREPLY=($(compgen -W \"" + names +
         " --help --version\" -- \"$word\") $(compgen -d -- \"$word\"))\n  elif [[ $word == -* ]]; then\n"
         "    COMPREPLY=($(compgen -W \"$words\" -- \"$word\"))\n  else\n    COMPREPLY=($(compgen -f -- \"$word\"))\n  "
         "fi\n}\n"
         "complete -o filenames -F _qellog qellog\n";
}

}  // namespace qellog
