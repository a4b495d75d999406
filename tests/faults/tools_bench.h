// vexreg under faults: rounds in which one call of a command fails, and a verdict on each, from
// what can be seen outside.
#ifndef VEX_TESTS_FAULTS_TOOLS_BENCH_H
#define VEX_TESTS_FAULTS_TOOLS_BENCH_H

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/faults/injector.h"
#include "tests/support/made_up_host.h"

namespace tool_faults {

// What a command is for, which says how its output is judged.
enum class Kind {
  kObjects,   // prints objects: one that is left out is told
  kText,      // prints what is always the same
  kNames,     // prints names for a shell: some are better than none, when the rest is told
  kFindings,  // doctor
  kPage,      // report of this host
  kCapture,
  kWrite,  // changes an object
  kWatch,
};

// A command line of vexreg.
struct Subject {
  const char *name;
  Kind kind;
  std::vector<std::string> words;
  bool live = false;       // of a host with an agent and snmpd, else of recorded objects alone
  std::string output{};    // a file that it writes
  bool long_form = false;  // left to scripts/faults
};
inline void PrintTo(const Subject &subject, std::ostream *out) {
  *out << subject.name;
}
const std::vector<Subject> &Subjects();

// The calls that fail, each in one way; a call that fails in several ways comes again.
const std::vector<faults::Call> &ToolCalls();

// What nothing that leaves the host may have: a community of snmpd.conf.
inline constexpr char kSecret[] = "hush-hush-1";

// What stands in the file that is to be written.
inline constexpr char kOldText[] = "what was there before\n";

// What was seen of one run.
struct Run {
  int status = -1;  // or 128 and a signal
  bool ended = false;
  double seconds = 0;
  std::string out, err;
  std::map<std::string, std::string> files;  // of the room, whole
  std::vector<std::string> left;             // processes that were not there before
};

enum class Judgement {
  kNotReached,  // there is no n-th call
  kNoEffect,    // the output is that of an undisturbed run
  kTold,        // it differs by what standard error names
  kFailed,      // status 1, with a line that says why
  kByRule,      // what differs may do so (tools_rules.cpp)
  kWrong,
};
const char *NameOf(Judgement judgement);

struct Verdict {
  Judgement judgement = Judgement::kNotReached;
  std::vector<std::string> differences;  // why
  std::vector<std::string> place;        // in the product, innermost first
};

// What an undisturbed run over a registry without these objects is like.
using Without = std::function<Run(const std::set<std::string> &)>;

// Judges a run beside an undisturbed one.
Verdict Judge(const Subject &subject, const Run &expected, const Run &seen, const Without &without);

// Why a difference may be, or "".
std::string Rule(const Subject &subject, const faults::Call &call, const std::string &difference);

class Bench {
 public:
  explicit Bench(const Subject &subject);
  Bench(const Bench &) = delete;
  Bench &operator=(const Bench &) = delete;

  // Undisturbed runs, for comparison. False (and a failure of the test) when they do not look
  // alike.
  bool Learn();
  // How often each call is made in an undisturbed run, by its number; allocations as -1.
  const std::map<int, unsigned> &Counts() const {
    return counts_;
  }
  Verdict Round(const faults::Call &call, unsigned n);
  // A defect of the next round.
  void Spoil(faults::Sabotage sabotage) {
    sabotage_ = sabotage;
  }
  const Run &expected() const {
    return expected_;
  }

 private:
  void MakeRoom();
  void Restore();
  Run RunOnce(bool count_calls, const faults::Call *call);
  Run RunWithout(const std::set<std::string> &objects);
  void Watched(pid_t pid);

  const Subject subject_;
  made_up::MadeUpHost host_;
  faults::Injector injector_;
  bool until_end_ = true;
  faults::Sabotage sabotage_ = faults::Sabotage::kNone;
  std::map<int, unsigned> counts_;
  Run expected_;
  std::map<std::set<std::string>, Run> without_;
  std::string program_;
  std::map<std::string, std::string> small_;  // files of the registry that is written to
};

// For the tests of judging.
std::string WithoutFigures(const std::string &text);

}  // namespace tool_faults

#endif
