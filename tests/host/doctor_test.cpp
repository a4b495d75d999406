// `vexreg doctor` on hosts where something usual is wrong.
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <optional>
#include <thread>

#include "framework/process/descriptor.h"
#include "framework/snmp/mib_table.h"
#include "tests/support/fuse_mount.h"
#include "tests/support/made_up_host.h"
#include "tests/support/simulated_controller.h"
#include "tests/support/smbios_tables.h"

using namespace made_up;

namespace {

constexpr double kBound = 12;  // seconds that it may take, whatever hangs, on a busy machine

class Doctor : public testing::Test {
 protected:
  // Publications stay young for the whole test.
  void Start() {
    host_.snmpd.Start();
    host_.daemon.Start({"-p", "60"});
  }
  void Examine(std::vector<std::string> options = {}) {
    options.insert(options.begin(), "doctor");
    const double begin = Now();
    outcome_ = host_.Vexreg(options);
    EXPECT_LT(Now() - begin, kBound);
    EXPECT_EQ(outcome_.err, "");
  }
  // As a user without rights.
  void ExamineUnprivileged() {
    // The build's own directory may be closed to others.
    const std::string copy = "/usr/local/bin/vexreg-for-all";
    std::filesystem::copy_file(VexregPath(), copy);
    ProcessOptions options;
    options.fixed_addresses = true;  // it may be sanitized
    options.environment = {{"HOME", "/nonexistent"}};
    outcome_ = RunCommand(
        {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", copy, "doctor"}, options);
    EXPECT_EQ(outcome_.err, "");
  }
  // The one line about a thing, with its verdict.
  std::string About(const std::string &thing) const {
    std::vector<std::string> found;
    for (const std::string &line : Lines(outcome_.out)) {
      if (line.size() > 6 && line.substr(6).starts_with(thing)) {
        found.push_back(line);
      }
    }
    return found.size() == 1 ? found[0] : "lines about it: " + std::to_string(found.size());
  }
  size_t Count(const std::string &verdict) const {
    size_t count = 0;
    for (const std::string &line : Lines(outcome_.out)) {
      count += line.starts_with(verdict) ? 1 : 0;
    }
    return count;
  }
  static bool Has(const std::string &line, const std::string &text) {
    return line.find(text) != std::string::npos;
  }

  MadeUpHost host_;
  Outcome outcome_;
};

using Oid = std::vector<uint32_t>;

// An snmpd that answers as a test says, however odd: a GET or GETNEXT of one variable by SNMPv2c.
class OddMaster {
 public:
  struct Answer {
    int error = 0;
    Oid name;
    std::optional<uint8_t> number = 1;  // else the value is a text
  };
  // Nothing: no answer.
  using Rule = std::function<std::optional<Answer>(bool next, const Oid &asked)>;

  explicit OddMaster(Rule rule) : rule_(std::move(rule)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(161);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    thread_ = std::thread([this] { Serve(); });
  }
  ~OddMaster() {
    eventfd_write(end_.get(), 1);
    thread_.join();
  }
  OddMaster(const OddMaster &) = delete;
  OddMaster &operator=(const OddMaster &) = delete;

 private:
  // Everything here is shorter than 128 octets, so that a length is one (X.690).
  static std::string Field(int tag, const std::string &body) {
    return std::string{static_cast<char>(tag), static_cast<char>(body.size())} + body;
  }
  static std::string Encoded(const Oid &oid) {
    std::string text(1, static_cast<char>(oid.at(0) * 40 + oid.at(1)));
    for (size_t i = 2; i < oid.size(); i++) {
      std::string digits(1, static_cast<char>(oid[i] & 0x7F));
      for (uint32_t rest = oid[i] >> 7; rest > 0; rest >>= 7) {
        digits.insert(0, 1, static_cast<char>(0x80 | (rest & 0x7F)));
      }
      text += digits;
    }
    return text;
  }
  static Oid Decoded(const std::string &text) {
    Oid oid = {static_cast<uint32_t>(text.at(0) / 40), static_cast<uint32_t>(text.at(0) % 40)};
    uint32_t number = 0;
    for (const char c : text.substr(1)) {
      number = number << 7 | (static_cast<unsigned char>(c) & 0x7F);
      if ((c & 0x80) == 0) {
        oid.push_back(number);
        number = 0;
      }
    }
    return oid;
  }
  // Takes a field with its tag off the front.
  static std::string Take(std::string *from, int *tag = nullptr) {
    const size_t length = static_cast<unsigned char>(from->at(1));
    if (tag != nullptr) {
      *tag = static_cast<unsigned char>(from->at(0));
    }
    std::string body = from->substr(2, length);
    from->erase(0, 2 + length);
    return body;
  }
  std::string Reply(std::string request) {
    std::string message = Take(&request);
    const std::string version = Take(&message);
    if (version != "\1") {
      return "";  // a question to an engine of SNMPv3
    }
    const std::string community = Take(&message);
    int kind = 0;
    std::string pdu = Take(&message, &kind);
    const std::string id = Take(&pdu);
    Take(&pdu);
    Take(&pdu);
    std::string list = Take(&pdu);
    std::string variable = Take(&list);
    const auto answer = rule_(kind == 0xA1, Decoded(Take(&variable)));
    if (!answer) {
      return "";
    }
    const std::string value = answer->number
                                  ? Field(2, std::string(1, static_cast<char>(*answer->number)))
                                  : Field(4, "text");
    return Field(
        0x30,
        Field(2, version) + Field(4, community) +
            Field(0xA2, Field(2, id) + Field(2, std::string(1, static_cast<char>(answer->error))) +
                            Field(2, std::string(1, '\0')) +
                            Field(0x30, Field(0x30, Field(6, Encoded(answer->name)) + value))));
  }
  void Serve() {
    for (;;) {
      pollfd waited[] = {{socket_.get(), POLLIN, 0}, {end_.get(), POLLIN, 0}};
      if (poll(waited, 2, -1) > 0 && waited[1].revents != 0) {
        return;
      }
      char buffer[2048];
      sockaddr_in from = {};
      socklen_t length = sizeof(from);
      const ssize_t got = recvfrom(socket_.get(), buffer, sizeof(buffer), 0,
                                   reinterpret_cast<sockaddr *>(&from), &length);
      const std::string reply =
          got > 0 ? Reply(std::string(buffer, static_cast<size_t>(got))) : std::string();
      if (!reply.empty()) {
        sendto(socket_.get(), reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&from),
               length);
      }
    }
  }

  const Rule rule_;
  const vex::Descriptor socket_{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  const vex::Descriptor end_{eventfd(0, EFD_CLOEXEC)};
  std::thread thread_;
};

const Oid kSubtreeOid = {vex::MibGroups().front().oid,
                         vex::MibGroups().front().oid + vex::MibGroups().front().oid_length};
const Oid kUpTime = {1, 3, 6, 1, 2, 1, 1, 3, 0};

Oid Numbers(const char *variable, std::initializer_list<uint32_t> more = {}) {
  const vex::MibVariable *found = vex::FindMibVariable(variable);
  Oid oid(found->Oid().begin(), found->Oid().end());
  oid.insert(oid.end(), more);
  return oid;
}

bool IsBelow(const Oid &oid, const Oid &root) {
  return oid.size() >= root.size() && std::equal(root.begin(), root.end(), oid.begin());
}

#define EXPECT_HAS(line, text) EXPECT_TRUE(Has(line, text)) << (line) << "\n" << outcome_.out

}  // namespace

TEST_F(Doctor, FindsAllWell) {
  host_.File("/var/lib/dpkg/available", "");
  Start();
  Examine();
  EXPECT_EQ(outcome_.status, 0) << outcome_.out;
  EXPECT_EQ(Count("FAIL"), 0U) << outcome_.out;
  const std::string snmpd = std::to_string(host_.snmpd.pid());
  const std::string daemon = std::to_string(host_.daemon.pid());
  EXPECT_EQ(About("snmpd: "), "ok    snmpd: runs (process " + snmpd + ").");
  EXPECT_EQ(About("vexhostd: "), "ok    vexhostd: runs (process " + daemon + ").");
  EXPECT_EQ(About("community: "), "ok    community: the first read community of snmpd.conf.");
  EXPECT_EQ(About("AgentX socket "), "ok    AgentX socket /var/agentx/master: somebody listens.");
  EXPECT_EQ(About("snmpd on UDP"),
            "ok    snmpd on UDP port 161 of 127.0.0.1: answers to the first read community of "
            "snmpd.conf.");
  EXPECT_EQ(About("subtree "), "ok    subtree .1.3.6.1.4.1.4891: visible.");
  EXPECT_EQ(About("value: "),
            "ok    value: tlxHoPhysicalMemoryFree is 1000 through snmpd and in the registry.");
  EXPECT_HAS(About("group cpu: "), "ok    group cpu: 2 rows, last published ");
  EXPECT_HAS(About("group cpu: "), " ago (each 60 s).");
  EXPECT_HAS(About("group filesys: "), "ok    group filesys: 1 row, last published ");
  for (const char *group : {"memory", "info", "misc"}) {
    EXPECT_HAS(About(std::string("group ") + group + ": "), "ok    group ");
  }
  EXPECT_HAS(About("package list: "), "ok    ");
  for (const char *source :
       {"processor times: ", "memory sizes: ", "mount table: ", "distribution: "}) {
    EXPECT_HAS(About(source), "ok    ");
  }
}

TEST_F(Doctor, SourcesThatAreAbsentAreNoError) {
  host_.Remove("/var/lib/dpkg/available");
  host_.Remove("/etc/os-release");
  host_.Remove("/usr/lib/os-release");
  Start();
  Examine();
  EXPECT_EQ(outcome_.status, 0) << outcome_.out;
  for (const char *thing :
       {"SMBIOS tables: none", "EV ZTHRN4: none", "EV ZTHUV: none", "management controller: none",
        "appliance: no ", "package list: ", "distribution: ", "group hwinfo: not",
        "group fwver: not", "group appliance: not"}) {
    EXPECT_HAS(About(thing), "note  ");
  }
}

TEST_F(Doctor, SeesTheSourcesThatAreThere) {
  host_.Directory("/sys/firmware/dmi/tables");
  vex::WriteSmbios(vex::AssembleSmbios("entry 2.8\n1: 01 02 to=27 \"Maker\" \"Box\"\n"),
                   "/sys/firmware/dmi/tables");
  host_.File("/var/lib/quorix/ev/ZTHRN4", std::string(5, '\x01'));
  host_.File("/var/lib/quorix/ev/ZTHUV", std::string(136, '\x01'));
  host_.File("/etc/quorix/appliance.conf", "ProductID=7\nProductName=Box\n");
  const vex::SimulatedController controller;
  Start();
  const int accepted = controller.Accepted();
  Examine();
  EXPECT_EQ(outcome_.status, 0) << outcome_.out;
  // What it owes it may give to whoever connects next: not doctor.
  EXPECT_EQ(controller.Accepted(), accepted);
  for (const char *thing :
       {"SMBIOS tables: read", "EV ZTHRN4: read", "EV ZTHUV: read", "management controller: /run",
        "appliance: described", "group hwinfo: last", "group fwver: ", "group appliance: last"}) {
    EXPECT_HAS(About(thing), "ok    ");
  }
}

TEST_F(Doctor, TellsOfMalformedSources) {
  host_.File("/sys/firmware/dmi/tables/smbios_entry_point", "rubbish");
  host_.File("/sys/firmware/dmi/tables/DMI", "rubbish");
  host_.Directory("/var/lib/quorix/ev/ZTHRN4");
  Start();
  Examine();
  EXPECT_EQ(outcome_.status, 0) << outcome_.out;
  EXPECT_HAS(About("SMBIOS: /sys"), "note  ");
  EXPECT_HAS(About("EV ZTHRN4: /var"), "note  ");
}

// What the agent does not use is not "ok".
TEST_F(Doctor, TellsOfSourcesThatTheAgentTakesAsAbsent) {
  host_.File("/var/lib/quorix/ev/ZTHRN4", std::string(4, '\x01'));
  host_.File("/etc/quorix/appliance.conf", "ProductID=7\nProductName\n");
  host_.File("/etc/os-release", "NAME=Box\nrubbish\n");
  host_.File("/usr/lib/os-release", "NAME=Other\n");
  Start();
  EXPECT_EQ(host_.Get("tlxHoName"), "STRING: \"Other \"");
  Examine();
  EXPECT_EQ(outcome_.status, 0) << outcome_.out;
  EXPECT_EQ(About("EV ZTHRN4: "),
            "note  EV ZTHRN4: has 4 bytes of the 5 that are needed. The class of the hardware is "
            "not published.");
  EXPECT_HAS(About("group hwinfo: "), "note  ");
  EXPECT_HAS(About("appliance: "),
             "note  appliance: /etc/quorix/appliance.conf: line 2 is broken, file not used. ");
  EXPECT_EQ(About("distribution: "),
            "note  distribution: /etc/os-release: line 2 is broken, file not used. It is described "
            "by /usr/lib/os-release.");
  host_.File("/usr/lib/os-release", "rubbish\n");
  host_.File("/etc/quorix/appliance.conf", "ProductID=many\n");
  Examine();
  EXPECT_EQ(
      About("distribution: "),
      "note  distribution: /etc/os-release: line 2 is broken, file not used; "
      "/usr/lib/os-release: line 1 is broken, file not used. Its name and version are empty.");
  EXPECT_HAS(About("appliance: "), "ProductID is not a number of 32 bits, taken as 0.");
}

TEST_F(Doctor, TellsOfFilesThatTheAgentHasNotReadYet) {
  Start();
  Examine();
  EXPECT_HAS(About("distribution: "), "ok    ");
  host_.File("/etc/quorix/appliance.conf", "ProductID=7\n");
  host_.File("/etc/os-release", "NAME=Box\n");
  Examine();
  EXPECT_EQ(outcome_.status, 0) << outcome_.out;
  EXPECT_EQ(About("appliance: "),
            "note  appliance: described by /etc/quorix/appliance.conf. It is newer than the "
            "running agent, which reads it when it starts: systemctl restart vexhostd.");
  EXPECT_HAS(About("distribution: "), "note  distribution: described by /etc/os-release. It is ");
  EXPECT_HAS(About("group appliance: "), "no appliance at the agent's start");
}

TEST_F(Doctor, TellsOfAControllerThatHasEnded) {
  host_.Directory("/run/quorix");
  sockaddr_un address = {AF_UNIX, "/run/quorix/tlxci.sock"};
  const int left = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(left, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
  host_.snmpd.Start();
  Examine();
  // Bound alone is not heard.
  EXPECT_HAS(About("management controller: "), "note  management controller: nobody is seen to ");
  close(left);
  Examine();
  EXPECT_HAS(About("management controller: "), "note  management controller: nobody is seen to ");
}

TEST_F(Doctor, MissesTheMountTable) {
  Start();
  host_.Remove("/etc/mtab");
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("mount table: "), "ln -s ../proc/self/mounts /etc/mtab");
}

TEST_F(Doctor, MissesTheFilesOfTheKernel) {
  host_.ComposeProc();
  Start();
  host_.Remove("/proc/stat");
  host_.Remove("/proc/meminfo");
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("processor times: "),
             "FAIL  processor times: /proc/stat is absent or not readable.");
  EXPECT_HAS(About("memory sizes: "),
             "FAIL  memory sizes: /proc/meminfo is absent or not readable.");
}

TEST_F(Doctor, NoMaster) {
  host_.File("/etc/snmp/vexhostd.conf", "community public\n");
  host_.daemon.Start({"-p", "60"});
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_EQ(About("snmpd: "), "FAIL  snmpd: does not run. Start it: systemctl start snmpd.");
  EXPECT_HAS(About("AgentX socket "), "FAIL  AgentX socket /var/agentx/master: absent: ");
  EXPECT_HAS(About("snmpd on UDP"), "FAIL  snmpd on UDP port 161 of 127.0.0.1: nobody listens. ");
  EXPECT_EQ(About("subtree "), "lines about it: 0");
  EXPECT_HAS(About("group memory: "), "ok    ");
}

TEST_F(Doctor, MasterStopped) {
  Start();
  host_.snmpd.Freeze();
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  const std::string pid = std::to_string(host_.snmpd.pid());
  EXPECT_EQ(About("snmpd: "), "FAIL  snmpd: stopped by a signal or a debugger (process " + pid +
                                  "). Let it go on: kill -CONT " + pid + ".");
  EXPECT_HAS(About("snmpd on UDP"), ": no answer within two seconds. ");
  host_.snmpd.Thaw();
  ASSERT_TRUE(host_.daemon.WaitServed());
  Examine();
  EXPECT_EQ(outcome_.status, 0) << outcome_.out;
}

TEST_F(Doctor, SocketThatNobodyListensOn) {
  Start();
  host_.snmpd.Kill();
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("AgentX socket "), "FAIL  AgentX socket /var/agentx/master: there, but nobody");
}

TEST_F(Doctor, SocketOfTheConfiguration) {
  host_.Directory("/run/other");
  host_.File("/opt/snmp/vexhostd.conf",
             "agentXSocket unix:/run/other/master\ncommunity public\npollInterval 60\n");
  SnmpdOptions master;
  master.extra = "agentXSocket /run/other/master\n";
  host_.snmpd.Start(master);
  DaemonOptions options;
  options.arguments = {"-i"};
  options.environment = {{"SNMPCONFPATH", "/opt/snmp"}};
  host_.daemon.Start(options);
  // The running agent's environment tells where its configuration is.
  Examine();
  EXPECT_EQ(outcome_.status, 0) << outcome_.out;
  EXPECT_EQ(About("AgentX socket "), "ok    AgentX socket /run/other/master: somebody listens.");
  EXPECT_EQ(About("community: "), "ok    community: the community of vexhostd.conf.");
  EXPECT_HAS(About("group cpu: "), "(each 60 s)");
}

TEST_F(Doctor, SocketThatIsAnother) {
  host_.File("/etc/snmp/vexhostd.conf", "agentXSocket /run/other/master\n");
  host_.Directory("/run/other");
  host_.snmpd.Start();
  DaemonOptions options;
  options.wait = false;
  host_.daemon.Start(options);
  ASSERT_TRUE(host_.daemon.WaitStarted());
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("AgentX socket "), "FAIL  AgentX socket /run/other/master: absent: ");
}

TEST_F(Doctor, SocketIsNotPermitted) {
  host_.snmpd.Start();
  std::filesystem::permissions("/var/agentx", std::filesystem::perms(0700));
  ExamineUnprivileged();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("AgentX socket "), "FAIL  AgentX socket /var/agentx/master: not permitted. ");
}

TEST_F(Doctor, UnprivilegedItSaysWhatItCouldNotSee) {
  host_.Directory("/sys/firmware/dmi/tables");
  vex::WriteSmbios(vex::AssembleSmbios("entry 2.8\n1: 01 02 to=27 \"Maker\" \"Box\"\n"),
                   "/sys/firmware/dmi/tables");
  for (const char *name : {"DMI", "smbios_entry_point"}) {
    std::filesystem::permissions(std::string("/sys/firmware/dmi/tables/") + name,
                                 std::filesystem::perms(0400));
  }
  Start();
  std::filesystem::permissions("/var/agentx", std::filesystem::perms(0700));
  std::filesystem::permissions("/etc/snmp/snmpd.conf", std::filesystem::perms(0600));
  ASSERT_EQ(RunCommand({"mount", "-o", "remount,hidepid=2", "/proc"}).status, 0);
  ExamineUnprivileged();
  EXPECT_EQ(About("snmpd: "),
            "note  snmpd: not seen, since this user does not see other users' processes. Run "
            "vexreg doctor as root.");
  EXPECT_HAS(About("vexhostd: "), "note  vexhostd: not seen, ");
  EXPECT_HAS(About("community: "), "may not read /etc/snmp/snmpd.conf. ");
  EXPECT_HAS(About("SMBIOS tables: "), "note  SMBIOS tables: not for this user to read ");
  EXPECT_HAS(About("group memory: "), "ok    group memory: last published ");
}

TEST_F(Doctor, ViewLeavesTheSubtreeOut) {
  host_.File("/etc/snmp/vexhostd.conf", "community narrow\n");
  SnmpdOptions options;
  options.extra =
      "rocommunity narrow 127.0.0.1 -V systemonly\nview systemonly included .1.3.6.1.2.1.1\n";
  host_.snmpd.Start(options);
  host_.daemon.Start({"-p", "60"});
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  const std::string line = About("subtree ");
  EXPECT_HAS(line, "FAIL  subtree .1.3.6.1.4.1.4891: nothing visible with this community. ");
  // What it says to do helps.
  const size_t from = line.find("view systemonly included");
  ASSERT_NE(from, std::string::npos) << line;
  options.extra += line.substr(from, line.find(';') - from) + "\n";
  host_.snmpd.Stop();
  host_.snmpd.Start(options);
  ASSERT_TRUE(host_.daemon.WaitServed());
  Examine();
  EXPECT_EQ(outcome_.status, 0) << outcome_.out;
}

TEST_F(Doctor, OtherCommunity) {
  Start();
  host_.File("/etc/snmp/vexhostd.conf", "community other\n");
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("snmpd on UDP"),
             "FAIL  snmpd on UDP port 161 of 127.0.0.1: is alive, but does not answer to the "
             "community of vexhostd.conf. ");
}

TEST_F(Doctor, NoCommunity) {
  Start();
  host_.File("/etc/snmp/snmpd.conf", "");
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("community: "), "FAIL  community: none; ");
}

TEST_F(Doctor, UsersInPlaceOfACommunity) {
  Start();
  host_.File("/etc/snmp/snmpd.conf", "rouser monitor priv\n");
  Examine();
  EXPECT_EQ(outcome_.status, 0) << outcome_.out;
  EXPECT_HAS(About("community: "), "note  community: none; snmpd.conf lets SNMPv3 users in alone.");
}

TEST_F(Doctor, WhatKeepsStationsAway) {
  Start();
  Examine();
  EXPECT_HAS(About("stations: "), "note  stations: snmpd listens on loopback alone");
  EXPECT_HAS(About("notifications: "), "note  notifications: snmpd.conf has no receiver");
  EXPECT_HAS(About("default community: "), "lines about it: 0");

  // From a folder of drop-ins, as Debian has it.
  host_.File("/etc/snmp/snmpd.conf",
             "rocommunity public 127.0.0.1\nincludeDir /etc/snmp/snmpd.conf.d\n");
  host_.File("/etc/snmp/snmpd.conf.d/traps.conf",
             "trap2sink 192.0.2.1 other\ninformsink 192.0.2.2\nrocommunity private 192.0.2.0/24\n");
  const int other = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in any = {};
  any.sin_family = AF_INET;
  any.sin_port = htons(161);
  ASSERT_EQ(bind(other, reinterpret_cast<const sockaddr *>(&any), sizeof(any)), 0);
  ASSERT_EQ(listen(other, 1), 0);
  Examine();
  close(other);
  EXPECT_EQ(About("stations: "), "ok    stations: snmpd can be asked from other machines.");
  EXPECT_EQ(About("notifications: "), "ok    notifications: snmpd.conf has 2 receivers.");
  EXPECT_HAS(About("default community: "),
             "note  default community: snmpd.conf lets \"private\" in from other machines "
             "(192.0.2.0/24)");
}

TEST_F(Doctor, NoAgent) {
  host_.snmpd.Start();
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_EQ(About("vexhostd: "),
            "FAIL  vexhostd: does not run. Start it: systemctl start vexhostd.");
  EXPECT_HAS(About("subtree "),
             "note  subtree .1.3.6.1.4.1.4891: nothing there, as no agent runs.");
  EXPECT_HAS(About("group memory: "), "note  group memory: not published");
}

TEST_F(Doctor, AgentWithoutASession) {
  host_.snmpd.Start();
  host_.File("/etc/snmp/vexhostd.conf", "agentXSocket /run/other/master\n");
  DaemonOptions options;
  options.arguments = {"-p", "60"};
  options.wait = false;
  host_.daemon.Start(options);
  ASSERT_TRUE(host_.daemon.WaitStarted());
  host_.File("/etc/snmp/vexhostd.conf", "");  // and it was not restarted
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("AgentX socket "), "ok    ");
  EXPECT_HAS(
      About("subtree "),
      "FAIL  subtree .1.3.6.1.4.1.4891: nothing there: the agent has no session with snmpd.");
}

TEST_F(Doctor, AgentStoppedAnHourAgo) {
  host_.snmpd.Start();
  DaemonOptions options;
  options.clock_offset = -3600;
  host_.daemon.Start(options);
  host_.daemon.Signal(SIGSTOP);
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("vexhostd: "), "FAIL  vexhostd: stopped by a signal or a debugger (process ");
  EXPECT_HAS(About("subtree: "), "note  subtree: not asked; ");
  EXPECT_HAS(About("group cpu: "),
             "FAIL  group cpu: 2 rows, last published 60 min ago (each 15 s)");
  EXPECT_HAS(About("group filesys: "), "ok    group filesys: 1 row, last published 60 min ago");
}

TEST_F(Doctor, AgentThatHangs) {
  // Of another name, so that it cannot be seen to be stopped and its subtree is asked for.
  host_.StartTestAgent();
  // What answers hangs, and who would end it for that, too.
  const pid_t snmp = SnmpProcessOf(host_.daemon.pid());
  host_.daemon.Signal(SIGSTOP);
  if (snmp > 0) {
    StopProcess(snmp);
  }
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("subtree "),
             "FAIL  subtree .1.3.6.1.4.1.4891: no answer within two seconds, though snmpd answers");
}

TEST_F(Doctor, AgentKilledAndItsObjectsLeft) {
  host_.snmpd.Start();
  DaemonOptions options;
  options.clock_offset = -7200;
  host_.daemon.Start(options);
  EXPECT_EQ(host_.daemon.Stop(SIGKILL), 128 + SIGKILL);
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("group memory: "),
             "FAIL  group memory: last published 2 h ago (each 15 s): left by an agent that has "
             "ended.");
}

TEST_F(Doctor, AgentThatPausesAtItsStart) {
  host_.snmpd.Start();
  // What an earlier run has left is no failure either.
  DaemonOptions options;
  options.clock_offset = -7200;
  host_.daemon.Start(options);
  host_.daemon.Stop(SIGKILL);
  options = {};
  options.quick_start = false;
  options.wait = false;
  host_.daemon.Start(options);
  const std::string comm = "/proc/" + std::to_string(host_.daemon.pid()) + "/comm";
  ASSERT_TRUE(Eventually([&] { return ReadFile(comm) == "vexhostd\n"; }));
  Examine();
  EXPECT_EQ(outcome_.status, 0) << outcome_.out;
  EXPECT_HAS(About("subtree "),
             "note  subtree .1.3.6.1.4.1.4891: nothing there yet: the agent has");
  EXPECT_EQ(About("group memory: "),
            "note  group memory: last published 2 h ago (each 15 s): the agent has just started. "
            "Look again in half a minute.");
  // Where it will publish cannot be seen yet.
  host_.Directory("/tmp/registry");
  Examine({"--root", "/tmp/registry"});
  EXPECT_HAS(About("registry "), "note  registry /tmp/registry/host: ");
  host_.daemon.Stop(SIGKILL);
}

TEST_F(Doctor, AgentWhoseFirstReadingWaits) {
  host_.File("/var/lib/dpkg/available", "");
  host_.Command("dpkg", "#!/bin/sh\nexec sleep 60\n");
  host_.snmpd.Start();
  DaemonOptions options;
  options.wait = false;
  host_.daemon.Start(options);
  ASSERT_TRUE(Eventually([] { return Exists("/var/spool/quorix/kelmo/registry/host/misc"); }));
  Examine();
  EXPECT_EQ(outcome_.status, 0) << outcome_.out;
  EXPECT_HAS(About("group memory: "), "ok    ");
  EXPECT_HAS(About("group cpu: "),
             "note  group cpu: not published yet: the agent has just started");
  host_.daemon.Stop(SIGKILL);
}

TEST_F(Doctor, TwoAgents) {
  Start();
  const pid_t other = host_.Peer({"vexhostd"});
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("vexhostd: "), "FAIL  vexhostd: runs more than once (processes ");
  EXPECT_HAS(About("vexhostd: "), std::to_string(other));
}

TEST_F(Doctor, AnotherRegistryThanTheAgents) {
  Start();
  host_.Directory("/tmp/registry");
  Examine({"--root", "/tmp/registry"});
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("registry "),
             "FAIL  registry /tmp/registry/host: not the agent's, which publishes elsewhere. Check "
             "--root.");
  EXPECT_HAS(About("group: "), "note  group: not looked at; these are not the agent's.");
  EXPECT_EQ(Count("FAIL"), 1U) << outcome_.out;
}

TEST_F(Doctor, WhatBecameOfTheRegistry) {
  Start();
  const std::string root = MadeUpHost::kRegistry;
  const std::string daemon = std::to_string(host_.daemon.pid());
  Examine();
  EXPECT_EQ(About("registry "),
            "ok    registry " + root + "/host: the agent's (process " + daemon + ").");
  // Files that are missing and damaged, of an agent that has published them.
  host_.Remove(root + "/host/memory");
  host_.Remove(root + "/host/cpu.0");
  host_.Remove(root + "/host/cpu.1");
  host_.Remove(root + "/host/filesys.0");
  host_.File(root + "/host/info", "rubbish");
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  for (const char *group : {"memory", "cpu", "filesys"}) {
    EXPECT_HAS(About(std::string("group ") + group + ": "),
               "published to managers, but its file is missing. The agent writes it again");
  }
  EXPECT_HAS(About("group info: "), "FAIL  group info: its file is damaged.");
  EXPECT_HAS(About("group hwinfo: "), "note  group hwinfo: not published; no EV told it");
  ASSERT_TRUE(host_.daemon.Poll());
  ASSERT_TRUE(Eventually([] { return MadeUpHost::Object("host/info").has_value(); }));
  Examine();
  EXPECT_EQ(outcome_.status, 0) << outcome_.out;
  // Rows of which others are whole, and what is no row.
  host_.Remove(root + "/host/cpu.1");
  host_.File(root + "/host/swver.2", "rubbish");
  host_.File(root + "/host/memory.old", ReadFile(root + "/host/memory"));
  host_.File(root + "/host/cpu.0.bak", ReadFile(root + "/host/cpu.0"));
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("group cpu: "),
             "FAIL  group cpu: 1 row, but the file of cpu.1 is missing, though published to "
             "managers. The agent writes it again");
  EXPECT_HAS(About("group swver: "), " rows, but the file of swver.2 is damaged. The agent writes");
  EXPECT_HAS(About("group memory: "), "ok    group memory: last published");
  ASSERT_TRUE(host_.daemon.Poll());
  ASSERT_TRUE(Eventually([] { return MadeUpHost::Object("host/swver.2").has_value(); }));
  Examine();
  EXPECT_EQ(outcome_.status, 0) << outcome_.out;
  // What is no file at all.
  host_.Remove(root + "/host/info");
  host_.Directory(root + "/host/info");
  host_.Remove(root + "/host/swver.2");
  ASSERT_EQ(mkfifo((root + "/host/swver.2").c_str(), 0644), 0);
  Examine();
  EXPECT_HAS(About("group info: "),
             "FAIL  group info: a directory stands in place of info. Remove the directory");
  EXPECT_HAS(About("group swver: "),
             " rows, but a pipe stands in place of swver.2. The agent writes");
  host_.Remove(root + "/host/info");
  ASSERT_TRUE(host_.daemon.Poll());
  ASSERT_TRUE(Eventually(
      [] { return MadeUpHost::Object("host/info") && MadeUpHost::Object("host/swver.2"); }));
  // Another directory than the agent's, and none.
  ASSERT_EQ(RunCommand({"mount", "-t", "tmpfs", "cover", root}).status, 0);
  host_.Directory(root + "/host");
  Examine();
  EXPECT_HAS(About("registry "), "note  registry " + root + "/host: not the agent's yet");
  host_.Remove(root + "/host");
  Examine();
  EXPECT_HAS(About("registry "), "note  registry " + root + "/host: not the agent's yet");
  ASSERT_TRUE(host_.daemon.Poll());
  ASSERT_TRUE(Eventually([] { return MadeUpHost::Object("host/info").has_value(); }));
  Examine();
  EXPECT_HAS(About("registry "), "ok    registry ");
  // What another user may see.
  ASSERT_EQ(chmod((root + "/host").c_str(), 0700), 0);
  ExamineUnprivileged();
  EXPECT_HAS(About("registry "), "not for this user to look into. Run vexreg doctor as root.");
  EXPECT_HAS(About("group memory: "), "its file is not for this user to read.");
}

// Processes that still look at something.
size_t Left() {
  return static_cast<size_t>(std::stoul(RunCommand({"pgrep", "-c", "-x", "vexreg"}).out));
}

TEST_F(Doctor, GivesUpOnARegistryThatHangs) {
  Start();
  FuseMount mount("/srv/hung", 100, 50);
  mount.HangAll();
  Examine({"--root", "/srv/hung", "--limit", "2"});
  EXPECT_EQ(outcome_.status, 1);
  // What was found before is there.
  EXPECT_HAS(About("subtree "), "ok    ");
  EXPECT_HAS(About("gave up after 2 s: "), "FAIL  ");
  EXPECT_EQ(mount.Waiting(), 1U);
  EXPECT_EQ(Left(), 1U);
  // It ends by itself when its call returns.
  mount.Recover();
  EXPECT_TRUE(Eventually([] { return Left() == 0; }));
}

TEST_F(Doctor, GivesUpOnACommandPathThatHangs) {
  FuseMount mount("/srv/hung", 100, 50);
  host_.snmpd.Start();
  DaemonOptions options;
  options.arguments = {"-p", "60"};
  options.environment = {{"PATH", "/srv/hung:/usr/sbin:/usr/bin:/sbin:/bin"}};
  host_.daemon.Start(options);
  mount.HangAll();
  Examine({"--limit", "2"});
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("distribution: "), "ok    ");
  EXPECT_HAS(About("gave up after 2 s: "), "FAIL  ");
}

TEST_F(Doctor, KeepsToTheWidth) {
  host_.snmpd.Start();
  Examine({"--width", "40"});
  for (const std::string &line : Lines(outcome_.out)) {
    EXPECT_LE(line.size(), 40U) << line;
    EXPECT_TRUE(line.starts_with("ok    ") || line.starts_with("note  ") ||
                line.starts_with("FAIL  ") || line.starts_with("      "))
        << line;
  }
}

TEST_F(Doctor, RefusesArguments) {
  EXPECT_EQ(host_.Vexreg({"doctor", "host/cpu.0"}).status, 2);
  EXPECT_EQ(host_.Vexreg({"doctor", "--width", "-1"}).status, 2);
  EXPECT_EQ(host_.Vexreg({"doctor", "--limit", "0"}).status, 2);
}

// What snmpd has of the agent's subtree is not the agent's, or it does not come in time.
TEST_F(Doctor, MasterThatAnswersWithErrors) {
  host_.File("/etc/snmp/snmpd.conf", "rocommunity public 127.0.0.1\n");
  std::atomic<bool> visible = false;
  const OddMaster master([&](bool next, const Oid &asked) -> std::optional<OddMaster::Answer> {
    if (asked == kUpTime) {
      return OddMaster::Answer{0, asked};
    }
    if (visible && asked == kSubtreeOid) {
      return OddMaster::Answer{0, Numbers("tlxHoMibRevMajor", {0})};
    }
    return next ? std::optional(OddMaster::Answer{5, asked}) : std::nullopt;
  });
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("snmpd on UDP"), ": answers to the first read community");
  EXPECT_HAS(About("subtree "), "FAIL  subtree .1.3.6.1.4.1.4891: snmpd answers with an error");
  // The subtree is there, but what is compared is not answered, and nothing else is told.
  visible = true;
  Examine();
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_NE(outcome_.out.find("ok    subtree .1.3.6.1.4.1.4891: visible."), std::string::npos);
  EXPECT_NE(outcome_.out.find("FAIL  subtree .1.3.6.1.4.1.4891: no answer within two seconds"),
            std::string::npos);
  EXPECT_HAS(About("value: "), "lines about it: 0");
  EXPECT_HAS(About("group memory: "), "FAIL  group memory: not published, though the agent runs.");
}

// Rows that snmpd tells of are looked for as far as they can be: without end, and in no order.
TEST_F(Doctor, MasterWithOddRows) {
  host_.File("/etc/snmp/snmpd.conf", "rocommunity public 127.0.0.1\n");
  const std::string host = std::string(MadeUpHost::kRegistry) + "/host/";
  for (const char *name :
       {"cpu.0", "filesys.0", "mount.0", "sibling.0", "swver.0", "swkind.0", "memory", "misc"}) {
    ASSERT_EQ(host_.Vexreg({"put", std::string("host/") + name, "int:1"}).status, 0);
  }
  ASSERT_EQ(mknod((host + "load").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
  ASSERT_EQ(mknod((host + "cpu.5").c_str(), S_IFSOCK | 0600, 0), 0);
  const Oid cpu = Numbers("tlxHoCpuUtilUnitIndex");
  const OddMaster master([&](bool next, const Oid &asked) -> std::optional<OddMaster::Answer> {
    using Answer = OddMaster::Answer;
    if (asked == kSubtreeOid) {
      return Answer{0, Numbers("tlxHoMibRevMajor", {0})};
    }
    if (asked == kUpTime || asked == Numbers("tlxHoPhysicalMemoryFree", {0})) {
      return Answer{0, asked};
    }
    if (IsBelow(asked, cpu)) {
      Oid row = asked;
      if (next) {
        if (row == cpu) {
          row.push_back(0);
        } else {
          row.back()++;
        }
        return Answer{0, row};
      }
      if (row.back() == 4) {  // it is published now
        std::filesystem::copy_file(host + "cpu.0", host + "cpu.4");
      }
      return row.back() == 1                      ? std::nullopt
             : row.back() == 2                    ? std::optional(Answer{0, row, std::nullopt})
             : row.back() == 4 || row.back() == 6 ? std::optional(Answer{0, row})
                                                  : std::optional(Answer{5, row});
    }
    if (!next || IsBelow(asked, Numbers("tlxHoFileSysIndex")) ||
        IsBelow(asked, Numbers("tlxHoAgentVersion"))) {
      return std::nullopt;
    }
    if (IsBelow(asked, Numbers("tlxHoSiblingName"))) {
      return Answer{0, Numbers("tlxHoSiblingName", {0, 0})};
    }
    if (IsBelow(asked, Numbers("tlxHoSwVerIndex"))) {
      return Answer{0, Numbers("tlxHoSwVerIndex", {0})};  // again and again
    }
    return Answer{IsBelow(asked, Numbers("tlxHoMountDevice")) ? 5 : 0, {1, 3, 7}};
  });
  outcome_ = host_.Vexreg({"doctor", "--limit", "100"});
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("all checks"), "lines about it: 0");
  EXPECT_EQ(outcome_.out.find("gave up"), std::string::npos) << outcome_.out;
  EXPECT_HAS(About("value: "), "tlxHoPhysicalMemoryFree");
  EXPECT_HAS(About("group cpu: "),
             "FAIL  group cpu: 1 row, but a socket stands in place of cpu.5, and the file of cpu.6 "
             "is missing, though published to managers.");
  for (const char *group : {"filesys", "mount", "sibling", "swver", "swkind"}) {
    EXPECT_HAS(About(std::string("group ") + group + ": "), ": 1 row, last published ");
  }
  EXPECT_HAS(About("group load: "), "FAIL  group load: a device stands in place of load.");
  EXPECT_HAS(About("group agent: "), "not published");
}

TEST_F(Doctor, SaysWhyTheGuidCannotBeRead) {
  const std::string misc = std::string(MadeUpHost::kRegistry) + "/host/misc";
  ASSERT_EQ(host_.Vexreg({"put", "host/memory", "int:1"}).status, 0);
  host_.Link(misc, "memory");
  Examine();
  EXPECT_HAS(About("group misc: "), "note  group misc: a symbolic link stands in place of misc.");
  EXPECT_EQ(About("GUID: "),
            "note  GUID: host/misc cannot be read: Too many levels of symbolic links.");
  // What is damaged can be read, and its group says so.
  host_.Remove(misc);
  host_.File(misc, "rubbish");
  Examine();
  EXPECT_HAS(About("group misc: "), "note  group misc: its file is damaged.");
  EXPECT_EQ(About("GUID: "), "lines about it: 0");
}

TEST_F(Doctor, SocketThatIsNone) {
  host_.File("/etc/snmp/vexhostd.conf", "agentXSocket tcp:localhost:705\n");
  host_.snmpd.Start();
  Examine();
  EXPECT_HAS(About("AgentX socket: "), "note  AgentX socket: tcp:localhost:705 is no Unix socket");
}

TEST_F(Doctor, SourcesThatTheAgentTakesInPart) {
  host_.File("/var/lib/quorix/ev/ZTHUV", std::string(100, '\x01'));
  host_.File("/var/lib/quorix/ev/ZTHRN4", std::string(4, '\x01'));
  host_.File("/sys/firmware/efi/efivars/ZTHRN4-8be4df61-93ca-11d2-aa0d-00e098032b8c",
             std::string(9, '\x01'));
  ASSERT_EQ(mknod("/dev/tlxrmc0", S_IFCHR | 0600, makedev(1, 3)), 0);
  host_.snmpd.Start();
  Examine();
  EXPECT_EQ(About("EV ZTHUV: "),
            "note  EV ZTHUV: has 100 of 136 bytes; what is missing counts as zero.");
  EXPECT_HAS(About("EV ZTHRN4: "), "that are needed, the UEFI variable is used.");
  EXPECT_EQ(About("management controller: "),
            "ok    management controller: remote card /dev/tlxrmc0.");
}

TEST_F(Doctor, AnotherRegistryThanThatOfAnAgentThatStandsStill) {
  Start();
  host_.Directory("/tmp/registry");
  host_.daemon.Signal(SIGSTOP);
  Examine({"--root", "/tmp/registry"});
  host_.daemon.Signal(SIGCONT);
  EXPECT_EQ(outcome_.status, 1);
  EXPECT_HAS(About("registry "), "not the agent's, which publishes elsewhere. Check --root.");
}

// Another user asks as a manager does, and sees no process of others.
TEST_F(Doctor, UnprivilegedItSeesWhatManagersSee) {
  Start();
  ASSERT_EQ(RunCommand({"mount", "-o", "remount,hidepid=2", "/proc"}).status, 0);
  // A row that he may not read is there all the same.
  ASSERT_EQ(chmod((std::string(MadeUpHost::kRegistry) + "/host/cpu.1").c_str(), 0600), 0);
  ExamineUnprivileged();
  EXPECT_HAS(About("group cpu: "), "ok    group cpu: 1 row, last published ");
  EXPECT_HAS(About("vexhostd: "), "note  vexhostd: not seen, ");
  EXPECT_EQ(About("subtree "), "ok    subtree .1.3.6.1.4.1.4891: visible.");
  EXPECT_HAS(About("value: "), "ok    value: ");
  EXPECT_HAS(About("group memory: "), "ok    group memory: last published ");
}

TEST_F(Doctor, UnprivilegedItNeedNotReachAnotherUsersSocket) {
  Start();
  std::filesystem::permissions("/var/agentx", std::filesystem::perms(0700));
  ExamineUnprivileged();
  EXPECT_HAS(About("vexhostd: "), "ok    vexhostd: runs");
  EXPECT_HAS(About("AgentX socket "),
             "note  AgentX socket /var/agentx/master: this user may not open it, and need not: the "
             "agent runs as another.");
}
