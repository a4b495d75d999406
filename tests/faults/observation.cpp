#include "tests/faults/observation.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>

#include "platform/framework.h"

using namespace made_up;

namespace faults {

namespace {

const std::string kRealProc = std::string(MadeUpHost::kDirectory) + "/real-proc/";
constexpr const char *kKept[] = {"/var/spool/quorix", "/var/lib/quorix", "/etc/quorix"};

std::string Printable(const std::string &bytes) {
  std::string text;
  for (const char byte : bytes) {
    char code[8];
    snprintf(code, sizeof(code), byte >= ' ' && byte <= '~' ? "%c" : "\\%02x",
             static_cast<unsigned char>(byte));
    text += code;
  }
  return text;
}

// The third field of /proc/PID/stat behind the name, and its name.
bool StatOf(const std::string &pid, std::string *name, std::string *state, pid_t *parent,
            pid_t *session) {
  const std::string text = ReadFile(kRealProc + pid + "/stat");
  const size_t from = text.find('('), to = text.rfind(") ");
  if (from == std::string::npos || to == std::string::npos) {
    return false;
  }
  *name = text.substr(from + 1, to - from - 1);
  char letter = 0;
  int group = 0;
  if (sscanf(text.c_str() + to + 2, "%c %d %d %d", &letter, parent, &group, session) != 4) {
    return false;
  }
  *state = letter;
  return true;
}

std::vector<std::string> Processes() {
  std::vector<std::string> found = ListDirectory(kRealProc);
  std::erase_if(found, [](const std::string &name) {
    return name.find_first_not_of("0123456789") != std::string::npos;
  });
  return found;
}

// How the agent's polls go is another matter at each of them: all of the agent's own group but its
// version.
bool TellsOfPolls(const std::string &name) {
  return name.starts_with("tlxHoAgent") && name != "tlxHoAgentVersion";
}
constexpr char kAgentGroup[] = ".1.3.6.1.4.1.4891.11.2.200.4.";
constexpr char kAgentVersion[] = ".1.3.6.1.4.1.4891.11.2.200.4.1.0";

}  // namespace

Seen SeeObjects() {
  Seen seen;
  for (const std::string &name : vex::ListObjects()) {
    const auto object = vex::ReadObjectFile(name);
    if (!object) {
      seen.push_back("object " + name + " cannot be read");
      continue;
    }
    for (const vex::FileVariable &variable : object->variables) {
      if (TellsOfPolls(variable.name)) {
        continue;
      }
      const auto *at = reinterpret_cast<const char *>(object->data.data()) + variable.offset;
      std::string value;
      if (variable.type == VAR_INTEGER) {
        int32_t number = 0;
        memcpy(&number, at, sizeof(number));
        value = std::to_string(number);
      } else if (variable.type == VAR_DISPLAY_STRING) {
        value = Printable({at, strnlen(at, variable.size)});
      } else {
        value = Printable({at, variable.length});
      }
      seen.push_back("object " + name + " " + variable.name + " = " + value);
    }
  }
  std::sort(seen.begin(), seen.end());
  return seen;
}

Seen SeeWalk(MadeUpHost &host) {
  Seen seen;
  for (const std::string &line : host.BulkWalk()) {
    if (!line.starts_with(kAgentGroup) || line.starts_with(kAgentVersion)) {
      seen.push_back("walk " + line);
    }
  }
  std::sort(seen.begin(), seen.end());
  return seen;
}

Seen SeeKept() {
  Seen seen;
  std::error_code error;
  for (const char *root : kKept) {
    for (std::filesystem::recursive_directory_iterator entry(root, error), end;
         !error && entry != end; entry.increment(error)) {
      struct stat status {};
      const std::string path = entry->path();
      if (lstat(path.c_str(), &status) != 0) {
        continue;
      }
      char text[64];
      snprintf(text, sizeof(text), " %o", status.st_mode & 07777);
      std::string line = "kept " + path + text;
      const bool object = path.starts_with(MadeUpHost::kRegistry) && !path.ends_with(".dat");
      if (S_ISREG(status.st_mode) && !object) {
        const std::string content = ReadFile(path);
        line += " " + std::to_string(content.size()) + " " + Printable(content.substr(0, 64));
      }
      seen.push_back(line);
    }
  }
  std::sort(seen.begin(), seen.end());
  return seen;
}

Seen SeeProcess(pid_t agent) {
  Seen seen;
  for (const std::string &line : OpenFiles(agent)) {
    std::string target = line.substr(line.find(" -> ") + 4);
    seen.push_back("fd " + target.substr(0, target.find(":[")));
  }
  for (const std::string &task : ListDirectory(kRealProc + std::to_string(agent) + "/task")) {
    (void)task;
    seen.emplace_back("thread");
  }
  for (const std::string &pid : Processes()) {
    std::string name, state;
    pid_t parent = 0, session = 0;
    if (StatOf(pid, &name, &state, &parent, &session) && parent == agent) {
      seen.push_back("child " + name + (state == "Z" ? " (zombie)" : ""));
    }
  }
  std::sort(seen.begin(), seen.end());
  return seen;
}

Seen SeeLeft(pid_t agent) {
  Seen seen;
  for (const std::string &pid : Processes()) {
    std::string name, state;
    pid_t parent = 0, session = 0;
    if (StatOf(pid, &name, &state, &parent, &session) && state != "Z" &&
        (session == agent || name == "vexhostd")) {
      seen.push_back("left " + name);
    }
  }
  return seen;
}

Seen Together(std::vector<Seen> parts) {
  Seen all;
  for (Seen &part : parts) {
    all.insert(all.end(), std::make_move_iterator(part.begin()),
               std::make_move_iterator(part.end()));
  }
  std::sort(all.begin(), all.end());
  return all;
}

Seen WithoutNumbers(const Seen &seen) {
  // By object or by OID of the entry and number: the row's name.
  struct Table {
    std::string object, name, entry, name_column;
    std::vector<std::string> left_out;
  };
  const auto entry_of = [](const std::string &column) {
    return column.substr(0, column.rfind('.') + 1);
  };
  const std::string software = MadeUpHost::Oid("tlxHoSwVerName.1"),
                    mounts = MadeUpHost::Oid("tlxHoFileSysDesc.1"),
                    firmware = MadeUpHost::Oid("tlxHoFwVerDisplayName.1"),
                    directories = MadeUpHost::Oid("tlxHoMountDirectory.1"),
                    software_kinds = MadeUpHost::Oid("tlxHoSwKindName.1"),
                    firmware_kinds = MadeUpHost::Oid("tlxHoFwKindName.1");
  const std::string software_column = entry_of(software), mounts_column = entry_of(mounts),
                    firmware_column = entry_of(firmware),
                    directories_column = entry_of(directories),
                    software_kinds_column = entry_of(software_kinds),
                    firmware_kinds_column = entry_of(firmware_kinds);
  const auto parent = [](std::string column) {
    column.pop_back();
    return column.substr(0, column.rfind('.') + 1);
  };
  const Table tables[] = {{"object host/swver.",
                           "tlxHoSwVerName",
                           parent(software_column),
                           software_column,
                           {"tlxHoSwVerIndex"}},
                          {"object host/filesys.",
                           "tlxHoFileSysDesc",
                           parent(mounts_column),
                           mounts_column,
                           {"tlxHoFileSysIndex"}},
                          {"object host/mount.",
                           "tlxHoMountDirectory",
                           parent(directories_column),
                           directories_column,
                           {"tlxHoMountType"}},
                          {"object host/fwver.",
                           "tlxHoFwVerDisplayName",
                           parent(firmware_column),
                           firmware_column,
                           {"tlxHoFwVerIndex"}},
                          {"object host/swkind.",
                           "tlxHoSwKindName",
                           parent(software_kinds_column),
                           software_kinds_column,
                           {}},
                          {"object host/fwkind.",
                           "tlxHoFwKindName",
                           parent(firmware_kinds_column),
                           firmware_kinds_column,
                           {}}};
  // What stands behind the number of the line that names a row.
  std::map<std::string, std::string> named;
  for (const std::string &line : seen) {
    for (const Table &table : tables) {
      const std::string column = "walk " + table.name_column;
      if (line.starts_with(table.object)) {
        const size_t end = line.find(' ', table.object.size());
        if (line.compare(end, table.name.size() + 4, " " + table.name + " = ") == 0) {
          named.emplace(line.substr(0, end), line.substr(end));
        }
      } else if (line.starts_with(column)) {
        const size_t end = line.find(' ', column.size());
        named.emplace(line.substr(0, end), line.substr(end));
      }
    }
  }
  Seen result;
  for (const std::string &line : seen) {
    std::string changed = line;
    for (const Table &table : tables) {
      const std::string file = table.object.substr(strlen("object "));  // "host/swver."
      if (line.starts_with("kept ") && line.find("/" + file) != std::string::npos) {
        changed = "kept " + file;
      }
      if (line.starts_with(table.object)) {
        const std::string number = line.substr(0, line.find(' ', table.object.size()));
        if (const auto name = named.find(number); name != named.end()) {
          changed = table.object + name->second + line.substr(number.size());
        }
        if (!table.left_out.empty() &&
            line.find(table.left_out.front() + " ") != std::string::npos) {
          changed = table.object + "index";
        }
      }
      const std::string walked = "walk " + table.entry;
      if (line.starts_with(walked)) {
        const size_t dot = line.find('.', walked.size()), end = line.find(' ', walked.size());
        const std::string column = line.substr(walked.size(), dot - walked.size());
        const std::string number = line.substr(dot, end - dot);
        if (const auto name = named.find("walk " + table.name_column + number.substr(1));
            name != named.end()) {
          changed = walked + column + name->second + line.substr(end);
        }
        const std::string index =
            table.left_out.empty() ? "" : MadeUpHost::Oid(table.left_out.front() + ".1");
        if (!index.empty() && line.starts_with("walk " + index.substr(0, index.rfind('.') + 1))) {
          changed = walked + "index";
        }
      }
    }
    if (line.find(" tlxHoSwVerNextIndex = ") != std::string::npos ||
        line.starts_with("walk " + MadeUpHost::Oid("tlxHoSwVerNextIndex") + " ")) {
      changed = "the next software index";
    }
    result.push_back(changed);
  }
  std::sort(result.begin(), result.end());
  return result;
}

std::vector<std::string> Difference(const Seen &expected, const Seen &found) {
  std::vector<std::string> missing, more, lines;
  std::set_difference(expected.begin(), expected.end(), found.begin(), found.end(),
                      std::back_inserter(missing));
  std::set_difference(found.begin(), found.end(), expected.begin(), expected.end(),
                      std::back_inserter(more));
  for (const std::string &line : missing) {
    lines.push_back("- " + line);
  }
  for (const std::string &line : more) {
    lines.push_back("+ " + line);
  }
  return lines;
}

}  // namespace faults
