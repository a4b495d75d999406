// vexreg capture on a machine whose processes and settings are made up, and where calls fail.
// Takes root for its mounts.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <optional>

#include "common/sources.h"
#include "framework/snmp/mib_table.h"
#include "tests/support/failing_call.h"
#include "tests/support/failing_zstd.h"
#include "tests/support/process.h"
#include "tests/unit/framework/temp_registry.h"
#include "tests/unit/tools/made_object.h"
#include "tests/unit/tools/replay/own_mounts.h"
#include "tests/unit/tools/said_by.h"
#include "tools/vexreg/captured_host.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/host_facts.h"
#include "tools/vexreg/host_files.h"

namespace vex {
namespace {

namespace fs = std::filesystem;

// As /proc has command lines and environments.
std::string WithEnds(const std::vector<std::string> &words) {
  std::string text;
  for (const std::string &word : words) {
    text += word + '\0';
  }
  return text;
}

std::string StatOf(char state) {
  return std::string("77 (vexhostd) ") + state + " 1 77 77 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 100 0\n";
}

// A machine with nothing below /proc, /etc and /opt but these.
struct Machine {
  // Of files, by path; a path with "/" at its end is a directory.
  std::map<std::string, std::string> texts = {
      {"/proc/77/comm", "vexhostd\n"},
      {"/proc/77/stat", StatOf('S')},
      {"/proc/77/cmdline", WithEnds({"/usr/sbin/vexhostd", "-p", "15"})},
      {"/proc/77/environ", WithEnds({"PATH=/opt/bin"})},
      {"/proc/88/cmdline", WithEnds({"sleep", "1"})},
  };
  std::map<std::string, std::string> links = {{"/proc/self/ns/pid", "pid:[1]"},
                                              {"/proc/77/ns/pid", "pid:[1]"}};

  void Script(const std::string &path, const std::string &body) {
    texts[path] = "#!/bin/sh\n" + body + "\n";
  }
  // In a process with mounts of its own.
  bool Make() const {
    for (const char *const directory : {"/proc", "/etc", "/opt"}) {
      if (mount("made-up", directory, "tmpfs", 0, nullptr) != 0) {
        return false;
      }
    }
    for (const auto &[path, text] : texts) {
      fs::create_directories(fs::path(path).parent_path());
      if (!path.ends_with('/')) {
        std::ofstream(path, std::ios::binary) << text;
        chmod(path.c_str(), 0755);
      }
    }
    for (const auto &[path, target] : links) {
      fs::create_directories(fs::path(path).parent_path());
      fs::create_symlink(target, path);
    }
    return true;
  }
};

// A call that fails in the capture: with `after`, the first one after a call of that function.
struct Failing {
  const char *call;
  int error;
  const char *path = nullptr;
  const char *after = nullptr;
};

struct Taken {
  int status = -1;
  std::string said;
  std::optional<Capture> capture;  // that was written

  bool LeftOut(const std::string &omission) const {
    return said.find("vexreg: left out: " + omission + "\n") != std::string::npos;
  }
  bool Has(const std::string &member) const {
    return capture && capture->Find(member) != nullptr;
  }
};

class Captured : public testing::Test {
 protected:
  void SetUp() override {
    PublishMade(registry_.root(), "host/memory", MadeObject({Int("tlxHoPhysicalMemorySize", 1)}));
  }
  Taken Take(const std::vector<Failing> &failing = {}, const CaptureLimits &limits = {}) {
    Taken taken;
    fs::remove(file_);
    taken.said = SaidBy([&] {
      taken.status = WithOwnMounts([&] {
        if (!machine_.Make()) {
          return 98;
        }
        std::list<FailingCall> calls;
        for (const Failing &one : failing) {
          const auto fail = [&] { calls.emplace_back(one.call, one.error).On(one.path); };
          if (one.after != nullptr) {
            calls.emplace_back(one.after, fail);
          } else {
            fail();
          }
        }
        const int next = dup(STDERR_FILENO);
        close(next);
        const int status = CaptureHost(registry_.root(), file_, "1", false, limits);
        return dup(STDERR_FILENO) == next ? status : 97;  // 97: it has left one open
      });
    });
    if (made_up::Exists(file_)) {
      taken.capture = ReadCapture(file_);
      EXPECT_TRUE(taken.capture) << "it cannot be read";
    }
    return taken;
  }

  Machine machine_;
  TempRegistry registry_;
  std::string file_ = registry_.base() + "/host.tar.zst";
};

TEST_F(Captured, IsForRootAlone) {
  int status = -1;
  const FailingCall nobody("geteuid", EPERM);
  EXPECT_EQ(SaidBy([&] { status = CaptureHost(registry_.root(), file_, "1", false); }),
            "vexreg: capture reads what only root may: run it as root\n");
  EXPECT_EQ(status, kFailed);
  EXPECT_FALSE(made_up::Exists(file_));
}

// What a call fails for is left out with the reason, and all else is there.
TEST_F(Captured, LacksWhatFailsAlone) {
  const std::string root = registry_.root() + "/";
  machine_.texts[raid_key_path] = "";
  machine_.texts["/etc/services"] = "all else";
  struct {
    std::vector<Failing> failing;
    std::vector<std::string> omissions;
  } const cases[] = {
      {{{"uname", ENOSYS},
        {"stat", EIO, package_database_path},
        {"poll", 0},
        {"shmget", EACCES},
        {"opendir", EMFILE, "/proc/"},
        {"fdopendir", ENOMEM}},
       {"uname: Function not implemented",
        std::string(package_database_path) + ": Input/output error", "dpkg: no end in time",
        "the RAID key segment: Permission denied", "/proc/: Too many open files",
        root + ": Cannot allocate memory"}},
      {{{"pipe2", EMFILE},
        {"shmget", 0},
        {"shmat", ENOMEM},
        {"openat", EMFILE, "/88/cmdline"},
        {"readdir", EIO, nullptr, "fdopendir"}},
       {"dpkg: could not be run", "the RAID key segment: Cannot allocate memory",
        "/proc/88/cmdline: Too many open files", root + ": Input/output error"}},
      {{{"fstatat", EIO, "memory"}}, {root + "host/memory: Input/output error"}},
      {{{"openat", EACCES, "memory"}}, {root + "host/memory: Permission denied"}},
  };
  for (const auto &[failing, omissions] : cases) {
    const Taken taken = Take(failing);
    EXPECT_EQ(taken.status, kDone);
    for (const std::string &omission : omissions) {
      EXPECT_TRUE(taken.LeftOut(omission)) << omission << "\n" << taken.said;
    }
    EXPECT_TRUE(taken.Has("host/etc/services")) << taken.said;
    EXPECT_FALSE(taken.Has("registry/host/memory")) << taken.said;
  }
  EXPECT_TRUE(Take().Has("registry/host/memory"));
}

// What goes while it is looked at is not missed.
TEST_F(Captured, LacksNothingOfWhatHasGone) {
  machine_.texts[raid_key_path] = "";
  machine_.texts["/proc/89/cmdline"] = machine_.texts["/proc/90/cmdline"] = "";
  PublishMade(registry_.root(), "host/cpu", MadeObject({Int("tlxHoCpuUtilMin", 1)}));
  const Taken taken = Take({{"openat", ENOENT, "/88/cmdline"},
                            {"openat", ESRCH, "/89/cmdline"},
                            {"openat", ENOTDIR, "/90/cmdline"},
                            {"stat", ENOTDIR, package_database_path},
                            {"fstatat", ENOENT, "memory"},
                            {"openat", ENOENT, "cpu"},
                            {"shmget", ENOENT}});
  EXPECT_EQ(taken.status, kDone);
  EXPECT_FALSE(taken.Has("registry/host/memory") || taken.Has("registry/host/cpu"));
  for (const char *const name : {"/cmdline", package_database_path, "/host/", "RAID"}) {
    EXPECT_EQ(taken.said.find(name), std::string::npos) << taken.said;
  }
}

TEST_F(Captured, IsNotWrittenWhereItCannotBePacked) {
  std::ofstream(file_) << "before";
  failing_zstd_call = "ZSTD_compress2";
  const Taken taken = Take();
  failing_zstd_call = "";
  EXPECT_EQ(taken.status, kFailed);
  EXPECT_EQ(taken.said, "vexreg: " + file_ + ": cannot be compressed\n");
  EXPECT_FALSE(made_up::Exists(file_));
}

// Also where there is no room for anything else.
TEST_F(Captured, HasItsDescriptionWhateverItsLimits) {
  machine_.Script("/opt/bin/dpkg", "echo package");
  const Taken most = Take();
  EXPECT_FALSE(most.LeftOut("registry/host/memory: the capture is full")) << most.said;
  ASSERT_TRUE(most.Has("commands/0"));
  const size_t count = most.capture->members.size();
  CaptureLimits limits;
  for (const size_t members : {size_t{0}, count - 2}) {
    limits.members = members;
    const Taken taken = Take({}, limits);
    EXPECT_EQ(taken.status, kDone);
    ASSERT_TRUE(taken.capture) << members;
    EXPECT_EQ(taken.capture->members.size(), members + 1);
    EXPECT_EQ(taken.capture->omissions.size(),
              most.capture->omissions.size() + count - 1 - members);
    EXPECT_TRUE(members > 0 || taken.LeftOut("registry/host/memory: the capture is full"))
        << taken.said;
  }
  limits = {};
  limits.bytes = 0;
  const Taken taken = Take({}, limits);
  ASSERT_TRUE(taken.capture);
  EXPECT_TRUE(taken.LeftOut("commands/0: the capture is full")) << taken.said;
  EXPECT_EQ(taken.capture->commands.at(0).words.at(0), "dpkg");
  EXPECT_EQ(taken.capture->commands.at(0).member, "");
}

// An agent whose environment is not to be seen may have secrets in places that nobody knows of.
TEST_F(Captured, HasNoWordsOfAnAgentThatIsNotToBeSeen) {
  for (const bool partly : {false, true}) {
    machine_.texts.erase("/proc/77/environ");
    if (partly) {
      machine_.texts["/proc/77/environ/"] = "";  // it can be opened, and not be read
    }
    // Commands of the usual PATH are this machine's.
    const Taken taken = Take({{"pipe2", EMFILE}, {"pipe2", EMFILE}, {"fork", EAGAIN}});
    EXPECT_EQ(taken.status, kDone);
    for (const std::string omission :
         {"the agent's environment: cannot be read; its commands are looked for as usual",
          "/proc/77/environ: Input/output error",
          "doctor: what is secret on this host could not be read",
          "log: what is secret on this host could not be read"}) {
      EXPECT_TRUE(taken.LeftOut(omission)) << omission << "\n" << taken.said;
    }
  }
}

// Nor those of a host whose configuration has more secrets than could be read.
TEST_F(Captured, HasNoWordsWhereSecretsAreNotAllKnown) {
  machine_.texts["/proc/77/cmdline"] = WithEnds({"/usr/sbin/vexhostd", "-l", "/opt/log"});
  machine_.texts["/opt/log"] = "asked with s3cret-word\n";
  machine_.links["/opt/bin/tail"] = "/usr/bin/tail";
  machine_.texts["/etc/snmp/snmpd.conf"] = "rocommunity s3cret-word\n";
  const Taken known = Take();
  ASSERT_TRUE(known.Has(kLogFileMember)) << known.said;
  EXPECT_EQ(known.capture->Find(kLogFileMember)->bytes, "asked with (left out)\n");

  machine_.texts["/etc/snmp/snmpd.conf"].insert(0, kMostFile, '\n');
  const Taken large = Take();
  EXPECT_TRUE(large.LeftOut("/etc/snmp/snmpd.conf: File too large")) << large.said;
  EXPECT_TRUE(large.LeftOut("log: what is secret on this host could not be read")) << large.said;
  EXPECT_FALSE(large.Has(kLogFileMember));

  machine_.texts.erase("/etc/snmp/snmpd.conf");
  machine_.texts["/etc/snmp/snmpd.conf/"] = "";
  machine_.texts["/etc/snmp/vexhostd.conf/"] = "";
  // What fails after them and has no secrets, the kernel's configuration, does not make it good.
  const Taken unread = Take({{"uname", ENOSYS}, {"openat", EIO, kernel_configuration_prefix}});
  EXPECT_TRUE(unread.LeftOut(std::string(kernel_configuration_prefix) + ": Input/output error"));
  EXPECT_TRUE(unread.LeftOut("/etc/snmp/snmpd.conf: Invalid argument")) << unread.said;
  EXPECT_TRUE(unread.LeftOut("/etc/snmp/vexhostd.conf: Invalid argument")) << unread.said;
  EXPECT_FALSE(unread.Has(kLogFileMember));
}

// What the user may not read, he may not read secrets in.
TEST_F(Captured, SecretsOfAPageAreThoseThatItsUserMayRead) {
  std::map<std::string, int> unseen;
  const auto look = [&] {
    unseen.clear();
    SecretsOfHost(0, [&](const std::string &path, int error) { unseen[path] = error; });
  };
  for (const int error : {EACCES, EIO}) {
    FailingCall failing("openat", error);
    failing.On(mount_table_path);
    look();
    EXPECT_EQ(unseen.count(mount_table_path), error == EIO ? 1U : 0U);
  }
  machine_.texts[mount_table_path] = std::string(kMostFile + 1, '\n');
  EXPECT_EQ(WithOwnMounts([&] {
              if (!machine_.Make()) {
                return 98;
              }
              look();
              return unseen == std::map<std::string, int>{{mount_table_path, EFBIG}} ? 7 : 1;
            }),
            7);
}

// It asks the program that it is itself.
TEST_F(Captured, HasDoctorsFindingsOrWhyThereAreNone) {
  EXPECT_TRUE(Take().LeftOut("doctor: doctor could not be run"));
  machine_.Script("/proc/self/exe", "echo \"$*\"");
  const Taken said = Take();
  ASSERT_TRUE(said.Has(kFindingsMember)) << said.said;
  EXPECT_EQ(said.capture->Find(kFindingsMember)->bytes,
            "--root " + registry_.root() + " doctor --json --limit 20\n");
  // The call of the system that it is waited with says that the time is over.
  machine_.texts[raid_key_path] = "";
  const Taken late = Take({{"poll", 0, nullptr, "shmget"}});
  EXPECT_TRUE(late.LeftOut("doctor: doctor did not end in 20 s")) << late.said;
  machine_.Script("/proc/self/exe", "head -c 9000000 /dev/zero");
  machine_.links["/opt/bin/head"] = "/usr/bin/head";
  const Taken much = Take();
  EXPECT_TRUE(much.LeftOut("doctor: doctor said too much")) << much.said;
  EXPECT_FALSE(much.Has(kFindingsMember));
}

// Of an agent of another revision it does not know which variables that had.
TEST_F(Captured, NamesTheVariablesOfItsOwnRevisionAlone) {
  EXPECT_TRUE(Take().capture->variables.empty());
  const MibGroup &own = MibGroups().front();
  struct {
    int major, minor;
    bool named;
  } constexpr kCases[] = {{0, 0, true}, {0, 1, false}, {1, 0, false}};
  for (const auto &[major, minor, named] : kCases) {
    PublishMade(registry_.root(), "host/misc",
                MadeObject({Int("tlxHoMibRevMajor", own.major_revision + major),
                            Int("tlxHoMibRevMinor", own.minor_revision + minor)}));
    const Taken taken = Take();
    ASSERT_TRUE(taken.capture);
    EXPECT_EQ(taken.capture->variables.count("tlxHoPhysicalMemorySize"), named ? 1U : 0U)
        << major << minor;
  }
}

// Only one that lives, and no container's.
TEST(Agents, AreThisHostsLivingOnes) {
  const auto found = [](const Machine &machine) {
    return WithOwnMounts(
        [&] { return machine.Make() ? static_cast<int>(FindProcesses("vexhostd").size()) : 98; });
  };
  Machine machine;
  EXPECT_EQ(found(machine), 1);
  for (const char state : {'Z', 'X'}) {
    machine.texts["/proc/77/stat"] = StatOf(state);
    EXPECT_EQ(found(machine), 0) << state;
  }
  machine.texts["/proc/77/stat"] = StatOf('T');
  EXPECT_EQ(found(machine), 1);
  machine.links["/proc/77/ns/pid"] = "pid:[2]";
  EXPECT_EQ(found(machine), 0);
  // Where its namespace is not to be seen, its numbers tell.
  machine.links.erase("/proc/77/ns/pid");
  machine.texts["/proc/self/status"] = "Name:\tvexreg\nNSpid:\t5\n";
  machine.texts["/proc/77/status"] = "Name:\tvexhostd\nNSpid:\t77\n";
  EXPECT_EQ(found(machine), 1);
  machine.texts["/proc/77/status"] = "Name:\tvexhostd\nNSpid:\t77\t1\n";
  EXPECT_EQ(found(machine), 0);
}

}  // namespace
}  // namespace vex
