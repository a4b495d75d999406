#include "framework/registry/directory_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "framework/registry/registry_dir.h"
#include "tests/support/failing_call.h"
#include "tests/unit/framework/temp_registry.h"

namespace vex {
namespace {

namespace fs = std::filesystem;

// A child that does something, and then stays until this is destroyed.
class Child {
 public:
  explicit Child(const std::function<bool()> &does) {
    int said[2];
    EXPECT_EQ(pipe2(said, O_CLOEXEC), 0);
    process_ = fork();
    if (process_ == 0) {
      const char byte = does() ? 'y' : 'n';
      if (write(said[1], &byte, 1) == 1) {
        pause();
      }
      _exit(1);
    }
    char byte = 'n';
    EXPECT_EQ(read(said[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'y');
    close(said[0]);
    close(said[1]);
  }
  ~Child() {
    End();
  }
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;
  void End() {
    if (process_ > 0) {
      kill(process_, SIGKILL);
      waitpid(process_, nullptr, 0);
      process_ = 0;
    }
  }
  pid_t process() const {
    return process_;
  }

 private:
  pid_t process_ = 0;
};

// Whether this holds in a child that is no longer root.
bool AsAnotherUser(const std::function<bool()> &holds) {
  const pid_t child = fork();
  if (child == 0) {
    const bool became = setresgid(1000, 1000, 1000) == 0 && setresuid(1000, 1000, 1000) == 0 &&
                        prctl(PR_SET_DUMPABLE, 1) == 0;
    _exit(became && holds() ? 0 : 1);
  }
  int status = 1;
  waitpid(child, &status, 0);
  return status == 0;
}

class LockedDirectory : public testing::Test {
 protected:
  LockedDirectory() {
    fs::create_directories(registry_.Path("host"));
    directory_.Reset(open(registry_.Path("host").c_str(), kReadDirectory));
    EXPECT_TRUE(directory_);
  }
  std::string Lock() {
    return registry_.Path("host/.lock");
  }
  int Take(Descriptor *file) {
    holder_ = 0;
    return TakeLockFile(directory_.get(), file, &holder_);
  }
  // It is a file of mode 0600, and ours.
  void ExpectTaken() {
    Descriptor file;
    ASSERT_EQ(Take(&file), 0);
    EXPECT_TRUE(IsLockFile(directory_.get(), file.get()));
    struct stat st = {};
    ASSERT_EQ(lstat(Lock().c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777U, 0600U);
  }
  // Another process has the lock file.
  std::function<bool()> Holds() {
    return [path = Lock()] {
      const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
      return fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0;
    };
  }

  TempRegistry registry_;
  Descriptor directory_;
  pid_t holder_ = 0;
};

TEST_F(LockedDirectory, WhateverStandsInTheLockFilesPlaceIsReplaced) {
  const std::function<void()> kPlanted[] = {
      [] {},
      [&] { fs::create_symlink("/etc/passwd", Lock()); },
      [&] { fs::create_directories(Lock() + "/with/something"); },
      [&] { ASSERT_EQ(mkfifo(Lock().c_str(), 0600), 0); },
      [&] {
        const Descriptor planted(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un name = {};
        name.sun_family = AF_UNIX;
        ASSERT_LT(Lock().size(), sizeof(name.sun_path));
        Lock().copy(name.sun_path, sizeof(name.sun_path));
        ASSERT_EQ(bind(planted.get(), reinterpret_cast<sockaddr *>(&name), sizeof(name)), 0);
      },
      [&] {
        WriteBytes(Lock(), {});
        fs::permissions(Lock(), fs::perms(0644));
      },
      [&] {
        WriteBytes(Lock(), {});
        fs::permissions(Lock(), fs::perms(0600));
        ASSERT_EQ(chown(Lock().c_str(), 1000, 1000), 0);
      },
  };
  for (const auto &plant : kPlanted) {
    fs::remove_all(Lock());
    plant();
    ExpectTaken();
  }
}

TEST_F(LockedDirectory, AnErrorIsHandedOnAndNothingIsTaken) {
  struct {
    const char *call;
    int error;
  } const table[] = {
      {"openat", EMFILE}, {"openat", EROFS}, {"fstat", EIO}, {"flock", ENOLCK}, {"fstatat", EIO}};
  for (const auto &row : table) {
    Descriptor file;
    const FailingCall fail(row.call, row.error);
    // A look that fails once is taken for one that shows another file.
    const int expected = std::string(row.call) == "fstatat" ? 0 : row.error;
    EXPECT_EQ(Take(&file), expected) << row.call;
    EXPECT_EQ(fail.Failed(), 1) << row.call;
    EXPECT_EQ(static_cast<bool>(file), expected == 0) << row.call;
    EXPECT_EQ(holder_, 0);
  }
  fs::remove(Lock());
  fs::create_directories(Lock() + "/sub");
  {
    Descriptor file;
    FailingCall fail("unlinkat", EBUSY);
    fail.On("sub");
    EXPECT_EQ(Take(&file), EBUSY);
    EXPECT_FALSE(file);
  }
  ExpectTaken();
}

TEST_F(LockedDirectory, ALockFileThatIsRemovedMeanwhileIsMadeAgain) {
  {
    Descriptor file;
    const FailingCall remove("flock", [&] { fs::remove(Lock()); });
    EXPECT_EQ(Take(&file), 0);
    EXPECT_EQ(remove.Failed(), 1);
    EXPECT_TRUE(IsLockFile(directory_.get(), file.get()));
  }
  Descriptor file;
  const FailingCall remove(
      "flock", [&] { fs::remove(Lock()); }, 1, FailingCall::kAll);
  EXPECT_EQ(Take(&file), EAGAIN) << "and not for ever";
  EXPECT_FALSE(file);
}

TEST_F(LockedDirectory, OnlyThePrivateFileOfTheDirectoryIsItsLock) {
  Descriptor file;
  ASSERT_EQ(Take(&file), 0);
  EXPECT_TRUE(IsLockFile(directory_.get(), file.get()));
  EXPECT_FALSE(IsLockFile(directory_.get(), -1));
  const Descriptor elsewhere(open("/proc/self/stat", O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(IsLockFile(directory_.get(), elsewhere.get()));
  EXPECT_FALSE(IsLockFile(directory_.get(), directory_.get()));
  fs::permissions(Lock(), fs::perms(0640));
  EXPECT_FALSE(IsLockFile(directory_.get(), file.get()));
  fs::permissions(Lock(), fs::perms(0600));
  EXPECT_TRUE(IsLockFile(directory_.get(), file.get()));
  fs::remove(Lock());
  EXPECT_FALSE(IsLockFile(directory_.get(), file.get()));
}

TEST_F(LockedDirectory, AnotherUserIsToldWhoHasIt) {
  fs::permissions(registry_.base(), fs::perms(0755));
  fs::permissions(registry_.Path("host"), fs::perms(0777));
  {
    const Child root(Holds());
    EXPECT_TRUE(AsAnotherUser([&] {
      Descriptor file;
      return Take(&file) == EBUSY && holder_ == root.process() && !file;
    }));
    EXPECT_EQ(DirectoryHolder(directory_.get()), root.process());
  }
  EXPECT_TRUE(AsAnotherUser([&] {
    Descriptor file;
    return Take(&file) == EACCES && holder_ == 0 && !file;
  })) << "root's, and nobody holds it";
  fs::remove(Lock());
  EXPECT_TRUE(AsAnotherUser([&] {
    Descriptor file;
    return Take(&file) == 0 && IsLockFile(directory_.get(), file.get());
  })) << "its own";
}

TEST_F(LockedDirectory, TheHolderIsNotToldByAFileThatOthersCanOpen) {
  EXPECT_EQ(DirectoryHolder(directory_.get()), std::nullopt) << "there is no lock file";
  const Child other([&] {
    directory_.Reset();
    return Holds()();
  });
  EXPECT_EQ(DirectoryHolder(directory_.get()), other.process());
  {
    const FailingCall fail("fstat", EIO);
    EXPECT_EQ(DirectoryHolder(directory_.get()), std::nullopt);
  }
  fs::permissions(Lock(), fs::perms(0644));
  EXPECT_EQ(DirectoryHolder(directory_.get()), std::nullopt);
  ASSERT_EQ(flock(directory_.get(), LOCK_EX | LOCK_NB), 0);
  EXPECT_EQ(DirectoryHolder(directory_.get()), getpid());
}

TEST_F(LockedDirectory, NobodyIsToldWhereTheHolderCannotBeFound) {
  const Child other(Holds());
  const Descriptor file(open(Lock().c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(LockHolder(file.get()), other.process());
  EXPECT_EQ(LockHolder(-1), std::nullopt);
  struct {
    const char *call;
    int error;
    std::optional<pid_t> holder;
  } const table[] = {{"open", EMFILE, std::nullopt},
                     {"read", EIO, std::nullopt},
                     {"read", EINTR, other.process()},
                     {"fstat", EIO, std::nullopt}};
  for (const auto &row : table) {
    const FailingCall fail(row.call, row.error);
    EXPECT_EQ(LockHolder(file.get()), row.holder) << row.call << " " << row.error;
    EXPECT_EQ(fail.Failed(), 1);
  }
}

// On layered file systems the table of locks has other numbers than stat(2): then it goes by the
// path under which a process that holds any lock has the file open, and by the file itself.
TEST_F(LockedDirectory, AnotherFileUnderTheSamePathIsNotTheLock) {
  const std::string over = registry_.base() + "/over";
  fs::create_directories(over);
  WriteBytes(Lock(), {});
  // They see other directories there, and have a lock on the file in that.
  const auto covered = [&](const char *source, const char *type, unsigned long flags) {
    return unshare(CLONE_NEWNS) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount(source, registry_.Path("host").c_str(), type, flags, nullptr) == 0 && Holds()();
  };
  const Child other([&] { return covered(over.c_str(), nullptr, MS_BIND); });
  const Child third([&] { return covered("tmpfs", "tmpfs", 0); });
  const Descriptor file(open(Lock().c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_EQ(LockHolder(file.get()), std::nullopt);
  {
    const Child has_it([&] {
      const int lock = open(registry_.base().c_str(), kReadDirectory);
      return open(Lock().c_str(), O_RDWR | O_CLOEXEC) >= 0 && flock(lock, LOCK_EX | LOCK_NB) == 0;
    });
    EXPECT_EQ(LockHolder(file.get()), has_it.process());
    for (const char *call : {"readlink", "opendir", "stat"}) {
      const FailingCall fail(call, ENOENT, 1, FailingCall::kAll);
      EXPECT_EQ(LockHolder(file.get()), std::nullopt) << call;
      EXPECT_GT(fail.Failed(), 0) << call;
    }
  }
  // Nor is a lock of our own on another file.
  const Descriptor own(open(registry_.root().c_str(), kReadDirectory));
  ASSERT_EQ(flock(own.get(), LOCK_EX | LOCK_NB), 0);
  EXPECT_EQ(LockHolder(file.get()), std::nullopt);
}

TEST_F(LockedDirectory, TheDirectoryItselfIsLockedByAnAgentOrBySomebody) {
  pid_t holder = 0;
  for (const int error : {ENOLCK, EOPNOTSUPP, EINTR}) {
    const FailingCall fail("flock", error);
    EXPECT_EQ(TakeDirectoryLock(directory_.get(), &holder), error);
  }
  const auto hold = [&] {
    const int fd = open(registry_.Path("host").c_str(), kReadDirectory);
    return fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0;
  };
  {
    const Child agent(hold);
    EXPECT_EQ(TakeDirectoryLock(directory_.get(), &holder), EBUSY);
    EXPECT_EQ(holder, agent.process());
    // Its program, its user or its number cannot be told.
    for (const char *call : {"readlink", "open", "read"}) {
      // The table of locks is opened and read first.
      const int nth = std::string(call) == "open" ? 2 : 1;
      FailingCall fail(call, ENOENT, nth, FailingCall::kAll);
      EXPECT_EQ(TakeDirectoryLock(directory_.get(), &holder), EPERM) << call;
      EXPECT_GT(fail.Failed(), 0) << call;
    }
  }
  const Child stranger([&] { return hold() && setresuid(1000, 1000, 1000) == 0; });
  EXPECT_EQ(TakeDirectoryLock(directory_.get(), &holder), EPERM);
  EXPECT_EQ(holder, stranger.process());
}

TEST_F(LockedDirectory, AnAgentIsAnotherProcessOfThisProgramAndUser) {
  EXPECT_FALSE(RunsThisProgram(0));
  EXPECT_FALSE(RunsThisProgram(-1));
  EXPECT_FALSE(RunsThisProgram(getpid()));
  EXPECT_FALSE(RunsThisProgram(getppid())) << "another program";
  Child root([] { return true; });
  EXPECT_TRUE(RunsThisProgram(root.process()));
  const Child user([] { return setresuid(1000, 1000, 1000) == 0; });
  EXPECT_FALSE(RunsThisProgram(user.process())) << "anybody could lock it so";
  EXPECT_TRUE(AsAnotherUser([] {
    const pid_t same = fork();
    if (same == 0) {
      pause();
      _exit(0);
    }
    const bool runs = RunsThisProgram(same);
    kill(same, SIGKILL);
    waitpid(same, nullptr, 0);
    return runs;
  }));
  const pid_t gone = root.process();
  {
    // It ends between one look at it and the next.
    FailingCall fail("read", ESRCH);
    EXPECT_FALSE(RunsThisProgram(gone));
  }
  {
    FailingCall fail("readlink", ENOENT, 1, FailingCall::kAll);
    EXPECT_FALSE(RunsThisProgram(gone)) << "two programs without a name are not the same";
  }
  root.End();
  EXPECT_FALSE(RunsThisProgram(gone));
}

TEST(DirectoryLock, ReadsWhoAProcessIs) {
  EXPECT_EQ(EffectiveUserIn("Name:\tx\nUmask:\t0022\nUid:\t1\t2\t3\t4\nGid:\t5\t6\t7\t8\n"), 2U);
  EXPECT_EQ(EffectiveUserIn("Name:\tx\nUid:\t0\t0\t0\t0\n"), 0U);
  for (const char *text :
       {"", "Name:\tx\n", "Name:\tUid: 1 2\n", "Name:\tx\nUid:", "\nUid:\t1", "\nUid:\tx\ty"}) {
    EXPECT_EQ(EffectiveUserIn(text), std::nullopt) << text;
  }
  EXPECT_EQ(ProgramIn("/usr/sbin/exampled"), "/usr/sbin/exampled");
  EXPECT_EQ(ProgramIn("/usr/sbin/exampled (deleted)"), "/usr/sbin/exampled") << "an upgrade";
  EXPECT_EQ(ProgramIn(""), "");
}

}  // namespace
}  // namespace vex
