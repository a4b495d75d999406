// Asking mounts, with a made-up statvfs() that hangs on demand.
#include "framework/machine/mount_stats.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <stddef.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/failing_new.h"

namespace {

using namespace std::chrono_literals;

// The mounts, as seen by the children that ask them: "/hang..." do not answer until they are let
// go, those with "fail" are stale, "/slow..." take a third of a second and "/late..." a second
// and a half, or until they are let go, "/die" kills who asks; others answer with the length of
// their path.
class Mounts {
 public:
  static int Stat(const char *path, struct statvfs *result) {
    Entry &entry = Get().Find(path);
    entry.asked++;
    while ((strncmp(path, "/hang", 5) == 0 || entry.hang) && !entry.free && !Get().all_free_) {
      usleep(1000);
    }
    const auto late = std::chrono::steady_clock::now() + 1500ms;
    while (strncmp(path, "/late", 5) == 0 && !entry.free && !Get().all_free_ &&
           std::chrono::steady_clock::now() < late) {
      usleep(1000);
    }
    if (strncmp(path, "/slow", 5) == 0) {
      usleep(300'000);
    }
    if (strcmp(path, "/die") == 0 || entry.die) {
      raise(SIGKILL);
    }
    if (strstr(path, "fail") != nullptr) {
      errno = ESTALE;
      return -1;
    }
    *result = {};
    result->f_frsize = 4096;
    result->f_blocks = strlen(path);
    result->f_bfree = 3;
    result->f_files = 2;
    result->f_ffree = 1;
    return 0;
  }
  static Mounts &Get() {
    static auto *mounts = new (mmap(nullptr, sizeof(Mounts), PROT_READ | PROT_WRITE,
                                    MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Mounts;
    return *mounts;
  }

  void Free(const std::string &path) {
    Find(path.c_str()).free = true;
  }
  void Hang(const std::string &path) {
    Find(path.c_str()).hang = true;
  }
  void Die(const std::string &path) {
    Find(path.c_str()).die = true;
  }
  void Reset() {
    all_free_ = false;
    for (Entry &entry : entries_) {
      entry.asked = 0;
      entry.free = false;
      entry.hang = false;
      entry.die = false;
    }
  }
  void FreeAll() {
    all_free_ = true;
  }
  int Asked(const std::string &path) {
    return Find(path.c_str()).asked;
  }

 private:
  struct Entry {
    std::atomic<bool> taken;
    std::atomic<bool> named;
    char path[64];
    std::atomic<int> asked;
    std::atomic<bool> free;
    std::atomic<bool> hang;
    std::atomic<bool> die;
  };
  Entry &Find(const char *path) {
    char name[sizeof(Entry::path)] = "";
    strncpy(name, path, sizeof(name) - 1);
    for (Entry &entry : entries_) {
      if (!entry.taken.exchange(true)) {
        memcpy(entry.path, name, sizeof(name));
        entry.named = true;
        return entry;
      }
      while (!entry.named) {
        usleep(100);
      }
      if (strcmp(entry.path, name) == 0) {
        return entry;
      }
    }
    abort();  // more paths than a test may use
  }
  Entry entries_[2500];
  std::atomic<bool> all_free_;
};

// What a function writes to the log.
template <typename Function>
std::string Logged(Function function) {
  testing::internal::CaptureStderr();
  function();
  return testing::internal::GetCapturedStderr();
}

class MountAsker : public testing::Test {
 protected:
  void SetUp() override {
    Mounts::Get().Reset();
  }
  void TearDown() override {
    Mounts::Get().FreeAll();
    WaitForReturn(0);
  }

  std::vector<mount_stats> Ask(const std::vector<std::string> &paths) {
    std::vector<const char *> list;
    for (const std::string &path : paths) {
      list.push_back(path.c_str());
    }
    std::vector<mount_stats> results(paths.size());
    const auto begin = std::chrono::steady_clock::now();
    asker_.Ask(list.data(), list.size(), results.data());
    took_ = std::chrono::steady_clock::now() - begin;
    return results;
  }
  std::vector<int> States(const std::vector<std::string> &paths) {
    std::vector<int> states;
    for (const mount_stats &result : Ask(paths)) {
      states.push_back(result.state);
    }
    return states;
  }
  void WaitForReturn(size_t outstanding) {
    for (int i = 0; i < 1000 && asker_.Outstanding() > outstanding; i++) {
      usleep(5000);
    }
    ASSERT_LE(asker_.Outstanding(), outstanding);
  }

  // Long enough for a child on a machine that does much else; who is held up by a mount waits as
  // long.
  static constexpr std::chrono::milliseconds kLimit{900};
  static vex::MountAsker::Settings Settings() {
    return {.stat = Mounts::Stat,
            .limit = kLimit,
            .patience = 10ms,
            .slow = kLimit - 10ms,
            .quick = kLimit - 10ms,
            .silence = 3000ms,
            .most_outstanding = 6};
  }
  vex::MountAsker asker_{Settings()};
  std::chrono::nanoseconds took_{};
};

TEST_F(MountAsker, StoresWhatTheMountsSay) {
  const auto results = Ask({"/", "/fail", "/home"});
  EXPECT_EQ(results[0].state, MOUNT_ANSWERED);
  EXPECT_EQ(results[0].frsize, 4096u);
  EXPECT_EQ(results[0].blocks, 1u);
  EXPECT_EQ(results[0].bfree, 3u);
  EXPECT_EQ(results[0].files, 2u);
  EXPECT_EQ(results[0].ffree, 1u);
  EXPECT_EQ(results[1].state, MOUNT_FAILED);
  EXPECT_EQ(results[1].error, ESTALE);
  EXPECT_EQ(results[2].blocks, 5u);
}

TEST_F(MountAsker, NothingToAsk) {
  EXPECT_TRUE(Ask({}).empty());
}

TEST_F(MountAsker, AChildThatIsKilledCostsOneMount) {
  EXPECT_EQ(States({"/a", "/die", "/b"}),
            (std::vector<int>{MOUNT_ANSWERED, MOUNT_FAILED, MOUNT_ANSWERED}));
}

TEST_F(MountAsker, ChildrenHoldNothingOpen) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  Ask({"/hang"});
  close(ends[1]);
  pollfd end = {ends[0], POLLIN, 0};
  EXPECT_EQ(poll(&end, 1, 1000), 1);
  EXPECT_EQ(end.revents, POLLHUP);
  close(ends[0]);
}

// Nor where the kernel cannot close a range.
TEST_F(MountAsker, ChildrenOfAnOldKernelHoldNothingOpen) {
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  constexpr int kHigh = 5000;
  ASSERT_GT(limit.rlim_max, rlim_t{kHigh});
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  // Who refuses the call to itself does so for good.
  const pid_t agent = fork();
  if (agent == 0) {
    limit.rlim_cur = limit.rlim_max;
    sock_filter code[] = {
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, SYS_close_range},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | ENOSYS},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
    };
    const sock_fprog program = {std::size(code), code};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0 || dup2(ends[1], kHigh) != kHigh ||
        prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
      _exit(1);
    }
    Ask({"/hang"});
    close(kHigh);
    close(ends[1]);
    pollfd end = {ends[0], POLLIN, 0};
    _exit(poll(&end, 1, 0) == 0 ? 2 : 0);
  }
  close(ends[1]);
  // It ends with its children.
  int status = -1;
  ASSERT_EQ(waitpid(agent, &status, 0), agent);
  EXPECT_EQ(status, 0);
  close(ends[0]);
}

TEST_F(MountAsker, NoChildStaysAfterAHealthyBatch) {
  Ask({"/a", "/b"});
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(MountAsker, OneSilentMountHoldsUpNobodyElse) {
  const auto results = Ask({"/a", "/hang", "/b", "/c"});
  EXPECT_EQ(results[0].state, MOUNT_ANSWERED);
  EXPECT_EQ(results[1].state, MOUNT_SILENT);
  EXPECT_EQ(results[1].error, ETIMEDOUT);
  EXPECT_EQ(results[2].state, MOUNT_ANSWERED);
  EXPECT_EQ(results[3].state, MOUNT_ANSWERED);
  EXPECT_GE(took_, kLimit);
  EXPECT_LT(took_, 2 * kLimit);
}

TEST_F(MountAsker, ASilentMountIsNotAskedAgainUntilItsCallHasComeBack) {
  Ask({"/hang", "/b"});
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(States({"/hang", "/b"}), (std::vector<int>{MOUNT_STILL_SILENT, MOUNT_ANSWERED}));
    EXPECT_LT(took_, kLimit);
  }
  EXPECT_EQ(Mounts::Get().Asked("/hang"), 1);
  EXPECT_EQ(asker_.Outstanding(), 1u);
  Mounts::Get().Free("/hang");
  WaitForReturn(0);
  EXPECT_EQ(States({"/hang", "/b"}), (std::vector<int>{MOUNT_ANSWERED, MOUNT_ANSWERED}));
  WaitForReturn(0);
  EXPECT_EQ(Mounts::Get().Asked("/hang"), 2);
}

TEST_F(MountAsker, ALateAnswerIsTakenOverByTheNextPass) {
  EXPECT_EQ(States({"/a", "/late"}), (std::vector<int>{MOUNT_ANSWERED, MOUNT_SILENT}));
  WaitForReturn(0);
  const auto results = Ask({"/a", "/late"});
  EXPECT_EQ(results[1].state, MOUNT_ANSWERED);
  EXPECT_EQ(results[1].blocks, strlen("/late"));
  EXPECT_EQ(results[1].bfree, 3u);
  EXPECT_EQ(Mounts::Get().Asked("/a"), 2);
}

TEST_F(MountAsker, ASlowMountIsAskedBetweenPassesAndNobodyWaits) {
  Ask({"/late"});
  for (int pass = 1; pass <= 3; pass++) {
    WaitForReturn(0);
    EXPECT_EQ(States({"/late", "/b"}), (std::vector<int>{MOUNT_ANSWERED, MOUNT_ANSWERED}));
    EXPECT_LT(took_, kLimit);
    // Its answer is not there yet: nothing is news.
    EXPECT_EQ(States({"/late", "/b"}), (std::vector<int>{MOUNT_WAITED_FOR, MOUNT_ANSWERED}));
    EXPECT_LT(took_, kLimit);
    EXPECT_EQ(asker_.Outstanding(), 1u);
  }
  // The last child may not have come to asking yet.
  for (int i = 0; i < 1000 && Mounts::Get().Asked("/late") < 4; i++) {
    usleep(5000);
  }
  EXPECT_EQ(Mounts::Get().Asked("/late"), 4);
}

TEST_F(MountAsker, AMountThatIsQuickAgainIsAskedInItsTurn) {
  Ask({"/late"});
  WaitForReturn(0);
  Mounts::Get().Free("/late");
  const std::string begun = Logged([&] { Ask({"/late"}); });
  EXPECT_NE(begun.find("Info: mount /late answered after "), std::string::npos) << begun;
  EXPECT_NE(begun.find(" seconds; asked between polls until it is quick again\n"),
            std::string::npos);
  WaitForReturn(0);
  const int asked = Mounts::Get().Asked("/late");
  const std::string ended = Logged([&] { EXPECT_EQ(States({"/late"})[0], MOUNT_ANSWERED); });
  EXPECT_NE(ended.find("Info: mount /late answers quickly again\n"), std::string::npos) << ended;
  EXPECT_EQ(Mounts::Get().Asked("/late"), asked + 1);
  EXPECT_EQ(asker_.Outstanding(), 0u);
  EXPECT_EQ(Logged([&] { Ask({"/late"}); }), "");
}

TEST_F(MountAsker, LatenessIsSaidOnce) {
  Ask({"/late"});
  WaitForReturn(0);
  EXPECT_NE(Logged([&] { Ask({"/late"}); }), "");
  for (int pass = 0; pass < 2; pass++) {
    WaitForReturn(0);
    EXPECT_EQ(Logged([&] { EXPECT_EQ(States({"/late"})[0], MOUNT_ANSWERED); }), "");
  }
}

TEST_F(MountAsker, NamesForgeNoLogLines) {
  const std::string path = "/late\nvexhostd: \xc2\x9b\x1b[m";
  Ask({path});
  WaitForReturn(0);
  EXPECT_NE(Logged([&] { Ask({path}); }).find("mount /late?vexhostd: ???[m answered after"),
            std::string::npos);
}

// Slower than is good for a poll, though in time.
TEST_F(MountAsker, AnAnswerJustInTimeMakesAMountSlowToo) {
  vex::MountAsker asker({.stat = Mounts::Stat, .limit = 10s, .slow = 50ms, .quick = 40ms});
  const char *paths[] = {"/slow"};
  mount_stats result;
  asker.Ask(paths, 1, &result);
  EXPECT_EQ(result.state, MOUNT_ANSWERED);
  for (int i = 0; i < 1000 && asker.Outstanding() > 0; i++) {
    usleep(5000);
  }
  EXPECT_EQ(Mounts::Get().Asked("/slow"), 2);
  asker.Ask(paths, 1, &result);
  EXPECT_EQ(result.state, MOUNT_ANSWERED);
  while (asker.Outstanding() > 0) {
    usleep(5000);
  }
}

TEST_F(MountAsker, ASlowMountThatFallsSilentIsNewsOnce) {
  Ask({"/late"});
  WaitForReturn(0);
  Mounts::Get().Hang("/late");
  EXPECT_EQ(States({"/late"}), std::vector<int>{MOUNT_ANSWERED});
  EXPECT_EQ(States({"/late"}), std::vector<int>{MOUNT_WAITED_FOR});
  usleep(3'100'000);  // longer than a slow mount may take
  EXPECT_EQ(States({"/late", "/late"}), (std::vector<int>{MOUNT_SILENT, MOUNT_STILL_SILENT}));
  EXPECT_EQ(States({"/late"}), std::vector<int>{MOUNT_STILL_SILENT});
}

TEST_F(MountAsker, WhatALateMountSaidLastStandsUntilItSaysMore) {
  Ask({"/late-fail"});
  WaitForReturn(0);
  EXPECT_EQ(States({"/late-fail"}), std::vector<int>{MOUNT_FAILED});
  const auto results = Ask({"/late-fail"});
  EXPECT_EQ(results[0].state, MOUNT_WAITED_FOR);
  EXPECT_EQ(results[0].error, ESTALE);
}

// The limit is one for all of them: a mount that is come to late is not waited for as long again.
TEST_F(MountAsker, TheLimitIsThePasss) {
  auto settings = Settings();
  settings.limit = 2000ms;
  settings.slow = 1990ms;
  settings.most_outstanding = 1;
  vex::MountAsker asker(settings);
  const char *all[] = {"/late", "/hang"};
  mount_stats results[2];
  const auto begin = std::chrono::steady_clock::now();
  asker.Ask(all, 2, results);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 3000ms);
  EXPECT_EQ(results[0].state, MOUNT_ANSWERED);
  EXPECT_EQ(results[1].state, MOUNT_SILENT);
  Mounts::Get().FreeAll();
  for (int i = 0; i < 1000 && asker.Outstanding() > 0; i++) {
    usleep(5000);
  }
}

TEST_F(MountAsker, ASlowMountListedTwiceIsAskedOnce) {
  Ask({"/late"});
  WaitForReturn(0);
  EXPECT_EQ(States({"/late", "/late"}), (std::vector<int>{MOUNT_ANSWERED, MOUNT_ANSWERED}));
  WaitForReturn(0);
  EXPECT_EQ(Mounts::Get().Asked("/late"), 2);
}

TEST_F(MountAsker, SlowMountsHaveTheirTurns) {
  std::vector<std::string> paths;
  for (int i = 0; i < 12; i++) {
    paths.push_back("/late" + std::to_string(i));
  }
  // At most six are asked at a time.
  for (int pass = 0; pass < 12; pass++) {
    Ask(paths);
    WaitForReturn(0);
  }
  for (const std::string &path : paths) {
    EXPECT_GE(Mounts::Get().Asked(path), 3) << path;
  }
}

TEST_F(MountAsker, WhoAsksASlowMountIsReplacedWhenItIsKilled) {
  Ask({"/late"});
  WaitForReturn(0);
  Mounts::Get().Die("/late");
  Ask({"/late"});
  WaitForReturn(0);
  EXPECT_EQ(States({"/late"}), std::vector<int>{MOUNT_WAITED_FOR});
  Mounts::Get().Reset();
  WaitForReturn(0);
  Ask({"/late"});
  WaitForReturn(0);
  EXPECT_EQ(States({"/late"}), std::vector<int>{MOUNT_ANSWERED});
}

TEST_F(MountAsker, TheEndWaitsForNobody) {
  static std::atomic<bool> ending;
  ending = false;
  auto settings = Settings();
  settings.limit = 60s;
  settings.ending = [] { return ending.load(); };
  vex::MountAsker asker(settings);
  std::vector<const char *> paths = {"/a", "/hang1", "/hang2", "/b"};
  std::vector<mount_stats> results(paths.size());
  std::thread sooner([] {
    while (Mounts::Get().Asked("/hang2") == 0) {
      usleep(1000);
    }
    ending = true;
  });
  const auto begin = std::chrono::steady_clock::now();
  asker.Ask(paths.data(), paths.size(), results.data());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 30s);
  sooner.join();
  EXPECT_EQ(results[0].state, MOUNT_ANSWERED);
  EXPECT_EQ(results[1].state, MOUNT_STILL_SILENT);
  EXPECT_EQ(results[2].state, MOUNT_STILL_SILENT);
  // Nothing of it is left, though these can be killed.
  for (int i = 0; i < 1000 && asker.Outstanding() > 0; i++) {
    usleep(5000);
  }
  EXPECT_EQ(asker.Outstanding(), 0u);
}

// A mount that hangs, goes and comes back is asked each time, but not for ever.
TEST_F(MountAsker, NoNumberOfReturnsLeavesMoreChildrenThanTheLimit) {
  auto settings = Settings();
  settings.limit = 30ms;
  settings.most_outstanding = 3;
  settings.most_children = 5;
  vex::MountAsker asker(settings);
  const char *hang[] = {"/hang"};
  const char *other[] = {"/b"};
  mount_stats result;
  for (int turn = 0; turn < 8; turn++) {
    asker.Ask(hang, 1, &result);
    EXPECT_EQ(result.state, MOUNT_SILENT);
    asker.Ask(other, 1, &result);
  }
  EXPECT_EQ(asker.Outstanding(), 5u);
  EXPECT_EQ(Mounts::Get().Asked("/hang"), 5);
  Mounts::Get().FreeAll();
  for (int i = 0; i < 1000 && asker.Outstanding() > 0; i++) {
    usleep(5000);
  }
  asker.Ask(hang, 1, &result);
  EXPECT_EQ(result.state, MOUNT_ANSWERED);
}

// Each pass meets one more of a dead server's hundreds of mounts: it does not wait for it as for
// one that may be slow.
TEST_F(MountAsker, WhereManyAreSilentAnotherOneIsNotWaitedForAsLong) {
  auto settings = Settings();
  settings.patience = 20ms;
  settings.limit = 1500ms;
  settings.most_outstanding = 2;
  settings.most_children = 5;
  vex::MountAsker asker(settings);
  const char *all[] = {"/hang", "/hang", "/hang"};
  mount_stats results[3];
  asker.Ask(all, 3, results);
  EXPECT_GE(asker.Outstanding(), 2u);
  const char *one[] = {"/hang"};
  const char *other[] = {"/b"};
  asker.Ask(other, 1, results);
  const auto begin = std::chrono::steady_clock::now();
  asker.Ask(one, 1, results);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 1000ms);
  EXPECT_EQ(results[0].state, MOUNT_SILENT);
  Mounts::Get().FreeAll();
  for (int i = 0; i < 1000 && asker.Outstanding() > 0; i++) {
    usleep(5000);
  }
}

// As long as it lives, a limit of this process is another one.
class LowLimit {
 public:
  LowLimit(__rlimit_resource which, rlim_t value) : which_(which) {
    getrlimit(which, &before_);
    const rlimit low = {value, before_.rlim_max};
    setrlimit(which, &low);
  }
  ~LowLimit() {
    setrlimit(which_, &before_);
  }

 private:
  __rlimit_resource which_;
  rlimit before_;
};

TEST_F(MountAsker, WithoutDescriptorsOnePassFails) {
  Ask({"/late", "/a"});
  WaitForReturn(0);
  {
    const LowLimit none(RLIMIT_NOFILE, 0);
    const auto results = Ask({"/late", "/a"});
    EXPECT_EQ(results[0].state, MOUNT_ANSWERED);  // is here already
    EXPECT_EQ(results[1].state, MOUNT_FAILED);
    EXPECT_EQ(results[1].error, EMFILE);
  }
  EXPECT_EQ(States({"/late", "/a"}), (std::vector<int>{MOUNT_WAITED_FOR, MOUNT_ANSWERED}));
  WaitForReturn(0);
  EXPECT_EQ(States({"/late", "/a"}), (std::vector<int>{MOUNT_ANSWERED, MOUNT_ANSWERED}));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(MountAsker, WithoutMemoryOnePassFails) {
  Ask({"/a"});
  {
    const LowLimit none(RLIMIT_AS, 0);
    mount_stats result;
    const char *paths[] = {"/a"};
    asker_.Ask(paths, 1, &result);
    EXPECT_EQ(result.state, MOUNT_FAILED);
    EXPECT_EQ(result.error, ENOMEM);
  }
  EXPECT_EQ(States({"/a"}), std::vector<int>{MOUNT_ANSWERED});
}
#endif

// Calls that signals interrupt leave no zombies.
TEST_F(MountAsker, SignalsLeaveNoChildren) {
  struct sigaction noted = {};
  noted.sa_handler = [](int) {};
  struct sigaction before;
  sigaction(SIGALRM, &noted, &before);
  const itimerval often = {{0, 200}, {0, 200}};
  setitimer(ITIMER_REAL, &often, nullptr);
  for (int pass = 0; pass < 200; pass++) {
    EXPECT_EQ(States({"/a"}), std::vector<int>{MOUNT_ANSWERED});
  }
  const itimerval never = {};
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(MountAsker, SilenceThatGoesOnIsNotNews) {
  Ask({"/hang"});
  EXPECT_EQ(States({"/hang"}), std::vector<int>{MOUNT_STILL_SILENT});
  Mounts::Get().Free("/hang");
  WaitForReturn(0);
  EXPECT_EQ(States({"/hang"}), std::vector<int>{MOUNT_ANSWERED});  // late
  WaitForReturn(0);
  EXPECT_EQ(States({"/hang"}), std::vector<int>{MOUNT_ANSWERED});  // quickly
  Mounts::Get().Reset();
  EXPECT_EQ(States({"/hang"}), std::vector<int>{MOUNT_SILENT});
}

TEST_F(MountAsker, SeveralSilentMountsShareTheWait) {
  EXPECT_EQ(States({"/hang1", "/a", "/hang2", "/b", "/hang3", "/hang4", "/c"}),
            (std::vector<int>{MOUNT_SILENT, MOUNT_ANSWERED, MOUNT_SILENT, MOUNT_ANSWERED,
                              MOUNT_SILENT, MOUNT_SILENT, MOUNT_ANSWERED}));
  EXPECT_LT(took_, 2 * kLimit);
  EXPECT_EQ(asker_.Outstanding(), 4u);
}

TEST_F(MountAsker, AMountThatIsNoLongerListedIsForgotten) {
  Ask({"/hang", "/b"});
  Ask({"/b"});
  EXPECT_EQ(States({"/hang", "/b"}), (std::vector<int>{MOUNT_SILENT, MOUNT_ANSWERED}));
  EXPECT_EQ(Mounts::Get().Asked("/hang"), 2);
  EXPECT_EQ(asker_.Outstanding(), 2u);
}

TEST_F(MountAsker, OneOfTwoRecovers) {
  Ask({"/hang1", "/hang2"});
  Mounts::Get().Free("/hang2");
  WaitForReturn(1);
  EXPECT_EQ(States({"/hang1", "/hang2"}), (std::vector<int>{MOUNT_STILL_SILENT, MOUNT_ANSWERED}));
}

TEST_F(MountAsker, AFailureEndsTheSilence) {
  EXPECT_EQ(States({"/hang-fail"}), std::vector<int>{MOUNT_SILENT});
  Mounts::Get().Free("/hang-fail");
  WaitForReturn(0);
  const auto results = Ask({"/hang-fail"});
  EXPECT_EQ(results[0].state, MOUNT_FAILED);
  EXPECT_EQ(results[0].error, ESTALE);
  WaitForReturn(0);
  EXPECT_EQ(States({"/hang-fail"}), std::vector<int>{MOUNT_FAILED});
  Mounts::Get().Reset();
  EXPECT_EQ(States({"/hang-fail"}), std::vector<int>{MOUNT_SILENT});
}

TEST_F(MountAsker, TheSamePathTwiceIsNewsOnce) {
  EXPECT_EQ(States({"/hang", "/hang"}), (std::vector<int>{MOUNT_SILENT, MOUNT_STILL_SILENT}));
}

TEST_F(MountAsker, SlowMountsAnswer) {
  const std::vector<std::string> paths = {"/slow1", "/slow2", "/slow3", "/slow4", "/slow5"};
  EXPECT_EQ(States(paths), std::vector<int>(5, MOUNT_ANSWERED));
  EXPECT_LT(took_, 5 * 300ms);  // not one after the other
}

TEST_F(MountAsker, TooManySilentMountsLeaveTheRestSilent) {
  std::vector<std::string> paths;
  for (int i = 0; i < 9; i++) {
    paths.push_back("/hang" + std::to_string(i));
  }
  paths.emplace_back("/healthy");
  EXPECT_EQ(States(paths), std::vector<int>(10, MOUNT_SILENT));
  EXPECT_EQ(asker_.Outstanding(), 6u);
  // Those that could not be asked are asked again, but nothing is news.
  EXPECT_EQ(States(paths), std::vector<int>(10, MOUNT_STILL_SILENT));
  EXPECT_LE(asker_.Outstanding(), 7u);
  Mounts::Get().FreeAll();
  WaitForReturn(0);
  EXPECT_EQ(States(paths), std::vector<int>(10, MOUNT_ANSWERED));
}

TEST_F(MountAsker, AHealthyBatchIsAskedDespiteManySilentMounts) {
  std::vector<std::string> paths;
  for (int i = 0; i < 6; i++) {
    paths.push_back("/hang" + std::to_string(i));
  }
  Ask(paths);
  EXPECT_EQ(asker_.Outstanding(), 6u);
  paths.emplace_back("/healthy");
  EXPECT_EQ(States(paths).back(), MOUNT_ANSWERED);
}

TEST_F(MountAsker, ManyHealthyMountsAreAskedOnceEach) {
  std::vector<std::string> paths;
  for (int i = 0; i < 2000; i++) {
    paths.push_back("/m" + std::to_string(i));
  }
  std::vector<const char *> list;
  list.reserve(paths.size());
  for (const std::string &path : paths) {
    list.push_back(path.c_str());
  }
  std::vector<mount_stats> results(paths.size());
  auto settings = Settings();
  settings.limit = 10s;  // one of so many may meet a child that the machine holds up
  vex::MountAsker(settings).Ask(list.data(), list.size(), results.data());
  for (size_t i = 0; i < paths.size(); i++) {
    ASSERT_EQ(results[i].state, MOUNT_ANSWERED);
    ASSERT_EQ(results[i].blocks, paths[i].size());
    ASSERT_EQ(Mounts::Get().Asked(paths[i]), 1);
  }
}

TEST(StatMounts, AsksTheRealOnes) {
  const char *paths[] = {"/proc", "/nonexistent-directory"};
  mount_stats results[2];
  struct statvfs expected;
  ASSERT_EQ(statvfs("/proc", &expected), 0);
  ASSERT_EQ(stat_mounts(paths, 2, results), 0);
  EXPECT_EQ(results[0].state, MOUNT_ANSWERED);
  EXPECT_EQ(results[0].frsize, expected.f_frsize);
  EXPECT_EQ(results[1].state, MOUNT_FAILED);
  EXPECT_EQ(results[1].error, ENOENT);
  const std::string long_path = "/" + std::string(PATH_MAX, 'a');
  paths[0] = long_path.c_str();
  ASSERT_EQ(stat_mounts(paths, 1, results), 0);
  EXPECT_EQ(results[0].state, MOUNT_FAILED);
  EXPECT_EQ(results[0].error, ENAMETOOLONG);
}

// Whether the process is to end, for asking that children have a part in: until one of them has
// ended, and, where it says so, after that.
std::atomic<bool> end_after_child;
std::atomic<int> endings_asked;
void (*at_first_asking)();
bool EndingWithChild() {
  if (endings_asked++ == 0) {
    if (at_first_asking != nullptr) {
      at_first_asking();
    }
    siginfo_t end = {};
    waitid(P_ALL, 0, &end, WEXITED | WNOWAIT);
    return false;
  }
  return end_after_child;
}

class MountAskerEnding : public MountAsker {
 protected:
  void SetUp() override {
    MountAsker::SetUp();
    end_after_child = false;
    endings_asked = 1;
    at_first_asking = nullptr;
    Use(Short());
  }
  static vex::MountAsker::Settings Short() {
    auto settings = Settings();
    settings.ending = EndingWithChild;
    settings.limit = 60ms;
    settings.slow = 50ms;
    settings.quick = 40ms;
    return settings;
  }
  void Use(const vex::MountAsker::Settings &settings) {
    asker_ = std::make_unique<vex::MountAsker>(settings);
  }
  void TearDown() override {
    Mounts::Get().FreeAll();
    WaitForReturn();
  }
  void WaitForReturn() {
    for (int i = 0; i < 1000 && asker_->Outstanding() > 0; i++) {
      usleep(5000);
    }
    ASSERT_EQ(asker_->Outstanding(), 0U);
  }
  std::vector<mount_stats> AskThem(std::vector<const char *> paths) {
    std::vector<mount_stats> results(paths.size());
    asker_->Ask(paths.data(), paths.size(), results.data());
    return results;
  }
  std::unique_ptr<vex::MountAsker> asker_;
};

// What a mount has said in time stands, also an error.
TEST_F(MountAskerEnding, AnAnswerThatIsThereIsKept) {
  auto settings = Short();
  settings.limit = 10s;
  Use(settings);
  endings_asked = 0;
  end_after_child = true;
  const auto results = AskThem({"/fail", "/a"});
  EXPECT_EQ(results[0].state, MOUNT_FAILED);
  EXPECT_EQ(results[0].error, ESTALE);
  EXPECT_EQ(results[1].state, MOUNT_ANSWERED);
}

TEST_F(MountAskerEnding, NobodyIsAskedBetweenPassesAtTheEnd) {
  EXPECT_EQ(AskThem({"/hang"})[0].state, MOUNT_SILENT);
  Mounts::Get().Free("/hang");
  WaitForReturn();
  end_after_child = true;
  EXPECT_EQ(AskThem({"/hang"})[0].state, MOUNT_ANSWERED);
  EXPECT_EQ(asker_->Outstanding(), 0U);
  EXPECT_EQ(Mounts::Get().Asked("/hang"), 1);
}

// An answer that comes while a pass waits for others is the next pass's.
TEST_F(MountAskerEnding, AnAnswerDuringAPassIsNotAskedForAgain) {
  auto settings = Short();
  settings.limit = kLimit;  // for a healthy mount beside it
  Use(settings);
  EXPECT_EQ(AskThem({"/hang1"})[0].state, MOUNT_SILENT);
  endings_asked = 0;
  at_first_asking = [] { Mounts::Get().Free("/hang1"); };
  auto results = AskThem({"/hang1", "/hang2", "/b"});
  EXPECT_EQ(results[0].state, MOUNT_STILL_SILENT);
  EXPECT_EQ(results[1].state, MOUNT_SILENT);
  EXPECT_EQ(results[2].state, MOUNT_ANSWERED);
  EXPECT_EQ(Mounts::Get().Asked("/hang1"), 1);
  results = AskThem({"/hang1", "/hang2", "/b"});
  EXPECT_EQ(results[0].state, MOUNT_ANSWERED);
  EXPECT_EQ(results[1].state, MOUNT_STILL_SILENT);
}

// Silence that was told is told no second time because who waited for the answer was killed.
TEST_F(MountAskerEnding, ASilentMountWhoseAskerIsKilledIsStillSilent) {
  EXPECT_EQ(AskThem({"/hang"})[0].state, MOUNT_SILENT);
  Mounts::Get().Die("/hang");
  Mounts::Get().Free("/hang");
  WaitForReturn();
  EXPECT_EQ(AskThem({"/hang"})[0].state, MOUNT_STILL_SILENT);
}

// Nor is a mount that always takes longer than silence lasts told again and again.
TEST_F(MountAskerEnding, AnAnswerAfterTheSilenceDoesNotEndIt) {
  auto settings = Short();
  settings.silence = 1ms;
  Use(settings);
  EXPECT_EQ(AskThem({"/hang"})[0].state, MOUNT_SILENT);
  Mounts::Get().Free("/hang");
  WaitForReturn();
  Mounts::Get().Reset();
  EXPECT_EQ(AskThem({"/hang"})[0].state, MOUNT_ANSWERED);
  EXPECT_EQ(AskThem({"/hang"})[0].state, MOUNT_STILL_SILENT);
}

TEST_F(MountAskerEnding, WithoutAPlaceForAnotherChildTheRestFails) {
  auto settings = Short();
  settings.most_children = 1;
  Use(settings);
  const auto results = AskThem({"/hang", "/b", "/c"});
  EXPECT_EQ(results[0].state, MOUNT_SILENT);
  for (int i = 1; i < 3; i++) {
    EXPECT_EQ(results[i].state, MOUNT_FAILED);
    EXPECT_EQ(results[i].error, EAGAIN);
  }
}

// Each allocation in turn: it throws, or gives what is true, and the next pass makes good what was
// left out.
TEST_F(MountAskerEnding, OneFailedAllocationCostsOnePassAtMost) {
  auto settings = Settings();
  settings.slow = 0ms;  // so that mounts are asked between two passes as well
  settings.quick = 0ms;
  const char *paths[] = {"/a", "/b"};
  mount_stats results[2];
  int thrown = 0;
  bool failed = true;
  for (int n = 1; failed; n++) {
    SCOPED_TRACE(n);
    Use(settings);
    failed = false;
    for (int pass = 0; pass < 2; pass++) {
      testing::internal::CaptureStderr();
      failed |= vex::FailAllocation(n, [&] {
        try {
          asker_->Ask(paths, 2, results);
        } catch (const std::bad_alloc &) {
          thrown++;
        }
      });
      testing::internal::GetCapturedStderr();
      WaitForReturn();
    }
    for (int pass = 0; pass < 2; pass++) {
      testing::internal::CaptureStderr();
      asker_->Ask(paths, 2, results);
      testing::internal::GetCapturedStderr();
      WaitForReturn();
    }
    EXPECT_EQ(results[0].state, MOUNT_ANSWERED);
    EXPECT_EQ(results[0].blocks, 2U);
    EXPECT_EQ(results[1].state, MOUNT_ANSWERED);
  }
  EXPECT_GT(thrown, 5);
}

TEST(StatMounts, WithoutMemorySaysSo) {
  const char *path = "/proc";
  mount_stats result;
  int answer = 0;
  int error = 0;
  vex::FailAllocations([&] {
    answer = stat_mounts(&path, 1, &result);
    error = errno;
  });
  EXPECT_EQ(answer, -1);
  EXPECT_EQ(error, ENOMEM);
  EXPECT_EQ(stat_mounts(&path, 1, &result), 0);
  EXPECT_EQ(result.state, MOUNT_ANSWERED);
}

// The process ends at once although a call is outstanding.
TEST(MountAskerEnd, ExitDoesNotWait) {
  Mounts::Get().Reset();
  const pid_t child = fork();
  if (child == 0) {
    vex::MountAsker asker({.stat = Mounts::Stat, .limit = 100ms, .patience = 10ms});
    const char *path = "/hang";
    mount_stats result;
    asker.Ask(&path, 1, &result);
    _exit(result.state == MOUNT_SILENT && asker.Outstanding() == 1 ? 0 : 1);
  }
  int status = -1;
  for (int i = 0; i < 400 && waitpid(child, &status, WNOHANG) == 0; i++) {
    usleep(5000);
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
