// Where the messages of agentlog_fprintf() go: standard error, the file of -l, or a program's own
// sink. Any thread, but for the functions that say where: those are for before the first thread.
#ifndef VEX_FRAMEWORK_PROCESS_LOG_H
#define VEX_FRAMEWORK_PROCESS_LOG_H

#include <stddef.h>

namespace vex {

// The program's name for messages: "agent" until it is set.
const char *AgentName();
// name stays the caller's and must last as long as the process.
void SetLogName(const char *name);

// Takes a message, mostly a line with its end. Its length, or negative when it is lost.
using LogSink = int (*)(const char *text, size_t length);
// Gives messages to the sink instead.
void SetLogSink(LogSink sink);

// Where messages are written to now. The number stays the same from OpenLog() on.
int LogFd();

// Appends messages to this file from now on. 0, or -1 with errno (the log stays where it was).
int OpenLog(const char *path);
// Opens the file again under its name (it has been moved away); nothing without one.
void ReopenLog();

}  // namespace vex

#endif
