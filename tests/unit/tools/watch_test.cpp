// vexreg watch on terminals, which tmux plays.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include <cstring>
#include <filesystem>

#include "tests/support/process.h"
#include "tests/unit/framework/temp_registry.h"
#include "tests/unit/tools/made_object.h"
#include "tools/vexreg/signals.h"

using namespace vex;
using made_up::Eventually;
using made_up::Outcome;
using Words = std::vector<std::string>;

namespace {

// A terminal with a shell in it. Only the server that it starts is spoken to, by a socket of its
// own.
class Tmux {
 public:
  Tmux(const std::string &socket, int width, int height, const std::string &command)
      : socket_(socket) {
    const Outcome outcome = Tell({"-f", "/dev/null", "new-session", "-d", "-x",
                                  std::to_string(width), "-y", std::to_string(height), command});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
  }
  ~Tmux() {
    Tell({"kill-server"});
  }
  Tmux(const Tmux &) = delete;
  Tmux &operator=(const Tmux &) = delete;

  Outcome Tell(Words words) const {
    words.insert(words.begin(), {"tmux", "-u", "-S", socket_});
    made_up::ProcessOptions options;
    options.environment = {{"TERM", "xterm-256color"}, {"LC_ALL", "C.UTF-8"}, {"SHELL", "/bin/sh"}};
    return made_up::RunCommand(words, options);
  }
  std::string Screen() const {
    return Tell({"capture-pane", "-p"}).out;
  }
  bool Shows(const std::string &text) const {
    const bool shows = Eventually([&] { return Screen().find(text) != std::string::npos; });
    EXPECT_TRUE(shows) << text << " is not in:\n" << Screen();
    return shows;
  }
  bool ShowsNot(const std::string &text) const {
    const bool gone = Eventually([&] { return Screen().find(text) == std::string::npos; });
    EXPECT_TRUE(gone) << text << " is in:\n" << Screen();
    return gone;
  }
  void Press(const std::string &key) const {
    EXPECT_EQ(Tell({"send-keys", key}).status, 0);
  }
  void Type(const std::string &text) const {
    EXPECT_EQ(Tell({"send-keys", "-l", text}).status, 0);
  }
  void Resize(int width, int height) const {
    EXPECT_EQ(
        Tell({"resize-window", "-x", std::to_string(width), "-y", std::to_string(height)}).status,
        0);
  }
  // What tmux knows of the terminal.
  std::string State(const std::string &format) const {
    std::string text = Tell({"display-message", "-p", format}).out;
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
  }

 private:
  const std::string socket_;
};

class WatchScreen : public testing::Test {
 protected:
  void Put(const std::string &name, int value) {
    const Outcome outcome = made_up::RunCommand(
        {VEXREG_PATH, "--root", registry_.root(), "put", name, "int:" + std::to_string(value)});
    ASSERT_EQ(outcome.status, 0) << outcome.err;
  }
  void Publish(const std::string &name, const FileObject &object) {
    PublishMade(registry_.root(), name, object);
  }
  std::string File(const std::string &name) const {
    return registry_.base() + "/" + name;
  }
  // Starts the view between two looks at the terminal's modes.
  void Start(const std::string &arguments = "", const std::string &environment = "", int width = 80,
             int height = 24) {
    // The shell outlives Ctrl-C, which is for all that the terminal runs. ncurses keeps what it
    // knows of a terminal until the end: no leak.
    const std::string command =
        "trap : INT; stty -g >" + File("before") + "; env " + environment +
        " ASAN_OPTIONS=detect_leaks=0 sh -c 'echo $$ >" + File("pid") +
        "; exec " VEXREG_PATH " --root " + registry_.root() + " watch " +
        (arguments.find("--interval") == std::string::npos ? "--interval 0.1 " : "") + arguments +
        "' 2>" + File("errors") + "; echo $? >" + File("status") + "; stty -g >" + File("after") +
        "; echo ended; exec sleep 600";
    tmux_.emplace(File("tmux" + std::to_string(++terminals_)), width, height, command);
  }
  pid_t Pid() const {
    return static_cast<pid_t>(atoi(made_up::ReadFile(File("pid")).c_str()));
  }
  // To the watch, and to nobody else: 0, where its number is not known, would be all that run the
  // tests.
  void Signal(int number) const {
    ASSERT_TRUE(Eventually([&] { return Pid() > 1; }));
    kill(Pid(), number);
  }
  // Until the view has waited for so many more keys or looks.
  void WaitRounds(int64_t count) const {
    ASSERT_TRUE(Eventually([&] { return Pid() > 1; }));
    const auto waits = [&] {
      const std::string status = made_up::ReadFile("/proc/" + std::to_string(Pid()) + "/status");
      const std::string name = "\nvoluntary_ctxt_switches:";
      const size_t at = status.find(name);
      return at != std::string::npos ? atoll(status.c_str() + at + name.size()) : -1;
    };
    const int64_t before = waits();
    EXPECT_TRUE(Eventually([&] { return before >= 0 && waits() >= before + count; }));
  }
  // Whether it ended with that status and left the terminal as it was.
  void ExpectEnd(int status) {
    EXPECT_TRUE(Eventually([&] { return !made_up::ReadFile(File("after")).empty(); }))
        << tmux_->Screen();
    EXPECT_EQ(made_up::ReadFile(File("status")), std::to_string(status) + "\n")
        << made_up::ReadFile(File("errors"));
    EXPECT_EQ(made_up::ReadFile(File("after")), made_up::ReadFile(File("before")));
    EXPECT_TRUE(tmux_->Shows("ended"));
    EXPECT_EQ(tmux_->State("#{alternate_on} #{cursor_flag} #{keypad_cursor_flag}"), "0 1 0");
    EXPECT_EQ(tmux_->Screen().find("12345"), std::string::npos) << "the view's screen has stayed";
  }

  TempRegistry registry_;
  std::optional<Tmux> tmux_;
  int terminals_ = 0;
};

TEST_F(WatchScreen, ShowsAndFollows) {
  Put("h/a", 12345);
  Start();
  EXPECT_TRUE(tmux_->Shows("var0  12345"));
  EXPECT_EQ(tmux_->State("#{alternate_on} #{cursor_flag}"), "1 0");
  EXPECT_TRUE(tmux_->Shows("No values of the host agent"));
  Put("h/a", 54321);
  EXPECT_TRUE(tmux_->Shows("var0  54321"));
  EXPECT_TRUE(tmux_->Shows("h/a var0  12345 -> 54321"));
  Put("h/b", 777);
  EXPECT_TRUE(tmux_->Shows("var0  777"));
  tmux_->Press("q");
  ExpectEnd(0);
}

TEST_F(WatchScreen, TakesKeys) {
  for (int row = 0; row < 60; row++) {
    Put("h/row." + std::to_string(row), 2000 - row);
  }
  Put("z/other", 12345);
  Start();
  EXPECT_TRUE(tmux_->Shows("h/row (60)"));
  EXPECT_TRUE(tmux_->Shows("12345"));
  tmux_->Press("Enter");
  EXPECT_TRUE(tmux_->ShowsNot("12345"));
  EXPECT_TRUE(tmux_->Shows("1-19 of 60"));
  tmux_->Press("Down");
  EXPECT_TRUE(tmux_->Shows("2-20 of 60"));
  tmux_->Press("PPage");
  EXPECT_TRUE(tmux_->Shows("1-19 of 60"));
  tmux_->Press("End");
  EXPECT_TRUE(tmux_->Shows("42-60 of 60"));
  tmux_->Press("Home");
  EXPECT_TRUE(tmux_->Shows("1-19 of 60"));
  tmux_->Press("s");
  EXPECT_TRUE(tmux_->Shows("by var0, largest first"));
  EXPECT_TRUE(tmux_->Shows("   0  2000"));
  tmux_->Press("r");
  EXPECT_TRUE(tmux_->Shows("  59  1941"));
  EXPECT_TRUE(tmux_->ShowsNot("largest first"));
  tmux_->Press("/");
  tmux_->Type("1955");
  EXPECT_TRUE(tmux_->Shows("Only lines with: 1955_"));
  EXPECT_TRUE(tmux_->Shows("(1 of 60"));
  tmux_->Press("BSpace");
  EXPECT_TRUE(tmux_->Shows("(10 of 60"));
  tmux_->Press("Enter");
  tmux_->Press("Escape");
  EXPECT_TRUE(tmux_->Shows("(60, by"));
  tmux_->Press("Escape");
  EXPECT_TRUE(tmux_->Shows("12345"));
  tmux_->Press("BTab");  // from the first group to the last one
  tmux_->Press("BTab");
  tmux_->Press("Enter");
  EXPECT_TRUE(tmux_->ShowsNot("h/row"));
  EXPECT_TRUE(tmux_->Shows("12345"));
  tmux_->Press("Enter");
  tmux_->Press("g");
  EXPECT_TRUE(tmux_->Shows("[x] h/row (60)"));
  tmux_->Press("Space");
  EXPECT_TRUE(tmux_->Shows("[ ] h/row (60)"));
  tmux_->Press("g");
  EXPECT_TRUE(tmux_->ShowsNot("h/row (60)"));
  tmux_->Press("?");
  EXPECT_TRUE(tmux_->Shows("any key back"));
  tmux_->Press("x");
  EXPECT_TRUE(tmux_->ShowsNot("any key back"));
  tmux_->Press("p");
  EXPECT_TRUE(tmux_->Shows("PAUSED"));
  Put("z/other", 4711);
  WaitRounds(5);
  EXPECT_EQ(tmux_->Screen().find("4711"), std::string::npos) << tmux_->Screen();
  EXPECT_TRUE(tmux_->Shows("PAUSED, held since"));
  tmux_->Press("p");
  EXPECT_TRUE(tmux_->Shows("4711"));
  tmux_->Press("q");
  ExpectEnd(0);
}

// Looks are an hour apart here: one comes at once after a pause all the same.
TEST_F(WatchScreen, LooksAtOnceAfterAPause) {
  Put("h/a", 12345);
  Start("--interval 3600");
  ASSERT_TRUE(tmux_->Shows("12345"));
  tmux_->Press("p");
  ASSERT_TRUE(tmux_->Shows("PAUSED"));
  Put("h/a", 54321);
  tmux_->Press("p");
  EXPECT_TRUE(tmux_->Shows("54321"));
  tmux_->Press("q");
  ExpectEnd(0);
}

TEST_F(WatchScreen, FollowsTheTerminalsSize) {
  for (int row = 0; row < 100; row++) {
    Put("h/row." + std::to_string(row), 10000 + row);
  }
  Start("row");
  tmux_->Shows("10000");
  tmux_->Resize(40, 10);
  EXPECT_TRUE(Eventually([&] {
    const std::string screen = tmux_->Screen();
    return screen.find("10000") != std::string::npos && screen.find("10010") == std::string::npos;
  })) << tmux_->Screen();
  tmux_->Press("q");
  ExpectEnd(0);
}

TEST_F(WatchScreen, GivesTheTerminalBackOnSignals) {
  Put("h/a", 12345);
  for (const int number : {SIGTERM, SIGHUP, SIGINT}) {
    for (const char *name : {"before", "after", "pid", "status"}) {
      std::filesystem::remove(File(name));
    }
    Start();
    ASSERT_TRUE(tmux_->Shows("12345"));
    Signal(number);
    ExpectEnd(0);
    tmux_.reset();
  }
  std::filesystem::remove(File("after"));
  Start();
  ASSERT_TRUE(tmux_->Shows("12345"));
  tmux_->Press("C-c");
  ExpectEnd(0);
}

TEST_F(WatchScreen, GivesTheTerminalBackOnCrashes) {
  Put("h/a", 12345);
  for (const int number : {SIGSEGV, SIGABRT, SIGQUIT, SIGUSR1, SIGVTALRM, SIGPIPE, SIGRTMIN + 3}) {
    for (const char *name : {"before", "after", "pid", "status"}) {
      std::filesystem::remove(File(name));
    }
    Start();
    ASSERT_TRUE(tmux_->Shows("12345"));
    Signal(number);
    ExpectEnd(128 + number);
    tmux_.reset();
  }
}

// As the manual page says of the one signal that nobody can catch.
TEST_F(WatchScreen, ATerminalThatWasLeftCanBeMadeGood) {
  Put("h/a", 12345);
  tmux_.emplace(File("tmux"), 80, 24, "env PS1=prompt: bash --norc -i");
  tmux_->Shows("prompt:");
  tmux_->Type("echo $$ >" + File("shell") + "; " VEXREG_PATH " --root " + registry_.root() +
              " watch & echo $! >" + File("pid") + "; fg");
  tmux_->Press("Enter");
  ASSERT_TRUE(tmux_->Shows("12345"));
  Signal(SIGKILL);
  tmux_->Shows("prompt:");
  EXPECT_EQ(tmux_->State("#{alternate_on}"), "1");
  tmux_->Type("tput rmcup; reset; echo good again");
  tmux_->Press("Enter");
  EXPECT_TRUE(Eventually([&] {
    return tmux_->State("#{alternate_on} #{cursor_flag} #{keypad_cursor_flag}") == "0 1 0";
  })) << tmux_->Screen();
}

// A terminal that takes nothing, as over a line that has gone dead.
TEST_F(WatchScreen, EndsWhileTheTerminalTakesNothing) {
  Put("h/a", 12345);
  int master = -1;
  int slave = -1;
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0) << strerror(errno);
  fcntl(slave, F_SETFL, O_NONBLOCK);
  // The kernel makes room for more behind a writer's back, a few times.
  const std::string much(256, '.');
  for (int refused = 0; refused < 10;) {
    const bool taken =
        write(slave, much.data(), much.size()) > 0 || write(slave, much.data(), 1) > 0;
    refused = taken ? 0 : refused + 1;
    made_up::Pause(taken ? 0 : 0.01);
  }
  fcntl(slave, F_SETFL, 0);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    setenv("TERM", "xterm", 1);
    login_tty(slave);
    execl(VEXREG_PATH, VEXREG_PATH, "--root", registry_.root().c_str(), "watch", nullptr);
    _exit(127);
  }
  ASSERT_GT(pid, 0);
  // It draws: the signal is handled, and not blocked.
  const auto has_term = [&](const std::string &which) {
    const std::string status = made_up::ReadFile("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find(which + ":\t");
    return at != std::string::npos &&
           (Signals(status.substr(at + which.size() + 2, 16)) & 1ULL << (SIGTERM - 1)) != 0;
  };
  EXPECT_TRUE(Eventually([&] { return has_term("SigCgt") && !has_term("SigBlk"); }));
  kill(pid, SIGTERM);
  int status = -1;
  EXPECT_TRUE(Eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  if (status == -1) {
    kill(pid, SIGKILL);
  }
  close(slave);
  close(master);
}

// What ends the view may come while nothing waits; giving the terminal back has a limit all the
// same.
TEST(ViewSignals, AfterTheEndNothingIsWaitedForWithoutLimit) {
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    const vex::ViewSignals signals;
    {
      const vex::TakingSignals taking(signals);
      raise(SIGTERM);
    }
    const bool forgotten = alarm(0) == 0;
    const vex::TakingSignals taking(signals);
    _exit(forgotten && vex::ViewSignals::Ended() && alarm(0) != 0 ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
}

TEST_F(WatchScreen, EndsWithItsTerminal) {
  Put("h/a", 12345);
  Start();
  ASSERT_TRUE(tmux_->Shows("12345"));
  const pid_t pid = Pid();
  ASSERT_GT(pid, 0);
  EXPECT_TRUE(made_up::ProcessExists(pid));
  tmux_.reset();
  EXPECT_TRUE(Eventually([&] { return !made_up::ProcessExists(pid); }));
}

TEST_F(WatchScreen, StopsAndGoesOn) {
  Put("h/a", 12345);
  tmux_.emplace(File("tmux"), 80, 24, "env PS1=prompt: bash --norc -i");
  tmux_->Shows("prompt:");
  tmux_->Type(std::string(VEXREG_PATH " --root ") + registry_.root() + " watch");
  tmux_->Press("Enter");
  tmux_->Shows("var0  12345");
  tmux_->Press("C-z");
  EXPECT_TRUE(tmux_->Shows("Stopped"));
  EXPECT_EQ(tmux_->State("#{alternate_on} #{cursor_flag}"), "0 1");
  tmux_->Type("fg");
  tmux_->Press("Enter");
  EXPECT_TRUE(tmux_->Shows("var0  12345"));
  EXPECT_EQ(tmux_->State("#{alternate_on}"), "1");
  tmux_->Press("q");
  EXPECT_TRUE(tmux_->ShowsNot("var0  12345"));
}

TEST_F(WatchScreen, WorksOnOtherTerminals) {
  Put("h/a", 12345);
  for (const char *environment :
       {"TERM=vt100", "TERM=xterm-256color", "TERM=linux", "TERM=vt100 LC_ALL=C",
        "TERM=xterm-256color LC_ALL=C NO_COLOR=1"}) {
    SCOPED_TRACE(environment);
    for (const char *name : {"before", "after", "pid", "status"}) {
      std::filesystem::remove(File(name));
    }
    Start("", environment, 40, 10);
    EXPECT_TRUE(tmux_->Shows("12345"));
    tmux_->Press("q");
    EXPECT_TRUE(Eventually([&] { return !made_up::ReadFile(File("after")).empty(); }));
    EXPECT_EQ(made_up::ReadFile(File("after")), made_up::ReadFile(File("before")));
    EXPECT_EQ(made_up::ReadFile(File("errors")), "");
    tmux_.reset();
  }
}

TEST_F(WatchScreen, PrintsLinesWhereNoScreenCanBeDrawn) {
  Put("h/a", 12345);
  for (const auto &[environment, why] :
       {std::pair{"TERM=dumb", "vexreg: the terminal \"dumb\" has no cursor that can be moved"},
        std::pair{"TERM=frobozz", "vexreg: the terminal \"frobozz\" is not known"},
        std::pair{"-u TERM", "vexreg: TERM is not set"}}) {
    for (const char *name : {"before", "after", "pid", "status"}) {
      std::filesystem::remove(File(name));
    }
    Start("", environment);
    EXPECT_TRUE(tmux_->Shows("h/a var0 12345"));
    EXPECT_TRUE(made_up::ReadFile(File("errors")).starts_with(why))
        << made_up::ReadFile(File("errors"));
    Signal(SIGTERM);
    EXPECT_TRUE(Eventually([&] { return made_up::ReadFile(File("status")) == "0\n"; }));
    tmux_.reset();
  }
}

TEST_F(WatchScreen, SaysWhatIsNotThere) {
  Start();
  EXPECT_TRUE(tmux_->Shows("nothing is published in"));
  Put("h/a", 12345);
  EXPECT_TRUE(tmux_->Shows("12345"));
  EXPECT_TRUE(tmux_->ShowsNot("nothing is published"));
  std::filesystem::rename(registry_.root(), File("away"));
  EXPECT_TRUE(tmux_->Shows("there is no registry"));
  std::filesystem::rename(File("away"), registry_.root());
  EXPECT_TRUE(tmux_->Shows("12345"));
}

TEST_F(WatchScreen, SaysWhenANamedObjectIsGone) {
  Put("h/a", 12345);
  Start("h/a");
  EXPECT_TRUE(tmux_->Shows("12345"));
  std::filesystem::remove(registry_.Path("h/a"));
  EXPECT_TRUE(tmux_->Shows("h/a (removed)"));
  Put("h/a", 54321);
  EXPECT_TRUE(tmux_->Shows("54321"));
}

TEST_F(WatchScreen, DrawsWhatTheLocaleCan) {
  Publish("h/a", MadeObject({Text("t", 20, "\u00e4\u4e2d|"), Int("n", 12345)}));
  Start("", "LC_ALL=C.UTF-8");
  EXPECT_TRUE(tmux_->Shows("t  \u00e4\u4e2d|"));
  tmux_->Press("q");
  ExpectEnd(0);
  tmux_.reset();
  std::filesystem::remove(File("after"));
  Start("", "LC_ALL=C");
  // As wide as with the characters, so that columns stand.
  EXPECT_TRUE(tmux_->Shows("t  ???|"));
  tmux_->Press("q");
  ExpectEnd(0);
}

// A part of a character, as over a line that is disturbed, is no key, and costs no other one.
TEST_F(WatchScreen, APartOfACharacterIsNoKey) {
  Put("h/a", 12345);
  Start("", "LC_ALL=C.UTF-8");
  ASSERT_TRUE(tmux_->Shows("12345"));
  tmux_->Press("/");
  ASSERT_TRUE(tmux_->Shows("Only lines with: _"));
  EXPECT_EQ(tmux_->Tell({"send-keys", "-H", "c3"}).status, 0);
  WaitRounds(5);
  EXPECT_TRUE(tmux_->Shows("Only lines with: _"));
  tmux_->Type("x\u00e4");
  EXPECT_TRUE(tmux_->Shows("Only lines with: x\u00e4_"));
  tmux_->Press("BSpace");
  EXPECT_TRUE(tmux_->Shows("Only lines with: x_"));
  tmux_->Press("Escape");
  tmux_->Press("q");
  ExpectEnd(0);
}

// A terminal whose description says that another octet erases.
TEST_F(WatchScreen, TakesEitherKeyThatErases) {
  Put("h/a", 12345);
  Start("", "TERM=vt100");
  ASSERT_TRUE(tmux_->Shows("12345"));
  tmux_->Press("/");
  tmux_->Type("abc");
  EXPECT_TRUE(tmux_->Shows("Only lines with: abc_"));
  for (const auto &[erase, left] : {std::pair{"7f", "ab_"}, std::pair{"08", "a_"}}) {
    EXPECT_EQ(tmux_->Tell({"send-keys", "-H", erase}).status, 0);
    EXPECT_TRUE(tmux_->Shows(std::string("Only lines with: ") + left));
  }
  tmux_->Press("Escape");
  tmux_->Press("q");
  EXPECT_TRUE(Eventually([&] { return made_up::ReadFile(File("status")) == "0\n"; }));
}

TEST_F(WatchScreen, PaintsAnewWhenAsked) {
  Put("h/a", 12345);
  Start();
  ASSERT_TRUE(tmux_->Shows("12345"));
  // Somebody else has written on the terminal.
  const std::string terminal = tmux_->State("#{pane_tty}");
  WriteBytes(terminal, {'\x1b', '[', '2', 'J', 'b', 'a', 'd'});
  ASSERT_TRUE(tmux_->ShowsNot("12345"));
  tmux_->Press("C-l");
  EXPECT_TRUE(tmux_->Shows("12345"));
  EXPECT_TRUE(tmux_->ShowsNot("bad"));
  tmux_->Press("q");
  ExpectEnd(0);
}

TEST_F(WatchScreen, KeepsToTheWidthAndToColumnsThatGrow) {
  Publish("h/a", MadeObject({Text("t", 90, std::string(60, 'w') + "12345")}));
  Start("--width 40");
  EXPECT_TRUE(tmux_->Shows(std::string(30, 'w')));
  EXPECT_EQ(tmux_->Screen().find(std::string(40, 'w')), std::string::npos) << tmux_->Screen();
  tmux_->Press("q");
  ExpectEnd(0);
  tmux_.reset();
  std::filesystem::remove(File("after"));
  Start();
  ASSERT_TRUE(tmux_->Shows("w12345"));
  tmux_->Resize(40, 24);
  EXPECT_TRUE(tmux_->ShowsNot("w12345"));
  tmux_->Press("q");
  ExpectEnd(0);
}

// What whoever started it ignores, it goes on ignoring; its own limit of time stays.
TEST_F(WatchScreen, IgnoresWhatItsParentIgnores) {
  Put("h/a", 12345);
  Start("", "--ignore-signal=USR1 --ignore-signal=ALRM");
  ASSERT_TRUE(tmux_->Shows("12345"));
  Signal(SIGUSR1);
  Put("h/a", 54321);
  EXPECT_TRUE(tmux_->Shows("54321"));
  Signal(SIGALRM);
  ExpectEnd(0);
}

// Without keys a signal ends it.
TEST_F(WatchScreen, NeedsNoKeys) {
  Put("h/a", 12345);
  Start("</dev/null");
  ASSERT_TRUE(tmux_->Shows("12345"));
  tmux_->Type("q");
  Put("h/a", 54321);
  EXPECT_TRUE(tmux_->Shows("54321"));
  Signal(SIGTERM);
  ExpectEnd(0);
}

TEST_F(WatchScreen, ForgivesTheAgentOnceItsValuesAreNew) {
  Publish("host/load", MadeObject({Int("tlxHoLoadOne", 42)}));
  Start();
  EXPECT_TRUE(tmux_->Shows("Agent: polled "));
  EXPECT_TRUE(tmux_->Shows("load 0.42"));
  tmux_->Press("q");
  ExpectEnd(0);
}

// Looks are an hour apart here. Values that are old when a key comes are looked at again, but not
// at each key.
TEST_F(WatchScreen, LooksAgainAtAKeyWhenValuesAreOld) {
  Publish("host/misc", MadeObject({Int("tlxHoOsCommonPollFreq", -3)}));  // always too late
  Put("h/a", 12345);
  Start("--interval 3600");
  ASSERT_TRUE(tmux_->Shows("12345"));
  EXPECT_TRUE(tmux_->Shows(" s old: no agent runs"));
  Put("h/a", 54321);
  EXPECT_TRUE(Eventually([&] {
    tmux_->Press("Home");
    return tmux_->Screen().find("54321") != std::string::npos;
  })) << tmux_->Screen();
  tmux_->Press("q");
  ExpectEnd(0);
}

// A description of a terminal that is odd, but one: texts with dollars, without an end and longer
// than any, and no way back to the colours it had.
TEST_F(WatchScreen, GivesOddTerminalsBack) {
  Put("h/a", 12345);
  std::ofstream(File("odd")) << "odd|an odd one,\n\top@, oc@, sgr0=\\E[m$<2>,\n\tcnorm=\\E[?25h$x"
                             << "$<5,\n\trmcup=\\E[?1049l" << std::string(300, '\r')
                             << ",\n\tuse=xterm-256color,\n";
  const Outcome compiled = made_up::RunCommand({"tic", "-x", "-o", File("terms"), File("odd")});
  ASSERT_EQ(compiled.status, 0) << compiled.err;
  for (const int number : {SIGUSR1, SIGTERM}) {
    for (const char *name : {"before", "after", "pid", "status"}) {
      std::filesystem::remove(File(name));
    }
    Start("", "TERM=odd TERMINFO=" + File("terms"));
    ASSERT_TRUE(tmux_->Shows("12345"));
    Signal(number);
    EXPECT_TRUE(Eventually([&] { return !made_up::ReadFile(File("after")).empty(); }));
    EXPECT_EQ(made_up::ReadFile(File("status")),
              std::to_string(number == SIGTERM ? 0 : 128 + number) + "\n");
    EXPECT_EQ(made_up::ReadFile(File("after")), made_up::ReadFile(File("before")));
    tmux_.reset();
  }
}

}  // namespace
