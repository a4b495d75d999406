// What people call objects, and what the registry has of them.
#ifndef VEX_TOOLS_VEXREG_NAMES_H
#define VEX_TOOLS_VEXREG_NAMES_H

#include <string>
#include <string_view>
#include <vector>

#include "framework/registry/registry_file.h"
#include "tools/vexreg/tables.h"

namespace vex {

// What to show: the objects named, or all when none is.
struct Selection {
  std::string root;
  std::vector<std::string> names;
};

// What a selection stands for at the moment.
struct Found {
  std::vector<NamedObject> objects;
  std::vector<std::string> missing;     // names that stand for nothing, as they were given
  std::vector<std::string> unreadable;  // names of files that are no whole object, as given
  std::vector<std::string> damaged;     // files that a search came across and left out
  std::vector<Unread> unread;           // what could not be looked at: objects may be missing
};

// Reads the objects that the names stand for, in the order of the names, each object once. A name
// is, whatever fits first:
//   an object from the root on, or its path: host/cpu.0
//   a pattern of fnmatch(3); without a slash, of the name behind the last one: 'host/filesys.*'
//   a group, for all of its rows in natural order: host/cpu
//   either without the directory: cpu, cpu.0. The Host Agent's own come before those of others.
//   a variable, for the objects that have it, with that variable alone: tlxHoCpuUtilMin
// A name that fits nothing so is taken in any case of letters.
// Objects that vanish meanwhile are left out.
Found FindObjects(const Selection &selection);

// The objects among these that a name stands for, by its text alone: as above, variables aside.
// names: from the root.
std::vector<std::string> NamesFor(const std::string &given, const std::string &root,
                                  const std::vector<std::string> &names);

// A variable of the modules as they write it, where it was given in other letters; else as it was.
std::string WellKnownName(const std::string &given);

// The name among the objects, their groups and the variables that was most likely meant, whatever
// the case, also by a word that people say for it ("filesystems"); empty when none is near.
// objects: names from the root.
std::string NearestName(std::string_view said, const std::vector<std::string> &objects);

// How many characters have to be inserted, left out, replaced or exchanged with their neighbour to
// make one of the other; `most` + 1 when it is more than that.
size_t EditDistance(std::string_view a, std::string_view b, size_t most);

}  // namespace vex

#endif
