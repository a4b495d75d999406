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

}  // namespace
