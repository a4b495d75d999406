// What is seen of processes and sockets while they come and go.
#include "tools/vexreg/host_facts.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/failing_call.h"
#include "tests/support/process.h"

using namespace vex;

namespace {

// A child of that name, which waits for its end or has come to it.
class NamedChild {
 public:
  explicit NamedChild(const std::string &name, bool ends = false) {
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      prctl(PR_SET_NAME, name.c_str());
      if (ends) {
        _exit(0);
      }
      for (;;) {
        pause();
      }
    }
    EXPECT_TRUE(made_up::Eventually(
        [&] { return ReadText("/proc/" + std::to_string(pid_) + "/comm") == name + "\n"; }));
    if (ends) {
      EXPECT_TRUE(made_up::Eventually([&] {
        ProcessFact process;
        return ParseStat(ReadText("/proc/" + std::to_string(pid_) + "/stat"), &process) &&
               process.state == 'Z';
      }));
    }
  }
  ~NamedChild() {
    End();
  }
  NamedChild(const NamedChild &) = delete;
  NamedChild &operator=(const NamedChild &) = delete;
  void End() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
  }
  pid_t pid() const {
    return pid_;
  }

 private:
  pid_t pid_ = -1;
};

// No more descriptors while it lives.
class NoDescriptors {
 public:
  NoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit none = {3, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  }
  ~NoDescriptors() {
    setrlimit(RLIMIT_NOFILE, &before_);
  }
  NoDescriptors(const NoDescriptors &) = delete;
  NoDescriptors &operator=(const NoDescriptors &) = delete;

 private:
  rlimit before_ = {};
};

// Names that no other test has, which may run beside this one.

TEST(Processes, AreFoundByTheirNames) {
  constexpr char kName[] = "vexreg-unit-own";
  const NamedChild child(kName);
  const std::vector<ProcessFact> found = FindProcesses(kName);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].pid, child.pid());
  EXPECT_EQ(found[0].parent, getpid());
  EXPECT_EQ(found[0].owner, geteuid());
  EXPECT_GT(found[0].started_ns, 0);
}

TEST(Processes, ThatHaveEndedAreNone) {
  constexpr char kName[] = "vexreg-unit-end";
  const NamedChild zombie(kName, true);
  EXPECT_TRUE(FindProcesses(kName).empty());
}

// It ends between two looks at what the kernel says of it.
TEST(Processes, ThatEndWhileTheyAreLookedAtAreNone) {
  constexpr char kName[] = "vexreg-unit-go";
  for (const bool early : {true, false}) {
    NamedChild child(kName);
    const std::string directory = "/" + std::to_string(child.pid()) + (early ? "/ns/pid" : "");
    FailingCall look(early ? "readlink" : "stat", [&] { child.End(); });
    look.On(directory.c_str());
    EXPECT_TRUE(FindProcesses(kName).empty());
    EXPECT_EQ(look.Failed(), 1);
  }
}

TEST(Processes, WhatAnAgentRunsIsACommand) {
  EXPECT_FALSE(RunsCommand(getpid()));
  {
    const NamedChild mounts("mount-asker");
    const NamedChild processes("process-asker");
    const NamedChild zombie("sh", true);
    EXPECT_FALSE(RunsCommand(getpid())) << "these stay, or have ended";
  }
  const NamedChild command("sh");
  EXPECT_TRUE(RunsCommand(getpid()));
}

TEST(Processes, VariablesOfTheirEnvironment) {
  EXPECT_EQ(VariableOf(getpid(), "PATH"), std::optional<std::string>(getenv("PATH")));
  const auto none = VariableOf(getpid(), "VEXREG_UNIT_NONE");
  EXPECT_TRUE(none.has_value() && !none->has_value()) << "known not to be there";
  pid_t gone = 0;
  {
    NamedChild child("vexreg-unit-any");
    gone = child.pid();
  }
  EXPECT_FALSE(VariableOf(gone, "PATH").has_value());
}

TEST(Sockets, ThatCannotBeTried) {
  EXPECT_EQ(TryUnixSocket("/nonexistent/socket"), ENOENT);
  EXPECT_EQ(TryUnixSocket("/" + std::string(200, 'x')), ENAMETOOLONG);
  const NoDescriptors none;
  EXPECT_EQ(TryUnixSocket("/nonexistent/socket"), EMFILE);
  EXPECT_EQ(ConnectionsTo("/nonexistent/socket"), std::nullopt) << "nobody could look";
}

}  // namespace
