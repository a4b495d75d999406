// What an agent serves, by names that do not depend on the order in which rows came; and where two
// of them differ. Pure.
#ifndef VEX_TOOLS_VEXREG_SERVED_H
#define VEX_TOOLS_VEXREG_SERVED_H

#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "framework/snmp/snmp_ask.h"
#include "tools/vexreg/tables.h"

namespace vex {

// A scalar's or a row's place: "", or what the row is of ("/dev/sda1 on /"). Rows of the same text
// are told apart by their order.
struct Place {
  std::string variable;
  std::string row;
  bool operator<(const Place &other) const {
    return row != other.row ? row < other.row : variable < other.variable;
  }
};
// Values as text: a number, or a string with other than printable characters as \xx.
using Served = std::map<Place, std::string>;

// What the objects of a registry are served as: those of the directory host/ alone.
Served ServedByObjects(const std::vector<NamedObject> &objects);
// What a walk of the agent's subtrees has brought.
Served ServedByWalk(const std::vector<SnmpValue> &values);

// Why a variable is not compared.
enum class Movement {
  kNone,
  kAlways,  // it differs at each start or each poll, whatever is read
  kBetween  // it goes on moving between the last poll and the capture
};
struct Moving {
  std::string_view variable;
  Movement movement;
  std::string_view why;
};
// All variables that move by nature; docs/capture-format.md has them as a table, by which a test
// compares them.
std::span<const Moving> MovingVariables();

struct Difference {
  Place place;
  std::string before, now;  // kAbsent where there is none
};
inline constexpr char kAbsent[] = "nothing";
// exact: what moves between the last poll and the capture is compared as well.
// The agent may be another one than the capturing one: where their revisions differ, its own is no
// difference, nor what the array and the rows of siblings have of it. known: the variables of the
// capturing agent. Others are no differences but go to `since`, as those do that a capture of
// another revision, which does not tell what was known, has nowhere.
std::vector<Difference> Compare(const Served &before, const Served &now, bool exact,
                                size_t *compared, const std::set<std::string> &known = {},
                                std::set<std::string> *since = nullptr);

}  // namespace vex

#endif
