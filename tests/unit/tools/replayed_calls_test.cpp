// The facts of a replayed host, and what the library answers by them that is preloaded into the
// agent. Each test loads that in a child, for it reads its facts once.
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <optional>

#include "platform/channel.h"
#include "tests/unit/framework/temp_registry.h"
#include "tools/replay/replay_facts.h"
#include "tools/vexreg/figures.h"
#include "tools/vexreg/forked.h"

namespace vex {
namespace {

// The library's functions.
struct ReplayedCalls {
  int (*statvfs)(const char *, struct statvfs *) = nullptr;
  int (*uname)(utsname *) = nullptr;
  int (*ioctl)(int, unsigned long, ...) = nullptr;
};

template <typename Function>
void Find(void *library, const char *name, Function *function) {
  *function = reinterpret_cast<Function>(dlsym(library, name));
  EXPECT_NE(*function, nullptr) << name;
}

// The child that looks at what the library answers over this file of facts, or without one. Its
// status is 0 when it has not found anything wrong.
pid_t Replaying(const char *file, const std::function<void(const ReplayedCalls &)> &look) {
  fflush(stdout);
  return Forked([&] {
    file != nullptr ? setenv(kReplayVariable, file, 1) : unsetenv(kReplayVariable);
    void *const library = dlopen(VEXREG_REPLAY, RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(library, nullptr) << dlerror();
    ReplayedCalls calls;
    if (library != nullptr) {
      Find(library, "statvfs", &calls.statvfs);
      Find(library, "uname", &calls.uname);
      Find(library, "ioctl", &calls.ioctl);
    }
    if (!testing::Test::HasFailure()) {
      look(calls);
    }
    fflush(stdout);
    return testing::Test::HasFailure() ? 1 : 0;
  });
}

class ReplayedCallsTest : public testing::Test {
 protected:
  const char *Facts(const std::string &text) {
    file_ = place_.base() + "/facts";
    std::ofstream(file_) << text;
    return file_.c_str();
  }
  void Look(const std::string &facts, const std::function<void(const ReplayedCalls &)> &look) {
    EXPECT_EQ(StatusOf(Replaying(Facts(facts), look)), 0);
  }

 private:
  const TempRegistry place_;
  std::string file_;
};

MountFigures Answered(uint64_t frsize, uint64_t blocks, uint64_t bfree, uint64_t files,
                      uint64_t ffree) {
  return {MountFigures::kAnswered, 0, frsize, blocks, bfree, files, ffree};
}

void HasNoMount(const ReplayedCalls &calls, const char *path) {
  struct statvfs result;
  errno = 0;
  EXPECT_EQ(calls.statvfs(path, &result), -1) << path;
  EXPECT_EQ(errno, ENOENT) << path;
}

TEST_F(ReplayedCallsTest, FactsAreReadFromTheirFile) {
  const ReplayFacts facts = ReadReplayFacts(
      Facts("kernel 6.1|#1 SMP|x86_64\ncard 41426aFFf\nsilent /mnt\\040a\nerror 5 /b\nother\n"));
  EXPECT_EQ(facts.release, "6.1");
  EXPECT_EQ(facts.version, "#1 SMP");
  EXPECT_EQ(facts.machine, "x86_64");
  EXPECT_EQ(facts.card, "ABj\xFF");  // the half of a byte is none
  ASSERT_EQ(facts.mounts.size(), 2U);
  EXPECT_EQ(facts.mounts.at("/mnt a").state, MountFigures::kSilent);
  EXPECT_EQ(facts.mounts.at("/b").error, 5);
}

TEST_F(ReplayedCallsTest, WithoutAFileThereAreNoFacts) {
  for (const char *file : {Facts(""), "/nonexistent/facts", static_cast<const char *>(nullptr)}) {
    const ReplayFacts facts = ReadReplayFacts(file);
    EXPECT_TRUE(facts.mounts.empty());
    EXPECT_EQ(facts.release + facts.version + facts.machine + facts.card, "");
  }
}

TEST_F(ReplayedCallsTest, MountsHaveTheCapturedFigures) {
  const std::map<std::string, MountFigures> figures = {
      {"/", Answered(4096, 1000, 300, 70, 20)},
      {"/mnt/with blank", Answered(512, uint64_t{1} << 60, 1, 0, 0)},
      {"/mnt/stale", {MountFigures::kErrno, ESTALE}}};
  Look(FiguresText(figures), [](const ReplayedCalls &calls) {
    struct statvfs result;
    memset(&result, 'x', sizeof(result));
    EXPECT_EQ(calls.statvfs("/", &result), 0);
    EXPECT_EQ(result.f_bsize, 4096U);
    EXPECT_EQ(result.f_frsize, 4096U);
    EXPECT_EQ(result.f_blocks, 1000U);
    EXPECT_EQ(result.f_bfree, 300U);
    EXPECT_EQ(result.f_bavail, 300U);
    EXPECT_EQ(result.f_files, 70U);
    EXPECT_EQ(result.f_ffree, 20U);
    EXPECT_EQ(result.f_favail, 20U);
    EXPECT_EQ(result.f_fsid, 0U);
    EXPECT_EQ(result.f_flag, 0U);
    EXPECT_EQ(result.f_namemax, 255U);
    EXPECT_EQ(calls.statvfs("/mnt/with blank", &result), 0);
    EXPECT_EQ(result.f_blocks, uint64_t{1} << 60);
    errno = 0;
    EXPECT_EQ(calls.statvfs("/mnt/stale", &result), -1);
    EXPECT_EQ(errno, ESTALE);
    HasNoMount(calls, "/mnt");  // this machine has it
    HasNoMount(calls, "");
  });
}

// It goes on waiting after each signal, until somebody ends it.
TEST_F(ReplayedCallsTest, ASilentMountDoesNotAnswer) {
  static int told[2];
  ASSERT_EQ(pipe(told), 0);
  const auto tell = [](char what) { (void)!write(told[1], &what, 1); };
  const auto next = [] {
    char what = 0;
    return read(told[0], &what, 1) == 1 ? what : '-';
  };
  const pid_t child = Replaying(Facts("silent /mnt/gone\n"), [&](const ReplayedCalls &calls) {
    struct sigaction action = {};
    action.sa_handler = [](int) { (void)!write(told[1], "s", 1); };
    sigaction(SIGUSR1, &action, nullptr);
    tell('b');
    struct statvfs result;
    calls.statvfs("/mnt/gone", &result);
    tell('a');
  });
  close(told[1]);
  ASSERT_GT(child, 0);
  EXPECT_EQ(next(), 'b');
  for (int signal = 0; signal < 5; signal++) {
    EXPECT_EQ(kill(child, SIGUSR1), 0);
    EXPECT_EQ(next(), 's') << signal;
  }
  EXPECT_EQ(kill(child, SIGKILL), 0);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status)) << status;
  close(told[0]);
}

TEST_F(ReplayedCallsTest, TheKernelIsTheCapturedOne) {
  const std::string longer(100, 'r');
  Look("kernel " + longer + "|#1 SMP 2020|aarch64\n", [&](const ReplayedCalls &calls) {
    utsname real;
    utsname told;
    ASSERT_EQ(uname(&real), 0);
    memset(&told, 'x', sizeof(told));
    EXPECT_EQ(calls.uname(&told), 0);
    EXPECT_STREQ(told.sysname, real.sysname);
    EXPECT_STREQ(told.nodename, real.nodename);
    EXPECT_EQ(std::string(told.release), longer.substr(0, sizeof(told.release) - 1));
    EXPECT_STREQ(told.version, "#1 SMP 2020");
    EXPECT_STREQ(told.machine, "aarch64");
    errno = 0;
    EXPECT_EQ(calls.uname(nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
  });
}

// Asks over a descriptor that takes no such request. The reply's field, of which the card fills so
// many bytes; what the call returned is put before it.
std::string AskCard(const ReplayedCalls &calls, uint16_t room) {
  char reply[] = "........";
  tlxrmc_transaction transaction = {};
  transaction.reply = reply;
  transaction.reply_length = room;
  const int outcome = calls.ioctl(STDIN_FILENO, TLXRMC_TRANSACT, &transaction);
  return std::to_string(outcome) + reply;
}

TEST_F(ReplayedCallsTest, TheCardAnswersAsItDid) {
  Look("card 41426aFF\n", [](const ReplayedCalls &calls) {
    EXPECT_EQ(AskCard(calls, 8), "0ABj\xFF....");
    EXPECT_EQ(AskCard(calls, 3), "0ABj.....");
    EXPECT_EQ(AskCard(calls, 0), "0........");
    // What is not for the card is the kernel's.
    int ends[2];
    int waiting = 0;
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(write(ends[1], "four", 4), 4);
    EXPECT_EQ(calls.ioctl(ends[0], FIONREAD, &waiting), 0);
    EXPECT_EQ(waiting, 4);
  });
}

TEST_F(ReplayedCallsTest, WithoutFactsThereIsNothingToTell) {
  for (const char *file : {Facts(""), static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(StatusOf(Replaying(file,
                                 [](const ReplayedCalls &calls) {
                                   HasNoMount(calls, "/");
                                   EXPECT_EQ(AskCard(calls, 8), "-1........");
                                   utsname real;
                                   utsname told;
                                   ASSERT_EQ(uname(&real), 0);
                                   EXPECT_EQ(calls.uname(&told), 0);
                                   EXPECT_STREQ(told.release, real.release);
                                   EXPECT_STREQ(told.version, real.version);
                                   EXPECT_STREQ(told.machine, real.machine);
                                 })),
              0)
        << (file != nullptr ? file : "none");
  }
}

}  // namespace
}  // namespace vex
