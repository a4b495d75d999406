// The agent thread's loop and what the rest of the framework may know of it.
#ifndef VEX_FRAMEWORK_PROCESS_MAIN_LOOP_H
#define VEX_FRAMEWORK_PROCESS_MAIN_LOOP_H

#include <cstdint>
#include <string>
#include <vector>

namespace vex {

constexpr int kDefaultPollTime = 15;  // seconds

// The command line without the framework's own option.
struct CommandLine {
  std::vector<char *> rest;  // argv[0] included, then null
  const char *log_file = nullptr;
  bool bad = false;  // -l without a file
};
// Takes -l FILE and -lFILE out, up to "--"; the last one counts. Everything else is the agent's.
CommandLine TakeOwnOptions(int argc, char **argv);

// Nanoseconds (CLOCK_MONOTONIC) since which the agent thread has been in one hook, with what the
// framework itself does for its files then, or in one set handler; 0 when it is in none. Any
// thread.
int64_t InHookSince();

// The poll interval of the configuration file, which counts unless the agent has set one itself.
void ConfigurePollTime(int seconds);

}  // namespace vex

#endif
