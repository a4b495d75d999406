// A process that answers as a captured host's management controller did.
#ifndef VEX_TOOLS_VEXREG_CONTROLLER_STAND_IN_H
#define VEX_TOOLS_VEXREG_CONTROLLER_STAND_IN_H

#include <sys/types.h>

#include <string>

#include "tools/vexreg/controller_replies.h"

namespace vex {

// What the controller says to a request; empty for nothing. Pure.
std::string ReplyTo(const std::string &request, const ControllerReplies &replies);

// Answers at the controller's socket, in a child process that ends with this one. Its number; -1
// after a complaint.
pid_t StandInForController(const ControllerReplies &replies);

}  // namespace vex

#endif
