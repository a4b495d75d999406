#include "framework/snmp/unsent.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "tests/support/failing_call.h"
#include "tests/unit/framework/temp_registry.h"

namespace vex {
namespace {

class Unsent : public testing::Test {
 protected:
  static std::vector<Notification> Some() {
    const MibVariable *text = FindMibVariable("tlxHoSystemRole");
    const MibVariable *cell = FindMibVariable("tlxHoCpuUtilMin");
    std::vector<Notification> some;
    for (uint32_t number = 1; number <= 3; number++) {
      Notification one;
      one.number = number;
      one.description = "the description";
      one.variables.push_back({text, 0, {'r', 'o', 0, 'e'}});
      one.variables.push_back({cell, number, {1, 2, 3, 4}});
      some.push_back(std::move(one));
    }
    return some;
  }
  static void ExpectSame(const std::vector<Notification> &a, const std::vector<Notification> &b) {
    ASSERT_EQ(a.size(), b.size());
    for (size_t i = 0; i < a.size(); i++) {
      EXPECT_EQ(a[i].number, b[i].number);
      EXPECT_EQ(a[i].description, b[i].description);
      ASSERT_EQ(a[i].variables.size(), b[i].variables.size());
      for (size_t j = 0; j < a[i].variables.size(); j++) {
        EXPECT_EQ(a[i].variables[j].mib, b[i].variables[j].mib);
        EXPECT_EQ(a[i].variables[j].instance, b[i].variables[j].instance);
        EXPECT_EQ(a[i].variables[j].value, b[i].variables[j].value);
      }
    }
  }
  std::string Path() const {
    return registry.root() + "/agent.traps";
  }
  std::string Bytes() const {
    std::ifstream file(Path(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void Write(const std::string &bytes) const {
    std::ofstream(Path(), std::ios::binary | std::ios::trunc) << bytes;
    chmod(Path().c_str(), 0600);
  }
  UnsentFile File(const std::string &application = "agent") const {
    return {registry.root(), application};
  }
  int Keep(const std::vector<Notification> &notifications) const {
    return File().Keep(notifications);
  }
  // What a process reads whose notifications are all sent at once.
  std::vector<Notification> Take() const {
    UnsentFile file = File();
    std::optional<std::vector<Notification>> read = file.Read();
    EXPECT_TRUE(read.has_value());
    file.Taken();
    file.AllSent();
    return read.value_or(std::vector<Notification>());
  }

  TempRegistry registry;
};

TEST_F(Unsent, AreTakenOnceInTheirOrder) {
  ASSERT_EQ(Keep(Some()), 0);
  struct stat status = {};
  ASSERT_EQ(stat(Path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  ExpectSame(Take(), Some());
  EXPECT_TRUE(Take().empty());
  EXPECT_TRUE(std::filesystem::is_empty(registry.root()));
}

TEST_F(Unsent, WhatWasNotTakenStaysBeforeWhatComes) {
  std::vector<Notification> later = Some();
  later.front().number = 99;
  ASSERT_EQ(Keep(Some()), 0);
  ASSERT_EQ(Keep(later), 0);
  std::vector<Notification> both = Some();
  both.insert(both.end(), later.begin(), later.end());
  ExpectSame(Take(), both);
  ASSERT_EQ(Keep(later), 0);
  ASSERT_EQ(Keep(std::vector<Notification>(255)), 0);
  const std::vector<Notification> newest = Take();
  ASSERT_EQ(newest.size(), 256U);
  EXPECT_EQ(newest.front().number, later.back().number);
}

TEST_F(Unsent, NoneMakeNoFile) {
  EXPECT_EQ(Keep({}), 0);
  EXPECT_TRUE(std::filesystem::is_empty(registry.root()));
}

TEST_F(Unsent, OfWhatWasCutOffTheWholeOnesAreLeft) {
  ASSERT_EQ(Keep(Some()), 0);
  const std::string whole = Bytes();
  const size_t mark = whole.find('\n') + 1;
  const size_t each = (whole.size() - mark) / 3;
  for (size_t length = 0; length < whole.size(); length++) {
    Write(whole.substr(0, length));
    EXPECT_EQ(Take().size(), length < mark ? 0 : (length - mark) / each) << length;
  }
  printf("%zu malformed\n", whole.size());
}

// As a disk might leave it: the rest of a notification, or none, and nothing from beyond the file.
TEST_F(Unsent, ChangedBytesAreReadAsFarAsTheyMakeSense) {
  ASSERT_EQ(Keep(Some()), 0);
  const std::string whole = Bytes();
  std::mt19937 random(5);
  constexpr int kTries = 3000;
  size_t most = 0;
  for (int i = 0; i < kTries; i++) {
    std::string bytes = whole;
    for (int change = 0; change < 3; change++) {
      bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    Write(bytes);
    const std::vector<Notification> taken = Take();
    for (const Notification &notification : taken) {
      EXPECT_LE(notification.description.size(), bytes.size());
      for (const NotificationVariable &variable : notification.variables) {
        EXPECT_NE(variable.mib, nullptr);
        EXPECT_LE(variable.value.size(), bytes.size());
      }
    }
    most = std::max(most, taken.size());
  }
  EXPECT_EQ(most, 3U);
  printf("%d malformed\n", kTries);
}

TEST_F(Unsent, AnythingElseIsNotRead) {
  ASSERT_EQ(Keep(Some()), 0);
  const std::string whole = Bytes();
  const std::string elsewhere = registry.base() + "/elsewhere";
  std::filesystem::rename(Path(), elsewhere);
  std::filesystem::create_symlink(elsewhere, Path());
  EXPECT_TRUE(Take().empty());
  std::filesystem::remove(Path());
  // A second name, where others could have made it.
  std::filesystem::create_hard_link(elsewhere, Path());
  chmod(registry.root().c_str(), 0777);
  EXPECT_TRUE(Take().empty());
  chmod(registry.root().c_str(), 0755);
  std::filesystem::remove(Path());
  ASSERT_EQ(mkfifo(Path().c_str(), 0600), 0);
  EXPECT_TRUE(Take().empty());
  std::filesystem::remove(Path());
  Write(whole);
  chmod(Path().c_str(), 0666);
  EXPECT_TRUE(Take().empty());
  chmod(Path().c_str(), 0600);
  // Its own file's only name is nobody else's, wherever it stands.
  chmod(registry.root().c_str(), 0777);
  EXPECT_EQ(Take().size(), 3U);
}

TEST_F(Unsent, ASecondNameInAPrivateDirectoryIsReadLikeAnyOther) {
  ASSERT_EQ(Keep(Some()), 0);
  const std::string elsewhere = registry.base() + "/elsewhere";
  std::filesystem::create_hard_link(Path(), elsewhere);
  ExpectSame(Take(), Some());
  EXPECT_FALSE(std::filesystem::exists(Path()));
  EXPECT_TRUE(std::filesystem::exists(elsewhere));
}

TEST_F(Unsent, StayInTheFileUntilAllAreSent) {
  ASSERT_EQ(Keep(Some()), 0);
  const std::string before = Bytes();
  {
    UnsentFile killed = File();
    ExpectSame(*killed.Read(), Some());
    killed.Taken();
  }
  EXPECT_EQ(Bytes(), before);
  UnsentFile file = File();
  ExpectSame(*file.Read(), Some());
  // Without memory for them they are read again.
  file.AllSent();
  EXPECT_EQ(Bytes(), before);
  ExpectSame(*file.Read(), Some());
  file.Taken();
  file.AllSent();
  EXPECT_FALSE(std::filesystem::exists(Path()));
  file.AllSent();
}

TEST_F(Unsent, OnceTakenAreReplacedByWhatIsLeftOfThem) {
  ASSERT_EQ(Keep(Some()), 0);
  UnsentFile file = File();
  std::vector<Notification> left = *file.Read();
  file.Taken();
  left.erase(left.begin());
  ASSERT_EQ(file.Keep(left), 0);
  UnsentFile next = File();
  ExpectSame(*next.Read(), left);
  next.Taken();
  EXPECT_EQ(next.Keep({}), 0);
  EXPECT_TRUE(std::filesystem::is_empty(registry.root()));
}

TEST_F(Unsent, WhatWaitsIsKeptMeanwhileAndRemovedOnceItIsSent) {
  UnsentFile file = File();
  ASSERT_TRUE(file.Read());
  file.Taken();
  const std::vector<Notification> some = Some();
  ASSERT_EQ(file.KeepMeanwhile(std::span(some).first(2)), 0);
  ASSERT_EQ(file.KeepMeanwhile(some), 0);
  // Another process, after a kill.
  const auto kept = File().Read();
  ASSERT_TRUE(kept);
  ExpectSame(*kept, some);
  file.AllSent();
  EXPECT_FALSE(std::filesystem::exists(Path()));
  ASSERT_EQ(file.KeepMeanwhile(some), 0);
  EXPECT_EQ(file.Keep({}), 0);
  EXPECT_FALSE(std::filesystem::exists(Path()));
}

TEST_F(Unsent, AFailureToKeepWhatWaitsIsSaidOnce) {
  UnsentFile file = File();
  ASSERT_TRUE(file.Read());
  file.Taken();
  const std::vector<Notification> some = Some();
  std::filesystem::create_directories(Path() + "/in the way");
  testing::internal::CaptureStderr();
  EXPECT_EQ(file.KeepMeanwhile(some), -1);
  EXPECT_EQ(file.KeepMeanwhile(some), -1);
  std::filesystem::remove_all(Path());
  EXPECT_EQ(file.KeepMeanwhile(some), 0);
  EXPECT_EQ(file.KeepMeanwhile(some), 0);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
}

TEST_F(Unsent, WhatCannotBeReadStaysAndIsReadLater) {
  ASSERT_EQ(Keep(Some()), 0);
  const std::string before = Bytes();
  UnsentFile file = File();
  {
    // No descriptor is left.
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto read = file.Read();
    const int error = errno;
    const int kept = file.Keep(std::vector<Notification>(1));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_FALSE(read.has_value());
    EXPECT_EQ(error, EMFILE);
    EXPECT_NE(kept, 0);
  }
  EXPECT_TRUE(file.Unread());
  EXPECT_EQ(Bytes(), before);
  EXPECT_EQ(file.Keep({}), 0);
  EXPECT_EQ(Bytes(), before);
  ExpectSame(*file.Read(), Some());
}

// What is older and could not be taken is kept as far as it is whole, and the rest is not dropped
// in silence.
TEST_F(Unsent, DamageThatIsFoundAtTheEndIsSaid) {
  ASSERT_EQ(Keep(Some()), 0);
  const std::string whole = Bytes();
  Write(whole.substr(0, whole.size() - 3));
  UnsentFile file = File();
  testing::internal::CaptureStderr();
  const int kept = file.Keep(std::vector<Notification>(1));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "agent: File " + Path() + " is damaged: 2 traps of it are kept\n");
  EXPECT_EQ(kept, 0);
  EXPECT_EQ(Take().size(), 3U);
}

TEST_F(Unsent, WhatAKilledAgentLeftOfANewFileIsRemoved) {
  std::ofstream(registry.root() + "/.agent.traps.new") << "half";
  EXPECT_TRUE(File().Read()->empty());
  EXPECT_TRUE(std::filesystem::is_empty(registry.root()));
  // Also where nothing was read before.
  std::ofstream(registry.root() + "/.agent.traps.new") << "half";
  EXPECT_EQ(Keep(Some()), 0);
  ExpectSame(Take(), Some());
  EXPECT_TRUE(std::filesystem::is_empty(registry.root()));
}

TEST_F(Unsent, ANameThatLeadsElsewhereIsRefused) {
  for (const char *name : {"", ".", "..", "../agent", "host/agent"}) {
    UnsentFile file = File(name);
    EXPECT_TRUE(file.Read()->empty()) << name;
    EXPECT_NE(file.Keep(Some()), 0) << name;
  }
  EXPECT_TRUE(std::filesystem::is_empty(registry.root()));
}

TEST_F(Unsent, WhatWasKeptStaysWhereNothingCanBeWritten) {
  ASSERT_EQ(Keep(Some()), 0);
  const std::string before = Bytes();
  // In the place of the file that is written first.
  std::filesystem::create_directory(registry.root() + "/.agent.traps.new");
  EXPECT_NE(Keep(std::vector<Notification>(1)), 0);
  EXPECT_EQ(Bytes(), before);
}

// A call that is cut short by a signal is made again, also where it is the next one's only.
TEST_F(Unsent, AreKeptAndReadThoughSignalsCome) {
  {
    const FailingCall failing("write", EINTR, 1, 2);
    ASSERT_EQ(Keep(Some()), 0);
    EXPECT_EQ(failing.Failed(), 2);
  }
  const FailingCall failing("read", EINTR, 1, 2);
  ExpectSame(Take(), Some());
  EXPECT_EQ(failing.Failed(), 2);
}

// The file is as before, and nothing lies beside it.
TEST_F(Unsent, WhatCannotBeWrittenLeavesTheFileAsItWas) {
  ASSERT_EQ(Keep(Some()), 0);
  const std::string before = Bytes();
  for (const char *function : {"write", "fsync", "renameat"}) {
    testing::internal::CaptureStderr();
    {
      const FailingCall failing(function, ENOSPC);
      EXPECT_EQ(Keep(std::vector<Notification>(2)), -1) << function;
      EXPECT_EQ(errno, ENOSPC) << function;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "agent: Can't keep traps for the next start: No space left on device; 2 traps that "
              "are not sent are lost\n")
        << function;
    EXPECT_EQ(Bytes(), before) << function;
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(registry.root()), {}), 1)
        << function;
  }
}

// A directory that does not come onto the disk is tried again; the file itself is whole.
TEST_F(Unsent, ADirectoryThatIsNotSynchronisedIsAFailure) {
  UnsentFile file = File();
  ASSERT_TRUE(file.Read());
  file.Taken();
  testing::internal::CaptureStderr();
  {
    const FailingCall failing("fsync", EIO, 2);
    EXPECT_EQ(file.KeepMeanwhile(Some()), -1);
    EXPECT_EQ(failing.Failed(), 1);
  }
  EXPECT_EQ(file.KeepMeanwhile(Some()), 0);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Input/output error (trying again)\n"), log.npos) << log;
  ExpectSame(Take(), Some());
}

TEST_F(Unsent, ADirectoryThatCannotBeSynchronisedHasTheFileAllTheSame) {
  // The one that opens the directory for that, whichever it is.
  for (int n = 1; n < 30; n++) {
    const FailingCall failing("openat", EACCES, n);
    testing::internal::CaptureStderr();
    const int kept = Keep(Some());
    const std::string log = testing::internal::GetCapturedStderr();
    if (failing.Failed() == 0) {
      break;
    }
    EXPECT_EQ(kept == 0, std::filesystem::exists(Path())) << n;
    EXPECT_EQ(kept == 0, log.empty()) << n << log;
    std::filesystem::remove(Path());
  }
}

// It is read later, and then that is said; nothing of it is lost meanwhile.
TEST_F(Unsent, AFailureToReadIsSaidOnceAndWhatStandsThereStays) {
  ASSERT_EQ(Keep(Some()), 0);
  const std::string before = Bytes();
  const struct {
    const char *function;
    int error;
    int nth;
  } cases[] = {
      {"fstat", EIO, 1}, {"fstat", EIO, 2}, {"fstat", EIO, 3}, {"read", EIO, 1}, {"read", 0, 1}};
  for (const auto &[function, error, nth] : cases) {
    UnsentFile file = File();
    testing::internal::CaptureStderr();
    {
      const FailingCall failing(function, error, nth, FailingCall::kAll);
      EXPECT_FALSE(file.Read()) << function;
      EXPECT_EQ(errno, EIO) << function;
      file.SayUnread(errno);
      EXPECT_FALSE(file.Read()) << function;
      file.SayUnread(errno);
    }
    {
      const FailingCall failing("read", EIO, 1, FailingCall::kAll);
      EXPECT_EQ(file.Keep(std::vector<Notification>(1)), -1) << function;
    }
    EXPECT_EQ(Bytes(), before) << function;
    ExpectSame(*file.Read(), Some());
    file.Taken();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "agent: Can't read the traps kept at " + Path() +
                  ": Input/output error (trying again)\n"
                  "agent: Can't keep traps for the next start: Input/output error; 1 traps that "
                  "are not sent are lost\n"
                  "agent: The traps kept at " +
                  Path() + " are read\n")
        << function;
  }
  // One that fails in passing is nobody's business.
  {
    const FailingCall failing("read", EIO, 1, 3);
    EXPECT_FALSE(File().Read());
  }
  const FailingCall failing("read", EIO, 1, 2);
  ExpectSame(*File().Read(), Some());
}

// Whether a second name is somebody else's can be told later.
TEST_F(Unsent, ASecondNameIsNotRefusedForACallThatFails) {
  ASSERT_EQ(Keep(Some()), 0);
  std::filesystem::create_hard_link(Path(), registry.base() + "/elsewhere");
  for (int nth = 1; nth <= 6; nth++) {
    UnsentFile file = File();
    testing::internal::CaptureStderr();
    {
      const FailingCall failing("fstat", EIO, nth, FailingCall::kAll);
      const bool read = file.Read().has_value();
      EXPECT_EQ(read, failing.Failed() == 0) << nth;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << nth;
    ExpectSame(*file.Read(), Some());
  }
}

TEST_F(Unsent, OnlySoManyAreReadAndNoFileThatIsTooLarge) {
  ASSERT_EQ(Keep(std::vector<Notification>(256)), 0);
  const std::string whole = Bytes();
  Write(whole + std::string(12, '\0'));
  testing::internal::CaptureStderr();
  EXPECT_EQ(Take().size(), 256U);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "agent: File " + Path() + " is damaged: 256 traps of it are sent\n");
  Write(whole);
  ASSERT_EQ(truncate(Path().c_str(), (4 << 20) + 1), 0);
  testing::internal::CaptureStderr();
  EXPECT_TRUE(Take().empty());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "agent: File " + Path() + " not used: it is too large\n");
}

// The newest are kept, as many as a file takes that is read again.
TEST_F(Unsent, TheOldestGoWhereTheyAreTooLong) {
  std::vector<Notification> long_ones(6);
  for (size_t i = 0; i < long_ones.size(); i++) {
    long_ones[i].number = static_cast<uint32_t>(i);
    long_ones[i].description = std::string(1 << 20, 'x');
  }
  ASSERT_EQ(Keep(long_ones), 0);
  const std::vector<Notification> taken = Take();
  ASSERT_EQ(taken.size(), 3U);
  EXPECT_EQ(taken.front().number, 3U);
  EXPECT_EQ(taken.back().number, 5U);
}

TEST_F(Unsent, AFileThatCannotBeRemovedIsSaidOnceAndTriedAgain) {
  ASSERT_EQ(Keep(Some()), 0);
  UnsentFile file = File();
  ASSERT_TRUE(file.Read());
  file.Taken();
  testing::internal::CaptureStderr();
  {
    const FailingCall failing("unlinkat", EROFS, 1, FailingCall::kAll);
    file.AllSent();
    file.AllSent();
    EXPECT_EQ(file.Keep({}), -1);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "agent: Can't remove " + Path() +
                ", whose traps are sent: Read-only file system (trying again)\n");
  EXPECT_TRUE(std::filesystem::exists(Path()));
  file.AllSent();
  EXPECT_FALSE(std::filesystem::exists(Path()));
}

// Whoever has removed it has done what was wanted; so has who has moved the whole registry.
TEST_F(Unsent, AFileThatIsGoneIsRemoved) {
  for (const bool registry_too : {false, true}) {
    ASSERT_EQ(Keep(Some()), 0);
    UnsentFile file = File();
    ASSERT_TRUE(file.Read());
    file.Taken();
    if (registry_too) {
      std::filesystem::remove_all(registry.root());
    } else {
      std::filesystem::remove(Path());
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(file.Keep({}), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  }
}

TEST_F(Unsent, WantOfMemoryIsTriedAgainAFewTimes) {
  {
    const FailingCall failing("openat", ENOMEM, 1, 2);
    EXPECT_EQ(Keep(Some()), 0);
    EXPECT_EQ(failing.Failed(), 2);
  }
  const std::string before = Bytes();
  const FailingCall failing("openat", ENOMEM, 1, FailingCall::kAll);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Keep(Some()), -1);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Cannot allocate memory; 3 traps that are not sent are lost\n"), log.npos)
      << log;
  EXPECT_EQ(failing.Failed(), 3);
  EXPECT_EQ(Bytes(), before);
}

// What is put in its place is replaced at the end, and what it leads to is not touched.
TEST_F(Unsent, WhatIsNoFileIsReplacedAtTheEnd) {
  const std::string elsewhere = registry.base() + "/elsewhere";
  std::ofstream(elsewhere) << "not ours";
  std::filesystem::create_symlink(elsewhere, Path());
  ASSERT_EQ(Keep(Some()), 0);
  EXPECT_EQ(std::filesystem::file_size(elsewhere), 8U);
  ExpectSame(Take(), Some());
  ASSERT_EQ(mknod(Path().c_str(), S_IFSOCK | 0600, 0), 0);
  ASSERT_EQ(Keep(Some()), 0);
  ExpectSame(Take(), Some());
}

}  // namespace
}  // namespace vex
