// The details for management stations (component 200): memory, mounts, siblings, the agent, load.
#include <gtest/gtest.h>
#include <time.h>

#include <string>
#include <vector>

#include "tests/support/fuse_mount.h"
#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

// Runs vexreg put for a sibling's object with these integers.
void Put(MadeUpHost &host, const std::string &object, const std::vector<int> &values) {
  std::vector<std::string> command = {"put", object};
  for (const int value : values) {
    command.push_back("int:" + std::to_string(value));
  }
  EXPECT_EQ(host.Vexreg(command).status, 0);
}

long Number(MadeUpHost &host, const std::string &name) {
  const std::string text = host.Get(name);
  EXPECT_TRUE(text.starts_with("INTEGER: ")) << text;
  return std::stol("0" + text.substr(std::string("INTEGER: ").size()));
}

}  // namespace

TEST(MemoryDetail, FollowsTheMachine) {
  MadeUpHost host;
  host.Proc("meminfo",
            "MemTotal: 8388608 kB\nMemFree: 1023 kB\nMemAvailable: 4194304 kB\n"
            "Cached: 2097152 kB\nSwapCached: 1048576 kB\n");
  host.Start();
  EXPECT_EQ(host.GetTogether({"tlxHoMemoryAvailable", "tlxHoMemoryCached"}),
            (std::vector<std::string>{"INTEGER: 4096", "INTEGER: 2048"}));
  host.Proc("meminfo", "MemTotal: 8388608 kB\nCached: 3072 kB\n");
  ASSERT_TRUE(host.daemon.Poll());
  // A kernel before 3.14 does not say what is available.
  EXPECT_EQ(host.GetTogether({"tlxHoMemoryAvailable", "tlxHoMemoryCached"}),
            (std::vector<std::string>{"INTEGER: -1", "INTEGER: 3"}));
  EXPECT_EQ(MadeUpHost::Published("host/memdetail", "tlxHoMemoryCached"), "3");
}

TEST(LoadDetail, FollowsTheMachine) {
  MadeUpHost host;
  host.Start();
  const std::vector<std::string> names = {"tlxHoLoadOne", "tlxHoLoadFive", "tlxHoLoadFifteen",
                                          "tlxHoUptime"};
  EXPECT_EQ(host.GetTogether(names), (std::vector<std::string>{"INTEGER: 20", "INTEGER: 18",
                                                               "INTEGER: 112", "INTEGER: 350735"}));
  host.Proc("loadavg", "31.05 12.00 9.99 3/812 4711\n");
  host.Proc("uptime", "nothing\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.GetTogether(names), (std::vector<std::string>{"INTEGER: 3105", "INTEGER: 1200",
                                                               "INTEGER: 999", "INTEGER: -1"}));
}

TEST(MountDetail, HasTheRowsOfTheFileSystems) {
  MadeUpHost host;
  const std::string deep = "/mnt/" + std::string(120, 'd');
  host.Directory("/mnt/a b");
  host.Directory(deep);
  host.File("/etc/mtab",
            "/dev/sda1 / ext4 rw,relatime 0 0\n"
            "server:/export /home nfs rw 0 0\n"
            "tmpfs /mnt/a\\040b tmpfs ro,nosuid 0 0\n"
            "/dev/mapper/" +
                std::string(120, 'm') + " " + deep + " xfs rw,errors=remount-ro 0 0\n");
  host.Start();
  EXPECT_EQ(host.Column("tlxHoMountDevice"),
            (std::vector<std::string>{"0: STRING: \"/dev/sda1\"", "1: STRING: \"tmpfs\"",
                                      "2: STRING: \"/dev/mapper/" + std::string(120, 'm') + "\""}));
  EXPECT_EQ(host.Column("tlxHoMountDirectory"),
            (std::vector<std::string>{"0: STRING: \"/\"", "1: STRING: \"/mnt/a b\"",
                                      "2: STRING: \"" + deep + "\""}));
  EXPECT_EQ(host.Column("tlxHoMountType"),
            (std::vector<std::string>{"0: STRING: \"ext4\"", "1: STRING: \"tmpfs\"",
                                      "2: STRING: \"xfs\""}));
  EXPECT_EQ(host.Column("tlxHoMountReadOnly"),
            (std::vector<std::string>{"0: INTEGER: 2", "1: INTEGER: 1", "2: INTEGER: 2"}));
  EXPECT_EQ(host.Column("tlxHoMountState"),
            (std::vector<std::string>{"0: INTEGER: 1", "1: INTEGER: 1", "2: INTEGER: 1"}));
  EXPECT_EQ(MadeUpHost::Published("host/mount.1", "tlxHoMountDirectory"), "/mnt/a b");
}

TEST(MountDetail, FollowsTheMounts) {
  MadeUpHost host;
  host.File("/etc/mtab", "/dev/sda1 / ext4 rw 0 0\n/dev/sdb1 /mnt ext4 rw 0 0\n");
  host.Start();
  // An error has made it read-only; another device is mounted in the place of the second.
  host.File("/etc/mtab", "/dev/sda1 / ext4 ro 0 0\n/dev/sdc1 /mnt btrfs rw 0 0\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Column("tlxHoMountReadOnly"),
            (std::vector<std::string>{"0: INTEGER: 1", "1: INTEGER: 2"}));
  EXPECT_EQ(host.Get("tlxHoMountDevice.1"), "STRING: \"/dev/sdc1\"");
  EXPECT_EQ(host.Get("tlxHoMountType.1"), "STRING: \"btrfs\"");
  // Its row stays for the one poll that the file system's stays.
  host.File("/etc/mtab", "/dev/sda1 / ext4 rw 0 0\n");
  for (int poll = 0; poll < 3; poll++) {
    ASSERT_TRUE(host.daemon.Poll());
    EXPECT_EQ(host.Column("tlxHoMountDevice").size(), host.Column("tlxHoFileSysDesc").size());
  }
  EXPECT_EQ(host.Column("tlxHoMountDevice"),
            (std::vector<std::string>{"0: STRING: \"/dev/sda1\""}));
  EXPECT_EQ(MadeUpHost::Published("host/mount.1", "tlxHoMountDevice"), "absent");
}

TEST(MountDetail, TellsWhatDoesNotAnswer) {
  MadeUpHost host;
  FuseMount hang("/mnt/hang", 25600, 15360);
  host.File("/etc/mtab",
            "/dev/sda1 / ext4 rw 0 0\nhang /mnt/hang fuse.x rw 0 0\n/dev/x /nowhere ext4 rw 0 0\n");
  host.Start();
  EXPECT_EQ(host.Column("tlxHoMountState"),
            (std::vector<std::string>{"0: INTEGER: 1", "1: INTEGER: 1", "2: INTEGER: 2"}));
  hang.Hang();
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Column("tlxHoMountState"),
            (std::vector<std::string>{"0: INTEGER: 1", "1: INTEGER: 3", "2: INTEGER: 2"}));
  hang.Recover();
}

TEST(SiblingDetail, SaysInWordsWhatTheArraysSay) {
  MadeUpHost host;
  host.Peer({"/opt/quorix/vexida", "-p", "15"});
  Put(host, "ida/misc", {3, 7, 4});
  Put(host, "stsys/mib", {1, 0, 2});
  host.Start();
  ASSERT_TRUE(host.daemon.Poll());
  const std::vector<std::string> columns = {"tlxHoSiblingName",      "tlxHoSiblingPresent",
                                            "tlxHoSiblingCondition", "tlxHoSiblingMajor",
                                            "tlxHoSiblingMinor",     "tlxHoSiblingHealth"};
  const auto row = [&](const std::string &number) {
    std::vector<std::string> names;
    for (const std::string &column : columns) {
      names.push_back(column + "." + number);
    }
    return host.GetTogether(names);
  };
  EXPECT_EQ(row("3"),
            (std::vector<std::string>{"STRING: \"array controllers\"", "INTEGER: 1", "INTEGER: 4",
                                      "INTEGER: 3", "INTEGER: 7", "INTEGER: 4"}));
  EXPECT_EQ(row("8"),
            (std::vector<std::string>{"STRING: \"storage systems\"", "INTEGER: 1", "INTEGER: 2",
                                      "INTEGER: 1", "INTEGER: 0", "INTEGER: 2"}));
  EXPECT_EQ(row("6"), (std::vector<std::string>{"STRING: \"health\"", "INTEGER: 2", "INTEGER: -1",
                                                "INTEGER: -1", "INTEGER: -1", "INTEGER: -1"}));
  // Every name once, in the places of the status array.
  EXPECT_EQ(host.Column("tlxHoSiblingName").size(), 16U);
  EXPECT_EQ(MadeUpHost::Published("host/sibling.26", "tlxHoSiblingName"), "flash storage");
}

TEST(AgentDetail, TellsHowItsPollsGo) {
  MadeUpHost host;
  const long before = time(nullptr);
  host.Start();
  EXPECT_EQ(host.Get("tlxHoAgentLastPoll"), "INTEGER: -1");
  EXPECT_EQ(host.Get("tlxHoAgentPollDuration"), "INTEGER: -1");
  EXPECT_EQ(host.Get("tlxHoAgentFailedPolls"), "INTEGER: 0");
  const long start = Number(host, "tlxHoAgentStart");
  EXPECT_GE(start, before);
  EXPECT_LE(start, time(nullptr));
  EXPECT_EQ(host.Vexreg({"--version"}).out,
            "vexreg " + MadeUpHost::Published("host/agent", "tlxHoAgentVersion") + "\n");

  ASSERT_TRUE(host.daemon.Poll());
  const long ended = Number(host, "tlxHoAgentLastPoll");
  EXPECT_GE(ended, start);
  EXPECT_LE(ended, time(nullptr));
  EXPECT_LT(Number(host, "tlxHoAgentPollDuration"), 15000);
  EXPECT_EQ(host.Get("tlxHoAgentStart"), "INTEGER: " + std::to_string(start));

  // Without its mount table a poll ends early; what comes last is refreshed all the same.
  host.Remove("/etc/mtab");
  host.Proc("loadavg", "1.00 2.00 3.00 1/80 11206\n");
  ASSERT_TRUE(host.daemon.Poll());
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoAgentFailedPolls"), "INTEGER: 2");
  EXPECT_EQ(host.Get("tlxHoLoadOne"), "INTEGER: 100");
  EXPECT_EQ(host.Get("tlxHoMountDevice.0"), "STRING: \"/dev/sda1\"");
}

TEST(SoftwareKindDetail, IsTheAgentsOwnJudgement) {
  MadeUpHost host;
  host.Start();
  const std::vector<std::string> names = {"tlxHoSwKindName.0", "tlxHoSwKind.0"};
  const std::vector<std::string> found = {"STRING: \"CONFIG\"", "INTEGER: 4"};
  EXPECT_EQ(host.GetTogether(names), found);
  EXPECT_EQ(host.Column("tlxHoSwKind").size(), host.Column("tlxHoSwVerType").size());
  // A manager classifies and names it otherwise.
  EXPECT_EQ(host.Set("tlxHoSwVerType.0", 'i', "1"), "noError");
  EXPECT_EQ(host.Set("tlxHoSwVerName.0", 's', "mine"), "noError");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.GetTogether(names), found);
  EXPECT_EQ(host.Set("tlxHoSwKind.0", 'i', "2"), "notWritable");
  EXPECT_EQ(MadeUpHost::Published("host/swkind.0", "tlxHoSwKind"), "4");
}

TEST(FirmwareKindDetail, HasTheRowsOfTheFirmware) {
  MadeUpHost host;
  host.ComposeProc();
  const std::string cdrom =
      "Host: scsi0 Channel: 00 Id: 02 Lun: 00\n"
      "  Vendor: MAKER    Model: CD               Rev: 1.05\n"
      "  Type:   CD-ROM                           ANSI  SCSI revision: 05\n";
  host.File("/proc/driver/tlxarray/ida0",
            "ida0: QV Array one\nBoard ID: 0x99301A2B\nFirmware Revision: 4.50\nmore\n");
  host.File("/proc/scsi/scsi", "Attached devices:\n" + cdrom);
  host.Start();
  EXPECT_EQ(
      host.GetTogether({"tlxHoFwKindName.0", "tlxHoFwKindLocation.0", "tlxHoFwKindOwner.0",
                        "tlxHoFwKindDevice.0", "tlxHoFwVerDeviceType.1", "tlxHoFwKindDevice.1"}),
      (std::vector<std::string>{"STRING: \"QV Array one\"", "STRING: \"ida0\"", "INTEGER: 2",
                                "INTEGER: 7", "INTEGER: 23", "INTEGER: 12"}));
  host.Remove("/proc/driver/tlxarray/ida0");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoFwKindDevice.0"), host.Get("tlxHoFwVerDeviceType.0"));
  EXPECT_EQ(host.Column("tlxHoFwKindDevice").size(), host.Column("tlxHoFwVerDeviceType").size());
  EXPECT_EQ(host.Get("tlxHoFwKindDevice.1"), "INTEGER: 12");
}
