#include "tools/vexreg/words.h"

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "framework/snmp/mib_table.h"
#include "platform/framework.h"
#include "tools/vexreg/mib_words.h"
#include "tools/vexreg/tables.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

constexpr int32_t kUnknown = -1;
constexpr int kHighPercent = 75;
constexpr int kFullPercent = 90;

constexpr char kStatusArray[] = "tlxHoMibStatusArray";
constexpr char kHealthArray[] = "tlxHoMibHealthStatusArray";
constexpr char kCondition[] = "tlxHoMibCondition";
// Whether nobody judges, or an agent does not, comes to the same for those who read it.
constexpr char kUnassessed[] = "unassessed";
constexpr size_t kFirstPart = 2;  // of the health array; the worst of them stand before it

unsigned Octet(std::string_view octets, size_t at) {
  return at < octets.size() ? static_cast<unsigned char>(octets[at]) : 0;
}

const MibLabel *LabelOf(const MibWords *words, int32_t value) {
  if (words == nullptr) {
    return nullptr;
  }
  const auto label = std::find_if(words->labels.begin(), words->labels.end(),
                                  [&](const MibLabel &each) { return each.value == value; });
  return label != words->labels.end() ? &*label : nullptr;
}

// Of the labels that say whether something is well.
Mood MoodOf(std::string_view label) {
  constexpr std::pair<std::string_view, Mood> kMoods[] = {
      {"normal", Mood::kGood},      {"raised", Mood::kWarning}, {"severe", Mood::kBad},
      {"unassessed", Mood::kFaint}, {"answers", Mood::kGood},   {"failing", Mood::kBad},
      {"silent", Mood::kWarning}};
  for (const auto &[known, mood] : kMoods) {
    if (label == known) {
      return mood;
    }
  }
  return Mood::kPlain;
}

// A condition as an array has it.
Span Condition(unsigned octet) {
  if (octet == 0) {
    return {kUnassessed, Mood::kFaint};
  }
  const MibLabel *label = LabelOf(FindMibWords(kCondition), static_cast<int32_t>(octet));
  return label != nullptr ? Span{label->text, MoodOf(label->text)} : Span{std::to_string(octet)};
}

std::string Fixed(double value, int decimals) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.*f", decimals, value);
  return text;
}

Shown ShowPercent(int32_t value) {
  const Mood mood = value >= kFullPercent   ? Mood::kBad
                    : value >= kHighPercent ? Mood::kWarning
                                            : Mood::kGood;
  return {std::to_string(value) + " %", mood, std::clamp(value, 0, 100), {}};
}

constexpr std::string_view kSince1970 = "seconds since 1970";

// Units of the modules, and how a number of them is written. UTC seconds become local time.
struct Unit {
  std::string_view name;
  Shown (*show)(int32_t);
};
constexpr Unit kUnits[] = {
    {"megabytes",
     [](int32_t n) {
       return Shown{SizeText(n), Mood::kPlain, {}, {}};
     }},
    {"percent", ShowPercent},
    {"seconds",
     [](int32_t n) {
       return Shown{DurationText(n), Mood::kPlain, {}, {}};
     }},
    {"milliseconds",
     [](int32_t n) {
       return Shown{std::to_string(n) + " ms", Mood::kPlain, {}, {}};
     }},
    {kSince1970,
     [](int32_t n) {
       return Shown{ZonedTimeText(n), Mood::kPlain, {}, {}};
     }},
    {"hundredths",
     [](int32_t n) {
       return Shown{Fixed(n / 100.0, 2), Mood::kPlain, {}, {}};
     }},
};

const Unit *UnitOf(const MibWords *words) {
  for (const Unit &unit : kUnits) {
    if (words != nullptr && words->units == unit.name) {
      return &unit;
    }
  }
  return nullptr;
}

// What firmware belongs to, and of which kind its device is. The module has these in its texts
// alone, as the meaning of a kind depends on the category; 0 is any of them.
struct FirmwareWord {
  std::string_view variable;
  int32_t category;
  int32_t value;
  const char *text;
};
constexpr char kFirmwareCategory[] = "tlxHoFwVerCategory";
constexpr char kFirmwareType[] = "tlxHoFwVerDeviceType";
constexpr FirmwareWord kFirmwareWords[] = {{kFirmwareCategory, 0, 1, "power microcontroller"},
                                           {kFirmwareCategory, 0, 2, "storage"},
                                           {kFirmwareCategory, 0, 3, "network adapter"},
                                           {kFirmwareCategory, 0, 4, "management controller"},
                                           {kFirmwareCategory, 0, 5, "system"},
                                           {kFirmwareType, 0, 1, "SCSI device"},
                                           {kFirmwareType, 0, 2, "array controller"},
                                           {kFirmwareType, 0, 3, "fibre-channel adapter"},
                                           {kFirmwareType, 0, 7, "removable IDE drive"},
                                           {kFirmwareType, 0, 8, "IDE drive"},
                                           {kFirmwareType, 0, 10, "SCSI disk"},
                                           {kFirmwareType, 0, 11, "SCSI tape"},
                                           {kFirmwareType, 0, 12, "SCSI medium changer"},
                                           {kFirmwareType, 5, 23, "system ROM"},
                                           {kFirmwareType, 2, 23, "SCSI CD-ROM"},
                                           {kFirmwareType, 3, 24, "network adapter"},
                                           {kFirmwareType, 2, 24, "SCSI communications device"},
                                           {kFirmwareType, 4, 25, "management controller"},
                                           {kFirmwareType, 1, 25, "power microcontroller"},
                                           {kFirmwareType, 0, 26, "programmable logic"}};

// Null for any other variable, and for a number without a meaning.
const char *FirmwareText(const FileObject &object, const FileVariable &variable, int32_t value) {
  if (variable.name != kFirmwareCategory && variable.name != kFirmwareType) {
    return nullptr;
  }
  int32_t category = 0;
  for (const FileVariable &other : object.variables) {
    if (other.name == kFirmwareCategory) {
      category = IntegerOf(object, other).value_or(0);
    }
  }
  for (const FirmwareWord &word : kFirmwareWords) {
    if (word.variable == variable.name && word.value == value &&
        (word.category == 0 || word.category == category)) {
      return word.text;
    }
  }
  return nullptr;
}

Shown ShowInteger(const MibWords *words, int32_t value) {
  if (words != nullptr && value == kUnknown && !words->unknown.empty()) {
    const bool condition = std::any_of(
        words->labels.begin(), words->labels.end(),
        [](const MibLabel &label) { return std::string_view(label.text) == kUnassessed; });
    return {condition ? kUnassessed : std::string(words->unknown), Mood::kFaint, {}, {}};
  }
  if (const MibLabel *label = LabelOf(words, value)) {
    return {label->text, MoodOf(label->text), {}, {}};
  }
  const Unit *unit = UnitOf(words);
  return unit != nullptr ? unit->show(value) : Shown{std::to_string(value), Mood::kPlain, {}, {}};
}

// ---- Arrays -------------------------------------------------------------------------------------

// A table with two blanks between its columns.
std::vector<std::vector<Span>> Aligned(std::vector<std::vector<Span>> rows) {
  std::vector<int> widths;
  for (const auto &row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); i++) {
      widths[i] = std::max(widths[i], DisplayWidth(row[i].text));
    }
  }
  for (auto &row : rows) {
    std::vector<Span> line;  // blanks are pieces of their own, which get no colour
    for (size_t i = 0; i < row.size(); i++) {
      const int blanks = i + 1 < row.size() ? widths[i] - DisplayWidth(row[i].text) + 2 : 0;
      line.push_back(std::move(row[i]));
      if (blanks > 0) {
        line.push_back({std::string(static_cast<size_t>(blanks), ' ')});
      }
    }
    row = std::move(line);
  }
  return rows;
}

void AppendNames(Shown *shown, const char *what, const std::string &names) {
  if (!names.empty()) {
    shown->lines.push_back({{std::string(what) + ": " + names, Mood::kFaint}});
  }
}

// The four octets of a group in the status array.
struct GroupState {
  bool runs;
  unsigned condition;
  std::string revision;
};
constexpr char kNoRevision[] = "0.0";
GroupState StateOf(std::string_view octets, int group) {
  const size_t at = 4 * static_cast<size_t>(group);
  return {Octet(octets, at) != 0, Octet(octets, at + 1),
          std::to_string(Octet(octets, at + 2)) + "." + std::to_string(Octet(octets, at + 3))};
}

Shown ShowStatus(const MibWords &words, std::string_view octets) {
  Shown shown;
  shown.lines.push_back({{"worst condition: "}, Condition(Octet(octets, 1))});
  std::vector<std::vector<Span>> rows = {{{"group"}, {"agent"}, {"condition"}, {"revision"}}};
  std::string absent;
  for (const MibPart &part : words.parts) {
    const GroupState state = StateOf(octets, part.number);
    if (state.runs) {
      rows.push_back(
          {{std::to_string(part.number) + " " + part.name},
           {"runs", Mood::kGood},
           Condition(state.condition),
           // Of an agent that has published none the array has zeros.
           state.revision == kNoRevision ? Span{"not known", Mood::kFaint} : Span{state.revision}});
    } else {
      absent += (absent.empty() ? "" : ", ") + std::string(part.name);
    }
  }
  if (rows.size() > 1) {
    for (auto &line : Aligned(std::move(rows))) {
      shown.lines.push_back(std::move(line));
    }
  }
  AppendNames(&shown, "no agent", absent);
  return shown;
}

Shown ShowHealth(const MibWords &words, std::string_view octets) {
  Shown shown;
  shown.lines.push_back({{"worst condition: "}, Condition(Octet(octets, 1))});
  std::vector<std::vector<Span>> rows;
  std::string others;
  for (const MibPart &part : words.parts) {
    const auto at = static_cast<size_t>(part.number);
    if (at < kFirstPart) {
      continue;
    }
    if (Octet(octets, at) != 0) {
      rows.push_back({{part.name}, Condition(Octet(octets, at))});
    } else {
      others += (others.empty() ? "" : ", ") + std::string(part.name);
    }
  }
  for (auto &line : Aligned(std::move(rows))) {
    shown.lines.push_back(std::move(line));
  }
  AppendNames(&shown, kUnassessed, others);
  return shown;
}

// The condition's label, null where nobody judges, the number where it has no label.
nlohmann::ordered_json ConditionJson(unsigned octet) {
  if (octet == 0) {
    return nullptr;
  }
  const MibLabel *label = LabelOf(FindMibWords(kCondition), static_cast<int32_t>(octet));
  return label != nullptr ? nlohmann::ordered_json(label->text) : nlohmann::ordered_json(octet);
}

nlohmann::ordered_json ArrayJson(const MibWords &words, std::string_view octets) {
  auto json = nlohmann::ordered_json::array();
  for (const MibPart &part : words.parts) {
    if (words.name == kStatusArray) {
      const GroupState state = StateOf(octets, part.number);
      json.push_back({{"group", part.number},
                      {"name", part.name},
                      {"runs", state.runs},
                      {"condition", ConditionJson(state.condition)},
                      {"revision", state.revision}});
    } else {
      json.push_back({{"octet", part.number},
                      {"name", part.name},
                      {"condition", ConditionJson(Octet(octets, part.number))}});
    }
  }
  return json;
}

// A date of the host's clock in another form; what is no date of the calendar stays as it is.
std::string DateIn(const std::string &date, std::string (*form)(int64_t)) {
  tm parts = {};
  const bool parsed = strptime(date.c_str(), "%Y-%m-%d %H:%M:%S", &parts) != nullptr;
  parts.tm_isdst = -1;
  const time_t seconds = parsed ? mktime(&parts) : -1;
  return seconds != -1 && TimeText(seconds) == date ? form(seconds) : date;
}

bool IsArray(const MibWords *words) {
  return words != nullptr && (words->name == kStatusArray || words->name == kHealthArray);
}

}  // namespace

std::string SizeText(int64_t megabytes) {
  constexpr const char *kNames[] = {"MiB", "GiB", "TiB", "PiB"};
  constexpr double kStep = 1024;
  constexpr double kOneDecimalBelow = 99.95;
  auto value = static_cast<double>(megabytes);
  size_t unit = 0;
  // What would be rounded to 1000 or more has too many digits.
  while (value >= 999.5 && unit + 1 < std::size(kNames)) {
    value /= kStep;
    unit++;
  }
  return Fixed(value, unit > 0 && value < kOneDecimalBelow ? 1 : 0) + " " + kNames[unit];
}

std::string DurationText(int64_t seconds) {
  constexpr int64_t kMinute = 60;
  constexpr int64_t kHour = 60 * kMinute;
  constexpr int64_t kDay = 24 * kHour;
  const auto pair = [](int64_t large, const char *name, int64_t small, const char *rest) {
    const std::string text = std::to_string(large) + name;
    return small > 0 ? text + " " + std::to_string(small) + rest : text;
  };
  if (seconds < kMinute) {
    return std::to_string(seconds) + " s";
  }
  if (seconds < kHour) {
    return pair(seconds / kMinute, " min", seconds % kMinute, " s");
  }
  if (seconds < kDay) {
    return pair(seconds / kHour, " h", seconds % kHour / kMinute, " min");
  }
  const int64_t days = seconds / kDay;
  return pair(days, days == 1 ? " day" : " days", seconds % kDay / kHour, " h");
}

Shown ShowValue(const FileObject &object, const FileVariable &variable) {
  const MibWords *words = FindMibWords(variable.name);
  if (const auto value = IntegerOf(object, variable)) {
    const char *firmware = FirmwareText(object, variable, *value);
    return firmware != nullptr ? Shown{firmware, Mood::kPlain, {}, {}} : ShowInteger(words, *value);
  }
  const auto bytes = BytesOf(object, variable);
  if (variable.type == VAR_OCTET_STRING && bytes && IsArray(words)) {
    return words->name == kStatusArray ? ShowStatus(*words, *bytes) : ShowHealth(*words, *bytes);
  }
  // Whose clock others mean is not known.
  const bool own = FindMibVariable(variable.name) != nullptr;
  const auto date =
      own && variable.type == VAR_OCTET_STRING && bytes ? DateText(*bytes) : std::nullopt;
  if (date) {
    return {DateIn(*date, ZonedTimeText), Mood::kPlain, {}, {}};
  }
  return {ValueText(object, variable), Mood::kPlain, {}, {}};
}

bool ShowsUnits(std::string_view name) {
  return UnitOf(FindMibWords(name)) != nullptr;
}

nlohmann::ordered_json WordJson(const FileObject &object, const FileVariable &variable) {
  const MibWords *words = FindMibWords(variable.name);
  if (const auto value = IntegerOf(object, variable)) {
    if (words != nullptr && *value == kUnknown && !words->unknown.empty()) {
      return nullptr;
    }
    if (const char *firmware = FirmwareText(object, variable, *value)) {
      return firmware;
    }
    if (words != nullptr && words->units == kSince1970) {
      return IsoTime(*value);
    }
    const MibLabel *label = LabelOf(words, *value);
    return label != nullptr ? nlohmann::ordered_json(label->text) : ValueJson(object, variable);
  }
  const auto bytes = BytesOf(object, variable);
  if (variable.type != VAR_OCTET_STRING || !bytes) {
    return ValueJson(object, variable);
  }
  if (IsArray(words)) {
    return ArrayJson(*words, *bytes);
  }
  if (const auto date = DateText(*bytes)) {
    // "never" and "-" are no dates.
    const bool known = date->size() > sizeof("never");
    return known ? nlohmann::ordered_json(DateIn(*date, IsoTime)) : nlohmann::ordered_json();
  }
  return bytes->size() == kGuidSize ? nlohmann::ordered_json(GuidText(*bytes))
                                    : ValueJson(object, variable);
}

}  // namespace vex
