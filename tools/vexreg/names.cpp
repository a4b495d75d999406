#include "tools/vexreg/names.h"

#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <strings.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "common/sources.h"
#include "framework/registry/registry_dir.h"
#include "framework/snmp/mib_table.h"

namespace vex {
namespace {

// The name behind the last slash.
std::string_view BaseName(std::string_view name) {
  return name.substr(name.rfind('/') + 1);
}

std::string_view DirectoryName(std::string_view name) {
  const size_t slash = name.rfind('/');
  return slash != std::string_view::npos ? name.substr(0, slash) : std::string_view();
}

// "host/cpu" of host/cpu.3; the name itself of an object that is no row.
std::string_view GroupOf(std::string_view name) {
  const auto row = ParseRowName(name);
  return row ? row->group : name;
}

bool IsPattern(std::string_view name) {
  return name.find_first_of("*?[") != std::string_view::npos;
}

bool SameWord(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// The objects among the names that a pattern, a group or a short name stands for; any_case: also in
// other letters than theirs.
std::vector<std::string> NamesOf(const std::string &path, bool has_directory,
                                 const std::vector<std::string> &names, bool any_case = false) {
  std::vector<std::string> all;
  std::vector<std::string> own;
  const bool pattern = IsPattern(path);
  for (const std::string &name : names) {
    const std::string base(has_directory ? std::string_view(name) : BaseName(name));
    const int flags = FNM_PATHNAME | (any_case ? FNM_CASEFOLD : 0);
    const bool fits = pattern    ? fnmatch(path.c_str(), base.c_str(), flags) == 0
                      : any_case ? SameWord(base, path) || SameWord(GroupOf(base), path)
                                 : base == path || GroupOf(base) == path;
    if (fits) {
      all.push_back(name);
      if (DirectoryName(name) == host_directory) {
        own.push_back(name);
      }
    }
  }
  return pattern || own.empty() ? all : own;
}

// The same as it is, and only where nothing fits so, in any case of letters.
std::vector<std::string> NamesInAnyCase(const std::string &path, bool has_directory,
                                        const std::vector<std::string> &names) {
  std::vector<std::string> found = NamesOf(path, has_directory, names);
  return found.empty() ? NamesOf(path, has_directory, names, true) : found;
}

// Looks names up in a registry, which is listed once at most.
class Search {
 public:
  explicit Search(const Selection &selection) : root_(selection.root) {
    if (selection.names.empty()) {
      AddAll(Names());
    }
    for (const std::string &name : selection.names) {
      Add(name);
    }
    Finish();
  }
  Found Take() {
    return std::move(found_);
  }

 private:
  const std::vector<std::string> &Names() {
    if (!names_) {
      names_ = ListObjects(root_, &found_.unread);
    }
    return *names_;
  }

  // Also where that cannot be told.
  bool FileExists(const std::string &name) const {
    const Descriptor root(OpenRegistryRoot(root_, false));
    return (root && Descriptor(OpenBeneath(root.get(), name, O_PATH))) || errno == EMFILE ||
           errno == ENFILE || errno == ENOMEM || errno == EIO;
  }

  void Add(const std::string &given) {
    const auto path = ResolveObjectName(given, root_);
    if (path && AddObject(*path)) {
      return;
    }
    if (path && FileExists(*path) && !IsDirectory(*path)) {
      found_.unreadable.push_back(given);
      return;
    }
    const bool has_directory = given.find('/') != std::string::npos;
    const std::vector<std::string> names =
        path ? NamesInAnyCase(*path, has_directory, Names()) : std::vector<std::string>();
    if (!names.empty()) {
      // What a name stands for is damaged as a whole, or in parts that are left out.
      if (std::none_of(names.begin(), names.end(),
                       [&](const std::string &name) { return AddObject(name); })) {
        (std::any_of(names.begin(), names.end(),
                     [&](const std::string &name) { return FileExists(name); })
             ? found_.unreadable
             : found_.missing)
            .push_back(given);
        return;
      }
      AddAll(names);
      return;
    }
    if (has_directory || given.empty() || !AddVariable(given)) {
      found_.missing.push_back(given);
    }
  }

  bool IsDirectory(const std::string &name) const {
    const Descriptor root(OpenRegistryRoot(root_, false));
    return root && Descriptor(OpenBeneath(root.get(), name, O_PATH | O_DIRECTORY));
  }

  void AddAll(const std::vector<std::string> &names) {
    for (const std::string &name : names) {
      if (!AddObject(name)) {
        AddDamaged(name);
      }
    }
  }

  void AddDamaged(const std::string &name) {
    if (FileExists(name) &&
        std::find(found_.damaged.begin(), found_.damaged.end(), name) == found_.damaged.end()) {
      found_.damaged.push_back(name);
    }
  }

  // Reads an object unless that was done; notes that all of it is wanted. False when it is not
  // there.
  bool AddObject(const std::string &name) {
    const auto known = wanted_.find(name);
    if (known != wanted_.end()) {
      known->second.clear();
      return true;
    }
    auto object = ReadObjectFile(name, root_);
    if (!object) {
      return false;
    }
    found_.objects.push_back({name, std::move(*object)});
    wanted_[name];
    return true;
  }

  // Notes that a variable of an object is wanted.
  void AddVariableOf(const std::string &name, FileObject object, const std::string &variable) {
    const auto [known, is_new] = wanted_.try_emplace(name);
    if (is_new) {
      found_.objects.push_back({name, std::move(object)});
    }
    if (is_new || !known->second.empty()) {
      known->second.insert(variable);
    }
  }

  bool AddVariable(const std::string &given) {
    bool any = false;
    for (const std::string &name : Names()) {
      auto object = ReadObjectFile(name, root_);
      if (!object) {
        AddDamaged(name);  // it may have the variable
      }
      if (object &&
          std::any_of(object->variables.begin(), object->variables.end(),
                      [&](const FileVariable &v) { return v.type != 0 && v.name == given; })) {
        AddVariableOf(name, std::move(*object), given);
        any = true;
      }
    }
    const std::string known = any ? given : WellKnownName(given);
    return known != given ? AddVariable(known) : any;
  }

  // Leaves of each object the variables that were asked for.
  void Finish() {
    for (NamedObject &found : found_.objects) {
      const std::set<std::string> &wanted = wanted_[found.name];
      if (!wanted.empty()) {
        std::erase_if(found.object.variables, [&](const FileVariable &variable) {
          return !wanted.contains(variable.name);
        });
      }
    }
  }

  const std::string root_;
  std::optional<std::vector<std::string>> names_;
  // By object: the variables that were asked for, none for all.
  std::map<std::string, std::set<std::string>> wanted_;
  Found found_;
};

std::string SmallLetters(std::string_view text) {
  std::string small(text);
  std::transform(small.begin(), small.end(), small.begin(),
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  return small;
}

// The nearest of several names, of which some go by more than one.
class Nearest {
 public:
  explicit Nearest(std::string_view given)  // in small letters
      : given_(given), distance_(std::min(kMost, 1 + given.size() / 4) + 1) {}
  void Try(std::string_view name, std::string_view shown) {
    const std::string small = SmallLetters(name);
    const size_t distance = IsBeginning(small) ? 1 : EditDistance(given_, small, distance_ - 1);
    if (distance < distance_) {
      distance_ = distance;
      shown_ = shown;
    }
  }
  const std::string &shown() const {
    return shown_;
  }

 private:
  static constexpr size_t kMost = 3;
  static constexpr size_t kShortestBeginning = 3;
  bool IsBeginning(std::string_view name) const {
    return given_.size() >= kShortestBeginning && name.starts_with(given_);
  }
  std::string_view given_;
  size_t distance_;
  std::string shown_;
};

// What people call what an agent has.
constexpr std::pair<std::string_view, std::string_view> kOtherNames[] = {
    {"filesystem", "filesys"}, {"fs", "filesys"},    {"disk", "filesys"},
    {"df", "filesys"},         {"package", "swver"}, {"software", "swver"},
    {"firmware", "fwver"},     {"processor", "cpu"}, {"core", "cpu"},
    {"ram", "memory"},         {"swap", "memory"},   {"agents", "sibling"},
    {"uptime", "load"},        {"loadavg", "load"},  {"os", "info"},
    {"system", "info"},        {"hostname", "info"}, {"hardware", "hwinfo"},
    {"platform", "hwinfo"},    {"version", "agent"}, {"poll", "agent"}};

// The group of the agent's that one of those names is for, the plural too; empty when it is none or
// not there. given: in small letters.
std::string OtherName(std::string_view given, const std::vector<std::string> &objects) {
  const std::string own = host_objects;
  for (const std::string_view form :
       {given, given.substr(0, given.size() - (given.ends_with('s') ? 1 : 0))}) {
    for (const auto &[word, group] : kOtherNames) {
      std::string name = own + std::string(group);
      if (form == word && std::any_of(objects.begin(), objects.end(), [&](const std::string &each) {
            return GroupOf(each) == name;
          })) {
        return name;
      }
    }
  }
  return "";
}

// The shortest variable that a heading may be the end of; given: in small letters.
std::string VariableOfHeading(std::string_view given) {
  std::string_view shortest;
  for (const MibVariable &variable : MibVariables()) {
    const std::string_view name = variable.name;
    const bool ends = given.size() > 1 && name.size() > given.size() &&
                      isupper(static_cast<unsigned char>(name[name.size() - given.size()])) != 0 &&
                      SameWord(name.substr(name.size() - given.size()), given);
    if (ends && (shortest.empty() || name.size() < shortest.size())) {
      shortest = name;
    }
  }
  return std::string(shortest);
}

}  // namespace

Found FindObjects(const Selection &selection) {
  return Search(selection).Take();
}

std::vector<std::string> NamesFor(const std::string &given, const std::string &root,
                                  const std::vector<std::string> &names) {
  const auto path = ResolveObjectName(given, root);
  if (!path) {
    return {};
  }
  if (std::find(names.begin(), names.end(), *path) != names.end()) {
    return {*path};
  }
  return NamesInAnyCase(*path, given.find('/') != std::string::npos, names);
}

std::string WellKnownName(const std::string &given) {
  for (const MibVariable &variable : MibVariables()) {
    if (SameWord(variable.name, given)) {
      return std::string(variable.name);
    }
  }
  return given;
}

size_t EditDistance(std::string_view a, std::string_view b, size_t most) {
  if (std::max(a.size(), b.size()) - std::min(a.size(), b.size()) > most) {
    return most + 1;
  }
  std::vector<size_t> before_last;
  std::vector<size_t> last;
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); j++) {
    row[j] = j;
  }
  for (size_t i = 1; i <= a.size(); i++) {
    before_last = std::move(last);
    last = row;
    row[0] = i;
    for (size_t j = 1; j <= b.size(); j++) {
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a[i - 1] != b[j - 1])});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        row[j] = std::min(row[j], before_last[j - 2] + 1);
      }
    }
    if (*std::min_element(row.begin(), row.end()) > most) {
      return most + 1;
    }
  }
  return std::min(row.back(), most + 1);
}

std::string NearestName(std::string_view said, const std::vector<std::string> &objects) {
  const std::string small = SmallLetters(said);
  std::string_view given = small;
  while (given.ends_with('/')) {
    given.remove_suffix(1);
  }
  for (const std::string &name : objects) {
    if (!given.empty() && DirectoryName(name) == given) {
      return "'" + std::string(given) + "/*'";
    }
  }
  if (std::string other = OtherName(given, objects); !other.empty()) {
    return other;
  }
  Nearest nearest(given);
  const bool has_directory = given.find('/') != std::string_view::npos;
  for (const std::string &name : objects) {
    const std::string_view group = GroupOf(name);
    for (const std::string_view known : {group, std::string_view(name)}) {
      nearest.Try(has_directory ? known : BaseName(known), known);
    }
  }
  if (!has_directory) {
    for (const MibVariable &variable : MibVariables()) {
      nearest.Try(variable.name, variable.name);
    }
    if (nearest.shown().empty()) {
      return VariableOfHeading(given);
    }
  }
  return nearest.shown();
}

}  // namespace vex
