#include "tools/vexreg/tables.h"

#include <wchar.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <numeric>
#include <optional>

#include "framework/snmp/mib_table.h"
#include "platform/framework.h"
#include "tools/vexreg/values.h"
#include "tools/vexreg/words.h"

namespace vex {
namespace {

constexpr int kGap = 2;                // blanks between columns
constexpr int kNarrowest = 8;          // a column of text is not wrapped to less
constexpr uint32_t kLongText = 65;     // text fields of more bytes make the last columns
constexpr size_t kFewZeros = 16;       // at the end of an octet string; more are not written out
constexpr int kUnlimited = 1 << 30;    // a width that nothing reaches
constexpr int kBarWidths[] = {10, 6};  // of bars in tables, as there is room
constexpr char kTitle[] = "1";         // SGR parameters (ECMA-48)

const char *ColourOf(Mood mood) {
  constexpr const char *kColours[] = {"", "2", "32", "33", "1;31"};
  return kColours[static_cast<int>(mood)];
}

std::string Paint(std::string_view text, const char *colour, const Style &style) {
  if (!style.colour || *colour == '\0' || text.empty()) {
    return std::string(text);
  }
  return "\x1b[" + std::string(colour) + "m" + std::string(text) + "\x1b[0m";
}

struct Character {
  char32_t code;
  size_t length;  // in UTF-8
};

// The first character of valid UTF-8.
Character FirstCharacter(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned first = byte(0);
  const size_t length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  char32_t code = length == 1 ? first : first & (0x7F >> length);
  for (size_t i = 1; i < length; i++) {
    code = code << 6 | (byte(i) & 0x3F);
  }
  return {code, length};
}

int CharacterWidth(char32_t code) {
  const int width = wcwidth(static_cast<wchar_t>(code));
  return width < 0 ? 1 : width;
}

// Whether a terminal would act on the character instead of showing it, or reorder what it shows; or
// whether nobody sees it at all, so that two names look the same.
bool IsControl(char32_t code) {
  // Controls, formats, what is ignored by default, and what is no character (Unicode 15).
  constexpr std::pair<char32_t, char32_t> kRanges[] = {
      {0x0000, 0x001F}, {0x007F, 0x009F},   {0x00AD, 0x00AD},   {0x034F, 0x034F},
      {0x061C, 0x061C}, {0x115F, 0x1160},   {0x17B4, 0x17B5},   {0x180B, 0x180F},
      {0x200B, 0x200F}, {0x2028, 0x202E},   {0x2060, 0x206F},   {0x3164, 0x3164},
      {0xFDD0, 0xFDEF}, {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},   {0xFFA0, 0xFFA0},
      {0xFFF0, 0xFFFB}, {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF}};
  return (code & 0xFFFE) == 0xFFFE ||
         std::any_of(std::begin(kRanges), std::end(kRanges), [code](const auto &range) {
           return range.first <= code && code <= range.second;
         });
}

// A character as JSON escapes it: in one part, or two beyond U+FFFF.
std::string JsonEscape(char32_t code) {
  char escaped[16];
  if (code < 0x10000) {
    std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(code));
  } else {
    std::snprintf(escaped, sizeof(escaped), "\\u%04x\\u%04x",
                  0xD800 + static_cast<unsigned>((code - 0x10000) >> 10),
                  0xDC00 + static_cast<unsigned>(code & 0x3FF));
  }
  return escaped;
}

// Hexadecimal digits, with a blank after every four octets so that long values can be wrapped. Many
// zeros at the end, as in an array that is mostly unused, are counted instead.
std::string OctetText(std::string_view octets) {
  const size_t used = octets.find_last_not_of('\0') + 1;
  const size_t shown = octets.size() - used > kFewZeros ? (used + 3) / 4 * 4 : octets.size();
  std::string text;
  for (size_t i = 0; i < shown; i += 4) {
    text += i > 0 ? " " : "";
    text += Hex(octets.substr(i, 4));
  }
  if (shown < octets.size()) {
    text += text.empty() ? "" : " and ";
    text += std::to_string(octets.size() - shown) + " zero octets";
  }
  return text;
}

std::string ShortUnits(std::string_view name) {
  const MibVariable *variable = FindMibVariable(name);
  const std::string_view units = variable != nullptr ? variable->units : "";
  constexpr std::pair<std::string_view, std::string_view> kShort[] = {
      {"megabytes", "MB"}, {"kilobytes", "kB"}, {"percent", "%"}, {"seconds", "s"}};
  for (const auto &[whole, abbreviated] : kShort) {
    if (units == whole) {
      return std::string(abbreviated);
    }
  }
  return std::string(units);
}

void AppendPadded(std::string &line, std::string_view text, int width, bool right,
                  const char *colour = "", const Style &style = {}) {
  const int blanks = std::max(0, width - DisplayWidth(text));
  if (right) {
    line.append(blanks, ' ');
  }
  line += Paint(text, colour, style);
  if (!right) {
    line.append(blanks, ' ');
  }
}

void AppendLine(std::string &out, std::string line) {
  line.erase(line.find_last_not_of(' ') + 1);
  out += line;
  out += '\n';
}

bool IsAdded(const FileVariable &variable) {
  return variable.name == kObjectColumn || variable.name == kPublishedColumn;
}

// Slots that are defined.
std::vector<size_t> DefinedSlots(const FileObject &object) {
  std::vector<size_t> slots;
  for (size_t slot = 0; slot < object.variables.size(); slot++) {
    if (object.variables[slot].type != 0) {
      slots.push_back(slot);
    }
  }
  return slots;
}

bool SameColumns(const FileObject &a, const FileObject &b) {
  return std::equal(a.variables.begin(), a.variables.end(), b.variables.begin(), b.variables.end(),
                    [](const FileVariable &x, const FileVariable &y) {
                      return x.name == y.name && x.type == y.type;
                    });
}

// The names of the slots, without what they have in common, and their units.
struct Heading {
  std::string name;
  std::string units;  // "(MB)", or empty
};
std::vector<Heading> Headings(const NamedObject &named, const std::vector<size_t> &slots,
                              const Style &style) {
  const FileObject &object = named.object;
  const std::vector<std::string_view> names = ShortNames(object, named.beginning);
  std::vector<Heading> headings;
  for (const size_t slot : slots) {
    const std::string_view name = object.variables[slot].name;
    const std::string units = style.words && ShowsUnits(name) ? "" : ShortUnits(name);
    headings.push_back({SafeText(names[slot]), units.empty() ? "" : "(" + SafeText(units) + ")"});
  }
  return headings;
}

Shown ShownValue(const FileObject &object, const FileVariable &variable, const Style &style) {
  return style.words ? ShowValue(object, variable)
                     : Shown{ValueText(object, variable), Mood::kPlain, {}, {}};
}

std::string Plain(const std::vector<Span> &line) {
  std::string text;
  for (const Span &span : line) {
    text += span.text;
  }
  return text;
}

// ---- Lists --------------------------------------------------------------------------------------

// The lines of a value in a list, each at most so wide.
std::vector<std::string> ListLines(const Shown &shown, int width, const Style &style) {
  std::vector<std::string> lines;
  const auto add = [&](const std::string &text, const char *colour) {
    for (const std::string &line : WrapText(text, width)) {
      lines.push_back(Paint(line, colour, style));
    }
  };
  for (const std::vector<Span> &line : shown.lines) {
    const std::string plain = Plain(line);
    if (line.size() == 1 || DisplayWidth(plain) > width) {
      add(plain, line.size() == 1 ? ColourOf(line[0].mood) : "");
      continue;
    }
    lines.emplace_back();
    for (const Span &span : line) {
      lines.back() += Paint(span.text, ColourOf(span.mood), style);
    }
  }
  if (shown.lines.empty()) {
    std::string text = shown.text;
    const bool has_room = DisplayWidth(text) + 1 + kBarWidths[0] <= width;
    if (style.bars && shown.percent && has_room) {
      text += " " + BarText(*shown.percent, kBarWidths[0], style.blocks);
    }
    add(text, ColourOf(shown.mood));
  }
  return lines;
}

void RenderList(std::string &out, const NamedObject &named, int width, const Style &style) {
  const FileObject &object = named.object;
  AppendLine(out, Paint(SafeText(named.name), kTitle, style));
  const std::vector<size_t> slots = DefinedSlots(object);
  if (slots.empty()) {
    AppendLine(out, "  (no variables; " + std::to_string(object.data.size()) + " bytes of data)");
    return;
  }
  std::vector<std::string> names;
  int name_width = 0;
  for (const Heading &heading : Headings(named, slots, style)) {
    names.push_back(heading.units.empty() ? heading.name : heading.name + " " + heading.units);
    name_width = std::max(name_width, DisplayWidth(names.back()));
  }
  const int used = kGap + name_width + kGap;
  const int value_width = width > 0 ? std::max(kNarrowest, width - used) : kUnlimited;
  for (size_t i = 0; i < slots.size(); i++) {
    const auto lines =
        ListLines(ShownValue(object, object.variables[slots[i]], style), value_width, style);
    for (size_t n = 0; n < lines.size(); n++) {
      std::string line(kGap, ' ');
      AppendPadded(line, n == 0 ? names[i] : "", name_width + kGap, false);
      AppendLine(out, line + lines[n]);
    }
  }
}

// ---- Tables -------------------------------------------------------------------------------------

struct Column {
  std::vector<std::string> heading;  // lines, the last one next to the values
  std::vector<std::string> cells;    // one a row
  std::vector<Mood> moods;           // of the cells; empty when they have none
  bool right = false;                // numbers are aligned right
  bool text = false;                 // may be wrapped
  int width = 0;
  int narrowest = 0;  // what FitColumns() may make of the width
};

// The heading in as few lines as its words allow within the width of the values below.
std::vector<std::string> HeadingLines(const Heading &heading, int width, bool one_line) {
  if (one_line) {
    return {heading.units.empty() ? heading.name : heading.name + " " + heading.units};
  }
  std::vector<std::string> lines;
  for (const std::string_view word : HeadingWords(heading.name)) {
    width = std::max(width, DisplayWidth(word));
  }
  width = std::max(width, DisplayWidth(heading.units));
  for (const std::string_view word : HeadingWords(heading.name)) {
    if (!lines.empty() && DisplayWidth(lines.back()) + DisplayWidth(word) <= width) {
      lines.back() += word;
    } else {
      lines.emplace_back(word);
    }
  }
  if (!heading.units.empty()) {
    lines.push_back(heading.units);
  }
  return lines;
}

int Widest(const std::vector<std::string> &texts) {
  int width = 0;
  for (const std::string &text : texts) {
    width = std::max(width, DisplayWidth(text));
  }
  return width;
}

// The least width of a column of values of which some are words: those may be wrapped at blanks.
int NarrowestOfWords(const std::vector<Shown> &values) {
  int narrowest = 0;
  for (const Shown &value : values) {
    const bool words = value.text.find_first_of("0123456789") == std::string::npos;
    for (std::string_view rest = value.text; !rest.empty();) {
      const size_t end = words ? std::min(rest.find(' '), rest.size()) : rest.size();
      narrowest = std::max(narrowest, DisplayWidth(rest.substr(0, end)));
      rest.remove_prefix(std::min(end + 1, rest.size()));
    }
  }
  return narrowest;
}

// bar_width: of the bars behind percentages; 0 for none.
Column MakeColumn(const std::vector<const NamedObject *> &rows, size_t slot, const Heading &heading,
                  bool one_line, int bar_width, const Style &style) {
  const FileVariable &variable = rows[0]->object.variables[slot];
  Column column;
  std::vector<Shown> values;
  bool labels = false;
  for (const NamedObject *row : rows) {
    values.push_back(ShownValue(row->object, row->object.variables[slot], style));
    Shown &shown = values.back();
    for (const std::vector<Span> &line : shown.lines) {
      shown.text += (shown.text.empty() ? "" : "; ") + Plain(line);
    }
    labels = labels || (shown.mood != Mood::kFaint && !shown.text.empty() &&
                        shown.text.find_first_of("0123456789?") == std::string::npos);
    if (shown.percent && bar_width > 0) {
      shown.text += " " + BarText(*shown.percent, bar_width, style.blocks);
    }
    column.cells.push_back(shown.text);
    column.moods.push_back(shown.mood);
  }
  column.text = variable.type != VAR_INTEGER;
  column.right = !column.text && !labels;
  column.width = Widest(column.cells);
  column.heading = HeadingLines(heading, column.width, one_line);
  column.width = std::max(column.width, Widest(column.heading));
  if (column.text) {
    column.narrowest = std::max(kNarrowest, Widest(column.heading));
  } else if (style.words) {
    // A heading beside words that can be wrapped takes as many lines as its own words allow.
    const int narrowest = NarrowestOfWords(values);
    if (narrowest < Widest(column.cells) && !one_line) {
      column.heading = HeadingLines(heading, narrowest, false);
    }
    column.narrowest = std::max(narrowest, Widest(column.heading));
  } else {
    column.narrowest = column.width;
  }
  column.narrowest = std::min(column.narrowest, column.width);
  return column;
}

std::vector<Column> MakeColumns(const std::vector<const NamedObject *> &rows, bool one_line,
                                int bar_width, const Style &style) {
  const FileObject &first = rows[0]->object;
  const std::vector<size_t> slots = DefinedSlots(first);
  const std::vector<Heading> headings = Headings(*rows[0], slots, style);
  std::vector<Column> columns(1);
  columns[0].heading = {"#"};
  columns[0].right = true;
  for (const NamedObject *row : rows) {
    columns[0].cells.emplace_back(ParseRowName(row->name)->number);
  }
  columns[0].width = Widest(columns[0].cells);
  columns[0].narrowest = columns[0].width;
  std::vector<Column> last;
  for (size_t i = 0; i < slots.size(); i++) {
    Column column = MakeColumn(rows, slots[i], headings[i], one_line, bar_width, style);
    const bool is_long = column.text && first.variables[slots[i]].size >= kLongText;
    (is_long && !style.keep_order ? last : columns).push_back(std::move(column));
  }
  std::move(last.begin(), last.end(), std::back_inserter(columns));
  return columns;
}

int TableWidth(const std::vector<Column> &columns) {
  return std::accumulate(columns.begin(), columns.end(), 0,
                         [](int sum, const Column &column) { return sum + kGap + column.width; });
}

// Narrows the widest columns of text until the table fits. False when it cannot.
bool FitColumns(std::vector<Column> &columns, int width) {
  int needed = 0;
  for (const Column &column : columns) {
    needed += kGap + column.narrowest;
  }
  if (needed > width) {
    return false;
  }
  for (int excess = TableWidth(columns) - width; excess > 0;) {
    int widest = 0;
    int second = 0;
    int count = 0;
    for (const Column &column : columns) {
      if (column.width <= column.narrowest) {
        continue;
      }
      if (column.width > widest) {
        second = std::max(second, widest);
        widest = column.width;
        count = 1;
      } else if (column.width == widest) {
        count++;
      } else {
        second = std::max(second, column.width);
      }
    }
    // All of the widest go down together, at most to the next one's width.
    const int target = std::max(second, widest - (excess + count - 1) / count);
    for (Column &column : columns) {
      if (column.width == widest && column.width > column.narrowest && excess > 0) {
        const int to = std::max({column.narrowest, target, column.width - excess});
        excess -= column.width - to;
        column.width = to;
      }
    }
  }
  return true;
}

void AppendHeadings(std::string &out, const std::vector<Column> &columns) {
  size_t height = 0;
  for (const Column &column : columns) {
    height = std::max(height, column.heading.size());
  }
  for (size_t n = 0; n < height; n++) {
    std::string line;
    for (const Column &column : columns) {
      const size_t empty = height - column.heading.size();
      line.append(kGap, ' ');
      AppendPadded(line, n < empty ? "" : column.heading[n - empty], column.width, column.right);
    }
    AppendLine(out, line);
  }
}

void AppendRow(std::string &out, const std::vector<Column> &columns, size_t row,
               const Style &style) {
  std::vector<std::vector<std::string>> cells;
  size_t height = 1;
  for (const Column &column : columns) {
    const bool fits = !column.text && DisplayWidth(column.cells[row]) <= column.width;
    cells.push_back(WrapText(column.cells[row], fits ? kUnlimited : column.width));
    height = std::max(height, cells.back().size());
  }
  for (size_t n = 0; n < height; n++) {
    std::string line;
    for (size_t i = 0; i < columns.size(); i++) {
      const Mood mood = columns[i].moods.empty() ? Mood::kPlain : columns[i].moods[row];
      line.append(kGap, ' ');
      AppendPadded(line, n < cells[i].size() ? cells[i][n] : "", columns[i].width, columns[i].right,
                   ColourOf(mood), style);
    }
    AppendLine(out, line);
  }
}

// The columns with the widest bars for which there is room; nothing when they do not fit at all.
std::optional<std::vector<Column>> FittedColumns(const std::vector<const NamedObject *> &rows,
                                                 int width, const Style &style) {
  std::vector<int> bar_widths;
  if (style.bars) {
    bar_widths.assign(std::begin(kBarWidths), std::end(kBarWidths));
  }
  bar_widths.push_back(0);
  for (const int bar_width : bar_widths) {
    std::vector<Column> columns = MakeColumns(rows, width == 0, bar_width, style);
    // The number alone is enough where it was asked for.
    if ((columns.size() > 1 || style.keep_order) && (width == 0 || FitColumns(columns, width))) {
      return columns;
    }
  }
  return std::nullopt;
}

void RenderRows(std::string &out, std::string_view group,
                const std::vector<const NamedObject *> &rows, int width, const Style &style) {
  const auto columns = FittedColumns(rows, width, style);
  if (!columns) {
    for (size_t i = 0; i < rows.size(); i++) {
      out += i > 0 ? "\n" : "";
      RenderList(out, *rows[i], width, style);
    }
    return;
  }
  AppendLine(out, Paint(SafeText(group), kTitle, style) + " (" + std::to_string(rows.size()) +
                      (rows.size() == 1 ? " row)" : " rows)"));
  AppendHeadings(out, *columns);
  for (size_t row = 0; row < rows.size(); row++) {
    AppendRow(out, *columns, row, style);
  }
}

}  // namespace

std::optional<RowName> ParseRowName(std::string_view name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot + 1 == name.size() ||
      name.find_first_not_of("0123456789", dot + 1) != std::string_view::npos) {
    return std::nullopt;
  }
  return RowName{name.substr(0, dot), name.substr(dot + 1)};
}

std::string SafeText(std::string_view bytes) {
  const std::string utf8 = Utf8(bytes);
  std::string safe;
  for (std::string_view rest = utf8; !rest.empty();) {
    const Character character = FirstCharacter(rest);
    if (IsControl(character.code)) {
      char escaped[16];
      std::snprintf(escaped, sizeof(escaped),
                    character.code < 0x100     ? "\\x%02x"
                    : character.code < 0x10000 ? "\\u%04x"
                                               : "\\U%08x",
                    static_cast<unsigned>(character.code));
      safe += escaped;
    } else {
      safe += rest.substr(0, character.length);
    }
    rest.remove_prefix(character.length);
  }
  return safe;
}

std::string AsciiText(std::string_view text) {
  std::string ascii;
  while (!text.empty()) {
    const Character character = FirstCharacter(text);
    if (character.code < 0x80) {
      ascii += text[0];
    } else {
      ascii.append(static_cast<size_t>(CharacterWidth(character.code)), '?');
    }
    text.remove_prefix(std::min(character.length, text.size()));
  }
  return ascii;
}

std::string SafeJson(std::string_view json) {
  std::string safe;
  while (!json.empty()) {
    const Character character = FirstCharacter(json);
    if (IsControl(character.code) && character.code != '\n') {
      safe += JsonEscape(character.code);
    } else {
      safe += json.substr(0, character.length);
    }
    json.remove_prefix(character.length);
  }
  return safe;
}

std::string_view CommonPrefix(const std::vector<std::string_view> &names) {
  if (names.size() < 2) {
    return {};
  }
  std::string_view prefix = names[0];
  for (const std::string_view name : names) {
    const auto [end, other] = std::mismatch(prefix.begin(), prefix.end(), name.begin(), name.end());
    prefix = prefix.substr(0, end - prefix.begin());
  }
  const auto is_capital = [](char c) { return c >= 'A' && c <= 'Z'; };
  for (; !prefix.empty(); prefix.remove_suffix(1)) {
    size_t capitals = 0;
    bool ends = false;
    for (const std::string_view name : names) {
      ends = ends || name.size() == prefix.size();
      // A capital after a capital is inside a word ("GUID").
      capitals += !ends && is_capital(name[prefix.size()]) && !is_capital(prefix.back());
    }
    if (!ends && 2 * capitals > names.size()) {
      return prefix;
    }
  }
  return prefix;
}

std::vector<std::string_view> HeadingWords(std::string_view name) {
  const auto is_capital = [&](size_t i) { return name[i] >= 'A' && name[i] <= 'Z'; };
  const auto is_small = [&](size_t i) { return name[i] >= 'a' && name[i] <= 'z'; };
  std::vector<std::string_view> words;
  size_t start = 0;
  for (size_t i = 1; i < name.size(); i++) {
    if (is_capital(i) && (!is_capital(i - 1) || (i + 1 < name.size() && is_small(i + 1)))) {
      words.push_back(name.substr(start, i - start));
      start = i;
    }
  }
  words.push_back(name.substr(start));
  return words;
}

std::string BarText(int percent, int width, bool blocks) {
  const int full = (percent * width + 50) / 100;
  std::string bar;
  for (int i = 0; i < width; i++) {
    const bool filled = i < full || (i == 0 && percent > 0);
    bar += blocks ? (filled ? "\u2588" : "\u2591") : (filled ? "#" : ".");
  }
  return bar;
}

std::optional<std::string> DateText(std::string_view octets) {
  // Year (big-endian), month, day, hour, minute, second.
  const auto octet = [&](size_t i) { return static_cast<unsigned char>(octets[i]); };
  if (octets.size() != 7) {
    return std::nullopt;
  }
  const std::string_view zeros("\0\0\0\0\0\0\0", 7);
  if (octets == zeros) {
    return "-";
  }
  if (octets.substr(0, 2) == "\xFF\xFF" && octets.substr(2) == zeros.substr(2)) {
    return "never";
  }
  if (octet(2) < 1 || octet(2) > 12 || octet(3) < 1 || octet(3) > 31 || octet(4) > 23 ||
      octet(5) > 59 || octet(6) > 60) {
    return std::nullopt;
  }
  char text[32];
  std::snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d", octet(0) << 8 | octet(1),
                octet(2), octet(3), octet(4), octet(5), octet(6));
  return text;
}

std::string GuidText(std::string_view octets) {
  constexpr int kOrder[] = {3, 2, 1, 0, -1, 5, 4, -1, 7, 6, -1, 8, 9, -1, 10, 11, 12, 13, 14, 15};
  std::string text;
  for (const int i : kOrder) {
    if (i < 0) {
      text += '-';
    } else {
      char digits[3];
      std::snprintf(digits, sizeof(digits), "%02X", static_cast<unsigned char>(octets[i]));
      text += digits;
    }
  }
  return text;
}

std::string ValueText(const FileObject &object, const FileVariable &variable) {
  if (variable.type == VAR_INTEGER) {
    const auto value = IntegerOf(object, variable);
    return value ? std::to_string(*value) : "?";
  }
  const auto bytes = BytesOf(object, variable);
  if (!bytes) {
    return "?";
  }
  if (variable.type == VAR_DISPLAY_STRING) {
    return SafeText(*bytes);
  }
  if (const auto date = DateText(*bytes)) {
    return *date;
  }
  return bytes->size() == kGuidSize ? GuidText(*bytes) : OctetText(*bytes);
}

int DisplayWidth(std::string_view text) {
  int width = 0;
  while (!text.empty()) {
    const Character character = FirstCharacter(text);
    width += CharacterWidth(character.code);
    text.remove_prefix(std::min(character.length, text.size()));
  }
  return width;
}

std::vector<std::string> WrapText(std::string_view text, int width) {
  std::vector<std::string> lines;
  for (;;) {
    // The longest beginning that fits, at least one character, and its last blank.
    size_t fits = 0;
    size_t blank = std::string_view::npos;
    for (int used = 0; fits < text.size();) {
      const Character character = FirstCharacter(text.substr(fits));
      used += CharacterWidth(character.code);
      if (character.code == ' ' && fits > 0) {
        blank = fits;
      }
      if (used > width && fits > 0) {
        break;
      }
      fits += character.length;
    }
    if (fits == text.size()) {
      lines.emplace_back(text);
      return lines;
    }
    const bool at_blank = blank != std::string_view::npos;
    lines.emplace_back(text.substr(0, at_blank ? blank : fits));
    text.remove_prefix(at_blank ? blank + 1 : fits);
  }
}

std::string BeginningOf(const FileObject &object) {
  std::vector<std::string_view> own;
  for (const FileVariable &variable : object.variables) {
    if (variable.type != 0 && !IsAdded(variable)) {
      own.push_back(variable.name);
    }
  }
  return std::string(CommonPrefix(own));
}

std::vector<std::string_view> ShortNames(const FileObject &object, std::string_view beginning) {
  const std::string common = beginning.empty() ? BeginningOf(object) : std::string(beginning);
  std::vector<std::string_view> names;
  for (const FileVariable &variable : object.variables) {
    const std::string_view name = variable.name;
    const bool whole = variable.type == 0 || IsAdded(variable) || !name.starts_with(common);
    names.push_back(whole ? name : name.substr(common.size()));
  }
  return names;
}

std::string RenderTables(const std::vector<NamedObject> &objects, int width, const Style &style) {
  std::string out;
  for (size_t i = 0; i < objects.size();) {
    if (i > 0) {
      out += '\n';
    }
    const auto row = ParseRowName(objects[i].name);
    if (!row) {
      RenderList(out, objects[i], width, style);
      i++;
      continue;
    }
    std::vector<const NamedObject *> rows;
    for (; i < objects.size(); i++) {
      const auto next = ParseRowName(objects[i].name);
      if (!next || next->group != row->group ||
          (!rows.empty() && !SameColumns(rows[0]->object, objects[i].object))) {
        break;
      }
      rows.push_back(&objects[i]);
    }
    RenderRows(out, row->group, rows, width, style);
  }
  return out;
}

}  // namespace vex
