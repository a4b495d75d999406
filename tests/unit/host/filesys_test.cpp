#include "monitors/filesys.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <tuple>

#include "common/sources.h"
#include "tests/support/recording_framework.h"

// Of the leak checker, where there is one.
extern "C" void __lsan_disable(void) __attribute__((weak));

namespace {

// What is allocated from now on may stay: a row whose object cannot be deleted is not released.
void AllowLeaks() {
  if (__lsan_disable != nullptr) {
    __lsan_disable();
  }
}

constexpr char kDesc[] = "tlxHoFileSysDesc";
constexpr char kTotal[] = "tlxHoFileSysSpaceTotal";
constexpr char kUsed[] = "tlxHoFileSysSpaceUsed";
constexpr char kPercent[] = "tlxHoFileSysPercentSpaceUsed";
constexpr char kUnits[] = "tlxHoFileSysAllocUnitsTotal";
constexpr char kUnitsUsed[] = "tlxHoFileSysAllocUnitsUsed";

struct Mount {
  std::string device;
  std::string directory;
  std::string type = "ext4";
};

std::string Row(int n) {
  return "host/filesys." + std::to_string(n);
}

mount_stats Stats(uint64_t frsize, uint64_t blocks, uint64_t bfree, uint64_t files,
                  uint64_t ffree) {
  return {MOUNT_ANSWERED, 0, frsize, blocks, bfree, files, ffree};
}

mount_stats NoAnswer(int state, int error) {
  return {state, error, 0, 0, 0, 0, 0};
}

class FileSystems : public testing::Test {
 protected:
  void SetUp() override {
    rec::PutNothing("/vmfs");
  }

  // The mount table; directories that nobody gave figures get some.
  void Mtab(const std::vector<Mount> &mounts) {
    std::string text;
    for (const Mount &mount : mounts) {
      text += mount.device + " " + mount.directory + " " + mount.type + " rw,relatime 0 0\n";
    }
    rec::PutFile("/etc/mtab", text);
  }
  void Simple(const std::vector<std::string> &directories) {
    std::vector<Mount> mounts;
    for (const std::string &directory : directories) {
      mounts.push_back({"/dev/x", directory});
      rec::PutMount(directory, Stats(4096, 2560, 1280, 10, 4));
    }
    Mtab(mounts);
  }
  std::vector<std::string> Descriptions() {
    std::vector<std::string> all;
    for (const std::string &name : rec::LiveNames()) {
      all.push_back(name + ": " + rec::Text(name, kDesc));
    }
    return all;
  }
};

TEST_F(FileSystems, ARowForEachMount) {
  Mtab({{"/dev/sda1", "/"}, {"tmpfs", "/run", "tmpfs"}});
  rec::PutMount("/", Stats(4096, 25600, 15360, 1000, 400));
  rec::PutMount("/run", Stats(4096, 256, 0, 7, 7));
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::LiveNames(), (std::vector<std::string>{Row(0), Row(1)}));
  EXPECT_EQ(rec::Int(Row(0), "tlxHoFileSysIndex"), 0);
  EXPECT_EQ(rec::Text(Row(0), kDesc), "/dev/sda1 on /");
  EXPECT_EQ(rec::Int(Row(0), kTotal), 100);
  EXPECT_EQ(rec::Int(Row(0), kUsed), 40);
  EXPECT_EQ(rec::Int(Row(0), kPercent), 40);
  EXPECT_EQ(rec::Int(Row(0), kUnits), 1000);
  EXPECT_EQ(rec::Int(Row(0), kUnitsUsed), 600);
  EXPECT_EQ(rec::Int(Row(1), "tlxHoFileSysIndex"), 1);
  EXPECT_EQ(rec::Text(Row(1), kDesc), "tmpfs on /run");
  EXPECT_EQ(rec::Int(Row(1), kPercent), 100);
  EXPECT_EQ(rec::Int(Row(1), kUnitsUsed), 0);
  EXPECT_EQ(rec::Live(Row(0))->flag, 1);
  EXPECT_EQ(rec::Live(Row(0))->data_size, 280);
  EXPECT_EQ(rec::Live(Row(0))->var_count, 7);
  EXPECT_EQ(rec::Variable(Row(0), kPercent)->slot, 4);
  EXPECT_EQ(rec::Variable(Row(0), kUnits)->slot, 5);
}

TEST_F(FileSystems, ThreeTypesHaveNoRow) {
  Mtab({{"s:/a", "/a", "nfs"},
        {"s:/b", "/b", "nfs4"},
        {"s:/c", "/c", "smb"},
        {"s:/d", "/d", "smbfs"},
        {"s:/e", "/e", "mvfs"},
        {"proc", "/proc", "proc"},
        {"s:/f", "/f", "NFS"}});
  for (const char *directory : {"/b", "/d", "/proc", "/f"}) {
    rec::PutMount(directory, Stats(4096, 0, 0, 0, 0));
  }
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_EQ(Descriptions(),
            (std::vector<std::string>{Row(0) + ": s:/b on /b", Row(1) + ": s:/d on /d",
                                      Row(2) + ": proc on /proc", Row(3) + ": s:/f on /f"}));
}

TEST_F(FileSystems, AMountTableWithoutRowsRemovesThoseThatWere) {
  Simple({"/a", "/b"});
  do_filesys();
  Mtab({{"s:/a", "/n", "nfs"}});
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_TRUE(rec::LiveNames().empty());
}

TEST_F(FileSystems, OctalEscapesAreBlanksAgain) {
  Mtab({{"/dev/my\\040disk", "/mnt/with\\040blank\\011tab\\134back"}});
  rec::PutMount("/mnt/with blank\ttab\\back", Stats(4096, 256, 0, 0, 0));
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::Text(Row(0), kDesc), "/dev/my disk on /mnt/with blank\ttab\\back");
}

TEST_F(FileSystems, OneDirectoryTwiceIsOneRow) {
  Mtab({{"rootfs", "/"}, {"/dev/sda1", "/"}});
  rec::PutMount("/", Stats(4096, 256, 0, 0, 0));
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_EQ(Descriptions(), std::vector<std::string>{Row(0) + ": /dev/sda1 on /"});
  EXPECT_EQ(rec::Publications(Row(0)), 3);  // birth, and each of the two
}

TEST_F(FileSystems, PublishesOnlyChanges) {
  Simple({"/a", "/b"});
  do_filesys();
  rec::ForgetEvents();
  do_filesys();
  EXPECT_EQ(rec::Count("log_data"), 0);
  rec::PutMount("/b", Stats(4096, 2560, 1279, 10, 4));
  do_filesys();
  EXPECT_EQ(rec::Names("log_data"), std::vector<std::string>{Row(1)});
}

TEST_F(FileSystems, ANewRowIsPublishedEmptyFirst) {
  Mtab({{"/dev/x", "/a"}});
  do_filesys();  // its figures cannot be had
  EXPECT_EQ(rec::Publications(Row(0)), 1);
  EXPECT_EQ(rec::Text(Row(0), kDesc), "");
  EXPECT_EQ(rec::Int(Row(0), kTotal), 0);
}

TEST_F(FileSystems, TheLowestFreeIndexIsUsedAgain) {
  Simple({"/0", "/1", "/2", "/3"});
  do_filesys();
  Simple({"/1", "/3"});
  do_filesys();
  EXPECT_EQ(rec::LiveNames(), (std::vector<std::string>{Row(1), Row(3)}));
  Simple({"/1", "/3", "/4", "/5"});
  do_filesys();
  EXPECT_EQ(Descriptions(),
            (std::vector<std::string>{Row(0) + ": /dev/x on /4", Row(1) + ": /dev/x on /1",
                                      Row(2) + ": /dev/x on /5", Row(3) + ": /dev/x on /3"}));
}

TEST_F(FileSystems, WithoutAMountTableTheRowsStay) {
  Simple({"/a"});
  do_filesys();
  for (int pass = 0; pass < 3; pass++) {
    rec::PutNothing("/etc/mtab");
    EXPECT_EQ(do_filesys(), -1);
  }
  EXPECT_EQ(rec::Messages(),
            std::vector<std::string>(
                3, "vexhostd: Can't open the file /etc/mnttab, error 2  (PEER3034)\n"));
  EXPECT_EQ(rec::LiveNames(), std::vector<std::string>{Row(0)});
  Mtab({});
  EXPECT_EQ(do_filesys(), 0);
  EXPECT_TRUE(rec::LiveNames().empty());
}

TEST_F(FileSystems, AFailingMountKeepsItsValuesAndIsReportedAtEveryPass) {
  Simple({"/a", "/b"});
  do_filesys();
  rec::PutMount("/a", NoAnswer(MOUNT_FAILED, ESTALE));
  rec::PutMount("/b", Stats(4096, 5120, 0, 1, 1));
  EXPECT_EQ(do_filesys(), 0);
  EXPECT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::Messages(), std::vector<std::string>(
                                 2, "vexhostd: Can't update OS filesys object: /a  (PEER3023)\n"));
  EXPECT_EQ(rec::Int(Row(0), kTotal), 10);
  EXPECT_EQ(rec::Int(Row(1), kTotal), 20);
}

TEST_F(FileSystems, ASilentMountIsReportedOnce) {
  Simple({"/a", "/b"});
  do_filesys();
  rec::PutMount("/a", NoAnswer(MOUNT_SILENT, ETIMEDOUT));
  EXPECT_EQ(do_filesys(), 0);
  rec::PutMount("/a", NoAnswer(MOUNT_STILL_SILENT, ETIMEDOUT));
  for (int pass = 0; pass < 3; pass++) {
    EXPECT_EQ(do_filesys(), 0);
  }
  EXPECT_EQ(rec::Messages(),
            std::vector<std::string>{"vexhostd: Can't update OS filesys object: /a  (PEER3023)\n"});
  EXPECT_EQ(rec::Int(Row(0), kTotal), 10);
  rec::PutMount("/a", Stats(4096, 5120, 0, 1, 1));
  EXPECT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::Int(Row(0), kTotal), 20);
  EXPECT_EQ(rec::Messages().size(), 1u);
}

TEST_F(FileSystems, ASilentMountThatIsUnmountedLosesItsRow) {
  Simple({"/a", "/b"});
  do_filesys();
  rec::PutMount("/a", NoAnswer(MOUNT_STILL_SILENT, ETIMEDOUT));
  do_filesys();
  Simple({"/b"});
  do_filesys();
  EXPECT_EQ(rec::LiveNames(), std::vector<std::string>{Row(1)});
}

TEST_F(FileSystems, ATableThatIsReadInPartCostsNoRow) {
  Simple({"/a", "/b"});
  do_filesys();
  const auto rows = rec::LiveNames();
  // Once: it is read again at once.
  rec::BreakReads(mount_table_path, 1, 10);
  EXPECT_EQ(do_filesys(), 0);
  EXPECT_TRUE(rec::Messages().empty());
  EXPECT_EQ(rec::LiveNames(), rows);
  rec::BreakReads(mount_table_path, 3, 10);
  EXPECT_EQ(do_filesys(), -1);
  EXPECT_EQ(
      rec::Messages(),
      std::vector<std::string>{"vexhostd: Can't read the file /etc/mnttab, error 5  (PEER3034)\n"});
  EXPECT_EQ(rec::LiveNames(), rows);
  EXPECT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::LiveNames(), rows);
}

TEST_F(FileSystems, AllMountsAreAskedInOneGo) {
  Simple({"/a", "/b", "/c"});
  do_filesys();
  EXPECT_EQ(rec::Names("stat_mounts"), std::vector<std::string>{"3"});
}

TEST_F(FileSystems, APassThatCannotAskTheMountsChangesNothing) {
  Simple({"/a", "/b"});
  rec::PutFile("/vmfs/a:1", "");
  do_filesys();
  rec::ForgetEvents();
  Simple({"/a"});
  rec::PutMount("/a", Stats(4096, 5120, 0, 1, 1));
  rec::Fail("stat_mounts", "*", 0, ENOMEM);
  for (int pass = 0; pass < 30; pass++) {
    EXPECT_EQ(do_filesys(), -1);
  }
  EXPECT_EQ(rec::LiveNames(), (std::vector<std::string>{Row(0), Row(1), Row(2)}));
  EXPECT_EQ(rec::Count("log_data"), 0);
  EXPECT_EQ(rec::Count("run_command"), 0);  // such passes bring no scan nearer
  rec::StopFailing();
  EXPECT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::Int(Row(0), kTotal), 20);
  EXPECT_EQ(rec::LiveNames(), (std::vector<std::string>{Row(0), Row(2)}));
}

TEST_F(FileSystems, ARowThatCannotBeTakenOutIsKeptForTheNextPass) {
  Simple({"/a", "/b"});
  do_filesys();
  Simple({"/a"});
  rec::Fail("keyremove_Q", "", 1);
  EXPECT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::Count("delete_obj"), 0);
  EXPECT_EQ(rec::LiveNames(), (std::vector<std::string>{Row(0), Row(1)}));
  EXPECT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::LiveNames(), std::vector<std::string>{Row(0)});
}

TEST_F(FileSystems, AFailedPublicationIsReported) {
  Simple({"/a"});
  rec::Fail("log_data", Row(0), 2);  // the first one is the birth, whose result does not matter
  EXPECT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::Messages(),
            std::vector<std::string>{"vexhostd: Can't update OS filesys object: /a  (PEER3023)\n"});
}

TEST_F(FileSystems, ADirectoryOf99CharactersIsWhole) {
  const std::string directory = "/" + std::string(98, 'd');
  const std::string device = "/" + std::string(98, 'e');
  Mtab({{device, directory}});
  rec::PutMount(directory, Stats(4096, 256, 0, 0, 0));
  do_filesys();
  do_filesys();
  EXPECT_EQ(Descriptions(), std::vector<std::string>{Row(0) + ": " + device + " on " + directory});
}

TEST_F(FileSystems, ALongerDirectoryIsCutAndGetsAFreshRowAtEveryPass) {
  for (const size_t length : {100, 255}) {
    const std::string directory = "/" + std::string(length - 1, 'd');
    const std::string device = "/" + std::string(length - 1, 'e');
    Mtab({{"/dev/x", "/a"}, {device, directory}});
    rec::PutMount("/a", Stats(4096, 256, 0, 0, 0));
    rec::PutMount(directory, Stats(4096, 256, 0, 0, 0));
    const std::string text =
        ": /" + std::string(95, 'e') + "... on /" + std::string(95, 'd') + "...";
    do_filesys();
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{Row(0) + ": /dev/x on /a", Row(1) + text}));
    do_filesys();
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{Row(0) + ": /dev/x on /a", Row(2) + text}));
    do_filesys();
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{Row(0) + ": /dev/x on /a", Row(1) + text}));
    // Gone for the next length.
    Mtab({});
    do_filesys();
    EXPECT_TRUE(rec::LiveNames().empty());
  }
}

TEST_F(FileSystems, ALongDirectoryThatFailsIsNotCut) {
  const std::string directory = "/" + std::string(120, 'd');
  Mtab({{"/dev/x", directory}});
  do_filesys();
  do_filesys();
  EXPECT_EQ(rec::LiveNames(), std::vector<std::string>{Row(0)});
  EXPECT_EQ(rec::Messages()[1],
            "vexhostd: Can't update OS filesys object: " + directory + "  (PEER3023)\n");
}

TEST_F(FileSystems, RemovesAllRowsAtTheEnd) {
  Simple({"/a", "/b", "/c"});
  do_filesys();
  EXPECT_EQ(remove_filesys_rows(nullptr), 0);
  EXPECT_TRUE(rec::LiveNames().empty());
  EXPECT_EQ(rec::Names("delete_obj"), (std::vector<std::string>{Row(0), Row(1), Row(2)}));
  EXPECT_EQ(remove_filesys_rows(nullptr), 0);
}

TEST_F(FileSystems, StopsRemovingAtTheFirstFailure) {
  AllowLeaks();
  Simple({"/a", "/b", "/c"});
  do_filesys();
  rec::Fail("delete_obj", Row(1));
  EXPECT_EQ(remove_filesys_rows(nullptr), -1);
  EXPECT_EQ(rec::LiveNames(), (std::vector<std::string>{Row(1), Row(2)}));
}

TEST_F(FileSystems, TheSweepGoesOnAfterAFailure) {
  AllowLeaks();
  Simple({"/a", "/b", "/c"});
  do_filesys();
  rec::Fail("delete_obj", Row(1));
  Mtab({});
  EXPECT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::LiveNames(), std::vector<std::string>{Row(1)});
}

// ---- A row that cannot be created ---------------------------------------------------------------

using FileSystemsDeath = FileSystems;

// Ends by the signal, with the message said before. An emulator of processors adds a line.
void ExpectEnd(const std::string &key) {
  EXPECT_EXIT(
      {
        rec::OnMessage([](const std::string &message) { fputs(message.c_str(), stderr); });
        do_filesys();
      },
      testing::KilledBySignal(SIGSEGV),
      "^vexhostd: Can't create object: " + key + "  \\(PEER3023\\)\n(qemu: [^\n]*\n)?$");
}

TEST_F(FileSystemsDeath, WithoutItsObject) {
  Simple({"/a", "/b"});
  rec::Fail("create_obj", Row(1));
  ExpectEnd("/b");
}

TEST_F(FileSystemsDeath, WithoutItsPlaceInTheQueue) {
  Simple({"/a"});
  rec::Fail("ordinsert_Q", "");
  ExpectEnd("/a");
}

// Whoever started the agent may have had the signal blocked.
TEST_F(FileSystemsDeath, WithTheSignalBlocked) {
  Simple({"/a"});
  rec::Fail("create_obj", Row(0));
  EXPECT_EXIT(
      {
        rec::OnMessage([](const std::string &message) { fputs(message.c_str(), stderr); });
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGSEGV);
        sigprocmask(SIG_BLOCK, &blocked, nullptr);
        do_filesys();
      },
      testing::KilledBySignal(SIGABRT), "^vexhostd: Can't create object: /a  \\(PEER3023\\)\n");
}

TEST_F(FileSystemsDeath, InTheVmfsScan) {
  Mtab({});
  rec::PutFile("/vmfs/vmhba0:0:0:5", "");
  rec::Fail("create_obj", "host/filesys.*");
  ExpectEnd("/vmfs/vmhba0:0:0:5");
}

TEST_F(FileSystemsDeath, InTheVolumeScan) {
  Mtab({});
  rec::PutDirectory("/vmfs/volumes");
  rec::PutCommand("vdf | grep \"/vmfs/volumes\"", "/dev/v 1 1 1 1% /vmfs/volumes/v\n");
  rec::Fail("create_obj", "host/filesys.*");
  ExpectEnd("/vmfs/volumes/v");
}

TEST_F(FileSystemsDeath, WithoutMemoryForARow) {
  Simple({"/a"});
  for (const auto &[call, name, nth] :
       {std::tuple("calloc", "", 0), std::tuple("strdup", "/a", 0), std::tuple("realloc", "", 5)}) {
    SCOPED_TRACE(call);
    // The fifth is for the table of rows; the mount table has had the others.
    rec::Fail(call, name, nth, ENOMEM);
    ExpectEnd("/a");
    rec::StopFailing();
  }
}

// ---- Without memory for the mount table ---------------------------------------------------------

class MountTableWithoutMemory : public FileSystems, public testing::WithParamInterface<int> {};

// It has four pieces of memory, each asked for once: the table is read again.
TEST_P(MountTableWithoutMemory, IsReadAgain) {
  Simple({"/a", "/b"});
  rec::Fail("realloc", "", GetParam(), ENOMEM);
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_EQ(Descriptions(),
            (std::vector<std::string>{Row(0) + ": /dev/x on /a", Row(1) + ": /dev/x on /b"}));
  EXPECT_TRUE(rec::Messages().empty());
}
INSTANTIATE_TEST_SUITE_P(Each, MountTableWithoutMemory, testing::Range(1, 5));

// The texts' memory grows while an entry is added: at the directory of the third, or at its type.
class MountTextsWithoutMemory : public FileSystems, public testing::WithParamInterface<Mount> {};

TEST_P(MountTextsWithoutMemory, AreReadAgain) {
  const Mount &last = GetParam();
  // The first piece is 8192 bytes; what these leave of it has room for the last one's device.
  const std::string filling = "/" + std::string(3999, 'e');
  Mtab({{filling, "/a"}, {filling, "/b"}, last});
  for (const std::string &directory : {std::string("/a"), std::string("/b"), last.directory}) {
    rec::PutMount(directory, Stats(4096, 2560, 1280, 10, 4));
  }
  rec::Fail("realloc", "", 5, ENOMEM);  // three for the lists, the first for texts, and this one
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::Text(Row(2), kDesc), last.device + " on " + last.directory);
  EXPECT_EQ(rec::Int(Row(2), kTotal), 10);
  EXPECT_EQ(rec::LiveNames().size(), 3U);
  EXPECT_TRUE(rec::Messages().empty());
  queue_element *cursor = first_mount();
  mount_view view = {};
  while (next_mount(&cursor, &view) && view.instance != 2) {
  }
  EXPECT_STREQ(view.directory, last.directory.c_str());
  EXPECT_STREQ(view.type, last.type.c_str());
}
INSTANTIATE_TEST_SUITE_P(
    Each, MountTextsWithoutMemory,
    testing::Values(Mount{"/" + std::string(95, 'x'), "/" + std::string(95, 'y'), "ext4"},
                    Mount{"/" + std::string(95, 'x'), "/" + std::string(50, 'y'),
                          "fuse." + std::string(60, 't')}));

TEST_F(FileSystems, AMountTableWithoutAnyMemoryLeavesTheRows) {
  Simple({"/a"});
  do_filesys();
  // More than there was room for.
  std::vector<std::string> many;
  for (int i = 0; i < 100; i++) {
    many.push_back("/m" + std::to_string(i));
  }
  Simple(many);
  rec::Fail("realloc", "", 0, ENOMEM);
  EXPECT_EQ(do_filesys(), -1);
  EXPECT_EQ(rec::Messages(),
            std::vector<std::string>{
                "vexhostd: Can't read the file /etc/mnttab, error 12  (PEER3034)\n"});
  EXPECT_EQ(Descriptions(), std::vector<std::string>{Row(0) + ": /dev/x on /a"});
  rec::StopFailing();
  EXPECT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::LiveNames().size(), 100U);
}

// What is full is doubled, so that a table of thousands is not copied for each few of them.
TEST_F(FileSystems, ALongMountTableAsksForMemorySeldom) {
  std::vector<std::string> many;
  for (int i = 0; i < 400; i++) {
    many.push_back("/m" + std::to_string(i));
  }
  Simple(many);
  // Three pieces for each of three lists, one for the texts, and seven for the rows' numbers.
  rec::Fail("realloc", "", -18, ENOMEM);
  EXPECT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::LiveNames().size(), 400U);
}

// ---- VMware -------------------------------------------------------------------------------------

class VMware : public FileSystems {
 protected:
  void SetUp() override {
    rec::PutDirectory("/vmfs");
    Mtab({});
  }
  static std::string Scan(const std::string &name) {
    return "/usr/sbin/vmkfstools -l /vmfs/" + name;
  }
  static constexpr char kVdf[] = "vdf | grep \"/vmfs/volumes\"";
};

TEST_F(VMware, AVolumeForEachEntryWithAColon) {
  rec::PutFile("/vmfs/vmhba0:0:0:5", "");
  rec::PutFile("/vmfs/vmhba1", "");
  rec::PutCommand(Scan("vmhba0:0:0:5"),
                  "VMFS-2.11 file system spanning 1 partitions.\n"
                  "File system label (if any): x\nMode: public\n"
                  "Capacity 107374182400 (100.0 GB), 53687091200 avail\nFiles: 3\n");
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_EQ(Descriptions(), std::vector<std::string>{Row(0) + ": vmfs on /vmfs/vmhba0:0:0:5"});
  EXPECT_EQ(rec::Int(Row(0), kTotal), 102400);
  EXPECT_EQ(rec::Int(Row(0), kUsed), 51200);
  EXPECT_EQ(rec::Int(Row(0), kPercent), 50);
  EXPECT_EQ(rec::Int(Row(0), kUnits), 0);
  EXPECT_EQ(rec::Int(Row(0), kUnitsUsed), 0);
  EXPECT_EQ(rec::Names("run_command"), std::vector<std::string>{Scan("vmhba0:0:0:5")});
}

TEST_F(VMware, OutputWithoutCapacityIsNothing) {
  rec::PutFile("/vmfs/a:1", "");
  rec::PutCommand(Scan("a:1"), "CapacityX 5 (x), 6\ncapacity 7 (x), 8\n");
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::Text(Row(0), kDesc), "vmfs on /vmfs/a:1");
  EXPECT_EQ(rec::Int(Row(0), kTotal), 0);
  EXPECT_EQ(rec::Int(Row(0), kPercent), 0);
}

TEST_F(VMware, NamesThatAShellWouldInterpretArePassedOver) {
  for (const char *name :
       {"a:$(reboot)", "b:;x", "c:`x`", "d:|x", "e: x", "f:*", "g:'x", "h:\nx", "i:\\x", "j:~",
        "k:#x", "l:{x}", "m:&", "n:>x", "o:?", "p:[x]", "q:!x"}) {
    rec::PutFile(std::string("/vmfs/") + name, "");
  }
  rec::PutFile("/vmfs/fine_1.2-3:4", "");
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::Names("run_command"), std::vector<std::string>{Scan("fine_1.2-3:4")});
  EXPECT_EQ(rec::LiveNames().size(), 1u);
}

TEST_F(VMware, ACommandThatCannotBeStartedIsPassedOver) {
  rec::PutFile("/vmfs/a:1", "");
  rec::Fail("run_command");
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_TRUE(rec::LiveNames().empty());
}

TEST_F(VMware, OutputThatThereIsNoMemoryForIsReadByTheNextScan) {
  rec::PutFile("/vmfs/a:1", "");
  rec::PutCommand(Scan("a:1"), "Capacity 1048576, 524288\n");
  rec::PutDirectory("/vmfs/volumes");
  rec::PutCommand(kVdf, "/dev/v 1024 512 512 50% /vmfs/volumes/v\n");
  rec::Fail("fmemopen", "", 0, ENOMEM);
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_TRUE(rec::LiveNames().empty());
  rec::StopFailing();
  for (int pass = 2; pass <= 21; pass++) {
    ASSERT_EQ(do_filesys(), 0);
  }
  EXPECT_EQ(Descriptions(), (std::vector<std::string>{Row(0) + ": vmfs on /vmfs/a:1",
                                                      Row(1) + ": /dev/v on /vmfs/volumes/v"}));
}

TEST_F(VMware, ARowThatIsNotPublishedIsByTheNextScan) {
  rec::PutFile("/vmfs/a:1", "");
  rec::Fail("log_data", Row(0), 2);
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::Messages(),
            std::vector<std::string>{
                "vexhostd: Can't update OS filesys object: /vmfs/a:1  (PEER3023)\n"});
  EXPECT_EQ(rec::Publications(Row(0)), 1);
  for (int pass = 2; pass <= 21; pass++) {
    ASSERT_EQ(do_filesys(), 0);
  }
  EXPECT_EQ(rec::Publications(Row(0)), 2);
  EXPECT_EQ(rec::Text(Row(0), kDesc), "vmfs on /vmfs/a:1");
}

TEST_F(VMware, AllCommandsOfAScanShareTenSeconds) {
  for (const char *name : {"a:1", "a:2", "a:3"}) {
    rec::PutFile(std::string("/vmfs/") + name, "");
    rec::PutCommandTime(Scan(name), 1000);
  }
  rec::PutDirectory("/vmfs/volumes");
  rec::PutCommand(kVdf, "b 2097152 1023 2096129   0% /vmfs/volumes/two\n");
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::Names("run_command").size(), 1U);  // the first has used the time up
  EXPECT_TRUE(rec::LiveNames().empty());
}

TEST_F(VMware, ARowOutlivesACommandThatHangsOnce) {
  rec::PutFile("/vmfs/a:1", "");
  rec::PutCommand(Scan("a:1"), "Capacity 107374182400 (100.0 GB), 53687091200 avail\n");
  ASSERT_EQ(do_filesys(), 0);
  rec::PutCommandTime(Scan("a:1"), 1000);
  for (int pass = 2; pass <= 40; pass++) {
    do_filesys();
  }
  EXPECT_EQ(rec::Int(Row(0), kTotal), 102400);
}

TEST_F(VMware, ALongNameIsNotCutButBounded) {
  const std::string name = "v:" + std::string(250, 'n');
  rec::PutFile("/vmfs/" + name, "");
  ASSERT_EQ(do_filesys(), 0);
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::Text(Row(0), kDesc), ("vmfs on /vmfs/" + name).substr(0, 255));
  EXPECT_EQ(rec::Names("run_command"), std::vector<std::string>{Scan(name).substr(0, 127)});
}

TEST_F(VMware, ScansAtTheFirstAndEveryTwentiethPass) {
  rec::PutFile("/vmfs/a:1", "");
  for (int pass = 1; pass <= 61; pass++) {
    rec::ForgetEvents();
    if (pass == 5) {
      rec::PutNothing("/etc/mtab");
      EXPECT_EQ(do_filesys(), -1);  // such a pass does not count
      Mtab({});
    }
    do_filesys();
    EXPECT_EQ(rec::Count("run_command"), pass % 20 == 1) << pass;
  }
}

TEST_F(VMware, ARowOutlivesOneMissedScanButNotTwo) {
  rec::PutFile("/vmfs/a:1", "");
  do_filesys();
  rec::PutNothing("/vmfs/a:1");
  for (int pass = 2; pass <= 40; pass++) {
    do_filesys();
    ASSERT_EQ(rec::LiveNames().size(), 1u) << pass;
  }
  do_filesys();  // the second scan that misses it
  EXPECT_TRUE(rec::LiveNames().empty());
}

TEST_F(VMware, VolumesComeFromVdf) {
  rec::PutDirectory("/vmfs/volumes");
  rec::PutCommand(kVdf,
                  "/vmfs/devices/disks/a  1048576 524288 524288  50% /vmfs/volumes/one\n"
                  "b 2097152 1023 2096129   0% /vmfs/volumes/two\n");
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_EQ(Descriptions(),
            (std::vector<std::string>{Row(0) + ": /vmfs/devices/disks/a on /vmfs/volumes/one",
                                      Row(1) + ": b on /vmfs/volumes/two"}));
  EXPECT_EQ(rec::Int(Row(0), kTotal), 1024);
  EXPECT_EQ(rec::Int(Row(0), kUsed), 512);
  EXPECT_EQ(rec::Int(Row(0), kPercent), 50);
  EXPECT_EQ(rec::Int(Row(0), kUnits), 0);
  EXPECT_EQ(rec::Int(Row(1), kTotal), 2048);
  EXPECT_EQ(rec::Int(Row(1), kUsed), 0);
  EXPECT_EQ(rec::Names("run_command"), std::vector<std::string>{kVdf});
}

TEST_F(VMware, WithoutTheVolumesDirectoryVdfIsNotRun) {
  rec::PutFile("/vmfs/a:1", "");
  do_filesys();
  EXPECT_EQ(rec::Count("run_command", "vdf*"), 0);
}

TEST_F(VMware, ABrokenVdfLineNeverHangs) {
  rec::PutDirectory("/vmfs/volumes");
  rec::PutCommand(kVdf, "garbage\n%%% x y\na 99999999999999999999 1 1 1% /vmfs/volumes/one\nend");
  ASSERT_EQ(do_filesys(), 0);
  EXPECT_EQ(rec::LiveNames(), std::vector<std::string>{Row(0)});
  EXPECT_EQ(rec::Int(Row(0), kTotal), INT32_MAX);
  EXPECT_EQ(rec::Int(Row(0), kUsed), 0);
}

TEST_F(VMware, AMountTableRowThatAScanListsTooLivesLonger) {
  Simple({"/vmfs/volumes/one"});
  rec::PutDirectory("/vmfs/volumes");
  rec::PutCommand(kVdf, "d 1024 1024 0 100% /vmfs/volumes/one\n");
  do_filesys();
  EXPECT_EQ(Descriptions(), std::vector<std::string>{Row(0) + ": d on /vmfs/volumes/one"});
  Mtab({});
  do_filesys();
  EXPECT_EQ(rec::LiveNames().size(), 1u);
}

// ---- Arithmetic ---------------------------------------------------------------------------------

TEST(FileSystemFigures, PercentageOfAMountIsRoundedUp) {
  EXPECT_EQ(figures_of_mount(Stats(4096, 1'000'000, 990'000, 0, 0)).percent_used, 1);
  EXPECT_EQ(figures_of_mount(Stats(4096, 1'000'000, 989'999, 0, 0)).percent_used, 2);
  EXPECT_EQ(figures_of_mount(Stats(4096, 1'000'000, 1, 0, 0)).percent_used, 100);
  EXPECT_EQ(figures_of_mount(Stats(4096, 1'000'000, 0, 0, 0)).percent_used, 100);
  // A single block, of a megabyte.
  EXPECT_EQ(figures_of_mount(Stats(1 << 20, 8, 7, 0, 0)).percent_used, 13);
}

TEST(FileSystemFigures, LessThanOneMegabyteInUseIsNone) {
  // 255 blocks of 4 KiB, of 1 GiB: free space is cut off, too, and one megabyte counts as used.
  EXPECT_EQ(figures_of_mount(Stats(4096, 262144, 262144 - 255, 0, 0)).space_used, 1);
  EXPECT_EQ(figures_of_mount(Stats(4096, 262144, 262144 - 255, 0, 0)).percent_used, 1);
  // All of it is less than a megabyte.
  const filesys_figures small = figures_of_mount(Stats(1024, 1023, 0, 5, 1));
  EXPECT_EQ(small.space_total, 0);
  EXPECT_EQ(small.space_used, 0);
  EXPECT_EQ(small.percent_used, 0);
  EXPECT_EQ(small.units_used, 4);
  // 1.5 MiB, half a megabyte in use.
  const filesys_figures half = figures_of_mount(Stats(1024, 1536, 1024, 5, 1));
  EXPECT_EQ(half.space_total, 1);
  EXPECT_EQ(half.space_used, 0);
  EXPECT_EQ(half.percent_used, 0);
}

TEST(FileSystemFigures, NoBlocksIsNoSpace) {
  for (const mount_stats &stats : {Stats(0, 1000, 10, 6, 2), Stats(4096, 0, 0, 6, 2)}) {
    const filesys_figures figures = figures_of_mount(stats);
    EXPECT_EQ(figures.space_total, 0);
    EXPECT_EQ(figures.space_used, 0);
    EXPECT_EQ(figures.percent_used, 0);
    EXPECT_EQ(figures.units_total, 6);
    EXPECT_EQ(figures.units_used, 4);
  }
  EXPECT_EQ(figures_of_mount(Stats(4096, 0, 0, 0, 2)).units_used, 0);
}

TEST(FileSystemFigures, WhatDoesNotFitIsHeld) {
  const filesys_figures huge =
      figures_of_mount(Stats(UINT32_MAX, UINT64_MAX, UINT64_MAX / 2, UINT64_MAX, 1));
  EXPECT_EQ(huge.space_total, INT32_MAX);
  EXPECT_EQ(huge.space_used, INT32_MAX);
  EXPECT_EQ(huge.percent_used, 51);
  EXPECT_EQ(huge.units_total, INT32_MAX);
  EXPECT_EQ(huge.units_used, INT32_MAX);
  const filesys_figures largest =
      figures_of_mount(Stats(UINT64_MAX, UINT64_MAX, UINT64_MAX, UINT64_MAX, UINT64_MAX));
  EXPECT_EQ(largest.space_total, INT32_MAX);
  EXPECT_EQ(largest.space_used, 0);
  EXPECT_EQ(largest.units_used, 0);
  // Used space is right although neither total nor free space fits.
  const uint64_t pebi_blocks = uint64_t{1} << 40;  // of 4 KiB: 4 EiB
  EXPECT_EQ(figures_of_mount(Stats(4096, pebi_blocks, pebi_blocks - 2560, 0, 0)).space_used, 10);
}

TEST(FileSystemFigures, MoreFreeThanThereIs) {
  const filesys_figures figures = figures_of_mount(Stats(4096, 256, 512, 5, 7));
  EXPECT_EQ(figures.space_used, -1);
  EXPECT_EQ(figures.percent_used, 0);
  EXPECT_EQ(figures.units_used, -2);
}

TEST(FileSystemFigures, PercentageOfAVolumeIsRoundedHalfUp) {
  constexpr uint64_t kGiB = uint64_t{1} << 30;
  constexpr uint64_t kCapacity = 1000 * kGiB;
  const auto percent = [&](uint64_t used) {
    return figures_of_volume(kCapacity, kCapacity - used).percent_used;
  };
  EXPECT_EQ(percent(4 * kGiB), 0);
  EXPECT_EQ(percent(5 * kGiB), 1);
  EXPECT_EQ(percent(994 * kGiB), 99);
  EXPECT_EQ(percent(995 * kGiB), 100);
  EXPECT_EQ(percent(kCapacity), 100);
  EXPECT_EQ(percent(kGiB / 1024 - 1), 0);
}

TEST(FileSystemFigures, LowBitsOfAVolumesMegabytes) {
  // 2^52 bytes and one megabyte: the low 32 bits of the megabytes are 1.
  const filesys_figures figures = figures_of_volume((uint64_t{1} << 52) + (1 << 20), 0);
  EXPECT_EQ(figures.space_total, 1);
  EXPECT_EQ(figures.space_used, 1);
  EXPECT_EQ(figures.percent_used, 100);
  // Bit 31 makes it negative, and the percentage 0.
  EXPECT_EQ(figures_of_volume(uint64_t{1} << 51, 0).space_total, INT32_MIN);
  EXPECT_EQ(figures_of_volume(uint64_t{1} << 51, 0).percent_used, 0);
  // Nor is there one where all low bits of the total are 0.
  const filesys_figures none = figures_of_volume(uint64_t{1} << 52, uint64_t{3} << 50);
  EXPECT_EQ(none.space_total, 0);
  EXPECT_EQ(none.space_used, 1 << 30);
  EXPECT_EQ(none.percent_used, 0);
  // More available than there is.
  EXPECT_EQ(figures_of_volume(1 << 20, UINT64_MAX).percent_used, INT32_MIN);
}

TEST(FileSystemParser, Vmkfstools) {
  const auto parse = [](std::string text) {
    FILE *file = fmemopen(text.data(), text.size(), "r");
    uint64_t capacity = 1;
    uint64_t available = 1;
    parse_vmkfstools(file, &capacity, &available);
    fclose(file);
    return std::pair(capacity, available);
  };
  using Pair = std::pair<uint64_t, uint64_t>;
  EXPECT_EQ(parse("Capacity 10 (10 B), 4 avail"), Pair(10, 4));
  EXPECT_EQ(parse("x y Capacity\n10 z, 4"), Pair(10, 4));
  EXPECT_EQ(parse("Capacity 10"), Pair(10, 0));
  EXPECT_EQ(parse("Capacity ten, 4"), Pair(0, 0));
  EXPECT_EQ(parse("nothing here"), Pair(0, 0));
  EXPECT_EQ(parse(std::string(100, 'x') + " Capacity 7 w, 3"), Pair(7, 3));
  EXPECT_EQ(parse("\n"), Pair(0, 0));
}

TEST(FileSystemParser, PlainNames) {
  EXPECT_TRUE(is_plain_name("vmhba0:0:0:5"));
  EXPECT_TRUE(
      is_plain_name("Gr\xc3\xbc\xc3\x9f"
                    "e:1"));
  EXPECT_TRUE(is_plain_name(""));
  for (int c = 1; c < 0x80; c++) {
    if (strchr(" \t\n\r\v\f\"'`\\$&;|<>()[]{}*?~#!^", c) != nullptr) {
      EXPECT_FALSE(is_plain_name(std::string(1, static_cast<char>(c)).c_str())) << c;
    }
  }
}

}  // namespace
