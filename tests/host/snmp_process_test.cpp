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

#include <cerrno>
#include <cstring>
#include <map>
#include <thread>

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

// The starter of a daemon, and the process that it has started; -1 for none.
pid_t StarterOf(pid_t daemon) {
  for (const std::string &name : ListDirectory("/proc")) {
    if (name.find_first_not_of("0123456789") == std::string::npos &&
        Status(std::stoi(name), "PPid") == std::to_string(daemon) &&
        ProcFile(std::stoi(name), "comm") == "snmp-starter\n") {
      return std::stoi(name);
    }
  }
  return -1;
}
pid_t SnmpProcessOf(pid_t daemon) {
  const pid_t starter = StarterOf(daemon);
  const std::vector<pid_t> children = starter > 0 ? Children(starter) : std::vector<pid_t>{};
  return children.size() == 1 ? children[0] : -1;
}

}  // namespace

TEST(SnmpProcess, HasNoRights) {
  MadeUpHost host;
  host.Start();
  const pid_t pid = SnmpProcessOf(host.daemon.pid());
  ASSERT_GT(pid, 0) << host.daemon.Log();
  EXPECT_EQ(Status(pid, "Uid"), "990\t990\t990\t990");
  EXPECT_EQ(Status(pid, "Gid"), "990\t990\t990\t990");
  EXPECT_EQ(Status(pid, "Groups"), " ");
  for (const char *set : {"CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"}) {
    EXPECT_EQ(Status(pid, set), "0000000000000000") << set;
  }
  EXPECT_EQ(Status(pid, "NoNewPrivs"), "1");
  EXPECT_EQ(Status(pid, "Seccomp"), "2");
  EXPECT_EQ(Status(pid, "Threads"), "1");
  EXPECT_EQ(Status(StarterOf(host.daemon.pid()), "CapEff"), "00000000000001c0");
  // Three times nothing, its channel and the master.
  std::vector<std::string> files = OpenFiles(pid);
  EXPECT_EQ(files.size(), 5U);
  for (const std::string &file : files) {
    EXPECT_TRUE(file.find("socket:") != std::string::npos || file.find("/dev/null") != std::string::npos)
        << file;
  }
  EXPECT_EQ(ListDirectory("/proc/" + std::to_string(pid) + "/root"), std::vector<std::string>{});
}
