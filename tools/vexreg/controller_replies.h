// What a management controller must have said for the firmware rows to be as they are. Pure.
#ifndef VEX_TOOLS_VEXREG_CONTROLLER_REPLIES_H
#define VEX_TOOLS_VEXREG_CONTROLLER_REPLIES_H

#include <string>
#include <vector>

#include "tools/vexreg/tables.h"

namespace vex {

// Replies from the header on; empty when there are no rows of it. A capture does not ask the
// controller, which might owe the agent an answer: a replay tries the way from these replies to the
// rows, and not that from the controller to the replies.
struct ControllerReplies {
  std::string version;  // of the integrated controller
  std::string logic;    // of its programmable logic
  std::string card;     // the version reply of a remote card
};
ControllerReplies RepliesFor(const std::vector<NamedObject> &objects);

}  // namespace vex

#endif
