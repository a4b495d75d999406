// The plugin for Nagios and Icinga, run against the daemon behind a real snmpd.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

enum State { kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };

// Its status and its first line.
struct Judgement {
  int status;
  std::string text;         // before the bar
  std::string performance;  // behind it
};

bool operator==(const Judgement &a, const Judgement &b) {
  return a.status == b.status && a.text == b.text && a.performance == b.performance;
}

std::ostream &operator<<(std::ostream &out, const Judgement &j) {
  return out << j.status << ": " << j.text << " | " << j.performance;
}

Judgement Check(const std::vector<std::string> &arguments) {
  std::vector<std::string> command = {VEX_TESTS_SOURCE_DIR "/integrations/nagios/check_vexhost",
                                      "-H", "127.0.0.1", "-t", "20"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const Outcome outcome = RunCommand(command);
  EXPECT_EQ(outcome.err, "");
  const std::string line = outcome.out.substr(0, outcome.out.find('\n'));
  const size_t bar = line.find(" | ");
  return {outcome.status, line.substr(0, bar),
          bar == std::string::npos ? "" : line.substr(bar + 3)};
}

class Plugin : public testing::Test {
 protected:
  MadeUpHost host_;
};

}  // namespace

TEST_F(Plugin, JudgesFileSystemsByName) {
  host_.File("/etc/mtab", "/dev/sda1 / ext4 rw 0 0\nproc /proc proc rw 0 0\n");
  host_.Start();
  const std::string total = MadeUpHost::Published("host/filesys.0", "tlxHoFileSysSpaceTotal");
  const std::string used = MadeUpHost::Published("host/filesys.0", "tlxHoFileSysSpaceUsed");
  const std::string percent =
      MadeUpHost::Published("host/filesys.0", "tlxHoFileSysPercentSpaceUsed");
  const Judgement good = Check({"-k", "filesystems", "-w", "100", "-c", "100"});
  EXPECT_EQ(good.status, kOk);
  EXPECT_EQ(good.text, "VEXHOST OK - / " + percent + " % full");
  EXPECT_EQ(good.performance.find("'/'=" + used + "MB;" + total + ";" + total + ";0;" + total), 0U)
      << good.performance;
  // The limits are ranges: below 101 % is an alarm here.
  EXPECT_EQ(Check({"-k", "filesystems", "-w", "101:", "-c", "~:100"}).status, kWarning);
  EXPECT_EQ(Check({"-k", "filesystems", "-w", "100", "-c", "@0:100"}).status, kCritical);
  EXPECT_EQ(Check({"-k", "filesystems", "--exclude", "/", "-c", "@0:100"}),
            (Judgement{kUnknown, "VEXHOST UNKNOWN - no file systems", ""}));
  EXPECT_EQ(Check({"-k", "filesystems", "--include", "/srv"}),
            (Judgement{kUnknown, "VEXHOST UNKNOWN - no such file system", ""}));
  EXPECT_EQ(Check({"-k", "inodes", "-w", "100", "-c", "100"}).status, kOk);
}

TEST_F(Plugin, NamesAnyDirectory) {
  // Beyond ASCII, with what net-snmp would escape, and longer than a line of its hexadecimal.
  const std::string directory = "/srv/gr\u00f6\u00dfere \"Daten\" auf \\ Platte";
  std::filesystem::create_directories(directory);
  host_.File(
      "/etc/mtab",
      "/dev/sda1 /srv/gr\u00f6\u00dfere\\040\"Daten\"\\040auf\\040\\134\\040Platte ext4 rw 0 0\n");
  host_.Start();
  EXPECT_EQ(Check({"-k", "mounts"}),
            (Judgement{kOk, "VEXHOST OK - " + directory + " answers", ""}));
  EXPECT_EQ(Check({"-k", "mounts", "--include", directory}).status, kOk);
}

TEST_F(Plugin, TakesNothingUnknownForCritical) {
  host_.Proc("meminfo", "MemTotal: 2048000 kB\nMemFree: 1024000 kB\n");
  host_.Start();
  // Before the first poll no average is known, without MemAvailable no memory.
  EXPECT_EQ(Check({"-k", "cpu"}),
            (Judgement{kUnknown, "VEXHOST UNKNOWN - the average over 5m is not known yet", ""}));
  EXPECT_EQ(Check({"-k", "memory"}),
            (Judgement{kUnknown, "VEXHOST UNKNOWN - the available memory is not known", ""}));
  EXPECT_EQ(Check({"-k", "swap"}),
            (Judgement{kUnknown, "VEXHOST UNKNOWN - the swap space is not known", ""}));
  EXPECT_EQ(Check({"-k", "siblings"}), (Judgement{kOk, "VEXHOST OK - no sibling agents", ""}));
}

TEST_F(Plugin, JudgesMemoryByWhatIsAvailable) {
  // Nearly nothing is free, and three quarters are available.
  host_.Proc("meminfo",
             "MemTotal: 4096000 kB\nMemFree: 10240 kB\nMemAvailable: 3072000 kB\nCached: 1 kB\n"
             "SwapTotal: 1024000 kB\nSwapFree: 102400 kB\n");
  host_.Start();
  EXPECT_EQ(Check({"-k", "memory"}),
            (Judgement{kOk, "VEXHOST OK - memory 25 % used, 3000 of 4000 MB available",
                       "'memory'=1000MB;3600;3800;0;4000"}));
  EXPECT_EQ(Check({"-k", "swap"}),
            (Judgement{kWarning, "VEXHOST WARNING - swap 90 % used of 1000 MB",
                       "'swap'=900MB;800;950;0;1000"}));
  EXPECT_EQ(Check({"-k", "load"}).text, "VEXHOST OK - load 0.18 over 5m, 0.09 a processor");
}

TEST_F(Plugin, JudgesConditionsOfSiblings) {
  host_.Peer({"/opt/quorix/vexida", "-p", "15"});
  EXPECT_EQ(host_.Vexreg({"put", "ida/misc", "int:3", "int:7", "int:3"}).status, 0);
  host_.Start();
  ASSERT_TRUE(host_.daemon.Poll());
  EXPECT_EQ(Check({"-k", "condition"}), (Judgement{kOk, "VEXHOST OK - condition normal", ""}));
  EXPECT_EQ(Check({"-k", "siblings", "--include", "array*"}),
            (Judgement{kWarning, "VEXHOST WARNING - array controllers raised", ""}));
  // Who is named is expected.
  EXPECT_EQ(Check({"-k", "siblings", "--include", "rack"}),
            (Judgement{kCritical, "VEXHOST CRITICAL - rack agent is not there", ""}));
}

TEST_F(Plugin, TellsHowOldTheValuesAre) {
  host_.Start();
  ASSERT_TRUE(host_.daemon.Poll());
  const Judgement fresh = Check({"-k", "age"});
  EXPECT_EQ(fresh.status, kOk) << fresh;
  EXPECT_EQ(Check({"-k", "age", "-w", "@0:100000"}).status, kWarning);
}

TEST_F(Plugin, JudgesAllAtOnce) {
  host_.Start();
  ASSERT_TRUE(host_.daemon.Poll());
  const Judgement all = Check({});
  // The root of the machine that tests may be full; nothing else is wrong or unknown, but for the
  // averages.
  EXPECT_NE(all.status, kOk) << all;
  EXPECT_NE(all.text.find("cpu: the average over 5m is not known yet"), std::string::npos) << all;
}

TEST_F(Plugin, SaysWhatKeepsItFromJudging) {
  host_.Start();
  const Judgement stranger = Check({"-k", "condition", "-C", "nobody", "-t", "3"});
  EXPECT_EQ(stranger.status, kUnknown);
  EXPECT_EQ(stranger.text, "VEXHOST UNKNOWN - Timeout: No Response from 127.0.0.1:161.");
  for (const std::vector<std::string> &wrong :
       std::vector<std::vector<std::string>>{{"-k", "nothing"},
                                             {"-k", "cpu", "-w", "ten"},
                                             {"-k", "cpu", "-w", "20:10"},
                                             {"-w", "10"},
                                             {"-P", "3"},
                                             {"-t", "0"},
                                             {"--config", "/nowhere"}}) {
    const Judgement judgement = Check(wrong);
    EXPECT_EQ(judgement.status, kUnknown) << wrong.back();
    EXPECT_TRUE(judgement.text.starts_with("VEXHOST UNKNOWN - ")) << judgement;
  }
}

TEST_F(Plugin, TakesSecretsFromAFile) {
  host_.Start();
  host_.File("/run/secret", "# of this station\ncommunity = public\n", 0600);
  EXPECT_EQ(Check({"-k", "condition", "-C", "wrong", "--config", "/run/secret"}).status, kOk);
  host_.File("/run/secret", "password = x\n", 0600);
  EXPECT_EQ(Check({"-k", "condition", "--config", "/run/secret"}),
            (Judgement{kUnknown, "VEXHOST UNKNOWN - /run/secret: not understood: password ", ""}));
}
