// Why there is nothing to show.
#include "tools/vexreg/absence.h"

#include <errno.h>
#include <gtest/gtest.h>

#include "tests/support/failing_call.h"
#include "tests/unit/framework/temp_registry.h"

using namespace vex;

namespace {

std::string Judged(int error, bool runs, bool hidden) {
  AbsenceFacts facts;
  facts.root = "/r";
  facts.error = error;
  facts.agent_runs = runs;
  facts.agent_hidden = hidden;
  return JudgeAbsence(facts);
}

TEST(Absence, SaysWhyAndWhatToDo) {
  EXPECT_EQ(Judged(0, false, false),
            "nothing is published in /r: no agent runs. Start it: systemctl start vexhostd");
  EXPECT_EQ(Judged(ENOENT, false, false),
            "nothing is published: there is no registry /r, and no agent runs. Start it: systemctl "
            "start vexhostd");
  EXPECT_EQ(Judged(EACCES, true, false),
            "nothing to see: /r is not for this user to read. Run the command as root.");
  EXPECT_EQ(
      Judged(ENOTDIR, false, false),
      "nothing to see: /r: Not a directory; no agent runs. Start it: systemctl start vexhostd");
  EXPECT_TRUE(Judged(0, true, false).ends_with("If nothing comes, run: vexreg doctor"));
  EXPECT_EQ(
      Judged(0, false, true),
      "nothing is published in /r: whether the agent runs is not for this user to see. Run as "
      "root: vexreg doctor");
}

TEST(Absence, SaysThatAnotherRootWasGiven) {
  AbsenceFacts facts;
  facts.root = "/r";
  facts.agent_runs = true;
  facts.elsewhere = true;
  EXPECT_EQ(JudgeAbsence(facts),
            "nothing is published in /r: the agent publishes elsewhere; check --root");
  AgentSight sight;
  sight.looked = sight.runs = sight.elsewhere = true;
  for (const bool published : {false, true}) {
    EXPECT_EQ(SightText(sight, published), "the agent publishes elsewhere; check --root");
  }
  facts.agent_runs = false;
  EXPECT_TRUE(JudgeAbsence(facts).ends_with("no agent runs. Start it: systemctl start vexhostd"));
}

TEST(Absence, SaysWhatIsWithTheAgent) {
  AgentSight sight;
  EXPECT_EQ(SightText(sight, true), "");
  sight.looked = true;
  EXPECT_EQ(SightText(sight, true), "no agent runs; start it: systemctl start vexhostd");
  sight.hidden = true;
  EXPECT_EQ(SightText(sight, true), "whether the agent runs is not for this user to see");
  sight.runs = true;
  EXPECT_EQ(SightText(sight, true), "the agent runs, but is silent; run: vexreg doctor");
  EXPECT_EQ(SightText(sight, false), "the agent runs, and publishes at its first poll");
  sight.stopped = true;
  for (const bool published : {false, true}) {
    EXPECT_EQ(SightText(sight, published),
              "the agent is stopped by a signal; continue it, or restart it");
  }
}

// Whether an agent runs on this machine is not for a test to say: the part before that.
TEST(Absence, LooksAtTheAgentsDirectoryToo) {
  const TempRegistry registry;
  const std::string &root = registry.root();
  EXPECT_TRUE(WhyNothing(root).starts_with("nothing is published in " + root + ": "));
  WriteBytes(registry.Path("host"), {'x'});
  EXPECT_TRUE(WhyNothing(root).starts_with("nothing to see: " + root + ": Not a directory; "));
  EXPECT_FALSE(IsHeld(root));
  // A root whose entries are not for this user to see, or that fails.
  for (const int error : {EACCES, EIO}) {
    vex::FailingCall failing("syscall", error);
    failing.On(".");
    EXPECT_TRUE(WhyNothing(root).starts_with(
        "nothing to see: " + root +
        (error == EIO ? ": Input/output error; " : " is not for this user to read. ")));
    EXPECT_EQ(failing.Failed(), 1);
  }
  std::filesystem::remove_all(registry.base());
  EXPECT_TRUE(WhyNothing(root).starts_with("nothing is published: there is no registry " + root));
  EXPECT_FALSE(IsHeld(root));
}

}  // namespace
