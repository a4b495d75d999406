// Files of assignments, the distribution, the appliance, and shell commands.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

#include "framework/machine/appliance.h"
#include "framework/machine/distribution.h"
#include "framework/process/commands.h"
#include "framework/process/descriptor.h"
#include "framework/process/guard.h"
#include "framework/process/log.h"
#include "framework/process/printable.h"
#include "platform/framework.h"
#include "tests/support/failing_call.h"
#include "tests/support/failing_new.h"
#include "tests/unit/framework/temp_registry.h"

namespace vex {
namespace {

std::string Parsed(std::string_view text, Values values = Values::kShell) {
  int bad_line = 0;
  const std::optional<Assignments> assignments = ParseAssignments(text, values, &bad_line);
  if (!assignments) {
    return "line " + std::to_string(bad_line);
  }
  std::string result;
  for (const auto &[key, value] : *assignments) {
    result += key + "=" + value + ";";
  }
  return result;
}

TEST(Assignments, FollowOsRelease) {
  struct {
    const char *text;
    const char *result;
  } const table[] = {
      {"", ""},
      {"NAME=Debian", "NAME=Debian;"},
      {"NAME=Debian\nID=debian\n", "ID=debian;NAME=Debian;"},
      {"NAME=\"Debian GNU/Linux\"\n", "NAME=Debian GNU/Linux;"},
      {"NAME='Debian GNU/Linux'\n", "NAME=Debian GNU/Linux;"},
      {"NAME=\n", "NAME=;"},
      {"NAME=\"\"\n", "NAME=;"},
      {"# comment\n\n   \n  # another\nA=1\n", "A=1;"},
      {"  A=1  \n", "A=1;"},
      {"A=1\r\nB=\"2\"\r\n", "A=1;B=2;"},
      {"A=1\nA=2\n", "A=2;"},
      {"A=\"x\\\"y\\$z\\\\w\\`v\"\n", "A=x\"y$z\\w`v;"},
      {"A=\"x\\ny\"\n", "A=x\\ny;"},
      {"A='x\\\"y'\n", "A=x\\\"y;"},
      {"A='\"'\n", "A=\";"},
      {"A=a=b\n", "A=a=b;"},
      {"_a9=1\n", "_a9=1;"},
      {"A=1\ngarbage\nB=2\n", "line 2"},
      {"A=\"open\n", "line 1"},
      {"A='open\n", "line 1"},
      {"A=\"shut\" more\n", "line 1"},
      {"A=\"ends in backslash\\\"\n", "line 1"},
      {"A=it's\n", "line 1"},
      {"=1\n", "line 1"},
      {"9A=1\n", "line 1"},
      {"A B=1\n", "line 1"},
      {"A =1\n", "line 1"},
      {"A-B=1\n", "line 1"},
      {"!A=1\n", "line 1"},
      {"A{=1\n", "line 1"},
      {"A:=1\n", "line 1"},
      {"a0z9Z=1\n", "a0z9Z=1;"},
      {"\tA=1\t\nB=\t\n", "A=1;B=;"},
      {"A=\"x\\", "line 1"},
  };
  for (const auto &row : table) {
    EXPECT_EQ(Parsed(row.text), row.result) << row.text;
  }
  EXPECT_EQ(Parsed(std::string_view("A=1\0\n", 5)), "line 1");
}

// Text that goes to standard error while a function runs.
template <typename Function>
std::string Logged(Function function) {
  testing::internal::CaptureStderr();
  function();
  return testing::internal::GetCapturedStderr();
}

TEST(Assignments, ArePlainForAnAppliance) {
  struct {
    const char *text;
    const char *result;
  } const table[] = {
      {"", ""},
      {"A=Bob's Box\n", "A=Bob's Box;"},
      {"A=19\" rack\n", "A=19\" rack;"},
      {"A=\"19\" rack\"\n", "A=19\" rack;"},
      {"A='Bob's Box'\n", "A=Bob's Box;"},
      {"A=\"Box\"\r\nB='Box'  \n", "A=Box;B=Box;"},
      {"A=\"Box\nB=Box'\n", "A=\"Box;B=Box';"},
      {"A=\"Box'\n", "A=\"Box';"},
      {"A=\"\nB='\nC=\nD=\"\"\n", "A=\";B=';C=;D=;"},
      {"A=\"x\\\"y\\\\z\"\n", "A=x\\\"y\\\\z;"},
      {"A=$x `y` \\z # w\n", "A=$x `y` \\z # w;"},
      {"A=1\ngarbage\n", "line 2"},
      {"A =1\n", "line 1"},
      {"=1\n", "line 1"},
  };
  for (const auto &row : table) {
    EXPECT_EQ(Parsed(row.text, Values::kPlain), row.result) << row.text;
  }
}

class MachineFiles : public testing::Test {
 protected:
  MachineFiles() {
    SetLogName("exampled");
  }
  ~MachineFiles() override {
    distroid_exit();
  }
  std::string File(const std::string &name, const std::string &text) {
    const std::string path = directory_.base() + "/" + name;
    WriteBytes(path, {text.begin(), text.end()});
    paths_.push_back(std::make_unique<std::string>(path));
    return path;
  }
  // A path that lives as long as the test.
  const char *Path(const std::string &name) {
    paths_.push_back(std::make_unique<std::string>(directory_.base() + "/" + name));
    return paths_.back()->c_str();
  }

  TempRegistry directory_;
  std::vector<std::unique_ptr<std::string>> paths_;
};

TEST_F(MachineFiles, DistributionComesFromTheFirstUsableFile) {
  EXPECT_STREQ(distroid_name(), "");
  UseOsReleaseFiles(Path("etc"), Path("usr"));
  EXPECT_NE(distroid_init(), 0);
  EXPECT_STREQ(distroid_description(), "");

  File("usr", "NAME=Fallback\n");
  EXPECT_EQ(distroid_init(), 0);
  EXPECT_STREQ(distroid_name(), "Fallback");
  EXPECT_STREQ(distroid_version(), "");
  File("etc",
       "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nNAME=\"Debian GNU/Linux\"\n"
       "VERSION_ID=\"12\"\nVERSION_CODENAME=bookworm\n");
  EXPECT_EQ(distroid_init(), 0);
  EXPECT_STREQ(distroid_name(), "Fallback") << "until distroid_exit()";
  distroid_exit();
  EXPECT_STREQ(distroid_name(), "");
  EXPECT_EQ(distroid_init(), 0);
  EXPECT_STREQ(distroid_name(), "Debian GNU/Linux");
  EXPECT_STREQ(distroid_flavor(), "bookworm");
  EXPECT_STREQ(distroid_version(), "12");
  EXPECT_STREQ(distroid_description(), "Debian GNU/Linux 12 (bookworm)");
}

TEST_F(MachineFiles, TheVariantIsTheFlavor) {
  auto flavor = [](std::string_view text) {
    int line;
    return DistributionFrom(*ParseAssignments(text, Values::kShell, &line)).flavor;
  };
  EXPECT_EQ(flavor("VARIANT=Server\nVERSION_CODENAME=x\n"), "Server");
  EXPECT_EQ(flavor("VARIANT=\nVERSION_CODENAME=x\n"), "x");
  EXPECT_EQ(flavor("VERSION_CODENAME=x\n"), "x");
  EXPECT_EQ(flavor("NAME=x\n"), "");
}

TEST_F(MachineFiles, ABrokenDistributionFileIsAbsentAndSaidSoOnce) {
  const std::string etc = File("broken", "NAME=x\nthis is no assignment\n");
  File("whole", "NAME=Whole\n");
  UseOsReleaseFiles(Path("broken"), Path("whole"));
  EXPECT_EQ(Logged([] { EXPECT_EQ(distroid_init(), 0); }),
            "exampled: " + etc + ": line 2 is broken, file not used\n");
  EXPECT_STREQ(distroid_name(), "Whole");
  distroid_exit();
  EXPECT_EQ(Logged([] { EXPECT_EQ(distroid_init(), 0); }), "");
}

TEST_F(MachineFiles, SpecialAndLargeFilesAreBroken) {
  ASSERT_EQ(mkfifo(Path("fifo"), 0600), 0);
  EXPECT_NE(
      Logged([&] { EXPECT_FALSE(ReadAssignments(Path("fifo"), Values::kShell)); }).find("regular"),
      std::string::npos);
  File("large", "A=" + std::string(70000, 'x') + "\n");
  EXPECT_NE(Logged([&] {
              EXPECT_FALSE(ReadAssignments(Path("large"), Values::kShell));
            }).find("too large"),
            std::string::npos);
  EXPECT_EQ(Logged([&] { EXPECT_FALSE(ReadAssignments(Path("missing"), Values::kShell)); }), "");
}

// What the file says is asked once a process.
TEST_F(MachineFiles, ACallThatFailsForAMomentCostsNoFile) {
  File("whole", "NAME=Whole\n");
  for (const auto &[call, error] : {std::pair("open", EMFILE), std::pair("fstat", EIO),
                                    std::pair("read", EINTR), std::pair("read", EIO)}) {
    for (const int failures : {1, 2}) {
      const FailingCall failing(call, error, 1, failures);
      std::optional<Assignments> assignments;
      EXPECT_EQ(Logged([&] { assignments = ReadAssignments(Path("whole"), Values::kShell); }), "");
      ASSERT_TRUE(assignments) << call;
      EXPECT_EQ(assignments->find("NAME")->second, "Whole") << call;
      EXPECT_EQ(failing.Failed(), failures) << call;
    }
  }
  for (const auto &[call, error] :
       {std::pair("open", EMFILE), std::pair("fstat", EIO), std::pair("read", EIO)}) {
    const std::string file = File(std::string("never-") + call, "NAME=Whole\n");
    EXPECT_EQ(Logged([&, call = call, error = error] {
                const FailingCall failing(call, error, 1, FailingCall::kAll);
                EXPECT_FALSE(ReadAssignments(file.c_str(), Values::kShell));
                EXPECT_EQ(failing.Failed(), 3) << call;
              }),
              "exampled: " + file + ": " + strerror(error) + ", file not used\n");
  }
}

TEST_F(MachineFiles, AFileBelowAFileIsAbsent) {
  File("whole", "NAME=Whole\n");
  EXPECT_EQ(Logged([&] { EXPECT_FALSE(ReadAssignments(Path("whole/x"), Values::kShell)); }), "");
}

TEST_F(MachineFiles, ApplianceData) {
  UseApplianceFile(Path("none"));
  EXPECT_EQ(is_appliance(), 0);
  EXPECT_EQ(get_appliance_data("ProductID"), nullptr);

  File("full",
       "# the appliance\nProductID=4711\nProductName=\"Example Box\"\nOsName=ExOS\nOsVersion=1.2\n"
       "VcdbName=db\nVcdbVersion=9\nOther=x\n");
  UseApplianceFile(Path("full"));
  EXPECT_NE(is_appliance(), 0);
  const void *id = get_appliance_data("ProductID");
  ASSERT_NE(id, nullptr);
  EXPECT_EQ(*static_cast<const int32_t *>(id), 4711);
  auto text = [](const char *key) {
    const void *value = get_appliance_data(key);
    return value != nullptr ? std::string(static_cast<const char *>(value)) : "null";
  };
  EXPECT_EQ(text("ProductName"), "Example Box");
  EXPECT_EQ(text("OsName"), "ExOS");
  EXPECT_EQ(text("OsVersion"), "1.2");
  EXPECT_EQ(text("VcdbName"), "db");
  EXPECT_EQ(text("VcdbVersion"), "9");
  EXPECT_EQ(text("Other"), "null");
  EXPECT_EQ(get_appliance_data(nullptr), nullptr);

  File("empty", "");
  UseApplianceFile(Path("empty"));
  EXPECT_NE(is_appliance(), 0);
  ASSERT_NE(get_appliance_data("ProductID"), nullptr);
  EXPECT_EQ(*static_cast<const int32_t *>(get_appliance_data("ProductID")), 0);
  EXPECT_EQ(text("ProductName"), "null");
}

TEST_F(MachineFiles, ABrokenApplianceFileIsAbsent) {
  const std::string broken = File("broken", "ProductID=1\n\"\n");
  UseApplianceFile(Path("broken"));
  EXPECT_EQ(Logged([] {
              EXPECT_EQ(is_appliance(), 0);
              EXPECT_EQ(is_appliance(), 0);
              EXPECT_EQ(get_appliance_data("ProductID"), nullptr);
            }),
            "exampled: " + broken + ": line 2 is broken, file not used\n");
}

// What the machine is is asked once a process.
TEST_F(MachineFiles, OneFailedAllocationChangesNoIdentity) {
  File("box", "ProductID=4711\nProductName=\"An example box with a long name\"\nOsName=ExOS\n");
  File("release", "NAME=\"An example distribution, long\"\nVERSION_ID=12\n");
  UseOsReleaseFiles(Path("release"), Path("none"));
  bool failed = true;
  for (int n = 1; failed; n++) {
    SCOPED_TRACE(n);
    UseApplianceFile(Path("box"));
    distroid_exit();
    failed = FailAllocation(n, [] { EXPECT_EQ(is_appliance(), 1); });
    EXPECT_STREQ(static_cast<const char *>(get_appliance_data("OsName")), "ExOS");
    failed |= FailAllocation(n, [] { EXPECT_EQ(distroid_init(), 0); });
    EXPECT_STREQ(distroid_name(), "An example distribution, long");
  }
}

TEST_F(MachineFiles, AProductIdThatIsNoNumberLosesThatKeyAlone) {
  for (const char *id :
       {"x", "1x", "", "2147483648", "4294967295", "0x10", "+7", " ", "7\"", "1.5"}) {
    const std::string path =
        File("number", std::string("ProductID=") + id + "\nProductName=Bob's Box\n");
    UseApplianceFile(Path("number"));
    EXPECT_EQ(Logged([] { EXPECT_NE(is_appliance(), 0); }),
              "exampled: " + path + ": ProductID is not a number of 32 bits, taken as 0\n")
        << id;
    ASSERT_NE(get_appliance_data("ProductID"), nullptr);
    EXPECT_EQ(*static_cast<const int32_t *>(get_appliance_data("ProductID")), 0) << id;
    EXPECT_STREQ(static_cast<const char *>(get_appliance_data("ProductName")), "Bob's Box");
  }
  File("number", "ProductID=-5\n");
  UseApplianceFile(Path("number"));
  ASSERT_NE(is_appliance(), 0);
  EXPECT_EQ(*static_cast<const int32_t *>(get_appliance_data("ProductID")), -5);
}

// ---- Commands

struct Result {
  int status;
  std::string output;
  int length;
  double seconds;
};

Result RunShell(const char *command, int capacity = 64, int limit_ms = 20000) {
  timespec begin;
  timespec end;
  clock_gettime(CLOCK_MONOTONIC, &begin);
  std::vector<char> buffer(static_cast<size_t>(capacity) + 8, '#');
  const CommandResult result =
      RunCommand(command, limit_ms, buffer.data(), static_cast<size_t>(capacity));
  const int length = static_cast<int>(result.length);
  const int status = result.end == CommandResult::kExited ? result.status : -1;
  clock_gettime(CLOCK_MONOTONIC, &end);
  // Nothing is written beyond the capacity.
  for (size_t i = static_cast<size_t>(capacity); i < buffer.size(); i++) {
    EXPECT_EQ(buffer[i], '#');
  }
  return {status, capacity > 0 ? buffer.data() : "", length,
          static_cast<double>(end.tv_sec - begin.tv_sec) +
              static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e9};
}

TEST(Command, GivesOutputAndStatus) {
  Result r = RunShell("echo hello");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.output, "hello\n");
  EXPECT_EQ(r.length, 6);
  r = RunShell("exit 3");
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.output, "");
  EXPECT_EQ(RunShell("/nowhere/command 2>/dev/null").status, 127);
  EXPECT_EQ(RunShell("kill -9 $$").status, -1);
  EXPECT_EQ(RunShell("printf 'a\\n'; printf b").output, "a\nb");
  EXPECT_EQ(process_linux_cmd(nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(process_linux_cmd("exit 4", nullptr, nullptr), 4);
}

TEST(Command, DropsWhatDoesNotFit) {
  Result r = RunShell("seq 1 100000", 10);
  EXPECT_EQ(r.status, 0) << "all of it is read";
  EXPECT_EQ(r.output, "1\n2\n3\n4\n5");
  EXPECT_EQ(r.length, 9);
  r = RunShell("echo 123456789", 10);
  EXPECT_EQ(r.output, "123456789");
  r = RunShell("echo x", 1);
  EXPECT_EQ(r.output, "");
  r = RunShell("echo x", 0);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.length, 0);
}

TEST(Command, EndsWithTheShellWhateverItLeftBehind) {
  const Result r = RunShell("sleep 10 & echo $!; exit 5");
  EXPECT_EQ(r.status, 5);
  EXPECT_LT(r.seconds, 5);
  const int left = atoi(r.output.c_str());
  ASSERT_GT(left, 1);
  EXPECT_EQ(kill(left, 0), 0) << "and leaves that alone";
  kill(left, SIGKILL);
}

TEST(Command, IsKilledWithAllItsProcessesWhenItTakesTooLong) {
  TempRegistry directory;
  const std::string command =
      "sleep 30 & echo $! > " + directory.base() + "/pid; echo begun; sleep 30";
  const Result r = RunShell(command.c_str(), 64, 500);
  EXPECT_EQ(r.status, -1);
  EXPECT_EQ(r.output, "begun\n");
  EXPECT_LT(r.seconds, 5);
  const std::vector<uint8_t> bytes = ReadBytes(directory.base() + "/pid");
  const int left = atoi(std::string(bytes.begin(), bytes.end()).c_str());
  ASSERT_GT(left, 1);
  // Gone, or dead and not yet reaped by whoever inherited it; a moment after the signal.
  std::string text;
  for (int i = 0; i < 100; i++) {
    const std::vector<uint8_t> stat = ReadBytes("/proc/" + std::to_string(left) + "/stat");
    text.assign(stat.begin(), stat.end());
    if (text.empty() || text.find(") Z ") != std::string::npos ||
        text.find(") X ") != std::string::npos) {
      return;
    }
    usleep(50'000);
  }
  FAIL() << "still there: " << text;
}

TEST(Command, StartsFromACleanState) {
  // Whatever the caller blocks or ignores.
  sigset_t blocked;
  sigset_t old;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigaddset(&blocked, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &blocked, &old);
  auto *const handler = signal(SIGPIPE, SIG_IGN);
  const Result masks =
      RunShell("grep -E '^Sig(Blk|Ign):' /proc/self/status | tr -s '\\t\\n' ' '", 200);
  const Result descriptors = RunShell("cat; ls /proc/self/fd | wc -l");
  signal(SIGPIPE, handler);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  int inherited = 0;
  for (int fd = 0; fd < 1024; fd++) {
    const int flags = fcntl(fd, F_GETFD);
    inherited += flags >= 0 && (flags & FD_CLOEXEC) == 0;
  }
  std::istringstream words(masks.output);
  std::string name[2];
  std::string mask[2];
  words >> name[0] >> mask[0] >> name[1] >> mask[1];
  EXPECT_EQ(name[0] + name[1], "SigBlk:SigIgn:");
  EXPECT_EQ(Signals(mask[0]), 0u);
  EXPECT_EQ(Signals(mask[1]), 0u);
  // Nothing to read on standard input; none of our descriptors, and the directory is ls's own.
  EXPECT_EQ(descriptors.output, std::to_string(inherited + 1) + "\n");
}

TEST(Command, IsKilledWhateverItDoes) {
  for (const char *command : {
           "trap '' TERM; while :; do sleep 1; done",             // ignores the request
           "sh -c 'trap \"\" TERM INT HUP; sleep 30' & wait; :",  // its child does
           "exec >/dev/null 2>&1; sleep 30; :",                   // closes its output
           "while :; do echo y; done",                            // never stops writing
           "while :; do echo y >&2; done",
           "kill -STOP $$",
       }) {
    size_t length = 0;
    char output[64];
    timespec begin;
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &begin);
    EXPECT_EQ(run_command(command, 300, output, sizeof(output), &length), COMMAND_TIMED_OUT)
        << command;
    clock_gettime(CLOCK_MONOTONIC, &end);
    EXPECT_LT(end.tv_sec - begin.tv_sec, 5) << command;
  }
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no child is left";
}

TEST(Command, SaysHowItEnded) {
  size_t length = 7;
  char output[8];
  EXPECT_EQ(run_command("printf 'abcdefghij'; exit 3", 20000, output, sizeof(output), &length), 3);
  EXPECT_EQ(length, 7U);
  EXPECT_STREQ(output, "abcdefg");
  EXPECT_EQ(run_command("kill -9 $$", 20000, output, sizeof(output), &length), 128 + SIGKILL);
  EXPECT_EQ(length, 0U);
  EXPECT_EQ(run_command(nullptr, 20000, output, sizeof(output), &length), COMMAND_NOT_RUN);
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none = {0, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_EQ(run_command("echo never", 20000, output, sizeof(output), &length), COMMAND_NOT_RUN);
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(Command, IsNamedInTheLogOnce) {
  SetLogName("exampled");
  const auto run = [](const char *command, int limit_ms = 20000) {
    return Logged([&] { RunShell(command, 64, limit_ms); });
  };
  EXPECT_EQ(run("sleep 30; : first", 200),
            "exampled: Command ran out of time and was killed (0.2 seconds): sleep 30; : first\n");
  EXPECT_EQ(run("sleep 30; : first", 200), "");
  EXPECT_NE(run("sleep 30; : second", 200), "");
  // What it says on its standard error, on one line, until it changes.
  TempRegistry directory;
  const std::string file = directory.base() + "/says";
  const std::string says = "cat " + file + " >&2";
  const auto put = [&](const char *text) { std::ofstream(file) << text; };
  put("one\n\x1b[2Jtwo\n");
  EXPECT_EQ(run(says.c_str()), "exampled: Command says: one; ?[2Jtwo (" + says + ")\n");
  EXPECT_EQ(run(says.c_str()), "");
  EXPECT_EQ(run((says + " # another of the same program").c_str()), "");
  put("three");
  EXPECT_EQ(run(says.c_str()), "exampled: Command says: three (" + says + ")\n");
  put("");
  EXPECT_EQ(run(says.c_str()), "");
  put("three");
  EXPECT_EQ(run(says.c_str()), "exampled: Command says: three (" + says + ")\n");
}

TEST(Command, NewsAreBounded) {
  CommandNews news(true);
  EXPECT_TRUE(news.Tell("tool a", "text"));
  EXPECT_FALSE(news.Tell("tool a", "text"));
  EXPECT_FALSE(news.Tell("tool b", "text"));
  EXPECT_TRUE(news.Tell("other", "text"));
  EXPECT_FALSE(news.Tell("tool a", ""));
  EXPECT_FALSE(news.Tell("tool a", "text")) << "b still says so";
  EXPECT_FALSE(news.Tell("tool a", ""));
  EXPECT_FALSE(news.Tell("tool b", ""));
  EXPECT_TRUE(news.Tell("tool b", "text"));
  for (int i = 0; i < 1000; i++) {
    EXPECT_TRUE(news.Tell(std::to_string(i), "text"));
  }
  EXPECT_TRUE(news.Tell("tool b", "text")) << "forgotten";
}

// Whoever started the process may have the kernel take the status of its children.
TEST(Command, WhoseStatusSomebodyElseTookHasEnded) {
  auto *const before = signal(SIGCHLD, SIG_IGN);
  size_t length = 0;
  char output[64];
  EXPECT_EQ(run_command("echo x; exit 3", 20000, output, sizeof(output), &length), 128);
  EXPECT_STREQ(output, "x\n");
  EXPECT_EQ(run_command("echo y; sleep 30", 100, output, sizeof(output), &length),
            COMMAND_TIMED_OUT);
  EXPECT_STREQ(output, "y\n");
  signal(SIGCHLD, before);
}

TEST(Command, CallsThatFailForAMomentLoseNoOutput) {
  const struct {
    const char *call;
    int error;
    int count;
  } table[] = {{"read", EINTR, 1},    {"read", EINTR, 64}, {"read", EIO, 1},
               {"waitpid", EINTR, 1}, {"poll", EINTR, 3},  {"syscall", ENOSYS, 1}};
  TempRegistry directory;
  for (const auto &row : table) {
    // It ends once it has been looked at: what it says is there before.
    const std::string file = directory.base() + "/go-on";
    const std::string command =
        "echo hello; until [ -e " + file + " ]; do sleep 0.01; done; exit 3";
    const FailingCall failing(row.call, row.error, 1, row.count);
    const FailingCall go_on(
        "poll", [&] { std::ofstream(file) << "x"; }, 2);
    const Result r = RunShell(command.c_str());
    EXPECT_EQ(r.status, 3) << row.call;
    EXPECT_EQ(r.output, "hello\n") << row.call << " " << row.error;
    EXPECT_GT(failing.Failed(), 0) << row.call;
    std::filesystem::remove(file);
  }
}

TEST(Command, ThatCannotBeStartedIsSaidAndLeavesNothing) {
  SetLogName("exampled");
  const auto descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto before = descriptors();
  for (const char *call : {"posix_spawn_file_actions_init", "posix_spawnattr_init"}) {
    size_t length = 7;
    char output[8];
    const std::string command = std::string("echo never # ") + call;
    EXPECT_EQ(Logged([&] {
                const FailingCall no_memory(call, ENOMEM);
                EXPECT_EQ(run_command(command.c_str(), 20000, output, sizeof(output), &length),
                          COMMAND_NOT_RUN);
              }),
              "exampled: Command could not be started: Cannot allocate memory: " + command + "\n");
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(descriptors(), before) << call;
  }
}

// As one that waits in the kernel for what never comes; here its end is not told.
TEST(Command, ThatDoesNotEndWhenKilledIsReapedLater) {
  size_t length = 0;
  char output[64];
  {
    const FailingCall hidden("waitpid", EINTR, 1, FailingCall::kAll);
    EXPECT_EQ(run_command("sleep 30", 10, output, sizeof(output), &length), COMMAND_TIMED_OUT);
  }
  siginfo_t end = {};
  EXPECT_EQ(waitid(P_ALL, 0, &end, WEXITED | WNOWAIT), 0) << "it is still there";
  EXPECT_EQ(run_command("exit 0", 20000, output, sizeof(output), &length), 0);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no child is left";
}

TEST(Command, OutputThatNobodyWantsIsNotStored) {
  char output[8] = "before";
  EXPECT_EQ(process_linux_cmd("echo x; exit 2", output, nullptr), 2);
  EXPECT_STREQ(output, "before");
  for (const int capacity : {0, -1}) {
    int length = capacity;
    EXPECT_EQ(process_linux_cmd("echo x; exit 2", output, &length), 2);
    EXPECT_EQ(length, 0);
    EXPECT_STREQ(output, "before");
  }
  int length = sizeof(output);
  EXPECT_EQ(process_linux_cmd("echo x; exit 2", output, &length), 2);
  EXPECT_EQ(length, 2);
  EXPECT_STREQ(output, "x\n");
}

// ---- Small pieces of framework/process

TEST(Printable, ShowsNothingThatEndsALineOrMovesATerminal) {
  EXPECT_EQ(Printable("a\nb\x1B[2J\x7F~"), "a?b?[2J?~");
  EXPECT_EQ(Printable("a\xC2\x80 \xC2\x9F"), "a?? ??");
  for (const char *text : {"", "\xC2", "a\xC2", "\xC2\xA0", "\xC3\x9F", "\xE2\x82\xAC"}) {
    EXPECT_EQ(Printable(text), text);
  }
  EXPECT_EQ(PrintableLine("a\x7F~\xC3\x9F\n\tb \n"), "a?~??; ?b");
}

TEST(Persistently, AsksThriceBeforeItGivesUp) {
  for (const int failures : {0, 1, 2, 3}) {
    int calls = 0;
    const auto ask = [&] {
      return Guarded(-1, [&] {
        return Persistently([&] {
          if (++calls <= failures) {
            throw std::bad_alloc();
          }
          return calls;
        });
      });
    };
    EXPECT_EQ(ask(), failures < 3 ? failures + 1 : -1);
    EXPECT_EQ(calls, std::min(failures + 1, 3));
  }
}

TEST(Descriptor, MovesAndStaysOpenWhenMovedToItself) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  Descriptor one(ends[0]);
  Descriptor &same = one;
  one = std::move(same);
  EXPECT_EQ(one.get(), ends[0]);
  EXPECT_GE(fcntl(ends[0], F_GETFD), 0);
  Descriptor two(ends[1]);
  two = std::move(one);
  EXPECT_EQ(two.get(), ends[0]);
  EXPECT_EQ(fcntl(ends[1], F_GETFD), -1);
  EXPECT_GE(fcntl(ends[0], F_GETFD), 0);
}

TEST(Command, GoesOnThroughSignals) {
  struct sigaction action = {};
  struct sigaction old;
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, &old);
  const itimerval often = {{0, 20000}, {0, 20000}};
  setitimer(ITIMER_REAL, &often, nullptr);
  const Result r = RunShell("echo a; sleep 0.5; echo b");
  const itimerval never = {};
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &old, nullptr);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.output, "a\nb\n");
  EXPECT_LT(r.seconds, 5);
}

}  // namespace
}  // namespace vex
