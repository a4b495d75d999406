// Whether the agent has been told to end: what agent_ending() of platform/framework.h says.
#ifndef VEX_FRAMEWORK_PROCESS_ENDING_H
#define VEX_FRAMEWORK_PROCESS_ENDING_H

namespace vex {

// From now on agent_ending() is not 0. True the first time. For signal handlers.
bool NoteEnding();

}  // namespace vex

#endif
