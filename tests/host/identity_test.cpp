// The OS identity group as a manager, a sibling and the next run of the agent see it.
#include <arpa/inet.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

const std::string kRoleFile = std::string(MadeUpHost::kRegistry) + "/tlxhosystemrole.dat";
const std::string kDetailFile = std::string(MadeUpHost::kRegistry) + "/tlxhosystemroledetail.dat";

struct Role {
  const char *variable;
  std::string file;
  size_t longest;
};
const Role kRoles[] = {{"tlxHoSystemRole", kRoleFile, 64},
                       {"tlxHoSystemRoleDetail", kDetailFile, 512}};

// A display string as snmpget prints it.
std::string Quoted(const std::string &text) {
  return text.empty() ? "\"\"" : "STRING: \"" + text + "\"";
}

mode_t ModeOf(const std::string &path) {
  struct stat st = {};
  EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

// Somebody at the telnet port, on one address.
class Listener {
 public:
  explicit Listener(const char *address) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_port = htons(23);
    EXPECT_EQ(inet_pton(AF_INET, address, &local.sin_addr), 1);
    EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&local), sizeof(local)), 0);
    EXPECT_EQ(listen(socket_, 1), 0);
  }
  ~Listener() {
    close(socket_);
  }
  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;

 private:
  int socket_;
};

constexpr char kServices[] = "telnet 23/tcp\nsmtp 25/tcp\n";

}  // namespace

TEST(Identity, NamesTheDistribution) {
  MadeUpHost host;
  host.File("/etc/os-release",
            "PRETTY_NAME=\"Made Up Linux 7 (nowhere)\"\nNAME=\"Made Up Linux\"\n"
            "VERSION_ID=\"7\"\nVERSION_CODENAME=nowhere\n");
  host.Hostname("web1");
  host.Start();
  EXPECT_EQ(host.Get("tlxHoName"), "STRING: \"Made Up Linux nowhere\"");
  EXPECT_EQ(host.Get("tlxHoVersion"), "STRING: \"7\"");
  EXPECT_EQ(host.Get("tlxHoDesc"), "STRING: \"Made Up Linux 7 (nowhere)\"");
  EXPECT_EQ(host.Get("tlxHoOsType"), "INTEGER: 14");
  EXPECT_EQ(host.Get("tlxHoSystemRole"), "\"\"");
  EXPECT_EQ(host.Get("tlxHoSystemRoleDetail"), "\"\"");
  EXPECT_EQ(host.Get("tlxHoSystemName"), "STRING: \"web1\"");
  utsname system = {};
  ASSERT_EQ(uname(&system), 0);
  EXPECT_EQ(host.Get("tlxHosysDescr"),
            Quoted(std::string("Linuxweb1") + system.release + system.version + system.machine));
  const auto object = MadeUpHost::Object("host/info");
  ASSERT_TRUE(object);
  EXPECT_EQ(object->data.size(), 2124U);
  EXPECT_EQ(object->variables.size(), 9U);
}

TEST(Identity, IsSettledAtStartUp) {
  MadeUpHost host;
  host.File("/etc/os-release", "NAME=Old\nVARIANT=Server\nVERSION_ID=1\nPRETTY_NAME=Older\n");
  host.Hostname("old");
  host.Start();
  host.File("/etc/os-release", "NAME=New\nVERSION_ID=2\nPRETTY_NAME=Newer\n");
  host.Hostname("new");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoName"), "STRING: \"Old Server\"");
  EXPECT_EQ(host.Get("tlxHoSystemName"), "STRING: \"old\"");
  EXPECT_EQ(host.daemon.Stop(), 0);
  host.daemon.Start();
  EXPECT_EQ(host.Get("tlxHoName"), "STRING: \"New \"");
  EXPECT_EQ(host.Get("tlxHoVersion"), "STRING: \"2\"");
  EXPECT_EQ(host.Get("tlxHoDesc"), "STRING: \"Newer\"");
  EXPECT_EQ(host.Get("tlxHoSystemName"), "STRING: \"new\"");
}

TEST(Identity, WithoutADistribution) {
  MadeUpHost host;
  host.Remove("/etc/os-release");
  host.Remove("/usr/lib/os-release");
  host.Start();
  EXPECT_EQ(host.Get("tlxHoName"), "\"\"");
  EXPECT_EQ(host.Get("tlxHoVersion"), "\"\"");
  EXPECT_EQ(host.Get("tlxHoDesc"), "\"\"");
  EXPECT_EQ(host.Get("tlxHoOsType"), "INTEGER: 14");
}

TEST(Identity, CutsLongDistributionTexts) {
  MadeUpHost host;
  const std::string text(300, 'x');
  host.File("/etc/os-release",
            "NAME=" + text + "\nVERSION_ID=" + text + "\nPRETTY_NAME=" + text + "\n");
  host.Start();
  for (const char *variable : {"tlxHoName", "tlxHoVersion", "tlxHoDesc"}) {
    EXPECT_EQ(host.Get(variable), Quoted(std::string(255, 'x')));
  }
  EXPECT_EQ(host.Get("tlxHoOsType"), "INTEGER: 14");
}

// ---- The telnet port ----------------------------------------------------------------------------

TEST(Identity, TellsWhetherTheTelnetPortIsHeld) {
  MadeUpHost host;
  host.File("/etc/services", kServices);
  host.Start();
  EXPECT_EQ(host.Get("tlxHoTelnet"), "INTEGER: 3");
  {
    const Listener anywhere("0.0.0.0");
    ASSERT_TRUE(host.daemon.Poll());
    EXPECT_EQ(host.Get("tlxHoTelnet"), "INTEGER: 2");
    EXPECT_EQ(MadeUpHost::Published("host/info", "tlxHoTelnet"), "2");
  }
  {
    const Listener loopback("127.0.0.1");
    ASSERT_TRUE(host.daemon.Poll());
    EXPECT_EQ(host.Get("tlxHoTelnet"), "INTEGER: 2");
  }
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoTelnet"), "INTEGER: 3");
}

TEST(Identity, TellsAtStartUpThatTheTelnetPortIsHeld) {
  MadeUpHost host;
  host.File("/etc/services", kServices);
  const Listener listener("0.0.0.0");
  host.Start();
  EXPECT_EQ(host.Get("tlxHoTelnet"), "INTEGER: 2");
}

TEST(Identity, KnowsNoTelnetPortWithoutTheService) {
  MadeUpHost host;
  host.File("/etc/services", "smtp 25/tcp\ntelnet 23/udp\n");
  const Listener listener("0.0.0.0");
  host.Start();
  EXPECT_EQ(host.Get("tlxHoTelnet"), "INTEGER: 3");
  // The services may change while the agent runs.
  host.File("/etc/services", kServices);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoTelnet"), "INTEGER: 2");
}

TEST(Identity, ADirectoryServiceThatHangsHoldsUpNoPoll) {
  MadeUpHost host;
  host.File("/etc/services", "smtp 25/tcp\n");
  host.File("/etc/nsswitch.conf", "services: files hangs\n");
  ASSERT_EQ(RunCommand({"cp", VEX_TESTS_NSS_HANGS, "/usr/lib/libnss_hangs.so.2"}).status, 0);
  // It is one that the C library asks.
  EXPECT_EQ(RunCommand({"timeout", "1", "getent", "services", "telnet/tcp"}).status, 124);
  const Listener listener("0.0.0.0");
  host.Start();
  EXPECT_EQ(host.Get("tlxHoTelnet"), "INTEGER: 3");
  host.File("/etc/services", kServices);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoTelnet"), "INTEGER: 2");
}

TEST(Identity, TakesAPortThatItMayNotBindForHeld) {
  MadeUpHost host;
  host.File("/etc/services", kServices);
  host.snmpd.Start();
  // What is started from here on never gets this capability.
  ASSERT_EQ(prctl(PR_CAPBSET_DROP, CAP_NET_BIND_SERVICE), 0);
  host.daemon.Start();
  EXPECT_EQ(host.Get("tlxHoTelnet"), "INTEGER: 2");
}

TEST(Identity, KeepsNoDescriptorOfTheProbe) {
  MadeUpHost host;
  host.File("/etc/services", kServices);
  host.Start();
  ASSERT_TRUE(host.daemon.Poll());
  const auto before = SettledFiles(host.daemon.pid());
  for (int poll = 0; poll < 5; poll++) {
    ASSERT_TRUE(host.daemon.Poll());
  }
  EXPECT_EQ(SettledFiles(host.daemon.pid()), before);
}

// ---- Role files ---------------------------------------------------------------------------------

TEST(Identity, ReadsRoleFiles) {
  MadeUpHost host;
  host.File(kRoleFile, "mail relay", 0644);
  host.File(kDetailFile, "in rack 7\t\xC3\xA4\n", 0644);
  host.Start();
  EXPECT_EQ(host.Get("tlxHoSystemRole"), "STRING: \"mail relay\"");
  // As it stands, its line feed too.
  EXPECT_EQ(MadeUpHost::Published("host/info", "tlxHoSystemRoleDetail"), "in rack 7\t\xC3\xA4\n");
  const auto answer = QuickGet(MadeUpHost::Oid("tlxHoSystemRoleDetail"));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->octets, "in rack 7\t\xC3\xA4\n");
  // Reading settles the mode of the one and not of the other.
  EXPECT_EQ(ModeOf(kRoleFile), 0644U);
  EXPECT_EQ(ModeOf(kDetailFile), 0600U);
}

TEST(Identity, ReadsTheBeginningOfRoleFilesThatAreTooLong) {
  MadeUpHost host;
  host.File(kRoleFile, std::string(64, 'r') + "X");
  host.File(kDetailFile, std::string(512, 'd') + std::string(70000, 'X'));
  host.Start();
  EXPECT_EQ(host.Get("tlxHoSystemRole"), Quoted(std::string(64, 'r')));
  EXPECT_EQ(host.Get("tlxHoSystemRoleDetail"), Quoted(std::string(512, 'd')));
}

TEST(Identity, RoleFilesOutliveTheAgentsObjects) {
  MadeUpHost host;
  host.Start();
  EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "kept"), "noError");
  EXPECT_EQ(host.Set("tlxHoSystemRoleDetail", 's', "kept too"), "noError");
  EXPECT_EQ(host.daemon.Stop(), 0);
  EXPECT_TRUE(MadeUpHost::Objects().empty());
  EXPECT_EQ(ReadFile(kRoleFile), "kept");
  host.daemon.Start();
  EXPECT_EQ(host.Get("tlxHoSystemRole"), "STRING: \"kept\"");
  EXPECT_EQ(host.Get("tlxHoSystemRoleDetail"), "STRING: \"kept too\"");
}

// The agent's registry was not mounted yet when it started.
TEST(Identity, TellsOfARoleThatAppearsAfterTheStart) {
  MadeUpHost host;
  host.Start();
  ASSERT_EQ(rename("/var/spool/quorix/kelmo", "/var/spool/quorix/early"), 0);
  host.File(kRoleFile, "web");
  ASSERT_TRUE(host.daemon.Poll());
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoSystemRole"), "\"\"");
  EXPECT_EQ(ReadFile(kRoleFile), "web");
  EXPECT_EQ(host.daemon.Count("has another value than the one that is served"), 1U)
      << host.daemon.Log();
}

TEST(Identity, RemovesWhatAKilledAgentLeftBesideItsFiles) {
  MadeUpHost host;
  const std::string directory = std::string(MadeUpHost::kRegistry) + "/";
  for (const char *name : {".tlxhosystemrole.dat.new", ".tlxhosystemrole.dat.new.3",
                           ".tlxhosystemroledetail.dat.new.9", ".tlxhoguid.dat.new.1"}) {
    host.File(directory + name, "half");
  }
  host.Start();
  for (const std::string &name : ListDirectory(directory)) {
    EXPECT_EQ(name.find(".new"), std::string::npos) << name;
  }
}

TEST(Identity, SaysOnceThatADirectoryIsInTheRolesPlace) {
  MadeUpHost host;
  host.Start();
  host.Remove(kRoleFile);
  host.Directory(kRoleFile);
  EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "new"), "noError");
  EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "new"), "noError");
  EXPECT_EQ(host.Get("tlxHoSystemRole"), "\"\"");
  EXPECT_EQ(host.daemon.Count("tlxhosystemrole.dat not used: it is no plain file"), 1U)
      << host.daemon.Log();
}

// ---- Sets ---------------------------------------------------------------------------------------

TEST(Identity, SetsRoles) {
  MadeUpHost host;
  host.Start();
  for (const auto &[variable, file, longest] : kRoles) {
    SCOPED_TRACE(variable);
    host.File(file, "an earlier text, rather longer than what comes", 0644);
    EXPECT_EQ(host.Set(variable, 's', "database"), "noError");
    EXPECT_EQ(ReadFile(file), "database");
    EXPECT_EQ(ModeOf(file), 0600U);
    // A manager sees it at once, a sibling agent with the next poll.
    EXPECT_EQ(host.Get(variable), "STRING: \"database\"");
    EXPECT_EQ(MadeUpHost::Published("host/info", variable), "");
    ASSERT_TRUE(host.daemon.Poll());
    EXPECT_EQ(MadeUpHost::Published("host/info", variable), "database");
    EXPECT_EQ(host.Get(variable), "STRING: \"database\"");
  }
}

TEST(Identity, SetsRolesUpToTheirLength) {
  MadeUpHost host;
  host.Start();
  for (const auto &[variable, file, longest] : kRoles) {
    SCOPED_TRACE(variable);
    const std::string whole(longest, 'w');
    EXPECT_EQ(host.Set(variable, 's', whole), "noError");
    EXPECT_EQ(host.Set(variable, 's', whole + "w"), "wrongLength");
    EXPECT_EQ(host.Set(variable, 's', std::string(5000, 'w')), "wrongLength");
    EXPECT_EQ(ReadFile(file), whole);
    EXPECT_EQ(host.Get(variable), Quoted(whole));
    ASSERT_TRUE(host.daemon.Poll());
    EXPECT_EQ(host.Get(variable), Quoted(whole));
    EXPECT_EQ(MadeUpHost::Published("host/info", variable), whole);
  }
}

TEST(Identity, SetsTheEmptyText) {
  MadeUpHost host;
  for (const auto &[variable, file, longest] : kRoles) {
    host.File(file, "something");
  }
  host.Start();
  for (const auto &[variable, file, longest] : kRoles) {
    SCOPED_TRACE(variable);
    EXPECT_EQ(host.Get(variable), "STRING: \"something\"");
    EXPECT_EQ(host.Set(variable, 's', ""), "noError");
    EXPECT_TRUE(Exists(file));
    EXPECT_EQ(ReadFile(file), "");
    EXPECT_EQ(ModeOf(file), 0600U);
    EXPECT_EQ(host.Get(variable), "\"\"");
    ASSERT_TRUE(host.daemon.Poll());
    EXPECT_EQ(host.Get(variable), "\"\"");
  }
}

TEST(Identity, RefusesOtherTypesAndOtherVariables) {
  MadeUpHost host;
  host.Start();
  EXPECT_EQ(host.Set("tlxHoSystemRole", 'i', "5"), "wrongType");
  for (const char *variable :
       {"tlxHoName", "tlxHoVersion", "tlxHoDesc", "tlxHoSystemName", "tlxHosysDescr"}) {
    EXPECT_EQ(host.Set(variable, 's', "x"), "notWritable");
  }
  EXPECT_EQ(host.Set("tlxHoTelnet", 'i', "3"), "notWritable");
  EXPECT_FALSE(Exists(kRoleFile));
}

TEST(Identity, ARefusedSetOfSeveralChangesNothing) {
  MadeUpHost host;
  host.Start();
  EXPECT_EQ(host.Set({{"tlxHoSystemRole", 's', "valid"},
                      {"tlxHoSystemRoleDetail", 's', std::string(513, 'x')}}),
            "wrongLength");
  EXPECT_EQ(host.Set({{"tlxHoSystemRole", 's', "valid"}, {"tlxHoName", 's', "x"}}), "notWritable");
  EXPECT_FALSE(Exists(kRoleFile));
  EXPECT_FALSE(Exists(kDetailFile));
  EXPECT_EQ(host.Get("tlxHoSystemRole"), "\"\"");
  EXPECT_EQ(host.Set({{"tlxHoSystemRole", 's', "one"}, {"tlxHoSystemRoleDetail", 's', "two"}}),
            "noError");
  EXPECT_EQ(ReadFile(kRoleFile), "one");
  EXPECT_EQ(ReadFile(kDetailFile), "two");
}

TEST(Identity, WithSetsDisabledNothingIsWritten) {
  MadeUpHost host;
  host.Start({"-s", "NOT_OK"});
  EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "x"), "notWritable");
  EXPECT_FALSE(Exists(kRoleFile));
}

// Accepted, and nothing is different afterwards.
TEST(Identity, ASetSucceedsQuietlyWhereTheRegistryCannotBeWritten) {
  MadeUpHost host;
  for (const auto &[variable, file, longest] : kRoles) {
    host.File(file, "old", 0600);
  }
  host.Start();
  ASSERT_EQ(mount(MadeUpHost::kRegistry, MadeUpHost::kRegistry, nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(
      mount(nullptr, MadeUpHost::kRegistry, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
  const size_t lines = host.daemon.LogLines().size();
  for (const auto &[variable, file, longest] : kRoles) {
    SCOPED_TRACE(variable);
    EXPECT_EQ(host.Set(variable, 's', "new"), "noError");
    EXPECT_EQ(host.Get(variable), "STRING: \"old\"");
    EXPECT_EQ(ReadFile(file), "old");
  }
  EXPECT_EQ(host.daemon.LogLines().size(), lines);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoSystemRole"), "STRING: \"old\"");
  ASSERT_EQ(umount(MadeUpHost::kRegistry), 0);
  EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "new"), "noError");
  EXPECT_EQ(host.Get("tlxHoSystemRole"), "STRING: \"new\"");
}

TEST(Identity, ASetFailsOnAFullDiskAndTheOldValueStands) {
  MadeUpHost host;
  host.Directory(MadeUpHost::kRegistry);
  ASSERT_EQ(mount("full", MadeUpHost::kRegistry, "tmpfs", 0, "size=1m,mode=755"), 0);
  host.Start();
  EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "old"), "noError");
  EXPECT_EQ(host.Set("tlxHoSystemRoleDetail", 's', "old"), "noError");
  const std::string filler = std::string(MadeUpHost::kRegistry) + "/filler";
  std::ofstream out(filler);
  const std::string kilobytes(4096, 'f');
  while (out << kilobytes << std::flush) {
  }
  for (const auto &[variable, file, longest] : kRoles) {
    SCOPED_TRACE(variable);
    EXPECT_EQ(host.Set(variable, 's', "new"), "commitFailed");
    EXPECT_EQ(host.Get(variable), "STRING: \"old\"");
    EXPECT_EQ(ReadFile(file), "old");
    ASSERT_TRUE(host.daemon.Poll());
    EXPECT_EQ(host.Get(variable), "STRING: \"old\"");
  }
  EXPECT_EQ(ListDirectory(MadeUpHost::kRegistry),
            (std::vector<std::string>{"filler", "host", "tlxhoguid.dat", "tlxhosystemrole.dat",
                                      "tlxhosystemroledetail.dat"}));
  out.close();
  host.Remove(filler);
  EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "new"), "noError");
  EXPECT_EQ(host.Get("tlxHoSystemRole"), "STRING: \"new\"");
}

// Told failed: neither the file nor what is served has it.
TEST(Identity, ASetThatDoesNotReachTheDiskFails) {
  MadeUpHost host;
  host.Start();
  for (const auto &[variable, file, longest] : kRoles) {
    EXPECT_EQ(host.Set(variable, 's', "old"), "noError");
    for (const std::string &path :
         {file.substr(file.rfind('/') + 1) + ".new", std::string("/registry")}) {
      SCOPED_TRACE(path);
      host.daemon.SetFault({"fsync", path, EIO, 1});
      EXPECT_EQ(host.Set(variable, 's', "new"), "commitFailed");
      EXPECT_EQ(host.Get(variable), "STRING: \"old\"");
      EXPECT_EQ(ReadFile(file), "old");
    }
  }
  ASSERT_EQ(host.daemon.Stop(), 0);
  host.daemon.Start();
  for (const auto &[variable, file, longest] : kRoles) {
    EXPECT_EQ(host.Get(variable), "STRING: \"old\"");
    EXPECT_EQ(host.Set(variable, 's', "new"), "noError");
  }
}

// The same of a disk that takes its time: what its manager was told of is what stays, also once the
// disk has come to its end.
TEST(Identity, ASetThatTheDiskTakesTooLongForFails) {
  MadeUpHost host;
  host.Start();
  for (const auto &[variable, file, longest] : kRoles) {
    EXPECT_EQ(host.Set(variable, 's', "old"), "noError");
    for (const std::string &path :
         {file.substr(file.rfind('/') + 1) + ".new", std::string("/registry")}) {
      SCOPED_TRACE(path);
      host.daemon.SetFault({"fsync 1500", path, 0, 1});
      EXPECT_EQ(host.Set(variable, 's', "new"), "commitFailed");
      EXPECT_EQ(host.Get(variable), "STRING: \"old\"");
      ASSERT_TRUE(host.daemon.Poll());  // which comes after the set
      EXPECT_EQ(host.Get(variable), "STRING: \"old\"");
      EXPECT_EQ(ReadFile(file), "old");
    }
    EXPECT_EQ(host.Set(variable, 's', "newer"), "noError");
    EXPECT_EQ(ReadFile(file), "newer");
  }
  EXPECT_EQ(ListDirectory(MadeUpHost::kRegistry),
            (std::vector<std::string>{"host", "tlxhoguid.dat", "tlxhosystemrole.dat",
                                      "tlxhosystemroledetail.dat"}));
}

// As cp -al or ln leave it, in a directory where root alone writes.
TEST(Identity, ASecondNameOfAKeptFileIsAsGoodAsTheFirst) {
  MadeUpHost host;
  const std::string guid = std::string(MadeUpHost::kRegistry) + "/tlxhoguid.dat";
  host.Directory("/srv/copy");
  host.File(kRoleFile, "role");
  host.File(kDetailFile, "detail");
  host.File(guid, "0123456789abcdef");
  for (const std::string &file : {kRoleFile, kDetailFile, guid}) {
    ASSERT_EQ(link(file.c_str(), ("/srv/copy" + file.substr(file.rfind('/'))).c_str()), 0);
  }
  host.Start();
  EXPECT_EQ(host.Get("tlxHoSystemRole"), "STRING: \"role\"");
  EXPECT_EQ(host.Get("tlxHoSystemRoleDetail"), "STRING: \"detail\"");
  EXPECT_EQ(host.Get("tlxHoGUID"), "STRING: \"0123456789abcdef\"");
  EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "other"), "noError");
  EXPECT_EQ(ReadFile(kRoleFile), "other");
  EXPECT_EQ(ReadFile("/srv/copy/tlxhosystemrole.dat"), "role") << "the copy is nobody's to change";
  EXPECT_EQ(host.daemon.Count("not used"), 0U) << host.daemon.Log();
}

// Killed while a manager sets: what is there is whole, and what was accepted is there.
TEST(Identity, AKilledAgentLeavesTheOldValueOrTheNewOne) {
  MadeUpHost host;
  host.snmpd.Start();
  const std::string text(500, 'x');
  std::string accepted;
  for (int kills = 0; kills < 6; kills++) {
    host.daemon.Start();
    ASSERT_EQ(host.Get("tlxHoSystemRoleDetail"), Quoted(accepted));
    std::thread killer([&] {
      usleep(static_cast<useconds_t>(30000 + 7000 * kills));
      host.daemon.Signal(SIGKILL);
    });
    std::string tried;
    bool alive = true;
    for (int number = 0; alive; number++) {
      tried = std::to_string(kills) + " " + std::to_string(number) + text;
      alive = host.Set("tlxHoSystemRoleDetail", 's', tried) == "noError";
      accepted = alive ? tried : accepted;
    }
    killer.join();
    EXPECT_EQ(host.daemon.WaitEnd(), 128 + SIGKILL);
    const std::string kept = ReadFile(kDetailFile);
    EXPECT_TRUE(kept == accepted || kept == tried) << kept;
    accepted = kept;
  }
  host.daemon.Start();
  EXPECT_EQ(host.Get("tlxHoSystemRoleDetail"), Quoted(accepted));
  EXPECT_EQ(ListDirectory(MadeUpHost::kRegistry),
            (std::vector<std::string>{"host", "tlxhoguid.dat", "tlxhosystemroledetail.dat"}));
}
