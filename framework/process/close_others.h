// Descriptors that a child does not want to have.
#ifndef VEX_FRAMEWORK_PROCESS_CLOSE_OTHERS_H
#define VEX_FRAMEWORK_PROCESS_CLOSE_OTHERS_H

namespace vex {

// Closes every descriptor from that number on but two, -1 for none. Takes neither a lock nor
// memory: it is for children of a process that has threads.
void CloseOthers(int from, int kept, int other = -1);

}  // namespace vex

#endif
