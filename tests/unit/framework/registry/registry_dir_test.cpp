#include "framework/registry/registry_dir.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/failing_call.h"
#include "tests/unit/framework/temp_registry.h"

namespace vex {
namespace {

namespace fs = std::filesystem;

class RegistryDirectories : public testing::Test {
 protected:
  // 0, or the error.
  static int Open(const std::string &root, bool create) {
    const Descriptor opened(OpenRegistryRoot(root, create));
    return opened ? 0 : errno;
  }
  static int Error(int result) {
    return result == 0 ? 0 : errno;
  }
  static fs::perms Mode(const std::string &path) {
    return fs::status(path).permissions();
  }

  TempRegistry registry_;
};

TEST_F(RegistryDirectories, LinksOnTheWayToTheRootAreFollowedAsFarAsTheyLead) {
  const std::string &base = registry_.base();
  fs::create_directory_symlink("spool/registry", base + "/relative");
  fs::create_directory_symlink("./relative", base + "/again");
  fs::create_directory_symlink("loop", base + "/loop");
  fs::create_directory_symlink("nowhere", base + "/dangling");
  struct stat st = {};
  ASSERT_EQ(stat(registry_.root().c_str(), &st), 0);
  for (const char *name : {"/relative", "/again", "/relative/", "/spool/../again"}) {
    const Descriptor opened(OpenRegistryRoot(base + name, false));
    const auto id = IdOf(opened.get());
    ASSERT_TRUE(id) << name;
    EXPECT_EQ(id->inode, st.st_ino) << name;
  }
  for (const bool create : {false, true}) {
    EXPECT_EQ(Open(base + "/loop", create), ELOOP);
    EXPECT_EQ(Open(base + "/dangling", create), ENOENT) << "what a link leads to is not made";
  }
}

TEST_F(RegistryDirectories, AsManyLinksAreFollowedAsTheKernelFollows) {
  constexpr int kMost = 40;
  const auto link = [&](int n) { return registry_.base() + "/link" + std::to_string(n); };
  fs::create_directory_symlink(registry_.root(), link(1));
  for (int n = 2; n <= kMost + 1; n++) {
    fs::create_directory_symlink(link(n - 1), link(n));
  }
  EXPECT_EQ(Open(link(kMost), false), 0);
  EXPECT_EQ(Open(link(kMost + 1), false), ELOOP);
}

TEST_F(RegistryDirectories, OnlyADirectoryWithoutItsModeIsRead) {
  fs::permissions(registry_.base(), fs::perms(0755));
  const FailingCall count(
      "fdopendir", [] {}, 1, FailingCall::kAll);
  EXPECT_EQ(Open(registry_.root(), true), 0);
  EXPECT_EQ(count.Failed(), 0);
  fs::permissions(registry_.base() + "/spool", fs::perms(0700));
  EXPECT_EQ(Open(registry_.root(), true), 0);
  EXPECT_EQ(count.Failed(), 1);
}

TEST_F(RegistryDirectories, OneThatAnotherProcessMakesMeanwhileWillDo) {
  const std::string root = registry_.base() + "/other/registry";
  FailingCall race("mkdirat", [&] {
    fs::create_directories(root);
    fs::permissions(root, fs::perms(0700));
  });
  EXPECT_EQ(Open(root, true), 0);
  EXPECT_EQ(race.Failed(), 1);
  EXPECT_EQ(Mode(root), fs::perms(0755));
}

TEST_F(RegistryDirectories, ALinkThatAnotherUserPutsInTheWayMeanwhileIsNotFollowed) {
  const std::string root = registry_.base() + "/other";
  FailingCall race("mkdirat", [&] {
    fs::create_directory_symlink(registry_.root(), root);
    ASSERT_EQ(lchown(root.c_str(), 1000, 1000), 0);
  });
  EXPECT_EQ(Open(root, true), ELOOP);
  EXPECT_EQ(race.Failed(), 1);
}

TEST_F(RegistryDirectories, WhatCannotBeMadeOrOpenedToSiblingsIsTold) {
  const std::string root = registry_.base() + "/other/registry";
  {
    const FailingCall fail("mkdirat", EROFS);
    EXPECT_EQ(Open(root, true), EROFS);
  }
  EXPECT_EQ(Open(root, true), 0);
  const Descriptor opened(OpenRegistryRoot(root, false));
  {
    const FailingCall fail("mkdirat", ENOSPC);
    EXPECT_EQ(Error(MakeDirectories(opened.get(), "host")), ENOSPC);
  }
  EXPECT_EQ(Error(MakeDirectories(opened.get(), "host")), 0);
  fs::permissions(root, fs::perms(0700));
  fs::permissions(root + "/host", fs::perms(0700));
  {
    const FailingCall fail("chmod", EROFS, 1, FailingCall::kAll);
    EXPECT_EQ(Open(root, true), EROFS);
    EXPECT_EQ(Open(root, false), 0) << "to read, any will do";
    EXPECT_EQ(Error(MakeDirectories(opened.get(), "host")), EROFS);
  }
  {
    const FailingCall fail("fstat", EIO);
    EXPECT_EQ(Error(MakeDirectories(opened.get(), "host")), EIO);
  }
  EXPECT_EQ(Open(root, true), 0);
  EXPECT_EQ(Error(MakeDirectories(opened.get(), "host")), 0);
  EXPECT_EQ(Mode(root), fs::perms(0755));
  EXPECT_EQ(Mode(root + "/host"), fs::perms(0755));
}

TEST_F(RegistryDirectories, AnotherUsersDirectoryKeepsItsMode) {
  fs::permissions(registry_.root(), fs::perms(0700));
  ASSERT_EQ(chown(registry_.root().c_str(), 1000, 1000), 0);
  EXPECT_EQ(Open(registry_.root(), true), 0);
  EXPECT_EQ(Mode(registry_.root()), fs::perms(0700));
}

// It is asked once; what there is instead gives the same.
TEST_F(RegistryDirectories, AKernelWithoutTheCallIsNotAskedAgain) {
  ASSERT_TRUE(fs::create_directories(registry_.Path("host/sub")));
  fs::create_directory_symlink("host", registry_.Path("alias"));
  const pid_t child = fork();
  if (child == 0) {
    const FailingCall fail("syscall", ENOSYS, 1, FailingCall::kAll);
    const Descriptor root(OpenRegistryRoot(registry_.root(), false));
    bool same = true;
    for (int i = 0; i < 3; i++) {
      same = same && Descriptor(OpenBeneath(root.get(), "host/sub", O_PATH)) &&
             !Descriptor(OpenBeneath(root.get(), "alias/sub", O_PATH)) &&
             !Descriptor(OpenBeneath(root.get(), "../registry", O_PATH));
    }
    _exit(same && fail.Failed() == 1 ? 0 : 1);
  }
  int status = 1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(RegistryDirectories, OneThatCannotBeReadIsNotEmpty) {
  const auto empty = [&] {
    return IsEmptyDirectory(open(registry_.root().c_str(), kReadDirectory));
  };
  EXPECT_TRUE(empty());
  for (const char *call : {"open", "fdopendir", "readdir"}) {
    const FailingCall fail(call, EIO);
    EXPECT_FALSE(empty()) << call;
    EXPECT_EQ(fail.Failed(), 1) << call;
  }
  EXPECT_TRUE(empty());
}

TEST_F(RegistryDirectories, WhetherARootIsTheOneThatIsHeldMayNotBeTold) {
  HeldRoot held(registry_.root());
  const Descriptor root(OpenRegistryRoot(registry_.root(), false));
  EXPECT_EQ(held.IsHeld(root.get()), false) << "none is held yet";
  ASSERT_GE(held.Get(), 0);
  EXPECT_EQ(held.IsHeld(root.get()), true);
  const Descriptor above(OpenRegistryRoot(registry_.base(), false));
  EXPECT_EQ(held.IsHeld(above.get()), false);
  for (const int nth : {1, 2}) {
    const FailingCall fail("fstat", EIO, nth);
    EXPECT_EQ(held.IsHeld(root.get()), std::nullopt);
    EXPECT_EQ(errno, EIO);
  }
  EXPECT_EQ(held.IsHeld(-1), std::nullopt);
}

}  // namespace
}  // namespace vex
