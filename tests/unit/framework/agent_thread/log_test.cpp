#include "framework/process/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "platform/framework.h"

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

}  // namespace
