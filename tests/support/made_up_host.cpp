#include "tests/support/made_up_host.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "framework/snmp/mib_table.h"
#include "platform/framework.h"

namespace made_up {

namespace fs = std::filesystem;

namespace {

const std::string kOwn = MadeUpHost::kDirectory;
const std::string kSnmpdLog = kOwn + "/snmpd.log";
const std::string kTrapLog = kOwn + "/snmptrapd.log";
const std::string kDaemonLog = kOwn + "/vexhostd.log";
const std::string kProbeFile = kOwn + "/probe";
const std::string kRealProc = kOwn + "/real-proc";

constexpr char kEnterprise[] = ".1.3.6.1.4.1.4891";
constexpr char kSysUpTime[] = "1.3.6.1.2.1.1.3.0";
// A scalar of the modules with an instance that it never has: noSuchInstance from the daemon,
// noSuchObject when it is not registered.
constexpr char kServedProbe[] = "tlxHoMibRevMajor.77";

constexpr char kSnmpdConf[] =
    "rocommunity public 127.0.0.1\n"
    "rwcommunity private 127.0.0.1\n"
    "master agentx\n"
    "dontLogTCPWrappersConnects yes\n";
// Over TCP, so that a burst is not lost on a busy machine.
constexpr char kTrapAddress[] = "tcp:127.0.0.1:162";
constexpr char kTrapdConf[] =
    "disableAuthorization yes\n"
    "doNotLogTraps no\n"
    "outputOption n\n"
    "format2 TRAP\\t%v\\n\n";
constexpr char kSnmpUser[] = "_vexhostd:x:990:990::/nonexistent:/usr/sbin/nologin\n";
constexpr char kFewModules[] = "-Isnmp_mib,system_mib,vacm_vars,vacm_conf,usmUser,usmConf,agentx";

constexpr char kStat[] =
    "cpu  2000 100 1000 16900 0 0 0 0 0 0\n"
    "cpu0 1000 50 500 8450 0 0 0 0 0 0\n"
    "cpu1 1000 50 500 8450 0 0 0 0 0 0\n"
    "intr 0\nctxt 0\nbtime 1700000000\nprocesses 1\nprocs_running 1\nprocs_blocked 0\n";
constexpr char kMeminfo[] =
    "MemTotal:        2048000 kB\n"
    "MemFree:         1024000 kB\n"
    "MemAvailable:    1500000 kB\n"
    "Buffers:               0 kB\n"
    "SwapTotal:       1024000 kB\n"
    "SwapFree:         512000 kB\n";
constexpr char kCpuinfo[] =
    "processor\t: 0\nvendor_id\t: GenuineIntel\nmodel name\t: Made-up CPU @ 2.00GHz\n"
    "physical id\t: 0\ncore id\t\t: 0\n\n"
    "processor\t: 1\nvendor_id\t: GenuineIntel\nmodel name\t: Made-up CPU @ 2.00GHz\n"
    "physical id\t: 0\ncore id\t\t: 1\n\n";
constexpr char kOsRelease[] =
    "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nNAME=\"Debian GNU/Linux\"\n"
    "VERSION_ID=\"12\"\nVERSION=\"12 (bookworm)\"\nVERSION_CODENAME=bookworm\nID=debian\n";

std::string Prefix() {
  const char *prefix = getenv("VEXHOSTD_PREFIX");
  return prefix != nullptr ? prefix : "";
}

// What the daemon under test was built with: of this build, or as the environment says for a daemon
// of another one.
bool ThreadSanitized() {
  const char *other = getenv("VEXHOSTD_SANITIZER");
  const std::string sanitizer = other != nullptr ? other : VEX_TESTS_SANITIZER;
  return sanitizer.find("thread") != std::string::npos;
}

// The words of an environment variable; none when it is not set.
std::vector<std::string> WordsOf(const char *variable) {
  const char *text = getenv(variable);
  std::vector<std::string> words;
  std::istringstream stream(text != nullptr ? text : "");
  for (std::string word; stream >> word;) {
    words.push_back(word);
  }
  return words;
}

// VEXHOSTD_SNMPD, another snmpd with options of its own, or the one that is installed.
std::vector<std::string> SnmpdCommand() {
  std::vector<std::string> command = WordsOf("VEXHOSTD_SNMPD");
  return command.empty() ? std::vector<std::string>{"snmpd"} : command;
}

std::string Trimmed(std::string text) {
  text.erase(text.find_last_not_of(" \n") + 1);
  return text;
}

ProcessOptions ToolOptions() {
  ProcessOptions options;
  options.environment = {{"SNMP_PERSISTENT_DIR", kOwn + "/tools"}, {"SNMPCONFPATH", kOwn}};
  return options;
}

// An SNMP command with this host's addressing.
Outcome Tool(const std::string &tool, const std::string &community,
             const std::vector<std::string> &options, const std::vector<std::string> &operands) {
  std::vector<std::string> command = {tool,  "-v2c", "-c",  community,
                                      "-On", "-t5",  "-r0", "--hexOutputLength=0"};
  command.insert(command.end(), options.begin(), options.end());
  command.emplace_back("127.0.0.1");
  command.insert(command.end(), operands.begin(), operands.end());
  return RunCommand(command, ToolOptions());
}

void WriteWhole(const std::string &path, std::string_view text, int mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  bool done = fd >= 0 && fchmod(fd, static_cast<mode_t>(mode)) == 0;
  for (size_t at = 0; done && at < text.size();) {
    ssize_t put = write(fd, text.data() + at, text.size() - at);
    done = put > 0;
    at += done ? static_cast<size_t>(put) : 0;
  }
  EXPECT_TRUE(done) << path << ": " << strerror(errno);
  if (fd >= 0) {
    close(fd);
  }
}

// What a walk printed of the OIDs below root, and its errors.
std::vector<std::string> Walked(const std::string &tool, const std::vector<std::string> &options,
                                const std::string &root) {
  Outcome outcome = Tool(tool, "public", options, {root});
  std::vector<std::string> lines;
  bool inside = false;
  for (const std::string &line : Lines(outcome.out)) {
    bool begins = line.starts_with(".1.3.6.1");
    inside = begins ? line.starts_with(root + ".") &&
                          line.find(" = No more variables left") == std::string::npos
                    : inside;
    if (inside && begins) {
      lines.push_back(Trimmed(line));
    } else if (inside) {
      lines.back() += "\n" + line;  // a string with a line's end in it
    }
  }
  if (outcome.status != 0) {
    lines.push_back(Trimmed(outcome.err));
  }
  return lines;
}

}  // namespace

double Percentile(std::vector<double> values, double percent) {
  if (values.empty()) {
    return 0;
  }
  std::sort(values.begin(), values.end());
  auto at = static_cast<size_t>(percent / 100 * static_cast<double>(values.size()));
  return values[std::min(at, values.size() - 1)];
}

std::string DaemonPath() {
  return Prefix().empty() ? VEX_TESTS_BINARY_DIR "/bin/vexhostd" : Prefix() + "/sbin/vexhostd";
}

std::vector<std::string> DaemonLauncher() {
  return WordsOf("VEXHOSTD_LAUNCHER");
}

std::string VexregPath() {
  return Prefix().empty() ? VEX_TESTS_BINARY_DIR "/bin/vexreg" : Prefix() + "/bin/vexreg";
}

std::string StandInPath() {
  return Prefix().empty() ? VEX_TESTS_BINARY_DIR "/bin/vexhostd-standin"
                          : Prefix() + "/libexec/vexhostd-standin";
}

std::string TestAgentPath() {
  const char *other = getenv("VEXHOSTD_TEST_AGENT");
  return other != nullptr ? other : VEX_TESTS_AGENT;
}

// ---- snmpd --------------------------------------------------------------------------------------

void Snmpd::Start(const SnmpdOptions &options) {
  host_->File(
      "/etc/snmp/snmpd.conf",
      kSnmpdConf +
          (host_->traps.Running() ? "trap2sink " + std::string(kTrapAddress) + " public\n" : "") +
          options.extra);
  std::vector<std::string> command = SnmpdCommand();
  command.insert(command.end(), {"-f", "-Lf", kSnmpdLog, "-C", "-c", "/etc/snmp/snmpd.conf"});
  if (!options.all_modules) {
    command.emplace_back(kFewModules);
  }
  command.emplace_back("udp:127.0.0.1:161");
  ProcessOptions process;
  process.environment = {{"SNMP_PERSISTENT_DIR", kOwn + "/snmpd"}};
  process.log = kOwn + "/snmpd.out";
  process.real_proc = true;
  process_.Start(command, process);
  ASSERT_TRUE(Eventually([] { return QuickGet(kSysUpTime, 0.05).has_value(); }))
      << "snmpd does not answer:\n"
      << Log();
}

void Snmpd::Stop() {
  process_.Signal(SIGTERM);
  ASSERT_TRUE(process_.Wait()) << "snmpd does not end";
}

void Snmpd::Kill() {
  process_.Signal(SIGKILL);
  ASSERT_TRUE(process_.Wait());
}

std::string Snmpd::Log() const {
  return ReadFile(kOwn + "/snmpd.out") + ReadFile(kSnmpdLog);
}

// ---- snmptrapd ----------------------------------------------------------------------------------

void TrapReceiver::Start() {
  WriteWhole(kOwn + "/snmptrapd.conf", kTrapdConf, 0644);
  ProcessOptions options;
  options.environment = {{"SNMP_PERSISTENT_DIR", kOwn + "/snmptrapd"}};
  options.log = kOwn + "/snmptrapd.out";
  options.real_proc = true;
  process_.Start({"snmptrapd", "-f", "-n", "-On", "-Lf", kTrapLog, "-C", "-c",
                  kOwn + "/snmptrapd.conf", "--hexOutputLength=0", kTrapAddress},
                 options);
  // Port 162, listening.
  ASSERT_TRUE(Eventually([] {
    return ReadFile("/proc/self/net/tcp").find("0100007F:00A2 00000000:0000 0A") !=
           std::string::npos;
  })) << ReadFile(kOwn + "/snmptrapd.out")
      << ReadFile(kTrapLog);
}

std::vector<Trap> TrapReceiver::Received() const {
  std::vector<Trap> traps;
  std::string text = ReadFile(kTrapLog);
  const std::string mark = "TRAP\t";
  for (size_t at = text.find(mark); at != std::string::npos;) {
    size_t next = text.find("\n" + mark, at);
    std::string one = text.substr(
        at + mark.size(), next == std::string::npos ? std::string::npos : next - at - mark.size());
    at = next == std::string::npos ? next : next + 1;
    // The time stamp, the trap's OID, and its variables, with tabs between them.
    Trap trap;
    std::vector<std::string> fields;
    for (size_t from = 0; from <= one.size();) {
      size_t end = std::min(one.find('\t', from), one.size());
      fields.push_back(Trimmed(one.substr(from, end - from)));
      from = end + 1;
    }
    const std::string head = ".1.3.6.1.6.3.1.1.4.1.0 = OID: ";
    if (fields.size() < 2 || !fields[1].starts_with(head)) {
      continue;
    }
    trap.oid = fields[1].substr(head.size());
    trap.variables.assign(fields.begin() + 2, fields.end());
    if (trap.oid.starts_with(kEnterprise)) {
      traps.push_back(trap);
    }
  }
  return traps;
}

std::vector<Trap> TrapReceiver::WaitFor(size_t count, double seconds) const {
  Eventually([&] { return Received().size() >= count; }, seconds);
  return Received();
}

// ---- vexhostd -----------------------------------------------------------------------------------

void Daemon::Start(const DaemonOptions &options) {
  ProcessOptions process;
  process.log = kDaemonLog;
  process.environment = options.environment;
  process.fixed_addresses = ThreadSanitized();
  process.environment.emplace_back("ASAN_OPTIONS", "verify_asan_link_order=0:exitcode=99");
  process.environment.emplace_back("UBSAN_OPTIONS", "print_stacktrace=1:exitcode=99");
  process.environment.emplace_back("TSAN_OPTIONS", "exitcode=99");
  if (page_ != nullptr) {
    munmap(page_, sizeof(*page_));
  }
  page_ = nullptr;
  held_ = options.probe && !options.polls_by_itself;
  if (options.probe) {
    WriteWhole(kProbeFile, std::string(sizeof(ProbePage), '\0'), 0644);
    int fd = open(kProbeFile.c_str(), O_RDWR | O_CLOEXEC);
    void *at = mmap(nullptr, sizeof(ProbePage), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    ASSERT_NE(at, MAP_FAILED);
    page_ = static_cast<ProbePage *>(at);
    page_->quick_start = options.quick_start ? 1 : 0;
    page_->sleep_percent = 100;
    page_->clock_offset_ns = static_cast<int64_t>(options.clock_offset * 1e9);
    page_->hold_alarms = held_ ? 1 : 0;
    page_->clock_stands_ns = options.clock_stands * 1'000'000'000;
    SetFault(options.fault);
    const std::pair<const std::string &, char *> texts[] = {
        {options.kernel.release, page_->kernel_release},
        {options.kernel.version, page_->kernel_version},
        {options.kernel.machine, page_->machine}};
    for (const auto &[text, field] : texts) {
      ASSERT_LT(text.size(), sizeof(page_->machine));
      strcpy(field, text.c_str());
    }
  }
  std::vector<std::string> command = DaemonLauncher();
  command.insert(command.end(), options.launcher.begin(), options.launcher.end());
  const bool launched = !command.empty();
  if (options.probe) {
    const std::string libraries =
        VEX_TESTS_PROBE + (options.preload.empty() ? "" : ":" + options.preload);
    const std::pair<std::string, std::string> variables[] = {{"LD_PRELOAD", libraries},
                                                             {kProbeVariable, kProbeFile}};
    for (const auto &[name, value] : variables) {
      // The launcher does not get the library.
      if (launched) {
        command.push_back(name + "=" + value);
      } else {
        process.environment.emplace_back(name, value);
      }
    }
  }
  command.push_back(options.program.empty() ? DaemonPath() : options.program);
  command.insert(command.end(), options.arguments.begin(), options.arguments.end());
  ended_ = false;
  process_.Start(command, process);
  if (!options.wait) {
    return;
  }
  if (options.probe) {
    ASSERT_TRUE(WaitStarted(30)) << "start-up does not end:\n" << Log();
  }
  if (host_->snmpd.Running()) {
    ASSERT_TRUE(WaitServed(30)) << "the daemon is not served by snmpd:\n"
                                << Log() << host_->snmpd.Log();
  }
}

bool Daemon::WaitStarted(double seconds) {
  if (page_ == nullptr) {
    return WaitServed(seconds);
  }
  Eventually([&] { return page_->alarms > 0 || !Running(); }, seconds);
  return page_->alarms > 0;
}

bool Daemon::WaitServed(double seconds) {
  bool served = false;
  const std::string oid = MadeUpHost::Oid(kServedProbe);
  Eventually(
      [&] {
        auto answer = QuickGet(oid, 0.5);
        served = answer && answer->error == 0 && answer->tag == 0x81;
        return served || !Running();
      },
      seconds);
  return served;
}

void Daemon::BeginPoll() {
  process_.Signal(SIGALRM);
}

bool Daemon::Poll(double seconds) {
  if (page_ == nullptr || !held_) {
    ADD_FAILURE() << "Poll() needs the probe, and polls that nothing else begins";
    return false;
  }
  uint32_t before = page_->alarms;
  BeginPoll();
  return Eventually([&] { return page_->alarms > before; }, seconds);
}

int Daemon::Stop(int signal) {
  process_.Signal(signal);
  return WaitEnd().value_or(-1);
}

std::optional<int> Daemon::WaitEnd(double seconds) {
  auto status = process_.Wait(seconds);
  if (status && !ended_) {
    ended_ = true;
    CheckLog();
  }
  return status;
}

void Daemon::CheckLog() {
  std::string log = Log();
  for (const char *sign : {"Sanitizer", "runtime error: "}) {
    EXPECT_EQ(log.find(sign), std::string::npos) << "a sanitizer's report:\n" << log;
  }
}

std::string Daemon::Log() const {
  return ReadFile(kDaemonLog);
}

std::vector<std::string> Daemon::LogLines() const {
  return Lines(Log());
}

std::vector<std::string> Daemon::LinesWith(std::string_view text) const {
  std::vector<std::string> lines = LogLines();
  std::erase_if(lines,
                [&](const std::string &line) { return line.find(text) == std::string::npos; });
  return lines;
}

size_t Daemon::Count(std::string_view text) const {
  return LinesWith(text).size();
}

bool Daemon::WaitLog(std::string_view text, double seconds) const {
  return Eventually([&] { return Log().find(text) != std::string::npos; }, seconds);
}

unsigned Daemon::Polls() const {
  // The first alarm is set at the end of start-up.
  uint32_t alarms = page_ != nullptr ? page_->alarms.load() : 0;
  return alarms > 0 ? alarms - 1 : 0;
}

unsigned Daemon::AlarmSeconds() const {
  return page_ != nullptr ? page_->alarm_seconds.load() : 0;
}

unsigned Daemon::Sleeps() const {
  return page_ != nullptr ? page_->sleeps.load() : 0;
}

void Daemon::AdvanceClock(double seconds) {
  StepClock(seconds);
  page_->age_offset_ns += static_cast<int64_t>(seconds * 1e9);
}

void Daemon::StepClock(double seconds) {
  ASSERT_NE(page_, nullptr);
  page_->clock_offset_ns += static_cast<int64_t>(seconds * 1e9);
}

void Daemon::SetSleepPercent(unsigned percent) {
  ASSERT_NE(page_, nullptr);
  page_->sleep_percent = percent;
}

void Daemon::SetCardReply(const std::string &reply) {
  ASSERT_NE(page_, nullptr);
  ASSERT_LE(reply.size(), sizeof(page_->card_reply));
  memcpy(page_->card_reply, reply.data(), reply.size());
  page_->card_answers = 1;
}

void Daemon::SetFault(const Fault &fault) {
  ASSERT_NE(page_, nullptr);
  page_->fault_count = 0;
  ASSERT_LT(fault.call.size(), sizeof(page_->fault_call));
  ASSERT_LT(fault.path.size(), sizeof(page_->fault_path));
  strcpy(page_->fault_call, fault.call.c_str());
  strcpy(page_->fault_path, fault.path.c_str());
  page_->fault_error = fault.error;
  page_->fault_count = fault.count;
}

void Daemon::RefuseSegments(bool refuse) {
  ASSERT_NE(page_, nullptr);
  page_->refuse_shmat = refuse ? 1 : 0;
}

// ---- the host -----------------------------------------------------------------------------------

MadeUpHost::MadeUpHost() {
  for (const char *name : {"", "/bin", "/files", "/tools"}) {
    fs::create_directories(kOwn + name);
  }
  for (const char *path : {"/etc/snmp", "/var/lib/snmp", "/var/agentx", "/etc/quorix",
                           "/var/spool/quorix", "/var/lib/quorix", "/root/.snmp"}) {
    Remove(path);
  }
  for (const char *path : {"/etc/snmp", "/var/lib/snmp", "/var/agentx"}) {
    Directory(path);
  }
  for (const char *name : {"rpm", "vmkfstools", "vdf"}) {
    for (const char *directory :
         {"/usr/local/bin/", "/usr/local/sbin/", "/usr/bin/", "/usr/sbin/", "/bin/", "/sbin/"}) {
      Remove(std::string(directory) + name);
    }
  }
  // The user of the SNMP process, which the package makes; VEXHOSTD_ONE_PROCESS=1 is a machine
  // without it.
  std::string users;
  for (const std::string &line : Lines(ReadFile("/etc/passwd"))) {
    users += line.starts_with("_vexhostd:") ? "" : line + "\n";
  }
  const bool one_process = getenv("VEXHOSTD_ONE_PROCESS") != nullptr;
  File("/etc/passwd", users + (one_process ? "" : kSnmpUser));
  File("/etc/os-release", kOsRelease);
  File("/etc/mtab", "/dev/sda1 / ext4 rw,relatime 0 0\n");
  Proc("stat", kStat);
  Proc("meminfo", kMeminfo);
  Proc("cpuinfo", kCpuinfo);
  Proc("loadavg", "0.20 0.18 1.12 1/80 11206\n");
  Proc("uptime", "350735.47 234388.90\n");
}

MadeUpHost::~MadeUpHost() {
  if (!blocked_name_.empty()) {
    UnblockProc("");
  }
  if (snmpd.Running()) {
    snmpd.Thaw();
  }
  if (daemon.Running()) {
    daemon.Signal(SIGCONT);
    int status = daemon.Stop();
    EXPECT_EQ(status, 0) << "how the daemon ended";
  } else if (daemon.pid() > 0) {
    daemon.WaitEnd();
  }
  if (testing::Test::HasFailure()) {
    printf("---- vexhostd's log\n%s---- snmpd's log\n%s----\n", daemon.Log().c_str(),
           snmpd.Log().c_str());
  }
}

void MadeUpHost::Start(const std::vector<std::string> &arguments) {
  snmpd.Start();
  daemon.Start(arguments);
}

void MadeUpHost::StartTestAgent(const std::vector<std::string> &arguments, bool with_snmpd) {
  if (with_snmpd && !snmpd.Running()) {
    snmpd.Start();
  }
  DaemonOptions options;
  options.program = TestAgentPath();
  options.arguments = arguments;
  daemon.Start(options);
}

void MadeUpHost::SetOrders(const std::string &orders) {
  File(kOwn + "/orders", orders);
}

bool MadeUpHost::Order(const std::string &orders, double seconds) {
  SetOrders(orders);
  return daemon.Poll(seconds);
}

void MadeUpHost::File(const std::string &path, std::string_view text, int mode) {
  if (path.starts_with("/proc/") && !composed_) {
    Proc(path.substr(strlen("/proc/")), text);
    return;
  }
  if (path.starts_with("/proc/")) {
    Unfold(path.substr(strlen("/proc/")));
  }
  Directory(fs::path(path).parent_path());
  std::string fresh = path + ".made-up";
  WriteWhole(fresh, text, mode);
  EXPECT_EQ(rename(fresh.c_str(), path.c_str()), 0) << path << ": " << strerror(errno);
}

void MadeUpHost::Script(const std::string &path, const std::string &body) {
  File(path, "#!/bin/sh\n" + body + "\n", 0755);
}

void MadeUpHost::Command(const std::string &name, const std::string &body) {
  Script(kOwn + "/bin/" + name, body);
}

void MadeUpHost::Directory(const std::string &path) {
  std::error_code error;
  fs::create_directories(path, error);
  EXPECT_FALSE(error) << path << ": " << error.message();
}

void MadeUpHost::Remove(const std::string &path) {
  std::error_code error;
  fs::remove_all(path, error);
  EXPECT_FALSE(error) << path << ": " << error.message();
}

void MadeUpHost::Link(const std::string &path, const std::string &target) {
  Directory(fs::path(path).parent_path());
  Remove(path);
  EXPECT_EQ(symlink(target.c_str(), path.c_str()), 0) << path << ": " << strerror(errno);
}

std::string MadeUpHost::BoundFile(const std::string &name, std::string_view text) {
  std::string base = name;
  std::replace(base.begin(), base.end(), '/', '-');
  std::string path = kOwn + "/files/" + std::to_string(files_++) + "-" + base;
  WriteWhole(path, text, 0444);
  return path;
}

void MadeUpHost::Bind(const std::string &file, const std::string &over) {
  EXPECT_EQ(mount(file.c_str(), over.c_str(), nullptr, MS_BIND, nullptr), 0)
      << over << ": " << strerror(errno)
      << " (an entry that the machine does not have needs ComposeProc())";
}

void MadeUpHost::Proc(const std::string &name, std::string_view text) {
  if (composed_) {
    File("/proc/" + name, text, 0444);
  } else {
    Bind(BoundFile(name, text), "/proc/" + name);  // over what was bound there before: at once
  }
}

void MadeUpHost::BlockProc(const std::string &name) {
  ASSERT_TRUE(blocked_name_.empty());
  blocked_name_ = name;
  blocked_fifo_ = kOwn + "/files/" + std::to_string(files_++) + "-fifo";
  ASSERT_EQ(mkfifo(blocked_fifo_.c_str(), 0644), 0);
  if (composed_) {
    Unfold(name);
    Link("/proc/" + name, blocked_fifo_);
  } else {
    Bind(blocked_fifo_, "/proc/" + name);
  }
}

bool MadeUpHost::WaitBlocked(double seconds) {
  return Eventually(
      [&] {
        if (blocked_fd_ < 0) {
          blocked_fd_ = open(blocked_fifo_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        }
        return blocked_fd_ >= 0;
      },
      seconds);
}

void MadeUpHost::UnblockProc(std::string_view text) {
  ASSERT_FALSE(blocked_name_.empty());
  Proc(blocked_name_, text);
  WaitBlocked(0);
  if (blocked_fd_ >= 0) {
    EXPECT_EQ(write(blocked_fd_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(blocked_fd_);
  }
  blocked_fd_ = -1;
  blocked_name_.clear();
}

void MadeUpHost::ComposeProc() {
  ASSERT_FALSE(composed_);
  // The entries that are covered already are carried over as files.
  Directory(kRealProc);
  ASSERT_EQ(mount("proc", kRealProc.c_str(), "proc", 0, nullptr), 0) << strerror(errno);
  std::vector<std::pair<std::string, std::string>> covered;
  for (const char *name : {"stat", "meminfo", "cpuinfo", "loadavg", "uptime"}) {
    covered.emplace_back(name, ReadFile(std::string("/proc/") + name));
  }
  ASSERT_EQ(mount("made-up", "/proc", "tmpfs", 0, "mode=755"), 0) << strerror(errno);
  composed_ = true;
  auto link = [](const std::string &name) {
    EXPECT_EQ(symlink((kRealProc + "/" + name).c_str(), ("/proc/" + name).c_str()), 0) << name;
  };
  for (const std::string &name : ListDirectory(kRealProc)) {
    if (name.find_first_not_of("0123456789") != std::string::npos && name != "net" &&
        name != "driver" && name != "scsi" && name != "ide") {
      link(name);
    }
  }
  // Processes to come have their place already; who is not there reads as a missing file.
  for (int pid = 1; pid < 3000; pid++) {
    link(std::to_string(pid));
  }
  Directory("/proc/net");
  for (const std::string &name : ListDirectory(kRealProc + "/self/net")) {
    EXPECT_EQ(symlink((kRealProc + "/self/net/" + name).c_str(), ("/proc/net/" + name).c_str()), 0);
  }
  for (const auto &[name, text] : covered) {
    File("/proc/" + name, text, 0444);
  }
}

void MadeUpHost::Unfold(const std::string &name) {
  for (size_t slash = name.find('/'); slash != std::string::npos;
       slash = name.find('/', slash + 1)) {
    const std::string directory = name.substr(0, slash);
    const std::string real = kRealProc + "/" + directory;
    std::error_code error;
    if (!fs::is_symlink("/proc/" + directory, error) || !fs::is_directory(real, error)) {
      continue;
    }
    // Made beside and exchanged, so that a reader finds the one or the other.
    const std::string fresh = "/proc/made-up-directory";
    Directory(fresh);
    for (const std::string &entry : ListDirectory(real)) {
      EXPECT_EQ(symlink((real + "/" + entry).c_str(), (fresh + "/" + entry).c_str()), 0) << entry;
    }
    EXPECT_EQ(renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, ("/proc/" + directory).c_str(),
                        RENAME_EXCHANGE),
              0)
        << directory << ": " << strerror(errno);
    Remove(fresh);
  }
}

void MadeUpHost::Hostname(const std::string &name) {
  EXPECT_EQ(sethostname(name.data(), name.size()), 0);
}

void MadeUpHost::Interface(const std::string &name, const std::string &address) {
  // Which kinds a kernel offers differs; any of them has a hardware address.
  std::string errors;
  for (const char *kind : {"dummy", "bridge", "veth", "ifb"}) {
    Outcome outcome =
        RunCommand({"ip", "link", "add", "name", name, "address", address, "type", kind});
    if (outcome.status == 0) {
      return;
    }
    errors += outcome.err;
  }
  ADD_FAILURE() << "no interface " << name << ":\n" << errors;
}

pid_t MadeUpHost::Peer(const std::vector<std::string> &words) {
  // A copy of its own gives the process its name, too.
  std::string program = kOwn + "/peers/" + fs::path(words.at(0)).filename().string();
  Directory(kOwn + "/peers");
  fs::copy_file(VEX_TESTS_PEER, program, fs::copy_options::skip_existing);
  auto peer = std::make_unique<Process>();
  ProcessOptions options;
  options.name = words.at(0);
  std::vector<std::string> command = {program};
  command.insert(command.end(), words.begin() + 1, words.end());
  peer->Start(command, options);
  pid_t pid = peer->pid();
  std::string line;
  for (const std::string &word : words) {
    line += word + '\0';
  }
  EXPECT_TRUE(
      Eventually([&] { return ReadFile("/proc/" + std::to_string(pid) + "/cmdline") == line; }));
  peers_.push_back(std::move(peer));
  return pid;
}

void MadeUpHost::EndPeer(pid_t pid) {
  for (auto &peer : peers_) {
    if (peer->pid() == pid) {
      peer->Signal(SIGKILL);
      EXPECT_TRUE(peer->Wait());
    }
  }
}

// ---- the manager --------------------------------------------------------------------------------

std::string MadeUpHost::Oid(const std::string &name) {
  if (name.empty() || name[0] == '.') {
    return name;
  }
  size_t dot = name.find('.');
  const vex::MibVariable *variable = vex::FindMibVariable(name.substr(0, dot));
  if (variable == nullptr) {
    ADD_FAILURE() << name << " is in no MIB module";
    return ".0";
  }
  std::string oid;
  for (uint32_t id : variable->Oid()) {
    oid += "." + std::to_string(id);
  }
  if (dot != std::string::npos) {
    return oid + name.substr(dot);
  }
  return variable->column ? oid : oid + ".0";
}

std::string MadeUpHost::Get(const std::string &name) {
  return GetTogether({name}).front();
}

std::vector<std::string> MadeUpHost::GetTogether(const std::vector<std::string> &names) {
  std::vector<std::string> oids;
  for (const std::string &name : names) {
    oids.push_back(Oid(name));
  }
  Outcome outcome = Tool("snmpget", "public", {"-Ov"}, oids);
  std::vector<std::string> values;
  for (const std::string &line : Lines(outcome.out)) {
    values.push_back(Trimmed(line));
  }
  if (outcome.status != 0 || values.empty()) {
    return {Trimmed(outcome.err)};
  }
  return values;
}

std::string MadeUpHost::GetNext(const std::string &oid) {
  Outcome outcome = Tool("snmpgetnext", "public", {}, {Oid(oid)});
  return Trimmed(outcome.status == 0 ? outcome.out : outcome.err);
}

std::vector<std::string> MadeUpHost::Walk(const std::string &root) {
  return Walked("snmpwalk", {"-CI"}, root.empty() ? kEnterprise : Oid(root));
}

std::vector<std::string> MadeUpHost::BulkWalk(const std::string &root) {
  return Walked("snmpbulkwalk", {"-Cr50"}, root.empty() ? kEnterprise : Oid(root));
}

std::vector<std::string> MadeUpHost::Column(const std::string &name) {
  std::vector<std::string> values;
  std::string head = Oid(name) + ".";
  for (const std::string &line : Walk(name)) {
    size_t equals = line.find(" = ");
    if (!line.starts_with(head) || equals == std::string::npos) {
      values.push_back(line);
    } else {
      values.push_back(line.substr(head.size(), equals - head.size()) + ": " +
                       line.substr(equals + 3));
    }
  }
  return values;
}

std::string MadeUpHost::Set(const std::vector<SetValue> &values, const std::string &community) {
  std::vector<std::string> operands;
  for (const SetValue &value : values) {
    operands.push_back(Oid(value.name));
    operands.emplace_back(1, value.type);
    operands.push_back(value.value);
  }
  Outcome outcome = Tool("snmpset", community, {}, operands);
  if (outcome.status == 0) {
    return "noError";
  }
  const std::string reason = "Reason: ";
  size_t at = outcome.err.find(reason);
  if (at != std::string::npos) {
    std::string name = outcome.err.substr(at + reason.size());
    return name.substr(0, name.find_first_of(" \n"));
  }
  if (outcome.err.find("Timeout") != std::string::npos) {
    return "timeout";
  }
  return Trimmed(outcome.err);
}

// ---- the sibling --------------------------------------------------------------------------------

Outcome MadeUpHost::Vexreg(const std::vector<std::string> &arguments) {
  std::vector<std::string> command = {VexregPath()};
  command.insert(command.end(), arguments.begin(), arguments.end());
  ProcessOptions options;
  options.fixed_addresses = ThreadSanitized();
  return RunCommand(command, options);
}

std::string MadeUpHost::Dump(const std::vector<std::string> &names) {
  std::vector<std::string> arguments = {"dump"};
  arguments.insert(arguments.end(), names.begin(), names.end());
  Outcome outcome = Vexreg(arguments);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  return outcome.out;
}

std::optional<vex::FileObject> MadeUpHost::Object(const std::string &name) {
  return vex::ReadObjectFile(name);
}

std::string MadeUpHost::Published(const std::string &object, const std::string &variable) {
  auto found = Object(object);
  if (!found) {
    return "absent";
  }
  for (const vex::FileVariable &one : found->variables) {
    if (one.name != variable) {
      continue;
    }
    const auto *at = reinterpret_cast<const char *>(found->data.data()) + one.offset;
    if (one.type == VAR_INTEGER) {
      int32_t value;
      memcpy(&value, at, sizeof(value));
      return std::to_string(value);
    }
    if (one.type == VAR_DISPLAY_STRING) {
      return {at, strnlen(at, one.size)};
    }
    return {at, one.length};
  }
  return "absent";
}

}  // namespace made_up
