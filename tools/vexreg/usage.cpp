#include "tools/vexreg/usage.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "tools/vexreg/names.h"

namespace vex {
namespace {

constexpr char kHelp[] = "help";
constexpr char kHelpOption[] = "--help";

// What people say for a command.
constexpr std::pair<const char *, const char *> kOtherWords[] = {
    {"list", "show"},      {"ls", "show"},           {"get", "show"},      {"print", "show"},
    {"status", "show"},    {"top", "watch"},         {"monitor", "watch"}, {"follow", "watch"},
    {"check", "doctor"},   {"diagnose", "doctor"},   {"html", "report"},   {"delete", "rm"},
    {"remove", "rm"},      {"set", "put"},           {"write", "put"},     {"json", "dump"},
    {"metrics", "export"}, {"prometheus", "export"}, {"save", "capture"}};

std::vector<const CLI::App *> AllCommands(const CLI::App &app) {
  return app.get_subcommands([](const CLI::App *) { return true; });
}

const CLI::App *FindCommand(const CLI::App &app, const std::string &name) {
  for (const CLI::App *command : AllCommands(app)) {
    if (command->get_name() == name) {
      return command;
    }
  }
  return nullptr;
}

// The option that a word begins, of the program or of any command; null when there is none.
const CLI::Option *FindOption(const CLI::App &app, const std::string &word) {
  std::vector<const CLI::App *> all = AllCommands(app);
  all.insert(all.begin(), &app);
  for (const CLI::App *each : all) {
    if (const CLI::Option *option = each->get_option_no_throw(word)) {
      return option;
    }
  }
  return nullptr;
}

// The place of the first word that is no option and no option's value.
size_t PlaceOfCommand(const CLI::App &app, const std::vector<std::string> &words) {
  size_t i = 0;
  while (i < words.size() && words[i].size() > 1 && words[i][0] == '-') {
    const CLI::Option *option = FindOption(app, words[i]);
    i += option != nullptr && option->get_expected_max() > 0 ? 2 : 1;
  }
  return std::min(i, words.size());
}

// The nearest of some names; empty when none is near.
std::string NearestOf(const std::string &given, const std::vector<std::string> &names) {
  constexpr size_t kMost = 2;
  size_t least = std::min(kMost, given.size() / 2) + 1;
  std::string nearest;
  for (const std::string &name : names) {
    const size_t distance = EditDistance(given, name, kMost);
    if (distance < least) {
      least = distance;
      nearest = name;
    }
  }
  return nearest;
}

std::string NearestCommand(const CLI::App &app, const std::string &given) {
  std::string small(given);
  std::transform(small.begin(), small.end(), small.begin(),
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  for (const auto &[word, command] : kOtherWords) {
    if (small == word) {
      return command;
    }
  }
  std::vector<std::string> names;
  for (const CLI::App *command : AllCommands(app)) {
    if (!command->get_group().empty()) {
      names.push_back(command->get_name());
    }
  }
  return NearestOf(small, names);
}

std::vector<std::string> OptionNames(const CLI::App &app, const CLI::App &command) {
  std::vector<std::string> names;
  for (const CLI::App *each : {&command, &app}) {
    for (const CLI::Option *option : each->get_options()) {
      for (const std::string &name : option->get_lnames()) {
        names.push_back("--" + name);
      }
    }
  }
  return names;
}

// What the library says, "--color: 1 required auto|always|never missing" in words of ours.
std::string WithoutJargon(const CLI::ParseError &error) {
  constexpr std::string_view kRequired = ": 1 required ";
  constexpr std::string_view kMissing = " missing";
  std::string text = error.what();
  const size_t at = text.find(kRequired);
  if (at == std::string::npos || !text.ends_with(kMissing)) {
    return text;
  }
  const size_t value = at + kRequired.size();
  return text.substr(0, at) +
         ": a value is missing: " + text.substr(value, text.size() - kMissing.size() - value);
}

std::string Meant(const std::string &nearest) {
  return "; did you mean " + nearest + "?";
}

}  // namespace

std::vector<std::string> CommandFirst(const CLI::App &app, std::vector<std::string> words) {
  const size_t place = PlaceOfCommand(app, words);
  if (place == words.size()) {
    return words;
  }
  std::rotate(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(place),
              words.begin() + static_cast<std::ptrdiff_t>(place) + 1);
  if (words[0] == kHelp) {
    words.erase(words.begin());
    words.emplace_back(kHelpOption);
  }
  return words;
}

std::string UsageComplaint(const CLI::App &app, const std::vector<std::string> &words,
                           const CLI::ParseError &error) {
  const std::string said = WithoutJargon(error);
  if (words.empty() || words[0].starts_with('-')) {
    // It fails by an option of its own before the command is missed.
    if (!words.empty() && dynamic_cast<const CLI::RequiredError *>(&error) == nullptr &&
        dynamic_cast<const CLI::ExtrasError *>(&error) == nullptr) {
      return said + "; see vexreg --help";
    }
    const bool known = words.empty() || FindOption(app, words[0]) != nullptr;
    return known ? "a command is missing; vexreg --help lists them"
                 : words[0] + ": no such option; see vexreg --help";
  }
  const CLI::App *command = FindCommand(app, words[0]);
  if (command == nullptr) {
    const std::string nearest = NearestCommand(app, words[0]);
    return words[0] + ": no such command" +
           (nearest.empty() ? "; vexreg --help lists them" : Meant(nearest));
  }
  const std::string see = "; see vexreg " + words[0] + " --help";
  if (dynamic_cast<const CLI::ExtrasError *>(&error) != nullptr) {
    for (size_t i = 1; i < words.size(); i++) {
      const std::string name = words[i].substr(0, words[i].find('='));
      const auto options = OptionNames(app, *command);
      if (name.size() > 1 && name[0] == '-' &&
          std::find(options.begin(), options.end(), name) == options.end()) {
        const std::string nearest = NearestOf(name, options);
        return words[0] + ": " + name + ": no such option" +
               (nearest.empty() ? see : Meant(nearest));
      }
    }
  }
  return words[0] + ": " + said + see;
}

}  // namespace vex
