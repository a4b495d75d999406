// Work in children that are killed when something holds them up.
#include "framework/process/apart.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <new>
#include <tuple>
#include <utility>
#include <vector>

#include "framework/process/child.h"
#include "framework/process/clock.h"
#include "framework/process/close_others.h"
#include "tests/support/failing_call.h"

namespace {

constexpr size_t kHangsAt = 5;
constexpr int kNoLimit = 60'000;

bool NotEnding() {
  return false;
}

struct Record {
  size_t square;
  pid_t child;
};

void Square(size_t at, void *result) {
  *static_cast<Record *>(result) = {at * at, getpid()};
}

// As a call that nothing but the end of the process ends.
void SquareAndHang(size_t at, void *result) {
  while (at == kHangsAt) {
    pause();
  }
  Square(at, result);
}

void SquareSlowly(size_t at, void *result) {
  usleep(20'000);
  Square(at, result);
}

// As a child that waits for a processor all the while: it sleeps in no call.
void SquareAndCompute(size_t at, void *result) {
  while (at == kHangsAt && vex::ClockNs(CLOCK_PROCESS_CPUTIME_ID) < 60 * vex::kNsPerMs) {
  }
  Square(at, result);
}

void SquareAndStop(size_t at, void *result) {
  if (at == kHangsAt) {
    raise(SIGSTOP);
  }
  Square(at, result);
}

void SquareAndDie(size_t at, void *result) {
  if (at == kHangsAt) {
    raise(SIGKILL);
  }
  Square(at, result);
}

std::vector<Record> Records(size_t count) {
  return std::vector<Record>(count, Record{999, 0});
}

void ExpectSquares(const std::vector<Record> &records, size_t done) {
  for (size_t at = 0; at < records.size(); at++) {
    EXPECT_EQ(records[at].square, at < done ? at * at : 999) << at;
  }
}

TEST(Apart, DoesTheWorkInAChildThatIsGoneAfterwards) {
  std::vector<Record> records = Records(1000);
  EXPECT_EQ(vex::RunApart(Square, records.size(), records.data(), sizeof(Record), kNoLimit,
                          kNoLimit, NotEnding),
            records.size());
  ExpectSquares(records, records.size());
  EXPECT_NE(records[0].child, getpid());
  EXPECT_EQ(records[0].child, records[999].child);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(Apart, NothingToDo) {
  EXPECT_EQ(vex::RunApart(Square, 0, nullptr, sizeof(Record), kNoLimit, kNoLimit, NotEnding), 0U);
}

TEST(Apart, AStepThatHangsIsNamedAndItsChildKilled) {
  std::vector<Record> records = Records(10);
  const int64_t before = vex::ClockNs();
  EXPECT_EQ(vex::RunApart(SquareAndHang, records.size(), records.data(), sizeof(Record), 200,
                          kNoLimit, NotEnding),
            kHangsAt);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_GE(vex::ClockNs() - before, 200 * vex::kNsPerMs);
  ExpectSquares(records, kHangsAt);
  EXPECT_EQ(kill(records[0].child, 0), -1);
}

// On a busy machine that is nothing that the step's process has done.
TEST(Apart, AStepThatDoesNotSleepIsNotHeldUp) {
  std::vector<Record> records = Records(10);
  EXPECT_EQ(vex::RunApart(SquareAndCompute, records.size(), records.data(), sizeof(Record), 10,
                          kNoLimit, NotEnding),
            records.size());
  ExpectSquares(records, records.size());
}

// The child of the test, which has nothing else; once it has been looked at often enough for a step
// that is held up to be named.
bool ContinueAfterManyLooks() {
  static int looks;
  if (++looks > 30) {
    kill(0, SIGCONT);
  }
  return false;
}

TEST(Apart, AChildThatIsStoppedBlamesNone) {
  const pid_t alone = fork();
  if (alone == 0) {
    setpgid(0, 0);
    std::vector<Record> records = Records(10);
    const size_t done = vex::RunApart(SquareAndStop, records.size(), records.data(), sizeof(Record),
                                      10, kNoLimit, ContinueAfterManyLooks);
    _exit(done == records.size() && records[9].square == 81 ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(alone, &status, 0), alone);
  EXPECT_EQ(status, 0);
}

TEST(Apart, WhatAComputingStepTakesEndsWithAllStepsLimit) {
  std::vector<Record> records = Records(10);
  const auto compute = [](size_t at, void *result) {
    while (at == kHangsAt) {
      vex::ClockNs();
    }
    Square(at, result);
  };
  const size_t done =
      vex::RunApart(compute, records.size(), records.data(), sizeof(Record), 10, 100, NotEnding);
  EXPECT_EQ(errno, ETIME);
  EXPECT_LE(done, kHangsAt);
  ExpectSquares(records, done);
}

TEST(Apart, TheLimitIsEachStepsOwn) {
  std::vector<Record> records = Records(30);
  EXPECT_EQ(vex::RunApart(SquareSlowly, records.size(), records.data(), sizeof(Record), 500,
                          kNoLimit, NotEnding),
            records.size());
  ExpectSquares(records, records.size());
}

TEST(Apart, AllStepsHaveALimitThatBlamesNone) {
  std::vector<Record> records = Records(100'000);
  const size_t done = vex::RunApart(SquareSlowly, records.size(), records.data(), sizeof(Record),
                                    kNoLimit, 300, NotEnding);
  EXPECT_EQ(errno, ETIME);
  EXPECT_LT(done, records.size());
  ExpectSquares(records, done);
}

TEST(Apart, AChildThatIsKilledBlamesNone) {
  std::vector<Record> records = Records(10);
  EXPECT_EQ(vex::RunApart(SquareAndDie, records.size(), records.data(), sizeof(Record), kNoLimit,
                          kNoLimit, NotEnding),
            kHangsAt);
  EXPECT_EQ(errno, ECHILD);
  ExpectSquares(records, kHangsAt);
}

TEST(Apart, TheEndOfTheAgentEndsIt) {
  std::vector<Record> records = Records(10);
  const size_t done = vex::RunApart(SquareAndHang, records.size(), records.data(), sizeof(Record),
                                    kNoLimit, kNoLimit, [] { return true; });
  EXPECT_EQ(errno, EINTR);
  EXPECT_LE(done, kHangsAt);
  ExpectSquares(records, done);
}

// What a child and a test tell each other.
struct Told {
  std::atomic<bool> go_on;
  std::atomic<size_t> begun;
};
Told *told;

void SquareWhenTold(size_t at, void *result) {
  told->begun = at;
  while (at == kHangsAt && !told->go_on) {
    usleep(1000);
  }
  Square(at, result);
}

// The step that is named next would be innocent.
TEST(Apart, AChildThatGoesOnJustBeforeItIsKilledBlamesNone) {
  const vex::SharedMemory shared(sizeof(Told));
  told = new (shared.At<Told>(0)) Told{};
  std::vector<Record> records = Records(1'000'000);
  const auto go_on = [] {
    told->go_on = true;
    while (told->begun == kHangsAt) {
      usleep(1000);
    }
  };
  const vex::FailingCall before_kill("kill", go_on);
  const size_t done = vex::RunApart(SquareWhenTold, records.size(), records.data(), sizeof(Record),
                                    10, kNoLimit, NotEnding);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_GT(done, kHangsAt);
  for (size_t at = 0; at < done; at++) {
    ASSERT_EQ(records[at].square, at * at);
  }
}

// A call of the kernel's that nothing ends: here the signal is not sent.
TEST(Apart, ChildrenThatCannotBeKilledAreLeftAndReapedLater) {
  constexpr size_t kMostLeft = 16;
  std::vector<pid_t> left;
  std::vector<Record> records = Records(2);
  const auto hang = [](size_t at, void *result) {
    Square(at, result);
    if (at == 1) {
      for (;;) {
        pause();
      }
    }
  };
  {
    const vex::FailingCall unkillable("kill", 0, 1, vex::FailingCall::kAll);
    while (left.size() < kMostLeft) {
      ASSERT_EQ(vex::RunApart(hang, 2, records.data(), sizeof(Record), 1, kNoLimit, NotEnding), 1U);
      EXPECT_EQ(errno, ETIMEDOUT);
      left.push_back(records[0].child);
    }
    // One more would be one too many.
    EXPECT_EQ(
        vex::RunApart(Square, 2, records.data(), sizeof(Record), kNoLimit, kNoLimit, NotEnding),
        0U);
    EXPECT_EQ(errno, EAGAIN);
  }
  for (const pid_t child : left) {
    EXPECT_EQ(kill(child, SIGKILL), 0);
    siginfo_t end = {};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT), 0);
  }
  EXPECT_EQ(vex::RunApart(Square, 2, records.data(), sizeof(Record), kNoLimit, kNoLimit, NotEnding),
            2U);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(Apart, WithoutAChildOrMemoryItSaysWhy) {
  Record record = {};
  for (const auto &[call, error, said] :
       {std::tuple("fork", EAGAIN, EAGAIN), std::tuple("mmap", ENOMEM, ENOMEM)}) {
    const vex::FailingCall failing(call, error);
    EXPECT_EQ(vex::RunApart(Square, 1, &record, sizeof(record), kNoLimit, kNoLimit, NotEnding), 0U);
    EXPECT_EQ(errno, said) << call;
    EXPECT_EQ(failing.Failed(), 1) << call;
  }
}

// Whoever started the process may have the kernel reap its children.
TEST(Apart, WhereTheKernelReapsChildrenItIsNoDifferent) {
  auto *const before = signal(SIGCHLD, SIG_IGN);
  std::vector<Record> records = Records(10);
  EXPECT_EQ(vex::RunApart(Square, records.size(), records.data(), sizeof(Record), kNoLimit,
                          kNoLimit, NotEnding),
            records.size());
  signal(SIGCHLD, before);
  ExpectSquares(records, records.size());
}

// Its parent may have ended before it asked to be told of that.
TEST(Child, OfAParentThatIsGoneDoesNothing) {
  const vex::FailingCall other_parent("getppid", 0);
  Record record = {999, 0};
  EXPECT_EQ(vex::RunApart(Square, 1, &record, sizeof(record), kNoLimit, kNoLimit, NotEnding), 0U);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(record.square, 999U);
}

TEST(Child, CountsAsAsleepWhereThatCannotBeTold) {
  vex::Child computing;
  const auto compute = [](void *) {
    while (vex::ClockNs() != 0) {
    }
  };
  ASSERT_EQ(vex::StartChild("compute", compute, nullptr, &computing), 0);
  for (const auto &[error, asleep] :
       {std::pair(EINTR, false), std::pair(EIO, true), std::pair(0, true)}) {
    const vex::FailingCall failing("read", error);
    EXPECT_EQ(vex::IsAsleep(computing), asleep) << error;
    EXPECT_EQ(failing.Failed(), 1);
  }
  kill(computing.pid, SIGKILL);
  vex::ReapChild(computing);
}

// Descriptors from 3 to 20 that are open after all but two were closed.
std::vector<int> Kept(int kept, int other, bool old_kernel) {
  constexpr int kMost = 20;
  const vex::SharedMemory shared(kMost + 1);
  char *open = shared.At<char>(0);
  const pid_t child = fork();
  if (child == 0) {
    for (int fd = 3; fd <= kMost; fd++) {
      dup2(0, fd);
    }
    const vex::FailingCall failing("syscall", ENOSYS, 1, old_kernel ? vex::FailingCall::kAll : 0);
    vex::CloseOthers(3, kept, other);
    for (int fd = 3; fd <= kMost; fd++) {
      open[fd] = fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    }
    _exit(0);
  }
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
  std::vector<int> result;
  for (int fd = 3; fd <= kMost; fd++) {
    if (open[fd] != 0) {
      result.push_back(fd);
    }
  }
  return result;
}

TEST(CloseOthers, LeavesTheTwo) {
  for (const bool old_kernel : {false, true}) {
    EXPECT_EQ(Kept(7, 12, old_kernel), (std::vector<int>{7, 12}));
    EXPECT_EQ(Kept(12, 7, old_kernel), (std::vector<int>{7, 12}));
    EXPECT_EQ(Kept(3, 4, old_kernel), (std::vector<int>{3, 4}));
    EXPECT_EQ(Kept(3, 20, old_kernel), (std::vector<int>{3, 20}));
    EXPECT_EQ(Kept(9, 9, old_kernel), std::vector<int>{9});
    EXPECT_EQ(Kept(9, -1, old_kernel), std::vector<int>{9});
    EXPECT_EQ(Kept(-1, -1, old_kernel), std::vector<int>{});
  }
}

TEST(Child, IsAsleepOnlyInACallThatWaits) {
  vex::Child waiting;
  ASSERT_EQ(vex::StartChild(
                "wa) R (it", [](void *) { pause(); }, nullptr, &waiting),
            0);
  vex::Child computing;
  const auto compute = [](void *) {
    while (vex::ClockNs() != 0) {
    }
  };
  ASSERT_EQ(vex::StartChild("compute) S", compute, nullptr, &computing), 0);
  while (!vex::IsAsleep(waiting)) {
    usleep(1000);
  }
  for (int i = 0; i < 20; i++) {
    EXPECT_TRUE(vex::IsAsleep(waiting));
    EXPECT_FALSE(vex::IsAsleep(computing));
  }
  for (const vex::Child &child : {waiting, computing}) {
    kill(child.pid, SIGKILL);
    siginfo_t end = {};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child.pid), &end, WEXITED | WNOWAIT), 0);
    EXPECT_FALSE(vex::IsAsleep(child));  // a zombie
    vex::ReapChild(child);
    EXPECT_TRUE(vex::IsAsleep(child));  // nobody can tell
  }
}

void CountDescriptors(size_t, void *result) {
  size_t count = 0;
  for (int descriptor = 0; descriptor < 256; descriptor++) {
    count += dup2(descriptor, descriptor) >= 0 ? 1 : 0;
  }
  *static_cast<size_t *>(result) = count;
}

TEST(Apart, TheChildHoldsNothingOpen) {
  size_t count = 99;
  ASSERT_EQ(
      vex::RunApart(CountDescriptors, 1, &count, sizeof(count), kNoLimit, kNoLimit, NotEnding), 1U);
  EXPECT_EQ(count, 1U);  // the end of a pipe that tells its end
}

}  // namespace
