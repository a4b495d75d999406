// The golden server under faults: rounds in which one call fails, and a verdict on each.
#ifndef VEX_TESTS_FAULTS_BENCH_H
#define VEX_TESTS_FAULTS_BENCH_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/faults/injector.h"
#include "tests/faults/observation.h"
#include "tests/support/golden_host.h"

namespace faults {

enum class Phase {
  kStart,      // from main() on until the agent is served; its GUID is kept in a file
  kStartUuid,  // the same on a server whose SMBIOS tables have a UUID
  kPoll,       // a poll that finds changed facts in every group
  kRequests,   // sets of what is kept and of what is not, gets and a walk
};
constexpr Phase kPhases[] = {Phase::kStart, Phase::kStartUuid, Phase::kPoll, Phase::kRequests};
const char *NameOf(Phase phase);

enum class Outcome {
  kNotReached,  // there is no n-th call
  kNoEffect,    // nothing was different, not even at once
  kHealed,      // three polls later all was as on an undisturbed server
  kByRule,      // what differs may do so (rules.cpp)
  kRefused,     // a set was refused; all the rest as undisturbed
  kEnded,       // the agent ended with a message, where that is the rule
  kWrong,
};
const char *NameOf(Outcome outcome);

struct Verdict {
  Outcome outcome = Outcome::kNotReached;
  std::vector<std::string> differences;  // why
  std::vector<std::string> place;        // in the product, innermost first
  std::vector<std::string> logged;       // by the agent that is wrong, at last
};

// What is allowed to differ, and why; "" when it is not. A line of Difference().
std::string Rule(Phase phase, const Call &call, const std::string &difference);

// Whether three polls are too few for that to be put right, by its group's rule; kLongestPeriod are
// not.
bool ComesWithItsPeriod(const std::string &difference);
constexpr int kLongestPeriod = 20;

class Bench {
 public:
  explicit Bench(Phase phase);
  ~Bench();
  Bench(const Bench &) = delete;
  Bench &operator=(const Bench &) = delete;

  // Undisturbed rounds, for comparison. False (and a failure of the test) when one does not
  // succeed.
  bool Learn();
  // How often each call is made in an undisturbed round, by its number; allocations as -1.
  const std::map<int, unsigned> &Counts() const {
    return counts_;
  }
  // One round in which the n-th call fails; all from then on when `for_good`.
  Verdict Round(const Call &call, unsigned n, bool for_good = false);
  // A defect of the next round instead.
  void Spoil(Sabotage sabotage) {
    sabotage_ = sabotage;
  }
  // A hand in the middle of the next round.
  void Meanwhile(std::function<void()> action) {
    meanwhile_ = std::move(action);
  }
  // Counting does not end with the next round's mark, but with the round.
  void KeepArmed() {
    keep_armed_ = true;
  }
  // How long the agent is waited for, in seconds.
  void SetPatience(double seconds) {
    patience_ = seconds;
  }
  // Ends the agent, and starts it once more undisturbed: what is then served and kept.
  std::vector<std::string> Restart();

  made_up::MadeUpHost &host() {
    return golden_.host;
  }

 private:
  struct Asked;

  Verdict RoundOnce(const Call &call, unsigned n, bool for_good);
  Verdict StartRound();
  Verdict PollRound();
  Verdict RequestRound();
  // The host's facts, one of two variants, and a poll that finds processors that have worked.
  void PutFacts(bool other);
  void RenewProc();
  bool Poll();
  // An agent that is up and has polled three times. "" or what was wrong.
  std::string StartAgent(bool armed);
  std::string AwaitStart();
  // SIGTERM, and what must be true then.
  std::vector<std::string> EndAgent();
  void KillAgent();
  void RestoreKept();
  Seen SeeAll();
  std::vector<std::string> Compare(const Seen &expected);
  // What three polls have not put right: its number, or more polls, may explain it.
  std::vector<std::string> CompareAtLength(const Seen &expected);
  Verdict Judge(std::vector<std::string> differences, bool at_once, bool refused);
  std::vector<std::string> AfterDeath();
  Verdict DiedInRound();

  const Phase phase_;
  made_up::GoldenHost golden_;
  Injector injector_;
  Call call_{};
  double patience_ = 30;
  bool keep_armed_ = false;
  bool explained_ = false;  // something differed in this round, and a rule explains it
  Sabotage sabotage_ = Sabotage::kNone;
  std::function<void()> meanwhile_;
  std::vector<made_up::Ticks> ticks_;
  std::map<int, unsigned> counts_;
  bool up_ = false;     // an agent runs that nothing is wrong with
  bool other_ = false;  // the facts are the other variant
  Seen expected_[2];    // everything, for either variant
  Seen objects_[2];
  Seen kept_;                                 // beside a living agent
  Seen after_;                                // after a clean end
  std::map<std::string, std::string> files_;  // what is kept, whole
  unsigned asked_ = 0;
  time_t changed_ = 1'000'000;
};

}  // namespace faults

#endif
