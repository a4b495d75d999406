// Programs that a command runs for what they print, and what it takes along of that.
#include "tools/vexreg/child_output.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>

#include "tests/support/failing_call.h"
#include "tests/support/process.h"
#include "tests/unit/framework/temp_registry.h"
#include "tools/vexreg/own_words.h"

namespace vex {
namespace {

constexpr char kSearch[] = "/usr/bin:/bin";

ChildOutput Shell(const std::string &script, int seconds = 30, size_t most_bytes = 1000) {
  return RunProgram({"sh", "-c", script}, kSearch, seconds, most_bytes);
}

TEST(ChildOutput, IsWhatAProgramPrintedBeforeItsEnd) {
  struct {
    const char *script;
    int status;
    const char *out;
  } constexpr kCases[] = {
      {"echo out; echo err >&2; exit 3", 3, "out\n"},
      {"cat; echo end", 0, "end\n"},  // nobody types
      {"exit 3", 3, ""},
      {"echo out; kill -KILL $$", 128 + SIGKILL, "out\n"},
      {"echo out; exit 127", 127, "out\n"},
      {"echo out; exit 126", 126, "out\n"},
      {"echo $PATH", 0, "/usr/bin:/bin\n"},
  };
  for (const auto &[script, status, out] : kCases) {
    const ChildOutput output = Shell(script);
    EXPECT_EQ(output.end, ChildOutput::kExited) << script;
    EXPECT_EQ(output.status, status) << script;
    EXPECT_EQ(output.out, out) << script;
  }
}

// What is not there, or not for running, is no program; what cannot be started for another reason
// is one.
TEST(ChildOutput, TellsAProgramThatIsNoneFromOneThatCannotBeStarted) {
  const TempRegistry place;
  const std::string plain = place.base() + "/plain";
  std::ofstream(plain) << "#!/bin/sh\n";
  const struct {
    std::vector<std::string> words;
    std::string search;
    ChildOutput::End end;
  } cases[] = {
      {{"no-such-program"}, kSearch, ChildOutput::kNotRun},
      {{"plain"}, place.base(), ChildOutput::kNotRun},
      {{"sh"}, plain, ChildOutput::kNotRun},
      {{"echo", std::string(1 << 20, 'x')}, kSearch, ChildOutput::kLost},
  };
  for (const auto &[words, search, end] : cases) {
    const ChildOutput output = RunProgram(words, search, 30, 1000);
    EXPECT_EQ(output.end, end) << words[0];
    EXPECT_EQ(output.out, "") << words[0];
  }
}

// The status is that of the end that was seen, whatever becomes of the child's number.
TEST(ChildOutput, HasItsStatusWhereTheChildCannotBeReaped) {
  const ChildOutput output = [] {
    const FailingCall failing("waitpid", ECHILD);
    return Shell("echo out; exit 3");
  }();
  EXPECT_EQ(output.end, ChildOutput::kExited);
  EXPECT_EQ(output.status, 3);
  EXPECT_EQ(output.out, "out\n");
  EXPECT_GT(waitpid(-1, nullptr, WNOHANG), 0);
}

// A program that does not end is ended, with what it has started.
TEST(ChildOutput, HasLimits) {
  const TempRegistry place;
  const std::string file = place.base() + "/pid";
  EXPECT_EQ(Shell("yes").end, ChildOutput::kTooMuch);
  EXPECT_EQ(Shell("sleep 100", 0).end, ChildOutput::kTimedOut);
  // One that has closed its output goes on without it.
  const ChildOutput silent =
      Shell("echo out; sleep 100 >/dev/null & echo $! >" + file + "; exec >&-; wait", 1);
  EXPECT_EQ(silent.end, ChildOutput::kTimedOut);
  EXPECT_EQ(silent.out, "out\n");
  pid_t left = 0;
  ASSERT_TRUE(std::ifstream(file) >> left);
  EXPECT_TRUE(made_up::Eventually([&] { return !made_up::ProcessExists(left); }));
}

TEST(OwnWords, KnowTheLogFileByTheCommandLine) {
  EXPECT_EQ(LogFileOf(0), "");
  const auto file = [](const std::vector<std::string> &options) {
    std::vector<std::string> words = {"/bin/sh", "-c", "kill -STOP $$; :", "agent"};
    words.insert(words.end(), options.begin(), options.end());
    made_up::Process agent;
    agent.Start(words);
    // It is a copy of this process until it has become the other one.
    EXPECT_TRUE(made_up::Eventually([&] {
      return made_up::ReadFile("/proc/" + std::to_string(agent.pid()) + "/cmdline")
          .starts_with("/bin/sh");
    }));
    return LogFileOf(agent.pid());
  };
  EXPECT_EQ(file({"-i"}), "");
  EXPECT_EQ(file({"-i", "-l", "/a/log", "-p", "15"}), "/a/log");
  EXPECT_EQ(file({"-l/b/log", "-i"}), "/b/log");
  EXPECT_EQ(file({"-l/b/log", "-l", "/c/log"}), "/c/log");  // the last one counts
  EXPECT_EQ(file({"-i", "-l"}), "");
}

TEST(OwnWords, AreTheLastOnesOfTheLog) {
  const TempRegistry place;
  const std::string file = place.base() + "/log";
  std::ofstream(file) << "one\ntwo\n";
  EXPECT_EQ(TakeLogFile(file, kSearch, 6).text, "e\ntwo\n");
  EXPECT_EQ(TakeLogFile(file, kSearch, 100).text, "one\ntwo\n");
  const TakenText none = TakeLogFile(file + "s", kSearch, 100);
  EXPECT_FALSE(none.text);
  EXPECT_EQ(none.reason, "cannot be read");
  EXPECT_FALSE(TakeLogFile(file, place.base(), 100).text);  // where there is no tail
}

TEST(OwnWords, AreWholeLinesOfTheJournal) {
  const TempRegistry place;
  const auto journal = [&](const std::string &script, size_t most) {
    const std::string program = place.base() + "/journalctl";
    std::ofstream(program) << "#!/bin/sh\n" << script << "\n";
    chmod(program.c_str(), 0755);
    return TakeJournal(place.base(), most);
  };
  EXPECT_EQ(journal("echo one; echo two", 100).text, "one\ntwo\n");
  EXPECT_EQ(journal("echo one; echo two", 6).text, "two\n");
  EXPECT_EQ(journal("printf 0123456789", 6).text, "");
  const TakenText failed = journal("echo one; exit 1", 100);
  EXPECT_FALSE(failed.text);
  EXPECT_EQ(failed.reason, "no journal to be read");
  EXPECT_EQ(TakeJournal(place.root(), 100).reason, "no journal to be read");
}

}  // namespace
}  // namespace vex
