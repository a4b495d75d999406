// The launcher that confines a command as the service manager confines a unit's processes: what is
// refused outside it for no reason is refused inside for the unit's.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/process.h"

using namespace made_up;

namespace {

using Strings = std::vector<std::string>;

// A unit with these lines in its [Service] section.
class Sandbox {
 public:
  explicit Sandbox(const std::string &lines) {
    std::ofstream(kUnit) << "[Unit]\nDescription=Made up\nRestrictNothing=here\n\n"
                            "[Service]\nType=notify\nExecStart=/usr/bin/true\n"
                         << lines << "\n[Install]\nWantedBy=multi-user.target\n";
  }
  Outcome Run(const Strings &command) {
    Strings whole = {VEX_TESTS_UNIT_SANDBOX, kUnit};
    whole.insert(whole.end(), command.begin(), command.end());
    return RunCommand(whole);
  }
  // What one system call comes to inside.
  std::string Inside(const Strings &call) {
    Strings command = {VEX_TESTS_TRY_CALL};
    command.insert(command.end(), call.begin(), call.end());
    return Shown(Run(command));
  }
  // What it comes to outside.
  static std::string Outside(const Strings &call) {
    Strings command = {VEX_TESTS_TRY_CALL};
    command.insert(command.end(), call.begin(), call.end());
    return Shown(RunCommand(command));
  }
  // A line of /proc/self/status inside, without its key.
  std::string Status(const std::string &key) {
    for (const std::string &line : Lines(Run({"cat", "/proc/self/status"}).out)) {
      if (line.starts_with(key + ":\t")) {
        return line.substr(key.size() + 2);
      }
    }
    return "none";
  }
  // Why the unit is not taken.
  std::string Refusal() {
    const Outcome outcome = Run({"echo", "it ran"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.out, "");
    const std::string head = std::string("unit_sandbox: ") + kUnit + ": ";
    EXPECT_TRUE(outcome.err.starts_with(head)) << outcome.err;
    return outcome.err.substr(std::min(head.size(), outcome.err.size()));
  }

 private:
  static std::string Shown(const Outcome &outcome) {
    return outcome.status == 0 ? Lines(outcome.out).at(0)
                               : "status " + std::to_string(outcome.status) + outcome.err;
  }

  static constexpr char kUnit[] = "/run/made-up.service";
};

// A descriptor, or an error.
std::string Opened(const std::string &result) {
  return result.find_first_not_of("0123456789") == std::string::npos ? "opened" : result;
}

}  // namespace

TEST(UnitSandbox, RunsACommandWithItsVariables) {
  Sandbox sandbox("");
  EXPECT_EQ(sandbox.Run({"ONE=1", "TWO=a=b", "sh", "-c", "echo $ONE $TWO; exit 7"}).out, "1 a=b\n");
  EXPECT_EQ(sandbox.Run({"sh", "-c", "exit 7"}).status, 7);
  EXPECT_EQ(sandbox.Status("Seccomp"), "0");
  EXPECT_EQ(sandbox.Status("NoNewPrivs"), "0");
  EXPECT_EQ(sandbox.Run({"sh", "-c", "umask"}).out, "0022\n");
  EXPECT_EQ(sandbox.Run({"/nowhere"}).status, 3);
}

TEST(UnitSandbox, LeavesNothingOfAUnitOutInSilence) {
  EXPECT_EQ(Sandbox("ProtectSystem=strict").Refusal(),
            "ProtectSystem: what it does to the service is not known here\n");
  EXPECT_EQ(Sandbox("UMask=0077\nPrivateUsers=yes\nLockPersonality=yes").Refusal(),
            "PrivateUsers: what it does to the service is not known here\n");
  EXPECT_EQ(Sandbox("SystemCallFilter=@system-service @nosuch").Refusal(),
            "SystemCallFilter: systemd-analyze knows no such group of system calls: @nosuch\n");
  EXPECT_EQ(Sandbox("SystemCallFilter=nosuch_call").Refusal(),
            "SystemCallFilter: unknown system call nosuch_call\n");
  EXPECT_EQ(Sandbox("SystemCallErrorNumber=EWHAT").Refusal(),
            "SystemCallErrorNumber: unknown error EWHAT\n");
  EXPECT_EQ(Sandbox("CapabilityBoundingSet=CAP_SYS_EVERYTHING").Refusal(),
            "CapabilityBoundingSet: unknown capability CAP_SYS_EVERYTHING\n");
  EXPECT_EQ(Sandbox("RestrictAddressFamilies=AF_MARS").Refusal(),
            "RestrictAddressFamilies: unknown address family AF_MARS\n");
  EXPECT_EQ(Sandbox("RestrictNamespaces=perhaps").Refusal(),
            "RestrictNamespaces: not a boolean: perhaps\n");
  EXPECT_EQ(Sandbox("LimitNOFILE=many").Refusal(), "LimitNOFILE: not a limit: many\n");
  EXPECT_EQ(Sandbox("MemoryMax=10M").Refusal(),
            "MemoryMax: what it does to the service is not known here\n");
  EXPECT_EQ(Sandbox("IPAddressDeny=127.0.0.1").Refusal(),
            "IPAddressDeny: what it does to the service is not known here\n");
  EXPECT_EQ(Sandbox("DeviceAllow=/dev/null r").Refusal(),
            "DeviceAllow: what it does to the service is not known here\n");
  EXPECT_EQ(Sandbox("just a line").Refusal(), "just a line: no assignment\n");
  const Outcome missing = RunCommand({VEX_TESTS_UNIT_SANDBOX, "/nowhere", "echo"});
  EXPECT_EQ(missing.status, 2);
  EXPECT_EQ(missing.err, "unit_sandbox: /nowhere cannot be read\n");
}

// As many filters as the service manager loads: none for architectures that are refused anyway, nor
// where a filter could not look at the arguments.
TEST(UnitSandbox, LoadsTheManagersFilters) {
  EXPECT_EQ(Sandbox("RestrictAddressFamilies=AF_UNIX").Status("Seccomp_filters"), "2");
  EXPECT_EQ(Sandbox("LockPersonality=yes").Status("Seccomp_filters"), "3");
  EXPECT_EQ(
      Sandbox("SystemCallArchitectures=native\nLockPersonality=yes").Status("Seccomp_filters"),
      "2");
  EXPECT_EQ(Sandbox("SystemCallArchitectures=native x86 x32\nSystemCallFilter=~mount")
                .Status("Seccomp_filters"),
            "3");
}

TEST(UnitSandbox, RefusesSystemCalls) {
  // Refused outside, too, but for another reason: nothing stands at the null pointer.
  EXPECT_EQ(Sandbox::Outside({"mount"}), "EFAULT");
  EXPECT_EQ(Sandbox::Outside({"sync"}), "0");
  {
    Sandbox sandbox("SystemCallFilter=@system-service\nSystemCallErrorNumber=EACCES");
    EXPECT_EQ(sandbox.Status("Seccomp"), "2");
    EXPECT_EQ(sandbox.Inside({"mount"}), "EACCES");
    EXPECT_EQ(sandbox.Inside({"sync"}), "0");
  }
  {
    // A group, a call of the group again, and what follows with "~".
    Sandbox sandbox(
        "SystemCallFilter=@system-service \\\n# in between\n  mount\n"
        "SystemCallFilter=~@sync mkdir\nSystemCallErrorNumber=13");
    EXPECT_EQ(sandbox.Inside({"mount"}), "EFAULT");
    EXPECT_EQ(sandbox.Inside({"sync"}), "EACCES");
    EXPECT_EQ(sandbox.Inside({"mkdir", "/run/made"}), "EACCES");
    EXPECT_FALSE(Exists("/run/made"));
    EXPECT_EQ(sandbox.Inside({"umount2", "/nowhere", "0"}), "EACCES");
  }
  {
    // What is listed is refused, some with an error of its own; else the process is killed.
    Sandbox sandbox("SystemCallFilter=~@mount sync:EUCLEAN\n");
    EXPECT_EQ(sandbox.Inside({"sync"}), "EUCLEAN");
    EXPECT_EQ(sandbox.Inside({"mount"}), "status 159");  // 128 + SIGSYS
    EXPECT_EQ(sandbox.Inside({"mkdir", "/run/made", "0755"}), "0");
  }
  // An empty assignment forgets what came before.
  EXPECT_EQ(Sandbox("SystemCallFilter=@default\nSystemCallFilter=\n").Status("Seccomp"), "0");
}

TEST(UnitSandbox, RefusesOtherArchitectures) {
  constexpr char kX32Getpid[] = "0x40000027";
  EXPECT_FALSE(Sandbox::Outside({kX32Getpid}).starts_with("status"));
  Sandbox sandbox("SystemCallArchitectures=native");
  EXPECT_EQ(sandbox.Inside({kX32Getpid}), "status 159");
  EXPECT_EQ(sandbox.Inside({"sync"}), "0");
}

TEST(UnitSandbox, TakesCapabilitiesAway) {
  EXPECT_EQ(Sandbox::Outside({"chroot", "/"}), "0");
  {
    Sandbox sandbox("CapabilityBoundingSet=CAP_DAC_OVERRIDE CAP_NET_BIND_SERVICE");
    for (const char *set : {"CapPrm", "CapEff", "CapBnd"}) {
      EXPECT_EQ(sandbox.Status(set), "0000000000000402");
    }
    EXPECT_EQ(sandbox.Status("CapInh"), "0000000000000000");
    EXPECT_EQ(sandbox.Inside({"chroot", "/"}), "EPERM");
  }
  {
    Sandbox sandbox("CapabilityBoundingSet=~CAP_SYS_CHROOT\nCapabilityBoundingSet=~CAP_KILL");
    EXPECT_EQ(sandbox.Inside({"chroot", "/"}), "EPERM");
    EXPECT_EQ(std::stoull(sandbox.Status("CapEff"), nullptr, 16) & (1U << 5), 0U);
    EXPECT_NE(std::stoull(sandbox.Status("CapEff"), nullptr, 16) & 1U, 0U);
  }
  EXPECT_EQ(Sandbox("CapabilityBoundingSet=").Status("CapEff"), "0000000000000000");
  Sandbox ambient("CapabilityBoundingSet=CAP_CHOWN CAP_KILL\nAmbientCapabilities=CAP_KILL");
  EXPECT_EQ(ambient.Status("CapAmb"), "0000000000000020");
  EXPECT_EQ(Sandbox("NoNewPrivileges=yes").Status("NoNewPrivs"), "1");
}

TEST(UnitSandbox, RefusesAddressFamilies) {
  const Strings unix_socket = {"socket", "1", "2"}, inet = {"socket", "2", "2"},
                inet6 = {"socket", "10", "2"}, netlink = {"socket", "16", "2"},
                out_of_range = {"socket", "99", "2"};
  EXPECT_EQ(Opened(Sandbox::Outside(netlink)), "opened");
  {
    Sandbox sandbox("RestrictAddressFamilies=AF_UNIX AF_INET\nRestrictAddressFamilies=AF_INET6");
    EXPECT_EQ(Opened(sandbox.Inside(unix_socket)), "opened");
    EXPECT_EQ(Opened(sandbox.Inside(inet)), "opened");
    EXPECT_EQ(Opened(sandbox.Inside(inet6)), "opened");
    EXPECT_EQ(sandbox.Inside(netlink), "EAFNOSUPPORT");
    EXPECT_EQ(sandbox.Inside({"socket", "5", "2"}), "EAFNOSUPPORT");
    EXPECT_EQ(sandbox.Inside({"socket", "0", "2"}), "EAFNOSUPPORT");
    EXPECT_EQ(sandbox.Inside(out_of_range), "EAFNOSUPPORT");
  }
  {
    Sandbox sandbox("RestrictAddressFamilies=~AF_NETLINK AF_INET");
    EXPECT_EQ(sandbox.Inside(netlink), "EAFNOSUPPORT");
    EXPECT_EQ(sandbox.Inside(inet), "EAFNOSUPPORT");
    EXPECT_EQ(Opened(sandbox.Inside(unix_socket)), "opened");
  }
  EXPECT_EQ(Sandbox("RestrictAddressFamilies=none").Inside(unix_socket), "EAFNOSUPPORT");
}

TEST(UnitSandbox, RefusesNamespaces) {
  const Strings mounts = {"unshare", "0x20000"}, names = {"unshare", "0x4000000"},
                join = {"setns", "-1", "0"}, clone = {"clone", "0x20000"}, clone3 = {"clone3"};
  EXPECT_EQ(Sandbox::Outside(mounts), "0");
  EXPECT_EQ(Sandbox::Outside(names), "0");
  EXPECT_EQ(Sandbox::Outside(join), "EBADF");
  EXPECT_EQ(Sandbox::Outside(clone3), "EINVAL");
  {
    Sandbox sandbox("RestrictNamespaces=yes");
    EXPECT_EQ(sandbox.Inside(mounts), "EPERM");
    EXPECT_EQ(sandbox.Inside(names), "EPERM");
    EXPECT_EQ(sandbox.Inside(join), "EPERM");
    EXPECT_EQ(sandbox.Inside(clone), "EPERM");
    EXPECT_EQ(sandbox.Inside({"clone", "0x80"}), "EPERM");
    EXPECT_EQ(sandbox.Inside(clone3), "ENOSYS");
    EXPECT_EQ(sandbox.Run({"sh", "-c", "(echo forked)"}).out, "forked\n");
  }
  {
    Sandbox sandbox("RestrictNamespaces=uts ipc");
    EXPECT_EQ(sandbox.Inside(mounts), "EPERM");
    EXPECT_EQ(sandbox.Inside(names), "0");
    EXPECT_EQ(sandbox.Inside({"setns", "-1", "0x4000000"}), "EBADF");
  }
  EXPECT_EQ(Sandbox("RestrictNamespaces=~uts").Inside(names), "EPERM");
  EXPECT_EQ(Sandbox("RestrictNamespaces=~uts").Inside(mounts), "0");
  EXPECT_EQ(Sandbox("RestrictNamespaces=no").Inside(mounts), "0");
}

TEST(UnitSandbox, RefusesSingleDoings) {
  const Strings realtime = {"sched_setscheduler", "0", "1", "0"},
                batch = {"sched_setscheduler", "0", "3", "0"},
                suid = {"chmod", "/run/file", "04755"}, sgid = {"mkdir", "/run/directory", "02755"},
                plain = {"chmod", "/run/file", "0755"},
                suid_file = {"openat", "-100", "/run/other", "0100", "04755"},
                openat2 = {"openat2", "-100", "/run/file", "0", "24"},
                personality = {"personality", "8"},
                writable_code = {"mmap", "0", "4096", "7", "0x22", "-1"},
                data = {"mmap", "0", "4096", "3", "0x22", "-1"},
                code_later = {"mprotect", "0", "0", "5"}, clock = {"clock_settime", "0", "0"},
                name = {"sethostname", "other", "5"};
  {
    Sandbox sandbox("RestrictRealtime=yes");
    EXPECT_EQ(Sandbox::Outside(realtime), "EINVAL");
    EXPECT_EQ(sandbox.Inside(realtime), "EPERM");
    EXPECT_EQ(sandbox.Inside(batch), "EINVAL");
    EXPECT_EQ(sandbox.Run({"sh", "-c", "grep 'realtime priority' /proc/self/limits"}).out,
              "Max realtime priority     0                    0                    \n");
  }
  {
    Sandbox sandbox("RestrictSUIDSGID=yes");
    close(creat("/run/file", 0644));
    EXPECT_EQ(Sandbox::Outside(suid), "0");
    EXPECT_EQ(Sandbox::Outside(openat2), "EFAULT");
    EXPECT_EQ(sandbox.Inside(suid), "EPERM");
    EXPECT_EQ(sandbox.Inside(sgid), "EPERM");
    EXPECT_EQ(sandbox.Inside(suid_file), "EPERM");
    EXPECT_EQ(sandbox.Inside({"452", "-100", "/run/file", "04755"}), "EPERM");  // fchmodat2()
    EXPECT_EQ(sandbox.Inside(plain), "0");
    EXPECT_EQ(sandbox.Inside(openat2), "ENOSYS");
  }
  {
    Sandbox sandbox("LockPersonality=yes");
    EXPECT_EQ(Sandbox::Outside(personality), "0");
    EXPECT_EQ(sandbox.Inside(personality), "EPERM");
    EXPECT_EQ(sandbox.Inside({"personality", "0"}), "0");
  }
  {
    Sandbox sandbox("MemoryDenyWriteExecute=yes");
    EXPECT_EQ(Opened(Sandbox::Outside(writable_code)), "opened");
    EXPECT_EQ(Sandbox::Outside(code_later), "0");
    EXPECT_EQ(sandbox.Inside(writable_code), "EPERM");
    EXPECT_EQ(sandbox.Inside(code_later), "EPERM");
    EXPECT_EQ(Opened(sandbox.Inside(data)), "opened");
  }
  {
    Sandbox sandbox("ProtectClock=yes");
    EXPECT_EQ(Sandbox::Outside(clock), "EFAULT");
    EXPECT_EQ(sandbox.Inside(clock), "EPERM");
    EXPECT_EQ(std::stoull(sandbox.Status("CapEff"), nullptr, 16) & (1U << 25), 0U);
  }
  {
    Sandbox sandbox("ProtectHostname=yes");
    EXPECT_EQ(sandbox.Inside(name), "EPERM");
    EXPECT_EQ(Sandbox::Outside(name), "0");
    EXPECT_EQ(RunCommand({"hostname"}).out, "other\n");
  }
}

TEST(UnitSandbox, SetsLimitsAndTheFileModeMask) {
  Sandbox sandbox(
      "UMask=0077\nLimitNOFILE=100:200\nLimitCORE=0\nLimitFSIZE=2M\nLimitSTACK=infinity\n");
  EXPECT_EQ(
      sandbox.Run({"sh", "-c", "umask; ulimit -n; ulimit -Hn; ulimit -c; ulimit -f; ulimit -s"})
          .out,
      "0077\n100\n200\n0\n4096\nunlimited\n");
}
