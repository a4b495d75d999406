#include "identity/info.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "tests/support/recording_framework.h"

namespace {

constexpr char kObject[] = "host/info";
constexpr char kRoleFile[] = REGISTRY_ROOT "/tlxhosystemrole.dat";
constexpr char kDetailFile[] = REGISTRY_ROOT "/tlxhosystemroledetail.dat";
constexpr char kRole[] = "tlxHoSystemRole";
constexpr char kDetail[] = "tlxHoSystemRoleDetail";

// A port of loopback and everything else, held or not for as long as this lives.
class Port {
 public:
  explicit Port(bool held) : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    socklen_t length = sizeof(address);
    EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&address), length), 0);
    EXPECT_EQ(getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &length), 0);
    number_ = ntohs(address.sin_port);
    if (!held) {
      Release();
    }
  }
  ~Port() {
    Release();
  }
  void Release() {
    if (socket_ >= 0) {
      close(socket_);
    }
    socket_ = -1;
  }
  int number() const {
    return number_;
  }

 private:
  int socket_;
  int number_ = 0;
};

mode_t ModeOf(const char *path) {
  struct stat st = {};
  EXPECT_EQ(stat(rec::RealPath(path).c_str(), &st), 0);
  return st.st_mode & 07777;
}

// One life of the agent, in a process of its own.
template <typename Steps>
void InOneLife(Steps steps) {
  const pid_t life = fork();
  ASSERT_GE(life, 0);
  if (life == 0) {
    steps();
    fflush(stdout);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(life, &status, 0), life);
  EXPECT_EQ(status, 0);
}

// What is in the registry's root, in order.
std::vector<std::string> Entries() {
  return rec::EntriesOf(REGISTRY_ROOT);
}

class Info : public testing::Test {
 protected:
  Info() {
    agent = "vexhostd";
    rec::PutDirectory(REGISTRY_ROOT);
    rec::PutService("telnet", 0);
    rec::SetDistribution("Debian GNU/Linux", "bookworm", "12", "Debian GNU/Linux 12 (bookworm)");
    utsname system = {};
    strcpy(system.sysname, "Linux");
    strcpy(system.nodename, "web1");
    strcpy(system.release, "5.10.0");
    strcpy(system.version, "#1 SMP");
    strcpy(system.machine, "x86_64");
    rec::PutSystem(system);
  }
  std::string Text(const char *variable) {
    return rec::Text(kObject, variable);
  }
};

// ---- Creation -----------------------------------------------------------------------------------

TEST_F(Info, TheObjectAsCreated) {
  ASSERT_EQ(do_info(), 0);
  const registry_object *object = rec::Live(kObject);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->flag, 1);
  EXPECT_EQ(object->data_size, 2124);
  EXPECT_EQ(object->var_count, 9);
  EXPECT_EQ(Text("tlxHoName"), "Debian GNU/Linux bookworm");
  EXPECT_EQ(Text("tlxHoVersion"), "12");
  EXPECT_EQ(Text("tlxHoDesc"), "Debian GNU/Linux 12 (bookworm)");
  EXPECT_EQ(rec::Int(kObject, "tlxHoOsType"), 14);
  EXPECT_EQ(rec::Int(kObject, "tlxHoTelnet"), 3);
  EXPECT_EQ(Text(kRole), "");
  EXPECT_EQ(Text(kDetail), "");
  EXPECT_EQ(Text("tlxHoSystemName"), "web1");
  EXPECT_EQ(Text("tlxHosysDescr"), "Linuxweb15.10.0#1 SMPx86_64");
  EXPECT_EQ(rec::Publications(kObject), 1);
  EXPECT_TRUE(rec::Messages().empty());
  // Looked for twice, let go once.
  EXPECT_EQ(rec::Count("distroid_init"), 2);
  EXPECT_EQ(rec::Count("distroid_exit"), 1);
}

TEST_F(Info, TheVariablesBySlot) {
  do_info();
  EXPECT_EQ(rec::Slots(kObject), (std::vector<rec::Slot>{{"tlxHoName", 256, 2, 2, 0},
                                                         {"tlxHoVersion", 256, 2, 2, 256},
                                                         {"tlxHoDesc", 256, 2, 2, 512},
                                                         {"tlxHoOsType", 4, 1, 2, 768},
                                                         {"tlxHoTelnet", 4, 1, 2, 772},
                                                         {"tlxHoSystemRole", 65, 2, 0, 776},
                                                         {"tlxHoSystemRoleDetail", 513, 2, 0, 841},
                                                         {"tlxHoSystemName", 256, 2, 2, 1354},
                                                         {"tlxHosysDescr", 512, 2, 2, 1610}}));
  EXPECT_EQ(rec::Handled(kObject),
            (std::vector<std::string>{"tlxHoSystemRole", "tlxHoSystemRoleDetail"}));
}

TEST_F(Info, FailsWithoutItsObject) {
  rec::Fail("create_obj", kObject);
  EXPECT_EQ(do_info(), -1);
  EXPECT_EQ(do_info(), -1);  // nothing to find either
  EXPECT_EQ(rec::Count("distroid_init"), 0);
}

TEST_F(Info, FailsWhenItsObjectIsGone) {
  ASSERT_EQ(do_info(), 0);
  rec::Fail("find_obj", kObject);
  EXPECT_EQ(do_info(), -1);
  EXPECT_EQ(rec::Publications(kObject), 1);
}

TEST_F(Info, PassesOnTheResultOfPublishing) {
  rec::Fail("log_data", kObject, 2);
  EXPECT_EQ(do_info(), 0);
  EXPECT_EQ(do_info(), -1);
  EXPECT_EQ(do_info(), 0);
}

// ---- Distribution and appliance -----------------------------------------------------------------

TEST_F(Info, WithoutADistribution) {
  rec::Fail("distroid_init");
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text("tlxHoName"), "");
  EXPECT_EQ(Text("tlxHoVersion"), "");
  EXPECT_EQ(Text("tlxHoDesc"), "");
  EXPECT_EQ(rec::Int(kObject, "tlxHoOsType"), 14);
  EXPECT_EQ(rec::Count("distroid_exit"), 1);
}

TEST_F(Info, TheDescriptionIsLookedForByItself) {
  rec::Fail("distroid_init", "*", 1);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text("tlxHoName"), "");
  EXPECT_EQ(Text("tlxHoDesc"), "Debian GNU/Linux 12 (bookworm)");
}

TEST_F(Info, ADistributionWithLongTexts) {
  const std::string long_text(300, 'x');
  rec::SetDistribution(long_text, "flavor", long_text, long_text);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text("tlxHoName"), std::string(255, 'x'));
  EXPECT_EQ(Text("tlxHoVersion"), std::string(255, 'x'));
  EXPECT_EQ(Text("tlxHoDesc"), std::string(255, 'x'));
  EXPECT_EQ(rec::Int(kObject, "tlxHoOsType"), 14);
}

TEST_F(Info, ADistributionWithoutAFlavor) {
  rec::SetDistribution("Own Linux", "", "", "");
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text("tlxHoName"), "Own Linux ");
  EXPECT_EQ(Text("tlxHoVersion"), "");
}

TEST_F(Info, OnAnAppliance) {
  rec::SetAppliance(true, 7, {{"OsName", "Quorix OS"}, {"OsVersion", "3.1"}});
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text("tlxHoName"), "Quorix OS");
  EXPECT_EQ(Text("tlxHoVersion"), "3.1");
  EXPECT_EQ(Text("tlxHoDesc"), "");
  EXPECT_EQ(rec::Int(kObject, "tlxHoOsType"), 1);
  EXPECT_EQ(rec::Count("distroid_init"), 0);
  EXPECT_EQ(rec::Count("distroid_exit"), 1);
}

TEST_F(Info, OnAnApplianceWithLongOrMissingTexts) {
  rec::SetAppliance(true, 7, {{"OsVersion", std::string(300, 'v')}});
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text("tlxHoName"), "");
  EXPECT_EQ(Text("tlxHoVersion"), std::string(255, 'v'));
}

TEST_F(Info, TheLongestSystem) {
  utsname system;
  memset(&system, 'n', sizeof(system));
  for (char *text :
       {system.sysname, system.nodename, system.release, system.version, system.machine}) {
    text[64] = '\0';
  }
  rec::PutSystem(system);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text("tlxHoSystemName"), std::string(64, 'n'));
  EXPECT_EQ(Text("tlxHosysDescr"), std::string(5 * 64, 'n'));
}

// ---- The telnet probe ---------------------------------------------------------------------------

TEST_F(Info, TelnetPortFree) {
  const Port port(false);
  rec::PutService("telnet", port.number());
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxHoTelnet"), 3);
}

TEST_F(Info, TelnetPortHeldAndLetGo) {
  Port port(true);
  rec::PutService("telnet", port.number());
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxHoTelnet"), 2);
  port.Release();
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxHoTelnet"), 3);
}

TEST_F(Info, TelnetWithoutAServiceOrASocket) {
  const Port port(true);
  rec::PutService("telnet", 0);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxHoTelnet"), 3);
  rec::PutService("telnet", port.number());
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxHoTelnet"), 2);
  rec::Fail("socket");
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxHoTelnet"), 3);
  EXPECT_EQ(rec::Publications(kObject), 3);
  EXPECT_TRUE(rec::Messages().empty());
}

TEST_F(Info, TheProbeLeavesNoDescriptor) {
  const Port port(false);
  rec::PutService("telnet", port.number());
  ASSERT_EQ(do_info(), 0);
  const int before = dup(0);
  close(before);
  for (int i = 0; i < 10; i++) {
    ASSERT_EQ(do_info(), 0);
  }
  const int after = dup(0);
  close(after);
  EXPECT_EQ(before, after);
}

TEST_F(Info, ARefreshIsTheProbeAlone) {
  ASSERT_EQ(do_info(), 0);
  rec::SetDistribution("Other", "other", "13", "other");
  rec::PutFile(kRoleFile, "other");
  utsname system = {};
  strcpy(system.nodename, "other");
  rec::PutSystem(system);
  rec::ForgetEvents();
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text("tlxHoName"), "Debian GNU/Linux bookworm");
  EXPECT_EQ(Text(kRole), "");
  EXPECT_EQ(Text("tlxHoSystemName"), "web1");
  EXPECT_EQ(rec::Publications(kObject), 2);
  EXPECT_EQ(rec::Count("distroid_init"), 0);
}

// ---- Role files ---------------------------------------------------------------------------------

TEST_F(Info, ReadsTheRoleFiles) {
  rec::PutFile(kRoleFile, "web server");
  rec::PutFile(kDetailFile, "two\nlines\n");
  chmod(kRoleFile, 0644);
  chmod(kDetailFile, 0644);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), "web server");
  EXPECT_EQ(Text(kDetail), "two\nlines\n");
  // One of them gets its mode when it is read, the other only when it is written.
  EXPECT_EQ(ModeOf(kRoleFile), 0644U);
  EXPECT_EQ(ModeOf(kDetailFile), 0600U);
}

TEST_F(Info, ReadsTheBeginningOfLongRoleFiles) {
  rec::PutFile(kRoleFile, std::string(64, 'r') + "X");
  rec::PutFile(kDetailFile, std::string(512, 'd') + std::string(10000, 'X'));
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), std::string(64, 'r'));
  EXPECT_EQ(Text(kDetail), std::string(512, 'd'));
  EXPECT_EQ(ModeOf(kDetailFile), 0600U);
}

TEST_F(Info, ReadsEmptyRoleFiles) {
  rec::PutFile(kRoleFile, "");
  rec::PutFile(kDetailFile, "");
  // What cannot be removed before is no failure of the reading, which would be tried again.
  rec::PutDirectory(REGISTRY_ROOT "/.tlxhosystemrole.dat.new.9");
  chmod(kDetailFile, 0640);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), "");
  EXPECT_EQ(Text(kDetail), "");
  EXPECT_EQ(ModeOf(kDetailFile), 0600U);
  EXPECT_EQ(rec::Count("nanosleep"), 0);
}

TEST_F(Info, RoleFilesThatCannotBeRead) {
  rec::PutFile(kRoleFile, "role");
  rec::PutDirectory(kDetailFile);
  rec::Fail("openat", kRoleFile);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), "");
  EXPECT_EQ(Text(kDetail), "");
  EXPECT_EQ(
      rec::Messages(),
      (std::vector<std::string>{
          "vexhostd: Can't read " + std::string(kRoleFile) + ": Input/output error\n",
          "vexhostd: File " + std::string(kDetailFile) + " not used: it is no plain file\n"}));
}

TEST_F(Info, AbsentRoleFilesAreNotSpokenOf) {
  rec::PutNothing(REGISTRY_ROOT);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), "");
  EXPECT_TRUE(rec::Messages().empty());
}

// A call that fails for a moment: out of descriptors or memory, interrupted, a bad cable.
TEST_F(Info, ReadsARoleAgainWhenThatFailed) {
  rec::PutFile(kRoleFile, "role");
  rec::PutFile(kDetailFile, "detail");
  for (const char *call : {"open_dir", "openat", "fstat", "read"}) {
    for (const int error : {EMFILE, ENFILE, ENOMEM, EINTR, EIO, EACCES}) {
      SCOPED_TRACE(std::string(call) + " " + strerror(error));
      InOneLife([&] {
        rec::Fail(call, "*", 1, error);
        ASSERT_EQ(do_info(), 0);
        EXPECT_EQ(Text(kRole), "role");
        EXPECT_EQ(Text(kDetail), "detail");
        EXPECT_TRUE(rec::Messages().empty());
      });
    }
  }
}

TEST_F(Info, ARoleThatIsReadAgainHasNothingOfTheFirstTry) {
  rec::PutFile(kRoleFile, "a text that is replaced meanwhile");
  rec::Fail("read", kRoleFile, 2);
  rec::OnPause([] { rec::PutFile(kRoleFile, "web"); });
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(rec::Count("nanosleep"), 1);
  EXPECT_EQ(Text(kRole), "web");
}

TEST_F(Info, DoesNotGoOnReadingWhenTheAgentEnds) {
  rec::PutFile(kRoleFile, "role");
  rec::Fail("openat", "*", 0, EIO);
  rec::Fail("agent_ending");
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(rec::Count("nanosleep"), 0);
}

TEST_F(Info, SetsARole) {
  ASSERT_EQ(do_info(), 0);
  rec::PutFile(kRoleFile, "an earlier and longer text");
  chmod(kRoleFile, 0644);
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("db")), 0);
  EXPECT_EQ(rec::ReadFile(kRoleFile), "db");
  EXPECT_EQ(ModeOf(kRoleFile), 0600U);
  // It is the next poll that publishes.
  EXPECT_EQ(rec::Publications(kObject), 1);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), "db");
  EXPECT_FALSE(std::filesystem::exists(rec::RealPath(kDetailFile)));
}

TEST_F(Info, SetsARoleDetail) {
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(rec::Set(kObject, kDetail, std::string("first\nsecond")), 0);
  EXPECT_EQ(rec::ReadFile(kDetailFile), "first\nsecond");
  EXPECT_EQ(ModeOf(kDetailFile), 0600U);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kDetail), "first\nsecond");
  EXPECT_EQ(Text(kRole), "");
  EXPECT_FALSE(std::filesystem::exists(rec::RealPath(kRoleFile)));
}

struct Limit {
  const char *variable;
  const char *file;
  size_t longest;
};
constexpr Limit kLimits[] = {{kRole, kRoleFile, 64}, {kDetail, kDetailFile, 512}};

TEST_F(Info, SetsUpToTheLimit) {
  ASSERT_EQ(do_info(), 0);
  for (const auto &[variable, file, longest] : kLimits) {
    const std::string whole(longest, 'w');
    EXPECT_EQ(rec::Set(kObject, variable, whole), 0);
    EXPECT_EQ(rec::Set(kObject, variable, whole + "w"), -1);
    EXPECT_EQ(rec::CheckOnly(kObject, variable, whole + "w"), -1);
    EXPECT_EQ(rec::ReadFile(file), whole);
    ASSERT_EQ(do_info(), 0);
    EXPECT_EQ(Text(variable), whole);
  }
}

TEST_F(Info, SetsTheEmptyText) {
  rec::PutFile(kRoleFile, "role");
  rec::PutFile(kDetailFile, "detail");
  ASSERT_EQ(do_info(), 0);
  for (const auto &[variable, file, longest] : kLimits) {
    EXPECT_EQ(rec::Set(kObject, variable, std::string()), 0);
    EXPECT_TRUE(std::filesystem::exists(rec::RealPath(file)));
    EXPECT_EQ(rec::ReadFile(file), "");
    ASSERT_EQ(do_info(), 0);
    EXPECT_EQ(Text(variable), "");
  }
}

TEST_F(Info, AShorterTextLeavesNothingOfTheLongerOne) {
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(rec::Set(kObject, kRole, std::string(64, 'l')), 0);
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("s")), 0);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(rec::Published(kObject).substr(776, 65), "s" + std::string(64, '\0'));
}

TEST_F(Info, ACheckChangesNothing) {
  ASSERT_EQ(do_info(), 0);
  for (const auto &[variable, file, longest] : kLimits) {
    EXPECT_EQ(rec::CheckOnly(kObject, variable, "valid"), 0);
    EXPECT_FALSE(std::filesystem::exists(rec::RealPath(file)));
    ASSERT_EQ(do_info(), 0);
    EXPECT_EQ(Text(variable), "");
  }
}

TEST_F(Info, ASetThatCannotOpenItsFileSucceedsQuietly) {
  rec::PutFile(kRoleFile, "old");
  rec::PutFile(kDetailFile, "old");
  ASSERT_EQ(do_info(), 0);
  rec::Fail("openat", REGISTRY_ROOT "/tlx*");
  for (const auto &[variable, file, longest] : kLimits) {
    EXPECT_EQ(rec::Set(kObject, variable, std::string("new")), 0);
    EXPECT_EQ(rec::ReadFile(file), "old");
    ASSERT_EQ(do_info(), 0);
    EXPECT_EQ(Text(variable), "old");
  }
  EXPECT_TRUE(rec::Messages().empty());
}

// Noerror without the value is for what stays so.
TEST_F(Info, ASetWhoseFileCannotBeOpenedForAMomentIsKept) {
  for (const bool there : {true, false}) {
    for (const char *call : {"open_dir", "openat"}) {
      for (const int error : {EMFILE, ENFILE, ENOMEM, EINTR, EIO}) {
        SCOPED_TRACE(std::string(call) + " " + strerror(error));
        InOneLife([&] {
          std::filesystem::remove(rec::RealPath(kRoleFile));
          if (there) {
            rec::PutFile(kRoleFile, "old");
          }
          ASSERT_EQ(do_info(), 0);
          rec::Fail(call, std::string(call) == "open_dir" ? "*" : kRoleFile, 1, error);
          EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), 0);
          EXPECT_EQ(rec::ReadFile(kRoleFile), "new");
          EXPECT_TRUE(rec::Messages().empty());
        });
      }
    }
  }
}

TEST_F(Info, ASetThatCannotWriteItsFileFails) {
  rec::PutFile(kRoleFile, "old");
  rec::PutFile(kDetailFile, "old");
  ASSERT_EQ(do_info(), 0);
  // No file may grow: like a full disk.
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit none = {0, before.rlim_max};
  signal(SIGXFSZ, SIG_IGN);
  for (const auto &[variable, file, longest] : kLimits) {
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
    const int result = rec::Set(kObject, variable, std::string("new"));
    const int check = rec::CheckOnly(kObject, variable, "new");
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(check, 0);
    ASSERT_EQ(do_info(), 0);
    EXPECT_EQ(Text(variable), "old");
    EXPECT_EQ(rec::ReadFile(file), "old");
    // An empty text needs no room.
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
    const int empty = rec::Set(kObject, variable, std::string());
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(empty, 0);
  }
}

// One call after the other fails: what the manager is told, what is served, what is in the file and
// what lies beside it agree.
TEST_F(Info, ASetOfWhichOneStepFailsChangesNothing) {
  struct Step {
    const char *call;
    std::string name;
    bool quiet;  // accepted all the same
  };
  const std::string root = REGISTRY_ROOT;
  const Step steps[] = {
      {"open_dir", root, true},    {"openat", kRoleFile, true},
      {"fstat", kRoleFile, false}, {"openat", root + "/.tlxhosystemrole.dat.new", false},
      {"fchmod", "*.new", false},  {"write", "*.new", false},
      {"fsync", "*.new", false},   {"fsync", root, false}};
  rec::PutFile(kRoleFile, "old");
  ASSERT_EQ(do_info(), 0);
  for (const auto &[call, name, quiet] : steps) {
    for (const int error : {EIO, ENOSPC, EACCES, EMFILE}) {
      SCOPED_TRACE(std::string(call) + " " + name + " " + strerror(error));
      rec::StopFailing();
      rec::Fail(call, name, quiet ? 0 : 1, error);
      EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), quiet ? 0 : -1);
      rec::StopFailing();
      EXPECT_EQ(rec::ReadFile(kRoleFile), "old");
      EXPECT_EQ(Entries(), std::vector<std::string>{"tlxhosystemrole.dat"});
      ASSERT_EQ(do_info(), 0);
      EXPECT_EQ(Text(kRole), "old");
    }
  }
  // Said once when it begins, and once when it ends.
  const std::string begins =
      "vexhostd: Can't replace " + std::string(kRoleFile) + ": " + strerror(EIO) + "\n";
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{begins});
  rec::StopFailing();
  for (const char *text : {"new", "newer"}) {
    EXPECT_EQ(rec::Set(kObject, kRole, std::string(text)), 0);
    EXPECT_EQ(rec::ReadFile(kRoleFile), text);
  }
  EXPECT_EQ(rec::Messages(),
            (std::vector<std::string>{
                begins, "vexhostd: " + std::string(kRoleFile) + " can be replaced again\n"}));
}

TEST_F(Info, ASignalDuringAStepOfASetChangesNothing) {
  rec::PutFile(kRoleFile, "old");
  ASSERT_EQ(do_info(), 0);
  for (const char *call : {"write", "fsync"}) {
    SCOPED_TRACE(call);
    rec::Fail(call, "*.new", 1, EINTR);
    EXPECT_EQ(rec::Set(kObject, kRole, std::string(call)), 0);
    EXPECT_EQ(rec::ReadFile(kRoleFile), call);
    rec::StopFailing();
  }
  // One that ends the agent is not waited out.
  rec::Fail("fsync", "*.new", 0, EINTR);
  rec::Fail("agent_ending");
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("late")), -1);
  EXPECT_EQ(rec::ReadFile(kRoleFile), "fsync");
}

// Where it has a second name, who may write in its directory counts.
TEST_F(Info, ASecondNameInADirectoryThatCannotBeAskedIsNotUsedYet) {
  rec::PutFile(kRoleFile, "role");
  rec::PutFile("/etc/copy", "");
  const std::string copy = rec::RealPath("/etc/copy");
  std::filesystem::remove(copy);
  std::filesystem::create_hard_link(rec::RealPath(kRoleFile), copy);
  rec::Fail("fstat", REGISTRY_ROOT);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), "");
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), -1);
  EXPECT_EQ(rec::ReadFile(kRoleFile), "role");
  rec::StopFailing();
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), "role");
}

TEST_F(Info, AFirstSetOfWhichOneStepFailsLeavesNoFile) {
  ASSERT_EQ(do_info(), 0);
  const std::string root = REGISTRY_ROOT;
  const std::pair<const char *, std::string> steps[] = {
      {"write", "*.new"}, {"fsync", "*.new"}, {"renameat", kRoleFile}, {"fsync", root}};
  for (const auto &[call, name] : steps) {
    SCOPED_TRACE(std::string(call) + " " + name);
    rec::StopFailing();
    rec::Fail(call, name, 1);
    EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), -1);
    EXPECT_EQ(Entries(), std::vector<std::string>{});
  }
  // Where none can be made, none can be opened for writing.
  rec::StopFailing();
  rec::Fail("openat", "*.new", 0, EROFS);
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), 0);
  EXPECT_EQ(Entries(), std::vector<std::string>{});
  EXPECT_EQ(rec::Messages().size(), 1U);
}

// What is said of a role that is refused and stays in its file.
std::vector<std::string> RefusedAndKept(const std::string &why, int error) {
  const std::string file = kRoleFile;
  return {"vexhostd: File " + file +
              " has a value that was refused, and that will be used from the next start on: " +
              why + "\n",
          "vexhostd: Can't replace " + file + ": " + strerror(error) + "\n"};
}

TEST_F(Info, AFirstSetThatCannotBeTakenBackIsSpokenOf) {
  ASSERT_EQ(do_info(), 0);
  const std::string file = kRoleFile;
  rec::Fail("fsync", REGISTRY_ROOT);
  rec::Fail("unlinkat", file);
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), -1);
  rec::StopFailing();
  EXPECT_EQ(rec::Messages(), RefusedAndKept("its directory cannot be synchronised", EIO));
  EXPECT_EQ(rec::ReadFile(kRoleFile), "new");
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), "");
}

TEST_F(Info, ASetWaitsForNoFileWhenTheAgentEnds) {
  rec::PutFile(kRoleFile, "old");
  ASSERT_EQ(do_info(), 0);
  rec::ForgetEvents();
  rec::Fail("openat", kRoleFile, 1, EMFILE);
  rec::Fail("agent_ending");
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), 0);
  EXPECT_EQ(rec::Count("nanosleep"), 0);
  EXPECT_EQ(rec::ReadFile(kRoleFile), "old");
}

// Not every file system can exchange two names, or synchronise a directory.
TEST_F(Info, ASetDoesWithWhatTheFileSystemCan) {
  rec::PutFile(kRoleFile, "old");
  ASSERT_EQ(do_info(), 0);
  rec::Fail("renameat2", "*", 0, EINVAL);
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), 0);
  EXPECT_EQ(rec::ReadFile(kRoleFile), "new");
  rec::Fail("fsync", "*", 0, EINVAL);
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("newer")), 0);
  EXPECT_EQ(rec::ReadFile(kRoleFile), "newer");
  EXPECT_EQ(Entries(), std::vector<std::string>{"tlxhosystemrole.dat"});
  EXPECT_TRUE(rec::Messages().empty());
  // Then there is no way back, and the log says what will be served.
  rec::StopFailing();
  rec::Fail("renameat2", "*", 0, EINVAL);
  rec::Fail("fsync", REGISTRY_ROOT, 0, EIO);
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("newest")), -1);
  EXPECT_EQ(rec::Messages().size(), 2U);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), "newer");
}

TEST_F(Info, ASetIsOnTheDiskBeforeItIsAccepted) {
  ASSERT_EQ(do_info(), 0);
  rec::PutFile(kRoleFile, "old");
  rec::ForgetEvents();
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), 0);
  std::vector<std::string> calls;
  for (const rec::Event &event : rec::Events()) {
    if (event.operation == "fsync" || event.operation.starts_with("rename")) {
      calls.push_back(event.operation + " " + event.name);
    }
  }
  EXPECT_EQ(calls, (std::vector<std::string>{"fsync " REGISTRY_ROOT "/.tlxhosystemrole.dat.new",
                                             std::string("renameat2 ") + kRoleFile,
                                             "fsync " REGISTRY_ROOT}));
}

// The disk took so long that the manager was told of a failure: before the new file has its name,
// or after.
TEST_F(Info, ASetThatIsNotWantedAnyMoreLeavesTheOldText) {
  ASSERT_EQ(do_info(), 0);
  for (const std::string old : {"", "old"}) {
    if (!old.empty()) {
      ASSERT_EQ(rec::Set(kObject, kRole, old), 0);
    }
    for (const char *asked : {"first", "last"}) {
      SCOPED_TRACE(old + " " + asked);
      rec::ForgetEvents();
      rec::Fail("set_wanted", asked);
      EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), -1);
      rec::StopFailing();
      EXPECT_EQ(rec::Count("renameat2") + rec::Count("renameat") > 0, strcmp(asked, "last") == 0);
      EXPECT_EQ(rec::ReadFile(kRoleFile), old);
      EXPECT_EQ(Entries(), old.empty() ? std::vector<std::string>{}
                                       : std::vector<std::string>{"tlxhosystemrole.dat"});
      ASSERT_EQ(do_info(), 0);
      EXPECT_EQ(Text(kRole), old);
    }
  }
  ASSERT_EQ(rec::Set(kObject, kRole, std::string("older")), 0);
  rec::ForgetEvents();
  // Where there is no way back, the log says what will be served.
  rec::Fail("renameat2", "*", 0, EINVAL);
  rec::Fail("set_wanted", "last");
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), -1);
  EXPECT_EQ(rec::Messages(), RefusedAndKept("its directory was synchronised too late", ECANCELED));
}

// Two hundred kills and more, each at another moment of one set after the other, until one of them
// has found a set under way.
TEST_F(Info, AKillLeavesTheOldTextOrTheNewOne) {
  const std::string texts[] = {std::string(512, 'a'), std::string(300, 'b')};
  rec::PutFile(kDetailFile, texts[0]);
  InOneLife([&] {
    ASSERT_EQ(do_info(), 0);
    int amid = 0;  // kills that found a set under way
    for (int kills = 0; kills < 200 || (amid == 0 && kills < 2000); kills++) {
      const pid_t setter = fork();
      ASSERT_GE(setter, 0);
      if (setter == 0) {
        for (int i = 0;; i++) {
          rec::Set(kObject, kDetail, texts[i % 2]);
        }
      }
      // Neither usleep(3) nor nanosleep(2), which are taken over here.
      const timespec moment = {0, 1'000'000 + 37'000 * (kills % 200)};
      clock_nanosleep(CLOCK_MONOTONIC, 0, &moment, nullptr);
      kill(setter, SIGKILL);
      ASSERT_EQ(waitpid(setter, nullptr, 0), setter);
      const std::string kept = rec::ReadFile(kDetailFile);
      ASSERT_TRUE(kept == texts[0] || kept == texts[1]) << kept;
      amid += Entries().size() > 1;
    }
    EXPECT_GT(amid, 0);
  });
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kDetail), rec::ReadFile(kDetailFile));
  EXPECT_EQ(Entries(), std::vector<std::string>{"tlxhosystemroledetail.dat"});
}

TEST_F(Info, WhatAKilledAgentLeftIsNeverFollowed) {
  const std::string left = REGISTRY_ROOT "/.tlxhosystemrole.dat.new";
  rec::PutFile(left, "half");
  rec::PutFile(kRoleFile, "old");
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), "old");
  EXPECT_EQ(Entries(), std::vector<std::string>{"tlxhosystemrole.dat"});
  rec::PutFile("/etc/victim", "precious");
  std::filesystem::create_symlink(rec::RealPath("/etc/victim"), rec::RealPath(left));
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), 0);
  EXPECT_EQ(rec::ReadFile("/etc/victim"), "precious");
  EXPECT_EQ(rec::ReadFile(kRoleFile), "new");
  EXPECT_EQ(Entries(), std::vector<std::string>{"tlxhosystemrole.dat"});
}

// Whoever may write in the registry's root can put directories in the way, but has to find all of
// the ways.
TEST_F(Info, ANameThatIsTakenIsNotWaitedFor) {
  const std::string left = REGISTRY_ROOT "/.tlxhosystemrole.dat.new";
  rec::PutFile(kRoleFile, "old");
  ASSERT_EQ(do_info(), 0);
  rec::PutFile(left + "/entry", "");
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), 0);
  EXPECT_EQ(rec::ReadFile(kRoleFile), "new");
  EXPECT_EQ(Entries(),
            (std::vector<std::string>{".tlxhosystemrole.dat.new", "tlxhosystemrole.dat"}));
  EXPECT_TRUE(rec::Messages().empty());
  for (int i = 1; i < 10; i++) {
    rec::PutFile(left + "." + std::to_string(i) + "/entry", "");
  }
  for (int i = 0; i < 2; i++) {
    EXPECT_EQ(rec::Set(kObject, kRole, std::string("newer")), -1);
  }
  EXPECT_EQ(rec::ReadFile(kRoleFile), "new");
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{"vexhostd: Can't replace " +
                                                      std::string(kRoleFile) + ": File exists\n"});
}

TEST_F(Info, AFirstSetThatFindsAllOfItsWaysTakenFails) {
  ASSERT_EQ(do_info(), 0);
  const std::string left = REGISTRY_ROOT "/.tlxhosystemrole.dat.new";
  rec::PutDirectory(left);
  for (int i = 1; i < 10; i++) {
    rec::PutDirectory(left + "." + std::to_string(i));
  }
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), -1);
  EXPECT_EQ(rec::ReadFile(kRoleFile), "");
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{"vexhostd: Can't replace " +
                                                      std::string(kRoleFile) + ": File exists\n"});
}

// In another's directory it may be one that is not ours to remove, or be planted anew at once.
TEST_F(Info, ANameThatStaysTakenIsPassedOver) {
  const std::string left = REGISTRY_ROOT "/.tlxhosystemrole.dat.new";
  rec::PutFile(kRoleFile, "old");
  ASSERT_EQ(do_info(), 0);
  const std::pair<const char *, int> reasons[] = {{"unlinkat", EPERM}, {"openat", EEXIST}};
  for (const auto &[call, error] : reasons) {
    SCOPED_TRACE(call);
    rec::PutFile(left, "planted");
    rec::Fail(call, left, 0, error);
    rec::ForgetEvents();
    EXPECT_EQ(rec::Set(kObject, kRole, std::string(call)), 0);
    rec::StopFailing();
    EXPECT_EQ(rec::ReadFile(kRoleFile), call);
    EXPECT_EQ(rec::Names("fsync").at(0), left + ".1");
    EXPECT_TRUE(rec::Messages().empty());
  }
  // Any other reason ends the search.
  rec::PutFile(left, "planted");
  rec::Fail("unlinkat", left, 0, EIO);
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("newer")), -1);
  EXPECT_EQ(rec::ReadFile(kRoleFile), "openat");
}

TEST_F(Info, EachTimeThatItsFileIsRefusedIsSaid) {
  ASSERT_EQ(do_info(), 0);
  const std::string refused =
      "vexhostd: File " + std::string(kRoleFile) + " not used: it is no plain file\n";
  const std::string again = "vexhostd: " + std::string(kRoleFile) + " can be replaced again\n";
  const std::string real = rec::RealPath(kRoleFile);
  ASSERT_EQ(symlink("elsewhere", real.c_str()), 0);
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("one")), -1);
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("one")), -1);
  ASSERT_EQ(unlink(real.c_str()), 0);
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("one")), 0);
  EXPECT_EQ(rec::Messages(), (std::vector<std::string>{refused, again}));
  rec::ForgetEvents();
  ASSERT_EQ(unlink(real.c_str()), 0);
  ASSERT_EQ(mkfifo(real.c_str(), 0600), 0);
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("two")), -1);
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{refused});
}

TEST_F(Info, WhatAKilledAgentLeftOfAFurtherNameGoesAtTheStart) {
  const std::string left = REGISTRY_ROOT "/.tlxhosystemrole.dat.new";
  rec::PutFile(kRoleFile, "old");
  rec::PutFile(left + "/entry", "");
  rec::PutFile(left + ".1", "half");
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Entries(),
            (std::vector<std::string>{".tlxhosystemrole.dat.new", "tlxhosystemrole.dat"}));
}

TEST_F(Info, WhatTheStartCouldNotReadIsReadByALaterPoll) {
  rec::PutFile(kRoleFile, "role");
  rec::PutFile(kDetailFile, "detail");
  rec::Fail("read", kRoleFile);
  rec::Fail("openat", kDetailFile);
  ASSERT_EQ(do_info(), 0);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), "");
  EXPECT_EQ(Text(kDetail), "");
  EXPECT_EQ(rec::Messages().size(), 2U);
  rec::StopFailing();
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), "role");
  EXPECT_EQ(Text(kDetail), "detail");
  EXPECT_EQ(rec::Messages().size(), 4U);
  EXPECT_EQ(rec::Messages()[2], "vexhostd: " + std::string(kRoleFile) + " was read at last\n");
  // From then on it is a set that changes it.
  rec::PutFile(kRoleFile, "another");
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), "role");
  EXPECT_EQ(rec::Messages().size(), 4U);
}

TEST_F(Info, ASetCountsMoreThanWhatTheStartCouldNotRead) {
  rec::PutFile(kRoleFile, "role");
  rec::Fail("read", kRoleFile);
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), 0);
  rec::StopFailing();
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Text(kRole), "new");
}

// ---- A root that is another one -----------------------------------------------------------------

// The registry's root as somebody makes it anew: empty, and with another birth.
void MakeTheRootAnew() {
  rec::PutNothing(REGISTRY_ROOT);
  rec::PutDirectory(REGISTRY_ROOT);
}

constexpr char kOtherRoot[] = ": the registry's root was another one\n";

TEST_F(Info, RolesAreWrittenAgainIntoANewRoot) {
  rec::PutFile(kRoleFile, "role");
  ASSERT_EQ(do_info(), 0);
  // While there is none, or it cannot be looked at, the next poll tries again.
  rec::PutNothing(REGISTRY_ROOT);
  ASSERT_EQ(do_info(), 0);
  rec::Fail("create_dir");
  ASSERT_EQ(do_info(), 0);
  rec::StopFailing();
  MakeTheRootAnew();
  const std::pair<const char *, int> failures[] = {
      {"open_dir", EMFILE}, {"statx", EIO}, {"fstatat", EIO}, {"renameat", EIO}};
  for (const auto &[call, error] : failures) {
    SCOPED_TRACE(call);
    rec::Fail(call, "*", 0, error);
    ASSERT_EQ(do_info(), 0);
    EXPECT_EQ(Entries(), std::vector<std::string>{});
    rec::StopFailing();
  }
  rec::ForgetEvents();
  ASSERT_EQ(do_info(), 0);
  // The other text was never one that a manager had set.
  EXPECT_EQ(Entries(), std::vector<std::string>{"tlxhosystemrole.dat"});
  EXPECT_EQ(rec::ReadFile(kRoleFile), "role");
  EXPECT_EQ(rec::Messages().back(),
            "vexhostd: " + std::string(kRoleFile) + " was written again" + kOtherRoot);
  rec::ForgetEvents();
  ASSERT_EQ(do_info(), 0);
  EXPECT_TRUE(rec::Messages().empty());
}

// A number of an inode is given again: what differs may be nothing but the second, or less.
TEST_F(Info, ARootIsAnotherOneByItsBirthAlone) {
  rec::PutBirth(REGISTRY_ROOT, {1000, 5});
  rec::PutFile(kRoleFile, "role");
  ASSERT_EQ(do_info(), 0);
  std::filesystem::remove(rec::RealPath(kRoleFile));
  // A manager's set is not taken back by who removes the file.
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Entries(), std::vector<std::string>{});
  for (const timespec &birth : {timespec{1001, 5}, timespec{1001, 6}, timespec{1000, 6}}) {
    SCOPED_TRACE(std::to_string(birth.tv_sec) + "." + std::to_string(birth.tv_nsec));
    rec::PutBirth(REGISTRY_ROOT, birth);
    ASSERT_EQ(do_info(), 0);
    EXPECT_EQ(rec::ReadFile(kRoleFile), "role");
    std::filesystem::remove(rec::RealPath(kRoleFile));
    ASSERT_EQ(do_info(), 0);
    EXPECT_EQ(Entries(), std::vector<std::string>{});
  }
}

// Not every file system keeps when a file was made: what stands in its place says nothing.
TEST_F(Info, ARootWithoutABirthIsTheSame) {
  rec::PutBirth(REGISTRY_ROOT, {1000, -1});
  rec::PutFile(kRoleFile, "role");
  ASSERT_EQ(do_info(), 0);
  std::filesystem::remove(rec::RealPath(kRoleFile));
  rec::PutBirth(REGISTRY_ROOT, {1001, -1});
  ASSERT_EQ(do_info(), 0);
  EXPECT_EQ(Entries(), std::vector<std::string>{});
}

TEST_F(Info, AFileInANewRootIsLeftAndSpokenOf) {
  rec::PutFile(kRoleFile, "role");
  rec::PutFile(kDetailFile, "detail\n");
  ASSERT_EQ(do_info(), 0);
  const std::string differs =
      "vexhostd: " + std::string(kRoleFile) +
      " has another value than the one that is served; the next start takes "
      "it" +
      kOtherRoot;
  // Its text, what is said of it, and a call that fails meanwhile.
  const struct {
    std::string text;
    bool spoken_of;
    const char *failing;
  } cases[] = {{"role", false, ""},           {"role\n\n", false, ""},
               {"other", true, ""},           {"roll", true, ""},
               {"role of another", true, ""}, {"other", false, "openat"},
               {"other", false, "read"},      {"", true, ""}};
  for (const auto &[text, spoken_of, failing] : cases) {
    SCOPED_TRACE(text + failing);
    MakeTheRootAnew();
    rec::PutFile(kRoleFile, text);
    rec::PutFile(kDetailFile, "detail\n");  // an end of line of its own is part of the value
    rec::ForgetEvents();
    rec::Fail(failing, kRoleFile);
    ASSERT_EQ(do_info(), 0);
    rec::StopFailing();
    ASSERT_EQ(do_info(), 0);
    EXPECT_EQ(rec::Messages(),
              spoken_of ? std::vector<std::string>{differs} : std::vector<std::string>{});
    EXPECT_EQ(rec::ReadFile(kRoleFile), text);
    EXPECT_EQ(Text(kRole), "role");
  }
}

// As cp -al or ln leave it.
TEST_F(Info, ASecondNameIsUsedWhereOthersCannotHavePlantedIt) {
  rec::PutFile(kRoleFile, "role");
  rec::PutFile("/etc/copy", "");
  const std::string copy = rec::RealPath("/etc/copy");
  for (const mode_t mode : {0755, 0775, 0757}) {
    SCOPED_TRACE(mode);
    std::filesystem::remove(copy);
    std::filesystem::create_hard_link(rec::RealPath(kRoleFile), copy);
    ASSERT_EQ(chmod(REGISTRY_ROOT, mode), 0);
    const bool used = mode == 0755;
    const std::vector<std::string> refusal = {
        "vexhostd: File " + std::string(kRoleFile) +
        " not used: it is a second name of another file, and others may write in its directory\n"};
    InOneLife([&] {
      ASSERT_EQ(do_info(), 0);
      EXPECT_EQ(Text(kRole), used ? "role" : "");
      for (int set = 0; set < 3; set++) {
        EXPECT_EQ(rec::Set(kObject, kRole, std::string("role")), used ? 0 : -1);
      }
      EXPECT_EQ(rec::ReadFile("/etc/copy"), "role");
      EXPECT_EQ(rec::Messages(), used ? std::vector<std::string>{} : refusal);
      // Once it is a file of its own again, the next refusal is a new one.
      std::filesystem::remove(copy);
      EXPECT_EQ(rec::Set(kObject, kRole, std::string("role")), 0);
      rec::ForgetEvents();
      std::filesystem::create_hard_link(rec::RealPath(kRoleFile), copy);
      EXPECT_EQ(rec::Set(kObject, kRole, std::string("role")), used ? 0 : -1);
      EXPECT_EQ(rec::Messages(), used ? std::vector<std::string>{} : refusal);
    });
  }
}

TEST_F(Info, ASecondNameIsUsedInADirectoryOfRootOrOfThisUser) {
  rec::PutFile(kRoleFile, "role");
  rec::PutFile("/etc/copy", "");
  const std::string copy = rec::RealPath("/etc/copy");
  std::filesystem::remove(copy);
  std::filesystem::create_hard_link(rec::RealPath(kRoleFile), copy);
  ASSERT_EQ(chmod(REGISTRY_ROOT, 0755), 0);
  constexpr uid_t kThis = 1000;
  constexpr uid_t kOther = 1001;
  struct {
    uid_t owner, user;
    bool used;
  } const cases[] = {{0, 0, true},
                     {0, kThis, true},
                     {kThis, kThis, true},
                     {kOther, kThis, false},
                     {kThis, 0, false}};
  for (const auto &[owner, user, used] : cases) {
    SCOPED_TRACE(std::to_string(owner) + " " + std::to_string(user));
    rec::PutOwner(REGISTRY_ROOT, owner);
    rec::PutUser(user);
    InOneLife([&, used = used] {
      ASSERT_EQ(do_info(), 0);
      EXPECT_EQ(Text(kRole), used ? "role" : "");
      EXPECT_EQ(rec::Set(kObject, kRole, std::string("new")), used ? 0 : -1);
      EXPECT_EQ(rec::ReadFile("/etc/copy"), "role");
    });
    std::filesystem::remove(rec::RealPath(kRoleFile));
    std::filesystem::create_hard_link(copy, rec::RealPath(kRoleFile));
  }
}

TEST_F(Info, ASetFailsWhenSomethingElseIsInItsFilesPlace) {
  ASSERT_EQ(do_info(), 0);
  ASSERT_EQ(chmod(REGISTRY_ROOT, 0777), 0);
  for (const auto &[variable, file, longest] : kLimits) {
    const std::string path = rec::RealPath(file);
    for (const char *kind : {"link", "dangling link", "pipe", "second name"}) {
      SCOPED_TRACE(kind);
      std::filesystem::remove(path);
      rec::PutFile("/etc/victim", "precious");
      const std::string victim = rec::RealPath("/etc/victim");
      if (kind == std::string("link")) {
        std::filesystem::create_symlink(victim, path);
      } else if (kind == std::string("dangling link")) {
        std::filesystem::create_symlink(victim + "-new", path);
      } else if (kind == std::string("pipe")) {
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
      } else {
        std::filesystem::create_hard_link(victim, path);
      }
      EXPECT_EQ(rec::Set(kObject, variable, std::string("new")), -1);
      EXPECT_EQ(rec::ReadFile("/etc/victim"), "precious");
      EXPECT_FALSE(std::filesystem::exists(victim + "-new"));
      ASSERT_EQ(do_info(), 0);
      EXPECT_EQ(Text(variable), "");
    }
  }
}

TEST_F(Info, TheHandlerRefusesOtherSlots) {
  ASSERT_EQ(do_info(), 0);
  registry_object *object = rec::Live(kObject);
  const set_handler_fn handler = object->desc[5].set_handler;
  for (const int slot : {0, 4, 7, 8}) {
    for (const uint8_t phase : {SET_CHECK, SET_APPLY}) {
      EXPECT_EQ(handler(phase, object, &object->desc[slot], "x", 1), -1);
    }
  }
}

}  // namespace
