// What a hostile neighbour can leave in the agent's way: files that are not what they should be,
// names that are commands, log lines or terminal sequences. docs/threat-model.md says who could.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

const std::string kRoot = MadeUpHost::kRegistry;
const std::string kRoleFile = kRoot + "/tlxhosystemrole.dat";
const std::string kDetailFile = kRoot + "/tlxhosystemroledetail.dat";
const std::string kGuidFile = kRoot + "/tlxhoguid.dat";
const std::string kKept[] = {kRoleFile, kDetailFile, kGuidFile};
constexpr char kVictim[] = "/etc/victim";
constexpr char kGuid[] = "000102030405060708090a0b0c0d0e0f";

void MakePipe(const std::string &path) {
  unlink(path.c_str());
  ASSERT_EQ(mkfifo(path.c_str(), 0666), 0) << path << ": " << strerror(errno);
}

mode_t Mode(const std::string &path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

// A sparse file: ten gigabytes for whoever reads it whole.
void MakeHuge(MadeUpHost &host, const std::string &path, const std::string &beginning) {
  host.File(path, beginning);
  ASSERT_EQ(truncate(path.c_str(), off_t{10} << 30), 0) << path;
}

void ExpectSetsToFail(MadeUpHost &host) {
  EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "root::0:0::/:/bin/sh"), "commitFailed");
  EXPECT_EQ(host.Set("tlxHoSystemRoleDetail", 's', "text"), "commitFailed");
  EXPECT_EQ(host.Set("tlxHoGUID", 'x', kGuid), "commitFailed");
  EXPECT_EQ(host.Get("tlxHoSystemRole"), "\"\"");
}

// No byte that a terminal or a log's reader would act on; a line's end is one.
bool IsPlain(const std::string &text) {
  for (size_t i = 0; i < text.size(); i++) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool c1 = byte == 0xC2 && i + 1 < text.size() &&
                    static_cast<unsigned char>(text[i + 1]) < 0xA0;  // U+0080 to U+009F
    if ((byte < 0x20 && byte != '\n') || byte == 0x7F || c1) {
      return false;
    }
  }
  return true;
}

long ResidentKilobytes(pid_t pid) {
  const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
  return strtol(status.c_str() + status.find("VmHWM:") + 6, nullptr, 10);
}

}  // namespace

// ---- Files in the registry's root ---------------------------------------------------------------

TEST(Security, KeptFilesAreNotReachedThroughLinks) {
  MadeUpHost host;
  host.File(kVictim, "precious", 0644);
  for (const std::string &file : kKept) {
    host.Link(file, kVictim);
  }
  host.Start();
  EXPECT_EQ(host.Get("tlxHoSystemRoleDetail"), "\"\"");
  ExpectSetsToFail(host);
  EXPECT_EQ(ReadFile(kVictim), "precious");
  EXPECT_EQ(Mode(kVictim), 0644U);
}

TEST(Security, KeptFilesAreNoOtherFilesSecondName) {
  MadeUpHost host;
  host.File(kVictim, "precious", 0644);
  host.Directory(kRoot);
  for (const std::string &file : kKept) {
    ASSERT_EQ(link(kVictim, file.c_str()), 0) << strerror(errno);
  }
  // A directory in which others can plant one.
  ASSERT_EQ(chmod(kRoot.c_str(), 0777), 0);
  host.Start();
  ExpectSetsToFail(host);
  ExpectSetsToFail(host);
  EXPECT_EQ(ReadFile(kVictim), "precious");
  EXPECT_EQ(Mode(kVictim), 0644U);
  EXPECT_EQ(host.daemon.Count("not used: it is a second name of another file"), 3U)
      << "once a file: " << host.daemon.Log();
}

TEST(Security, APipeInPlaceOfAKeptFileHoldsNobodyUp) {
  MadeUpHost host;
  host.Directory(kRoot);
  for (const std::string &file : kKept) {
    MakePipe(file);
  }
  host.Start();
  ExpectSetsToFail(host);
  ASSERT_TRUE(host.daemon.Poll());
}

// Who may write to a directory above the registry must not lead it elsewhere.
TEST(Security, AnotherUsersLinkOnTheWayToTheRegistryIsNotFollowed) {
  MadeUpHost host;
  for (const std::string way : {"/var/spool/quorix/kelmo", "/var/spool/quorix/kelmo/registry"}) {
    SCOPED_TRACE(way);
    host.Remove("/var/spool/quorix/kelmo");
    host.File("/home/guest/registry/host/precious", "precious");
    host.File("/home/guest/host/precious", "precious");
    host.Link(way, "/home/guest" + way.substr(strlen("/var/spool/quorix/kelmo")));
    ASSERT_EQ(lchown(way.c_str(), 1000, 1000), 0);
    host.Start();
    EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000") << "served all the same";
    ExpectSetsToFail(host);
    ASSERT_TRUE(host.daemon.Poll());
    EXPECT_EQ(host.daemon.Count("Can't write registry file"), 1U) << host.daemon.Log();
    EXPECT_EQ(host.daemon.Stop(), 0);
    EXPECT_EQ(ListDirectory("/home/guest/registry"), std::vector<std::string>{"host"});
    EXPECT_EQ(ListDirectory("/home/guest/registry/host"), std::vector<std::string>{"precious"});
    EXPECT_EQ(ListDirectory("/home/guest/host"), std::vector<std::string>{"precious"});
    host.snmpd.Stop();
  }
}

namespace {

constexpr char kSpool[] = "/var/spool/quorix";

// Another user's process that makes a directory and a link of his trade names as fast as it can,
// for as long as this lives.
class Swapper {
 public:
  Swapper(const std::string &one, const std::string &other) : process_(fork()) {
    if (process_ == 0) {
      if (setgid(1000) != 0 || setuid(1000) != 0 || prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) {
        _exit(1);
      }
      while (renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0) {
      }
      _exit(1);
    }
    EXPECT_GT(process_, 0);
  }
  ~Swapper() {
    if (process_ <= 0) {
      return;
    }
    EXPECT_EQ(waitpid(process_, nullptr, WNOHANG), 0) << "it swapped all the while";
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  Swapper(const Swapper &) = delete;
  Swapper &operator=(const Swapper &) = delete;

 private:
  pid_t process_;
};

}  // namespace

// A user to whom a directory above the registry was given has it change places with a link of his.
TEST(Security, ASwapOnTheWayToTheRegistryLeadsNoSetOutOfIt) {
  MadeUpHost host;
  host.Directory("/root/target/registry");
  host.Directory("/root/target/registry/threshold");
  host.Directory(kRoot);
  host.Link(std::string(kSpool) + "/link", "/root/target");
  ASSERT_EQ(chown(kSpool, 1000, 1000), 0);
  ASSERT_EQ(chown((std::string(kSpool) + "/kelmo").c_str(), 1000, 1000), 0);
  ASSERT_EQ(lchown((std::string(kSpool) + "/link").c_str(), 1000, 1000), 0);
  host.Start();
  {
    const Swapper swapper(std::string(kSpool) + "/kelmo", std::string(kSpool) + "/link");
    std::map<std::string, int> outcomes;
    for (int set = 0; set < 400; set++) {
      outcomes[host.Set({{"tlxHoSystemRole", 's', std::to_string(set)},
                         {"tlxHoSystemRoleDetail", 's', std::to_string(set)},
                         {"tlxHoGUID", 'x', kGuid}})]++;
      if (set % 40 == 0) {
        ASSERT_TRUE(host.daemon.Poll());
      }
    }
    // Else nothing was shown.
    EXPECT_GT(outcomes["noError"], 0);
    EXPECT_GT(outcomes["commitFailed"], 0);
    EXPECT_EQ(host.daemon.Stop(), 0);
  }
  EXPECT_EQ(ListDirectory("/root/target"), std::vector<std::string>{"registry"});
  EXPECT_EQ(ListDirectory("/root/target/registry"), std::vector<std::string>{"threshold"});
}

// No race is needed where the agent goes by names at its end.
TEST(Security, AtItsEndTheAgentRemovesNothingBehindAnotherUsersLink) {
  for (const std::string way : {"/var/spool/quorix/kelmo", "/var/spool/quorix/kelmo/registry"}) {
    SCOPED_TRACE(way);
    MadeUpHost host;
    host.Remove("/root/target");
    host.Directory("/root/target/host");
    host.Directory("/root/target/registry/host");
    host.Directory("/root/target/threshold");
    host.Start();
    host.Remove(way + ".moved");
    ASSERT_EQ(rename(way.c_str(), (way + ".moved").c_str()), 0);
    host.Link(way, "/root/target");
    ASSERT_EQ(lchown(way.c_str(), 1000, 1000), 0);
    // An entry there counts for nothing.
    ASSERT_TRUE(host.daemon.Poll());
    EXPECT_EQ(host.daemon.Count("cannot opendir("), 1U) << "an absent one, at the start";
    EXPECT_EQ(host.daemon.Stop(), 0);
    EXPECT_EQ(ListDirectory("/root/target"),
              (std::vector<std::string>{"host", "registry", "threshold"}));
    EXPECT_EQ(ListDirectory("/root/target/registry"), std::vector<std::string>{"host"});
    host.Remove(way);
    host.snmpd.Stop();
  }
}

// A start that fails removes what it made, and goes by the same way.
TEST(Security, AFailedStartRemovesNothingBehindAnotherUsersLink) {
  MadeUpHost host;
  host.Directory("/root/target/host");
  host.Link(kRoot, "/root/target");
  ASSERT_EQ(lchown(kRoot.c_str(), 1000, 1000), 0);
  host.Remove("/etc/mtab");
  DaemonOptions options;
  options.wait = false;
  host.daemon.Start(options);
  EXPECT_EQ(host.daemon.WaitEnd(), 1) << host.daemon.Log();
  EXPECT_EQ(ListDirectory("/root/target"), std::vector<std::string>{"host"});
}

TEST(Security, TheAdministratorsLinkToTheRegistryIsFollowed) {
  MadeUpHost host;
  host.Directory("/srv/kelmo");
  host.Link("/var/spool/quorix/kelmo", "/srv/kelmo");
  host.Start();
  EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "role"), "noError");
  EXPECT_EQ(ReadFile("/srv/kelmo/registry/tlxhosystemrole.dat"), "role");
  EXPECT_TRUE(Exists("/srv/kelmo/registry/host/memory"));
}

// ---- Whatever else is read ----------------------------------------------------------------------

// Pipes, devices and sockets in place of files: opening them may wait, reading them may not end.
TEST(Security, SpecialFilesInPlaceOfSourcesHoldNobodyUp) {
  MadeUpHost host;
  const std::string sources[] = {kRoot + "/ida/misc",
                                 kRoot + "/stdeq/misc",
                                 kRoot + "/health/thermal",
                                 kRoot + "/threshold/entry.1",
                                 "/etc/os-release",
                                 "/etc/quorix/appliance.conf",
                                 "/var/lib/quorix/ev/ZTHRN4",
                                 "/var/lib/quorix/ev/ZTHUV",
                                 "/sys/firmware/dmi/tables/smbios_entry_point",
                                 "/sys/firmware/dmi/tables/DMI"};
  host.Peer({"vexidad"});
  host.Peer({"vexstdeqd"});
  host.Peer({"vexhealthd"});
  for (const char *kind : {"pipe", "device", "huge"}) {
    SCOPED_TRACE(kind);
    for (const std::string &source : sources) {
      host.File(source, "");
      if (kind == std::string("pipe")) {
        MakePipe(source);
      } else if (kind == std::string("device")) {
        host.Link(source, "/dev/zero");
      } else {
        host.Remove(source);
        MakeHuge(host, source, "VEXREG1\n");
      }
    }
    host.Start();
    ASSERT_TRUE(host.daemon.Poll());
    EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
    EXPECT_EQ(host.Get("tlxHoMibCondition"), "INTEGER: 2");
    if (getenv("VEXHOSTD_SANITIZER") == nullptr) {
      // SMBIOS tables are the firmware's and may have 64 MiB.
      EXPECT_LT(ResidentKilobytes(host.daemon.pid()), 96 * 1024);
    }
    EXPECT_EQ(host.daemon.Stop(), 0);
    host.snmpd.Stop();
  }
}

TEST(Security, ATenGigabyteRoleIsReadAsFarAsItIsUsed) {
  MadeUpHost host;
  MakeHuge(host, kRoleFile, std::string(100, 'r'));
  MakeHuge(host, kDetailFile, std::string(600, 'd'));
  MakeHuge(host, kGuidFile, std::string(100, 'g'));
  host.Start();
  EXPECT_EQ(host.Get("tlxHoSystemRole"), "STRING: \"" + std::string(64, 'r') + "\"");
  EXPECT_EQ(host.Get("tlxHoSystemRoleDetail"), "STRING: \"" + std::string(512, 'd') + "\"");
  EXPECT_EQ(host.Get("tlxHoGUID"), "STRING: \"" + std::string(16, 'g') + "\"");
}

TEST(Security, AnOsReleaseOfHugeLinesIsCutOrRefused) {
  MadeUpHost host;
  host.File("/etc/os-release",
            "NAME=" + std::string(30000, 'n') + "\nPRETTY_NAME=" + std::string(30000, 'p') + "\n");
  host.Start();
  EXPECT_EQ(host.Get("tlxHoName"), "STRING: \"" + std::string(255, 'n') + "\"");
  EXPECT_EQ(host.Get("tlxHoDesc"), "STRING: \"" + std::string(255, 'p') + "\"");
  ASSERT_EQ(host.daemon.Stop(), 0);
  host.File("/etc/os-release", "NAME=" + std::string(70000, 'n') + "\n");
  host.Remove("/usr/lib/os-release");
  host.daemon.Start();
  EXPECT_EQ(host.Get("tlxHoName"), "\"\"");
  EXPECT_EQ(host.daemon.Count("/etc/os-release: too large, file not used"), 1U);
}

// ---- Names --------------------------------------------------------------------------------------

TEST(Security, NamesAreNoCommands) {
  MadeUpHost host;
  const std::string evil = "$(touch /run/evil);`touch /run/evil`|touch /run/evil&";
  host.File("/run/packages", "ii  qv" + evil +
                                 "  1.0  all  text\nii  kelmo`touch${IFS}/run/evil`  1\n"
                                 "ii  qv;touch${IFS}/run/evil  1.0  all  x\n");
  host.Command("dpkg",
               "case $1 in --print-architecture) echo amd64 ;; *) cat /run/packages ;; esac");
  host.File("/var/lib/dpkg/available", "");
  host.File("/etc/mtab",
            "/dev/sda1 /mnt/`touch\\040/run/evil` ext4 rw 0 0\n"
            "$(touch\\040/run/evil) /mnt/;touch${IFS}/run/evil ext4 rw 0 0\n");
  host.Directory("/vmfs/volumes");
  host.Directory("/vmfs/a:b;touch${IFS}${HOME:0:1}evil");
  host.Directory("/vmfs/a:`id`");
  host.Script("/usr/sbin/vmkfstools", "touch /run/asked");
  EXPECT_EQ(host.Vexreg({"put", "threshold/entry.`touch evil`", "int:1"}).status, 0);
  host.Peer({"vexida;touch /run/evil", "$(touch /run/evil)"});
  host.Start();
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "$(touch /run/evil)"), "noError");
  EXPECT_EQ(host.Set("tlxHoGenericData", 's', "`touch /run/evil`"), "noError");
  EXPECT_EQ(host.Set("tlxHoSwVerName.0", 's', "kelmo;touch /run/evil"), "noError");
  host.File("/var/lib/dpkg/available", "again");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_FALSE(Exists("/run/evil"));
  EXPECT_FALSE(Exists("/run/asked"));
  EXPECT_GE(host.daemon.Count("not a package name, skipped"), 2U);
}

TEST(Security, NamesForgeNoLogLines) {
  MadeUpHost host;
  // What getmntent() makes of \012 and \033; the directories do not exist, which is reported.
  host.File("/etc/mtab",
            "/dev/sda1 /mnt/a\\012Info:\\040forged ext4 rw 0 0\n"
            "/dev/sda2 /mnt/\033]0;title\007\\011x ext4 rw 0 0\n"
            "/dev/sda3 /mnt/\xC2\x9B"
            "31m\x9B\x7F ext4 rw 0 0\n");
  host.File("/run/packages", "ii  qv\033[2J  1.0  all  x\nii  kelmo\rInfo:  1.0  all  x\n");
  host.Command("dpkg",
               "case $1 in --print-architecture) echo amd64 ;; *) cat /run/packages ;; esac");
  host.File("/var/lib/dpkg/available", "");
  host.Peer({"vexida\nInfo: forged\033[2J"});
  host.Start();
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Set("tlxHoGenericData", 's', "\nInfo: forged\033[2J"), "noError");
  EXPECT_EQ(host.daemon.Count("Can't update OS filesys object: /mnt/"), 6U) << "at each pass";
  EXPECT_EQ(host.daemon.LinesWith("forged").at(0),
            "vexhostd: Can't update OS filesys object: /mnt/a?Info: forged  (PEER3023)");
  for (const std::string &line : host.daemon.LogLines()) {
    EXPECT_FALSE(line.starts_with("Info: forged")) << line;
  }
  EXPECT_TRUE(IsPlain(host.daemon.Log())) << host.daemon.Log();
}

TEST(Security, ObjectsReachNoTerminal) {
  MadeUpHost host;
  const std::string evil =
      "\033]0;t\007\r\xC2\x9B"
      "2J\x9B\x7F\xE2\x80\xAE";
  for (const std::string &name : {"stdeq/" + evil, "evil" + evil + "/1"}) {
    EXPECT_EQ(host.Vexreg({"put", name, "str:64:" + evil, "int:1"}).status, 0);
  }
  // A damaged one is named on standard error.
  host.File(kRoot + "/evil\033\xC2\x9B\x9B", "VEXREG1\ndamaged");
  for (const std::string command : {"show", "dump"}) {
    SCOPED_TRACE(command);
    const Outcome outcome = host.Vexreg({command});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.out, "");
    EXPECT_NE(outcome.err, "");
    EXPECT_TRUE(IsPlain(outcome.out)) << outcome.out;
    EXPECT_TRUE(IsPlain(outcome.err)) << outcome.err;
    EXPECT_EQ(outcome.err.find('\x9B'), std::string::npos) << outcome.err;
    EXPECT_EQ(outcome.out.find("\xE2\x80\xAE"), std::string::npos) << "reordered text";
  }
}

// ---- The log ------------------------------------------------------------------------------------

TEST(Security, APipeInPlaceOfTheLogHoldsNobodyUp) {
  MadeUpHost host;
  host.snmpd.Start();
  MakePipe("/run/log");
  DaemonOptions options;
  options.arguments = {"-p", "15", "-l", "/run/log"};
  options.wait = false;
  host.daemon.Start(options);
  EXPECT_EQ(host.daemon.WaitEnd(), 1);
  EXPECT_EQ(host.daemon.Count("Can't open log file /run/log"), 1U) << host.daemon.Log();

  host.Remove("/run/log");
  options.wait = true;
  host.daemon.Start(options);
  ASSERT_EQ(rename("/run/log", "/run/log.1"), 0);
  MakePipe("/run/log");
  host.daemon.Signal(SIGHUP);
  EXPECT_TRUE(Eventually([] {
    return ReadFile("/run/log.1").find("Can't open log file /run/log again") != std::string::npos;
  }));
  ASSERT_TRUE(host.daemon.Poll());
  host.Remove("/run/log");
  MakePipe("/run/log");
  // Somebody who opens it and does not read.
  const int reader = open("/run/log", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  host.daemon.Signal(SIGHUP);
  host.File("/etc/mtab", [] {
    std::string table;
    for (int i = 0; i < 2000; i++) {
      table += "dev /mnt/" + std::string(80, 'x') + std::to_string(i) + " ext4 rw 0 0\n";
    }
    return table;
  }());
  ASSERT_TRUE(host.daemon.Poll());
  ASSERT_TRUE(host.daemon.Poll()) << "a full pipe is not waited for";
  close(reader);
}

// Who may write in the log's directory has the administrator's link change places with his own.
TEST(Security, ASwapOfTheLogsLinkLeadsNoLogElsewhere) {
  MadeUpHost host;
  const std::string log = "/srv/logs/log";
  host.File(kVictim, "precious\n");
  host.File("/var/log/agent", "");
  host.Directory("/srv/logs");
  host.Link(log, "/var/log/agent");
  host.Link("/srv/logs/other", kVictim);
  ASSERT_EQ(lchown("/srv/logs/other", 1000, 1000), 0);
  DaemonOptions options;
  options.arguments = {"-p", "15", "-l", log};
  host.daemon.Start(options);
  ASSERT_EQ(chown("/srv/logs", 1000, 1000), 0);
  {
    const Swapper swapper(log, "/srv/logs/other");
    for (int i = 0; i < 400; i++) {
      host.daemon.Signal(SIGHUP);
      usleep(2000);
    }
  }
  // Else nothing was shown. The one that is not followed is reported to the one that is.
  EXPECT_NE(ReadFile("/var/log/agent").find("Can't open log file " + log + " again"),
            std::string::npos);
  EXPECT_EQ(host.daemon.Stop(), 0);
  EXPECT_EQ(ReadFile(kVictim), "precious\n");
}

TEST(Security, AnotherUsersLinkInPlaceOfTheLogIsNotFollowed) {
  MadeUpHost host;
  host.File(kVictim, "precious\n");
  host.Link("/run/log", kVictim);
  ASSERT_EQ(lchown("/run/log", 1000, 1000), 0);
  DaemonOptions options;
  options.arguments = {"-p", "15", "-l", "/run/log"};
  options.wait = false;
  host.daemon.Start(options);
  EXPECT_EQ(host.daemon.WaitEnd(), 1);
  EXPECT_EQ(host.daemon.Count("Can't open log file /run/log"), 1U) << host.daemon.Log();
  EXPECT_EQ(ReadFile(kVictim), "precious\n");

  // The administrator's is; and not the one that takes its place later.
  host.File("/var/log/agent", "");
  host.Link("/run/log", "/var/log/agent");
  options.wait = true;
  host.daemon.Start(options);
  EXPECT_NE(ReadFile("/var/log/agent"), "");
  host.Link("/run/log", kVictim);
  ASSERT_EQ(lchown("/run/log", 1000, 1000), 0);
  host.daemon.Signal(SIGHUP);
  EXPECT_TRUE(Eventually([] {
    return ReadFile("/var/log/agent").find("Can't open log file /run/log again") !=
           std::string::npos;
  }));
  EXPECT_EQ(ReadFile(kVictim), "precious\n");
}
