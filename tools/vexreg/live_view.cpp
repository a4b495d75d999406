#include "tools/vexreg/live_view.h"

#include <string.h>
#include <time.h>

#include <algorithm>
#include <cctype>

#include "common/sources.h"
#include "platform/framework.h"
#include "tools/vexreg/findings.h"
#include "tools/vexreg/tables.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

constexpr char kChanges[] = "changes";  // a section that is no group
constexpr char kMinuteUse[] = "tlxHoCpuUtilMin";
constexpr int kGap = 2;
constexpr int kNarrowest = 8;    // a column that may be cut
constexpr int kReadable = 20;    // unless others can go instead
constexpr int kBarWidth = 10;    // in tables
constexpr int kMeterWidth = 38;  // a processor's share of a line, at least
constexpr int kSpacious = 32;    // lines of a screen that has room for empty ones
constexpr int kLongText = 1000;  // columns of a value that cannot be seen whole anyway

std::string Small(std::string_view text) {
  std::string small(text);
  for (char &c : small) {
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return small;
}

int Width(const LiveLine &line) {
  int width = 0;
  for (const LivePiece &piece : line) {
    width += DisplayWidth(piece.text);
  }
  return width;
}

std::string Padded(const std::string &text, int width, bool right) {
  const std::string blanks(static_cast<size_t>(std::max(0, width - DisplayWidth(text))), ' ');
  return right ? blanks + text : text + blanks;
}

// The beginning of the text that takes at most so many columns.
std::string Beginning(std::string_view text, int width) {
  std::string cut;
  for (int used = 0; !text.empty();) {
    size_t length = 1;
    while (length < text.size() && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) {
      length++;
    }
    used += DisplayWidth(text.substr(0, length));
    if (used > width) {
      break;
    }
    cut += text.substr(0, length);
    text.remove_prefix(length);
  }
  return cut;
}

std::string ClockText(int64_t seconds) {
  const auto time = static_cast<time_t>(seconds);
  tm local = {};
  char text[16] = "";
  if (localtime_r(&time, &local) != nullptr) {
    strftime(text, sizeof(text), "%H:%M:%S", &local);
  }
  return text;
}

}  // namespace

std::string PlainText(const LiveLine &line) {
  std::string text;
  for (const LivePiece &piece : line) {
    text += piece.text;
  }
  return text;
}

LiveView::LiveView(const LiveData &data, LiveOptions options)
    : data_(data), options_(std::move(options)) {}

// ---- What there is to show ----------------------------------------------------------------------

bool LiveView::IsUsual(const std::string &group) const {
  constexpr std::string_view kHeaders[] = {kLoad, kAgentGroup, kInfo,
                                           kMisc, kMemory,     kMemoryDetail};
  constexpr std::string_view kOverview[] = {kProcessors, kMemory, kFileSystems, kSiblings};
  if (options_.named) {
    // What the head of the page needs is there, too.
    return options_.groups.contains(group) ||
           std::find(std::begin(kHeaders), std::end(kHeaders), group) == std::end(kHeaders);
  }
  return !group.starts_with(host_objects) ||
         std::find(std::begin(kOverview), std::end(kOverview), group) != std::end(kOverview);
}

std::vector<LiveView::Section> LiveView::AllSections() {
  struct Known {
    std::string_view group;
    const char *title;
    Kind kind;
  };
  constexpr Known kKnown[] = {{kProcessors, "Processors", Kind::kMeters},
                              {kMemory, "Memory", Kind::kMemoryBars},
                              {kFileSystems, "File systems", Kind::kTable},
                              {kSiblings, "Sibling agents", Kind::kTable}};
  std::vector<Section> sections;
  const auto add = [&](const std::string &id, const std::string &title, Kind kind,
                       const LiveGroup *group) {
    Section section;
    section.id = id;
    section.title = title;
    section.kind = kind;
    section.group = group;
    section.state = &states_[id];
    section.usual = group == nullptr || IsUsual(id);
    sections.push_back(std::move(section));
  };
  const auto is_known = [&](const std::string &name) {
    return !options_.raw && std::any_of(std::begin(kKnown), std::end(kKnown),
                                        [&](const Known &known) { return known.group == name; });
  };
  for (const Known &known : kKnown) {
    const LiveGroup *group = options_.raw ? nullptr : data_.Group(known.group);
    if (group != nullptr) {
      add(std::string(known.group), known.title, known.kind, group);
    }
  }
  for (const auto &[name, group] : data_.groups()) {
    if (!is_known(name)) {
      const bool values = group.rows.size() == 1 && group.rows.begin()->first.empty();
      add(name, SafeText(name), values ? Kind::kValues : Kind::kTable, &group);
    }
  }
  if (!data_.groups().empty()) {
    add(kChanges, "Changed lately", Kind::kNews, nullptr);
  }
  return sections;
}

std::vector<LiveView::Section> LiveView::ShownSections() {
  std::vector<Section> sections = AllSections();
  std::erase_if(sections, [](const Section &section) {
    return !section.state->chosen.value_or(section.usual);
  });
  const auto is_current = [&](const Section &section) { return section.id == current_; };
  if (std::none_of(sections.begin(), sections.end(), is_current)) {
    current_ = sections.empty() ? "" : sections[0].id;
    open_ = false;
  }
  if (open_) {
    std::erase_if(sections, [&](const Section &section) { return !is_current(section); });
  }
  return sections;
}

std::vector<LiveColumn> LiveView::Columns(const Section &section) const {
  return ColumnsOf(section.id, *section.group, data_, options_.raw, options_.utf8);
}

// ---- Rows ---------------------------------------------------------------------------------------

bool LiveView::MatchesText(const std::string &text) const {
  return filter_.empty() || Small(text).find(filter_) != std::string::npos;
}

bool LiveView::Matches(const LiveRow &row) const {
  if (filter_.empty()) {
    return true;
  }
  if (row.words.empty()) {
    row.words = Small(SafeText(row.name));
    const auto add = [&](const FileObject &object) {
      for (const FileVariable &variable : object.variables) {
        if (variable.type != 0) {
          const Shown shown = options_.raw ? Shown{ValueText(object, variable), {}, {}, {}}
                                           : ShowValue(object, variable);
          row.words += '\n' + Small(shown.text) + Small(JoinedText(shown.lines));
        }
      }
    };
    add(*row.object);
    const LiveRow *mount =
        row.name.starts_with(kFileSystems) ? data_.Row(kMounts, row.number) : nullptr;
    if (mount != nullptr) {
      add(*mount->object);
    }
  }
  return row.words.find(filter_) != std::string::npos;
}

// Whether a row has a place: of an overview, what says nothing is left out.
bool LiveView::IsKept(const Section &section, const LiveRow &row) const {
  if (!Matches(row)) {
    return false;
  }
  if (whole_ || options_.raw || !filter_.empty()) {
    return true;
  }
  if (section.id == kFileSystems) {
    return KnownNumber(row.object.get(), "tlxHoFileSysSpaceTotal").value_or(0) > 0;
  }
  return section.id != kSiblings ||
         KnownNumber(row.object.get(), "tlxHoSiblingPresent") == kTruthTrue;
}

void LiveView::Arrange(const Section &section, const std::vector<LiveColumn> &columns) {
  State &state = *section.state;
  const std::pair<uint64_t, uint64_t> made_from = {section.group->version, choice_};
  if (state.made_from == made_from && state.made_open == whole_) {
    return;
  }
  state.made_from = made_from;
  state.made_open = whole_;
  state.order.clear();
  for (const auto &[number, row] : section.group->rows) {
    if (IsKept(section, row)) {
      state.order.push_back(&row);
    }
  }
  if (!state.sort && !options_.raw && (section.id == kFileSystems || section.id == kSiblings)) {
    state.sort = section.id == kFileSystems ? "Use" : "Condition";
    state.descending = true;
  }
  const auto column = std::find_if(columns.begin(), columns.end(), [&](const LiveColumn &each) {
    return each.key && state.sort == each.title;
  });
  const bool descending = state.descending.value_or(false);
  if (column == columns.end()) {
    if (descending) {
      std::reverse(state.order.begin(), state.order.end());
    }
    return;
  }
  std::vector<std::pair<LiveSortKey, const LiveRow *>> keyed;
  keyed.reserve(state.order.size());
  for (const LiveRow *row : state.order) {
    keyed.emplace_back(column->key(*row), row);
  }
  std::stable_sort(keyed.begin(), keyed.end(), [descending](const auto &a, const auto &b) {
    return descending ? b.first < a.first : a.first < b.first;
  });
  std::transform(keyed.begin(), keyed.end(), state.order.begin(),
                 [](const auto &pair) { return pair.second; });
}

void LiveView::MakeValues(const Section &section) {
  State &state = *section.state;
  const std::pair<uint64_t, uint64_t> made_from = {section.group->version, choice_};
  if (state.made_from == made_from && state.made_open == whole_ && state.width == width_) {
    return;
  }
  state.made_from = made_from;
  state.made_open = whole_;
  state.width = width_;
  state.lines.clear();
  const FileObject &object = *section.group->rows.begin()->second.object;
  formatted_++;
  const std::vector<std::string_view> names = ShortNames(object);
  int name_width = 0;
  for (size_t i = 0; i < names.size(); i++) {
    name_width =
        std::max(name_width, object.variables[i].type != 0 ? DisplayWidth(SafeText(names[i])) : 0);
  }
  name_width = std::min(name_width, width_ / 2);
  const int value_width = std::max(kNarrowest, width_ - name_width - 2 * kGap);
  for (size_t i = 0; i < names.size(); i++) {
    const FileVariable &variable = object.variables[i];
    if (variable.type == 0) {
      continue;
    }
    const std::string name = SafeText(names[i]);
    const Shown shown = options_.raw ? Shown{ValueText(object, variable), Mood::kPlain, {}, {}}
                                     : ShowValue(object, variable);
    if (!MatchesText(name + " " + shown.text + JoinedText(shown.lines))) {
      continue;
    }
    const auto add = [&](bool first, LiveLine value) {
      LiveLine line = {
          {"  " + Padded(first ? Beginning(name, name_width) : "", name_width, false) + "  "}};
      std::move(value.begin(), value.end(), std::back_inserter(line));
      state.lines.push_back(std::move(line));
    };
    bool first = true;
    for (const std::vector<Span> &spans : shown.lines) {
      LiveLine line;
      for (const Span &span : spans) {
        line.push_back({span.text, span.mood});
      }
      add(first, std::move(line));
      first = false;
    }
    if (shown.lines.empty()) {
      std::string text = whole_ ? shown.text : Beginning(shown.text, kLongText);
      if (options_.bars && shown.percent && value_width >= kBarWidth + kNarrowest) {
        text += " " + BarOf(*shown.percent, kBarWidth);
      }
      const std::vector<std::string> lines =
          whole_ ? WrapText(text, value_width) : std::vector<std::string>{text};
      for (const std::string &line : lines) {
        add(first, {{line, shown.mood}});
        first = false;
      }
    }
  }
  if (object.variables.empty()) {
    state.lines.push_back(
        {{"  (no variables; " + std::to_string(object.data.size()) + " bytes of data)"}});
  }
}

size_t LiveView::formatted() const {
  return formatted_;
}

size_t LiveView::MetersPerLine(int width) const {
  return static_cast<size_t>(std::max(1, width / kMeterWidth));
}

size_t LiveView::CountLines(const Section &section) {
  if (section.kind == Kind::kMemoryBars) {
    return MemoryLines(width_).size();
  }
  if (section.kind == Kind::kNews) {
    return std::max<size_t>(
        1, static_cast<size_t>(std::count_if(data_.changes().begin(), data_.changes().end(),
                                             [&](const LiveChange &change) {
                                               return MatchesText(change.what + " " + change.how);
                                             })));
  }
  if (section.kind == Kind::kValues) {
    MakeValues(section);
    return section.state->lines.size();
  }
  Arrange(section, Columns(section));
  const size_t rows = section.state->order.size();
  const size_t per_line = section.kind == Kind::kMeters && !whole_ ? MetersPerLine(width_) : 1;
  return (rows + per_line - 1) / per_line;
}

// Gives each section of an overview its fair share of the screen: one that needs less leaves the
// rest to the others.
void LiveView::ShareLines(std::vector<Section> *sections, size_t height, bool spacious) {
  size_t fixed = 0;
  for (Section &section : *sections) {
    section.lines = CountLines(section);
    section.shown = std::min<size_t>(section.lines, 1);
    fixed += 1 + (section.kind == Kind::kTable && section.lines > 0 ? 1 : 0) + (spacious ? 1 : 0) +
             section.shown;
  }
  for (size_t left = height > fixed ? height - fixed : 0; left > 0;) {
    const size_t before = left;
    for (Section &section : *sections) {
      if (section.shown < section.lines && left > 0) {
        section.shown++;
        left--;
      }
    }
    if (left == before) {
      break;
    }
  }
}

// ---- Pieces of a page ---------------------------------------------------------------------------

std::string LiveView::BarOf(int percent, int width) const {
  return BarText(percent, width, options_.utf8);
}

LiveLine LiveView::Cut(const LiveLine &line, int width) const {
  if (Width(line) <= width) {
    return line;
  }
  LiveLine cut;
  int left = width - 1;  // for the mark
  for (const LivePiece &piece : line) {
    LivePiece shorter = piece;
    shorter.text = Beginning(piece.text, left);
    left -= DisplayWidth(shorter.text);
    const bool whole = shorter.text.size() == piece.text.size();
    cut.push_back(std::move(shorter));
    if (!whole) {
      break;
    }
  }
  if (width > 0) {
    cut.push_back({options_.utf8 ? "\u2026" : "~", Mood::kFaint});
  }
  return cut;
}

LiveLine LiveView::AgentLine(const LiveMoment &moment) const {
  const int64_t age = data_.AgeOfValues(moment.wall, moment.clock_ns);
  const std::string sight = SightText(moment.agent, age >= 0);
  const std::string because = sight.empty() ? "" : ": " + sight;
  if (age < 0) {
    return {{" No values of the host agent" + because, Mood::kBad, true}};
  }
  if (data_.IsStale(moment.wall, moment.clock_ns)) {
    return {{" Values are " + AgeText(age) + " old" + because, Mood::kBad, true}};
  }
  const FileObject *agent = data_.Object(kAgentGroup);
  const std::string version = TextOf(agent, "tlxHoAgentVersion");
  const auto took = KnownNumber(agent, "tlxHoAgentPollDuration");
  const auto failed = KnownNumber(agent, "tlxHoAgentFailedPolls");
  LiveLine line = {{" Agent" + (version.empty() ? "" : " " + version) + ": polled " + AgeText(age) +
                        " ago, every " + std::to_string(data_.PollSeconds()) + " s" +
                        (took ? ", in " + std::to_string(*took) + " ms" : ""),
                    Mood::kFaint}};
  if (failed.value_or(0) > 0) {
    line.push_back({", " + std::to_string(*failed) + " polls failed", Mood::kWarning});
  }
  return line;
}

std::vector<LiveLine> LiveView::Header(const LiveMoment &moment) const {
  const FileObject *info = data_.Object(kInfo);
  const FileObject *load = data_.Object(kLoad);
  const FileObject *misc = data_.Object(kMisc);
  LiveLine right;
  const FileVariable *condition =
      misc != nullptr ? VariableOf(*misc, "tlxHoMibCondition") : nullptr;
  if (condition != nullptr && !options_.raw) {
    const Shown shown = ShowValue(*misc, *condition);
    right.push_back({shown.text + "  ", shown.mood, true});
  }
  if (paused_) {
    constexpr int kRoomy = 60;  // columns for more than the word
    right.push_back(
        {moment.width < kRoomy ? "PAUSED " : "PAUSED, held since ", Mood::kWarning, true});
  }
  right.push_back({ClockText(moment.wall) + " "});

  std::string name = TextOf(info, "tlxHoSystemName");
  LiveLine left = {{" " + (name.empty() ? SafeText(moment.host) : name), Mood::kPlain, true}};
  const auto add = [&](const std::string &text) {
    if (!text.empty() &&
        Width(left) + kGap + DisplayWidth(text) + kGap + Width(right) <= moment.width) {
      left.push_back({std::string(kGap, ' ') + text});
    }
  };
  const auto hundredths = [&](const char *variable) {
    const FileVariable *found = load != nullptr ? VariableOf(*load, variable) : nullptr;
    return found != nullptr && KnownNumber(load, variable) ? ShowValue(*load, *found).text : "";
  };
  const auto up = KnownNumber(load, "tlxHoUptime");
  const std::string one = hundredths("tlxHoLoadOne");
  const std::string description = TextOf(info, "tlxHoDesc");
  // The load first where there is room for one alone; the system's description is the longest.
  const std::string load_text = one.empty() ? ""
                                            : "load " + one + " " + hundredths("tlxHoLoadFive") +
                                                  " " + hundredths("tlxHoLoadFifteen");
  add(load_text);
  add(up ? "up " + DurationText(*up) : "");
  add(description.empty() ? TextOf(info, "tlxHoName") : description);
  left = Cut(left, std::max(0, moment.width - Width(right) - 1));
  left.push_back({std::string(
      static_cast<size_t>(std::max(0, moment.width - Width(left) - Width(right))), ' ')});
  std::move(right.begin(), right.end(), std::back_inserter(left));
  return {Cut(left, moment.width), Cut(AgentLine(moment), moment.width)};
}

LiveLine LiveView::Footer(const LiveMoment &moment, const Place &place) const {
  if (mode_ == Mode::kFilter) {
    return Cut({{" Only lines with: " + filter_ + "_"},
                {"  (Enter keeps it, Esc drops it)", Mood::kFaint}},
               moment.width);
  }
  LiveLine line = {{" "}};
  const auto add = [&](const char *key, const char *what) {
    line.push_back({key, Mood::kPlain, true});
    line.push_back({std::string(" ") + what + "  "});
  };
  LiveLine right;
  if (place.lines > place.visible) {
    right.push_back({std::to_string(place.first + 1) + "-" +
                         std::to_string(place.first + place.visible) + " of " +
                         std::to_string(place.lines) + " ",
                     Mood::kFaint});
  }
  if (!filter_.empty()) {
    line.push_back({"only: " + filter_ + "  ", Mood::kWarning});
  }
  if (mode_ == Mode::kHelp) {
    add("any key", "back");
    add("Up Down", "scroll");
  } else if (mode_ == Mode::kGroups) {
    add("Space", "shows or hides");
    add("g", "back");
  } else {
    add("q", "quit");
    add("?", "help");
    add("Tab", "next");
    add("Enter", open_ ? "overview" : "open");
    add("/", "filter");
    add("s", "sort");
    add("g", "groups");
    add("p", paused_ ? "go on" : "pause");
  }
  line = Cut(line, std::max(0, moment.width - Width(right) - 1));
  line.push_back({std::string(
      static_cast<size_t>(std::max(0, moment.width - Width(line) - Width(right))), ' ')});
  std::move(right.begin(), right.end(), std::back_inserter(line));
  return Cut(line, moment.width);
}

LiveLine LiveView::Title(const Section &section, bool current) const {
  LiveLine line = {{section.title, Mood::kPlain, true, current}};
  const State &state = *section.state;
  std::string more;
  if (section.kind == Kind::kTable || section.kind == Kind::kMeters) {
    const size_t rows = state.order.size();
    const size_t all = section.group->rows.size();
    more = rows < all ? std::to_string(rows) + " of " + std::to_string(all) : std::to_string(all);
    const bool reversed = state.descending.value_or(false);
    if (state.sort && *state.sort != "#") {
      more += ", by " + *state.sort + (reversed ? ", largest first" : "");
    } else if (reversed) {
      more += ", last first";
    }
  }
  if (!more.empty()) {
    line.push_back({" (" + more + ")" + UseOf(section), Mood::kFaint});
  }
  if (section.shown < section.lines) {
    line.push_back({" " + std::to_string(section.shown) + " of " + std::to_string(section.lines) +
                        " lines; Enter: all",
                    Mood::kFaint});
  }
  return line;
}

// ", 12 % on average, most 98 % (37)" of processors that do not all fit; else empty.
std::string LiveView::UseOf(const Section &section) {
  int64_t sum = 0;
  int64_t count = 0;
  for (const LiveRow *row : section.busiest) {
    if (const auto use = KnownNumber(row->object.get(), kMinuteUse)) {
      sum += *use;
      count++;
    }
  }
  if (count == 0) {
    return "";
  }
  const LiveRow &most = *section.busiest.front();
  return ", " + std::to_string((sum + count / 2) / count) + " % on average, most " +
         std::to_string(KnownNumber(most.object.get(), kMinuteUse).value_or(0)) + " % (" +
         most.number + ")";
}

LiveLine LiveView::Meters(const Section &section, size_t line, int width) {
  const std::vector<const LiveRow *> &order =
      section.busiest.empty() ? section.state->order : section.busiest;
  const size_t count = MetersPerLine(width);
  const int share = width / static_cast<int>(count) - kGap;
  const int number_width =
      std::max<int>(2, static_cast<int>(section.group->rows.rbegin()->second.number.size()));
  constexpr int kPercent = 5;  // "100 %"
  const int room = share - number_width - 1 - kPercent - 1;
  const int history = room >= 2 * kHistoryWidth ? kHistoryWidth : 0;
  const int bar = options_.bars ? std::max(0, room - (history > 0 ? history + 1 : 0)) : 0;
  const LiveColumn percent = PercentColumn("", kMinuteUse, 0);
  LiveLine pieces;
  for (size_t i = line * count; i < std::min(order.size(), (line + 1) * count); i++) {
    const LiveRow &row = *order[i];
    const LiveCell cell = percent.cell(row);
    formatted_++;
    pieces.push_back({"  " + Padded(row.number, number_width, true) + " ", Mood::kFaint});
    pieces.push_back({Padded(cell.text, kPercent, true) + " ", cell.mood});
    pieces.push_back(
        {Padded(cell.percent && bar > 0 ? BarOf(*cell.percent, bar) : "", bar, false), cell.mood});
    if (history > 0) {
      pieces.push_back({" " + HistoryText(row.history, history, options_.utf8), Mood::kFaint});
    }
  }
  return pieces;
}

std::vector<LiveLine> LiveView::MemoryLines(int width) const {
  const FileObject *memory = data_.Object(kMemory);
  const FileObject *detail = data_.Object(kMemoryDetail);
  constexpr int kTexts = 66;  // of a line, beside the bar
  const int bar = options_.bars ? std::clamp(width - kTexts, 6, 30) : 0;
  std::vector<LiveLine> lines;
  const auto add = [&](const char *what, std::optional<int> use, const std::string &text) {
    const Mood mood = !use         ? Mood::kFaint
                      : *use >= 90 ? Mood::kBad
                      : *use >= 75 ? Mood::kWarning
                                   : Mood::kGood;
    const std::string percent = use ? std::to_string(*use) + " %" : "-";
    lines.push_back({{std::string("  ") + what + " ", Mood::kFaint},
                     {Padded(percent, 5, true) + " ", mood},
                     {Padded(use && bar > 0 ? BarOf(*use, bar) : "", bar, false), mood},
                     {"  " + text}});
  };
  const auto size = KnownNumber(memory, "tlxHoPhysicalMemorySize");
  const auto available = KnownNumber(detail, "tlxHoMemoryAvailable");
  const auto cached = KnownNumber(detail, "tlxHoMemoryCached");
  const auto free = KnownNumber(memory, "tlxHoPhysicalMemoryFree");
  std::string text = size ? "of " + SizeText(*size) : "not known";
  text += available ? ", " + SizeText(*available) + " available"
                    : (free ? ", " + SizeText(*free) + " free" : "");
  text += cached ? ", " + SizeText(*cached) + " cached" : "";
  add("RAM ", MemoryUse(data_), text);
  const int left = width - Width(lines.back()) - kGap;
  if (left >= kHistoryWidth && data_.memory_history().size() > 1) {
    lines.back().push_back({"  " + HistoryText(data_.memory_history(),
                                               std::min(left, 2 * kHistoryWidth), options_.utf8),
                            Mood::kFaint});
  }
  if (const auto use = SwapUse(memory)) {
    add("swap", use,
        "of " + SizeText(KnownNumber(memory, "tlxHoPagingMemorySize").value_or(0)) + ", " +
            SizeText(KnownNumber(memory, "tlxHoPagingMemoryFree").value_or(0)) + " free");
  }
  return lines;
}

std::vector<LiveLine> LiveView::Table(const Section &section, size_t from, size_t to, int width,
                                      bool heading) {
  State &state = *section.state;
  std::vector<LiveColumn> columns = Columns(section);
  // Columns to the left that were moved out of the view, but for the number.
  state.first_column = std::min(state.first_column, columns.size() > 1 ? columns.size() - 2 : 0);
  std::vector<std::vector<LiveCell>> cells;
  for (size_t i = from; i < to; i++) {
    cells.emplace_back();
    formatted_++;
    for (const LiveColumn &column : columns) {
      cells.back().push_back(column.cell(*state.order[i]));
    }
  }
  if (state.width != width || state.widths.size() != columns.size()) {
    state.width = width;
    state.widths.assign(columns.size(), 0);
  }
  std::vector<bool> hidden(columns.size(), false);
  std::vector<int> widths;
  for (size_t c = 0; c < columns.size(); c++) {
    int &widest = state.widths[c];
    widest = std::max(widest, DisplayWidth(columns[c].title));
    for (const std::vector<LiveCell> &row : cells) {
      const bool bar = options_.bars && row[c].percent;
      widest = std::max(widest, DisplayWidth(row[c].text) + (bar ? 1 + kBarWidth : 0));
    }
    widths.push_back(widest);
    hidden[c] = c > 0 && c <= state.first_column;
  }
  const auto total = [&](bool least) {
    int sum = 0;
    for (size_t c = 0; c < columns.size(); c++) {
      const bool cut = least && columns[c].flexible;
      sum += hidden[c] ? 0 : kGap + (cut ? std::min(widths[c], kReadable) : widths[c]);
    }
    return sum;
  };
  // What matters least goes first, then texts are cut.
  for (int rank = kHighestRank; rank > 0; rank--) {
    for (size_t c = 0; c < columns.size() && total(true) > width; c++) {
      hidden[c] = hidden[c] || columns[c].rank == rank;
    }
  }
  while (total(false) > width) {
    size_t widest = columns.size();
    for (size_t c = 0; c < columns.size(); c++) {
      if (!hidden[c] && columns[c].flexible && widths[c] > kNarrowest &&
          (widest == columns.size() || widths[c] > widths[widest])) {
        widest = c;
      }
    }
    if (widest == columns.size()) {
      break;  // the rest is reached by moving to the right
    }
    widths[widest] = std::max(kNarrowest, widths[widest] - (total(false) - width));
  }
  std::vector<LiveLine> lines;
  const auto line_of = [&](const std::function<LivePiece(size_t)> &piece,
                           const std::function<std::string(size_t)> &bar) {
    LiveLine line;
    for (size_t c = 0; c < columns.size(); c++) {
      if (hidden[c]) {
        continue;
      }
      LivePiece part = piece(c);
      const std::string behind = bar(c);
      const int room = widths[c] - DisplayWidth(behind);
      const LiveLine cut = Cut({part}, room);
      const std::string text = PlainText(cut);
      part.text = std::string(kGap, ' ') + Padded(text, room, columns[c].right) + behind;
      line.push_back(std::move(part));
    }
    return Cut(line, width);
  };
  if (heading) {
    lines.push_back(line_of(
        [&](size_t c) {
          const bool sorted = state.sort == columns[c].title;
          return LivePiece{columns[c].title, Mood::kFaint, sorted};
        },
        [](size_t) { return std::string(); }));
  }
  for (const std::vector<LiveCell> &row : cells) {
    lines.push_back(line_of(
        [&](size_t c) {
          return LivePiece{row[c].text, row[c].mood};
        },
        [&](size_t c) {
          return options_.bars && row[c].percent ? " " + BarOf(*row[c].percent, kBarWidth) : "";
        }));
  }
  return lines;
}

// Lines `from` to `to` of a section, below its title.
std::vector<LiveLine> LiveView::Lines(const Section &section, size_t from, size_t to, int width,
                                      bool heading) {
  std::vector<LiveLine> lines;
  const bool table = section.kind == Kind::kTable || (section.kind == Kind::kMeters && whole_);
  if (table) {
    return Table(section, from, to, width, heading);
  }
  if (section.kind == Kind::kMeters) {
    for (size_t i = from; i < to; i++) {
      lines.push_back(Meters(section, i, width));
    }
  } else if (section.kind == Kind::kValues) {
    lines.assign(section.state->lines.begin() + static_cast<ptrdiff_t>(from),
                 section.state->lines.begin() + static_cast<ptrdiff_t>(to));
  } else if (section.kind == Kind::kMemoryBars) {
    const std::vector<LiveLine> all = MemoryLines(width);
    lines.assign(all.begin() + static_cast<ptrdiff_t>(from),
                 all.begin() + static_cast<ptrdiff_t>(to));
  } else {
    size_t n = 0;
    for (const LiveChange &change : data_.changes()) {
      if (!MatchesText(change.what + " " + change.how)) {
        continue;
      }
      if (n >= from && n < to) {
        lines.push_back({{"  " + ClockText(change.seconds) + "  ", Mood::kFaint},
                         {change.what + "  "},
                         {change.how, Mood::kPlain, true}});
      }
      n++;
    }
    if (n == 0) {
      const bool none = data_.changes().empty();
      lines.push_back(
          {{none ? "  nothing since this view began" : "  nothing with that text", Mood::kFaint}});
    }
  }
  return lines;
}

// The visible lines. The line from which on is put into what there is.
std::vector<LiveLine> LiveView::Body(const LiveMoment &moment, size_t height, Place *place) {
  std::vector<LiveLine> notes;
  for (const std::string &name : data_.last_look().missing) {
    notes.push_back({{"  " + SafeText(name) + " (removed)", Mood::kWarning, true}});
  }
  for (const std::string &name : data_.last_look().damaged) {
    notes.push_back({{"  " + SafeText(name) + " (damaged, left out)", Mood::kBad, true}});
  }
  if (data_.groups().empty()) {
    for (const std::string &line : WrapText(SafeText(moment.nothing), std::max(1, width_ - 4))) {
      notes.push_back({{"  " + line}});
    }
  }
  std::vector<Section> sections = ShownSections();
  const bool spacious = moment.height >= kSpacious;
  whole_ = sections.size() == 1;  // one that is open is alone
  if (whole_) {
    for (Section &section : sections) {
      section.lines = CountLines(section);
      section.shown = section.lines;
    }
  } else {
    ShareLines(&sections, height > notes.size() ? height - notes.size() : 0, spacious);
  }
  for (Section &section : sections) {
    if (section.kind == Kind::kMeters && section.shown < section.lines && !section.state->sort &&
        !section.state->descending) {
      section.busiest = section.state->order;
      std::stable_sort(section.busiest.begin(), section.busiest.end(),
                       [](const LiveRow *a, const LiveRow *b) {
                         return KnownNumber(a->object.get(), kMinuteUse).value_or(-1) >
                                KnownNumber(b->object.get(), kMinuteUse).value_or(-1);
                       });
    }
  }
  struct Part {
    const Section *section;
    size_t begin;  // line of its title
    size_t head;   // title and heading
  };
  std::vector<Part> parts;
  size_t lines = notes.size();
  for (const Section &section : sections) {
    const bool table = section.kind == Kind::kTable || (section.kind == Kind::kMeters && whole_);
    const size_t head = table && section.shown > 0 ? 2 : 1;
    parts.push_back({&section, lines, head});
    lines += head + section.shown + (spacious ? 1 : 0);
  }
  lines -= spacious && !parts.empty() ? 1 : 0;
  // Of a section that is alone, title and heading stay in their places.
  const bool fixed = whole_ && height > notes.size() + parts[0].head;
  const size_t above = fixed ? notes.size() + parts[0].head : 0;
  const size_t most = lines > height ? lines - height : 0;
  scroll_ = std::min(scroll_, most);
  place->first = scroll_;
  const size_t from = scroll_ + above;
  const size_t to = std::min(lines, scroll_ + height);
  place->lines = lines - above;
  place->visible = to - from;

  std::vector<LiveLine> page;
  if (fixed) {
    page.insert(page.end(), notes.begin(), notes.end());
  }
  for (size_t line = from; line < std::min(to, notes.size()); line++) {
    page.push_back(notes[line]);
  }
  for (const Part &part : parts) {
    const Section &section = *part.section;
    const size_t body = part.begin + part.head;
    const size_t end = body + section.shown;
    const size_t row_from = std::max(from, body) - body;
    const size_t row_to = std::max(std::min(to, end), body) - body;
    const bool has_rows = row_from < row_to;
    const bool title = fixed || (part.begin >= from && part.begin < to);
    const bool heading =
        part.head == 2 && (fixed || (part.begin + 1 >= from && part.begin + 1 < to));
    if (title) {
      page.push_back(Title(section, section.id == current_ && sections.size() > 1));
    }
    if (has_rows || heading) {
      for (LiveLine &line :
           Lines(section, has_rows ? row_from : 0, has_rows ? row_to : 0, width_, heading)) {
        page.push_back(std::move(line));
      }
    }
    if (spacious && end >= from && end < to) {
      page.emplace_back();
    }
  }
  return page;
}

std::vector<LiveLine> LiveView::HelpLines(size_t height) {
  constexpr std::pair<const char *, const char *> kKeys[] = {
      {"Up Down PgUp PgDn", "scroll by a line, by a page"},
      {"Home End", "to the first, to the last line"},
      {"Left Right", "columns that do not fit"},
      {"Tab Shift-Tab", "next group, group before"},
      {"Enter", "that group alone, and back (Esc)"},
      {"s S", "sort by the next column, by the one before"},
      {"r", "the other way round"},
      {"/", "only lines with a text; Esc drops it"},
      {"g", "choose the groups that are shown"},
      {"p or Space", "hold everything still, and go on"},
      {"q or Ctrl-C", "quit"}};
  std::vector<LiveLine> lines = {{{"Keys", Mood::kPlain, true}}};
  for (const auto &[keys, what] : kKeys) {
    constexpr int kKeysWidth = 18;
    bool first = true;
    for (const std::string &text : WrapText(what, std::max(kNarrowest, width_ - kKeysWidth - 2))) {
      lines.push_back(
          {{"  " + Padded(first ? keys : "", kKeysWidth, false), Mood::kPlain, true}, {text}});
      first = false;
    }
  }
  lines.push_back({});
  lines.push_back({{"  Bars: ", Mood::kFaint},
                   {"below 75 %", Mood::kGood},
                   {", "},
                   {"from 75 %", Mood::kWarning},
                   {", "},
                   {"from 90 %", Mood::kBad}});
  for (const std::string &text :
       WrapText("Overviews leave out file systems without space, and absent siblings.",
                std::max(kNarrowest, width_ - 2))) {
    lines.push_back({{"  " + text, Mood::kFaint}});
  }
  help_ = std::min(help_, lines.size() > height ? lines.size() - height : 0);
  lines.erase(lines.begin(), lines.begin() + static_cast<ptrdiff_t>(help_));
  return lines;
}

std::vector<LiveLine> LiveView::GroupLines(size_t height) {
  std::vector<LiveLine> lines = {{{"Groups", Mood::kPlain, true}}};
  const std::vector<Section> sections = AllSections();
  menu_ = std::min(menu_, sections.empty() ? 0 : sections.size() - 1);
  const size_t room = height > 1 ? height - 1 : 1;
  const size_t first = menu_ >= room ? menu_ - room + 1 : 0;
  for (size_t i = first; i < std::min(sections.size(), first + room); i++) {
    const Section &section = sections[i];
    const bool shown = section.state->chosen.value_or(section.usual);
    std::string text = std::string(shown ? "[x] " : "[ ] ") + section.title;
    if (section.group != nullptr && section.group->rows.size() > 1) {
      text += " (" + std::to_string(section.group->rows.size()) + ")";
    }
    lines.push_back({{"  "}, {text, Mood::kPlain, false, i == menu_}});
  }
  return lines;
}

std::vector<LiveLine> LiveView::Page(const LiveMoment &now) {
  if (!paused_) {
    held_.reset();
  } else if (!held_) {
    held_ = now;
  }
  // The screen's size is the only thing that goes on.
  LiveMoment moment = held_ ? *held_ : now;
  moment.width = now.width;
  moment.height = now.height;
  formatted_ = 0;
  width_ = std::max(1, moment.width);
  const auto height = static_cast<size_t>(std::max(1, moment.height));
  std::vector<LiveLine> page;
  // A screen of a few lines has them for the body.
  const bool has_header = height >= 5;
  const bool has_footer = height >= 3;
  if (has_header) {
    page = Header(moment);
  }
  const size_t body_height = height - page.size() - (has_footer ? 1 : 0);
  page_ = body_height;
  Place place;
  std::vector<LiveLine> body;
  if (mode_ == Mode::kHelp) {
    body = HelpLines(body_height);
  } else if (mode_ == Mode::kGroups) {
    body = GroupLines(body_height);
  } else {
    body = Body(moment, body_height, &place);
    all_ = place.lines;
    page_ = place.visible;
  }
  body.resize(body_height);
  for (const LiveLine &line : body) {
    page.push_back(Cut(line, width_));
  }
  if (has_footer) {
    page.push_back(Footer(moment, place));
  }
  return page;
}

// ---- Keys ---------------------------------------------------------------------------------------

void LiveView::Move(int by) {
  const int64_t to = static_cast<int64_t>(scroll_) + by;
  scroll_ = static_cast<size_t>(std::max<int64_t>(0, to));  // Page() knows where the end is
}

void LiveView::PressSort(int step) {
  for (Section &section : ShownSections()) {
    const bool rows = section.kind == Kind::kTable || section.kind == Kind::kMeters;
    if (section.id != current_ || !rows) {
      continue;
    }
    State &state = *section.state;
    std::vector<std::string> titles = {"#"};
    std::vector<bool> numbers = {false};
    for (const LiveColumn &column : Columns(section)) {
      if (column.key) {
        titles.push_back(column.title);
        numbers.push_back(column.right);
      }
    }
    const auto now = std::find(titles.begin(), titles.end(), state.sort.value_or("#"));
    const auto at = now != titles.end() ? now - titles.begin() : 0;
    const auto count = static_cast<ptrdiff_t>(titles.size());
    const auto chosen = static_cast<size_t>((at + step + count) % count);
    state.sort = titles[chosen];
    // Of numbers the largest are looked for, as a rule.
    state.descending = numbers[chosen];
    choice_++;
  }
}

bool LiveView::PressInView(int key) {
  const std::vector<Section> sections = ShownSections();
  const auto step = [&](int by) {
    // With a group alone, to the next one alone.
    const bool open = open_;
    open_ = false;
    const std::vector<Section> all = ShownSections();
    for (size_t i = 0; i < all.size(); i++) {
      if (all[i].id == current_) {
        const auto count = static_cast<int>(all.size());
        current_ = all[static_cast<size_t>((static_cast<int>(i) + by + count) % count)].id;
        break;
      }
    }
    open_ = open;
    scroll_ = open ? 0 : scroll_;
    choice_++;
  };
  switch (key) {
    case 'q':
    case 'Q':
      return false;
    case kKeyUp:
    case 'k':
      Move(-1);
      break;
    case kKeyDown:
    case 'j':
      Move(1);
      break;
    case kKeyPageUp:
    case 'b':
      Move(-static_cast<int>(std::max<size_t>(1, page_ - 1)));
      break;
    case kKeyPageDown:
    case 'f':
      Move(static_cast<int>(std::max<size_t>(1, page_ - 1)));
      break;
    case kKeyHome:
      scroll_ = 0;
      break;
    case kKeyEnd:
      scroll_ = all_;
      break;
    case '\t':
      step(1);
      break;
    case kKeyBackTab:
      step(-1);
      break;
    case '\n':
    case '\r':
      open_ = !open_;
      scroll_ = 0;
      break;
    case kKeyEscape:
      if (!filter_.empty()) {
        filter_.clear();
        choice_++;
      } else {
        open_ = false;
      }
      scroll_ = 0;
      break;
    case kKeyLeft:
    case kKeyRight:
      for (const Section &section : sections) {
        if (section.id == current_) {
          size_t &first = section.state->first_column;
          first = key == kKeyRight ? first + 1 : first - (first > 0 ? 1 : 0);
        }
      }
      break;
    case 's':
    case '>':
      PressSort(1);
      break;
    case 'S':
    case '<':
      PressSort(-1);
      break;
    case 'r':
    case 'R':
      for (const Section &section : sections) {
        if (section.id == current_) {
          section.state->descending = !section.state->descending.value_or(false);
          choice_++;
        }
      }
      break;
    case '/':
      mode_ = Mode::kFilter;
      break;
    case 'g':
    case 'G':
      mode_ = Mode::kGroups;
      menu_ = 0;
      break;
    case 'p':
    case 'P':
    case ' ':
      paused_ = !paused_;
      break;
    case 'h':
    case '?':
      mode_ = Mode::kHelp;
      help_ = 0;
      break;
    default:
      break;
  }
  return true;
}

void LiveView::PressInFilter(int key) {
  if (key == '\n' || key == '\r') {
    mode_ = Mode::kView;
    return;
  }
  if (key == kKeyEscape) {
    mode_ = Mode::kView;
    filter_.clear();
  } else if (key == kKeyErase) {
    // A character of UTF-8 whole.
    while (!filter_.empty() && (static_cast<unsigned char>(filter_.back()) & 0xC0) == 0x80) {
      filter_.pop_back();
    }
    if (!filter_.empty()) {
      filter_.pop_back();
    }
  } else if (key >= ' ' && key < 0x110000 && key != 0x7F) {
    const auto code = static_cast<uint32_t>(key);
    std::string character;
    if (code < 0x80) {
      character = static_cast<char>(tolower(key));
    } else if (code < 0x800) {
      character = {static_cast<char>(0xC0 | code >> 6), static_cast<char>(0x80 | (code & 0x3F))};
    } else if (code < 0x10000) {
      character = {static_cast<char>(0xE0 | code >> 12),
                   static_cast<char>(0x80 | (code >> 6 & 0x3F)),
                   static_cast<char>(0x80 | (code & 0x3F))};
    } else {
      character = {
          static_cast<char>(0xF0 | code >> 18), static_cast<char>(0x80 | (code >> 12 & 0x3F)),
          static_cast<char>(0x80 | (code >> 6 & 0x3F)), static_cast<char>(0x80 | (code & 0x3F))};
    }
    filter_ += code < 0xA0 && code >= 0x80 ? "" : character;
  } else if (key == kKeyUp || key == kKeyDown || key == kKeyPageUp || key == kKeyPageDown) {
    PressInView(key);
    return;
  }
  scroll_ = 0;
  choice_++;
}

void LiveView::PressInGroups(int key) {
  std::vector<Section> sections = AllSections();
  if (key == kKeyUp || key == 'k') {
    menu_ -= menu_ > 0 ? 1 : 0;
  } else if (key == kKeyDown || key == 'j' || key == '\t') {
    menu_ = menu_ + 1 < sections.size() ? menu_ + 1 : menu_;
  } else if (key == kKeyHome) {
    menu_ = 0;
  } else if (key == kKeyEnd) {
    menu_ = sections.empty() ? 0 : sections.size() - 1;
  } else if ((key == ' ' || key == 'x') && menu_ < sections.size()) {
    Section &section = sections[menu_];
    section.state->chosen = !section.state->chosen.value_or(section.usual);
  } else if (key == 'g' || key == 'G' || key == 'q' || key == kKeyEscape || key == '\n' ||
             key == '\r') {
    mode_ = Mode::kView;
    open_ = false;
    scroll_ = 0;
  }
}

void LiveView::PressInHelp(int key) {
  if (key == kKeyUp) {
    help_ -= help_ > 0 ? 1 : 0;
  } else if (key == kKeyDown) {
    help_++;  // Page() knows where the end is
  } else if (key == kKeyPageUp || key == kKeyHome) {
    help_ = 0;
  } else if (key == kKeyPageDown || key == kKeyEnd) {
    help_ += page_;
  } else {
    mode_ = Mode::kView;
  }
}

bool LiveView::Press(int key) {
  if (mode_ == Mode::kView) {
    return PressInView(key);
  }
  if (mode_ == Mode::kFilter) {
    PressInFilter(key);
  } else if (mode_ == Mode::kGroups) {
    PressInGroups(key);
  } else {
    PressInHelp(key);
  }
  return true;
}

}  // namespace vex
