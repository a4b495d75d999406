// Objects as tables for people.
#ifndef VEX_TOOLS_VEXREG_TABLES_H
#define VEX_TOOLS_VEXREG_TABLES_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "framework/registry/registry_file.h"

namespace vex {

struct NamedObject {
  std::string name;  // from the root
  FileObject object;
  // Of its variables' names, which headings leave out; empty: what they have in common.
  std::string beginning = {};
};

// How tables look.
struct Style {
  bool words = false;       // values in words and units; else the numbers as they are
  bool colour = false;      // escape sequences of a terminal
  bool bars = false;        // behind percentages, where there is room
  bool blocks = false;      // bars of U+2588 and U+2591; else of ASCII
  bool utf8 = false;        // the reader's locale has more than ASCII
  bool keep_order = false;  // of the variables; else columns of long text come last
};

// "host/cpu.12" is row 12 of host/cpu; nothing for an object that is no row.
struct RowName {
  std::string_view group;
  std::string_view number;
};
std::optional<RowName> ParseRowName(std::string_view name);

// One table for each group of rows ("host/cpu" of host/cpu.0, host/cpu.1, ...) and one list of
// names and values for each other object, in the order of the objects. With a width, columns of
// text are wrapped so that no line is longer, and rows that cannot be fitted become lists; with
// width 0 every row is one line.
std::string RenderTables(const std::vector<NamedObject> &objects, int width,
                         const Style &style = {});

// A column that does not stand in the objects but was added for the reader.
inline constexpr char kObjectColumn[] = "Object";
inline constexpr char kPublishedColumn[] = "Published";

// The names without the beginning that they have in common, as headings have them.
std::vector<std::string_view> ShortNames(const FileObject &object, std::string_view beginning = {});
// That beginning; empty when they have none in common.
std::string BeginningOf(const FileObject &object);

// Bytes from an object file as UTF-8 that a terminal shows and does not act on: control characters,
// C1 ones too, those that reorder text and those that nobody sees are written out as \x1b, \u202e
// or \U000e0041.
std::string SafeText(std::string_view bytes);
// UTF-8 for a terminal that has ASCII alone: as wide, with question marks for the rest.
std::string AsciiText(std::string_view text);
// The same of a JSON text, in which they become escape sequences of the same value.
std::string SafeJson(std::string_view json);

// The beginning that the names have in common, up to where a capitalised word begins in most of
// them and nothing ends: what a heading can do without.
std::string_view CommonPrefix(const std::vector<std::string_view> &names);

// The text cut at capital letters: "FiveMin" is Five and Min, "GUIDCanonical" GUID and Canonical.
std::vector<std::string_view> HeadingWords(std::string_view name);

// A value for people: a date of 7 octets as "2024-03-05 14:07:09", "never" or "-" (all zero), a
// GUID of 16 octets in its canonical form, other octets in hexadecimal, text without control
// characters.
std::string ValueText(const FileObject &object, const FileVariable &variable);

// A date of 7 octets as ValueText() has it; nothing when it is none.
std::optional<std::string> DateText(std::string_view octets);
// The canonical form of a GUID of 16 octets, whose first three fields are little-endian.
inline constexpr size_t kGuidSize = 16;
std::string GuidText(std::string_view octets);

// A bar of so many columns, as full as the percentage; anything above 0 shows. blocks: of U+2588
// and U+2591, else of ASCII.
std::string BarText(int percent, int width, bool blocks);

// The columns that the text takes on a terminal.
int DisplayWidth(std::string_view text);

// The text in lines of at most width columns, broken at blanks where possible; at least one line.
std::vector<std::string> WrapText(std::string_view text, int width);

}  // namespace vex

#endif
