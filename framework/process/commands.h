// Shell commands: run_command() and process_linux_cmd(), and what the log has heard of them.
#ifndef VEX_FRAMEWORK_PROCESS_COMMANDS_H
#define VEX_FRAMEWORK_PROCESS_COMMANDS_H

#include <cstddef>
#include <deque>
#include <string>

namespace vex {

// What became of a command.
struct CommandResult {
  enum End { kExited, kSignalled, kNotRun, kTimedOut, kAgentEnding };
  End end = kNotRun;
  int status = -1;    // of an exit, or the signal's number
  size_t length = 0;  // of the output as stored, without its NUL
};

// Runs `command` by /bin/sh -c in a process group of its own, for at most limit_ms milliseconds and
// not beyond the agent's end; what is running then is killed with its group. `output` gets at most
// size - 1 bytes and a NUL (nothing when size is 0); what does not fit is dropped. What goes wrong
// and what the command says on its standard error is logged once, until it changes. Agent thread.
CommandResult RunCommand(const char *command, int limit_ms, char *output, size_t size);

// Which texts about commands the log has already. Bounded: the oldest are forgotten.
class CommandNews {
 public:
  // With by_program, what one command has said is no news from another of the same program (its
  // first word): a scan asks one tool a hundred times.
  explicit CommandNews(bool by_program) : by_program_(by_program) {}

  // Whether the text is to be logged for this command; an empty text only takes the last one back.
  bool Tell(const std::string &command, const std::string &text);

 private:
  struct Entry {
    std::string command;
    std::string text;
  };
  bool by_program_;
  std::deque<Entry> entries_;
};

}  // namespace vex

#endif
