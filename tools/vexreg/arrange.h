// Which columns of objects are shown, and in which order their rows.
#ifndef VEX_TOOLS_VEXREG_ARRANGE_H
#define VEX_TOOLS_VEXREG_ARRANGE_H

#include <string>
#include <vector>

#include "tools/vexreg/tables.h"

namespace vex {

// A column goes by its heading (SpaceUsed) or its variable's name (tlxHoFileSysSpaceUsed), whatever
// the case. Besides these every object has kObjectColumn, its name, kPublishedColumn, the time of
// its last publication, and every row "#", its number, which stands first in its table anyway.
struct Arrangement {
  // Separated by commas; "-" before a name: the largest first.
  std::string sort;
  // Separated by commas; "+" before the list: these after those that are shown anyway.
  std::string columns;
  bool for_programs = false;  // times in the form of ISO 8601
};

// Leaves the columns, in this order, and sorts the rows of each group; numbers by number, texts by
// their bytes, rows that are alike as they stood. Objects that have none of the columns go. False,
// with a message that names the columns there are, when one of the names is none.
bool Arrange(const Arrangement &arrangement, std::vector<NamedObject> *objects, std::string *error);

}  // namespace vex

#endif
