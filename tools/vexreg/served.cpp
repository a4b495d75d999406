#include "tools/vexreg/served.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "common/sources.h"
#include "framework/snmp/mib_table.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

// What tells a table's rows apart, for those whose numbers come from their history.
constexpr const char *kKeys[][4] = {
    {"tlxHoFileSysDesc"},
    {"tlxHoMountDirectory", "tlxHoMountDevice"},
    {"tlxHoSwVerName", "tlxHoSwVerDescription"},
    {"tlxHoFwVerDisplayName", "tlxHoFwVerLocation", "tlxHoFwVerKeyString"},
    {"tlxHoSwKindName"},
    {"tlxHoFwKindName", "tlxHoFwKindLocation"},
};

constexpr Moving kMoving[] = {
    {"tlxHoAgentFailedPolls", Movement::kAlways, "counted from the agent's start"},
    {"tlxHoAgentLastPoll", Movement::kAlways, "a time"},
    {"tlxHoAgentPollDuration", Movement::kAlways, "as busy as the machine is"},
    {"tlxHoAgentStart", Movement::kAlways, "a time"},
    {"tlxHoAgentVersion", Movement::kAlways, "the agent may be another one, which is shown"},
    {"tlxHoConfigChangedDate", Movement::kAlways, "the agent's start"},
    {"tlxHoCpuUtilFiveMin", Movement::kAlways, "an average over polls"},
    {"tlxHoCpuUtilHour", Movement::kAlways, "an average over polls"},
    {"tlxHoCpuUtilMin", Movement::kAlways, "an average over polls"},
    {"tlxHoCpuUtilThirtyMin", Movement::kAlways, "an average over polls"},
    {"tlxHoFileSysAllocUnitsTotal", Movement::kBetween, "grows with some file systems"},
    {"tlxHoFileSysAllocUnitsUsed", Movement::kBetween, "what is stored"},
    {"tlxHoFileSysIndex", Movement::kAlways, "numbered in the order of mounting"},
    {"tlxHoFileSysPercentSpaceUsed", Movement::kBetween, "what is stored"},
    {"tlxHoFileSysSpaceUsed", Movement::kBetween, "what is stored"},
    {"tlxHoFwVerIndex", Movement::kAlways, "numbered in the order of coming"},
    {"tlxHoGenericData", Movement::kAlways, "a manager's, up to the agent's end"},
    {"tlxHoLoadFifteen", Movement::kBetween, "the load"},
    {"tlxHoLoadFive", Movement::kBetween, "the load"},
    {"tlxHoLoadOne", Movement::kBetween, "the load"},
    {"tlxHoMemoryAvailable", Movement::kBetween, "memory in use"},
    {"tlxHoMemoryCached", Movement::kBetween, "memory in use"},
    {"tlxHoMibCondition", Movement::kBetween, "the siblings' and their thresholds'"},
    {"tlxHoMibHealthStatusArray", Movement::kBetween, "the siblings'"},
    {"tlxHoMibStatusArray", Movement::kBetween, "the siblings'"},
    {"tlxHoMountState", Movement::kBetween, "whether a mount answers"},
    {"tlxHoOsCommonPollFreq", Movement::kAlways, "a replay polls more often"},
    {"tlxHoPagingMemoryFree", Movement::kBetween, "memory in use"},
    {"tlxHoPhysicalMemoryFree", Movement::kBetween, "memory in use"},
    {"tlxHoSiblingCondition", Movement::kBetween, "the siblings'"},
    {"tlxHoSiblingHealth", Movement::kBetween, "the siblings'"},
    {"tlxHoSiblingMajor", Movement::kBetween, "the siblings'"},
    {"tlxHoSiblingMinor", Movement::kBetween, "the siblings'"},
    {"tlxHoSiblingPresent", Movement::kBetween, "the siblings'"},
    {"tlxHoSwVerIndex", Movement::kAlways, "numbered in the order of coming"},
    {"tlxHoSwVerNextIndex", Movement::kAlways, "by the rows that have come and gone"},
    {"tlxHoTelnet", Movement::kAlways, "the host's ports are not captured"},
    {"tlxApOsCommonPollFreq", Movement::kAlways, "a replay polls more often"},
    {"tlxHoUptime", Movement::kBetween, "a time"},
};

// The bytes with other than printable characters as a backslash and two digits.
std::string HexEscaped(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= ' ' && byte < 0x7F && c != '\\') {
      text += c;
    } else {
      char hex[8];
      snprintf(hex, sizeof(hex), "\\%02x", byte);
      text += hex;
    }
  }
  return text;
}

struct Cell {
  const MibVariable *variable;
  std::string value;
};
// By table and row; a scalar's row is 0.
struct Row {
  std::vector<uint32_t> table;
  uint32_t number;
  bool operator<(const Row &other) const {
    return table != other.table ? table < other.table : number < other.number;
  }
};
using Rows = std::map<Row, std::vector<Cell>>;

Row RowOf(const MibVariable &variable, uint32_t number) {
  const auto oid = variable.Oid();
  Row row;
  if (variable.column) {
    row.table.assign(oid.begin(), oid.end() - 1);
  }
  row.number = number;
  return row;
}

// What a row is of: the values of its key, else its number.
std::string NameOf(const Row &row, const std::vector<Cell> &cells) {
  for (const auto &key : kKeys) {
    std::string name;
    bool found = false;
    for (const char *const variable : key) {
      for (const Cell &cell : cells) {
        if (variable != nullptr && variable == std::string_view(cell.variable->name)) {
          found = true;
          name += (name.empty() ? "" : ", ") + cell.value;
        }
      }
    }
    if (found) {
      return name;
    }
  }
  return "row " + std::to_string(row.number);
}

Served ByName(const Rows &rows) {
  Served served;
  std::map<std::pair<std::vector<uint32_t>, std::string>, int> used;
  for (const auto &[row, cells] : rows) {
    std::string name;
    if (!row.table.empty()) {
      name = NameOf(row, cells);
      const int before = used[{row.table, name}]++;
      name += before > 0 ? " (" + std::to_string(before + 1) + ")" : "";
    }
    for (const Cell &cell : cells) {
      served[{cell.variable->name, name}] = cell.value;
    }
  }
  return served;
}

std::optional<uint32_t> NumberIn(std::string_view name) {
  const size_t dot = name.rfind('.');
  uint32_t number = 0;
  if (dot == std::string_view::npos) {
    return 0;
  }
  const auto [end, error] =
      std::from_chars(name.data() + dot + 1, name.data() + name.size(), number);
  return error == std::errc() && end == name.data() + name.size() ? std::optional(number)
                                                                  : std::nullopt;
}

Movement MovementOf(std::string_view variable) {
  for (const Moving &one : kMoving) {
    if (one.variable == variable) {
      return one.movement;
    }
  }
  return Movement::kNone;
}

// The agent's own MIBs: where their revisions are served, and their index among the siblings.
struct OwnMib {
  const char *major, *minor;
  size_t index;
};
constexpr OwnMib kOwnMibs[] = {{"tlxHoMibRevMajor", "tlxHoMibRevMinor", 11},
                               {"tlxApMibRevMajor", "tlxApMibRevMinor", 21}};
constexpr char kArrayOfStates[] = "tlxHoMibStatusArray";
constexpr size_t kMajorOctet = 2;  // of the four of an index
constexpr size_t kOctetsEach = 4;

const std::string *ValueAt(const Served &served, const Place &place) {
  const auto found = served.find(place);
  return found != served.end() ? &found->second : nullptr;
}

// Where each octet of an escaped text begins, and its end.
std::vector<size_t> OctetsOf(std::string_view escaped) {
  std::vector<size_t> at = {0};
  while (at.back() < escaped.size()) {
    at.push_back(std::min(escaped.size(), at.back() + (escaped[at.back()] == '\\' ? 3 : 1)));
  }
  return at;
}

std::string AsOctet(const std::string &number) {
  return HexEscaped(std::string(1, static_cast<char>(strtol(number.c_str(), nullptr, 10) & 0xFF)));
}

// Puts the agent's revisions of now where those of then stand: in their own variables, in the array
// of states and in the siblings' rows. Returns whether they differ.
bool TakeOwnRevisions(Served *then, const Served &now) {
  bool differ = false;
  const Served before = *then;
  for (const OwnMib &mib : kOwnMibs) {
    const std::string row = "row " + std::to_string(mib.index);
    const std::string *was[2];
    const std::string *is[2];
    const Place places[2] = {{mib.major, ""}, {mib.minor, ""}};
    for (const int part : {0, 1}) {
      was[part] = ValueAt(before, places[part]);
      is[part] = ValueAt(now, places[part]);
    }
    if (!was[0] || !was[1] || !is[0] || !is[1] || (*was[0] == *is[0] && *was[1] == *is[1])) {
      continue;
    }
    differ = true;
    (*then)[places[0]] = *is[0];
    (*then)[places[1]] = *is[1];
    // A peer that was not read yet has neither number.
    const Place major = {"tlxHoSiblingMajor", row};
    const Place minor = {"tlxHoSiblingMinor", row};
    const auto row_major = then->find(major);
    const auto row_minor = then->find(minor);
    const bool has_major = row_major != then->end();
    const bool has_minor = row_minor != then->end();
    if ((!has_major || row_major->second == *was[0]) &&
        (!has_minor || row_minor->second == *was[1])) {
      if (has_major) {
        row_major->second = *is[0];
      }
      if (has_minor) {
        row_minor->second = *is[1];
      }
    }
    const auto array = then->find({kArrayOfStates, ""});
    const auto octets = OctetsOf(array != then->end() ? array->second : "");
    const size_t first = kOctetsEach * mib.index + kMajorOctet;
    if (first + 2 < octets.size()) {
      std::string &text = array->second;
      const size_t length = octets[first + 2] - octets[first];
      if (text.substr(octets[first], length) == AsOctet(*was[0]) + AsOctet(*was[1])) {
        text.replace(octets[first], length, AsOctet(*is[0]) + AsOctet(*is[1]));
      }
    }
  }
  return differ;
}

}  // namespace

std::span<const Moving> MovingVariables() {
  return kMoving;
}

Served ServedByObjects(const std::vector<NamedObject> &objects) {
  Rows rows;
  for (const NamedObject &named : objects) {
    const auto number = NumberIn(named.name);
    if (!named.name.starts_with(host_objects) || !number) {
      continue;
    }
    for (const FileVariable &variable : named.object.variables) {
      const MibVariable *const mib = FindMibVariable(variable.name);
      const auto integer = IntegerOf(named.object, variable);
      const auto bytes = BytesOf(named.object, variable);
      if (mib != nullptr && mib->access != MibAccess::kNotify && (integer || bytes)) {
        rows[RowOf(*mib, *number)].push_back(
            {mib, integer ? std::to_string(*integer) : HexEscaped(*bytes)});
      }
    }
  }
  return ByName(rows);
}

Served ServedByWalk(const std::vector<SnmpValue> &values) {
  Rows rows;
  const std::span<const MibVariable> variables = MibVariables();
  for (const SnmpValue &value : values) {
    // The last one that is not behind the name.
    auto at = std::upper_bound(variables.begin(), variables.end(), value.name,
                               [](const std::vector<uint32_t> &name, const MibVariable &variable) {
                                 const auto oid = variable.Oid();
                                 return std::lexicographical_compare(name.begin(), name.end(),
                                                                     oid.begin(), oid.end());
                               });
    if (at == variables.begin()) {
      continue;
    }
    const MibVariable &variable = *--at;
    const auto oid = variable.Oid();
    if (value.name.size() == oid.size() + 1 &&
        std::equal(oid.begin(), oid.end(), value.name.begin()) && (value.integer || value.octets)) {
      rows[RowOf(variable, value.name.back())].push_back(
          {&variable, value.integer ? std::to_string(*value.integer) : HexEscaped(*value.octets)});
    }
  }
  return ByName(rows);
}

std::vector<Difference> Compare(const Served &before, const Served &now, bool exact,
                                size_t *compared, const std::set<std::string> &known,
                                std::set<std::string> *since) {
  std::vector<Difference> differences;
  *compared = 0;
  if (since != nullptr) {
    since->clear();
  }
  Served then = before;
  const bool another = TakeOwnRevisions(&then, now);
  std::set<std::string> had = known;
  if (!known.empty() || another) {
    for (const auto &[place, value] : before) {
      had.insert(place.variable);
    }
  }
  const auto look = [&](const Place &place, const std::string *was, const std::string *is) {
    const Movement movement = MovementOf(place.variable);
    if (movement == Movement::kAlways || (movement == Movement::kBetween && !exact && was && is)) {
      return;
    }
    if (was == nullptr && !had.empty() && had.count(place.variable) == 0) {
      if (since != nullptr) {
        since->insert(place.variable);
      }
      return;
    }
    ++*compared;
    if (was == nullptr || is == nullptr || *was != *is) {
      differences.push_back(
          {place, was != nullptr ? *was : kAbsent, is != nullptr ? *is : kAbsent});
    }
  };
  for (const auto &[place, value] : then) {
    const auto found = now.find(place);
    look(place, &value, found != now.end() ? &found->second : nullptr);
  }
  for (const auto &[place, value] : now) {
    if (then.count(place) == 0) {
      look(place, nullptr, &value);
    }
  }
  return differences;
}

}  // namespace vex
