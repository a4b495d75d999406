// The kit itself: what a scenario relies on before there is any agent.
#include <gtest/gtest-spi.h>
#include <sys/stat.h>

#include "tests/support/made_up_host.h"

using namespace made_up;

TEST(Kit, HasARealMaster) {
  MadeUpHost host;
  host.snmpd.Start();
  EXPECT_TRUE(host.Get(".1.3.6.1.2.1.1.3.0").starts_with("Timeticks: "));
  EXPECT_EQ(host.GetTogether({".1.3.6.1.2.1.1.1.9", ".1.3.6.1.4.1.4891.11.1.1.0"}),
            (std::vector<std::string>{"No Such Instance currently exists at this OID",
                                      "No Such Object available on this agent at this OID"}));
  EXPECT_EQ(host.Set(".1.3.6.1.2.1.1.3.0", 'i', "5"), "notWritable");
  EXPECT_EQ(host.Set(".1.3.6.1.2.1.1.5.0", 's', "named"), "noError");
  EXPECT_EQ(host.Get(".1.3.6.1.2.1.1.5.0"), "STRING: \"named\"");
  EXPECT_TRUE(host.Walk().empty());
  EXPECT_TRUE(host.BulkWalk().empty());
  EXPECT_GE(host.BulkWalk(".1.3.6.1.2.1.1").size(), 6U);
  EXPECT_EQ(host.BulkWalk(".1.3.6.1.2.1.1").size(), host.Walk(".1.3.6.1.2.1.1").size());

  auto answer = QuickGet("1.3.6.1.2.1.1.5.0");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->octets, "named");
  host.snmpd.Stop();
  EXPECT_FALSE(QuickGet("1.3.6.1.2.1.1.5.0"));
}

// A command's standard input is one of them; a system call with all arguments zero may change it.
TEST(Kit, HasDeviceNodesOfItsOwn) {
  struct stat directory = {};
  ASSERT_EQ(stat("/dev", &directory), 0);
  for (const char *path : {"/dev/null", "/dev/zero", "/dev/full", "/dev/random", "/dev/urandom"}) {
    struct stat node = {};
    ASSERT_EQ(stat(path, &node), 0) << path;
    EXPECT_EQ(node.st_dev, directory.st_dev) << path;
    EXPECT_EQ(node.st_mode, S_IFCHR | 0666U) << path;
  }
  EXPECT_EQ(RunCommand({"sh", "-c", "echo gone >/dev/null && head -c 4 /dev/zero | wc -c"}).out,
            "4\n");
}

TEST(Kit, ReceivesTraps) {
  MadeUpHost host;
  host.traps.Start();
  host.snmpd.Start();
  auto outcome = RunCommand({"snmptrap", "-v2c", "-cpublic", "tcp:127.0.0.1:162", "",
                             "1.3.6.1.4.1.4891.0.11003", "1.3.6.1.4.1.4891.11.1.1.0", "s",
                             "two\nlines", "1.3.6.1.4.1.4891.11.1.2.0", "i", "-5"});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  auto traps = host.traps.WaitFor(1);
  ASSERT_EQ(traps.size(), 1U);
  EXPECT_EQ(traps[0].oid, ".1.3.6.1.4.1.4891.0.11003");
  EXPECT_EQ(traps[0].variables,
            (std::vector<std::string>{".1.3.6.1.4.1.4891.11.1.1.0 = STRING: \"two\nlines\"",
                                      ".1.3.6.1.4.1.4891.11.1.2.0 = INTEGER: -5"}));
}

TEST(Kit, CoversAndAddsProcFiles) {
  MadeUpHost host;
  host.Proc("meminfo", "first\n");
  host.Proc("meminfo", "second\n");
  EXPECT_EQ(ReadFile("/proc/meminfo"), "second\n");
  host.ComposeProc();
  EXPECT_EQ(ReadFile("/proc/meminfo"), "second\n");
  host.File("/proc/driver/made/up", "driver\n");
  host.File("/proc/net/nicinfo/eth0.info", "nic\n");
  host.Proc("scsi/scsi", "disks\n");
  EXPECT_EQ(ReadFile("/proc/driver/made/up"), "driver\n");
  EXPECT_EQ(ReadFile("/proc/net/nicinfo/eth0.info"), "nic\n");
  EXPECT_EQ(ReadFile("/proc/scsi/scsi"), "disks\n");
  EXPECT_NE(ReadFile("/proc/net/dev"), "");
  EXPECT_NE(ReadFile("/proc/self/status"), "");
}

// The machine's /proc/sys is every namespace's, and is not written to.
TEST(Kit, CoversProcFilesInsideDirectories) {
  const std::string machines = ReadFile("/proc/sys/fs/file-max");
  const std::string release = ReadFile("/proc/sys/kernel/osrelease");
  const std::vector<std::string> beside = ListDirectory("/proc/sys/fs");
  MadeUpHost host;
  host.ComposeProc();
  host.Proc("sys/fs/file-max", "12345\n");
  host.Proc("sys/fs/file-max", "4711\n");
  host.Proc("sys/made/up/entry", "new\n");
  EXPECT_EQ(ReadFile("/proc/sys/fs/file-max"), "4711\n");
  EXPECT_EQ(ReadFile("/proc/sys/made/up/entry"), "new\n");
  EXPECT_EQ(ReadFile(std::string(MadeUpHost::kDirectory) + "/real-proc/sys/fs/file-max"), machines);
  // All that stands beside it is there as before.
  EXPECT_EQ(ReadFile("/proc/sys/kernel/osrelease"), release);
  EXPECT_EQ(ListDirectory("/proc/sys/fs"), beside);
}

TEST(Kit, BlocksWhoReadsAProcFile) {
  MadeUpHost host;
  host.BlockProc("meminfo");
  Process reader;
  ProcessOptions options;
  options.log = "/run/read";
  reader.Start({"cat", "/proc/meminfo"}, options);
  ASSERT_TRUE(host.WaitBlocked());
  EXPECT_TRUE(reader.Running());
  host.UnblockProc("released\n");
  EXPECT_EQ(reader.Wait(), 0);
  EXPECT_EQ(ReadFile("/run/read"), "released\n");
  EXPECT_EQ(ReadFile("/proc/meminfo"), "released\n");
}

TEST(Kit, MakesUpAMachine) {
  MadeUpHost host;
  pid_t peer = host.Peer({"tlxmade", "-p", "5"});
  EXPECT_EQ(RunCommand({"pidof", "tlxmade"}).out, std::to_string(peer) + "\n");
  host.EndPeer(peer);
  EXPECT_FALSE(ProcessExists(peer));
  host.Interface("eth0", "52:54:00:12:34:56");
  EXPECT_EQ(ReadFile("/sys/class/net/eth0/address"), "52:54:00:12:34:56\n");
  host.Hostname("other");
  EXPECT_EQ(RunCommand({"hostname"}).out, "other\n");
  host.File("/sys/firmware/dmi/tables/DMI", "table");
  host.File("/sys/firmware/efi/efivars/ZTHRN4-guid", "variable");
  EXPECT_EQ(ReadFile("/sys/firmware/dmi/tables/DMI"), "table");
  host.Script("/sbin/pidof", "echo 77");
  EXPECT_EQ(RunCommand({"/sbin/pidof", "x"}).out, "77\n");
  host.Command("rpm", "echo \"$@\"");
  EXPECT_EQ(RunCommand({"rpm", "-q", "package"}).out, "-q package\n");
  EXPECT_EQ(ListDirectory("/var/lib/snmp"), std::vector<std::string>{});
}

// The interposed clock, pause and alarm, seen through a program that uses them.
TEST(Kit, MovesAProcessesClock) {
  MadeUpHost host;
  DaemonOptions options;
  options.program = "/bin/date";
  options.arguments = {"+%s"};
  options.wait = false;
  host.daemon.Start(options);
  ASSERT_EQ(host.daemon.WaitEnd(), 0);
  int64_t real = std::stoll(host.daemon.Log());
  EXPECT_LE(std::abs(real - time(nullptr)), 2);
  options.clock_offset = 86400.0 * 400;
  host.daemon.Start(options);
  ASSERT_EQ(host.daemon.WaitEnd(), 0);
  int64_t moved = std::stoll(host.daemon.Log());
  EXPECT_LE(std::abs(moved - time(nullptr) - 86400 * 400), 2);
}

TEST(Kit, ASanitizersReportFailsTheTest) {
  MadeUpHost host;
  DaemonOptions options;
  options.program = "/bin/sh";
  options.wait = false;
  for (const char *report : {"SUMMARY: AddressSanitizer: made up", "WARNING: ThreadSanitizer: race",
                             "x.cpp:1:2: runtime error: signed integer overflow"}) {
    options.arguments = {"-c", std::string("echo '") + report + "' >&2"};
    host.daemon.Start(options);
    EXPECT_NONFATAL_FAILURE(host.daemon.WaitEnd(), "a sanitizer's report");
  }
}

static void RunAFailingDaemon() {
  MadeUpHost host;
  DaemonOptions options;
  options.program = "/bin/sh";
  options.arguments = {"-c", "trap 'exit 3' TERM; echo ready; while :; do sleep 0.01; done"};
  options.wait = false;
  host.daemon.Start(options);
  ASSERT_TRUE(host.daemon.WaitLog("ready"));
}

TEST(Kit, ADaemonThatFailsAtItsEndFailsTheTest) {
  EXPECT_NONFATAL_FAILURE(RunAFailingDaemon(), "how the daemon ended");
}
