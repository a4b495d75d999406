// The mount details over the file-system table.
#include "detail/mount.h"

#include <gtest/gtest.h>

#include "common/sources.h"
#include "monitors/filesys.h"
#include "tests/support/recording_framework.h"

namespace {

TEST(Mount, ARowThatCannotBeMadeIsMadeByTheNextPass) {
  rec::PutFile(mount_table_path, "/dev/a / ext4 rw 0 0\n/dev/b /home ext4 rw 0 0\n");
  ASSERT_EQ(do_filesys(), 0);
  rec::ForgetEvents();
  rec::Fail("create_obj", "host/mount.1");
  EXPECT_EQ(do_mount(), -1);
  EXPECT_EQ(rec::Names("log_data"), std::vector<std::string>{"host/mount.0"});
  rec::StopFailing();
  ASSERT_EQ(do_filesys(), 0);
  rec::ForgetEvents();
  EXPECT_EQ(do_mount(), 0);
  EXPECT_EQ(rec::Names("log_data"), std::vector<std::string>{"host/mount.1"});
}

TEST(Mount, ATableThatCannotBeReadChangesNothing) {
  rec::PutFile(mount_table_path, "/dev/a / ext4 rw 0 0\n");
  ASSERT_EQ(do_filesys(), 0);
  ASSERT_EQ(do_mount(), 0);
  rec::Fail("setmntent", "*");
  ASSERT_EQ(do_filesys(), -1);
  rec::ForgetEvents();
  EXPECT_EQ(do_mount(), 0);
  EXPECT_EQ(rec::Count("log_data"), 0);
  EXPECT_EQ(rec::LiveNames(), (std::vector<std::string>{"host/filesys.0", "host/mount.0"}));
}

TEST(Mount, TellsWhatAnswersFailsAndIsSilent) {
  const std::string device = "/dev/" + std::string(400, 'd');
  rec::PutFile(mount_table_path,
               device + " / ext4 ro 0 0\n/dev/b /b ext4 rw 0 0\n/dev/c /c ext4 rw 0 0\n");
  rec::PutMount("/", {MOUNT_ANSWERED, 0, 4096, 256, 128, 10, 5});
  rec::PutMount("/b", {MOUNT_FAILED, 5, 0, 0, 0, 0, 0});
  rec::PutMount("/c", {MOUNT_STILL_SILENT, 0, 0, 0, 0, 0, 0});
  ASSERT_EQ(do_filesys(), 0);
  ASSERT_EQ(do_mount(), 0);
  EXPECT_EQ(rec::Text("host/mount.0", "tlxHoMountDevice"), device.substr(0, 255));
  EXPECT_EQ(rec::Int("host/mount.0", "tlxHoMountReadOnly"), 1);
  EXPECT_EQ(rec::Int("host/mount.1", "tlxHoMountReadOnly"), 2);
  for (int row = 0; row < 3; row++) {
    EXPECT_EQ(rec::Int("host/mount." + std::to_string(row), "tlxHoMountState"), row + 1);
  }
  // What is known of one that answers late is its last answer.
  rec::PutMount("/", {MOUNT_WAITED_FOR, 5, 0, 0, 0, 0, 0});
  rec::PutMount("/b", {MOUNT_WAITED_FOR, 0, 0, 0, 0, 0, 0});
  ASSERT_EQ(do_filesys(), 0);
  ASSERT_EQ(do_mount(), 0);
  EXPECT_EQ(rec::Int("host/mount.0", "tlxHoMountState"), 2);
  EXPECT_EQ(rec::Int("host/mount.1", "tlxHoMountState"), 1);
}

// Stations refuse a whole answer for one label that is no UTF-8.
TEST(Mount, ItsTextsAreUtf8) {
  const struct {
    std::string directory;
    std::string shown;
  } cases[] = {
      {"/\u00e4\u20ac\U0001F4BE", "/\u00e4\u20ac\U0001F4BE"},
      // The first and the last character of each length.
      {"/\x7f\u0080\u07ff\u0800\uffff\U00010000\U0010ffff",
       "/\x7f\u0080\u07ff\u0800\uffff\U00010000\U0010ffff"},
      // Octets of no character: lone ones, what lacks its end, overlong, a surrogate, beyond the
      // last.
      {"/a\xff\xfe", "/a??"},
      {"/b\xc3", "/b?"},
      {"/c\xe2\x82z", "/c??z"},
      {"/d\xc0\xaf\xe0\x80\x80", "/d?????"},
      {"/e\xed\xa0\x80", "/e???"},
      {"/f\xf4\x90\x80\x80\xf0\x80\x80\x80", "/f????????"},
      // Cut between two characters.
      {"/" + std::string(253, 'g') + "\u00e4", "/" + std::string(253, 'g')},
      {"/" + std::string(252, 'h') + "\u00e4", "/" + std::string(252, 'h') + "\u00e4"},
      {"/" + std::string(251, 'i') + "\U0001F4BE", "/" + std::string(251, 'i')},
      {"/" + std::string(300, 'j'), "/" + std::string(254, 'j')},
  };
  std::string table;
  for (const auto &[directory, shown] : cases) {
    table.append(directory).append(" ").append(directory).append(" t\xffy rw 0 0\n");
  }
  rec::PutFile(mount_table_path, table);
  ASSERT_EQ(do_filesys(), 0);
  ASSERT_EQ(do_mount(), 0);
  int row = 0;
  for (const auto &[directory, shown] : cases) {
    const std::string name = "host/mount." + std::to_string(row++);
    EXPECT_EQ(rec::Text(name, "tlxHoMountDirectory"), shown);
    EXPECT_EQ(rec::Text(name, "tlxHoMountDevice"), shown);
    EXPECT_EQ(rec::Text(name, "tlxHoMountType"), "t?y");
  }
}

}  // namespace
