// Makes the made-up captures of this directory again: `tests/captures/make` runs each of these in a
// scenario of its own.
#include <sys/mount.h>
#include <sys/stat.h>

#include "tests/support/golden_host.h"
#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

void Capture(MadeUpHost *host, const std::string &name) {
  ASSERT_TRUE(host->daemon.Poll(60));
  const Outcome outcome = RunCommand(
      {VexregPath(), "capture", VEX_TESTS_SOURCE_DIR "/tests/captures/" + name + ".tar.zst"}, {},
      100);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
}

// A root whose figures stand still, beside the scenario's own.
std::string StillRoot(MadeUpHost *host) {
  host->Directory("/srv/system");
  EXPECT_EQ(mount("root", "/srv/system", "tmpfs", 0, "size=40g,nr_inodes=655360"), 0);
  host->File("/etc/mtab", "/dev/sda1 /srv/system ext4 rw,relatime 0 0\n");
  return "/dev/sda1 /srv/system ext4 rw,relatime 0 0\n";
}

std::string Processors(int count) {
  std::string text;
  for (int n = 0; n < count; n++) {
    text += "processor\t: " + std::to_string(n) +
            "\nvendor_id\t: AuthenticAMD\nmodel name\t: Made-up CPU @ 3.00GHz\n\n";
  }
  return text;
}

}  // namespace

TEST(MadeUpCapture, LargeServer) {
  constexpr int kProcessors = 256;
  constexpr int kMounts = 2000;
  MadeUpHost host;
  host.Hostname("large.example");
  std::vector<Ticks> ticks;
  for (unsigned n = 0; n < kProcessors; n++) {
    ticks.push_back({100 * n, n, 50 * n, 1000000 - 150 * n});
  }
  host.Proc("stat", GoldenStat(ticks));
  host.Proc("cpuinfo", Processors(kProcessors));
  host.Proc("meminfo", GoldenMemory(3'072'000, 1'234'567, 1024, 1000));
  std::string table = StillRoot(&host);
  for (int n = 1; n <= kMounts; n++) {
    const std::string directory =
        "/srv/volumes/" + std::to_string(n % 40) + "/volume" + std::to_string(n);
    host.Directory(directory);
    const std::string options =
        "size=" + std::to_string(n % 97 + 1) + "g,nr_inodes=" + std::to_string(1000 + 7 * n);
    ASSERT_EQ(mount("volume", directory.c_str(), "tmpfs", 0, options.c_str()), 0);
    table += "/dev/mapper/volume" + std::to_string(n) + " " + directory +
             (n % 3 == 0 ? " xfs rw 0 0\n" : " ext4 ro,relatime 0 0\n");
  }
  host.File("/etc/mtab", table);
  host.Start();
  Capture(&host, "large-server");
}

TEST(MadeUpCapture, Appliance) {
  GoldenHost golden(true);
  golden.StartMaster();
  DaemonOptions options = golden.Options();
  options.kernel = {};  // vexreg sees the machine's own as well
  golden.host.daemon.Start(options);
  Capture(&golden.host, "appliance");
}

TEST(MadeUpCapture, RpmHost) {
  MadeUpHost host;
  host.Hostname("rpm.example");
  StillRoot(&host);
  host.File("/etc/os-release",
            "NAME=\"Made-up Linux\"\nVERSION=\"9.4 (Plain)\"\nID=madeup\nVERSION_ID=\"9.4\"\n"
            "PRETTY_NAME=\"Made-up Linux 9.4 (Plain)\"\n");
  for (const char *tool : {"/usr/bin/dpkg", "/usr/bin/dpkg-query", "/var/lib/dpkg/available"}) {
    host.Remove(tool);
  }
  host.Command("rpm",
               "echo bash-5.1.8-9.el9.x86_64\necho qv-snmp-agents-8.1.0-181.x86_64\n"
               "echo kelmo-9.2.1-4.x86_64");
  host.Start();
  Capture(&host, "rpm-host");
}
