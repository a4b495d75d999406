// Lets one call of a program fail: the n-th call of a system call, or the n-th allocation, from a
// mark on. Calls are counted in the program's own threads and in what it forks until that becomes
// another program; allocations of the agent in itself alone, of a command in its children as well.
#ifndef VEX_TESTS_FAULTS_INJECTOR_H
#define VEX_TESTS_FAULTS_INJECTOR_H

#include <sys/types.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/faults/page.h"
#include "tests/support/made_up_host.h"

namespace faults {

// A way to fail. An allocation has the name "malloc" and no number.
struct Call {
  const char *name;
  int number;
  int error;
  const char *error_name;
};

// Every call that the agent makes and that can fail on a real machine. What is not there: close(),
// whose descriptor is gone whatever it says; brk(), which the C library asks and does not need; and
// what cannot fail with good arguments (futex, clocks, signal masks, getpid and their kind).
const std::vector<Call> &Calls();
const Call &Allocation();

class Injector {
 public:
  Injector();
  ~Injector();
  Injector(const Injector &) = delete;
  Injector &operator=(const Injector &) = delete;

  // Into the options of an agent to be started; it counts from its main() on if `armed`.
  void Prepare(made_up::DaemonOptions *options, bool armed);
  // The same of a command that runs to its end: the words to be run in its place. It counts from
  // its main() on; with until_end false only until that returns. only: no other call is looked at.
  std::vector<std::string> PrepareCommand(const std::vector<std::string> &command, bool until_end,
                                          const Call *only);
  // Once the process is there. False when its calls cannot be seen. program: what it is to become.
  bool Attach(pid_t agent, const std::string &program);
  // Before the agent's process may be forgotten: after its end.
  void Detach();

  // What is to fail, and which (0: none); all of them from the n-th on when `for_good`.
  void Choose(const Call &call, unsigned n, bool for_good = false);
  void Spoil(Sabotage sabotage);
  // The mark, and the end of counting.
  void Arm();
  void Disarm();

  bool Fired() const;
  // Where in the product, innermost first: "file+offset" lines.
  std::string Place() const;
  // Calls since the mark, by number; allocations as -1.
  std::map<int, unsigned> Counts() const;

 private:
  void Reset(const Call *only);
  void Serve();
  bool IsAgents(pid_t task) const;
  std::string PlaceOf(pid_t task) const;

  Page *page_;
  pid_t agent_ = -1;
  std::string executable_;
  std::vector<std::string> command_;  // none: the agent
  int listener_ = -1;
  std::thread server_;
  std::atomic<bool> stop_{false};
  mutable std::mutex mutex_;  // guards what follows
  Call chosen_{};
  unsigned n_ = 0;
  bool for_good_ = false;
  bool fired_ = false;
  unsigned count_ = 0;
  std::map<int, unsigned> counts_;
  std::string place_;
};

// "function (file:line)" of each line of a place that lies in this build's own programs.
std::vector<std::string> Named(const std::string &place, size_t most);

}  // namespace faults

#endif
