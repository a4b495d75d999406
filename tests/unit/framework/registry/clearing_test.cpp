#include "framework/registry/clearing.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "framework/process/descriptor.h"
#include "framework/registry/registry_dir.h"
#include "tests/support/failing_call.h"
#include "tests/unit/framework/temp_registry.h"

namespace vex {
namespace {

namespace fs = std::filesystem;

// A directory with "first", "sub/deep/file" and "zlast" in it.
class ClearedDirectory : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(Path("sub/deep"));
    for (const char *name : {"first", "sub/deep/file", "zlast"}) {
      WriteBytes(Path(name), {'x'});
    }
    directory_.Reset(open(Path("").c_str(), kReadDirectory));
    ASSERT_TRUE(directory_);
  }
  std::string Path(const std::string &name) {
    return registry_.Path("host/" + name);
  }
  // 0, or the error; -1 for one that is not told.
  int Clear() {
    errno = 0;
    return ClearDirectory(directory_.get()) == 0 ? 0 : (errno != 0 ? errno : -1);
  }
  int Remove(const char *name) {
    errno = 0;
    return RemoveTree(directory_.get(), name) == 0 ? 0 : (errno != 0 ? errno : -1);
  }
  static long Descriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), {});
  }

  TempRegistry registry_;
  Descriptor directory_;
};

TEST_F(ClearedDirectory, WhatCannotBeRemovedStaysAloneAndIsTold) {
  struct {
    const char *call;
    const char *path;
    int error;
    const char *stays;
  } const table[] = {
      {"unlinkat", "first", EACCES, "first"},
      // Of a file that must not be changed, and of another's in a directory for all.
      {"unlinkat", "first", EPERM, "first"},
      {"unlinkat", "file", EROFS, "sub/deep/file"},
      {"openat", "sub", EMFILE, "sub/deep/file"},
      {"openat", "deep", EACCES, "sub/deep/file"},
  };
  for (const auto &row : table) {
    const long before = Descriptors();
    {
      FailingCall fail(row.call, row.error, 1, FailingCall::kAll);
      fail.On(row.path);
      EXPECT_EQ(Clear(), row.error) << row.path;
      EXPECT_EQ(fail.Failed(), 1) << row.path;
    }
    EXPECT_TRUE(fs::exists(Path(row.stays))) << row.path;
    EXPECT_EQ(std::distance(fs::directory_iterator(Path("")), {}), 1) << row.path;
    EXPECT_EQ(Descriptors(), before) << row.path;
    EXPECT_EQ(Clear(), 0);
    EXPECT_TRUE(fs::is_empty(Path("")));
    SetUp();
  }
}

TEST_F(ClearedDirectory, ADirectoryThatCannotBeReadIsTold) {
  for (const char *call : {"fdopendir", "readdir"}) {
    const long before = Descriptors();
    {
      const FailingCall fail(call, EIO);
      EXPECT_EQ(Clear(), EIO) << call;
    }
    EXPECT_TRUE(fs::exists(Path("sub/deep/file"))) << call;
    EXPECT_EQ(Descriptors(), before) << call;
  }
  {
    FailingCall fail("openat", EMFILE);
    fail.On(".");
    EXPECT_EQ(Clear(), EMFILE);
  }
  EXPECT_EQ(Clear(), 0);
}

TEST_F(ClearedDirectory, WhatVanishesMeanwhileIsNoError) {
  struct {
    const char *call;
    const char *path;
    int nth;
    const char *vanishes;
  } const table[] = {
      {"unlinkat", "first", 1, "first"},
      {"unlinkat", "file", 1, "sub/deep/file"},
      {"openat", "sub", 1, "sub"},
      {"unlinkat", "deep", 2, "sub/deep"},
  };
  for (const auto &row : table) {
    FailingCall vanish(
        row.call, [&] { fs::remove_all(Path(row.vanishes)); }, row.nth);
    vanish.On(row.path);
    EXPECT_EQ(Clear(), 0) << row.vanishes;
    EXPECT_EQ(vanish.Failed(), 1) << row.vanishes;
    EXPECT_TRUE(fs::is_empty(Path(""))) << row.vanishes;
    SetUp();
  }
}

TEST_F(ClearedDirectory, OneEntryIsRemovedWithAllThatIsInIt) {
  EXPECT_EQ(Remove("sub"), 0);
  EXPECT_FALSE(fs::exists(Path("sub")));
  EXPECT_EQ(Remove("sub"), 0);
  EXPECT_EQ(Remove("first"), 0);
  EXPECT_FALSE(fs::exists(Path("first")));
  EXPECT_TRUE(fs::exists(Path("zlast")));
  SetUp();
  struct {
    const char *call;
    const char *path;
    int nth;
    int error;
  } const table[] = {
      {"unlinkat", "sub", 1, EACCES}, {"unlinkat", "sub", 1, EPERM}, {"openat", "sub", 1, EMFILE},
      {"unlinkat", "file", 1, EROFS}, {"unlinkat", "sub", 2, EBUSY},
  };
  for (const auto &row : table) {
    FailingCall fail(row.call, row.error, row.nth);
    fail.On(row.path);
    EXPECT_EQ(Remove("sub"), row.error) << row.call << " " << row.path;
    EXPECT_TRUE(fs::exists(Path("sub"))) << row.call << " " << row.path;
    SetUp();
  }
  for (const char *call : {"openat", "unlinkat"}) {
    FailingCall vanish(
        call, [&] { fs::remove_all(Path("sub")); }, call[0] == 'o' ? 1 : 2);
    vanish.On("sub");
    EXPECT_EQ(Remove("sub"), 0) << call;
    EXPECT_EQ(vanish.Failed(), 1) << call;
    SetUp();
  }
}

// What lies deeper than descriptors are to be held is moved up first.
TEST_F(ClearedDirectory, WhatIsMovedUpTakesANameThatIsFree) {
  struct {
    int error;
    bool passes;  // another name is tried, or it is gone already
    int result;
  } const table[] = {
      {ENOTEMPTY, true, 0}, {EEXIST, true, 0}, {ENOENT, false, ENOTEMPTY}, {EROFS, false, EROFS}};
  for (const auto &row : table) {
    std::string deep = "sub/deep";
    for (int level = 0; level < 66; level++) {
      deep += "/l";
    }
    fs::create_directories(Path(deep));
    {
      const FailingCall fail("renameat", row.error);
      const int result = Clear();
      EXPECT_EQ(fail.Failed(), 1);
      EXPECT_EQ(result, row.result) << row.error;
      if (!row.passes) {
        EXPECT_TRUE(fs::exists(Path(deep))) << row.error;
      }
    }
    EXPECT_EQ(Clear(), 0);
    EXPECT_TRUE(fs::is_empty(Path("")));
  }
}

}  // namespace
}  // namespace vex
