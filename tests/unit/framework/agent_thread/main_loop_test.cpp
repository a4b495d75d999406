// The main loop with hooks of the test's own, each in a process of its own.
#include "framework/process/main_loop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

#include "framework/process/log.h"
#include "framework/process/systemd.h"
#include "framework/registry/objects.h"
#include "platform/framework.h"
#include "tests/support/failing_call.h"
#include "tests/unit/framework/agent_hooks.h"
#include "tests/unit/framework/agent_thread/fake_snmp.h"
#include "tests/unit/framework/temp_registry.h"

namespace vex {
namespace {

namespace fs = std::filesystem;

// agent_main() in a child. Its hooks report through Say(), and the test reads with Expect().
class MainLoop : public testing::Test {
 public:
  MainLoop() {
    EXPECT_EQ(pipe2(pipe_, O_CLOEXEC), 0);
    hooks_.init = [this](int, char **) {
      Say("init");
      return 0;
    };
    hooks_.poll = [this] {
      Say("poll");
      return 0;
    };
    hooks_.clean_up = [this] {
      Say("clean-up");
      return 0;
    };
  }
  ~MainLoop() override {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
    }
    close(pipe_[0]);
    close(pipe_[1]);
  }

  void Start(std::vector<std::string> arguments = {"/usr/sbin/exampled"}) {
    child_ = fork();
    ASSERT_GE(child_, 0);
    if (child_ == 0) {
      UseRegistryRoot(registry_.root());
      TheAgentHooks() = hooks_;
      before_();
      std::vector<char *> argv;
      for (std::string &argument : arguments) {
        argv.push_back(argument.data());
      }
      argv.push_back(nullptr);
      const int status = agent_main(static_cast<int>(argv.size()) - 1, argv.data());
      Say(TheFakeSnmp().running ? "snmp left" : "end");
      _exit(status);
    }
  }
  void Say(const std::string &word) const {
    const std::string line = word + "\n";
    if (write(pipe_[1], line.data(), line.size()) < 0) {
      _exit(99);
    }
  }
  // The next words, waited for; "" after ten seconds without.
  std::string Next(int wait_ms = 10000) {
    while (said_.find('\n') == std::string::npos) {
      pollfd fd = {pipe_[0], POLLIN, 0};
      char bytes[256];
      if (poll(&fd, 1, wait_ms) != 1) {
        return "";
      }
      const ssize_t n = read(pipe_[0], bytes, sizeof(bytes));
      if (n <= 0) {
        return "";
      }
      said_.append(bytes, static_cast<size_t>(n));
    }
    const size_t end = said_.find('\n');
    std::string word = said_.substr(0, end);
    said_.erase(0, end + 1);
    return word;
  }
  void Signal(int signal) const {
    ASSERT_EQ(kill(child_, signal), 0);
  }
  int Status() {
    int status = 0;
    EXPECT_EQ(waitpid(child_, &status, 0), child_);
    child_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  TempRegistry registry_;
  AgentHooks hooks_;
  std::function<void()> before_ = [] {};  // in the child, before agent_main()
  pid_t child_ = -1;
  int pipe_[2] = {-1, -1};
  std::string said_;
};

TEST(CommandLine, LosesOnlyTheFrameworksOption) {
  auto take = [](std::vector<std::string> words) {
    std::vector<char *> argv;
    for (std::string &word : words) {
      argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const CommandLine line = TakeOwnOptions(static_cast<int>(argv.size()) - 1, argv.data());
    std::string result;
    for (size_t i = 0; i + 1 < line.rest.size(); i++) {
      result += std::string(line.rest[i]) + " ";
    }
    EXPECT_EQ(line.rest.back(), nullptr);
    return result + "| " + (line.bad ? "bad" : line.log_file != nullptr ? line.log_file : "none");
  };
  EXPECT_EQ(take({"d"}), "d | none");
  EXPECT_EQ(take({"d", "-z", "-p", "5"}), "d -z -p 5 | none");
  EXPECT_EQ(take({"d", "-l", "f"}), "d | f");
  EXPECT_EQ(take({"d", "-lf", "-z"}), "d -z | f");
  EXPECT_EQ(take({"d", "-p", "5", "-l", "f", "-s", "OK"}), "d -p 5 -s OK | f");
  EXPECT_EQ(take({"d", "-l", "f", "-l", "g"}), "d | g");
  EXPECT_EQ(take({"d", "-l"}), "d | bad");
  EXPECT_EQ(take({"d", "--", "-l", "f"}), "d -- -l f | none");
  EXPECT_EQ(take({"-l", "-z"}), "-l -z | none");
  EXPECT_EQ(take({}), "| none");
}

TEST_F(MainLoop, CallsTheHooksInOrder) {
  hooks_.init = [this](int argc, char **argv) {
    Say(std::string("init ") + agent + " " + std::to_string(argc) + " " + argv[argc - 1] + " " +
        std::to_string(poll_time));
    set_poll_time(0);
    return argv[argc] == nullptr ? 0 : -1;
  };
  hooks_.poll = [this] {
    alarm(0);
    Say("poll " + std::to_string(poll_time));
    alarm(static_cast<unsigned>(poll_time));
    return -1;  // not acted on
  };
  timespec begin;
  timespec end;
  clock_gettime(CLOCK_MONOTONIC, &begin);
  Start({"/usr/sbin/exampled", "-z"});
  EXPECT_EQ(Next(), "init exampled 2 -z 15");
  EXPECT_EQ(Next(), "poll 1");
  clock_gettime(CLOCK_MONOTONIC, &end);
  const double seconds = static_cast<double>(end.tv_sec - begin.tv_sec) +
                         static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e9;
  EXPECT_GE(seconds, 0.9) << "the first poll comes one interval after start-up";
  EXPECT_EQ(Next(), "poll 1");
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
}

TEST_F(MainLoop, EndsOnInterruptionToo) {
  Start();
  EXPECT_EQ(Next(), "init");
  Signal(SIGINT);
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
}

TEST_F(MainLoop, ASignalDuringAHookWaitsForItsEnd) {
  hooks_.init = [this](int, char **) {
    set_poll_time(1);
    Say("init");
    return 0;
  };
  hooks_.poll = [this] {
    Say("poll");
    timespec left = {0, 300'000'000};
    while (nanosleep(&left, &left) != 0) {
    }
    Say("polled");
    return 0;
  };
  Start();
  EXPECT_EQ(Next(), "init");
  EXPECT_EQ(Next(), "poll");
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "polled");
  EXPECT_EQ(Next(), "clean-up");
  Signal(SIGTERM);  // a second one changes nothing
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
}

TEST_F(MainLoop, ASecondTerminationDoesNotCutTheCleanUp) {
  hooks_.clean_up = [this] {
    Say("clean-up");
    timespec left = {0, 300'000'000};
    while (nanosleep(&left, &left) != 0) {
    }
    Say("cleaned");
    return 0;
  };
  Start();
  EXPECT_EQ(Next(), "init");
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "clean-up");
  Signal(SIGTERM);
  Signal(SIGINT);
  EXPECT_EQ(Next(), "cleaned");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
}

TEST_F(MainLoop, ATerminationDuringStartUpEndsItAfterwards) {
  hooks_.init = [this](int, char **) {
    Say("init");
    timespec left = {0, 200'000'000};
    while (nanosleep(&left, &left) != 0) {
    }
    return 0;
  };
  Start();
  EXPECT_EQ(Next(), "init");
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
}

TEST_F(MainLoop, ATerminationEndsACommand) {
  hooks_.init = [this](int, char **) {
    Say("init");
    char output[8];
    size_t length = 0;
    const int result = run_command("trap '' TERM; sleep 60; :", 50000, output, 8, &length);
    Say(result == COMMAND_AGENT_ENDING ? "broken off" : std::to_string(result));
    // No other is started then.
    Say(std::to_string(run_command("exit 0", 50000, output, 8, &length)));
    return 0;
  };
  Start();
  EXPECT_EQ(Next(), "init");
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "broken off");
  EXPECT_EQ(Next(), std::to_string(COMMAND_AGENT_ENDING));
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
}

TEST_F(MainLoop, ATerminationInterruptsAgainAndAgain) {
  hooks_.init = [this](int, char **) {
    Say("init");
    while (agent_ending() == 0) {
      usleep(1000);  // the thread sanitizer delivers signals at calls alone
    }
    // Entered too late to hear the signal itself.
    for (int i = 0; i < 3; i++) {
      Say(poll(nullptr, 0, 60000) < 0 ? "interrupted" : "waited");
    }
    return 0;
  };
  Start();
  EXPECT_EQ(Next(), "init");
  Signal(SIGTERM);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(Next(), "interrupted");
  }
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
}

TEST_F(MainLoop, AStartThatIsToldToEndHasNotFailed) {
  hooks_.init = [this](int, char **) {
    Say("init");
    while (agent_ending() == 0) {
      usleep(1000);  // the thread sanitizer delivers signals at calls alone
    }
    return -1;
  };
  Start();
  EXPECT_EQ(Next(), "init");
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
}

TEST_F(MainLoop, CommandsOfAHookInheritNoBlockedOrIgnoredSignal) {
  int go[2];  // its end: we take the child's status again
  ASSERT_EQ(pipe2(go, O_CLOEXEC), 0);
  hooks_.init = [this, go](int, char **) {
    close(go[1]);
    char byte;
    EXPECT_EQ(read(go[0], &byte, 1), 0);
    FILE *shell = popen("grep -E '^Sig(Blk|Ign):' /proc/self/status", "r");
    char line[100];
    while (shell != nullptr && fgets(line, sizeof(line), shell) != nullptr) {
      Say(std::string(line, 7) + " " + std::to_string(Signals(line + 8)));
    }
    Say("status " + std::to_string(pclose(shell)));
    return -1;
  };
  // Whatever we were started with.
  signal(SIGCHLD, SIG_IGN);
  sigset_t ours;
  sigset_t old;
  sigemptyset(&ours);
  sigaddset(&ours, SIGTERM);
  sigaddset(&ours, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &ours, &old);
  Start();
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  signal(SIGCHLD, SIG_DFL);
  close(go[0]);
  close(go[1]);
  EXPECT_EQ(Next(), "SigBlk: 0");
  EXPECT_EQ(Next(), "SigIgn: 0");
  EXPECT_EQ(Next(), "status 0");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 1);
}

TEST_F(MainLoop, AFailedStartLeavesNothing) {
  hooks_.init = [this](int, char **) {
    snprintf(log_dir, sizeof(log_dir), "%s/host", registry_.root().c_str());
    create_dir(log_dir, 1);
    const std::string name = std::string(log_dir) + "/memory";
    log_data(create_obj(&obj_Q, get_id(), name.c_str(), 0, 4, 0));
    Say(fs::exists(name) ? "published" : "not published");
    return -1;
  };
  Start();
  EXPECT_EQ(Next(), "published");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 1);
  EXPECT_TRUE(fs::is_empty(registry_.root()));
}

TEST_F(MainLoop, AFailedStartRemovesNoDirectoryElsewhereOrInUse) {
  fs::create_directories(registry_.base() + "/outside");
  hooks_.init = [this](int, char **) {
    snprintf(log_dir, sizeof(log_dir), "%s/outside", registry_.base().c_str());
    return 7;
  };
  Start();
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 1);
  EXPECT_TRUE(fs::exists(registry_.base() + "/outside"));

  fs::create_directories(registry_.Path("host"));
  WriteBytes(registry_.Path("host/other"), {'x'});
  hooks_.init = [this](int, char **) {
    snprintf(log_dir, sizeof(log_dir), "%s/host", registry_.root().c_str());
    return -1;
  };
  Start();
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 1);
  EXPECT_TRUE(fs::exists(registry_.Path("host/other")));
}

TEST_F(MainLoop, AFailedStartRemovesOnlyADirectoryBelowTheRoot) {
  const std::string root = registry_.root();
  const std::string too_long = "/" + std::string(sizeof(log_dir), 'a');
  for (const std::string &name : {std::string(), std::string("host"), root, too_long}) {
    fs::create_directories(registry_.Path("host"));
    hooks_.init = [&](int, char **) {
      fs::current_path(root);
      memcpy(log_dir, name.c_str(), std::min(name.size() + 1, sizeof(log_dir)));
      return -1;
    };
    Start();
    EXPECT_EQ(Next(), "end");
    EXPECT_EQ(Status(), 1);
    EXPECT_TRUE(fs::exists(registry_.Path("host"))) << name;
    fs::remove(registry_.Path("host"));
    hooks_.init = [&](int, char **) {
      memcpy(log_dir, name.c_str(), std::min(name.size() + 1, sizeof(log_dir)));
      return -1;
    };
    Start();
    EXPECT_EQ(Next(), "end");
    EXPECT_EQ(Status(), 1);
    EXPECT_TRUE(fs::exists(root)) << name;
  }
}

TEST_F(MainLoop, WhatTheCleanUpForgetsGoesToo) {
  hooks_.init = [this](int, char **) {
    const std::string name = registry_.Path("host/memory");
    log_data(create_obj(&obj_Q, get_id(), name.c_str(), 0, 4, 0));
    Say(fs::exists(name) ? "published" : "not published");
    return 0;
  };
  Start();
  EXPECT_EQ(Next(), "published");
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
  EXPECT_FALSE(fs::exists(registry_.Path("host/memory")));
}

TEST_F(MainLoop, ServesSetsBetweenTheHooks) {
  int channel[2];
  ASSERT_EQ(pipe2(channel, O_CLOEXEC), 0);
  hooks_.init = [&](int, char **) {
    FakeSnmp &snmp = TheFakeSnmp();
    snmp.set_fd = channel[0];
    registry_object *object =
        create_obj(&obj_Q, get_id(), registry_.Path("host/example").c_str(), 0, 4, 1);
    static const MainLoop *self;
    self = this;
    init_info(0, object->desc, "exampleCount", 4, VAR_INTEGER, ACCESS_WRITABLE, 1, object->data,
              [](uint8_t phase, registry_object *, descriptor *, const void *, int) {
                sigset_t mask;
                pthread_sigmask(SIG_SETMASK, nullptr, &mask);
                self->Say("set " + std::to_string(phase) + " " +
                          std::to_string(sigismember(&mask, SIGALRM)) + " " +
                          (InHookSince() != 0 ? "in hook" : "not in hook"));
                return 0;
              });
    log_data(object);
    SetItem item;
    item.object_id = snmp.served.begin()->first;
    item.value = {1, 0, 0, 0, 0};
    item.length = 4;
    snmp.pending.push_back(item);
    Say(InHookSince() != 0 ? "in hook" : "not in hook");
    return 0;
  };
  hooks_.clean_up = [this] {
    Say(TheFakeSnmp().sets_closed ? "closed" : "open");
    return 0;
  };
  Start();
  EXPECT_EQ(Next(), "in hook");
  ASSERT_EQ(write(channel[1], "x", 1), 1);
  EXPECT_EQ(Next(), "set 1 0 in hook");
  EXPECT_EQ(Next(), "set 2 0 in hook");
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "closed");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
  close(channel[0]);
  close(channel[1]);
}

// The master has frozen between its check and its apply, with a handler run or without.
TEST_F(MainLoop, ATerminationEndsTheHoldOfASet) {
  using std::chrono::steady_clock;
  for (const bool handled : {false, true}) {
    int channel[2];
    ASSERT_EQ(pipe2(channel, O_CLOEXEC), 0);
    hooks_.init = [&](int, char **) {
      FakeSnmp &snmp = TheFakeSnmp();
      snmp.set_fd = channel[0];
      snmp.hold = std::chrono::seconds(5);
      if (handled) {
        snmp.pending.emplace_back();  // of no object: refused, but by RunSet()
      }
      Say("init");
      return 0;
    };
    Start();
    EXPECT_EQ(Next(), "init");
    ASSERT_EQ(write(channel[1], "x", 1), 1);
    // Until the agent thread holds it.
    for (int unread = 1; unread != 0; usleep(1000)) {
      ASSERT_EQ(ioctl(channel[0], FIONREAD, &unread), 0);
    }
    usleep(20'000);
    const steady_clock::time_point begin = steady_clock::now();
    Signal(SIGTERM);
    EXPECT_EQ(Next(), "clean-up");
    EXPECT_LT(steady_clock::now() - begin, std::chrono::milliseconds(2000));
    EXPECT_EQ(Next(), "end");
    EXPECT_EQ(Status(), 0);
    close(channel[0]);
    close(channel[1]);
  }
}

// Sets that come as fast as they are served.
TEST_F(MainLoop, SetsWithoutEndKeepNoSignalAway) {
  int channel[2];
  ASSERT_EQ(pipe2(channel, O_CLOEXEC), 0);
  hooks_.init = [&](int, char **) {
    TheFakeSnmp().set_fd = channel[0];
    set_poll_time(1);
    Say("init");
    return 0;
  };
  const std::string many(60000, 'x');
  ASSERT_EQ(fcntl(channel[1], F_SETFL, O_NONBLOCK), 0);
  ASSERT_EQ(write(channel[1], many.data(), many.size()), static_cast<ssize_t>(many.size()));
  std::atomic<bool> over{false};
  std::thread asking([&] {
    while (!over) {
      (void)!write(channel[1], many.data(), many.size());
      usleep(1000);
    }
  });
  Start();
  EXPECT_EQ(Next(), "init");
  EXPECT_EQ(Next(), "poll");
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "clean-up");
  over = true;
  asking.join();
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
  close(channel[0]);
  close(channel[1]);
}

TEST_F(MainLoop, AnUnwrittenFileIsWrittenAfterAPoll) {
  hooks_.init = [this](int, char **) {
    set_poll_time(1);
    // A directory where the file should be.
    fs::create_directories(registry_.Path("host/memory"));
    log_data(create_obj(&obj_Q, get_id(), registry_.Path("host/memory").c_str(), 0, 4, 0));
    Say(fs::is_directory(registry_.Path("host/memory")) ? "in the way" : "gone");
    fs::remove(registry_.Path("host/memory"));
    return 0;
  };
  hooks_.poll = [this] {
    Say("poll");
    alarm(1);
    return 0;
  };
  Start();
  EXPECT_EQ(Next(), "in the way");
  EXPECT_EQ(Next(), "poll");
  EXPECT_EQ(Next(), "poll");
  EXPECT_TRUE(fs::is_regular_file(registry_.Path("host/memory")));
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
}

// What the framework itself does after a hook may hang with its file system as the hook may: the
// watchdog counts it, and the agent is told to end meanwhile.
TEST_F(MainLoop, FilesAreRetriedAsPartOfTheHook) {
  static const MainLoop *self;
  self = this;
  static auto say = [](const std::string &what) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    self->Say(what + (InHookSince() != 0 ? " in hook" : " outside") +
              (sigismember(&mask, SIGTERM) != 0 ? ", deaf" : ""));
  };
  static registry_object *object;
  static std::string file;
  file = registry_.Path("host/memory");
  static auto fail_once = [] {
    fs::remove(file);
    fs::create_directories(file);
    log_data(object);
    fs::remove(file);
  };
  hooks_.init = [](int, char **) {
    SetLogSink([](const char *text, size_t length) {
      if (std::string_view(text, length).find("written again") != std::string_view::npos) {
        say("written");
      }
      return static_cast<int>(length);
    });
    init_snmp_appname("exampled");
    object = create_obj(&obj_Q, get_id(), file.c_str(), 0, 4, 0);
    fail_once();
    return 0;
  };
  hooks_.poll = [] {
    TheFakeSnmp().asked_what_waits = [] {
      TheFakeSnmp().asked_what_waits = nullptr;
      say("traps");
    };
    fail_once();
    return 0;
  };
  hooks_.clean_up = [] { return 0; };
  Start();
  EXPECT_EQ(Next(), "written in hook");
  Signal(SIGALRM);
  EXPECT_EQ(Next(), "written in hook");
  EXPECT_EQ(Next(), "traps in hook");
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
}

// The agent does not act on the result of init_snmp_appname(); the loop does.
// A thread that hangs in a call still uses what an ordinary end destroys.
TEST_F(MainLoop, AnSnmpSideThatStaysBehindIsLeftAtOnce) {
  for (const int result : {0, -1}) {
    hooks_.init = [&](int, char **) {
      TheFakeSnmp().stays = true;
      Say("init");
      return result;
    };
    Start();
    EXPECT_EQ(Next(), "init");
    if (result == 0) {
      Signal(SIGTERM);
      EXPECT_EQ(Next(), "clean-up");
    }
    EXPECT_EQ(Status(), result == 0 ? 0 : 1);
    EXPECT_EQ(Next(0), "") << "agent_main() does not return";
  }
}

TEST_F(MainLoop, EndsBesideAnotherAgent) {
  fs::create_directories(registry_.Path("host"));
  const int held = open(registry_.Path("host").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(held, LOCK_EX), 0);
  const auto claim = [this](const char *word) {
    const FailingCall no_pause("nanosleep", 0, 1, FailingCall::kAll);
    Say(word + std::to_string(claim_dir(registry_.Path("host").c_str())));
    return 0;
  };
  hooks_.init = [&](int, char **) { return claim("init "); };
  Start();
  EXPECT_EQ(Next(), "init -1");
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 1);
  // Or when it comes to that later.
  hooks_.init = [](int, char **) { return 0; };
  hooks_.poll = [&] { return claim("poll "); };
  before_ = [] { raise(SIGALRM); };
  sigset_t alarms;
  sigset_t old;
  sigemptyset(&alarms);
  sigaddset(&alarms, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &alarms, &old);
  Start();
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  EXPECT_EQ(Next(), "poll -1");
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 1);
  close(held);
}

TEST_F(MainLoop, AnyCommandLineWillDo) {
  hooks_.init = [this](int argc, char **argv) {
    Say(std::to_string(argc) + " " + agent + (argv[argc] == nullptr ? "" : " more"));
    return -1;
  };
  // Without a name of its own.
  Start({});
  EXPECT_EQ(Next(), "0 agent");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 1);
  Start({"exampled"});
  EXPECT_EQ(Next(), "1 exampled");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 1);
}

// A registry file must never become standard output.
TEST_F(MainLoop, ClosedStandardDescriptorsAreTaken) {
  before_ = [] {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      close(fd);
    }
  };
  hooks_.init = [this](int, char **) {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      Say(fs::read_symlink("/proc/self/fd/" + std::to_string(fd)).string());
    }
    return -1;
  };
  Start();
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(Next(), "/dev/null");
  }
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 1);
}

// Without the timer that insists, the first signal still ends it.
TEST_F(MainLoop, EndsWithoutATimerToo) {
  before_ = [] { static const FailingCall failing("timer_create", EAGAIN); };
  hooks_.init = [this](int, char **) {
    const pid_t self = getpid();
    kill(self, SIGTERM);
    Say(agent_ending() != 0 ? "ending" : "not ending");
    return 0;
  };
  Start();
  EXPECT_EQ(Next(), "ending");
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
}

TEST_F(MainLoop, EndsWhenTheSnmpSideCannotStart) {
  hooks_.init = [&](int, char **) {
    TheFakeSnmp().start_fails = true;
    Say("init " + std::to_string(init_snmp_appname("exampled")));
    return 0;
  };
  Start();
  EXPECT_EQ(Next(), "init -1");
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 1);
}

TEST_F(MainLoop, EndsWhenTheSnmpSideHasEnded) {
  hooks_.poll = [&] {
    TheFakeSnmp().failed = true;
    Say("poll");
    return 0;
  };
  Start();
  EXPECT_EQ(Next(), "init");
  Signal(SIGALRM);
  EXPECT_EQ(Next(), "poll");
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 1);
}

// One budget for each poll, and none without a community.
TEST_F(MainLoop, QueriesShareThePatienceOfTheirPoll) {
  hooks_.init = [this](int, char **) {
    init_snmp_appname("exampled");
    Say("without " + std::to_string(init_snmp_connection("127.0.0.1")));
    cleanup_snmp_connection();
    return -1;
  };
  Start();
  EXPECT_EQ(Next(), "without -1");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 1);

  auto ask = [this](const char *oid) {
    FakeSnmp &snmp = TheFakeSnmp();
    int32_t value = 0;
    const int before = snmp.queries;
    init_snmp_connection("127.0.0.1");
    const int result = get_one_snmp_integer_from_api(oid, &value, nullptr);
    cleanup_snmp_connection();
    const auto patience = std::chrono::duration_cast<std::chrono::milliseconds>(snmp.patience);
    Say(std::to_string(result) + " " +
        (snmp.queries > before ? std::to_string((patience.count() + 50) / 100 * 100)
                               : "not asked"));
  };
  hooks_.init = [ask](int, char **) {
    TheFakeSnmp().settings.community = "public";
    TheFakeSnmp().answer.end = QueryEnd::kSilent;
    TheFakeSnmp().answer.value.reset();
    init_snmp_appname("exampled");
    ask("1.3.1");
    ask("1.3.2");
    return 0;
  };
  hooks_.poll = [ask] {
    ask("1.3.1");
    ask("1.3.2");
    TheFakeSnmp().answered_late = true;
    return 0;
  };
  Start();
  EXPECT_EQ(Next(), "-1 2000");
  EXPECT_EQ(Next(), "-1 not asked");
  Signal(SIGALRM);
  EXPECT_EQ(Next(), "-1 300");  // 250, rounded
  EXPECT_EQ(Next(), "-1 not asked");
  Signal(SIGALRM);
  EXPECT_EQ(Next(), "-1 2000");
  EXPECT_EQ(Next(), "-1 not asked");
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
}

TEST_F(MainLoop, TheConfiguredPollIntervalYieldsToTheAgents) {
  for (const bool agent_sets : {false, true}) {
    hooks_.init = [&](int, char **) {
      TheFakeSnmp().settings.poll_interval = 33;
      if (agent_sets) {
        set_poll_time(7);
      }
      const int result = init_snmp_appname("exampled");
      Say(std::to_string(result) + " " + std::to_string(poll_time) + " " +
          TheFakeSnmp().application);
      return -1;
    };
    Start();
    EXPECT_EQ(Next(), agent_sets ? "0 7 exampled" : "0 33 exampled");
    EXPECT_EQ(Next(), "end");
    EXPECT_EQ(Status(), 1);
  }
}

// ---- The log

TEST_F(MainLoop, LogsToTheFileAndOpensItAgain) {
  const std::string file = registry_.base() + "/log";
  WriteBytes(file, {'o', 'l', 'd', '\n'});
  fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
  hooks_.init = [this](int argc, char **) {
    agentlog_fprintf(stderr, "first %d\n", argc);
    const std::string long_text(5000, 'x');
    agentlog_fprintf(stderr, "%s\n", long_text.c_str());
    set_poll_time(1);
    Say("init");
    return 0;
  };
  hooks_.poll = [this] {
    agentlog_fprintf(stderr, "poll\n");
    Say("poll");
    alarm(1);
    return 0;
  };
  Start({"exampled", "-z", "-l", file});
  EXPECT_EQ(Next(), "init");
  std::vector<uint8_t> bytes = ReadBytes(file);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()),
            "old\nfirst 2\n" + std::string(5000, 'x') + "\n");
  fs::rename(file, file + ".1");
  Signal(SIGHUP);
  EXPECT_EQ(Next(), "poll");
  EXPECT_EQ(Next(), "poll");
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
  bytes = ReadBytes(file);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()).substr(0, 10), "poll\npoll\n");
  struct stat st;
  ASSERT_EQ(stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
}

// logrotate(8) may come during the start.
TEST_F(MainLoop, AHangupDuringAHookOpensTheLogAgain) {
  const std::string file = registry_.base() + "/log";
  hooks_.init = [&](int, char **) {
    agentlog_fprintf(stderr, "before\n");
    fs::rename(file, file + ".1");
    raise(SIGHUP);
    return 0;
  };
  hooks_.poll = [this] {
    agentlog_fprintf(stderr, "after\n");
    Say("poll");
    return 0;
  };
  Start({"exampled", "-l", file});
  // Nothing else has to come for that. Before the hook it is there, too.
  for (int tries = 0; !(fs::exists(file + ".1") && fs::exists(file)) && tries < 1000; tries++) {
    usleep(10'000);
  }
  EXPECT_TRUE(fs::exists(file));
  Signal(SIGALRM);
  EXPECT_EQ(Next(), "poll");
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
  const std::vector<uint8_t> bytes = ReadBytes(file);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "after\n");
}

TEST_F(MainLoop, ALogThatCannotBeOpenedIsAnError) {
  for (const std::vector<std::string> &arguments :
       {std::vector<std::string>{"exampled", "-l", registry_.base() + "/no/log"},
        std::vector<std::string>{"exampled", "-l"}}) {
    testing::internal::CaptureStderr();
    Start(arguments);
    EXPECT_EQ(Next(), "end");
    EXPECT_EQ(Status(), 1);
    const std::string message = testing::internal::GetCapturedStderr();
    EXPECT_EQ(message, arguments.size() == 2 ? "exampled: Option -l needs a file name\n"
                                             : "exampled: Can't open log file " + arguments[2] +
                                                   ": No such file or directory\n");
  }
}

TEST(Log, OneWriteAMessage) {
  // Several processes into one pipe: no line is torn as long as each is one write.
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  // Takes all of them: a message is lost where nobody makes room within a moment.
  ASSERT_GE(fcntl(ends[1], F_SETPIPE_SZ, 1 << 20), 1 << 20);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    dup2(ends[1], STDERR_FILENO);
    for (int i = 0; i < 4; i++) {
      if (fork() == 0) {
        for (int n = 0; n < 200; n++) {
          agentlog_fprintf(stderr, "%s\n", std::string(500, static_cast<char>('a' + i)).c_str());
        }
        _exit(0);
      }
    }
    while (wait(nullptr) > 0) {
    }
    _exit(0);
  }
  close(ends[1]);
  FILE *in = fdopen(ends[0], "r");
  char line[1024];
  int lines = 0;
  while (fgets(line, sizeof(line), in) != nullptr) {
    lines++;
    ASSERT_EQ(strlen(line), 501u);
    ASSERT_EQ(strspn(line, std::string(1, line[0]).c_str()), 500u);
  }
  fclose(in);
  waitpid(child, nullptr, 0);
  EXPECT_EQ(lines, 800);
}

TEST(Log, OtherStreamsGetWholeMessages) {
  FILE *file = tmpfile();
  ASSERT_NE(file, nullptr);
  fputs("a ", file);
  EXPECT_EQ(agentlog_fprintf(file, "%s", "b\n"), 2);
  rewind(file);
  char line[10] = "";
  EXPECT_STREQ(fgets(line, sizeof(line), file), "a b\n");
  fclose(file);
  EXPECT_EQ(agentlog_fprintf(nullptr, "x"), -1);
}

// ---- The service manager

class NotifySocket {
 public:
  explicit NotifySocket(const std::string &path) : fd_(socket(AF_UNIX, SOCK_DGRAM, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), path.size());
    if (path[0] == '@') {
      address.sun_path[0] = '\0';
    }
    EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr *>(&address),
                   static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size())),
              0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
  }
  ~NotifySocket() {
    close(fd_);
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
  }
  NotifySocket(const NotifySocket &) = delete;
  NotifySocket &operator=(const NotifySocket &) = delete;
  std::string Next(int wait_ms = 10000) const {
    pollfd fd = {fd_, POLLIN, 0};
    char bytes[100];
    if (poll(&fd, 1, wait_ms) != 1) {
      return "";
    }
    const ssize_t n = recv(fd_, bytes, sizeof(bytes), 0);
    return {bytes, static_cast<size_t>(n > 0 ? n : 0)};
  }

 private:
  int fd_;
};

TEST_F(MainLoop, TellsTheServiceManager) {
  hooks_.init = [this](int, char **) {
    Say(getenv("NOTIFY_SOCKET") == nullptr && getenv("WATCHDOG_USEC") == nullptr ? "kept"
                                                                                 : "leaks");
    return 0;
  };
  hooks_.clean_up = [this] {
    Say(std::to_string(TheFakeSnmp().tick_ms));
    if (TheFakeSnmp().tick != nullptr) {
      TheFakeSnmp().tick();
    }
    return 0;
  };
  for (const std::string &path :
       {registry_.base() + "/notify", "@vex-notify-test-" + std::to_string(getpid())}) {
    NotifySocket manager(path);
    setenv("WATCHDOG_USEC", "30000000", 1);
    Start();
    EXPECT_EQ(Next(), "kept");
    EXPECT_EQ(manager.Next(), "READY=1");
    Signal(SIGTERM);
    EXPECT_EQ(manager.Next(), "STOPPING=1");
    EXPECT_EQ(Next(), "15000");
    EXPECT_EQ(manager.Next(), "WATCHDOG=1");
    EXPECT_EQ(Next(), "end");
    EXPECT_EQ(Status(), 0);
  }
}

TEST_F(MainLoop, AFailedStartIsNeverReady) {
  NotifySocket manager(registry_.base() + "/notify");
  hooks_.init = [](int, char **) { return -1; };
  Start();
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 1);
  EXPECT_EQ(manager.Next(0), "");
}

TEST_F(MainLoop, TheWatchdogOfAnotherProcessIsNotOurs) {
  NotifySocket manager(registry_.base() + "/notify");
  setenv("WATCHDOG_USEC", "30000000", 1);
  setenv("WATCHDOG_PID", "1", 1);
  hooks_.clean_up = [this] {
    Say(TheFakeSnmp().tick == nullptr ? "no tick" : "tick");
    return 0;
  };
  Start();
  EXPECT_EQ(Next(), "init");
  EXPECT_EQ(manager.Next(), "READY=1");
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "no tick");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
}

TEST_F(MainLoop, TheWatchdogIsOursByOurNumberAlone) {
  hooks_.clean_up = [this] {
    Say(TheFakeSnmp().tick == nullptr ? "no tick" : "tick");
    return 0;
  };
  NotifySocket manager(registry_.base() + "/notify");
  setenv("WATCHDOG_USEC", "30000000", 1);
  for (const char *suffix : {"", "x"}) {
    before_ = [=] { setenv("WATCHDOG_PID", (std::to_string(getpid()) + suffix).c_str(), 1); };
    Start();
    EXPECT_EQ(Next(), "init");
    EXPECT_EQ(manager.Next(), "READY=1");
    Signal(SIGTERM);
    EXPECT_EQ(Next(), *suffix == '\0' ? "tick" : "no tick");
    EXPECT_EQ(manager.Next(), "STOPPING=1");
    EXPECT_EQ(Next(), "end");
    EXPECT_EQ(Status(), 0);
  }
}

// The manager's own time-outs deal with that.
TEST_F(MainLoop, AMessageThatCannotBeSentIsLost) {
  NotifySocket manager(registry_.base() + "/notify");
  before_ = [] { static const FailingCall failing("socket", EMFILE); };
  hooks_.init = [](int, char **) {
    raise(SIGALRM);
    return 0;
  };
  Start();
  EXPECT_EQ(Next(), "poll");  // it has been ready
  Signal(SIGTERM);
  EXPECT_EQ(Next(), "clean-up");
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 0);
  EXPECT_EQ(manager.Next(), "STOPPING=1");
}

TEST_F(MainLoop, AWatchdogThatMakesNoSenseIsNone) {
  hooks_.clean_up = [this] {
    Say(TheFakeSnmp().tick == nullptr ? "no tick" : "tick");
    return 0;
  };
  int tried = 0;
  for (const char *interval :
       {"", "0", "-1", " 5", "5 ", "5s", "0x10", "99999999999999999999", "é"}) {
    NotifySocket manager(registry_.base() + "/notify" + std::to_string(tried));
    setenv("WATCHDOG_USEC", interval, 1);
    Start();
    EXPECT_EQ(Next(), "init");
    EXPECT_EQ(manager.Next(), "READY=1");
    Signal(SIGTERM);
    EXPECT_EQ(Next(), "no tick") << interval;
    EXPECT_EQ(Next(), "end");
    EXPECT_EQ(Status(), 0);
    tried++;
  }
  // Nobody to tell.
  for (const std::string &path : {std::string(), std::string("relative"), std::string("@"),
                                  "/" + std::string(200, 'x'), std::string("/no/such/socket")}) {
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    Start();
    EXPECT_EQ(Next(), "init");
    Signal(SIGTERM);
    EXPECT_EQ(Next(), "no tick") << path;
    EXPECT_EQ(Next(), "end");
    EXPECT_EQ(Status(), 0);
    unsetenv("NOTIFY_SOCKET");
    tried++;
  }
  printf("%d malformed\n", tried);
}

TEST(Watchdog, IsWithheldAfterAnHourInOneHook) {
  constexpr int64_t kSecond = 1'000'000'000;
  EXPECT_TRUE(AgentThreadAlive(0, 99999 * kSecond));
  EXPECT_TRUE(AgentThreadAlive(1000 * kSecond, 4600 * kSecond));
  EXPECT_FALSE(AgentThreadAlive(1000 * kSecond, 4601 * kSecond));
}

// ---- SNMP settings and queries

TEST_F(MainLoop, CommunityRevisionsAndQueries) {
  hooks_.init = [this](int, char **) {
    FakeSnmp &snmp = TheFakeSnmp();
    char *community = nullptr;
    Say(find_community_string(&community) == nullptr && community == nullptr ? "none" : "some");
    Say("early " + std::to_string(init_snmp_connection("127.0.0.1")));
    snmp.settings.community = "secret";
    init_snmp_appname("exampled");
    Say("again " + std::to_string(init_snmp_appname("exampled")));
    char *found = find_community_string(&community);
    Say(found != nullptr && found == community ? found : "null");
    free(found);
    Say(std::to_string(get_mib_major_revision(99)) + "." +
        std::to_string(get_mib_minor_revision(99)) + " " +
        std::to_string(get_mib_major_revision(5)));
    int32_t value = 5;
    int status = -1;
    Say(std::to_string(get_one_snmp_integer_from_api("1.3.6", &value, &status)));
    for (const char *address : {"localhost", "127.0.0.1", "127.0.0.1"}) {
      Say(address + (" " + std::to_string(init_snmp_connection(address))));
    }
    snmp.answer.value = 77;
    const int good = get_one_snmp_integer_from_api("enterprises.1", &value, &status);
    Say(std::to_string(good) + " " + std::to_string(value) + " " + std::to_string(status) + " " +
        snmp.queried);
    snmp.answer.value.reset();
    const int bad = get_one_snmp_integer_from_api("enterprises.2", &value, nullptr);
    Say(std::to_string(bad) + " " + std::to_string(value));
    for (int i = 0; i < 2; i++) {
      Say("close " + std::to_string(cleanup_snmp_connection()));
    }
    for (const int state : {-1, 0, 9999, -1, 9999}) {
      const int result = cfg_set_state(state);
      Say("sets " + std::to_string(result) + " " + std::to_string(snmp.sets_enabled));
    }
    return -1;
  };
  Start();
  EXPECT_EQ(Next(), "none");
  EXPECT_EQ(Next(), "early -1");
  EXPECT_EQ(Next(), "again -1");
  EXPECT_EQ(Next(), "secret");
  EXPECT_EQ(Next(), "3.17 0");
  EXPECT_EQ(Next(), "-1");
  EXPECT_EQ(Next(), "localhost -1");
  EXPECT_EQ(Next(), "127.0.0.1 0");
  EXPECT_EQ(Next(), "127.0.0.1 -1") << "one at a time";
  EXPECT_EQ(Next(), "0 77 0 127.0.0.1 secret enterprises.1");
  EXPECT_EQ(Next(), "-1 77");
  EXPECT_EQ(Next(), "close 0");
  EXPECT_EQ(Next(), "close -1");
  for (const char *expected : {"sets 0 0", "sets 0 1", "sets -1 1", "sets 0 0", "sets -1 0"}) {
    EXPECT_EQ(Next(), expected);
  }
  EXPECT_EQ(Next(), "end");
  EXPECT_EQ(Status(), 1);
}

}  // namespace
}  // namespace vex
