// What the SNMP side starts with: its libraries, the configuration files, and where the master is.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "framework/snmp/master_finder.h"
#include "framework/snmp/snmp_config.h"
#include "framework/snmp/snmp_files.h"
#include "framework/snmp/snmp_wire.h"
#include "platform/framework.h"
#include "tests/unit/framework/library_leaks.h"
#include "tests/unit/framework/made_image.h"
#include "tests/unit/framework/session/failing_library.h"

// After net-snmp's other headers:
#include <net-snmp/agent/ds_agent.h>

namespace vex {
namespace {

constexpr char kApplication[] = "vexhostd";

class SnmpSetupTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/snmp_setup.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory_ = pattern;
    setenv("SNMPCONFPATH", directory_.c_str(), 1);
    setenv("SNMP_PERSISTENT_DIR", directory_.c_str(), 1);
  }
  void TearDown() override {
    RestoreLibrary();
    const std::string command = "rm -rf " + directory_;
    EXPECT_EQ(system(command.c_str()), 0);
  }
  void Configure(const std::string &file, const std::string &text) {
    std::ofstream(directory_ + "/" + file) << text;
  }
  // Reads the files as a tool does; what is logged is in log_.
  SnmpFiles Read() {
    testing::internal::CaptureStderr();
    PrepareSnmpLibrary();
    RegisterMasterSettings();
    RegisterAgentxSocket(kApplication);
    const SnmpFiles files = ReadSnmpFiles(kApplication);
    snmp_shutdown(kApplication);
    log_ = testing::internal::GetCapturedStderr();
    return files;
  }

  // Reads them as the agent does.
  void Load(AgentxSession::Settings *session) {
    SnmpSettings settings;
    testing::internal::CaptureStderr();
    EXPECT_NO_THROW(LoadSnmpConfiguration(kApplication, &settings, session));
    UnloadSnmp(kApplication);
    log_ = testing::internal::GetCapturedStderr();
  }

  std::string directory_;
  std::string log_;
};

TEST_F(SnmpSetupTest, CountsUsersByTheWayTheyAreGiven) {
  Configure("snmpd.conf",
            "rouser one\nrwuser two\ngroup readers usm three\ngroup readers v2c four\n"
            "group alone\ntrapsink 127.0.0.1\n");
  const SnmpFiles files = Read();
  EXPECT_EQ(files.users, 3U);
  EXPECT_EQ(files.receivers, 1U);
}

TEST_F(SnmpSetupTest, IntervalsThatAreNone) {
  const struct {
    const char *value;
    int interval;
  } cases[] = {{"99999999999", 60}, {"-99999999999", 0}, {"-1", 0},
               {"\"15\"", 15},      {"'15'", 15},        {"7", 7}};
  for (const auto &c : cases) {
    Configure("vexhostd.conf", std::string("pollInterval ") + c.value + "\n");
    EXPECT_EQ(Read().poll_interval, c.interval) << c.value;
    EXPECT_EQ(log_.find("is not a number of seconds; ignored") != log_.npos, c.interval == 0)
        << c.value;
  }
}

// The second character alone makes no quotation.
TEST_F(SnmpSetupTest, AnApostropheInACommunityIsOfIt) {
  Configure("vexhostd.conf", "community o'clock x\n");
  EXPECT_EQ(Read().community, "o'clock x");
}

TEST_F(SnmpSetupTest, ADirectoryInAFilesPlaceIsSaid) {
  ASSERT_EQ(mkdir((directory_ + "/snmp.conf").c_str(), 0700), 0);
  Read();
  EXPECT_EQ(log_, "vexhostd: " + directory_ + "/snmp.conf: It is a directory, and not read\n");
}

TEST_F(SnmpSetupTest, AnEmptyCommonCommunityIsNone) {
  Configure("snmp.conf", "defCommunity \"\"\n");
  Configure("snmpd.conf", "rocommunity third\n");
  const SnmpFiles files = Read();
  EXPECT_EQ(files.community, "third");
  EXPECT_EQ(files.source, CommunitySource::kMaster);
}

TEST_F(SnmpSetupTest, WithoutDirectoriesThereAreNoFiles) {
  unsetenv("SNMPCONFPATH");
  const FailingLibrary fails("get_configuration_directory", ENOMEM, 1, FailingLibrary::kAll);
  const FailingLibrary *const alive = &fails;
  EXPECT_TRUE(UnreadableSnmpFiles(kApplication).empty());
  EXPECT_EQ(alive->Failed(), 1);
}

TEST_F(SnmpSetupTest, FilesThatMayNotBeRead) {
  const FailingLibrary fails("access", EACCES, 2);
  EXPECT_EQ(UnreadableSnmpFiles(kApplication),
            (std::vector<std::string>{directory_ + "/vexhostd.local.conf"}));
  EXPECT_EQ(FailingLibrary::Failed(), 1);
}

TEST_F(SnmpSetupTest, TheMastersSocketIsTheDefaultWhenNothingIsSaid) {
  netsnmp_clear_default_target();
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, nullptr);
  EXPECT_EQ(AgentxTarget(), "");
  RegisterAgentxSocket(kApplication);
  EXPECT_EQ(AgentxTarget(), "/var/agentx/master");
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, "");
  EXPECT_EQ(AgentxTarget(), "/var/agentx/master");
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, "unix:/run/x");
  EXPECT_EQ(AgentxTarget(), "unix:/run/x");
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, nullptr);
}

// What the library says goes into our log, line by line; of unknown tokens only our own files'.
TEST_F(SnmpSetupTest, TheLibrarysMessagesAreOurs) {
  const struct {
    int priority;
    std::string message;
    std::string logged;
  } cases[] = {
      {LOG_WARNING, "a line\n", "a line\n"},
      {LOG_WARNING, "no end of line", "no end of line\n"},
      {LOG_WARNING, "", "\n"},
      {LOG_DEBUG, "a detail\n", ""},
      {LOG_WARNING, "vexhostd.conf: line 1: Warning: Unknown token: x.\n",
       "vexhostd.conf: line 1: Warning: Unknown token: x.\n"},
      {LOG_WARNING, "snmp.conf: line 1: Warning: Unknown token: x.\n", ""},
      {LOG_WARNING, directory_ + "/vexhostd.local.conf: line 1: Warning: Unknown token: x.\n",
       directory_ + "/vexhostd.local.conf: line 1: Warning: Unknown token: x.\n"},
      {LOG_WARNING, "/elsewhere/vexhostd.conf: line 1: Warning: Unknown token: x.\n", ""}};
  PrepareSnmpLibrary();
  ReportUnknownTokens(kApplication);
  for (const auto &c : cases) {
    testing::internal::CaptureStderr();
    snmp_log(c.priority, "%s", c.message.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.logged) << c.message;
  }
  testing::internal::CaptureStderr();
  snmp_call_callbacks(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, nullptr);
  snmp_log_message nothing = {};
  snmp_call_callbacks(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, &nothing);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(SnmpSetupTest, WordsOfLinesThatStopAnywhere) {
  EXPECT_EQ(WordsOf("a\rb\r\n"), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(WordsOf("a\\"), (std::vector<std::string>{"a\\"}));
  EXPECT_EQ(WordsOf("\"a\\"), (std::vector<std::string>{"a\\"}));
  EXPECT_EQ(SourceOfLine("com2sec", ""), "");
  EXPECT_EQ(CommunityOfLine("com2sec", ""), "");
}

// What the library lets through and is no time at all.
TEST_F(SnmpSetupTest, TimesThatAreNone) {
  Configure("vexhostd.conf", "agentXPingInterval -5\nagentXTimeout -3\n");
  AgentxSession::Settings session;
  Load(&session);
  EXPECT_EQ(session.ping_seconds, 15);
  EXPECT_EQ(session.timeout_seconds, 0);
  const FailingLibrary unknown("netsnmp_ds_get_int", 0, 1, 1);
  Load(&session);
  EXPECT_EQ(FailingLibrary::Failed(), 1);
  EXPECT_EQ(session.ping_seconds, 15);
}

// The library reads each file twice.
TEST_F(SnmpSetupTest, AnUnknownTokenIsSaidOnce) {
  Configure("vexhostd.conf", "polInterval 5\n");
  AgentxSession::Settings session;
  Load(&session);
  EXPECT_EQ(log_, directory_ + "/vexhostd.conf: line 1: Warning: Unknown token: polInterval.\n");
}

// It has one octet.
TEST_F(SnmpSetupTest, ALongTimeForTheMasterIsTheLongestThatItCanBeTold) {
  AgentxSession::Settings session;
  for (const auto &[configured, told] :
       {std::pair(254, 254), {255, 255}, {256, 255}, {1000, 255}}) {
    Configure("vexhostd.conf", "agentXTimeout " + std::to_string(configured) + "\n");
    Load(&session);
    EXPECT_EQ(session.timeout_seconds, told) << configured;
  }
}

std::string WhyItDoesNotLoad() {
  SnmpSettings settings;
  AgentxSession::Settings session;
  try {
    LoadSnmpConfiguration(kApplication, &settings, &session);
    UnloadSnmp(kApplication);
  } catch (const std::exception &e) {
    return e.what();
  }
  return "";
}

TEST_F(SnmpSetupTest, AnAgentLibraryThatIsNotAsItShouldBeIsSaid) {
  for (const char *function : {"dladdr", "dlopen", "dlsym"}) {
    const FailingLibrary fails(function);
    EXPECT_EQ(WhyItDoesNotLoad(), "init_agent() of the SNMP agent library not found") << function;
    EXPECT_EQ(FailingLibrary::Failed(), 1) << function;
  }
  TheLibrary().init_agent = [](const char *) { return -1; };
  EXPECT_EQ(WhyItDoesNotLoad(), "the SNMP agent library does not start");
}

// What is left of a start that has failed would say the next one's messages as well.
TEST_F(SnmpSetupTest, AConfigurationThatIsRefusedLeavesNothing) {
  const std::string pipe = directory_ + "/vexhostd.conf";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(WhyItDoesNotLoad(), pipe + ": It is a pipe");
  testing::internal::CaptureStderr();
  PrepareSnmpLibrary();
  snmp_log(LOG_WARNING, "a line\n");
  snmp_shutdown(kApplication);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "a line\n");
}

// ---- The master's socket ----

MasterAddress AtPath(const std::string &path) {
  MasterAddress address;
  address.target = "unix:" + path;
  address.unix_path = path;
  return address;
}

void Touch(const std::string &path) {
  std::ofstream(path) << "x";
}

TEST_F(SnmpSetupTest, SeesTheMastersSocketAmongOtherFiles) {
  MasterFinder finder(AtPath(directory_ + "/master"));
  finder.Watch();
  finder.Failed(ENOENT);
  Touch(directory_ + "/other");
  EXPECT_FALSE(finder.WatchReady());
  EXPECT_GT(finder.NextAttempt(), Clock::now() - std::chrono::seconds(1));
  Touch(directory_ + "/first");
  Touch(directory_ + "/master");
  Touch(directory_ + "/last");
  EXPECT_TRUE(finder.WatchReady());
  EXPECT_LE(finder.NextAttempt(), Clock::now());
  EXPECT_FALSE(finder.WatchReady());
  // The directory itself is another one now: who may go in has changed.
  ASSERT_EQ(chmod(directory_.c_str(), 0755), 0);
  EXPECT_TRUE(finder.WatchReady());
}

// A path without a directory is one in the working directory, where connecting looks, too.
TEST_F(SnmpSetupTest, SeesASocketInTheWorkingDirectory) {
  char before[4096];
  ASSERT_NE(getcwd(before, sizeof(before)), nullptr);
  ASSERT_EQ(chdir(directory_.c_str()), 0);
  MasterFinder finder(AtPath("master"));
  finder.Watch();
  Touch("master");
  EXPECT_TRUE(finder.WatchReady());
  EXPECT_EQ(chdir(before), 0);
}

TEST_F(SnmpSetupTest, SeesASocketInTheRoot) {
  MasterFinder finder(AtPath("/" + directory_.substr(5)));
  finder.Watch();
  EXPECT_GE(finder.WatchFd(), 0);
  EXPECT_FALSE(finder.WatchReady());
}

TEST_F(SnmpSetupTest, WithoutAWatchTimeAloneTells) {
  MasterFinder finder(AtPath(directory_ + "/master"));
  const FailingLibrary fails("inotify_init1", EMFILE);
  finder.Watch();
  EXPECT_EQ(finder.WatchFd(), -1);
  finder.Failed(ENOENT);
  EXPECT_LE(finder.NextAttempt(), Clock::now() + std::chrono::milliseconds(200));
  finder.Watch();
  EXPECT_GE(finder.WatchFd(), 0);
}

// The process may have been started without standard input.
TEST_F(SnmpSetupTest, AWatchIsOneWhateverItsDescriptor) {
  const int input = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  MasterFinder finder(AtPath(directory_ + "/master"));
  for (int times = 0; times < 2; times++) {
    finder.Watch();
    EXPECT_EQ(finder.WatchFd(), STDIN_FILENO);
  }
  finder.Found();
  EXPECT_EQ(finder.WatchFd(), -1);
  EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
  if (input >= 0) {
    dup2(input, STDIN_FILENO);
    close(input);
  }
}

// ---- What the SNMP process says of a set ----

// The variable's access in the module stands above what an object says.
TEST(SnmpWire, AnItemThatSaysMoreThanItHasIsNotSet) {
  const std::shared_ptr<Image> image = MakeImage(5, 0, {"tlxHoGenericData"});
  auto layout = std::make_shared<Layout>(*image->layout);
  image->layout = layout;
  EXPECT_TRUE(MaySet(*image, {5, 0, {'a', 0}, 1}));
  EXPECT_FALSE(MaySet(*image, {5, 0, {'a', 0, 0}, 1}));
  EXPECT_FALSE(MaySet(*image, {5, 0, {'a'}, 1}));
  layout->variables[0].size = -1;
  EXPECT_FALSE(MaySet(*image, {5, 0, {0}, 0}));
  layout->variables[0].size = 20;
  layout->variables[0].mib = FindMibVariable("tlxHoSwVerNextIndex");
  EXPECT_FALSE(MaySet(*image, {5, 0, {'a', 0}, 1}));
}

}  // namespace
}  // namespace vex
