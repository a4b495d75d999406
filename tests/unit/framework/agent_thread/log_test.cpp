#include "framework/process/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/framework.h"
#include "tests/support/failing_call.h"
#include "tests/unit/framework/temp_registry.h"

namespace {

// Everything that is in the pipe now.
std::string Drained(int from) {
  std::string text;
  char part[4096];
  for (ssize_t got; (got = read(from, part, sizeof(part))) > 0;) {
    text.append(part, static_cast<size_t>(got));
  }
  return text;
}

// Who reads standard error may hang.
TEST(Log, AReaderThatHangsHoldsNobodyUp) {
  vex::SetLogName("exampled");
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  ASSERT_EQ(fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
  const int before = dup(STDERR_FILENO);
  ASSERT_EQ(dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
  const std::string line(1000, 'x');
  int taken = 0;
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 1000; i++) {
    taken += agentlog_fprintf(stderr, "%s\n", line.c_str()) > 0;
  }
  const auto time = std::chrono::steady_clock::now() - begin;
  const std::string first = Drained(ends[0]);
  EXPECT_GT(agentlog_fprintf(stderr, "again\n"), 0);
  const std::string second = Drained(ends[0]);
  EXPECT_GT(agentlog_fprintf(stderr, "and again\n"), 0);
  const std::string third = Drained(ends[0]);
  dup2(before, STDERR_FILENO);
  close(before);
  close(ends[0]);
  close(ends[1]);
  EXPECT_LT(time, std::chrono::seconds(5)) << "one wait, not one a message";
  EXPECT_GT(taken, 10);
  EXPECT_LT(taken, 1000);
  EXPECT_EQ(first.size(), static_cast<size_t>(taken) * (line.size() + 1)) << "whole lines alone";
  EXPECT_EQ(second, "exampled: " + std::to_string(1000 - taken) +
                        " messages were lost: nobody took them\nagain\n");
  EXPECT_EQ(third, "and again\n");
}

// Nor does a signal make a full pipe one that takes more.
TEST(Log, ASignalDoesNotLeaveAMessageInAFullPipe) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  ASSERT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
  const std::string filler(4096, 'x');
  while (write(ends[1], filler.data(), filler.size()) > 0) {
  }
  ASSERT_EQ(fcntl(ends[1], F_SETFL, 0), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often = {{0, 30'000}, {0, 30'000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    dup2(ends[1], STDERR_FILENO);
    _exit(agentlog_fprintf(stderr, "nobody takes this\n") < 0 ? 0 : 1);
  }
  int status = 0;
  pid_t ended = 0;
  for (int tries = 0; ended == 0 && tries < 500; tries++) {
    ended = waitpid(child, &status, WNOHANG);
    usleep(10'000);
  }
  EXPECT_EQ(ended, child) << "it waits";
  EXPECT_EQ(status, 0);
  if (ended == 0) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
  }
  close(ends[0]);
  close(ends[1]);
}

// ---- Opening the log

std::string Contents(const std::string &path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

ptrdiff_t OpenDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return std::distance(begin(all), end(all));
}

// Each in a process of its own: a log that has been opened stays.
class LogFile : public testing::Test {
 protected:
  template <typename Function>
  static void InChild(Function function) {
    const pid_t child = fork();
    if (child == 0) {
      function();
      fflush(nullptr);
      _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  // What OpenLog() says, and that it leaves nothing open and the log where it was.
  static void ExpectRefused(const std::string &path, int error) {
    const auto before = OpenDescriptors();
    const int log = vex::LogFd();
    EXPECT_EQ(vex::OpenLog(path.c_str()), -1) << path;
    EXPECT_EQ(errno, error) << path;
    EXPECT_EQ(vex::LogFd(), log);
    EXPECT_EQ(OpenDescriptors(), before) << path;
  }

  vex::TempRegistry directory_;
  std::string file_ = directory_.base() + "/log";
};

// As /dev/stderr is one: it leads where no name does.
TEST_F(LogFile, ALinkOfTheKernelsIsFollowedByTheKernel) {
  InChild([&] {
    const int unnamed = open(directory_.base().c_str(), O_TMPFILE | O_RDWR, 0600);
    ASSERT_GE(unnamed, 0);
    const std::string link = "/proc/self/fd/" + std::to_string(unnamed);
    std::filesystem::create_symlink(link, file_);
    for (const std::string &path : {link, file_}) {
      ASSERT_EQ(vex::OpenLog(path.c_str()), 0) << strerror(errno);
      EXPECT_EQ(agentlog_fprintf(stderr, "one line\n"), 9);
    }
    char text[64] = "";
    EXPECT_EQ(pread(unnamed, text, sizeof(text), 0), 18);
    EXPECT_STREQ(text, "one line\none line\n");
    // Where that cannot be asked, no file is made of what such a link says.
    const vex::FailingCall failing("fstatfs", EIO);
    ExpectRefused(link, EIO);
    EXPECT_EQ(failing.Failed(), 1);
  });
}

TEST_F(LogFile, LinksInARingOrAChainAreRefused) {
  const auto link = [&](int number) { return directory_.base() + "/" + std::to_string(number); };
  std::filesystem::create_symlink(file_, link(0));
  for (int i = 1; i <= 41; i++) {
    std::filesystem::create_symlink(link(i - 1), link(i));
  }
  std::filesystem::create_symlink("ring", directory_.base() + "/ring");
  InChild([&] {
    ExpectRefused(link(41), ELOOP);
    ExpectRefused(directory_.base() + "/ring", ELOOP);
    EXPECT_FALSE(std::filesystem::exists(file_));
    EXPECT_EQ(vex::OpenLog(link(39).c_str()), 0);
    EXPECT_TRUE(std::filesystem::exists(file_));
  });
}

TEST_F(LogFile, CallsThatFailRefuseItAndLeaveNothingOpen) {
  const std::string link = directory_.base() + "/link";
  std::filesystem::create_symlink(file_, link);
  const struct {
    const char *call;
    int error;
    int nth;
  } table[] = {{"openat", EMFILE, 1}, {"openat", EMFILE, 3},  {"openat", EACCES, 4},
               {"fstat", EIO, 1},     {"readlinkat", EIO, 1}, {"openat", ENOSPC, 5},
               {"strdup", ENOMEM, 1}};
  InChild([&] {
    for (const auto &row : table) {
      const vex::FailingCall failing(row.call, row.error, row.nth);
      ExpectRefused(link, row.error);
      EXPECT_EQ(failing.Failed(), 1) << row.call << row.nth;
    }
  });
}

// The daemon follows links of root's and of its own user's.
TEST_F(LogFile, ALinkOfTheUsersOwnIsFollowed) {
  const std::string link = directory_.base() + "/link";
  std::filesystem::create_symlink(file_, link);
  constexpr uid_t kUser = 65534;
  const bool root = geteuid() == 0;
  if (root) {
    ASSERT_EQ(chown(directory_.base().c_str(), kUser, kUser), 0);
    ASSERT_EQ(lchown(link.c_str(), kUser, kUser), 0);
    // The administrator does not follow another user's.
    InChild([&] { ExpectRefused(link, ELOOP); });
  }
  InChild([&] {
    ASSERT_TRUE(!root || seteuid(kUser) == 0);
    EXPECT_EQ(vex::OpenLog(link.c_str()), 0) << strerror(errno);
    EXPECT_EQ(agentlog_fprintf(stderr, "mine\n"), 5);
  });
  EXPECT_EQ(Contents(file_), "mine\n");
}

TEST_F(LogFile, OpenedTwiceHoldsOneDescriptor) {
  InChild([&] {
    ASSERT_EQ(vex::OpenLog((file_ + ".1").c_str()), 0);
    const auto before = OpenDescriptors();
    ASSERT_EQ(vex::OpenLog(file_.c_str()), 0);
    EXPECT_EQ(OpenDescriptors(), before);
    agentlog_fprintf(stderr, "second\n");
  });
  EXPECT_EQ(Contents(file_ + ".1"), "");
  EXPECT_EQ(Contents(file_), "second\n");
}

// ---- Messages

TEST_F(LogFile, MessagesSurviveWhatCanFail) {
  InChild([&] {
    ASSERT_EQ(vex::OpenLog(file_.c_str()), 0);
    const std::string long_text(2000, 'x');
    {
      const vex::FailingCall interrupted("write", EINTR, 1, 2);
      EXPECT_EQ(agentlog_fprintf(stderr, "%s\n", "whole"), 6);
      EXPECT_EQ(interrupted.Failed(), 2);
    }
    {
      const vex::FailingCall fails("write", EIO);
      EXPECT_EQ(agentlog_fprintf(stderr, "%s\n", "lost"), -1);
    }
    {
      // Without memory its beginning is there, as a line.
      const vex::FailingCall no_memory("malloc", ENOMEM);
      EXPECT_EQ(agentlog_fprintf(stderr, "%s\n", long_text.c_str()), 1023);
      EXPECT_EQ(no_memory.Failed(), 1);
    }
    errno = ESTALE;
    EXPECT_EQ(agentlog_fprintf(stderr, "%ls\n", L"\x7FFFFFFF"), -1) << "not a character";
    EXPECT_EQ(errno, ESTALE) << "as it was";
    EXPECT_EQ(Contents(file_), "whole\n" + std::string(vex::AgentName()) +
                                   ": 1 messages were lost: nobody took them\n" +
                                   long_text.substr(0, 1022) + "\n");
  });
}

TEST(Log, AStreamThatTakesNothingIsSaid) {
  FILE *full = fopen("/dev/full", "w");
  ASSERT_NE(full, nullptr);
  fputs("before", full);
  EXPECT_EQ(agentlog_fprintf(full, "message\n"), -1);
  fclose(full);
}

}  // namespace
