#include "framework/registry/claim.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

#include <functional>

#include "framework/process/ending.h"
#include "framework/process/log.h"
#include "framework/registry/registry_dir.h"
#include "tests/support/failing_call.h"
#include "tests/support/failing_new.h"
#include "tests/unit/framework/agent_thread/objects_fixture.h"

namespace vex {
namespace {

// Another process, which takes host and says so; it ends when this is destroyed.
class OtherHolder {
 public:
  explicit OtherHolder(const std::string &directory) {
    int said[2];
    EXPECT_EQ(pipe2(said, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(end_, O_CLOEXEC), 0);
    process_ = fork();
    if (process_ == 0) {
      close(end_[1]);
      ForgetClaim();  // the parent's, as the root that it holds
      RootOf(RegistryRootPath()).Hold(Descriptor());
      dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
      const FailingCall no_pause("nanosleep", 0, 1, FailingCall::kAll);
      char byte = claim_dir(directory.c_str()) == 0 ? 'y' : 'n';
      const bool told = write(said[1], &byte, 1) == 1;
      _exit(told && read(end_[0], &byte, 1) == 0 ? 0 : 1);
    }
    char byte = 0;
    EXPECT_EQ(read(said[0], &byte, 1), 1);
    has_it_ = byte == 'y';
    close(said[0]);
    close(said[1]);
  }
  ~OtherHolder() {
    End();
  }
  OtherHolder(const OtherHolder &) = delete;
  OtherHolder &operator=(const OtherHolder &) = delete;
  void End() {
    if (process_ > 0) {
      close(end_[0]);
      close(end_[1]);
      waitpid(process_, nullptr, 0);
      process_ = 0;
    }
  }
  bool has_it() const {
    return has_it_;
  }
  pid_t process() const {
    return process_;
  }

 private:
  pid_t process_;
  int end_[2];
  bool has_it_;
};

class Claims : public Objects {
 protected:
  Claims() {
    SetLogName("exampled");
  }
  ~Claims() override {
    ForgetClaim();
  }
  std::string Host() {
    return registry_.Path("host");
  }
  int Claim() {
    errno = 0;
    return claim_dir(Host().c_str());
  }
  // As it is at a start, with nothing held.
  void StartAnew() {
    ForgetClaim();
    RootOf(registry_.root()).Hold(Descriptor());
  }
  // What KeepRoot() says: "same", "renewed", or the problem.
  static std::string Keep() {
    std::string problem;
    const RootState state = KeepRoot(&problem);
    return state == RootState::kSame ? "same"
                                     : (state == RootState::kRenewed ? "renewed" : problem);
  }
  // Whether another process is kept away.
  bool Holds() {
    return !OtherHolder(Host()).has_it();
  }
};

TEST_F(Claims, ADirectoryIsTakenOnce) {
  SetLogName("exampled");
  Captured log;
  const std::string host = registry_.Path("host");
  {
    const OtherHolder other(host);
    ASSERT_TRUE(other.has_it());
    const FailingCall no_pause("nanosleep", 0, 1, FailingCall::kAll);
    EXPECT_EQ(claim_dir(host.c_str()), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(no_pause.Failed(), 19) << "it might be about to end";
    EXPECT_TRUE(ClaimRefused());
    EXPECT_EQ(log.Text(), "exampled: Process " + std::to_string(other.process()) +
                              " already runs with the registry directory " + host + "\n");
    ForgetClaim();
  }
  EXPECT_EQ(claim_dir(host.c_str()), 0);
  EXPECT_FALSE(ClaimRefused());
  EXPECT_FALSE(OtherHolder(host).has_it());
  EXPECT_EQ(claim_dir("/etc"), -1);
  EXPECT_EQ(claim_dir(registry_.root().c_str()), -1);
  EXPECT_EQ(claim_dir(nullptr), -1);
}

// The lock file goes with the directory, and with nothing else.
TEST_F(Claims, ADirectoryWithSomethingInItKeepsItsLock) {
  ASSERT_EQ(Claim(), 0);
  WriteBytes(Host() + "/row.7", {'x'});
  EXPECT_EQ(remove_empty_dir(Host().c_str()), -1);
  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_TRUE(fs::exists(Host() + "/.lock"));
  EXPECT_TRUE(Holds());
  // In a directory that is not its own, it is a file as any other.
  fs::create_directory(registry_.Path("other"));
  WriteBytes(registry_.Path("other/.lock"), {});
  EXPECT_EQ(is_empty_dir(registry_.Path("other").c_str()), 0);
  EXPECT_EQ(remove_empty_dir(registry_.Path("other").c_str()), -1);
  fs::remove(Host() + "/row.7");
  EXPECT_EQ(remove_empty_dir(Host().c_str()), 0);
  EXPECT_FALSE(fs::exists(Host()));
}

// Whoever may read the directory can lock it.
TEST_F(Claims, AStrangersLockKeepsNoAgentAway) {
  Captured log;
  int held[2];
  ASSERT_EQ(pipe2(held, O_CLOEXEC), 0);
  const pid_t stranger = fork();
  ASSERT_GE(stranger, 0);
  if (stranger == 0) {
    const int own = open(Host().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool told =
        flock(own, LOCK_EX) == 0 && setresuid(1000, 1000, 1000) == 0 && write(held[1], "y", 1) == 1;
    pause();
    _exit(told ? 0 : 1);
  }
  char byte = 0;
  EXPECT_EQ(read(held[0], &byte, 1), 1);
  {
    const FailingCall no_pause("nanosleep", 0, 1, FailingCall::kAll);
    EXPECT_EQ(Claim(), 0);
    EXPECT_EQ(no_pause.Failed(), 19) << "it might be about to end";
  }
  EXPECT_EQ(log.Text(), "exampled: Can't lock registry directory " + Host() +
                            ": a process that is no agent has locked it\n");
  EXPECT_TRUE(Holds()) << "by the file, which the stranger cannot open";
  kill(stranger, SIGKILL);
  waitpid(stranger, nullptr, 0);
  close(held[0]);
  close(held[1]);
}

// One of before the lock file locks the directory alone.
TEST_F(Claims, AnOlderAgentsDirectoryIsItsOwn) {
  SetLogName("exampled");
  Captured log;
  const std::string host = registry_.Path("host");
  fs::create_directories(host);
  int held[2];
  ASSERT_EQ(pipe2(held, O_CLOEXEC), 0);
  const pid_t older = fork();
  ASSERT_GE(older, 0);
  if (older == 0) {
    close(held[0]);
    const int own = open(host.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool told = flock(own, LOCK_EX) == 0 && write(held[1], "y", 1) == 1;
    pause();
    _exit(told ? 0 : 1);
  }
  char byte = 0;
  EXPECT_EQ(read(held[0], &byte, 1), 1);
  {
    const FailingCall no_pause("nanosleep", 0, 1, FailingCall::kAll);
    EXPECT_EQ(claim_dir(host.c_str()), -1);
    EXPECT_EQ(errno, EBUSY);
  }
  EXPECT_EQ(log.Text(), "exampled: Process " + std::to_string(older) +
                            " already runs with the registry directory " + host + "\n");
  EXPECT_FALSE(fs::exists(host + "/.lock")) << "nothing is touched";
  kill(older, SIGKILL);
  waitpid(older, nullptr, 0);
  close(held[0]);
  close(held[1]);
  ForgetClaim();
  EXPECT_EQ(claim_dir(host.c_str()), 0);
  // A lock file that others could open is none.
  ForgetClaim();
  EXPECT_EQ(chmod((host + "/.lock").c_str(), 0644), 0);
  EXPECT_EQ(claim_dir(host.c_str()), 0);
  struct stat st = {};
  EXPECT_EQ(stat((host + "/.lock").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777U, 0600U);
  // It stays when the directory is cleared, and goes with it.
  WriteBytes(host + "/row.7", {'x'});
  EXPECT_EQ(remove_all_dir((host + "/*").c_str()), 0);
  EXPECT_TRUE(fs::exists(host + "/.lock"));
  EXPECT_EQ(is_empty_dir(host.c_str()), 1);
  EXPECT_EQ(remove_empty_dir(host.c_str()), 0);
  EXPECT_FALSE(fs::exists(host));
}

TEST_F(Claims, ADirectoryThatIsReplacedIsTakenAnew) {
  SetLogName("exampled");
  Captured log;
  const std::string host = registry_.Path("host");
  ASSERT_EQ(claim_dir(host.c_str()), 0);
  log_data(Create("host/a"));
  fs::remove_all(host);
  RetryFiles();
  EXPECT_TRUE(fs::exists(registry_.Path("host/a")));
  EXPECT_FALSE(OtherHolder(host).has_it());
  // What lies in the one that is found goes, as at a start.
  fs::rename(registry_.root(), registry_.base() + "/moved");
  fs::create_directories(host);
  WriteBytes(registry_.Path("host/row.7"), {'x'});
  WriteBytes(registry_.Path("role.dat"), {'x'});
  RetryFiles();
  EXPECT_TRUE(fs::exists(registry_.Path("host/a")));
  EXPECT_FALSE(fs::exists(registry_.Path("host/row.7")));
  EXPECT_TRUE(fs::exists(registry_.Path("role.dat")));
  EXPECT_FALSE(OtherHolder(host).has_it());
  log.Text();
  // Another process has the one that is found: nothing is touched there.
  fs::rename(registry_.root(), registry_.base() + "/moved again");
  OtherHolder other(host);
  ASSERT_TRUE(other.has_it());
  WriteBytes(registry_.Path("host/theirs"), {'x'});
  log_data(find_obj(&obj_Q, 0, "host/a"));
  RetryFiles();
  RetryFiles();
  EXPECT_EQ(log.Text(), "exampled: Can't write registry file " + registry_.root() + ": process " +
                            std::to_string(other.process()) +
                            " has the directory (values are served; trying again)\n");
  EXPECT_TRUE(fs::exists(registry_.Path("host/theirs")));
  EXPECT_FALSE(fs::exists(registry_.Path("host/a")));
  other.End();
  RetryFiles();
  EXPECT_TRUE(fs::exists(registry_.Path("host/a")));
}

TEST_F(Claims, ADirectoryThatCannotBeTakenYetIsTakenLater) {
  SetLogName("exampled");
  Captured log;
  const std::string host = registry_.Path("host");
  fs::remove_all(host);
  WriteBytes(host, {'x'});
  EXPECT_EQ(claim_dir(host.c_str()), 1) << "values are served without files";
  log_data(Create("host/a"));
  fs::remove(host);
  EXPECT_TRUE(OtherHolder(host).has_it());
  RetryFiles();
  EXPECT_TRUE(fs::exists(registry_.Path("host/a")));
  EXPECT_FALSE(OtherHolder(host).has_it());
}

// ---- While calls fail

// Errors that may be over in a moment are waited for; others not, and then files come later.
TEST_F(Claims, APassingErrorIsWaitedFor) {
  Captured log;
  const FailingCall no_pause("nanosleep", 0, 1, FailingCall::kAll);
  int pauses = 0;
  for (const int error : {EBUSY, EMFILE, ENFILE, ENOMEM, EINTR, EIO, EAGAIN, ENOLCK}) {
    StartAnew();
    FailingCall fail("syscall", error, 1, 3);
    fail.On("host");
    EXPECT_EQ(Claim(), 0) << error;
    EXPECT_EQ(fail.Failed(), 3) << error;
    EXPECT_EQ(no_pause.Failed(), pauses += 3) << error;
    EXPECT_TRUE(Holds()) << error;
  }
  for (const int error : {EROFS, EACCES, ENOTDIR}) {
    StartAnew();
    {
      FailingCall fail("syscall", error, 1, FailingCall::kAll);
      fail.On("host");
      EXPECT_EQ(Claim(), 1) << error;
    }
    EXPECT_EQ(no_pause.Failed(), pauses) << error;
    EXPECT_EQ(Keep(), "renewed");
    EXPECT_TRUE(Holds()) << error;
  }
  EXPECT_EQ(log.Text(), "");
}

// It was started without a standard input: the first descriptor that it opens is number 0.
TEST_F(Claims, ARootOfAnyNumberIsOne) {
  const pid_t child = fork();
  if (child == 0) {
    dup2(OpenRegistryRoot(registry_.root(), false), STDIN_FILENO);
    RootOf(registry_.root()).Hold(Descriptor(STDIN_FILENO));
    _exit(Claim() == 0 && fs::exists(Host() + "/.lock") ? 0 : 1);
  }
  int status = 1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(Claims, NothingIsWaitedForByAnAgentThatIsToEnd) {
  const pid_t child = fork();
  if (child == 0) {
    NoteEnding();
    const FailingCall no_pause("nanosleep", 0, 1, FailingCall::kAll);
    FailingCall fail("syscall", EIO, 1, FailingCall::kAll);
    fail.On("host");
    _exit(Claim() == 1 && fail.Failed() == 1 && no_pause.Failed() == 0 ? 0 : 1);
  }
  int status = 1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

// An agent without locks is better than none: it says so, once.
TEST_F(Claims, AFileSystemWithoutLocksWillDo) {
  for (const int error : {EOPNOTSUPP, ENOSYS, EINVAL, ENOLCK}) {
    StartAnew();
    Captured log;
    const FailingCall no_pause("nanosleep", 0, 1, FailingCall::kAll);
    const FailingCall fail("flock", error, 1, FailingCall::kAll);
    EXPECT_EQ(Claim(), 0) << error;
    EXPECT_EQ(no_pause.Failed(), 19) << "asked a few times all the same";
    EXPECT_EQ(log.Text(),
              "exampled: Can't lock registry directory " + Host() + ": " + strerror(error) + "\n");
    fs::rename(Host(), registry_.Path("moved"));
    EXPECT_EQ(Keep(), "renewed");
    EXPECT_EQ(log.Text(), "");
    fs::remove_all(registry_.Path("moved"));
  }
}

// Nobody but the owner can open the lock file: it is made as soon as it can be.
TEST_F(Claims, TheLockFileIsMadeLaterWhenItCannotBeMadeNow) {
  Captured log;
  {
    const FailingCall no_pause("nanosleep", 0, 1, FailingCall::kAll);
    FailingCall fail("openat", EMFILE, 1, FailingCall::kAll);
    fail.On(".lock");
    EXPECT_EQ(Claim(), 0);
    EXPECT_EQ(fail.Failed(), 20);
    EXPECT_EQ(Keep(), "same");
    EXPECT_FALSE(fs::exists(Host() + "/.lock"));
  }
  EXPECT_EQ(Keep(), "same");
  EXPECT_TRUE(fs::exists(Host() + "/.lock"));
  // And again when somebody removes it, or opens it to others.
  fs::remove(Host() + "/.lock");
  EXPECT_EQ(Keep(), "same");
  EXPECT_TRUE(fs::exists(Host() + "/.lock"));
  fs::permissions(Host() + "/.lock", fs::perms(0666));
  EXPECT_EQ(Keep(), "same");
  EXPECT_EQ(fs::status(Host() + "/.lock").permissions(), fs::perms(0600));
  EXPECT_TRUE(Holds());
  EXPECT_EQ(log.Text(), "");
}

TEST_F(Claims, ALockThatPassesIsWaitedFor) {
  Captured log;
  const FailingCall no_pause("nanosleep", 0, 1, FailingCall::kAll);
  FailingCall fail("openat", ENFILE, 1, 2);
  fail.On(".lock");
  EXPECT_EQ(Claim(), 0);
  EXPECT_EQ(no_pause.Failed(), 2);
  EXPECT_TRUE(fs::exists(Host() + "/.lock"));
  EXPECT_EQ(log.Text(), "");
}

// The holder before may be removing it: what is taken is what stands there in the end.
TEST_F(Claims, ADirectoryThatChangesWhileItIsTakenIsTakenAsItIsInTheEnd) {
  const std::function<void()> kChanges[] = {
      [&] { fs::remove_all(Host()); },
      [&] { fs::rename(Host(), registry_.Path("moved")); },
      [&] {
        fs::rename(Host(), registry_.Path("moved"));
        fs::create_directory(Host());
      },
  };
  for (const auto &change : kChanges) {
    // Before it is opened to be locked; when it is locked; when it has its lock file.
    for (const char *call : {"syscall", "flock", "openat"}) {
      StartAnew();
      fs::remove_all(registry_.Path("moved"));
      const bool opens = std::string(call) == "syscall";
      FailingCall race(call, change, opens ? 2 : 1);
      if (opens) {
        race.On("host");
      } else if (std::string(call) == "openat") {
        race.On(".lock");
      }
      EXPECT_EQ(Claim(), 0) << call << &change - kChanges;
      EXPECT_EQ(race.Failed(), 1) << call << &change - kChanges;
      EXPECT_EQ(Keep(), "same") << call << &change - kChanges;
      EXPECT_TRUE(Holds()) << call << &change - kChanges;
    }
  }
}

TEST_F(Claims, ADirectoryThatChangesWithoutEndIsLeftForLater) {
  {
    const FailingCall no_pause("nanosleep", 0, 1, FailingCall::kAll);
    FailingCall race(
        "openat", [&] { fs::remove_all(Host()); }, 1, FailingCall::kAll);
    race.On(".lock");
    EXPECT_EQ(Claim(), 1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(no_pause.Failed(), 19);
  }
  EXPECT_EQ(Keep(), "renewed");
  EXPECT_TRUE(Holds());
}

// Each call that fails once leaves what is held as it was, and is told.
TEST_F(Claims, NoFailingCallGivesTheDirectoryUp) {
  ASSERT_EQ(Claim(), 0);
  ASSERT_EQ(Keep(), "same");
  WriteBytes(Host() + "/row.7", {'x'});
  for (const char *call : {"fstat", "openat", "syscall"}) {
    int told = 0;
    for (int nth = 1;; nth++) {
      const FailingCall fail(call, EMFILE, nth);
      const std::string state = Keep();
      if (fail.Failed() == 0) {
        break;
      }
      // The first stands on the way to the root: it says nothing of whether there is one.
      EXPECT_TRUE((state == "same" && nth > 1) || state == strerror(EMFILE))
          << call << nth << state;
      told += state == "same" ? 0 : 1;
      EXPECT_EQ(Keep(), "same") << call << nth;
      EXPECT_TRUE(fs::exists(Host() + "/row.7")) << call << nth;
    }
    EXPECT_GT(told, 0) << call;
  }
  EXPECT_TRUE(Holds());
}

TEST_F(Claims, NoFailingCallTakesHalfOfANewDirectory) {
  for (const char *call : {"fstat", "openat", "syscall", "mkdirat", "flock", "fstatat"}) {
    for (int nth = 1;; nth++) {
      StartAnew();
      ASSERT_EQ(Claim(), 0);
      fs::rename(registry_.root(), registry_.base() + "/moved");
      bool failed = false;
      {
        const FailingCall fail(call, EIO, nth);
        Keep();
        failed = fail.Failed() != 0;
      }
      EXPECT_NE(Keep(), strerror(EIO)) << call << nth;
      EXPECT_EQ(Keep(), "same") << call << nth;
      EXPECT_TRUE(fs::exists(Host() + "/.lock")) << call << nth;
      if (nth % 4 == 1) {
        EXPECT_TRUE(Holds()) << call << nth;
      }
      fs::remove_all(registry_.base() + "/moved");
      if (!failed) {
        EXPECT_GT(nth, 1) << call;
        break;
      }
    }
  }
}

TEST_F(Claims, WhatCannotBeGivenToSiblingsIsTold) {
  ASSERT_EQ(Claim(), 0);
  ASSERT_EQ(Keep(), "same");
  for (const std::string &path : {registry_.root(), Host()}) {
    fs::permissions(path, fs::perms(0700));
    {
      const FailingCall fail("chmod", EROFS);
      EXPECT_EQ(Keep(), strerror(EROFS)) << path;
      EXPECT_EQ(fail.Failed(), 1);
    }
    EXPECT_EQ(Keep(), "same");
    EXPECT_EQ(fs::status(path).permissions(), fs::perms(0755)) << path;
  }
}

TEST_F(Claims, WhatStandsInTheDirectorysPlaceIsToldUntilItIsGone) {
  ASSERT_EQ(Claim(), 0);
  ASSERT_EQ(Keep(), "same");
  fs::rename(Host(), registry_.Path("moved"));
  WriteBytes(Host(), {'x'});
  EXPECT_EQ(Keep(), strerror(ENOTDIR));
  fs::remove(Host());
  fs::create_directory_symlink("moved", Host());
  EXPECT_EQ(Keep(), strerror(ENOTDIR)) << "not even to our own";
  fs::remove(Host());
  EXPECT_EQ(Keep(), "renewed");
  EXPECT_TRUE(Holds());
}

TEST_F(Claims, ALinkAboveTheDirectoryIsNotFollowed) {
  const std::string deep = registry_.Path("deep");
  ASSERT_EQ(claim_dir((deep + "/host").c_str()), 0);
  ASSERT_EQ(Keep(), "same");
  fs::rename(deep, registry_.Path("moved"));
  fs::create_directory_symlink("moved", deep);
  EXPECT_EQ(Keep(), strerror(ENOTDIR));
  fs::remove(deep);
  EXPECT_EQ(Keep(), "renewed");
  EXPECT_TRUE(fs::exists(deep + "/host/.lock"));
}

// Another root above the same directory: what is in it is what this process wrote.
TEST_F(Claims, TheSameDirectoryBelowAnotherRootIsNotCleared) {
  ASSERT_EQ(Claim(), 0);
  ASSERT_EQ(Keep(), "same");
  WriteBytes(Host() + "/row.7", {'x'});
  const std::string other = registry_.base() + "/other";
  fs::create_directory(other);
  fs::rename(Host(), other + "/host");
  fs::rename(registry_.root(), registry_.base() + "/moved");
  fs::rename(other, registry_.root());
  EXPECT_EQ(Keep(), "renewed");
  EXPECT_TRUE(fs::exists(Host() + "/row.7"));
  EXPECT_EQ(Keep(), "same");
  EXPECT_TRUE(Holds());
}

TEST_F(Claims, WhatCannotBeClearedInADirectoryThatIsFoundIsTold) {
  Captured log;
  ASSERT_EQ(Claim(), 0);
  ASSERT_EQ(Keep(), "same");
  fs::rename(registry_.root(), registry_.base() + "/moved");
  fs::create_directories(Host());
  WriteBytes(Host() + "/row.7", {'x'});
  {
    FailingCall fail("unlinkat", EPERM);
    fail.On("row.7");
    EXPECT_EQ(Keep(), "renewed");
  }
  EXPECT_EQ(log.Text(),
            "exampled: Can't clear registry directory " + Host() + ": Operation not permitted\n");
  EXPECT_TRUE(Holds());
}

// ---- Another process has it

TEST_F(Claims, AHolderWhoCannotBeToldIsAnotherProcess) {
  Captured log;
  OtherHolder other(Host());
  ASSERT_TRUE(other.has_it());
  {
    const FailingCall no_pause("nanosleep", 0, 1, FailingCall::kAll);
    FailingCall fail("open", EMFILE, 1, FailingCall::kAll);
    fail.On("/proc/locks");
    EXPECT_EQ(Claim(), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_TRUE(ClaimRefused());
    EXPECT_EQ(log.Text(), "exampled: Another process already runs with the registry directory " +
                              Host() + "\n");
    EXPECT_EQ(Keep(), "another process has the directory");
    EXPECT_EQ(log.Text(), "") << "once";
  }
  EXPECT_EQ(Keep(), "process " + std::to_string(other.process()) + " has the directory");
  EXPECT_EQ(log.Text(), "");
  // It is the other one's: nothing is removed that it may need.
  EXPECT_EQ(remove_empty_dir(Host().c_str()), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_TRUE(fs::exists(Host()));
}

// As the agent of a container is.
TEST_F(Claims, TheHolderMayBeTheFirstProcess) {
  const OtherHolder other(Host());
  ASSERT_TRUE(other.has_it());
  struct stat st = {};
  ASSERT_EQ(stat((Host() + "/.lock").c_str(), &st), 0);
  const std::string locks = registry_.base() + "/locks";
  char line[100];
  const int length =
      snprintf(line, sizeof(line), "1: FLOCK  ADVISORY  WRITE 1 %02x:%02x:%ju 0 EOF\n",
               major(st.st_dev), minor(st.st_dev), uintmax_t{st.st_ino});
  WriteBytes(locks, {line, line + length});
  const pid_t child = fork();
  if (child == 0) {
    const bool covered = unshare(CLONE_NEWNS) == 0 &&
                         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         mount(locks.c_str(), "/proc/locks", nullptr, MS_BIND, nullptr) == 0;
    const FailingCall no_pause("nanosleep", 0, 1, FailingCall::kAll);
    Captured log;
    const int result = covered ? Claim() : 0;
    const bool told =
        log.Text() ==
        "exampled: Process 1 already runs with the registry directory " + Host() + "\n";
    _exit(result == -1 && told ? 0 : 1);
  }
  int status = 1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(Claims, OneThatCouldNotBeHadAtTheStartMayBeAnothersByThen) {
  Captured log;
  fs::remove_all(Host());
  WriteBytes(Host(), {'x'});
  EXPECT_EQ(Claim(), 1);
  EXPECT_FALSE(ClaimRefused());
  fs::remove(Host());
  const OtherHolder other(Host());
  ASSERT_TRUE(other.has_it());
  const std::string number = std::to_string(other.process());
  EXPECT_EQ(Keep(), "process " + number + " has the directory");
  EXPECT_TRUE(ClaimRefused());
  EXPECT_EQ(log.Text(), "exampled: Process " + number +
                            " already runs with the registry directory " + Host() + "\n");
}

TEST_F(Claims, MemoryThatRunsOutIsToldAndGivesNothingUp) {
  Captured log;
  int failures = 0;
  const std::string host = Host();
  for (int n = 1;; n++) {
    StartAnew();
    int result = 0;
    const bool failed = FailAllocation(n, [&] { result = claim_dir(host.c_str()); });
    EXPECT_EQ(result != 0, failed) << n;
    EXPECT_EQ(log.Text(), failed ? "exampled: Can't take the registry directory: Cannot allocate "
                                   "memory\n"
                                 : "");
    EXPECT_FALSE(ClaimRefused());
    if (!failed) {
      break;
    }
    failures++;
  }
  EXPECT_GT(failures, 1);
  EXPECT_TRUE(Holds());
}

}  // namespace
}  // namespace vex
