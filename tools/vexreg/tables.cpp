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

namespace vex {
namespace {

constexpr int kGap = 2;              // blanks between columns
constexpr int kNarrowest = 8;        // a column of text is not wrapped to less
constexpr uint32_t kLongText = 65;   // text fields of more bytes make the last columns
constexpr size_t kFewZeros = 16;     // at the end of an octet string; more are not written out
constexpr int kUnlimited = 1 << 30;  // a width that nothing reaches

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

// Whether a terminal would act on the character instead of showing it, or reorder what it shows.
bool IsControl(char32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x200E || code == 0x200F ||
         (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
}

// A date of 7 octets: year (big-endian), month, day, hour, minute, second. Nothing when it is none.
std::optional<std::string> DateText(std::string_view octets) {
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

// The canonical form of a GUID, whose first three fields are little-endian.
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

void AppendPadded(std::string &line, std::string_view text, int width, bool right) {
  const int blanks = std::max(0, width - DisplayWidth(text));
  if (right) {
    line.append(blanks, ' ');
  }
  line += text;
  if (!right) {
    line.append(blanks, ' ');
  }
}

void AppendLine(std::string &out, std::string line) {
  line.erase(line.find_last_not_of(' ') + 1);
  out += line;
  out += '\n';
}

// "host/cpu.12" is row 12 of host/cpu; nothing for an object that is no row.
struct RowName {
  std::string_view group;
  std::string_view number;
};
std::optional<RowName> ParseRowName(std::string_view name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot + 1 == name.size() ||
      name.find_first_not_of("0123456789", dot + 1) != std::string_view::npos) {
    return std::nullopt;
  }
  return RowName{name.substr(0, dot), name.substr(dot + 1)};
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
std::vector<Heading> Headings(const FileObject &object, const std::vector<size_t> &slots) {
  std::vector<std::string_view> names;
  names.reserve(slots.size());
  for (const size_t slot : slots) {
    names.push_back(object.variables[slot].name);
  }
  const size_t prefix = CommonPrefix(names).size();
  std::vector<Heading> headings;
  for (const std::string_view name : names) {
    const std::string units = ShortUnits(name);
    headings.push_back(
        {SafeText(name.substr(prefix)), units.empty() ? "" : "(" + SafeText(units) + ")"});
  }
  return headings;
}

// ---- Lists ------------------------------------------------------------------------------------

void RenderList(std::string &out, std::string_view title, const FileObject &object, int width) {
  AppendLine(out, SafeText(title));
  const std::vector<size_t> slots = DefinedSlots(object);
  if (slots.empty()) {
    AppendLine(out, "  (no variables; " + std::to_string(object.data.size()) + " bytes of data)");
    return;
  }
  std::vector<std::string> names;
  int name_width = 0;
  for (const Heading &heading : Headings(object, slots)) {
    names.push_back(heading.units.empty() ? heading.name : heading.name + " " + heading.units);
    name_width = std::max(name_width, DisplayWidth(names.back()));
  }
  const int used = kGap + name_width + kGap;
  const int value_width = width > 0 ? std::max(kNarrowest, width - used) : kUnlimited;
  for (size_t i = 0; i < slots.size(); i++) {
    const auto lines = WrapText(ValueText(object, object.variables[slots[i]]), value_width);
    for (size_t n = 0; n < lines.size(); n++) {
      std::string line(kGap, ' ');
      AppendPadded(line, n == 0 ? names[i] : "", name_width + kGap, false);
      AppendLine(out, line + lines[n]);
    }
  }
}

// ---- Tables -----------------------------------------------------------------------------------

struct Column {
  std::vector<std::string> heading;  // lines, the last one next to the values
  std::vector<std::string> cells;    // one a row
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

std::vector<Column> MakeColumns(const std::vector<const NamedObject *> &rows, bool one_line) {
  const FileObject &first = rows[0]->object;
  const std::vector<size_t> slots = DefinedSlots(first);
  const std::vector<Heading> headings = Headings(first, slots);
  std::vector<Column> columns(1);
  columns[0].heading = {"#"};
  columns[0].right = true;
  for (const NamedObject *row : rows) {
    columns[0].cells.emplace_back(ParseRowName(row->name)->number);
  }
  columns[0].width = Widest(columns[0].cells);
  std::vector<Column> last;
  for (size_t i = 0; i < slots.size(); i++) {
    const FileVariable &variable = first.variables[slots[i]];
    Column column;
    column.right = variable.type == VAR_INTEGER;
    column.text = !column.right;
    for (const NamedObject *row : rows) {
      column.cells.push_back(ValueText(row->object, row->object.variables[slots[i]]));
    }
    column.width = Widest(column.cells);
    column.heading = HeadingLines(headings[i], column.width, one_line);
    column.width = std::max(column.width, Widest(column.heading));
    const bool is_long = column.text && variable.size >= kLongText;
    (is_long ? last : columns).push_back(std::move(column));
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
  for (Column &column : columns) {
    column.narrowest = column.text
                           ? std::min(column.width, std::max(kNarrowest, Widest(column.heading)))
                           : column.width;
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

void AppendRow(std::string &out, const std::vector<Column> &columns, size_t row) {
  std::vector<std::vector<std::string>> cells;
  size_t height = 1;
  for (const Column &column : columns) {
    cells.push_back(WrapText(column.cells[row], column.text ? column.width : kUnlimited));
    height = std::max(height, cells.back().size());
  }
  for (size_t n = 0; n < height; n++) {
    std::string line;
    for (size_t i = 0; i < columns.size(); i++) {
      line.append(kGap, ' ');
      AppendPadded(line, n < cells[i].size() ? cells[i][n] : "", columns[i].width,
                   columns[i].right);
    }
    AppendLine(out, line);
  }
}

void RenderRows(std::string &out, std::string_view group,
                const std::vector<const NamedObject *> &rows, int width) {
  std::vector<Column> columns = MakeColumns(rows, width == 0);
  if (columns.size() == 1 || (width > 0 && !FitColumns(columns, width))) {
    for (size_t i = 0; i < rows.size(); i++) {
      out += i > 0 ? "\n" : "";
      RenderList(out, rows[i]->name, rows[i]->object, width);
    }
    return;
  }
  AppendLine(out, SafeText(group) + " (" + std::to_string(rows.size()) +
                      (rows.size() == 1 ? " row)" : " rows)"));
  AppendHeadings(out, columns);
  for (size_t row = 0; row < rows.size(); row++) {
    AppendRow(out, columns, row);
  }
}

}  // namespace

std::string SafeText(std::string_view bytes) {
  const std::string utf8 = Utf8(bytes);
  std::string safe;
  for (std::string_view rest = utf8; !rest.empty();) {
    const Character character = FirstCharacter(rest);
    if (IsControl(character.code)) {
      char escaped[16];
      std::snprintf(escaped, sizeof(escaped), character.code < 0x100 ? "\\x%02x" : "\\u%04x",
                    static_cast<unsigned>(character.code));
      safe += escaped;
    } else {
      safe += rest.substr(0, character.length);
    }
    rest.remove_prefix(character.length);
  }
  return safe;
}

std::string SafeJson(std::string_view json) {
  std::string safe;
  while (!json.empty()) {
    const Character character = FirstCharacter(json);
    if (IsControl(character.code) && character.code != '\n') {
      char escaped[16];
      std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(character.code));
      safe += escaped;
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
  return bytes->size() == 16 ? GuidText(*bytes) : OctetText(*bytes);
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

std::string RenderTables(const std::vector<NamedObject> &objects, int width) {
  std::string out;
  for (size_t i = 0; i < objects.size();) {
    if (i > 0) {
      out += '\n';
    }
    const auto row = ParseRowName(objects[i].name);
    if (!row) {
      RenderList(out, objects[i].name, objects[i].object, width);
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
    RenderRows(out, row->group, rows, width);
  }
  return out;
}

}  // namespace vex
