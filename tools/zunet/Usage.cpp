#include "Usage.h"

#include <algorithm>
#include <charconv>
#include <numeric>
#include <string_view>

#include "Commands.h"
#include "Output.h"

namespace {

// The least number of letters that are added, left out or replaced between two words.
std::size_t Distance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

// The word that is meant by a misspelled one, empty when none is near.
std::string Nearest(const std::string& word, const std::vector<std::string>& words) {
  std::string nearest;
  std::size_t least = std::min<std::size_t>(2, word.size() / 2);
  for (const std::string& candidate : words) {
    const std::size_t distance = Distance(word, candidate);
    if (distance > least || (distance == least && !nearest.empty())) continue;
    nearest = candidate;
    least = distance;
  }
  return nearest;
}

const CLI::App& Selected(const CLI::App& app) {
  const std::vector<CLI::App*> commands = app.get_subcommands();
  return commands.empty() ? app : *commands.back();
}

std::vector<std::string> OptionsOf(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* const option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

std::vector<std::string> CommandsOf(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* const command : app.get_subcommands(nullptr)) {
    names.push_back(command->get_name());
  }
  return names;
}

// Of "zunet" alone or "zunet get".
std::string NameOf(const CLI::App& app) {
  return app.get_parent() == nullptr ? app.get_name()
                                     : NameOf(*app.get_parent()) + " " + app.get_name();
}

// What is told of the words that nobody takes; empty when there are none.
std::string ExplainUnknown(const CLI::App& app) {
  const std::vector<std::string> unknown = app.remaining(true);
  if (unknown.empty()) return "";
  const CLI::App& selected = Selected(app);
  const bool isOption = unknown.front().front() == '-';
  const bool isCommand = !isOption && &selected == &app;
  // "--name=value" is misspelled in its name.
  const std::string word =
      unknown.front().substr(0, isOption ? unknown.front().find('=') : std::string::npos);
  std::string text = isOption    ? "no option "
                     : isCommand ? "no command "
                                 : "one argument too many, ";
  text += word;
  std::string meant;
  if (isOption) meant = Nearest(word, OptionsOf(selected));
  if (isCommand) meant = Nearest(word, CommandsOf(app));
  return meant.empty() ? text : text + ": did you mean " + meant + "?";
}

}  // namespace

CLI::Validator WholeNumber(long long low, long long high, const std::string& unit) {
  const std::string range = std::to_string(low) + " to " + std::to_string(high) + unit;
  const auto check = [=](const std::string& text) -> std::string {
    long long value = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    const bool isGood =
        result.ec == std::errc() && result.ptr == end && value >= low && value <= high;
    return isGood ? "" : "takes " + range + ", not " + text;
  };
  return CLI::Validator(check, range);
}

std::string ExplainUsage(const CLI::App& app, const CLI::Error& error) {
  std::string text = ExplainUnknown(app);
  if (text.empty()) text = error.what();
  return "zunet: " + Printable(text) + " (" + NameOf(Selected(app)) + " --help tells more)\n";
}
