#include "tools/vexreg/live_columns.h"

#include <algorithm>

#include "platform/framework.h"
#include "tools/vexreg/open_metrics.h"
#include "tools/vexreg/tables.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

// A variable among an object's: mostly at the place where the group's first row has it.
const FileVariable *VariableAt(const FileObject &object, size_t place, std::string_view name) {
  return place < object.variables.size() && object.variables[place].name == name
             ? &object.variables[place]
             : VariableOf(object, name);
}

std::vector<LiveColumn> ProcessorColumns(bool utf8) {
  std::vector<LiveColumn> columns;
  columns.push_back(PercentColumn("1 min", "tlxHoCpuUtilMin", 0));
  columns.push_back(PercentColumn("5 min", "tlxHoCpuUtilFiveMin", 2));
  columns.push_back(PercentColumn("30 min", "tlxHoCpuUtilThirtyMin", 4));
  columns.push_back(PercentColumn("1 h", "tlxHoCpuUtilHour", 3));
  LiveColumn history;
  history.title = "Before";
  history.rank = 1;
  history.cell = [utf8](const LiveRow &row) {
    return LiveCell{HistoryText(row.history, 2 * kHistoryWidth, utf8), Mood::kFaint, {}};
  };
  columns.push_back(std::move(history));
  return columns;
}

std::vector<LiveColumn> FileSystemColumns(const LiveData &data) {
  const auto text = [](const char *title, bool flexible, int rank,
                       const std::function<std::string(const LiveRow &)> &of) {
    LiveColumn column;
    column.title = title;
    column.flexible = flexible;
    column.rank = rank;
    column.cell = [of](const LiveRow &row) { return LiveCell{of(row), Mood::kPlain, {}}; };
    column.key = [of](const LiveRow &row) -> LiveSortKey { return of(row); };
    return column;
  };
  const auto size = [](const char *title, const char *variable, int rank) {
    LiveColumn column;
    column.title = title;
    column.right = true;
    column.rank = rank;
    column.cell = [variable](const LiveRow &row) {
      const auto value = KnownNumber(row.object.get(), variable);
      return LiveCell{value ? SizeText(*value) : "-", Mood::kPlain, {}};
    };
    column.key = [variable](const LiveRow &row) -> LiveSortKey {
      const auto value = KnownNumber(row.object.get(), variable);
      return value ? LiveSortKey(int64_t{*value}) : LiveSortKey();
    };
    return column;
  };
  // The rows of the mounts have the same numbers; without one, the description has both.
  const auto mount = [&data](const LiveRow &row) {
    const LiveRow *found = data.Row(kMounts, row.number);
    return found != nullptr ? found->object.get() : nullptr;
  };
  const auto from_mount = [mount](const char *variable, bool device) {
    return [mount, variable, device](const LiveRow &row) {
      const FileObject *object = mount(row);
      if (object != nullptr) {
        return TextOf(object, variable);
      }
      const std::string description = TextOf(row.object.get(), "tlxHoFileSysDesc");
      const auto [before, behind] = SplitDescription(description);
      return device ? before : behind;
    };
  };
  std::vector<LiveColumn> columns;
  LiveColumn use = PercentColumn("Use", "tlxHoFileSysPercentSpaceUsed", 0);
  // Of a file system that has no space, as proc, nothing is in use.
  use.cell = [percent = use.cell](const LiveRow &row) {
    return KnownNumber(row.object.get(), "tlxHoFileSysSpaceTotal").value_or(0) > 0
               ? percent(row)
               : LiveCell{"-", Mood::kFaint, {}};
  };
  columns.push_back(std::move(use));
  columns.push_back(text("Directory", true, 0, from_mount("tlxHoMountDirectory", false)));
  columns.push_back(size("Used", "tlxHoFileSysSpaceUsed", 2));
  columns.push_back(size("Size", "tlxHoFileSysSpaceTotal", 1));
  columns.push_back(text("Type", false, 4, [mount](const LiveRow &row) {
    return TextOf(mount(row), "tlxHoMountType");
  }));
  LiveColumn state;
  state.title = "State";
  state.rank = 3;
  state.cell = [mount](const LiveRow &row) {
    const FileObject *object = mount(row);
    const FileVariable *found =
        object != nullptr ? VariableOf(*object, "tlxHoMountState") : nullptr;
    if (found == nullptr) {
      return LiveCell{};
    }
    const Shown shown = ShowValue(*object, *found);
    const bool read_only = KnownNumber(object, "tlxHoMountReadOnly") == kTruthTrue;
    return LiveCell{shown.text + (read_only ? ", ro" : ""), shown.mood, {}};
  };
  state.key = [mount](const LiveRow &row) -> LiveSortKey {
    const auto value = KnownNumber(mount(row), "tlxHoMountState");
    return value ? LiveSortKey(int64_t{*value}) : LiveSortKey();
  };
  columns.push_back(std::move(state));
  columns.push_back(text("Device", true, 5, from_mount("tlxHoMountDevice", true)));
  return columns;
}

std::vector<LiveColumn> SiblingColumns() {
  const auto shown = [](const char *title, const char *variable, int rank) {
    LiveColumn column;
    column.title = title;
    column.rank = rank;
    column.cell = [variable](const LiveRow &row) {
      const FileVariable *found = VariableOf(*row.object, variable);
      const Shown value = found != nullptr ? ShowValue(*row.object, *found) : Shown{};
      return LiveCell{value.text, value.mood, {}};
    };
    column.key = [variable](const LiveRow &row) -> LiveSortKey {
      const auto value = KnownNumber(row.object.get(), variable);
      return value ? LiveSortKey(int64_t{*value}) : LiveSortKey();
    };
    return column;
  };
  std::vector<LiveColumn> columns;
  LiveColumn name = shown("Name", "tlxHoSiblingName", 0);
  name.flexible = true;
  name.key = [](const LiveRow &row) -> LiveSortKey {
    return TextOf(row.object.get(), "tlxHoSiblingName");
  };
  columns.push_back(std::move(name));
  LiveColumn agent = shown("Agent", "tlxHoSiblingPresent", 1);
  agent.cell = [](const LiveRow &row) {
    const bool runs = KnownNumber(row.object.get(), "tlxHoSiblingPresent") == kTruthTrue;
    return runs ? LiveCell{"runs", Mood::kGood, {}} : LiveCell{"no agent", Mood::kFaint, {}};
  };
  columns.push_back(std::move(agent));
  columns.push_back(shown("Condition", "tlxHoSiblingCondition", 0));
  columns.push_back(shown("Health", "tlxHoSiblingHealth", 2));
  LiveColumn revision = shown("Revision", "tlxHoSiblingMajor", 3);
  revision.cell = [](const LiveRow &row) {
    const auto major = KnownNumber(row.object.get(), "tlxHoSiblingMajor");
    const auto minor = KnownNumber(row.object.get(), "tlxHoSiblingMinor");
    return major && minor && (*major != 0 || *minor != 0)
               ? LiveCell{std::to_string(*major) + "." + std::to_string(*minor), Mood::kPlain, {}}
               : LiveCell{};
  };
  columns.push_back(std::move(revision));
  return columns;
}

std::vector<LiveColumn> VariableColumns(const LiveGroup &group, bool raw) {
  std::vector<LiveColumn> columns;
  const FileObject &first = *group.rows.begin()->second.object;
  const std::vector<std::string_view> short_names = ShortNames(first);
  for (size_t place = 0; place < first.variables.size(); place++) {
    const FileVariable &variable = first.variables[place];
    if (variable.type == 0) {
      continue;
    }
    LiveColumn column;
    column.title = SafeText(short_names[place]);
    column.right = variable.type == VAR_INTEGER;
    column.flexible = variable.type != VAR_INTEGER;
    const std::string name = variable.name;
    column.cell = [name, place, raw](const LiveRow &row) {
      const FileVariable *found = VariableAt(*row.object, place, name);
      if (found == nullptr) {
        return LiveCell{};
      }
      if (raw) {
        return LiveCell{ValueText(*row.object, *found), Mood::kPlain, {}};
      }
      const Shown shown = ShowValue(*row.object, *found);
      return LiveCell{shown.lines.empty() ? shown.text : JoinedText(shown.lines), shown.mood,
                      shown.percent};
    };
    column.key = [name, place](const LiveRow &row) -> LiveSortKey {
      const FileVariable *found = VariableAt(*row.object, place, name);
      if (found == nullptr) {
        return {};
      }
      if (const auto number = IntegerOf(*row.object, *found)) {
        return int64_t{*number};
      }
      const auto bytes = BytesOf(*row.object, *found);
      return bytes ? LiveSortKey(std::string(*bytes)) : LiveSortKey();
    };
    columns.push_back(std::move(column));
  }
  return columns;
}

}  // namespace

std::string JoinedText(const std::vector<std::vector<Span>> &lines) {
  std::string text;
  for (const auto &line : lines) {
    text += text.empty() ? "" : "; ";
    for (const Span &span : line) {
      text += span.text;
    }
  }
  return text;
}

std::string HistoryText(const History &history, int width, bool utf8) {
  constexpr const char *kBlocks[] = {"\u2581", "\u2582", "\u2583", "\u2584",
                                     "\u2585", "\u2586", "\u2587", "\u2588"};
  constexpr const char *kAscii[] = {"_", ".", "-", "~", "=", "+", "*", "#"};
  std::string text;
  const auto columns = static_cast<size_t>(std::max(0, width));
  const size_t first = history.size() > columns ? history.size() - columns : 0;
  text.append(columns - (history.size() - first), ' ');
  for (size_t i = first; i < history.size(); i++) {
    const int level = std::clamp(history[i] * 8 / 100, 0, 7);
    text += history[i] < 0 ? " " : utf8 ? kBlocks[level] : kAscii[level];
  }
  return text;
}

LiveColumn PercentColumn(const char *title, const char *variable, int rank) {
  const std::string name = variable;
  LiveColumn column;
  column.title = title;
  column.right = true;
  column.rank = rank;
  column.cell = [name](const LiveRow &row) {
    const FileVariable *found = VariableOf(*row.object, name);
    if (found == nullptr) {
      return LiveCell{};
    }
    Shown shown = ShowValue(*row.object, *found);
    return LiveCell{shown.percent ? shown.text : "-", shown.mood, shown.percent};
  };
  column.key = [name](const LiveRow &row) -> LiveSortKey {
    const auto value = KnownNumber(row.object.get(), name);
    return value ? LiveSortKey(int64_t{*value}) : LiveSortKey();
  };
  return column;
}

std::vector<LiveColumn> ColumnsOf(const std::string &name, const LiveGroup &group,
                                  const LiveData &data, bool raw, bool utf8) {
  LiveColumn number;
  number.title = "#";
  number.right = true;
  number.cell = [](const LiveRow &row) { return LiveCell{row.number, Mood::kFaint, {}}; };
  std::vector<LiveColumn> columns = {number};
  std::vector<LiveColumn> others = raw                    ? VariableColumns(group, true)
                                   : name == kProcessors  ? ProcessorColumns(utf8)
                                   : name == kFileSystems ? FileSystemColumns(data)
                                   : name == kSiblings    ? SiblingColumns()
                                                          : VariableColumns(group, false);
  std::move(others.begin(), others.end(), std::back_inserter(columns));
  return columns;
}

}  // namespace vex
