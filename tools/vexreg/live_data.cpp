#include "tools/vexreg/live_data.h"

#include <algorithm>

#include "framework/process/clock.h"
#include "platform/framework.h"
#include "tools/vexreg/mib_words.h"
#include "tools/vexreg/tables.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

constexpr size_t kMostHistory = 120;  // percentages of a history
constexpr size_t kMostChanges = 500;  // remembered
constexpr size_t kMostNotedALook = 100;
// Rows of a group that come or go within a look; more are one line.
constexpr size_t kFewRows = 4;
constexpr int kDefaultPollSeconds = 15;
constexpr int64_t kPatience = 5;  // seconds that a poll may come late

void Push(History *history, int value) {
  history->push_back(value);
  if (history->size() > kMostHistory) {
    history->pop_front();
  }
}

// What the bars of the view show rises and falls all the time and is no news; what somebody can
// set is.
bool IsMeasured(const FileVariable &variable) {
  const MibWords *words = FindMibWords(variable.name);
  return variable.type == VAR_INTEGER && variable.access == ACCESS_READ_ONLY && words != nullptr &&
         !words->units.empty();
}

bool IsOfEachPoll(std::string_view group) {
  return group == kProcessors || group == kMemory || group == kLoad || group == kAgentGroup ||
         group == kMisc || group == kInfo;
}

bool SameLayout(const FileObject &a, const FileObject &b) {
  return std::equal(a.variables.begin(), a.variables.end(), b.variables.begin(), b.variables.end(),
                    [](const FileVariable &x, const FileVariable &y) {
                      return x.name == y.name && x.type == y.type;
                    });
}

}  // namespace

bool NumberLess::operator()(const std::string &a, const std::string &b) const {
  const auto digits = [](const std::string &text) {
    return std::string_view(text).substr(std::min(text.find_first_not_of('0'), text.size()));
  };
  const std::string_view x = digits(a);
  const std::string_view y = digits(b);
  if (x.size() != y.size()) {
    return x.size() < y.size();
  }
  return x != y ? x < y : a < b;
}

const FileVariable *VariableOf(const FileObject &object, std::string_view name) {
  for (const FileVariable &variable : object.variables) {
    if (variable.type != 0 && variable.name == name) {
      return &variable;
    }
  }
  return nullptr;
}

std::optional<int32_t> KnownNumber(const FileObject *object, std::string_view name) {
  const FileVariable *variable = object != nullptr ? VariableOf(*object, name) : nullptr;
  const auto value = variable != nullptr ? IntegerOf(*object, *variable) : std::nullopt;
  return value && *value != -1 ? value : std::nullopt;
}

std::string TextOf(const FileObject *object, std::string_view name) {
  const FileVariable *variable = object != nullptr ? VariableOf(*object, name) : nullptr;
  const auto bytes = variable != nullptr ? BytesOf(*object, *variable) : std::nullopt;
  return bytes ? SafeText(*bytes) : "";
}

namespace {

std::optional<int> UseOf(std::optional<int32_t> size, std::optional<int32_t> left) {
  if (!size || !left || *size <= 0) {
    return std::nullopt;
  }
  const int64_t used = int64_t{*size} - *left;
  return static_cast<int>(std::clamp<int64_t>((used * 100 + *size / 2) / *size, 0, 100));
}

}  // namespace

std::optional<int> MemoryUse(const FileObject *memory, const FileObject *detail) {
  const auto available = KnownNumber(detail, "tlxHoMemoryAvailable");
  return UseOf(KnownNumber(memory, "tlxHoPhysicalMemorySize"),
               available ? available : KnownNumber(memory, "tlxHoPhysicalMemoryFree"));
}

std::optional<int> MemoryUse(const LiveData &data) {
  return MemoryUse(data.Object(kMemory), data.Object(kMemoryDetail));
}

std::optional<int> SwapUse(const FileObject *memory) {
  return UseOf(KnownNumber(memory, "tlxHoPagingMemorySize"),
               KnownNumber(memory, "tlxHoPagingMemoryFree"));
}

std::vector<std::string> HeadGroups() {
  std::vector<std::string> names;
  for (const std::string_view name : {kInfo, kLoad, kMisc, kAgentGroup, kMemory, kMemoryDetail}) {
    names.emplace_back(name);
  }
  return names;
}

LiveData DataOf(const std::vector<NamedObject> &objects, bool raw, int64_t wall, int64_t clock_ns) {
  Look look;
  for (const NamedObject &named : objects) {
    look.steps.push_back({named.name, std::make_shared<const FileObject>(named.object)});
  }
  LiveData data(raw);
  data.Take(look, wall, clock_ns);
  return data;
}

const LiveGroup *LiveData::Group(std::string_view name) const {
  const auto group = groups_.find(std::string(name));
  return group != groups_.end() ? &group->second : nullptr;
}

const LiveRow *LiveData::Row(std::string_view group, const std::string &number) const {
  const LiveGroup *found = Group(group);
  if (found == nullptr) {
    return nullptr;
  }
  const auto row = found->rows.find(number);
  return row != found->rows.end() ? &row->second : nullptr;
}

const FileObject *LiveData::Object(std::string_view group) const {
  const LiveRow *row = Row(group, "");
  return row != nullptr ? row->object.get() : nullptr;
}

void LiveData::Note(int64_t wall, std::string what, std::string how) {
  changes_.push_front({wall, std::move(what), std::move(how)});
  changes_version_++;
  if (changes_.size() > kMostChanges) {
    changes_.pop_back();
  }
}

void LiveData::NoteVariables(const LiveRow &row, const FileObject &before, int64_t wall) {
  const FileObject &after = *row.object;
  const std::string name = SafeText(row.name);
  if (!SameLayout(before, after)) {
    Note(wall, name, "has other variables now");
    return;
  }
  const std::vector<std::string_view> short_names = ShortNames(after);
  for (size_t slot = 0; slot < after.variables.size(); slot++) {
    const FileVariable &variable = after.variables[slot];
    if (variable.type == 0 || IsMeasured(variable)) {
      continue;
    }
    const auto was = BytesOf(before, before.variables[slot]);
    const auto is = BytesOf(after, variable);
    if (was == is) {
      continue;
    }
    const auto text = [&](const FileObject &object, const FileVariable &which) {
      if (raw_) {
        return ValueText(object, which);
      }
      const Shown shown = ShowValue(object, which);
      return shown.lines.empty() ? shown.text : std::string();
    };
    std::string how = text(before, before.variables[slot]);
    const std::string now = text(after, variable);
    if (how == now) {
      how = "changed";
    } else {
      how += " -> ";
      how += now;
    }
    Note(wall, name + " " + SafeText(short_names[slot]), std::move(how));
  }
  if (after.variables.empty()) {
    Note(wall, name, "changed");
  }
}

// Of a use that has crossed what counts as high or as full. It has to fall by more than it wavers
// before that is news again.
void LiveData::NoteUse(int64_t wall, const std::string &what, std::optional<int> before,
                       std::optional<int> now, int *level) {
  constexpr int kLevels[] = {75, 90};
  constexpr int kWavers = 2;
  if (!now) {
    return;
  }
  const int was = *level;
  while (*level < static_cast<int>(std::size(kLevels)) && *now >= kLevels[*level]) {
    (*level)++;
  }
  while (*level > 0 && *now < kLevels[*level - 1] - kWavers) {
    (*level)--;
  }
  if (!first_ && before && *level != was) {
    Note(wall, what, std::to_string(*before) + " % -> " + std::to_string(*now) + " % in use");
  }
}

// "file system /data (ext4)", "host/swver.3 (a-driver)"; the row's name where nothing says more.
std::string LiveData::CalledOf(std::string_view group, const LiveRow &row) const {
  if (group == kFileSystems || group == kMounts) {
    const LiveRow *mount = group == kMounts ? &row : Row(kMounts, row.number);
    const FileObject *object = mount != nullptr ? mount->object.get() : nullptr;
    const std::string directory = TextOf(object, "tlxHoMountDirectory");
    const std::string type = TextOf(object, "tlxHoMountType");
    const std::string description = TextOf(row.object.get(), "tlxHoFileSysDesc");
    if (!directory.empty()) {
      return "file system " + directory + (type.empty() ? "" : " (" + type + ")");
    }
    return description.empty() ? SafeText(row.name) : "file system " + description;
  }
  for (const FileVariable &variable : row.object->variables) {
    if (variable.type == VAR_DISPLAY_STRING && variable.name.ends_with("Name")) {
      const std::string text = TextOf(row.object.get(), variable.name);
      return SafeText(row.name) + (text.empty() ? "" : " (" + text + ")");
    }
  }
  return SafeText(row.name);
}

void LiveData::NoteComing(const std::vector<Coming> &coming, int64_t wall) {
  std::map<std::pair<std::string, bool>, size_t> counts;
  // A file system's row and its mount's are one thing.
  const auto is_told = [&](const Coming &row) {
    return row.group == kMounts &&
           std::any_of(coming.begin(), coming.end(), [&](const Coming &other) {
             return other.group == kFileSystems && other.number == row.number &&
                    other.added == row.added;
           });
  };
  for (const Coming &row : coming) {
    counts[{row.group, row.added}]++;
  }
  for (const Coming &row : coming) {
    size_t &count = counts[{row.group, row.added}];
    if (count <= kFewRows && is_told(row)) {
      continue;
    }
    if (count > kFewRows) {
      Note(wall, SafeText(row.group),
           std::to_string(count) + (row.added ? " rows are new" : " rows are gone"));
      count = 0;  // said
    } else if (count > 0) {
      const LiveRow *const added = row.added ? Row(row.group, row.number) : nullptr;
      Note(wall, added != nullptr ? added->called : row.called, row.added ? "is new" : "is gone");
    }
  }
}

void LiveData::Take(const Look &look, int64_t wall, int64_t clock_ns) {
  std::vector<Coming> coming;
  bool memory = false;
  size_t noted = 0;
  const int64_t newest_before = newest_ns_;
  for (const ObjectStep &step : look.steps) {
    const auto row_name = ParseRowName(step.name);
    const std::string group_name(row_name ? row_name->group : step.name);
    const std::string number(row_name ? row_name->number : "");
    LiveGroup &group = groups_[group_name];
    const auto found = group.rows.find(number);
    group.version = ++version_;
    if (group_name == kMounts) {
      // What a file system's row shows is in part its mount's.
      const auto rows = groups_.find(std::string(kFileSystems));
      const auto row = rows != groups_.end() ? rows->second.rows.find(number) : found;
      if (rows != groups_.end() && row != rows->second.rows.end()) {
        row->second.words.clear();
        rows->second.version = ++version_;
      }
    }
    if (!step.object) {
      if (found != group.rows.end()) {
        coming.push_back({group_name, step.name, number, found->second.called, false});
        group.rows.erase(found);
      }
      continue;
    }
    const bool is_new = found == group.rows.end();
    LiveRow &row = is_new ? group.rows[number] : found->second;
    const std::shared_ptr<const FileObject> before = std::move(row.object);
    row.name = step.name;
    row.number = number;
    row.object = step.object;
    row.words.clear();
    if (is_new) {
      coming.push_back({group_name, step.name, number, "", true});
    }
    if (before && !first_ && noted < kMostNotedALook && before->data != row.object->data) {
      const uint64_t version = changes_version_;
      NoteVariables(row, *before, wall);
      noted += changes_version_ - version;
    }
    if (group_name == kProcessors) {
      Push(&row.history, KnownNumber(row.object.get(), "tlxHoCpuUtilMin").value_or(-1));
    }
    row.called = CalledOf(group_name, row);
    if (group_name == kMounts) {
      const auto rows = groups_.find(std::string(kFileSystems));
      const auto of = rows != groups_.end() ? rows->second.rows.find(number) : found;
      if (rows != groups_.end() && of != rows->second.rows.end()) {
        of->second.called = row.called;
      }
    }
    if (group_name == kFileSystems) {
      const char *const use = "tlxHoFileSysPercentSpaceUsed";
      NoteUse(wall, row.called, KnownNumber(before.get(), use), KnownNumber(row.object.get(), use),
              &row.level);
    }
    memory = memory || group_name == kMemory;
    if (IsOfEachPoll(group_name)) {
      newest_ns_ = std::max(newest_ns_, row.object->published_ns);
    }
  }
  if (!first_) {
    NoteComing(coming, wall);
  }
  std::erase_if(groups_, [](const auto &group) { return group.second.rows.empty(); });
  if (memory) {
    const int before = memory_history_.empty() ? -1 : memory_history_.back();
    Push(&memory_history_, MemoryUse(*this).value_or(-1));
    NoteUse(wall, "memory", before >= 0 ? std::optional(before) : std::nullopt, MemoryUse(*this),
            &memory_level_);
  }
  if (!first_ && newest_ns_ != newest_before) {
    newest_seen_ns_ = clock_ns;
  }
  last_look_.error = look.error;
  last_look_.missing = look.missing;
  last_look_.damaged = look.damaged;
  first_ = false;
}

int64_t LiveData::AgeOfValues(int64_t wall, int64_t clock_ns) const {
  if (newest_ns_ == 0 ||
      (Group(kProcessors) == nullptr && Group(kMemory) == nullptr && Group(kLoad) == nullptr &&
       Group(kAgentGroup) == nullptr && Group(kMisc) == nullptr && Group(kInfo) == nullptr)) {
    return -1;
  }
  // Once a publication was seen, its age goes by the clock that does not step.
  if (newest_seen_ns_ != 0) {
    return (clock_ns - newest_seen_ns_) / kNsPerSecond;
  }
  return std::max<int64_t>(0, wall - newest_ns_ / kNsPerSecond);
}

int LiveData::PollSeconds() const {
  return KnownNumber(Object(kMisc), "tlxHoOsCommonPollFreq").value_or(kDefaultPollSeconds);
}

bool LiveData::IsStale(int64_t wall, int64_t clock_ns) const {
  return AgeOfValues(wall, clock_ns) > 2 * int64_t{PollSeconds()} + kPatience;
}

}  // namespace vex
