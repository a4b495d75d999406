// A made-up host: a private copy of this machine's file system with made-up facts in it, a real
// snmpd on loopback, the real vexhostd behind it, and a manager's and a sibling's view of both.
// tests/README.md shows how a scenario is written.
//
// One MadeUpHost a test. Files are written as on any machine (the root is private and
// copy-on-write, /run and /tmp are empty, /sys/firmware is empty); /proc is the scenario's own PID
// namespace's, with the entries that Proc() covers.
#ifndef VEX_TESTS_SUPPORT_MADE_UP_HOST_H
#define VEX_TESTS_SUPPORT_MADE_UP_HOST_H

#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "framework/registry/registry_file.h"
#include "tests/support/probe.h"
#include "tests/support/process.h"
#include "tests/support/snmp_client.h"

namespace made_up {

class MadeUpHost;

struct SnmpdOptions {
  std::string extra;         // further lines of snmpd.conf
  bool all_modules = false;  // with snmpd's own MIB modules (slower to start)
};

// The host's master agent, at udp:127.0.0.1:161. Communities "public" (read) and "private" (write).
class Snmpd {
 public:
  explicit Snmpd(MadeUpHost *host) : host_(host) {}
  void Start(const SnmpdOptions &options = {});  // until it answers
  void Stop();                                   // SIGTERM, until it has ended
  void Kill();                                   // SIGKILL
  void Freeze() {
    process_.Signal(SIGSTOP);
  }
  void Thaw() {
    process_.Signal(SIGCONT);
  }
  bool Running() {
    return process_.Running();
  }
  pid_t pid() const {
    return process_.pid();
  }
  std::string Log() const;

 private:
  MadeUpHost *host_;
  Process process_;
};

struct Trap {
  std::string oid;                     // snmpTrapOID: ".1.3.6.1.4.1.4891.0.11003"
  std::vector<std::string> variables;  // ".1.3... = INTEGER: 5", in order, without the first two
};

// snmptrapd at tcp:127.0.0.1:162. Started before snmpd, which then sends it every notification.
class TrapReceiver {
 public:
  bool Running() {
    return process_.Running();
  }
  void Start();
  // What has arrived of the suite's notifications so far, in order of arrival.
  std::vector<Trap> Received() const;
  // Waits until that many have arrived.
  std::vector<Trap> WaitFor(size_t count, double seconds = 15) const;

 private:
  Process process_;
};

// What uname() tells the daemon beside the host's name.
struct Kernel {
  std::string release, version, machine;
};

// Calls of the daemon that fail: those of one kind ("open", also openat; "fstat", "read", "fsync")
// for a path that ends so, that many times from now on.
struct Fault {
  std::string call, path;
  int error = 0;
  int count = 0;
};

struct DaemonOptions {
  std::vector<std::string> arguments = {"-p", "15"};
  // Without the preloaded probe the daemon runs as it is: a real start-up delay, real alarms, the
  // machine's clock.
  bool probe = true;
  bool quick_start = true;       // the start-up delay of five seconds is left out
  bool polls_by_itself = false;  // else it polls when Poll() says so, and only then
  double clock_offset = 0;       // seconds that its wall clock begins ahead
  int64_t clock_stands = 0;      // seconds since the epoch at which it stands; 0: it runs
  Kernel kernel;                 // an empty release: the machine's own
  Fault fault;                   // none
  bool wait = true;              // until start-up is complete and snmpd (when it runs) serves it
  Environment environment;
  std::string program;  // another agent instead of vexhostd
  // Words that stand right before the daemon, like DaemonLauncher()'s; and a library that is
  // preloaded beside the probe.
  std::vector<std::string> launcher;
  std::string preload;
};

class Daemon {
 public:
  explicit Daemon(MadeUpHost *host) : host_(host) {}
  void Start(const DaemonOptions &options = {});
  void Start(const std::vector<std::string> &arguments) {
    DaemonOptions options;
    options.arguments = arguments;
    Start(options);
  }
  // One poll, to its end. False when it did not end within that time.
  bool Poll(double seconds = 15);
  // Begins a poll and does not wait for it.
  void BeginPoll();
  // Waits until start-up is complete: the first alarm is set.
  bool WaitStarted(double seconds = 15);
  // Waits until snmpd answers for the daemon's subtree.
  bool WaitServed(double seconds = 15);
  // Ends it with SIGTERM; the exit status, or 128 and a signal, or -1 when it does not end.
  int Stop(int signal = SIGTERM);
  std::optional<int> WaitEnd(double seconds = 15);
  void Signal(int number) {
    process_.Signal(number);
  }
  bool Running() {
    return process_.Running();
  }
  pid_t pid() const {
    return process_.pid();
  }
  // Standard error (and output) so far; Count() its lines that contain the text.
  std::string Log() const;
  std::vector<std::string> LogLines() const;
  std::vector<std::string> LinesWith(std::string_view text) const;
  size_t Count(std::string_view text) const;
  bool WaitLog(std::string_view text, double seconds = 15) const;
  // Polls done since its start, and the period that its last alarm asked for.
  unsigned Polls() const;
  unsigned AlarmSeconds() const;
  unsigned Sleeps() const;
  // Lets time pass for the daemon: on its wall clock, and on the clock of ages (CLOCK_BOOTTIME).
  void AdvanceClock(double seconds);
  // Sets its wall clock alone, as an administrator does.
  void StepClock(double seconds);
  // Percentage of each later sleep() that is really slept; 0 for none.
  void SetSleepPercent(unsigned percent);
  // What the remote management card's ioctl() answers from now on; it fails before.
  void SetCardReply(const std::string &reply);
  // Lets calls fail from now on.
  void SetFault(const Fault &fault);
  // Lets no shared-memory segment be attached from now on, or again.
  void RefuseSegments(bool refuse);

 private:
  friend class MadeUpHost;
  void CheckLog();

  MadeUpHost *host_;
  Process process_;
  ProbePage *page_ = nullptr;
  bool ended_ = true;
  bool held_ = false;
};

// One variable of a set request: its name or OID, the type as snmpset(1) has it, the value.
struct SetValue {
  std::string name;
  char type;
  std::string value;
};

class MadeUpHost {
 public:
  // A plain server: two processors, 2000 MB of memory, 1000 MB of swap, one ext4 root in
  // /etc/mtab, Debian's os-release, no SMBIOS tables, no package tools of other distributions,
  // nothing below /etc/quorix, /var/spool/quorix, /var/lib/quorix and /run/quorix.
  MadeUpHost();
  // Ends everything; the daemon must end with status 0 and nothing a sanitizer complains of.
  ~MadeUpHost();
  MadeUpHost(const MadeUpHost &) = delete;
  MadeUpHost &operator=(const MadeUpHost &) = delete;

  Snmpd snmpd{this};
  TrapReceiver traps;
  Daemon daemon{this};

  // snmpd and vexhostd, up and served.
  void Start(const std::vector<std::string> &arguments = {"-p", "15"});

  // The tests' own agent (test_agent.cpp) instead of vexhostd, with snmpd before it unless the
  // scenario has started one or wants none.
  void StartTestAgent(const std::vector<std::string> &arguments = {"plain"},
                      bool with_snmpd = true);
  // Gives the test agent its orders and lets it poll.
  bool Order(const std::string &orders, double seconds = 15);
  void SetOrders(const std::string &orders);

  // ---- The host's facts. Parents are made; a file appears at once or not at all. ----
  void File(const std::string &path, std::string_view text, int mode = 0644);
  void Script(const std::string &path, const std::string &body);  // "#!/bin/sh" and the body
  // A command in front of the daemon's PATH.
  void Command(const std::string &name, const std::string &body);
  void Directory(const std::string &path);
  void Remove(const std::string &path);  // recursively
  void Link(const std::string &path, const std::string &target);
  // Covers /proc/NAME ("stat", "meminfo", "cpuinfo", "loadavg", "uptime"), and replaces it at once
  // at each later call. A name that the machine's /proc does not have needs ComposeProc() first.
  // snmpd does not see it.
  void Proc(const std::string &name, std::string_view text);
  // Covers /proc/NAME with a FIFO, so that who reads it is blocked until Unblock().
  void BlockProc(const std::string &name);
  // Waits until somebody is blocked reading it.
  bool WaitBlocked(double seconds = 15);
  // Lets the reader go on with that text, which is then also what /proc/NAME has.
  void UnblockProc(std::string_view text);
  // Makes /proc a tmpfs whose entries are links into the real one, so that File("/proc/driver/...")
  // can add what the machine does not have. Call it before Proc().
  void ComposeProc();
  void Hostname(const std::string &name);
  // An interface with that hardware address ("52:54:00:12:34:56").
  void Interface(const std::string &name, const std::string &address);
  // A process whose command line is the words, e.g. {"tlxstdeqd", "-p", "15"}; its PID.
  // At SIGUSR1 it maps the file that the second word names.
  pid_t Peer(const std::vector<std::string> &words);
  void EndPeer(pid_t pid);

  // ---- The manager. Names are those of the MIB modules: "tlxHoPhysicalMemorySize" (its .0),
  // "tlxHoCpuUtilMin.1" (a row), or a numeric OID in full. ----
  static std::string Oid(const std::string &name);
  // The value with its type as snmpget prints it, e.g. "INTEGER: 2000", "STRING: \"x\"", "\"\""
  // for an empty string, or the text of the exception or error.
  std::string Get(const std::string &name);
  std::vector<std::string> GetTogether(const std::vector<std::string> &names);  // one request
  // ".1.3.6.1... = INTEGER: 5"
  std::string GetNext(const std::string &oid);
  std::vector<std::string> Walk(const std::string &root = "");      // GetNext; "": all of 4891
  std::vector<std::string> BulkWalk(const std::string &root = "");  // GetBulk
  // The values of one column, by row number: "1: INTEGER: 5".
  std::vector<std::string> Column(const std::string &name);
  // "noError", or the error's name ("notWritable", "wrongType", ...), or "timeout".
  std::string Set(const std::vector<SetValue> &values, const std::string &community = "private");
  std::string Set(const std::string &name, char type, const std::string &value) {
    return Set({{name, type, value}});
  }

  // ---- The sibling agent. ----
  Outcome Vexreg(const std::vector<std::string> &arguments);
  // `vexreg dump NAMES...`: its output; a failure of the test when it exits otherwise than 0.
  std::string Dump(const std::vector<std::string> &names = {});
  // The published object read from its file; vex::FileObject as it stands.
  static std::optional<vex::FileObject> Object(const std::string &name);
  // The object's integer or string variable as text; "absent" when there is none.
  static std::string Published(const std::string &object, const std::string &variable);
  // Names of all object files.
  static std::vector<std::string> Objects() {
    return vex::ListObjects();
  }

  static constexpr char kDirectory[] = "/run/made-up";  // the kit's own files
  static constexpr char kRegistry[] = "/var/spool/quorix/kelmo/registry";

 private:
  std::string BoundFile(const std::string &name, std::string_view text);
  // Makes the directories above an entry of the composed /proc its own, of links to the real one's.
  void Unfold(const std::string &name);
  void Bind(const std::string &file, const std::string &over);

  std::vector<std::unique_ptr<Process>> peers_;
  unsigned files_ = 0;
  bool composed_ = false;
  std::string blocked_name_, blocked_fifo_;
  int blocked_fd_ = -1;
};

// The value that stands `percent` from the bottom of the sorted values.
double Percentile(std::vector<double> values, double percent);

// Programs and files of the build (or of VEXHOSTD_PREFIX, an installed tree).
std::string DaemonPath();
// VEXHOSTD_LAUNCHER: words that stand before the daemon, a command that confines it and takes, like
// env(1), NAME=VALUE words and the command to run. Usually none.
std::vector<std::string> DaemonLauncher();
std::string VexregPath();
std::string StandInPath();  // vexhostd-standin
std::string TestAgentPath();

}  // namespace made_up

#endif
