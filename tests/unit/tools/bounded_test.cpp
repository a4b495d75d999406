// Work that may wait, done by a process that can be left behind.
#include "tools/vexreg/bounded.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>

#include "tests/support/failing_call.h"
#include "tests/support/process.h"
#include "tests/unit/tools/said_by.h"
#include "tools/vexreg/commands.h"

namespace vex {
namespace {

// The only child is the one that the work is done by.
class Bounded : public testing::Test {
 protected:
  void SetUp() override {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
  }
};

struct Done {
  std::optional<int> status;
  bool finished = false;
  std::string out;
  std::string err;
};

Done Do(int seconds, const std::function<int()> &work) {
  Done done;
  testing::internal::CaptureStdout();
  done.err = SaidBy([&] { done.status = DoWithin(seconds, work, &done.finished); });
  done.out = testing::internal::GetCapturedStdout();
  return done;
}

int Find() {
  std::cout << "found\n";
  std::cerr << "odd\n";
  return 3;
}

TEST_F(Bounded, PassesOnWhatTheWorkPrintsAndReturns) {
  const Done done = Do(30, Find);
  EXPECT_EQ(done.status, 3);
  EXPECT_TRUE(done.finished);
  EXPECT_EQ(done.out, "found\n");
  EXPECT_EQ(done.err, "odd\n");
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(Bounded, LeavesBehindWhatIsNotDoneInTime) {
  const Done done = Do(0, [] {
    pause();
    return 0;
  });
  EXPECT_EQ(done.status, std::nullopt);
  EXPECT_FALSE(done.finished);
  int status = 0;
  EXPECT_GT(waitpid(-1, &status, 0), 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
}

// Whatever call fails, the work counts as not finished, a message says why, and nothing stays open.
TEST_F(Bounded, SaysWhyItFails) {
  struct {
    const char *call;
    int nth;
    int error;
    const char *said;
  } constexpr kCases[] = {
      {"pipe2", 1, EMFILE, "vexreg: no pipe: Too many open files\n"},
      {"pipe2", 2, EMFILE, "vexreg: no pipe: Too many open files\n"},
      {"fork", 1, EAGAIN, "vexreg: no process: Resource temporarily unavailable\n"},
      {"poll", 1, ENOMEM, "vexreg: what was found cannot be read: Cannot allocate memory\n"},
      {"read", 1, EIO, "vexreg: what was found cannot be read: Input/output error\n"},
      {"waitpid", 1, ECHILD, "vexreg: how the work ended cannot be told: No child processes\n"},
      // Whoever started the child has gone.
      {"getppid", 1, EPERM, ""},
  };
  for (const auto &one : kCases) {
    SCOPED_TRACE(one.call + std::to_string(one.nth));
    const size_t before = made_up::ListDirectory("/proc/self/fd").size();
    const Done done = [&] {
      const FailingCall failing(one.call, one.error, one.nth);
      return Do(30, [] { return 0; });
    }();
    EXPECT_EQ(done.status, kFailed);
    EXPECT_FALSE(done.finished);
    EXPECT_EQ(done.out, "");
    EXPECT_EQ(done.err, one.said);
    EXPECT_EQ(made_up::ListDirectory("/proc/self/fd").size(), before);
    while (waitpid(-1, nullptr, 0) > 0) {
    }
  }
}

// Work whose output cannot be taken may go on without end: nobody waits for that.
TEST_F(Bounded, DoesNotWaitForWorkItCannotRead) {
  for (std::ostream *to : {&std::cout, &std::cerr}) {
    const FailingCall failing("read", EIO);
    const Done done = Do(30, [&] {
      *to << "found\n" << std::flush;
      pause();
      return 0;
    });
    EXPECT_EQ(done.status, kFailed);
    EXPECT_EQ(done.out, "");
    EXPECT_EQ(done.err, "vexreg: what was found cannot be read: Input/output error\n");
    int status = 0;
    EXPECT_GT(waitpid(-1, &status, 0), 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  }
}

TEST_F(Bounded, TakesWhatIsSaidAfterTheEndOfTheOutput) {
  const Done done = Do(30, [] {
    close(STDOUT_FILENO);
    std::cerr << "odd\n";
    return 3;
  });
  EXPECT_EQ(done.status, 3);
  EXPECT_EQ(done.out, "");
  EXPECT_EQ(done.err, "odd\n");
}

TEST_F(Bounded, GoesOnAfterASignal) {
  for (const char *call : {"poll", "read", "waitpid"}) {
    const FailingCall interrupted(call, EINTR);
    const Done done = Do(30, Find);
    EXPECT_EQ(done.status, 3) << call;
    EXPECT_TRUE(done.finished) << call;
    EXPECT_EQ(done.out, "found\n") << call;
    EXPECT_EQ(done.err, "odd\n") << call;
  }
}

TEST_F(Bounded, SaysWhichSignalEndedTheWork) {
  const Done done = Do(30, [] { return raise(SIGKILL); });
  EXPECT_EQ(done.status, kFailed);
  EXPECT_FALSE(done.finished);
  EXPECT_EQ(done.err, "vexreg: ended by signal: Killed\n");
}

}  // namespace
}  // namespace vex
