// What the live view shows: which groups, in which order, from which line on. Keys come in, lines
// of coloured text come out; nothing is drawn here.
#ifndef VEX_TOOLS_VEXREG_LIVE_VIEW_H
#define VEX_TOOLS_VEXREG_LIVE_VIEW_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tools/vexreg/absence.h"
#include "tools/vexreg/live_columns.h"
#include "tools/vexreg/live_data.h"
#include "tools/vexreg/words.h"

namespace vex {

// A piece of a line.
struct LivePiece {
  std::string text;
  Mood mood = Mood::kPlain;
  bool strong = false;
  bool reverse = false;
};
using LiveLine = std::vector<LivePiece>;

// Keys that are no characters stand above all characters.
enum LiveKey : int {
  kKeyUp = 0x110000,
  kKeyDown,
  kKeyPageUp,
  kKeyPageDown,
  kKeyHome,
  kKeyEnd,
  kKeyLeft,
  kKeyRight,
  kKeyBackTab,
  kKeyErase,
  kKeyEscape,
};

struct LiveOptions {
  bool raw = false;   // numbers as they are, and no bars
  bool bars = true;   // of percentages
  bool utf8 = false;  // bars and marks beyond ASCII
  // Whether objects were named: then all of theirs are shown, else the usual groups.
  bool named = false;
  std::set<std::string> groups;  // of the named ones at the start
};

// What else a page tells.
struct LiveMoment {
  int width = 80;
  int height = 24;
  int64_t wall = 0;      // seconds since 1970
  int64_t clock_ns = 0;  // of a clock that does not step
  AgentSight agent;      // while values are old or absent
  std::string host;      // its name where no object has it
  std::string nothing;   // why there is nothing, when there is nothing
};

class LiveView {
 public:
  // data outlives the view.
  LiveView(const LiveData &data, LiveOptions options);

  // Takes a key. False when the view is to end.
  bool Press(int key);
  // While it is, nothing new is to be looked at, and ages stand still: they are of the moment of
  // the first page after the key.
  bool paused() const {
    return paused_;
  }
  // The lines of the whole screen, at most as many and as wide as the moment says. Costs what is
  // visible, and a pass over a group's rows where they have changed.
  std::vector<LiveLine> Page(const LiveMoment &now);
  // Rows whose values were put into words for the last page.
  size_t formatted() const;

 private:
  enum class Mode { kView, kFilter, kGroups, kHelp };
  enum class Kind { kMeters, kTable, kValues, kMemoryBars, kNews };
  // What the reader has chosen for a section, and what was computed for it.
  struct State {
    std::optional<bool> chosen;
    std::optional<std::string> sort;  // a column's title
    std::optional<bool> descending;
    size_t first_column = 0;
    // The rows in order, and what they were computed from.
    std::vector<const LiveRow *> order;
    std::pair<uint64_t, uint64_t> made_from = {0, 0};
    bool made_open = false;
    std::vector<LiveLine> lines;  // of values
    std::vector<int> widths;      // of columns: as wide as they ever were at this width
    int width = 0;
  };
  struct Section {
    std::string id;
    std::string title;
    Kind kind = Kind::kTable;
    const LiveGroup *group = nullptr;
    State *state = nullptr;
    bool usual = true;  // shown unless the reader says otherwise
    size_t lines = 0;   // below its title and heading
    size_t shown = 0;   // of them
    // Of processors that do not all fit, the rows by use, the largest first; else empty.
    std::vector<const LiveRow *> busiest;
  };

  // Of the visible lines among those that can be scrolled.
  struct Place {
    size_t first = 0;
    size_t visible = 0;
    size_t lines = 0;
  };

  std::vector<Section> AllSections();
  std::vector<Section> ShownSections();
  bool IsUsual(const std::string &group) const;
  std::vector<LiveColumn> Columns(const Section &section) const;
  void Arrange(const Section &section, const std::vector<LiveColumn> &columns);
  void MakeValues(const Section &section);
  bool IsKept(const Section &section, const LiveRow &row) const;
  bool Matches(const LiveRow &row) const;
  bool MatchesText(const std::string &text) const;
  size_t CountLines(const Section &section);
  void ShareLines(std::vector<Section> *sections, size_t height, bool spacious);

  std::vector<LiveLine> Header(const LiveMoment &moment) const;
  LiveLine AgentLine(const LiveMoment &moment) const;
  LiveLine Footer(const LiveMoment &moment, const Place &place) const;
  std::vector<LiveLine> Body(const LiveMoment &moment, size_t height, Place *place);
  LiveLine Title(const Section &section, bool current) const;
  static std::string UseOf(const Section &section);
  std::vector<LiveLine> Lines(const Section &section, size_t from, size_t to, int width,
                              bool heading);
  std::vector<LiveLine> Table(const Section &section, size_t from, size_t to, int width,
                              bool heading);
  LiveLine Meters(const Section &section, size_t line, int width);
  size_t MetersPerLine(int width) const;
  std::vector<LiveLine> MemoryLines(int width) const;
  std::vector<LiveLine> HelpLines(size_t height);
  std::vector<LiveLine> GroupLines(size_t height);
  std::string BarOf(int percent, int width) const;
  LiveLine Cut(const LiveLine &line, int width) const;

  bool PressInView(int key);
  void PressInFilter(int key);
  void PressInHelp(int key);
  void PressInGroups(int key);
  void PressSort(int step);
  void Move(int by);

  const LiveData &data_;
  const LiveOptions options_;
  Mode mode_ = Mode::kView;
  bool paused_ = false;
  std::optional<LiveMoment> held_;  // while paused
  std::string filter_;              // small letters
  uint64_t choice_ = 1;             // rises when what is shown of rows changes by a key
  std::map<std::string, State> states_;
  std::string current_;  // section
  bool open_ = false;    // the current one alone
  bool whole_ = false;   // shown alone: it is open, or there is no other
  size_t scroll_ = 0;    // first line of the body
  size_t page_ = 1;      // lines of the body
  size_t all_ = 0;
  size_t menu_ = 0;  // line of the groups' menu
  size_t help_ = 0;  // first line of the help
  int width_ = 80;
  size_t formatted_ = 0;
};

// The line's text alone.
std::string PlainText(const LiveLine &line);

}  // namespace vex

#endif
