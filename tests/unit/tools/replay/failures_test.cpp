// What becomes of the work where a call fails on the way.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <optional>

#include "framework/process/descriptor.h"
#include "tests/support/failing_call.h"
#include "tests/support/process.h"
#include "tests/unit/framework/temp_registry.h"
#include "tools/vexreg/captured_host.h"
#include "tools/vexreg/child_output.h"
#include "tools/vexreg/host_files.h"
#include "tools/vexreg/replace_file.h"

namespace vex {
namespace {

// The old file or the new one, and nothing beside it.
TEST(Failures, LeaveAFileAsItWas) {
  const TempRegistry place;
  const std::string file = place.root() + "/file";
  ASSERT_TRUE(WriteOutput(file, "old", 0600));
  for (const char *call : {"openat", "fchmod", "write", "fsync", "renameat"}) {
    testing::internal::CaptureStderr();
    {
      const FailingCall failing(call, EIO);
      EXPECT_FALSE(WriteOutput(file, "new", 0600)) << call;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vexreg: " + file + ": cannot be written: Input/output error\n");
    EXPECT_EQ(made_up::ReadFile(file), "old") << call;
    EXPECT_EQ(made_up::ListDirectory(place.root()), std::vector<std::string>{"file"}) << call;
  }
  for (const int error : {EINTR, 0}) {
    const FailingCall interrupted("write", error);
    EXPECT_TRUE(WriteOutput(file, "new" + std::to_string(error), 0600));
    EXPECT_EQ(made_up::ReadFile(file), "new" + std::to_string(error));
  }
}

TEST(Failures, AreToldOfFilesBelowADirectory) {
  const TempRegistry place;
  const Descriptor directory(open(place.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (const char *call : {"mkdirat", "openat", "fcntl", "fchmod", "write", "futimens"}) {
    const std::string name = std::string(call) + "/file";
    const FailingCall failing(call, EIO);
    errno = 0;
    EXPECT_FALSE(WriteBelow(directory.get(), name, "text", 0600, 0700, 7)) << call;
    EXPECT_EQ(errno, EIO) << call;
  }
  for (const int error : {EINTR, 0}) {
    const std::string name = "interrupted" + std::to_string(error);
    const FailingCall interrupted("write", error);
    EXPECT_TRUE(WriteBelow(directory.get(), name, "text", 0600, 0700));
    EXPECT_EQ(made_up::ReadFile(place.Path(name)), "text");
  }
}

TEST(Failures, AreToldOfSources) {
  const TempRegistry place;
  const std::string file = place.base() + "/file";
  WriteBytes(file, {'x'});
  struct stat status = {};
  EXPECT_EQ(ReadPlain(AT_FDCWD, file, 10, 0, &status), "x");
  EXPECT_EQ(ReadPlain(AT_FDCWD, file + "s", 10, 0, &status), std::nullopt);
  EXPECT_EQ(errno, ENOENT);
  WriteBytes(file, std::vector<uint8_t>(11, 'x'));
  EXPECT_EQ(ReadPlain(AT_FDCWD, file, 10, 0, &status), std::nullopt);
  EXPECT_EQ(errno, EFBIG);
  for (const char *call : {"fstat", "read"}) {
    const FailingCall failing(call, EIO);
    errno = 0;
    EXPECT_EQ(ReadPlain(AT_FDCWD, file, 10, 0, &status), std::nullopt) << call;
    EXPECT_EQ(errno, EIO) << call;
  }
}

// As with a file of /proc, whose size is nothing.
TEST(Failures, AreNoSourcesOfMoreThanTheirSize) {
  const TempRegistry place;
  const std::string file = place.base() + "/file";
  const std::string text(size_t{3} << 20, 'x');
  struct stat status = {};
  for (const size_t most : {text.size(), text.size() - 1}) {
    WriteBytes(file, {});
    const FailingCall grows("read", [&] { WriteBytes(file, {text.begin(), text.end()}); });
    const auto read = ReadPlain(AT_FDCWD, file, most, 0, &status);
    EXPECT_EQ(status.st_size, 0);
    EXPECT_EQ(read, most == text.size() ? std::optional(text) : std::nullopt);
  }
}

// A program of which not all could be read, or whose end cannot be told, has not said anything.
TEST(Failures, AreNoOutputOfAProgram) {
  const auto run = [] { return RunProgram({"echo", "out"}, "/usr/bin:/bin", 30, 1000); };
  ASSERT_EQ(run().end, ChildOutput::kExited);
  struct {
    const char *call;
    int nth;
  } constexpr kCases[] = {{"pipe2", 1},  {"fork", 1},   {"open", 1},   {"dup2", 1},
                          {"dup2", 2},   {"dup2", 3},   {"poll", 1},   {"read", 1},
                          {"waitid", 1}, {"setenv", 1}, {"getppid", 1}};
  for (const auto &[call, nth] : kCases) {
    const size_t before = made_up::ListDirectory("/proc/self/fd").size();
    const FailingCall failing(call, ENOMEM, nth);
    EXPECT_NE(run().end, ChildOutput::kExited) << call << nth;
    EXPECT_EQ(made_up::ListDirectory("/proc/self/fd").size(), before) << call << nth;
  }
  for (const char *call : {"poll", "read", "waitid"}) {
    const FailingCall interrupted(call, EINTR);
    const ChildOutput output = run();
    EXPECT_EQ(output.end, ChildOutput::kExited) << call;
    EXPECT_EQ(output.out, "out\n") << call;
  }
}

TEST(Failures, LeaveACapturesTimesInUtc) {
  const char *const set = getenv("TZ");
  const std::string before = set != nullptr ? set : "";
  Capture capture;
  capture.members = {{"host/etc/localtime", 0, "TZif2"}};
  for (const char *call : {"memfd_create", "write"}) {
    testing::internal::CaptureStderr();
    {
      const FailingCall failing(call, ENOSPC);
      UseTimeZoneOf(capture);
    }
    testing::internal::GetCapturedStderr();
    EXPECT_STREQ(getenv("TZ"), "UTC0") << call;
  }
  set != nullptr ? setenv("TZ", before.c_str(), 1) : unsetenv("TZ");
  tzset();
}

// Neither a registry that was not made, nor a process that waits to remove it.
TEST(Failures, AreToldOfACapturesRegistry) {
  const TempRegistry place;
  const std::string file = place.base() + "/host.tar.zst";
  std::string error;
  const auto archive =
      PackMembers({{"registry/a", 0, "x"}, {kDescriptionMember, 0, R"({"format":1})"}}, &error);
  ASSERT_TRUE(archive);
  WriteBytes(file, {archive->begin(), archive->end()});
  ASSERT_EQ(setenv("TMPDIR", place.root().c_str(), 1), 0);
  const std::string none = "no directory for the captured objects: ";
  const std::string place_of_it = place.root() + "/vexreg.";
  const struct {
    const char *call;
    int nth;
    std::string said;
    const char *reason = ": No space left on device\n";
  } cases[] = {{"pipe2", 1, none},
               {"pipe2", 2, none},
               {"fork", 1, none},
               {"mkdtemp", 1, none},
               // The process that has made it cannot say so.
               {"write", 1, none, ": Broken pipe\n"},
               {"open", 2, place_of_it},
               {"openat", 1, place_of_it}};
  for (const auto &[call, nth, said, reason] : cases) {
    const size_t before = made_up::ListDirectory("/proc/self/fd").size();
    testing::internal::CaptureStderr();
    {
      CapturedRegistry registry;
      const FailingCall failing(call, ENOSPC, nth);
      EXPECT_FALSE(registry.Open(file)) << call << nth;
    }
    const std::string complaint = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(complaint.starts_with("vexreg: " + said) && complaint.ends_with(reason))
        << call << nth << complaint;
    EXPECT_EQ(made_up::ListDirectory("/proc/self/fd").size(), before) << call << nth;
    EXPECT_TRUE(made_up::Eventually([&] { return made_up::ListDirectory(place.root()).empty(); }))
        << call << nth;
  }
  // A signal is not the end that the removing process waits for.
  {
    std::optional<FailingCall> interrupted;
    const FailingCall made("mkdtemp", [&] { interrupted.emplace("read", EINTR); });
    CapturedRegistry registry;
    ASSERT_TRUE(registry.Open(file));
    const pid_t sweeper = made_up::Children(getpid()).at(0);
    const std::string stat = "/proc/" + std::to_string(sweeper) + "/stat";
    EXPECT_TRUE(made_up::Eventually([&] {
      const std::string text = made_up::ReadFile(stat);
      return text.find(") S ") != std::string::npos || text.find(") Z ") != std::string::npos;
    }));
    EXPECT_EQ(made_up::ReadFile(registry.root() + "/a"), "x");
  }
  EXPECT_TRUE(made_up::ListDirectory(place.root()).empty());
  unsetenv("TMPDIR");
}

}  // namespace
}  // namespace vex
