#include "tools/vxlanctl/Completion.h"

#include <fmt/format.h>

#include <vector>

namespace Vxlanctl {

namespace {

// The words that may follow a command: its subcommands and options.
std::string wordsOf(const CLI::App& command) {
  std::string words;
  const auto add = [&words](const std::string& word) { words += (words.empty() ? "" : " ") + word; };
  for (const CLI::App* sub : command.get_subcommands({})) {
    add(sub->get_name());
  }
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      add("--" + name);
    }
  }
  return words;
}

// One case a command, by the words that lead to it.
void addCases(const CLI::App& command, const std::string& path, std::string& cases) {
  cases += fmt::format("    \"{}\") words=\"{}\" ;;\n", path, wordsOf(command));
  for (const CLI::App* sub : command.get_subcommands({})) {
    addCases(*sub, path.empty() ? sub->get_name() : path + " " + sub->get_name(), cases);
  }
}

// All names of commands, so that the script can tell them from the arguments of options.
void addNames(const CLI::App& command, std::string& names) {
  for (const CLI::App* sub : command.get_subcommands({})) {
    names += (names.empty() ? "" : "|") + sub->get_name();
    addNames(*sub, names);
  }
}

}  // namespace

std::string bashCompletion(const CLI::App& app) {
  std::string cases;
  addCases(app, "", cases);
  std::string names;
  addNames(app, names);
  return fmt::format(R"(# bash completion for {0}: source it, or put it where bash-completion finds it
_{0}() {{
  local word path="" words="" i
  for ((i = 1; i < COMP_CWORD; i++)); do
    word="${{COMP_WORDS[i]}}"
    case "$word" in
      {1}) path="${{path:+$path }}$word" ;;
    esac
  done
  case "$path" in
{2}  esac
  case "$path" in
    patch|trace) COMPREPLY=($(compgen -f -W "$words" -- "${{COMP_WORDS[COMP_CWORD]}}")) ;;
    *) COMPREPLY=($(compgen -W "$words" -- "${{COMP_WORDS[COMP_CWORD]}}")) ;;
  esac
}}
complete -F _{0} {0}
)",
                     app.get_name(), names, cases);
}

}  // namespace Vxlanctl
