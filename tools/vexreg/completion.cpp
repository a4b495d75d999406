#include "tools/vexreg/completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <set>

#include "framework/registry/registry_file.h"
#include "framework/snmp/mib_table.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/tables.h"

namespace vex {
namespace {

constexpr char kNames[] = "names";
constexpr char kColumns[] = "columns";
constexpr char kOwnObjects[] = "host/";  // the Host Agent's, which need no directory
constexpr char kObjectArgument[] = "OBJECT";
constexpr char kFileArgument[] = "FILE";
constexpr char kSafeCharacters[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-./";

struct Option {
  std::string name;         // with its dashes
  std::string description;  // its first clause
  std::string value;        // what it takes: DIR, FILE, words with |, anything else; empty for none
};

struct Command {
  std::string name;
  std::string description;
  std::vector<Option> options;
  bool objects = false;  // its arguments are objects
  bool file = false;     // its argument is a file
};

// Up to the first sign that separates clauses.
std::string FirstClause(const std::string &text) {
  return text.substr(0, text.find_first_of(",;."));
}

std::vector<Option> OptionsOf(const CLI::App &app) {
  std::vector<Option> options;
  for (const CLI::Option *option : app.get_options()) {
    if (option->get_group().empty()) {
      continue;
    }
    for (const std::string &name : option->get_lnames()) {
      options.push_back({"--" + name, FirstClause(option->get_description()),
                         option->get_expected_max() > 0 ? option->get_type_name() : ""});
    }
  }
  return options;
}

std::vector<Command> CommandsOf(const CLI::App &app) {
  std::vector<Command> commands;
  for (const CLI::App *each : app.get_subcommands([](const CLI::App *) { return true; })) {
    if (each->get_group().empty()) {
      continue;  // not for people
    }
    Command command = {each->get_name(), FirstClause(each->get_description()), OptionsOf(*each),
                       false, false};
    for (const CLI::Option *option : each->get_options()) {
      command.objects = command.objects || option->get_name(true) == kObjectArgument;
      command.file = command.file || option->get_name(true) == kFileArgument;
    }
    commands.push_back(std::move(command));
  }
  return commands;
}

std::string Joined(const std::vector<std::string> &words, const char *between) {
  std::string text;
  for (const std::string &word : words) {
    text += (text.empty() ? "" : between) + word;
  }
  return text;
}

std::vector<std::string> NamesOf(const std::vector<Option> &options) {
  std::vector<std::string> names;
  names.reserve(options.size());
  for (const Option &option : options) {
    names.push_back(option.name);
  }
  return names;
}

// In single quotation marks of a shell.
std::string Quoted(const std::string &text) {
  std::string quoted = "'";
  for (const char c : text) {
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return quoted + "'";
}

std::string WordsOf(std::string value) {
  std::replace(value.begin(), value.end(), '|', ' ');
  return value;
}

bool IsChoice(const std::string &value) {
  return value.find('|') != std::string::npos;
}

// Each option once, whichever commands have it.
std::vector<Option> AllOptions(const CLI::App &app, const std::vector<Command> &commands) {
  std::vector<Option> all = OptionsOf(app);
  for (const Command &command : commands) {
    for (const Option &option : command.options) {
      if (std::none_of(all.begin(), all.end(),
                       [&](const Option &other) { return other.name == option.name; })) {
        all.push_back(option);
      }
    }
  }
  return all;
}

// ---- bash ---------------------------------------------------------------------------------------

std::string BashScript(const CLI::App &app) {
  const std::vector<Command> commands = CommandsOf(app);
  std::vector<std::string> names;
  std::vector<std::string> with_value;
  std::string values;
  for (const Option &option : AllOptions(app, commands)) {
    if (option.value.empty()) {
      continue;
    }
    with_value.push_back(option.name);
    values += "    " + option.name + ")\n";
    if (option.value == "DIR") {
      values += "      mapfile -t COMPREPLY < <(compgen -d -- \"$word\")\n";
    } else if (option.value == "FILE") {
      values += "      mapfile -t COMPREPLY < <(compgen -f -- \"$word\")\n";
    } else if (IsChoice(option.value)) {
      values += "      mapfile -t COMPREPLY < <(compgen -W " + Quoted(WordsOf(option.value)) +
                " -- \"$word\")\n";
    } else if (option.value == "LIST") {
      // Its last member.
      values +=
          "      name=${word##*[,+]}\n"
          "      name=${name#-}\n"
          "      mapfile -t COMPREPLY < <(compgen -P \"${word%\"$name\"}\" -W \"$("
          "\"${COMP_WORDS[0]}\" \"${root[@]}\" completion columns 2>/dev/null)\" -- \"$name\")\n";
    }
    values += "      return ;;\n";
  }
  std::string options;
  std::vector<std::string> with_objects;
  std::vector<std::string> with_file;
  for (const Command &command : commands) {
    names.push_back(command.name);
    options += "    " + command.name +
               ") options=" + Quoted(Joined(NamesOf(command.options), " ") + " --root") + " ;;\n";
    if (command.objects) {
      with_objects.push_back(command.name);
    }
    if (command.file) {
      with_file.push_back(command.name);
    }
  }
  return "# Completion of vexreg for bash, generated from the command.\n"
         "_vexreg() {\n"
         "  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]}\n"
         "  local command='' options='' name i root=()\n"
         "  COMPREPLY=()\n"
         "  # --option=value is three words.\n"
         "  if [[ $word == = ]]; then\n"
         "    word=''\n"
         "  elif [[ $before == = && $COMP_CWORD -gt 2 ]]; then\n"
         "    before=${COMP_WORDS[COMP_CWORD-2]}\n"
         "  fi\n"
         "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
         "    case ${COMP_WORDS[i]} in\n"
         "    " +
         Joined(with_value, "|") +
         ")\n"
         "      name=${COMP_WORDS[i]}\n"
         "      [[ ${COMP_WORDS[i+1]} == = ]] && ((i++))\n"
         "      ((i++))\n"
         "      [[ $name == --root ]] && root=(--root \"${COMP_WORDS[i]}\") ;;\n"
         "    -*) ;;\n"
         "    *) command=${command:-${COMP_WORDS[i]}} ;;\n"
         "    esac\n"
         "  done\n"
         "  case $before in\n" +
         values +
         "  esac\n"
         "  case $command in\n"
         "    '') options=" +
         Quoted(Joined(NamesOf(OptionsOf(app)), " ")) + " ;;\n" + options +
         "  esac\n"
         "  if [[ $word == -* ]]; then\n"
         "    mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$word\")\n"
         "  elif [[ -z $command ]]; then\n"
         "    mapfile -t COMPREPLY < <(compgen -W " +
         Quoted(Joined(names, " ")) +
         " -- \"$word\")\n"
         "  elif [[ $command =~ ^(" +
         Joined(with_objects, "|") +
         ")$ ]]; then\n"
         "    while IFS= read -r name; do\n"
         "      [[ $name == \"$word\"* ]] && COMPREPLY+=(\"$name\")\n"
         "    done < <(\"${COMP_WORDS[0]}\" \"${root[@]}\" completion names 2>/dev/null)\n"
         "  elif [[ $command =~ ^(" +
         Joined(with_file, "|") +
         ")$ ]]; then\n"
         "    mapfile -t COMPREPLY < <(compgen -f -- \"$word\")\n"
         "  fi\n"
         "} && complete -F _vexreg vexreg\n";
}

// ---- zsh ----------------------------------------------------------------------------------------

// An option as _arguments takes it.
std::string ZshOption(const Option &option) {
  std::string text = option.name + "[" + option.description + "]";
  if (option.value == "DIR") {
    text += ":directory:_files -/";
  } else if (option.value == "FILE") {
    text += ":file:_files";
  } else if (IsChoice(option.value)) {
    text += ":choice:(" + WordsOf(option.value) + ")";
  } else if (option.value == "LIST") {
    text += ":columns:_vexreg_columns";
  } else if (!option.value.empty()) {
    text += ":" + option.value + ":";
  }
  return Quoted(text);
}

std::string ZshScript(const CLI::App &app) {
  std::string described;
  std::string cases;
  for (const Command &command : CommandsOf(app)) {
    described += "    " + Quoted(command.name + ":" + command.description) + "\n";
    cases += "      " + command.name + ")\n        _arguments";
    for (const Option &option : command.options) {
      cases += " \\\n          " + ZshOption(option);
    }
    if (command.objects) {
      cases += " \\\n          '*:object:_vexreg_objects'";
    }
    if (command.file) {
      cases += " \\\n          '1:file:_files'";
    }
    cases += " ;;\n";
  }
  std::string general;
  for (const Option &option : OptionsOf(app)) {
    general += " \\\n    " + ZshOption(option);
  }
  return "#compdef vexreg\n"
         "# Completion of vexreg for zsh, generated from the command.\n"
         "_vexreg_objects() {\n"
         "  local -a objects\n"
         "  objects=(${(f)\"$(_call_program objects vexreg ${(q)root[@]} completion names "
         "2>/dev/null)\"})\n"
         "  compadd -a objects\n"
         "}\n\n"
         "_vexreg_columns() {\n"
         "  local -a columns\n"
         "  columns=(${(f)\"$(_call_program columns vexreg ${(q)root[@]} completion columns "
         "2>/dev/null)\"})\n"
         "  compset -P '*[,+]'\n"
         "  compset -P '-'\n"
         "  compadd -S '' -a columns\n"
         "}\n\n"
         "_vexreg() {\n"
         "  local curcontext=$curcontext state line\n"
         "  local -A opt_args\n"
         "  local -a commands\n"
         "  commands=(\n" +
         described +
         "  )\n"
         "  _arguments -C" +
         general +
         " \\\n    '1:command:->command' '*::argument:->argument'\n"
         "  # What follows the command is parsed by itself, without this.\n"
         "  local -a root\n"
         "  (( $+opt_args[--root] )) && root=(--root ${(Q)opt_args[--root]})\n"
         "  case $state in\n"
         "  command) _describe command commands ;;\n"
         "  argument)\n"
         "    case $line[1] in\n" +
         cases +
         "    esac ;;\n"
         "  esac\n"
         "}\n\n"
         "if [[ $funcstack[1] == _vexreg ]]; then\n"
         "  _vexreg \"$@\"\n"
         "else\n"
         "  compdef _vexreg vexreg\n"
         "fi\n";
}

// ---- fish ---------------------------------------------------------------------------------------

std::string FishOption(const std::string &condition, const Option &option) {
  std::string line = "complete -c vexreg" + condition + " -l " + option.name.substr(2) + " -d " +
                     Quoted(option.description);
  if (option.value == "DIR") {
    line += " -x -a '(__fish_complete_directories)'";
  } else if (option.value == "FILE") {
    line += " -r -F";
  } else if (IsChoice(option.value)) {
    line += " -x -a " + Quoted(WordsOf(option.value));
  } else if (option.value == "LIST") {
    line += " -x -a '(__fish_append , (vexreg completion columns 2>/dev/null))'";
  } else if (!option.value.empty()) {
    line += " -x";
  }
  return line + "\n";
}

std::string FishScript(const CLI::App &app) {
  const std::vector<Command> commands = CommandsOf(app);
  std::string names;
  for (const Command &command : commands) {
    names += " " + command.name;
  }
  const std::string without = " -n 'not __fish_seen_subcommand_from" + names + "'";
  std::string text =
      "# Completion of vexreg for fish, generated from the command.\n"
      "complete -c vexreg -f\n";
  for (const Option &option : OptionsOf(app)) {
    text += FishOption(option.name == "--root" ? "" : without, option);
  }
  for (const Command &command : commands) {
    const std::string within = " -n '__fish_seen_subcommand_from " + command.name + "'";
    text += "complete -c vexreg" + without + " -a " + command.name + " -d " +
            Quoted(command.description) + "\n";
    for (const Option &option : command.options) {
      text += FishOption(within, option);
    }
    if (command.objects) {
      text += "complete -c vexreg" + within + " -a '(vexreg completion names 2>/dev/null)'\n";
    }
    if (command.file) {
      text += "complete -c vexreg" + within + " -F\n";
    }
  }
  return text;
}

int PrintNames(const std::string &root) {
  std::set<std::string> names;
  int status = kDone;
  std::vector<Unread> unread;
  for (const std::string &name : ListObjects(root, &unread)) {
    const auto row = ParseRowName(name);
    names.insert(name);
    const std::string_view group = row ? row->group : std::string_view(name);
    names.emplace(group);
    if (group.starts_with(kOwnObjects)) {
      names.emplace(group.substr(sizeof(kOwnObjects) - 1));
    }
  }
  for (const MibVariable &variable : MibVariables()) {
    names.emplace(variable.name);
  }
  for (const std::string &name : names) {
    if (name.find_first_not_of(kSafeCharacters) == std::string::npos) {
      std::cout << name << '\n';
    }
  }
  TellUnread(unread, root, &status);
  return status;
}

// What --sort and --columns take of the objects that there are.
int PrintColumns(const std::string &root) {
  std::set<std::string> columns = {kObjectColumn, kPublishedColumn};
  std::set<std::string> groups;  // the rows of each have the same
  int status = kDone;
  std::vector<Unread> unread;
  for (const std::string &name : ListObjects(root, &unread)) {
    const auto row = ParseRowName(name);
    if (!groups.insert(std::string(row ? row->group : std::string_view(name))).second) {
      continue;
    }
    if (const auto object = ReadObjectFile(name, root)) {
      for (const std::string_view column : ShortNames(*object)) {
        columns.emplace(column);
      }
    } else {
      Complain(name + ": cannot be read as an object");
    }
  }
  for (const std::string &column : columns) {
    if (!column.empty() && column.find_first_not_of(kSafeCharacters) == std::string::npos) {
      std::cout << column << '\n';
    }
  }
  TellUnread(unread, root, &status);
  return status;
}

}  // namespace

std::optional<std::string> CompletionScript(const CLI::App &app, const std::string &shell) {
  if (shell == "bash") {
    return BashScript(app);
  }
  if (shell == "zsh") {
    return ZshScript(app);
  }
  if (shell == "fish") {
    return FishScript(app);
  }
  return std::nullopt;
}

int Complete(const CLI::App &app, const std::string &root, const std::string &what) {
  if (what == kNames) {
    return FinishOutput(PrintNames(root));
  }
  if (what == kColumns) {
    return FinishOutput(PrintColumns(root));
  }
  const auto script = CompletionScript(app, what);
  if (!script) {
    Complain(what + ": no shell that is known here; there are bash, zsh and fish");
    return kWrongUsage;
  }
  std::cout << *script;
  return FinishOutput(kDone);
}

}  // namespace vex
