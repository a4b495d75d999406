// Values as people say them: words and units from the MIB modules.
#ifndef VEX_TOOLS_VEXREG_WORDS_H
#define VEX_TOOLS_VEXREG_WORDS_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "framework/registry/registry_file.h"

namespace vex {

// How a value is to be taken, for its colour.
enum class Mood { kPlain, kFaint, kGood, kWarning, kBad };

// A piece of text of one mood.
struct Span {
  std::string text;
  Mood mood = Mood::kPlain;
};

struct Shown {
  std::string text;
  Mood mood = Mood::kPlain;
  std::optional<int> percent;            // 0 to 100, where a bar can show it
  std::vector<std::vector<Span>> lines;  // of a table of its own; empty when the text is all
};

// A variable's value in words. The MIB modules' labels, units and dates; an array as lines of its
// parts; what they do not know as ValueText() has it.
Shown ShowValue(const FileObject &object, const FileVariable &variable);

// Whether ShowValue() puts the variable's units behind its numbers.
bool ShowsUnits(std::string_view name);

// The same for programs: labels, dates and GUIDs as text, arrays as their parts, null for what is
// not known, and any other number in the units of the module.
nlohmann::ordered_json WordJson(const FileObject &object, const FileVariable &variable);

// "2.9 TiB" of so many megabytes of 1,048,576 octets: three digits at most.
std::string SizeText(int64_t megabytes);
// "45 s", "2 min 30 s", "3 days 4 h": the two largest units.
std::string DurationText(int64_t seconds);

}  // namespace vex

#endif
