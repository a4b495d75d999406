// Where messages go: standard error, or the file of -l. Any thread.
#ifndef VEX_FRAMEWORK_PROCESS_LOG_H
#define VEX_FRAMEWORK_PROCESS_LOG_H

namespace vex {

// The agent's name for messages, also before agent_main() has set it.
const char *AgentName();

// Appends messages to this file from now on. 0, or -1 with errno (the log stays where it was).
int OpenLog(const char *path);
// Opens the file again under its name (it has been moved away); nothing without one.
void ReopenLog();

}  // namespace vex

#endif
