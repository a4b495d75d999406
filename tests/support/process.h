// Processes of a scenario: commands that run to their end, and programs that stay.
#ifndef VEX_TESTS_SUPPORT_PROCESS_H
#define VEX_TESTS_SUPPORT_PROCESS_H

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace made_up {

// Calls condition until it is true or the time is over; what it returned last.
bool Eventually(const std::function<bool()> &condition, double seconds = 15);
// This process and what it starts from now on go before everything else that the machine runs: for
// scenarios that measure.
void BeUrgent();
// Seconds on the monotonic clock.
double Now();
void Pause(double seconds);

struct Outcome {
  int status = -1;  // exit status, or 128 and the signal
  std::string out;
  std::string err;
};

using Environment = std::vector<std::pair<std::string, std::string>>;

struct ProcessOptions {
  Environment environment;       // beside PATH and LC_ALL=C, which every process has otherwise
  std::string log;               // file that takes standard output and error, from its beginning
  std::string name;              // argv[0] when it is not the program's path
  bool real_proc = false;        // sees the machine's own /proc whatever the scenario made of it
  bool fixed_addresses = false;  // no address randomisation (ThreadSanitizer)
};

// Runs a command to its end; a command that takes longer is killed (status 137).
Outcome RunCommand(const std::vector<std::string> &command, const ProcessOptions &options = {},
                   double seconds = 30, const std::string &input = "");

// A process that stays until it is told to end. Starts with no signal blocked or ignored and
// nothing open but the three standard descriptors.
class Process {
 public:
  Process() = default;
  Process(const Process &) = delete;
  Process &operator=(const Process &) = delete;
  ~Process();  // kills what still runs

  void Start(const std::vector<std::string> &command, const ProcessOptions &options = {});
  pid_t pid() const {
    return pid_;
  }
  bool Running();
  void Signal(int number);
  // Waits for the end: the exit status, or 128 and the signal; nothing when it still runs.
  std::optional<int> Wait(double seconds = 15);

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
};

// What /proc tells of a process of this scenario.
std::vector<std::string> OpenFiles(pid_t pid);  // "3 -> socket:[123]", by descriptor
// The same, when nothing of it has changed for half a second: a file that is open for a moment
// only, a sibling's object or a configuration file, is not among them.
std::vector<std::string> SettledFiles(pid_t pid);
// But for the starter of its SNMP process, which stays.
std::vector<pid_t> Children(pid_t pid);
// The starter of a daemon's SNMP process, and that process; -1 for none.
pid_t StarterOf(pid_t daemon);
pid_t SnmpProcessOf(pid_t daemon);
bool ProcessExists(pid_t pid);  // and is no zombie
// SIGSTOP, until it has stopped: it does once it is given a processor, and may answer until then.
void StopProcess(pid_t pid);
// CPU time, user and system, in seconds.
double CpuSeconds(pid_t pid);
double CpuSecondsOfEndedChildren(pid_t pid);

std::string ReadFile(const std::string &path);  // "" when there is none
bool Exists(const std::string &path);
std::vector<std::string> Lines(const std::string &text);
std::vector<std::string> ListDirectory(
    const std::string &path);  // sorted; empty when there is none

}  // namespace made_up

#endif
