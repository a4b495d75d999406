// The SNMP process: who it is, what it may, and what becomes of managers' requests when it ends.
#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>

#include "framework/snmp/frames.h"
#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

std::string ProcFile(pid_t pid, const char *name) {
  return ReadFile("/proc/" + std::to_string(pid) + "/" + name);
}

// A line of /proc/PID/status, without its key.
std::string Status(pid_t pid, const std::string &key) {
  for (const std::string &line : Lines(ProcFile(pid, "status"))) {
    if (line.starts_with(key + ":\t")) {
      return line.substr(key.size() + 2);
    }
  }
  return "none";
}

// Somebody who has taken a thread over and makes system calls in its name. It must be waiting in
// one now; where it waited, it goes on.
class Intruder {
 public:
  explicit Intruder(pid_t pid) : pid_(pid) {
    int status = 0;
    if (ptrace(PTRACE_ATTACH, pid_, nullptr, nullptr) != 0 ||
        waitpid(pid_, &status, __WALL) != pid_) {
      ADD_FAILURE() << "cannot take over " << pid_ << ": " << strerror(errno);
      return;
    }
    inside_ = true;
    Registers(PTRACE_GETREGSET, &before_);
  }
  Intruder(const Intruder &) = delete;
  Intruder &operator=(const Intruder &) = delete;
  ~Intruder() {
    if (inside_) {
      Registers(PTRACE_SETREGSET, &before_);
      ptrace(PTRACE_DETACH, pid_, nullptr, nullptr);
    }
  }

  // What the call returns there: negative for an error. Texts are put into the thread's memory.
  struct Argument {
    // NOLINTBEGIN(google-explicit-constructor): calls are written as in C
    Argument(const char *what) : text(what) {}
    Argument(const std::string &what) : text(what) {}
    template <typename Number>
    Argument(Number what) : number(static_cast<unsigned long>(what)) {}
    // NOLINTEND(google-explicit-constructor)
    std::string text;
    unsigned long number = 0;
  };
  // last: the thread may be ended for it.
  long Call(long number, const std::vector<Argument> &arguments, bool last = false) {
    user_regs_struct now = before_;
    unsigned long free = StackOf(before_) - 16384;
    unsigned long values[6] = {};
    for (size_t i = 0; i < arguments.size(); i++) {
      values[i] = arguments[i].number;
      if (!arguments[i].text.empty()) {
        Write(free, arguments[i].text);
        values[i] = free;
        free += arguments[i].text.size() / 16 * 16 + 32;
      }
    }
#if defined(__x86_64__)
    now.rax = static_cast<unsigned long>(number);
    now.orig_rax = ~0UL;
    now.rip -= 2;  // the instruction by which it waits
    now.rdi = values[0], now.rsi = values[1], now.rdx = values[2];
    now.r10 = values[3], now.r8 = values[4], now.r9 = values[5];
#else
    now.regs[8] = static_cast<unsigned long>(number);
    now.pc -= 4;
    std::copy(values, values + 6, now.regs);
#endif
    Registers(PTRACE_SETREGSET, &now);
    int status = 0;
    if (ptrace(PTRACE_SINGLESTEP, pid_, nullptr, nullptr) != 0 ||
        waitpid(pid_, &status, __WALL) != pid_ || !WIFSTOPPED(status) || last) {
      inside_ = false;
      ptrace(PTRACE_DETACH, pid_, nullptr, nullptr);
      return 0;
    }
    Registers(PTRACE_GETREGSET, &now);
#if defined(__x86_64__)
    return static_cast<long>(now.rax);
#else
    return static_cast<long>(now.regs[0]);
#endif
  }
  // The same for people: "ok", or the error's name.
  std::string Try(long number, const std::vector<Argument> &arguments) {
    const long result = Call(number, arguments);
    return result >= 0 ? "ok" : strerrorname_np(static_cast<int>(-result));
  }

 private:
  void Registers(__ptrace_request request, user_regs_struct *registers) const {
    iovec where = {registers, sizeof(*registers)};
    EXPECT_EQ(ptrace(request, pid_, 1 /* NT_PRSTATUS */, &where), 0) << strerror(errno);
  }
  static unsigned long StackOf(const user_regs_struct &registers) {
#if defined(__x86_64__)
    return registers.rsp;
#else
    return registers.sp;
#endif
  }
  void Write(unsigned long at, const std::string &text) const {
    iovec from = {const_cast<char *>(text.c_str()), text.size() + 1};
    iovec to = {reinterpret_cast<void *>(at),
                text.size() + 1};  // NOLINT(performance-no-int-to-ptr)
    EXPECT_EQ(process_vm_writev(pid_, &from, 1, &to, 1, 0), static_cast<ssize_t>(text.size() + 1));
  }

  pid_t pid_;
  bool inside_ = false;
  user_regs_struct before_{};
};

// What an intruder would like to do, each with what came of it. other: a process that is not its
// own.
std::map<std::string, std::string> Tried(pid_t thread, pid_t other) {
  Intruder intruder(thread);
  std::map<std::string, std::string> tried;
  const auto open = [&](const std::string &what, const std::string &path, int flags) {
    const long fd = intruder.Call(SYS_openat, {AT_FDCWD, path, flags, 0600});
    tried[what] = fd >= 0 ? "ok" : strerrorname_np(static_cast<int>(-fd));
    if (fd >= 0) {
      intruder.Call(SYS_close, {fd});
    }
  };
  const iovec place = {reinterpret_cast<void *>(4096), 1};  // NOLINT(performance-no-int-to-ptr)
  const std::string anywhere(reinterpret_cast<const char *>(&place), sizeof(place));
  const std::string others = "/proc/" + std::to_string(other);
  open("read /etc/shadow", "/etc/shadow", O_RDONLY);
  open("write /etc/shadow", "/etc/shadow", O_WRONLY);
  open("make a file in /etc/cron.d", "/etc/cron.d/intruder", O_WRONLY | O_CREAT);
  open("make a unit of systemd's", "/etc/systemd/system/intruder.service", O_WRONLY | O_CREAT);
  open("make a program in /usr/bin", "/usr/bin/intruder", O_WRONLY | O_CREAT);
  open("write an object of the registry", MadeUpHost::kRegistry + std::string("/host/memory"),
       O_RDWR);
  open("make a file in the registry", MadeUpHost::kRegistry + std::string("/intruder"),
       O_WRONLY | O_CREAT);
  open("write another process's memory", others + "/mem", O_RDWR);
  open("make a file where it is", "intruder", O_WRONLY | O_CREAT);
  open("list its root directory", "/", O_RDONLY | O_DIRECTORY);
  tried["trace another process"] = intruder.Try(SYS_ptrace, {PTRACE_SEIZE, other, 0, 0});
  tried["read another process's memory"] =
      intruder.Try(SYS_process_vm_readv, {other, anywhere, 1, anywhere, 1, 0});
  tried["signal another process"] = intruder.Try(SYS_kill, {other, 0});
  tried["signal all processes"] = intruder.Try(SYS_kill, {-1, 0});
  tried["get hold of another process"] = intruder.Try(SYS_pidfd_open, {other, 0});
  tried["a socket of the network"] = intruder.Try(SYS_socket, {2, 2, 0});
  tried["a socket of the machine"] = intruder.Try(SYS_socket, {1, 1, 0});
  tried["a raw socket"] = intruder.Try(SYS_socket, {2, 3, 1});
  tried["a socket of the kernel's"] = intruder.Try(SYS_socket, {16, 3, 0});
  tried["start a program"] = intruder.Try(SYS_execve, {"/nowhere/program", 0, 0});
  tried["start a program by descriptor"] = intruder.Try(SYS_execveat, {3, "nowhere", 0, 0, 0});
  tried["become root"] = intruder.Try(SYS_setresuid, {0, 0, 0});
  tried["join root's group"] = intruder.Try(SYS_setgroups, {1, std::string(4, '\0')});
  tried["another root directory"] = intruder.Try(SYS_chroot, {"."});
  tried["a name space"] = intruder.Try(SYS_unshare, {0x10000000 /* CLONE_NEWUSER */});
  tried["mount"] = intruder.Try(SYS_mount, {"none", "/", "tmpfs", 0, 0});
  tried["memory for code"] = intruder.Try(SYS_mmap, {0, 4096, 7, 0x22, -1, 0});
  tried["memory that no limit counts, shared"] = intruder.Try(SYS_mmap, {0, 4096, 3, 0x21, -1, 0});
  tried["memory that no limit counts, of a stack"] =
      intruder.Try(SYS_mmap, {0, 4096, 3, 0x122, -1, 0});
  tried["code out of data"] = intruder.Try(SYS_mprotect, {0, 0, 4});
  tried["a program of the kernel's"] = intruder.Try(SYS_bpf, {0, 0, 0});
  tried["a queue for system calls"] = intruder.Try(SYS_io_uring_setup, {1, 0});
  tried["a key"] = intruder.Try(SYS_keyctl, {0, -3, 0});
  tried["let itself be traced"] = intruder.Try(SYS_prctl, {4 /* PR_SET_DUMPABLE */, 1, 0, 0, 0});
  tried["a file in memory"] = intruder.Try(SYS_memfd_create, {"x", 0});
  tried["a process"] = intruder.Try(SYS_clone, {0x11 /* SIGCHLD */, 1, 0, 0, 0});
  return tried;
}

// The same with the descriptors that it has.
std::map<std::string, std::string> TriedWithSockets(pid_t thread) {
  Intruder intruder(thread);
  std::map<std::string, std::string> tried;
  // 10.0.0.1, port 9.
  const std::string address("\x02\x00\x00\x09\x0a\x00\x00\x01\0\0\0\0\0\0\0\0", 16);
  for (const int fd : {3, 4, 5, 6, 7, 8}) {
    tried["connect to elsewhere: descriptor " + std::to_string(fd)] =
        intruder.Try(SYS_connect, {fd, address, 16});
    tried["send to elsewhere: descriptor " + std::to_string(fd)] =
        intruder.Try(SYS_sendto, {fd, "x", 1, 0, address, 16});
  }
  tried["send a message with any address"] = intruder.Try(SYS_sendmsg, {4, 0, 0});
  return tried;
}

}  // namespace

// The descriptor by which it speaks with the agent: the first of its sockets.
static int ChannelOf(pid_t pid) {
  int channel = -1;
  for (const std::string &file : OpenFiles(pid)) {
    channel = channel < 0 && file.find("socket:") != std::string::npos ? std::stoi(file) : channel;
  }
  return channel;
}

TEST(SnmpProcess, HasNoRights) {
  MadeUpHost host;
  host.Start();
  const pid_t pid = SnmpProcessOf(host.daemon.pid());
  ASSERT_GT(pid, 0) << host.daemon.Log();
  EXPECT_EQ(Status(pid, "Uid"), "990\t990\t990\t990");
  EXPECT_EQ(Status(pid, "Gid"), "990\t990\t990\t990");
  EXPECT_EQ(Status(pid, "Groups"), " ");
  for (const char *set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
    EXPECT_EQ(Status(pid, set), "0000000000000000") << set;
  }
  // What programs could get, if it could start one: where the unit has no right to take it away, it
  // is what the unit leaves.
  const bool confined = !DaemonLauncher().empty();
  EXPECT_EQ(Status(pid, "CapBnd"), confined ? "00000000000404c2" : "0000000000000000");
  EXPECT_EQ(Status(pid, "NoNewPrivs"), "1");
  EXPECT_EQ(Status(pid, "Seccomp"), "2");
  EXPECT_EQ(Status(pid, "Threads"), "1");
  EXPECT_EQ(Status(StarterOf(host.daemon.pid()), "CapEff"),
            confined ? "00000000000000c0" : "00000000000001c0");
  EXPECT_EQ(Status(StarterOf(host.daemon.pid()), "NoNewPrivs"), "1");
  // Three times nothing, its channel and the master.
  std::vector<std::string> files = OpenFiles(pid);
  EXPECT_EQ(files.size(), 5U);
  for (const std::string &file : files) {
    EXPECT_TRUE(file.find("socket:") != std::string::npos ||
                file.find("/dev/null") != std::string::npos)
        << file;
  }
  EXPECT_EQ(ListDirectory("/proc/" + std::to_string(pid) + "/root"), std::vector<std::string>{});
}

// Whoever takes it over by what it decodes gets nothing with it.
TEST(SnmpProcess, GivesAnIntruderNothing) {
  MadeUpHost host;
  host.File("/etc/shadow", "root:*:::::::\n", 0640);
  host.Start();
  const pid_t pid = SnmpProcessOf(host.daemon.pid());
  ASSERT_GT(pid, 0);
  ASSERT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
  std::map<std::string, std::string> tried = Tried(pid, host.daemon.pid());
  tried.merge(TriedWithSockets(pid));
  for (const auto &[what, result] : tried) {
    EXPECT_EQ(result, "EPERM") << what;
  }
  // What can only be read is no data, but takes page tables.
  EXPECT_EQ(Intruder(pid).Try(SYS_mmap, {0, 3L << 30, 1, 0x22, -1, 0}), "ENOMEM");
  // What it shares with the agent it cannot write, but for a page that the agent does not believe.
  int shared = 0;
  for (const std::string &line : Lines(ProcFile(pid, "maps"))) {
    if (line.find("/memfd:vexhostd ") != std::string::npos) {
      shared++;
      EXPECT_EQ(line.find(" rw-s ") != std::string::npos,
                line.find("/memfd:vexhostd control") != std::string::npos)
          << line;
    }
  }
  EXPECT_EQ(shared, 2);
  // All of that was no reason to do its work badly.
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
  EXPECT_EQ(SnmpProcessOf(host.daemon.pid()), pid);
}

// And whoever takes the agent over, confined as its unit says, does not get the SNMP process with
// it, nor what the starter alone needed.
TEST(SnmpProcess, IsOutOfReachOfTheAgent) {
  const std::string launcher =
      VEX_TESTS_UNIT_SANDBOX " " VEX_TESTS_SOURCE_DIR "/packaging/vexhostd.service.in";
  setenv("VEXHOSTD_LAUNCHER", launcher.c_str(), 1);
  MadeUpHost host;
  host.File("/etc/shadow", "root:*:::::::\n", 0640);
  for (const char *directory : {"/etc/cron.d", "/etc/systemd/system"}) {
    std::filesystem::create_directories(directory);
  }
  host.Start();
  const pid_t daemon = host.daemon.pid();
  const pid_t process = SnmpProcessOf(daemon);
  ASSERT_GT(process, 0);
  for (const char *set : {"CapEff", "CapPrm"}) {
    EXPECT_EQ(Status(daemon, set), "0000000000000402") << set;
  }
  std::map<std::string, std::string> tried = Tried(daemon, process);
  for (const char *what :
       {"write another process's memory", "trace another process", "read another process's memory",
        "signal another process", "join root's group", "another root directory", "a name space",
        "mount", "a program of the kernel's", "a queue for system calls", "a key", "a raw socket",
        "a socket of the kernel's", "memory for code"}) {
    EXPECT_NE(tried[what], "ok") << what;
  }
  // What it keeps of root's, which the threat model says.
  for (const char *what :
       {"read /etc/shadow", "write /etc/shadow", "make a file in /etc/cron.d",
        "make a unit of systemd's", "make a program in /usr/bin", "write an object of the registry",
        "make a file in the registry", "list its root directory", "signal all processes",
        "a socket of the network", "a socket of the machine", "a process"}) {
    EXPECT_EQ(tried[what], "ok") << what;
  }
}

// Ended again and again while a manager walks: a request may be lost with it, and nothing else; it
// is back within a tenth of a second as a rule, with everything that was published.
TEST(SnmpProcess, IsBackAtOnceWithEverything) {
  MadeUpHost host;
  host.Start();
  const std::vector<std::string> whole = host.Walk();
  ASSERT_GT(whole.size(), 20U);
  std::vector<double> away;
  for (int life = 0; life < 20; life++) {
    const pid_t pid = SnmpProcessOf(host.daemon.pid());
    ASSERT_GT(pid, 0) << life << host.daemon.Log();
    const double begin = Now();
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    ASSERT_TRUE(Eventually([&] {
      const auto answer = QuickGet(MadeUpHost::Oid("tlxHoPhysicalMemorySize").substr(1), 0.02);
      return answer && answer->tag == 2 && answer->number == 2000;
    })) << life
        << host.daemon.Log();
    away.push_back(Now() - begin);
    ASSERT_TRUE(host.daemon.WaitServed());
    EXPECT_EQ(host.Walk(), whole) << life;
  }
  printf("away for %.0f ms as a rule, %.0f ms at most\n", Percentile(away, 50) * 1000,
         Percentile(away, 100) * 1000);
  // A busy machine may give it no processor for once.
  EXPECT_LT(Percentile(away, 50), 0.1);
  EXPECT_EQ(host.daemon.Count("The SNMP process has ended (signal 9); starting another"), 20U)
      << host.daemon.Log();
  // What is published while there is none is there with the next.
  const pid_t pid = SnmpProcessOf(host.daemon.pid());
  host.Proc("meminfo", "MemTotal: 4096 kB\n");
  kill(pid, SIGKILL);
  ASSERT_TRUE(host.daemon.Poll());
  ASSERT_TRUE(host.daemon.WaitServed());
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 4");
}

namespace {

// Ends a daemon's SNMP process again and again, until it is told to stop.
class Killer {
 public:
  Killer(pid_t daemon, double pause)
      : thread_([this, daemon, pause] {
          while (!stop_) {
            const pid_t pid = SnmpProcessOf(daemon);
            if (pid > 0 && kill(pid, SIGKILL) == 0) {
              killed_++;
            }
            Pause(pause);
          }
        }) {}
  Killer(const Killer &) = delete;
  Killer &operator=(const Killer &) = delete;
  ~Killer() {
    Stop();
  }
  int Killed() const {
    return killed_;
  }
  int Stop() {
    stop_ = true;
    if (thread_.joinable()) {
      thread_.join();
    }
    return killed_;
  }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<int> killed_{0};
  std::thread thread_;
};

}  // namespace

// A set that a manager heard noError of was applied, once; any other one not more than once.
TEST(SnmpProcess, AppliesASetOnceWhateverEndsIt) {
  MadeUpHost host;
  host.StartTestAgent();
  std::map<int, std::string> outcomes;
  Killer killer(host.daemon.pid(), 0.11);
  for (int number = 1000; killer.Killed() < 20 && number < 1500; number++) {
    outcomes[number] = host.Set("tlxHoOsCommonPollFreq", 'i', std::to_string(number));
  }
  const int killed = killer.Stop();
  EXPECT_GE(killed, 20);
  ASSERT_TRUE(host.daemon.WaitServed());
  Pause(1);  // a set that is applied too late would be now
  int told = 0;
  for (const auto &[number, outcome] : outcomes) {
    const size_t applied = host.daemon.Count("number apply " + std::to_string(number) + " length");
    if (outcome == "noError") {
      told++;
      EXPECT_EQ(applied, 1U) << number;
    } else {
      EXPECT_LE(applied, 1U) << number << " " << outcome;
    }
  }
  printf("%d of %zu sets told applied over %d ends\n", told, outcomes.size(), killed);
  EXPECT_GT(told, 0);
  EXPECT_EQ(host.Set("tlxHoOsCommonPollFreq", 'i', "7"), "noError");
  EXPECT_EQ(host.Get("tlxHoOsCommonPollFreq"), "INTEGER: 7");
}

// No notification is lost. One that the master took in the moment of the end may come twice.
TEST(SnmpProcess, LosesNoNotification) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  constexpr int kTraps = 1000;  // more than are kept while the master is away
  Killer killer(host.daemon.pid(), 0.09);
  for (int i = 0; i < kTraps / 40; i++) {
    ASSERT_TRUE(host.Order("trap 40\n"));
  }
  Pause(1);
  const int killed = killer.Stop();
  EXPECT_GE(killed, 5);
  const auto arrived = [&] {
    std::map<std::string, int> times;
    for (const Trap &trap : host.traps.Received()) {
      times[trap.variables.back()]++;
    }
    return times;
  };
  EXPECT_TRUE(Eventually([&] { return arrived().size() >= kTraps; })) << arrived().size();
  int twice = 0;
  for (const auto &[trap, times] : arrived()) {
    twice += times > 1 ? 1 : 0;
  }
  printf("%d notifications over %d ends, %d of them twice\n", kTraps, killed, twice);
}

// One that hangs is ended, and another one answers.
TEST(SnmpProcess, ThatHangsIsReplaced) {
  MadeUpHost host;
  host.Start();
  const pid_t pid = SnmpProcessOf(host.daemon.pid());
  ASSERT_GT(pid, 0);
  ASSERT_EQ(kill(pid, SIGSTOP), 0);
  EXPECT_TRUE(Eventually([&] { return !ProcessExists(pid); }, 30));
  ASSERT_TRUE(host.daemon.WaitServed());
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
  EXPECT_EQ(host.daemon.Count("The SNMP process has ended (it does not answer)"), 1U)
      << host.daemon.Log();
}

// A line of its is one of the log's, and moves nobody's terminal.
TEST(SnmpProcess, LogsNothingThatIsNotALineOfPrintableAscii) {
  MadeUpHost host;
  host.Start();
  const pid_t pid = SnmpProcessOf(host.daemon.pid());
  ASSERT_GT(pid, 0);
  const auto say = [](Intruder *intruder, int channel, const std::string &text) {
    const vex::FrameWriter frame = std::move(vex::FrameWriter(vex::FrameType::kLog).PutText(text));
    const long size = static_cast<long>(frame.Bytes().size());
    EXPECT_EQ(intruder->Call(SYS_sendto, {channel, frame.Bytes(), size, 0, 0, 0}), size);
  };
  {
    Intruder intruder(pid);
    const int channel = ChannelOf(pid);
    for (const char *empty : {"", "\n", " \n\n"}) {
      say(&intruder, channel, empty);
    }
    say(&intruder, channel,
        "said \x9b"
        "2J \xe2\x80\xae and \xe2\x80\xa8 by it\n");
  }
  EXPECT_TRUE(Eventually([&] { return host.daemon.Count("said ") == 1; })) << host.daemon.Log();
  EXPECT_EQ(host.daemon.LinesWith("said "), std::vector<std::string>{"said ?2J ??? and ??? by it"});
  EXPECT_EQ(host.daemon.Log().find("\n\n"), std::string::npos) << host.daemon.Log();
}

// Neither what a service was started with nor what its user's shell knew is left in it.
TEST(SnmpProcess, KnowsNothingOfTheAgentsEnvironment) {
  constexpr char kSecret[] = "tell-nobody";
  MadeUpHost host;
  host.snmpd.Start();
  DaemonOptions options;
  options.environment.emplace_back("MADE_UP_SECRET", kSecret);
  host.daemon.Start(options);
  const auto knows = [&](pid_t pid) {
    return ReadFile("/proc/" + std::to_string(pid) + "/environ").find(kSecret) != std::string::npos;
  };
  ASSERT_TRUE(knows(host.daemon.pid()));
  for (const pid_t pid : {SnmpProcessOf(host.daemon.pid()), StarterOf(host.daemon.pid())}) {
    ASSERT_GT(pid, 0);
    EXPECT_FALSE(knows(pid)) << pid;
  }
}

// What takes it over may tell the agent anything: it is replaced, and the agent goes on.
TEST(SnmpProcess, ThatSaysNonsenseIsReplaced) {
  MadeUpHost host;
  host.Start();
  const pid_t pid = SnmpProcessOf(host.daemon.pid());
  ASSERT_GT(pid, 0);
  Intruder(pid).Call(SYS_sendto, {ChannelOf(pid), std::string(16, '\xee'), 16, 0, 0, 0}, true);
  EXPECT_TRUE(Eventually([&] { return !ProcessExists(pid); }));
  ASSERT_TRUE(host.daemon.WaitServed());
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
  EXPECT_EQ(host.daemon.Count("The SNMP process has ended"), 1U) << host.daemon.Log();
}

// Its end is nobody else's: the starter goes with the agent, and the process with the starter.
TEST(SnmpProcess, EndsWithTheAgent) {
  MadeUpHost host;
  host.Start();
  const pid_t pid = SnmpProcessOf(host.daemon.pid());
  const pid_t starter = StarterOf(host.daemon.pid());
  ASSERT_GT(pid, 0);
  // Both stopped, so that they cannot see for themselves that there is nobody left.
  StopProcess(pid);
  StopProcess(starter);
  EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
  EXPECT_TRUE(Eventually([&] { return !ProcessExists(starter); })) << Status(starter, "State");
  EXPECT_TRUE(Eventually([&] { return !ProcessExists(pid); })) << Status(pid, "State");
}

// Without its starter there is no next process, and the agent cannot fork one by then: it ends with
// a message, and whoever keeps it starts it anew.
TEST(SnmpProcess, TheEndOfItsStarterEndsTheAgent) {
  MadeUpHost host;
  host.Start();
  const pid_t pid = SnmpProcessOf(host.daemon.pid());
  ASSERT_GT(pid, 0);
  ASSERT_EQ(kill(StarterOf(host.daemon.pid()), SIGKILL), 0);
  EXPECT_EQ(host.daemon.WaitEnd(), 1);
  EXPECT_EQ(host.daemon.Count("its starter has ended"), 1U) << host.daemon.Log();
  EXPECT_TRUE(Eventually([&] { return !ProcessExists(pid); })) << Status(pid, "State");
}

// One that hangs makes no process either.
TEST(SnmpProcess, AStarterThatHangsEndsTheAgent) {
  MadeUpHost host;
  host.Start();
  const pid_t starter = StarterOf(host.daemon.pid());
  ASSERT_EQ(kill(starter, SIGSTOP), 0);
  // Nothing is wanted of it yet.
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
  ASSERT_EQ(kill(SnmpProcessOf(host.daemon.pid()), SIGKILL), 0);
  ASSERT_TRUE(
      Eventually([&] { return host.daemon.Count("its starter does not answer") == 1; }, 40));
  EXPECT_EQ(host.daemon.WaitEnd(), 1);
  EXPECT_TRUE(Eventually([&] { return !ProcessExists(starter); }));
}

// Without the user, or when it is root, there is a thread instead, and a line that says so.
TEST(SnmpProcess, IsAThreadWithoutItsUser) {
  const std::string root = "root:x:0:0:root:/root:/bin/sh\n";
  for (const std::string &users :
       {root, root + "_vexhostd:x:0:0::/nonexistent:/usr/sbin/nologin\n"}) {
    MadeUpHost host;
    host.File("/etc/passwd", users);
    host.Start();
    EXPECT_EQ(StarterOf(host.daemon.pid()), -1);
    EXPECT_EQ(host.daemon.Count("Info: the SNMP side is no process of its own: there is no "
                                "unprivileged user _vexhostd"),
              1U)
        << host.daemon.Log();
    EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
    EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "role"), "noError");
  }
}

// What others have made of the file of users costs neither the start nor the process.
TEST(SnmpProcess, FindsItsUserAmongBrokenLines) {
  std::string users = "root:x:0:0:root:/root:/bin/sh\n";
  const std::vector<std::string> broken = {"\n",
                                           ":\n",
                                           ":::::::::\n",
                                           "_vexhostd\n",
                                           "_vexhostd:x\n",
                                           "_vexhostd:x:0:0:not root:/:/\n",
                                           "_vexhostd:x:-1:many:/:/\n",
                                           "#\n",
                                           "+::::::\n",
                                           std::string(5000, 'a') + ":x:5:5::/:/\n",
                                           std::string("zero\0:x:1:1::/:/\n", 16),
                                           "\x80\xff:x:1:1::/:/\n"};
  for (const std::string &line : broken) {
    users += line;
  }
  MadeUpHost host;
  host.File("/etc/passwd", users + "_vexhostd:x:64990:64990::/nonexistent:/usr/sbin/nologin");
  host.Start();
  EXPECT_NE(StarterOf(host.daemon.pid()), -1) << host.daemon.Log();
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
  printf("%zu malformed\n", broken.size());
}
