// What may still differ three polls after a call has failed, each with its reason.
#include <algorithm>
#include <cctype>
#include <iterator>
#include <regex>
#include <sstream>

#include "tests/faults/bench.h"

namespace faults {

namespace {

struct Exception {
  const char *phase;       // all of them: ""
  const char *call;        // several with blanks between them; all of them: ""
  std::string difference;  // a pattern for the whole line
  const char *reason;
};

// The status array of the golden server, with this agent's own condition.
constexpr char kStatusArray[] =
    "01 03 08 00 01 02 01 02 01 02 02 03 01 02 03 04 00 00 00 00 01 03 05 06 01 02 06 07 "
    "00 00 00 00 01 02 04 05 01 02 07 08 01 02 08 09 01 0[23] 01 00 00 00 00 00 00 00 00 00 "
    "01 02 09 0A 00 00 00 00 01 03 0A 0B 00 00 00 00 01 02 0D 0E 00 00 00 00 00 00 00 00 "
    "01 00 00 00 01 02 0B 0C 00 00 00 00 00 00 00 00 00 00 00 00 01 02 0E 0F";

// As Printable() has it.
std::string StatusArrayText() {
  std::string text = "\\\\";
  for (const char *c = kStatusArray; *c != '\0'; c++) {
    text += *c == ' ' ? std::string("\\\\") : std::string(1, static_cast<char>(tolower(*c)));
  }
  return text;
}

const std::vector<Exception> &Exceptions() {
  static const std::vector<Exception> exceptions = {
      {"", "",
       "- (kept host/fwver\\.|object host/fwver\\.(index| tlxHoFwVerDisplayName = Servala KX770 R7 "
       ".*)|"
       "walk \\.1\\.3\\.6\\.1\\.4\\.1\\.4891\\.11\\.2\\.7\\.1\\.1\\.(index|\\d+ = STRING: "
       "\"Servala "
       "KX770 R7 .*)|kept host/fwkind\\.|object host/fwkind\\.(index| tlxHoFwKindName = Servala "
       "KX770 R7 .*)"
       "|walk \\.1\\.3\\.6\\.1\\.4\\.1\\.4891\\.11\\.2\\.200\\.7\\.1\\.1\\.(index|\\d+ = STRING: "
       "\"Servala KX770 R7 .*))",
       "a controller that has not answered for the programmable logic is not asked for it again"},
      {"", "",
       "- (kept host/swver\\.|object host/swver\\.(index| tlxHoSwVerName = "
       "(CONFIG|SYSTEMROMKIT|DIAGS|DISKDR) .*)|walk "
       "\\.1\\.3\\.6\\.1\\.4\\.1\\.4891\\.11\\.2\\.6\\.1\\.1\\.(index|\\d+ = "
       "STRING: \"(CONFIG|SYSTEMROMKIT|DIAGS|DISKDR)\" .*)"
       "|kept host/swkind\\.|object host/swkind\\.(index| tlxHoSwKindName = "
       "(CONFIG|SYSTEMROMKIT|DIAGS|DISKDR) .*)"
       "|walk \\.1\\.3\\.6\\.1\\.4\\.1\\.4891\\.11\\.2\\.200\\.6\\.1\\.1\\.(index|\\d+ = STRING: "
       "\"(CONFIG|SYSTEMROMKIT|DIAGS|DISKDR)\" .*))",
       "the first row of a utility that cannot be made, which the log says, is the last one tried"},
      {"", "fchdir chroot capget capset setgroups setresgid setresuid prctl prlimit64",
       "[-+] (child snmp-starter|fd (socket|pipe))",
       "where the SNMP process cannot give its rights up it stays a thread, which the log says"},
      {"", "prctl", "\\+ child vexhostd", "a process that cannot take a name has its program's"},
      {"", "pipe2", "- fd pipe",
       "the SNMP library goes without the pipe that it makes for itself, which nothing of ours "
       "uses"},
      {"", "",
       "[-+] (object host/misc tlxHoMibStatusArray = " + StatusArrayText() +
           "|walk \\.1\\.3\\.6\\.1\\.4\\.1\\.4891\\.11\\.2\\.1\\.5\\.0 = Hex-STRING: " +
           kStatusArray +
           " ?|object host/sibling\\.11 tlxHoSiblingCondition = [23]"
           "|walk \\.1\\.3\\.6\\.1\\.4\\.1\\.4891\\.11\\.2\\.200\\.3\\.1\\.1\\.4\\.11 = INTEGER: "
           "[23])",
       "a peer's condition in the status array, this agent's own among them, is the one of its "
       "start"},
      {"", "",
       "[-+] (object host/misc tlxHoSwVerNextIndex = \\d+|walk "
       "\\.1\\.3\\.6\\.1\\.4\\.1\\.4891\\.11\\.2\\.1\\.2\\.0 = INTEGER: \\d+)",
       "the next index goes with the rows that there are"},
  };
  return exceptions;
}

}  // namespace

static bool IsAmong(const std::string &word, const char *words) {
  std::istringstream list(words);
  return std::find(std::istream_iterator<std::string>(list), std::istream_iterator<std::string>(),
                   word) != std::istream_iterator<std::string>();
}

std::string Rule(Phase phase, const Call &call, const std::string &difference) {
  for (const Exception &one : Exceptions()) {
    if ((*one.phase == '\0' || std::string(NameOf(phase)) == one.phase) &&
        (*one.call == '\0' || (call.name != nullptr && IsAmong(call.name, one.call))) &&
        std::regex_match(difference, std::regex(one.difference))) {
      return one.reason;
    }
  }
  return "";
}

bool ComesWithItsPeriod(const std::string &difference) {
  // The volumes of VMware are asked for at each twentieth poll.
  return difference.find("host/filesys.") != std::string::npos ||
         difference.find("host/mount.") != std::string::npos ||
         difference.find(".1.3.6.1.4.1.4891.11.2.200.2.1.1.") != std::string::npos ||
         difference.find(".1.3.6.1.4.1.4891.11.2.4.1.1.") != std::string::npos;
}

}  // namespace faults
