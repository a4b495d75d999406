// The file-system table on real mounts, beside what df says of them.
#include <mntent.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <sstream>

#include "tests/support/fuse_mount.h"
#include "tests/support/made_up_host.h"

using namespace made_up;
using namespace std::chrono_literals;

namespace {

std::string Row(int n) {
  return "host/filesys." + std::to_string(n);
}

// The object whose description is that; "none" when there is none.
std::string Find(const std::string &description) {
  for (const std::string &object : MadeUpHost::Objects()) {
    if (object.starts_with("host/filesys.") &&
        MadeUpHost::Published(object, "tlxHoFileSysDesc") == description) {
      return object;
    }
  }
  return "none";
}

int Rows() {
  int rows = 0;
  for (const std::string &object : MadeUpHost::Objects()) {
    rows += object.starts_with("host/filesys.");
  }
  return rows;
}

std::string Entry(const std::string &device, const std::string &directory,
                  const std::string &type = "ext4") {
  return device + " " + directory + " " + type + " rw 0 0\n";
}

void MountOn(const std::string &source, const std::string &directory, const char *type,
             const std::string &options = "", unsigned long flags = 0) {
  mkdir(directory.c_str(), 0755);
  ASSERT_EQ(mount(source.c_str(), directory.c_str(), type, flags, options.c_str()), 0)
      << directory << ": " << strerror(errno);
}

// What `df` says of a directory, by the table's rounding: total and used megabytes, per cent,
// inodes, inodes in use.
std::vector<std::string> DiskFree(const std::string &directory) {
  const Outcome outcome = RunCommand({"df", "-B1", "--output=size,used,itotal,iused", directory});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  std::istringstream words(Lines(outcome.out).at(1));
  std::vector<uint64_t> n;
  for (std::string word; words >> word;) {
    n.push_back(word == "-" ? 0 : strtoull(word.c_str(), nullptr, 10));
  }
  EXPECT_EQ(n.size(), 4U) << outcome.out;
  n.resize(4);
  const uint64_t total = n[0] >> 20;
  const uint64_t used = total - ((n[0] - n[1]) >> 20);
  const uint64_t percent = total == 0 || used == 0 ? 0 : (100 * n[1] + n[0] - 1) / n[0];
  return {std::to_string(total), std::to_string(used), std::to_string(percent),
          std::to_string(n[2]), std::to_string(n[3])};
}

std::vector<std::string> Figures(const std::string &object) {
  return {MadeUpHost::Published(object, "tlxHoFileSysSpaceTotal"),
          MadeUpHost::Published(object, "tlxHoFileSysSpaceUsed"),
          MadeUpHost::Published(object, "tlxHoFileSysPercentSpaceUsed"),
          MadeUpHost::Published(object, "tlxHoFileSysAllocUnitsTotal"),
          MadeUpHost::Published(object, "tlxHoFileSysAllocUnitsUsed")};
}

}  // namespace

TEST(FileSystems, AgreeWithDiskFree) {
  MadeUpHost host;
  const std::string base = "/mnt/";
  host.Directory("/mnt");
  MountOn("small", base + "tmpfs", "tmpfs", "size=40m,nr_inodes=1234");
  host.File(base + "tmpfs/some", std::string(5'300'000, 'x'));
  host.File(base + "tmpfs/other", "x");
  MountOn(base + "tmpfs", base + "bind", nullptr, "", MS_BIND);
  for (const char *directory : {"lower", "upper", "work"}) {
    host.Directory(base + "tmpfs/" + directory);
  }
  MountOn("layers", base + "overlay", "overlay",
          "lowerdir=/mnt/tmpfs/lower,upperdir=/mnt/tmpfs/upper,workdir=/mnt/tmpfs/work");
  MountOn("blanks", base + "with blank\tand\\back", "tmpfs", "size=3m");
  const std::string name_99(99 - base.size(), 'a');
  MountOn("nn", base + name_99, "tmpfs", "size=4m");
  MountOn("proc", base + "proc", "proc");
  const FuseMount fuse(base + "fuse", 1'000'000, 989'999, 500, 123);
  // A loop device with an ext4 of 12 MB.
  for (unsigned n = 0; n < 16; n++) {
    mknod(("/dev/loop" + std::to_string(n)).c_str(), S_IFBLK | 0600, makedev(7, n));
  }
  mknod("/dev/loop-control", S_IFCHR | 0600, makedev(10, 237));
  host.Directory(base + "loop");
  host.File("/tmp/image", "");
  ASSERT_EQ(truncate("/tmp/image", 12 << 20), 0);
  Outcome made = RunCommand({"mkfs.ext4", "-q", "/tmp/image"});
  ASSERT_EQ(made.status, 0) << made.err;
  made = RunCommand({"mount", "-n", "-o", "loop", "/tmp/image", base + "loop"});
  ASSERT_EQ(made.status, 0) << made.err;
  host.File(base + "loop/some", std::string(2'500'000, 'x'));
  sync();

  std::string table;
  const std::map<std::string, std::string> mounts = {
      {"small", base + "tmpfs"},   {"/mnt/tmpfs", base + "bind"}, {"layers", base + "overlay"},
      {"nn", base + name_99},      {"proc", base + "proc"},       {"made-up-fuse", base + "fuse"},
      {"/dev/loop", base + "loop"}};
  for (const auto &[device, directory] : mounts) {
    table += Entry(device, directory);
  }
  table += Entry("blanks", base + "with\\040blank\\011and\\134back");
  host.File("/etc/mtab", table);
  host.Start();

  for (const auto &[device, directory] : mounts) {
    EXPECT_EQ(Figures(Find(device + " on " + directory)), DiskFree(directory)) << directory;
  }
  EXPECT_EQ(Figures(Find("blanks on " + base + "with blank\tand\\back")),
            DiskFree(base + "with blank\tand\\back"));
  EXPECT_EQ(Figures(Find("made-up-fuse on /mnt/fuse"))[2], "2");  // 10,001 of 1,000,000 blocks
  EXPECT_EQ(Figures(Find("small on /mnt/tmpfs"))[3], "1234");
  EXPECT_EQ(Figures(Find("proc on /mnt/proc")),
            (std::vector<std::string>{"0", "0", "0", "0", "0"}));
  EXPECT_EQ(Rows(), 8);

  // What changes is followed.
  host.File(base + "tmpfs/more", std::string(9'000'000, 'x'));
  host.Remove(base + "loop/some");
  sync();
  ASSERT_TRUE(host.daemon.Poll());
  for (const auto &[device, directory] : mounts) {
    EXPECT_EQ(Figures(Find(device + " on " + directory)), DiskFree(directory)) << directory;
  }
  EXPECT_EQ(host.daemon.Count("PEER"), 0U) << host.daemon.Log();
  umount2((base + "loop").c_str(), MNT_DETACH);
}

TEST(FileSystems, TheWholeMachineAsItIs) {
  MadeUpHost host;
  host.Link("/etc/mtab", "/proc/self/mounts");
  host.Start();
  // Every directory has one row, named after what was mounted there last.
  std::map<std::string, std::string> expected;
  FILE *table = setmntent("/proc/self/mounts", "r");
  ASSERT_NE(table, nullptr);
  while (const mntent *entry = getmntent(table)) {
    if (strlen(entry->mnt_dir) < 100) {
      std::string device = entry->mnt_fsname;
      if (device.size() >= 100) {
        device = device.substr(0, 96) + "...";
      }
      expected[entry->mnt_dir] = device;
    }
  }
  endmntent(table);
  EXPECT_GT(expected.size(), 8U);
  for (const auto &[directory, device] : expected) {
    const std::string object = Find(device + " on " + directory);
    EXPECT_NE(object, "none") << device << " on " << directory;
    if (directory == "/sys/firmware" || directory == "/dev/shm") {
      EXPECT_EQ(Figures(object), DiskFree(directory)) << directory;
    }
  }
  EXPECT_EQ(host.Column("tlxHoFileSysIndex").size(), static_cast<size_t>(Rows()));
  const int rows = Rows();
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Rows(), rows);
}

TEST(FileSystems, AsAManagerSeesThem) {
  MadeUpHost host;
  const FuseMount fuse("/mnt/fuse", 25600, 15360, 1000, 400);
  host.File("/etc/mtab", Entry("one", "/mnt/fuse"));
  host.Start();
  EXPECT_EQ(host.Get("tlxHoFileSysIndex.0"), "INTEGER: 0");
  EXPECT_EQ(host.Get("tlxHoFileSysDesc.0"), "STRING: \"one on /mnt/fuse\"");
  EXPECT_EQ(host.Get("tlxHoFileSysSpaceTotal.0"), "INTEGER: 100");
  EXPECT_EQ(host.Get("tlxHoFileSysSpaceUsed.0"), "INTEGER: 40");
  EXPECT_EQ(host.Get("tlxHoFileSysPercentSpaceUsed.0"), "INTEGER: 40");
  EXPECT_EQ(host.Get("tlxHoFileSysAllocUnitsTotal.0"), "INTEGER: 1000");
  EXPECT_EQ(host.Get("tlxHoFileSysAllocUnitsUsed.0"), "INTEGER: 600");
  EXPECT_EQ(host.Get("tlxHoFileSysIndex.1"), "No Such Instance currently exists at this OID");
  EXPECT_EQ(host.Set("tlxHoFileSysSpaceTotal.0", 'i', "5"), "notWritable");
}

TEST(FileSystems, MoreThanFits) {
  MadeUpHost host;
  // 2^63 bytes, and more inodes than fit: 64-bit figures are right, what does not fit is clamped.
  const FuseMount huge("/mnt/huge", uint64_t{1} << 51, (uint64_t{1} << 51) - 2560, 5'000'000'000,
                       2);
  host.File("/etc/mtab", Entry("huge", "/mnt/huge"));
  host.Start();
  EXPECT_EQ(Figures(Row(0)),
            (std::vector<std::string>{"2147483647", "10", "1", "2147483647", "2147483647"}));
}

TEST(FileSystems, RowsComeAndGoWithTheMountTable) {
  MadeUpHost host;
  for (const char *directory : {"/a", "/b", "/c", "/d", "/e", "/f"}) {
    host.Directory(directory);
  }
  const auto table = [&](const std::string &directories) {
    std::string text;
    for (const char directory : directories) {
      text += Entry("x", std::string("/") + directory);
    }
    host.File("/etc/mtab", text);
  };
  table("abcd");
  host.Start();
  EXPECT_EQ(host.Column("tlxHoFileSysDesc"),
            (std::vector<std::string>{"0: STRING: \"x on /a\"", "1: STRING: \"x on /b\"",
                                      "2: STRING: \"x on /c\"", "3: STRING: \"x on /d\""}));
  table("bd");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Column("tlxHoFileSysIndex"),
            (std::vector<std::string>{"1: INTEGER: 1", "3: INTEGER: 3"}));
  EXPECT_FALSE(Exists(std::string(MadeUpHost::kRegistry) + "/host/filesys.0"));
  table("bdef");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Column("tlxHoFileSysDesc"),
            (std::vector<std::string>{"0: STRING: \"x on /e\"", "1: STRING: \"x on /b\"",
                                      "2: STRING: \"x on /f\"", "3: STRING: \"x on /d\""}));
  // Only nfs, smb and mvfs: no rows.
  host.File("/etc/mtab",
            Entry("s:/a", "/a", "nfs") + Entry("s:/b", "/b", "smb") + Entry("s:/c", "/c", "mvfs"));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_TRUE(host.Column("tlxHoFileSysDesc").empty());
  // Others that only look like them have theirs.
  host.File("/etc/mtab", Entry("s:/a", "/a", "nfs4") + Entry("s:/b", "/b", "smbfs") +
                             Entry("s:/c", "/c", "cifs"));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Column("tlxHoFileSysDesc").size(), 3U);
}

TEST(FileSystems, LongDirectories) {
  MadeUpHost host;
  const std::string of_99 = "/" + std::string(98, 'a');
  const std::string of_100 = "/" + std::string(99, 'b');
  const std::string of_255 = "/" + std::string(254, 'c');
  std::string table;
  for (const std::string &directory : {of_99, of_100, of_255}) {
    MountOn("t", directory, "tmpfs", "size=2m");
    table += Entry("t", directory);
  }
  host.File("/etc/mtab", table);
  host.Start();
  const std::string whole = "STRING: \"t on " + of_99 + "\"";
  const std::string cut_100 = "STRING: \"t on " + of_100.substr(0, 96) + "...\"";
  const std::string cut_255 = "STRING: \"t on " + of_255.substr(0, 96) + "...\"";
  const auto first = std::vector<std::string>{"0: " + whole, "1: " + cut_100, "2: " + cut_255};
  EXPECT_EQ(host.Column("tlxHoFileSysDesc"), first);
  // The cut rows are found no more: they get fresh ones at every pass.
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Column("tlxHoFileSysDesc"),
            (std::vector<std::string>{"0: " + whole, "3: " + cut_100, "4: " + cut_255}));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Column("tlxHoFileSysDesc"), first);
}

TEST(FileSystems, WithoutAMountTable) {
  MadeUpHost host;
  host.Directory("/a");
  host.File("/etc/mtab", Entry("x", "/a"));
  host.Start();
  host.Remove("/etc/mtab");
  host.Proc("meminfo", "MemTotal: 4096 kB\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Count("vexhostd: Can't open the file /etc/mnttab, error 2  (PEER3034)"),
            1U);
  EXPECT_EQ(Rows(), 1);
  // The rest of that poll is left out.
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
  host.File("/etc/mtab", Entry("x", "/a"));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 4");
}

TEST(FileSystems, WithoutAMountTableThereIsNoStart) {
  MadeUpHost host;
  host.snmpd.Start();
  host.Remove("/etc/mtab");
  DaemonOptions options;
  options.wait = false;
  host.daemon.Start(options);
  EXPECT_EQ(host.daemon.WaitEnd(), 1);
  EXPECT_EQ(host.daemon.Count("(PEER3034)"), 1U);
  EXPECT_TRUE(MadeUpHost::Objects().empty());
}

TEST(FileSystems, AMountThatFails) {
  MadeUpHost host;
  host.Directory("/a");
  host.File("/etc/mtab", Entry("x", "/gone") + Entry("x", "/a"));
  host.Start();
  ASSERT_TRUE(host.daemon.Poll());
  // At every pass, and the other rows are refreshed.
  EXPECT_EQ(host.daemon.Count("vexhostd: Can't update OS filesys object: /gone  (PEER3023)"), 2U);
  EXPECT_EQ(host.Column("tlxHoFileSysDesc"),
            (std::vector<std::string>{"0: \"\"", "1: STRING: \"x on /a\""}));
}

TEST(FileSystems, VMwareVolumes) {
  MadeUpHost host;
  host.Directory("/vmfs/volumes");
  host.File("/vmfs/vmhba0:0:0:5", "");
  host.File("/vmfs/vmhba0:0:0:6;reboot", "");
  host.Script("/usr/sbin/vmkfstools",
              "echo \"$*\" >> /run/vmkfstools.calls\n"
              "echo 'Capacity 107374182400 (100.0 GB), 53687091200 avail'\n");
  host.Command("vdf",
               "echo 'Filesystem 1K-blocks Used Available Use% Mounted on'\n"
               "echo 'sda 1048576 524288 524288  50% /vmfs/volumes/one'\n");
  host.Start();
  EXPECT_EQ(Figures(Find("vmfs on /vmfs/vmhba0:0:0:5")),
            (std::vector<std::string>{"102400", "51200", "50", "0", "0"}));
  EXPECT_EQ(Figures(Find("sda on /vmfs/volumes/one")),
            (std::vector<std::string>{"1024", "512", "50", "0", "0"}));
  EXPECT_EQ(Rows(), 3);  // with the root
  // Scanned at the first pass and at every twentieth after it.
  for (int pass = 2; pass <= 21; pass++) {
    EXPECT_EQ(ReadFile("/run/vmkfstools.calls"), "-l /vmfs/vmhba0:0:0:5\n") << pass;
    ASSERT_TRUE(host.daemon.Poll());
  }
  EXPECT_EQ(ReadFile("/run/vmkfstools.calls"), "-l /vmfs/vmhba0:0:0:5\n-l /vmfs/vmhba0:0:0:5\n");
}

// ---- Mounts that hang ---------------------------------------------------------------------------

namespace {

constexpr char kHangs[] = "vexhostd: Can't update OS filesys object: /mnt/hang  (PEER3023)";

// Until all have answered, and only those children are left that wait for others.
bool WaitForAnswers(MadeUpHost &host, const std::vector<FuseMount *> &mounts, size_t others = 0) {
  return Eventually([&] {
    size_t waiting = Children(host.daemon.pid()).size() - others;
    for (const FuseMount *mount : mounts) {
      waiting += mount->Waiting();
    }
    return waiting == 0;
  });
}

// Seconds that a poll took.
double TimedPoll(MadeUpHost &host) {
  const double begin = Now();
  EXPECT_TRUE(host.daemon.Poll());
  return Now() - begin;
}

}  // namespace

TEST(HangingMounts, OneAmongOthers) {
  MadeUpHost host;
  FuseMount hang("/mnt/hang", 25600, 15360);
  FuseMount well("/mnt/well", 25600, 15360);
  host.File("/etc/mtab", Entry("h", "/mnt/hang") + Entry("w", "/mnt/well"));
  host.Start();
  hang.Hang();
  hang.SetFree(0);
  well.SetFree(0);
  host.daemon.BeginPoll();
  ASSERT_TRUE(Eventually([&] { return hang.Waiting() == 1; }));
  // Reads go on meanwhile.
  EXPECT_EQ(host.Get("tlxHoFileSysSpaceUsed.0"), "INTEGER: 40");
  ASSERT_TRUE(Eventually([&] { return host.daemon.Polls() == 1; }));
  EXPECT_EQ(host.daemon.Count(kHangs), 1U);
  EXPECT_EQ(host.Get("tlxHoFileSysSpaceUsed.0"), "INTEGER: 40");  // keeps its values
  EXPECT_EQ(host.Get("tlxHoFileSysSpaceUsed.1"), "INTEGER: 100");
  // Not asked again, not reported again, no delay.
  well.SetFree(25600);
  for (int pass = 0; pass < 3; pass++) {
    EXPECT_LT(TimedPoll(host), 1.9);
  }
  EXPECT_EQ(hang.Waiting(), 1U);
  EXPECT_EQ(host.daemon.Count(kHangs), 1U);
  EXPECT_EQ(host.Get("tlxHoFileSysSpaceUsed.1"), "INTEGER: 0");
  EXPECT_EQ(Rows(), 2);
  // It recovers.
  hang.Recover();
  ASSERT_TRUE(Eventually([&] {
    EXPECT_TRUE(host.daemon.Poll());
    return host.Get("tlxHoFileSysSpaceUsed.0") == "INTEGER: 100";
  }));
  EXPECT_EQ(host.daemon.Count("PEER"), 1U) << host.daemon.Log();
  // And hangs again, which is news again.
  ASSERT_TRUE(Eventually([&] {
    EXPECT_TRUE(host.daemon.Poll());
    return host.daemon.Count("Info: mount /mnt/hang answers quickly again") == 1;
  }));
  hang.Hang();
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Count(kHangs), 2U);
  hang.Recover();
}

TEST(HangingMounts, Several) {
  MadeUpHost host;
  std::vector<std::unique_ptr<FuseMount>> mounts;
  std::string table;
  for (int n = 0; n < 12; n++) {
    const std::string directory = "/mnt/m" + std::to_string(n);
    mounts.push_back(std::make_unique<FuseMount>(directory, 25600, 15360));
    table += Entry("m", directory);
  }
  host.File("/etc/mtab", table);
  host.Start();
  for (size_t n = 0; n < mounts.size(); n++) {
    mounts[n]->SetFree(0);
    if (n % 2 == 0) {
      mounts[n]->Hang();
    }
  }
  // They share the two seconds.
  const double took = TimedPoll(host);
  EXPECT_GE(took, 1.9);
  EXPECT_LT(took, 6);
  for (size_t n = 0; n < mounts.size(); n++) {
    EXPECT_EQ(MadeUpHost::Published(Row(static_cast<int>(n)), "tlxHoFileSysSpaceUsed"),
              n % 2 == 0 ? "40" : "100");
  }
  EXPECT_EQ(host.daemon.Count("(PEER3023)"), 6U);
  mounts[0]->Recover();
  ASSERT_TRUE(Eventually([&] {
    EXPECT_TRUE(host.daemon.Poll());
    return MadeUpHost::Published(Row(0), "tlxHoFileSysSpaceUsed") == "100";
  }));
  EXPECT_EQ(MadeUpHost::Published(Row(2), "tlxHoFileSysSpaceUsed"), "40");
  EXPECT_EQ(host.daemon.Count("(PEER3023)"), 6U);
}

TEST(HangingMounts, HangingFromTheStart) {
  MadeUpHost host;
  FuseMount hang("/mnt/hang", 25600, 15360);
  hang.Hang();
  host.File("/etc/mtab", Entry("h", "/mnt/hang"));
  host.Start();
  EXPECT_EQ(host.daemon.Count(kHangs), 1U);
  EXPECT_EQ(host.Get("tlxHoFileSysDesc.0"), "\"\"");
  hang.Recover();
  ASSERT_TRUE(Eventually([&] {
    EXPECT_TRUE(host.daemon.Poll());
    return host.Get("tlxHoFileSysDesc.0") == "STRING: \"h on /mnt/hang\"";
  }));
}

TEST(HangingMounts, UnmountedWhileItHangs) {
  MadeUpHost host;
  host.Directory("/a");
  FuseMount hang("/mnt/hang", 25600, 15360);
  host.File("/etc/mtab", Entry("h", "/mnt/hang") + Entry("x", "/a"));
  host.Start();
  hang.Hang();
  ASSERT_TRUE(host.daemon.Poll());
  hang.Unmount();
  host.File("/etc/mtab", Entry("x", "/a"));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Column("tlxHoFileSysDesc"), std::vector<std::string>{"1: STRING: \"x on /a\""});
  // Another one in its place is asked at once, although the old call still hangs.
  const FuseMount other("/mnt/hang", 25600, 0);
  host.File("/etc/mtab", Entry("x", "/a") + Entry("o", "/mnt/hang"));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoFileSysSpaceUsed.0"), "INTEGER: 100");
  EXPECT_EQ(hang.Waiting(), 1U);
}

TEST(HangingMounts, TheEndDoesNotWait) {
  MadeUpHost host;
  FuseMount hang("/mnt/hang", 25600, 15360);
  host.File("/etc/mtab", Entry("h", "/mnt/hang"));
  host.Start();
  hang.Hang();
  ASSERT_TRUE(host.daemon.Poll());
  ASSERT_EQ(hang.Waiting(), 1U);
  const double begin = Now();
  EXPECT_EQ(host.daemon.Stop(), 0);
  EXPECT_LT(Now() - begin, 5);
  EXPECT_TRUE(MadeUpHost::Objects().empty());
  EXPECT_EQ(hang.Waiting(), 1U);
  // A new agent starts although the old one's call is still out.
  host.daemon.Start();
  EXPECT_EQ(host.daemon.Count(kHangs), 1U);
  hang.Recover();
}

TEST(HangingMounts, WhoAsksHoldsNothingOfTheAgent) {
  MadeUpHost host;
  FuseMount hang("/mnt/hang", 25600, 15360);
  host.File("/etc/mtab", Entry("h", "/mnt/hang"));
  host.Start();
  hang.Hang();
  ASSERT_TRUE(host.daemon.Poll());
  const std::vector<pid_t> children = Children(host.daemon.pid());
  ASSERT_EQ(children.size(), 1U);
  EXPECT_LE(OpenFiles(children[0]).size(), 1U);
  EXPECT_EQ(ReadFile("/proc/" + std::to_string(children[0]) + "/maps").find("memfd:"),
            std::string::npos);
  hang.Recover();
  ASSERT_TRUE(Eventually([&] {
    EXPECT_TRUE(host.daemon.Poll());
    return Children(host.daemon.pid()).empty();
  }));
}

// ---- Mounts that answer late --------------------------------------------------------------------

TEST(SlowMounts, ALateAnswerIsTakenOverByTheNextPoll) {
  MadeUpHost host;
  FuseMount slow("/mnt/slow", 25600, 15360);
  slow.Delay(3s);
  host.File("/etc/mtab", Entry("s", "/mnt/slow"));
  host.Start();
  EXPECT_EQ(host.daemon.Count("Can't update OS filesys object: /mnt/slow  (PEER3023)"), 1U);
  EXPECT_EQ(host.Get("tlxHoFileSysDesc.0"), "\"\"");
  ASSERT_TRUE(WaitForAnswers(host, {&slow}));
  EXPECT_LT(TimedPoll(host), 1.9);
  EXPECT_EQ(host.Get("tlxHoFileSysDesc.0"), "STRING: \"s on /mnt/slow\"");
  EXPECT_EQ(host.Get("tlxHoFileSysSpaceUsed.0"), "INTEGER: 40");
  EXPECT_EQ(host.daemon.Count("Info: mount /mnt/slow answered after "), 1U);
}

TEST(SlowMounts, OnceKnownTheyDelayNothing) {
  MadeUpHost host;
  std::vector<std::unique_ptr<FuseMount>> slow;
  std::vector<FuseMount *> all;
  std::string table;
  for (int n = 0; n < 3; n++) {
    slow.push_back(std::make_unique<FuseMount>("/mnt/slow" + std::to_string(n), 25600, 15360));
    slow.back()->Delay(3s);
    all.push_back(slow.back().get());
    table += Entry("s", "/mnt/slow" + std::to_string(n));
  }
  FuseMount hang("/mnt/hang", 25600, 15360);
  hang.Hang();
  FuseMount well("/mnt/well", 25600, 15360);
  host.File("/etc/mtab", table + Entry("h", "/mnt/hang") + Entry("w", "/mnt/well"));
  host.Start();
  uint64_t free = 15360;
  ASSERT_TRUE(WaitForAnswers(host, all, 1));
  for (int pass = 0; pass < 3; pass++) {
    well.SetFree(free - 2560);
    EXPECT_LT(TimedPoll(host), 1.9);
    for (int n = 0; n < 3; n++) {
      EXPECT_EQ(MadeUpHost::Published(Row(n), "tlxHoFileSysSpaceUsed"),
                std::to_string((25600 - free) / 256));
    }
    free -= 2560;
    EXPECT_EQ(MadeUpHost::Published(Row(4), "tlxHoFileSysSpaceUsed"),
              std::to_string((25600 - free) / 256));
    // The questions are out: their answers have these figures. A poll before they come finds none.
    for (FuseMount *mount : all) {
      mount->SetFree(free);
    }
    EXPECT_LT(TimedPoll(host), 1.9);
    ASSERT_TRUE(WaitForAnswers(host, all, 1));
  }
  // What began was said once each.
  EXPECT_EQ(host.daemon.Count("(PEER3023)"), 4U) << host.daemon.Log();
  EXPECT_EQ(host.daemon.Count("Info: mount"), 3U) << host.daemon.Log();
  EXPECT_EQ(MadeUpHost::Published(Row(3), "tlxHoFileSysDesc"), "");
  hang.Recover();
}

TEST(SlowMounts, QuickAgain) {
  MadeUpHost host;
  FuseMount slow("/mnt/slow", 25600, 15360);
  slow.Delay(3s);
  host.File("/etc/mtab", Entry("s", "/mnt/slow"));
  host.Start();
  slow.Delay(0s);
  const std::string quick = "Info: mount /mnt/slow answers quickly again";
  ASSERT_TRUE(Eventually([&] {
    EXPECT_TRUE(host.daemon.Poll());
    return host.daemon.Count(quick) == 1;
  }));
  // From now on a poll has the figures of that moment.
  slow.SetFree(0);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoFileSysSpaceUsed.0"), "INTEGER: 100");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Count(quick), 1U);
  EXPECT_TRUE(Children(host.daemon.pid()).empty());
}

TEST(SlowMounts, TheEndDoesNotWaitForOne) {
  MadeUpHost host;
  FuseMount slow("/mnt/slow", 25600, 15360);
  host.File("/etc/mtab", Entry("s", "/mnt/slow"));
  host.Start();
  slow.Delay(60s);
  ASSERT_TRUE(host.daemon.Poll());
  const double begin = Now();
  EXPECT_EQ(host.daemon.Stop(), 0);
  EXPECT_LT(Now() - begin, 10);
}

TEST(MountsTiming, TheEndComesWithinASecondOfAPollThatWaits) {
  BeUrgent();
  MadeUpHost host;
  FuseMount hang("/mnt/hang", 25600, 15360);
  host.File("/etc/mtab", Entry("h", "/mnt/hang"));
  host.Start();
  hang.Hang();
  host.daemon.BeginPoll();
  ASSERT_TRUE(Eventually([&] { return hang.Waiting() == 1; }));
  const double begin = Now();
  EXPECT_EQ(host.daemon.Stop(), 0);
  EXPECT_LT(Now() - begin, 1);
  EXPECT_EQ(host.daemon.Count(kHangs), 0U);
}
