// Whether output goes to a terminal that has colours, and to one that has more than ASCII.
#ifndef VEX_TOOLS_VEXREG_APPEARANCE_H
#define VEX_TOOLS_VEXREG_APPEARANCE_H

#include <string_view>

#include "tools/vexreg/tables.h"

namespace vex {

enum class ColourChoice { kAuto, kAlways, kNever };

// Takes "auto", "always" or "never". False for another word.
bool ParseColour(std::string_view word, ColourChoice *choice);

// How standard output is written. kAuto: with colours on a terminal whose TERM is not "dumb",
// unless NO_COLOR is set to something. Bars stand where colours could; numbers as they are (raw)
// have neither, unless colours are asked for.
Style ChooseStyle(bool raw, ColourChoice choice);

}  // namespace vex

#endif
