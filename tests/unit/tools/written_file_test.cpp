// Files that a command writes.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "tests/support/process.h"
#include "tests/unit/framework/temp_registry.h"
#include "tests/unit/tools/said_by.h"
#include "tools/vexreg/captured_host.h"
#include "tools/vexreg/replace_file.h"

namespace vex {
namespace {

namespace fs = std::filesystem;

std::string Complaint(const std::string &path) {
  return SaidBy([&] { EXPECT_FALSE(WriteOutput(path, "new", 0600)) << path; });
}

TEST(WrittenFile, IsWrittenBelowTheCurrentDirectoryToo) {
  const TempRegistry place;
  const fs::path before = fs::current_path();
  fs::current_path(place.base());
  EXPECT_TRUE(WriteOutput("plain", "one", 0640));
  EXPECT_TRUE(WriteOutput("plain", "two", 0600));
  fs::current_path(before);
  EXPECT_EQ(made_up::ReadFile(place.base() + "/plain"), "two");
  struct stat status = {};
  ASSERT_EQ(stat((place.base() + "/plain").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  EXPECT_EQ(made_up::ListDirectory(place.base()), (std::vector<std::string>{"plain", "spool"}));
}

TEST(WrittenFile, SaysWhyItIsNot) {
  const TempRegistry place;
  const std::string base = place.base() + "/";
  EXPECT_EQ(Complaint(base), "vexreg: " + base + ": cannot be written: Is a directory\n");
  EXPECT_EQ(Complaint(base + "no/x"),
            "vexreg: " + base + "no/x: cannot be written: No such file or directory\n");
  EXPECT_EQ(Complaint(base + "spool"),
            "vexreg: " + base +
                "spool: not a plain file, and left as it is; - is standard "
                "output\n");
  const std::string too_long = base + std::string(256, 'x');
  EXPECT_EQ(Complaint(too_long), "vexreg: " + too_long +
                                     ": cannot be written: File name too "
                                     "long\n");
  // No room for the name of the file beside it.
  const std::string almost = base + std::string(NAME_MAX, 'x');
  EXPECT_EQ(Complaint(almost), "vexreg: " + almost + ": cannot be written: File name too long\n");
  EXPECT_EQ(made_up::ListDirectory(place.base()), std::vector<std::string>{"spool"});
}

TEST(WrittenFile, BelowADirectoryStaysBelowIt) {
  const TempRegistry place;
  const Descriptor directory(open(place.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const auto written = [&](const std::string &name, int64_t modified = 0) {
    errno = 0;
    return WriteBelow(directory.get(), name, "text", 0600, 0700, modified) ? 0 : errno;
  };
  EXPECT_EQ(written("a/b/c", 1'700'000'000), 0);
  EXPECT_EQ(written("a/b/d"), 0);
  EXPECT_EQ(made_up::ReadFile(place.Path("a/b/c")), "text");
  struct stat status = {};
  ASSERT_EQ(stat(place.Path("a/b/c").c_str(), &status), 0);
  EXPECT_EQ(status.st_mtime, 1'700'000'000);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  EXPECT_EQ(written("a/b/c"), EEXIST);
  EXPECT_EQ(written("a/b/c/d"), ENOTDIR);  // a file stands where a directory should be
  ASSERT_EQ(symlink("/", place.Path("link").c_str()), 0);
  EXPECT_EQ(written("link/tmp/outside"), ENOTDIR);
  ASSERT_EQ(symlink("/tmp/outside", place.Path("file").c_str()), 0);
  EXPECT_EQ(written("file"), EEXIST);
  EXPECT_EQ(written(std::string(256, 'x') + "/y"), ENAMETOOLONG);
  EXPECT_EQ(written("gone/" + std::string(256, 'x')), ENAMETOOLONG);
  EXPECT_FALSE(WriteBelow(-1, "x", "text", 0600, 0700));
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
}  // namespace vex
