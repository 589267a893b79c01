#include "cli/manual.h"

#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include "cli/errors.h"
#include "cli/option_text.h"

namespace korvex::cli {

namespace {

// Text for a line of a man page: what its language would take for itself is escaped.
std::string escaped(std::string_view text) {
  std::string out;
  for (const char c : text) {
    if (c == '\\')
      out += "\\e";
    else if (c == '-')
      out += "\\-";
    else if (c == '\'')
      out += "\\(aq";
    else if (c == '\n')
      out += ' ';
    else
      out += c;
  }
  return out.starts_with('.') ? "\\&" + out : out;
}

std::string entry(const std::string& head, const std::string& text) {
  return fmt::format(".TP\n{}\n{}\n", head, escaped(text));
}

std::string option_head(const CLI::Option& option) {
  std::string head = "\\fB" + escaped(option.get_name(false, true)) + "\\fR";
  if (takes_value(option)) head += " \\fI" + escaped(value_name(option)) + "\\fR";
  return head;
}

std::string synopsis(const CLI::App& command) {
  std::string text = "\\fBkorvex " + escaped(command.get_name()) + "\\fR";
  for (const CLI::Option* argument : arguments_of(command)) {
    std::string name = "\\fI" + value_name(*argument) + "\\fR";
    if (argument->get_expected_max() > 1) name += " ...";
    text += argument->get_required() ? " " + name : " [" + name + "]";
  }
  return text + " [\\fIoptions\\fR]";
}

// `notes` stand in front of the examples in the footer of a verb.
std::string notes_of(const CLI::App& command) {
  const std::string footer = command.get_footer();
  return footer.substr(0, footer.find("\n\n"));
}

std::string verb_text(const verb& each) {
  const CLI::App& command = *each.command;
  std::string text = fmt::format(".SS {}\n{}\n.PP\n{}.\n", escaped(command.get_name()),
                                 synopsis(command), escaped(command.get_description()));
  const std::string notes = notes_of(command);
  if (!notes.empty()) text += escaped(notes) + "\n";
  for (const CLI::Option* argument : arguments_of(command))
    text += entry("\\fI" + value_name(*argument) + "\\fR", description_of(*argument));
  for (const CLI::Option* option : options_of(command))
    text += entry(option_head(*option), description_of(*option));
  for (const verb_example& example : each.examples)
    text += fmt::format(".PP\n{}:\n.PP\n.RS 4\n.EX\n{}\n.EE\n.RE\n", escaped(example.effect),
                        escaped(example.command));
  return text;
}

std::string completion_words(const verb& each) {
  std::string words;
  for (const CLI::Option* option : options_of(*each.command)) {
    for (const std::string& name : option->get_lnames()) words += "--" + name + " ";
    for (const std::string& name : option->get_snames()) words += "-" + name + " ";
  }
  return words;
}

// One branch for each option of a verb that takes certain words.
std::string completion_values(const verb& each) {
  std::string text;
  for (const CLI::Option* option : options_of(*each.command)) {
    const std::vector<std::string> words = accepted_words(*option);
    if (words.empty() || option->get_lnames().empty()) continue;
    text += fmt::format("    '{} --{}') words='{}' ;;\n", each.command->get_name(),
                        option->get_lnames().front(), CLI::detail::join(words, " "));
  }
  return text;
}

// Options after which no word can be guessed: numbers and names.
std::string free_options(const std::vector<verb>& verbs) {
  std::vector<std::string> names;
  for (const verb& each : verbs)
    for (const CLI::Option* option : options_of(*each.command)) {
      const std::string value = value_name(*option);
      if (value.empty() || value == "WORD" || value == "FILE" || value == "DIR") continue;
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
      for (const std::string& name : option->get_snames()) names.push_back("-" + name);
    }
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return CLI::detail::join(names, "|");
}

}  // namespace

std::string man_page(const CLI::App& tool, const std::vector<verb>& verbs) {
  std::string text = fmt::format(
      ".TH KORVEX 1 \"\" \"korvex {}\" \"User Commands\"\n"
      ".SH NAME\nkorvex \\- nearest neighbours of vectors\n"
      ".SH SYNOPSIS\n\\fBkorvex\\fR \\fIverb\\fR [\\fIarguments\\fR] [\\fIoptions\\fR]\n.br\n"
      "\\fBkorvex\\fR [\\fIverb\\fR] \\fB\\-\\-help\\fR\n.br\n\\fBkorvex \\-\\-version\\fR\n"
      ".SH DESCRIPTION\n{}\n.PP\n"
      "Results go to standard output, all else to standard error. While standard error is a "
      "terminal, long work shows how far it is, its rate and the remaining time there.\n"
      ".SH VERBS\n",
      tool.version().substr(7, tool.version().find('\n') - 7), escaped(tool.get_description()));
  for (const verb& each : verbs) text += verb_text(each);
  text += ".SH EXIT STATUS\n";
  for (const exit_code_entry& code : exit_codes)
    text += entry(fmt::format("\\fB{}\\fR", code.code), code.meaning);
  return text;
}

std::string bash_completion(const std::vector<verb>& verbs) {
  std::string names, options, values;
  for (const verb& each : verbs) {
    names += each.command->get_name() + " ";
    options +=
        fmt::format("    {}) words='{}' ;;\n", each.command->get_name(), completion_words(each));
    values += completion_values(each);
  }
  return fmt::format(R"(# bash completion of korvex
_korvex() {{
  local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD-1]}} words=
  if [ "$COMP_CWORD" -eq 1 ]; then
    COMPREPLY=($(compgen -W '{}--help --version' -- "$current"))
    return
  fi
  case "${{COMP_WORDS[1]}} $previous" in
{}  esac
  if [ -z "$words" ]; then
    case "$previous" in {}) COMPREPLY=() && return ;; esac
  fi
  if [ -z "$words" ] && [[ $current == -* ]]; then
    case "${{COMP_WORDS[1]}}" in
{}    esac
  fi
  if [ -n "$words" ]; then
    COMPREPLY=($(compgen -W "$words" -- "$current"))
  else
    COMPREPLY=($(compgen -f -- "$current"))
  fi
}}
complete -o filenames -F _korvex korvex
)",
                     names, values, free_options(verbs), options);
}

}  // namespace korvex::cli
