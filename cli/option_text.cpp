#include "cli/option_text.h"

#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

namespace korvex::cli {

bool takes_value(const CLI::Option& option) {
  return option.get_type_size() != 0;
}

std::string value_name(const CLI::Option& option) {
  if (!takes_value(option)) return "";
  const std::string type = option.get_type_name();
  if (!accepted_words(option).empty()) return "WORD";
  if (type.starts_with("INT") || type.starts_with("UINT")) return "N";
  if (type.starts_with("FLOAT")) return "X";
  return type.substr(0, type.find(':'));
}

// A check of membership writes its words into the type's name, in braces.
std::vector<std::string> accepted_words(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  const std::size_t open = type.find('{');
  const std::size_t close = type.find('}');
  if (open == std::string::npos || close == std::string::npos) return {};
  return CLI::detail::split(type.substr(open + 1, close - open - 1), ',');
}

std::string description_of(const CLI::Option& option) {
  std::string text = option.get_description();
  const std::vector<std::string> words = accepted_words(option);
  if (!words.empty()) text += ": " + CLI::detail::join(words, ", ");
  if (takes_value(option) && !option.get_default_str().empty())
    text += fmt::format(" [{}]", option.get_default_str());
  return text;
}

std::vector<const CLI::Option*> arguments_of(const CLI::App& command) {
  return command.get_options([](const CLI::Option* option) {
    return option->get_positional() && !option->get_group().empty();
  });
}

std::vector<const CLI::Option*> options_of(const CLI::App& command) {
  return command.get_options([](const CLI::Option* option) {
    return option->nonpositional() && !option->get_group().empty();
  });
}

}  // namespace korvex::cli
