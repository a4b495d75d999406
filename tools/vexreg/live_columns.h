// The columns of the live view's tables: what stands in them, and what rows are sorted by.
#ifndef VEX_TOOLS_VEXREG_LIVE_COLUMNS_H
#define VEX_TOOLS_VEXREG_LIVE_COLUMNS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tools/vexreg/live_data.h"
#include "tools/vexreg/words.h"

namespace vex {

struct LiveCell {
  std::string text;
  Mood mood = Mood::kPlain;
  std::optional<int> percent;
};

// What rows are sorted by. No value comes before any.
using LiveSortKey = std::variant<std::monostate, int64_t, std::string>;

struct LiveColumn {
  std::string title;
  bool right = false;
  bool flexible = false;  // may be cut
  int rank = 0;           // those of the highest are left out first where there is no room
  std::function<LiveCell(const LiveRow &)> cell;
  std::function<LiveSortKey(const LiveRow &)> key;  // none: rows cannot be sorted by it
};

inline constexpr int kHighestRank = 5;
inline constexpr int32_t kTruthTrue = 1;  // of a TruthValue (RFC 2579)
inline constexpr int kHistoryWidth = 10;  // of a history in its short form

// The columns of a group that has rows, the number first. raw: of the variables, with the numbers
// as they are; else some groups have columns of their own. They are of use as long as data is.
std::vector<LiveColumn> ColumnsOf(const std::string &name, const LiveGroup &group,
                                  const LiveData &data, bool raw, bool utf8);

// A column of percentages.
LiveColumn PercentColumn(const char *title, const char *variable, int rank);

// The last percentages in so many columns, the newest last, by the height of characters.
std::string HistoryText(const History &history, int width, bool utf8);

// An array's lines in one.
std::string JoinedText(const std::vector<std::vector<Span>> &lines);

}  // namespace vex

#endif
