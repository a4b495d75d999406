// How mounts are asked, when calls fail and when they do not answer.
#include "tools/vexreg/figures.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/failing_call.h"
#include "tests/support/process.h"

using namespace vex;

namespace {

class AskedMounts : public testing::Test {
 protected:
  AskedMounts() : files_before_(made_up::OpenFiles(getpid())) {}
  // What was asked leaves no descriptor, and no child but one that was left behind.
  ~AskedMounts() override {
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    EXPECT_EQ(made_up::OpenFiles(getpid()), files_before_);
  }
  // By the directories' order: a for answered, e for an error, - for silence.
  std::string Ask(int most_silent = 9) {
    std::string states;
    for (const auto &[directory, one] : AskMounts({"/", "/nonexistent", "/proc"}, most_silent)) {
      states += one.state == MountFigures::kAnswered ? 'a'
                : one.state == MountFigures::kErrno  ? 'e'
                                                     : '-';
      EXPECT_EQ(one.error, one.state == MountFigures::kErrno ? ENOENT : 0);
      EXPECT_EQ(one.frsize != 0, one.state == MountFigures::kAnswered);
    }
    return states;
  }

  const std::vector<std::string> files_before_;
};

TEST_F(AskedMounts, AnswerOrSayWhyNot) {
  EXPECT_EQ(Ask(), "aea");
  EXPECT_TRUE(AskMounts({}, 9).empty());
}

// The time that a mount has is over, which is made so here.
TEST_F(AskedMounts, OnesThatAreSilentAreLeftBehind) {
  for (const auto &[nth, states] :
       {std::pair{1, "-ea"}, std::pair{2, "a-a"}, std::pair{3, "ae-"}}) {
    const FailingCall over("poll", 0, nth);
    EXPECT_EQ(Ask(), states);
  }
  // So many are waited for, and no more.
  const FailingCall over("poll", 0, 1, FailingCall::kAll);
  EXPECT_EQ(Ask(2), "---");
  EXPECT_EQ(over.Failed(), 2);
}

TEST_F(AskedMounts, WaitingGoesOnAfterASignal) {
  const FailingCall signal("poll", EINTR, 1, 5);
  EXPECT_EQ(Ask(), "aea");
  EXPECT_EQ(signal.Failed(), 5);
}

TEST_F(AskedMounts, CallsThatFailCostOneMount) {
  for (const char *call : {"poll", "fork"}) {
    const FailingCall failing(call, ENOMEM);
    EXPECT_EQ(Ask(), "-ea") << call;
    EXPECT_EQ(failing.Failed(), 1) << call;
  }
  // The child's.
  const FailingCall failing("write", EIO);
  EXPECT_EQ(Ask(1), "---");
}

TEST_F(AskedMounts, WithoutDescriptorsNobodyIsAsked) {
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none = {3, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const std::string states = Ask();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(states, "---");
}

}  // namespace
