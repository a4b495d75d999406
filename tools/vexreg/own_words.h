// What the agent and doctor say of this host, as a capture and a report take it along.
#ifndef VEX_TOOLS_VEXREG_OWN_WORDS_H
#define VEX_TOOLS_VEXREG_OWN_WORDS_H

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace vex {

// A text, or why there is none.
struct TakenText {
  std::optional<std::string> text;
  std::string reason;
};

// What `vexreg doctor --json` prints, asked of this program. search: as PATH. Within 25 seconds.
TakenText TakeDoctorsFindings(const std::string &root, const std::string &search);

// The file that the agent writes its log to (its option -l); empty when it has none, or when that
// cannot be seen. agent: its process, 0 when it does not run.
std::string LogFileOf(pid_t agent);
// The last bytes of that file.
TakenText TakeLogFile(const std::string &file, const std::string &search, size_t most_bytes);
// The last lines of the service's journal, at most so many bytes of them.
TakenText TakeJournal(const std::string &search, size_t most_bytes);

}  // namespace vex

#endif
