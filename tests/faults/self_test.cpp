// The suite notices what it is there for: agents with a defect of ours are found wrong.
#include <signal.h>

#include <algorithm>
#include <string>

#include "tests/faults/bench.h"

using namespace faults;
using namespace made_up;

namespace {

const Call kNothing = {"nothing", 0xFFFF, 1, "EPERM"};

Call Named(const std::string &name) {
  const auto found = std::find_if(Calls().begin(), Calls().end(),
                                  [&](const Call &call) { return name == call.name; });
  EXPECT_NE(found, Calls().end()) << name;
  return *found;
}

// The verdict is "wrong", and says that.
void ExpectWrong(const Verdict &verdict, const std::string &text) {
  EXPECT_EQ(verdict.outcome, faults::Outcome::kWrong) << faults::NameOf(verdict.outcome);
  EXPECT_TRUE(
      std::any_of(verdict.differences.begin(), verdict.differences.end(),
                  [&](const std::string &line) { return line.find(text) != std::string::npos; }))
      << "not said: " << text << "\nsaid: " << testing::PrintToString(verdict.differences);
}

const std::string kRoleFile = std::string(MadeUpHost::kRegistry) + "/tlxhosystemrole.dat";

}  // namespace

TEST(FaultSuite, NoticesDefectsOfAPoll) {
  Bench bench(Phase::kPoll);
  ASSERT_TRUE(bench.Learn());
  EXPECT_EQ(bench.Round(kNothing, 1).outcome, faults::Outcome::kNotReached);

  bench.Meanwhile([&] { bench.host().File(kRoleFile, "", 0600); });
  ExpectWrong(bench.Round(kNothing, 1), kRoleFile);
  bench.Meanwhile([&] { bench.host().daemon.Signal(SIGKILL); });
  ExpectWrong(bench.Round(kNothing, 1), "ended with status 137");
  bench.SetPatience(2);
  bench.Meanwhile([&] { bench.host().daemon.Signal(SIGSTOP); });
  ExpectWrong(bench.Round(kNothing, 1), "the poll does not end");
}

TEST(FaultSuite, NoticesWhatAPollLeaves) {
  Bench bench(Phase::kPoll);
  ASSERT_TRUE(bench.Learn());
  bench.Spoil(Sabotage::kLeakDescriptor);
  ExpectWrong(bench.Round(kNothing, 1), "+ fd /dev/null");
  bench.Spoil(Sabotage::kLeaveChild);
  ExpectWrong(bench.Round(kNothing, 1), "+ child vexhostd");
  // A value that another process publishes under the agent's name.
  bench.Meanwhile(
      [&] { bench.host().File("/etc/mtab", "/dev/sda1 /srv/root ext4 rw,relatime 0 0\n"); });
  ExpectWrong(bench.Round(kNothing, 1), "- object host/filesys.");
}

// Calls are really made to fail: with all of them failing, values stay as they were.
TEST(FaultSuite, NoticesValuesThatStay) {
  Bench bench(Phase::kPoll);
  ASSERT_TRUE(bench.Learn());
  const Verdict once = bench.Round(Named("pwrite64"), 1);
  EXPECT_TRUE(once.outcome == faults::Outcome::kHealed ||
              once.outcome == faults::Outcome::kNoEffect)
      << faults::NameOf(once.outcome) << testing::PrintToString(once.differences);
  // The files of the registry are not written, then or at the polls that follow.
  bench.KeepArmed();
  ExpectWrong(bench.Round(Named("pwrite64"), 1, true), "object host/memory");
}

TEST(FaultSuite, NoticesDefectsOfAStart) {
  Bench bench(Phase::kStart);
  ASSERT_TRUE(bench.Learn());
  bench.Spoil(Sabotage::kExitSilently);
  ExpectWrong(bench.Round(kNothing, 1), "ended with status 1: no message");
  bench.Spoil(Sabotage::kAbort);
  ExpectWrong(bench.Round(kNothing, 1), "ended with status 134");
  bench.Meanwhile([&] { bench.host().File(kRoleFile, "another", 0600); });
  ExpectWrong(bench.Round(kNothing, 1), kRoleFile);
  // Its end must leave the directories as an undisturbed one does.
  bench.Meanwhile(
      [&] { bench.host().File(std::string(MadeUpHost::kRegistry) + "/host/left", "x"); });
  ExpectWrong(bench.Round(kNothing, 1), "host/left");
}

TEST(FaultSuite, NoticesDefectsOfSets) {
  Bench bench(Phase::kRequests);
  ASSERT_TRUE(bench.Learn());
  // Emptied after the manager was told noError.
  bench.Meanwhile([&] { bench.host().File(kRoleFile, "", 0600); });
  ExpectWrong(bench.Round(kNothing, 1), "tlxHoSystemRole was answered noError, and its file has 0");
  bench.Meanwhile([&] { EXPECT_EQ(bench.host().Set("tlxHoSystemRole", 's', "no"), "noError"); });
  ExpectWrong(bench.Round(kNothing, 1), "tlxHoSystemRole was answered noError, and is");
}
