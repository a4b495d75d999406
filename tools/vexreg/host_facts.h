// What `vexreg doctor` sees of this host, without asking anybody over SNMP.
#ifndef VEX_TOOLS_VEXREG_HOST_FACTS_H
#define VEX_TOOLS_VEXREG_HOST_FACTS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/vexreg/findings.h"

namespace vex {

// What a file holds; what could be read of it where reading fails, as of a process in /proc that
// ends meanwhile (ESRCH); "" where it cannot be opened. Throws std::bad_alloc alone.
std::string ReadText(const std::string &path);

// The processes of that name (proc(5), comm); their children, zombies and, where that shows, those
// of containers are left out.
std::vector<ProcessFact> FindProcesses(const std::string &name);
// Takes state, parent and start from what /proc/PID/stat says. False when it is not of that form.
bool ParseStat(std::string_view stat, ProcessFact *process);
// How many numbers a process has by what /proc/PID/status says of it (NSpid): one for each PID
// namespace from this /proc's on. 0 when it does not say so.
size_t NumbersOfProcess(std::string_view status);
// Those that are no child of another of them: one that has just been forked still has its parent's
// name.
std::vector<ProcessFact> WithoutChildren(const std::vector<ProcessFact> &processes);
// Whether the agent waits for a command: a child of it that asks no mount and starts no SNMP
// process.
bool RunsCommand(pid_t agent);
// Whether the agent's way to snmpd is there, a thread of it: not before its pause at the start.
bool HasSnmpThread(pid_t agent);
// The wall clock, in nanoseconds.
int64_t WallClock();
// Whether this user does not see other users' processes.
bool ProcessesHidden();
// A variable of another process's environment; nothing when that may not be read. The inner value
// is absent when the process does not have the variable.
std::optional<std::optional<std::string>> VariableOf(pid_t pid, const std::string &name);

// Connects to a Unix stream socket without waiting, and closes it again: 0, or connect(2)'s error.
int TryUnixSocket(const std::string &path);
// How many connections a listener on that path has; nothing when that cannot be read.
std::optional<int> ConnectionsTo(const std::string &path);
// The same in the text of /proc/net/unix.
int CountConnections(std::string_view table, std::string_view path);

// How far the addresses reach on which somebody takes SNMP's questions (port 161).
enum class Reach { kNowhere, kLoopback, kBeyond };
Reach SnmpReach();
// The same of the text of /proc/net/udp, udp6, tcp or tcp6; listening: for connections (tcp).
Reach SnmpReachOf(std::string_view table, bool listening);

// Whether somebody listens there for connections of packets, by the text of /proc/net/unix.
bool HasPacketListener(std::string_view table, std::string_view path);

// The sources of the agent's values: which are there and can be used. search: the directories of
// commands, as PATH. started_ns: when the agent did, 0 when it does not run.
// Each finding is said at once, since looking at the next source may wait for ever.
void LookAtSources(const std::string &search, int64_t started_ns,
                   const std::function<void(const Finding &)> &say);

}  // namespace vex

#endif
