// Options, start-up, poll and end, as the framework's hooks.
#include <errno.h>
#include <getopt.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <random>

#include "agent/orders.h"
#include "tests/support/recording_framework.h"

namespace {

// A machine on which every group can be built.
class Agent : public testing::Test {
 protected:
  void SetUp() override {
    rec::PutFile("/proc/stat", "cpu  1 0 0 1\ncpu0 1 0 0 1\n");
    rec::PutFile("/proc/meminfo", "MemTotal: 2048 kB\n");
    rec::PutFile("/etc/mtab", "");
    rec::PutNothing("/vmfs");
  }

  int Start(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "vexhostd");
    std::vector<char *> argv;
    for (std::string &argument : arguments) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    optind = 1;
    return init_agent(static_cast<int>(arguments.size()), argv.data());
  }

  // Where the first event of that kind stands in the course of things; the test fails without one.
  int Place(const std::string &operation, const std::string &name) {
    for (size_t i = 0; i < rec::Events().size(); i++) {
      if (rec::Events()[i].operation == operation && rec::Events()[i].name == name) {
        return static_cast<int>(i);
      }
    }
    ADD_FAILURE() << "no " << operation << " of " << name;
    return -1;
  }

  const std::string snmpd_size_ =
      "SNMPDPID=`/sbin/pidof snmpd`; [ ! -z \"$SNMPDPID\" ] && ps -o vsz $SNMPDPID | grep -v SZ | "
      "sort -u";
  const std::vector<std::string> usage_ = {
      "USAGE vexhostd: \n",
      "  -l arg : Enable logging. Logfile is specified as argument\n",
      "  -p arg : Poll frequency (in seconds)\n",
      "  -i     : Ignore Peer stop message\n",
      "  -s arg : Configure MIB item 'sets':\n",
      "             OK     - enable sets\n",
      "             NOT_OK - disable sets\n",
      "  -t arg : Configure traps:\n",
      "             OK     - enable traps\n",
      "             NOT_OK - disable traps\n",
  };
};

TEST_F(Agent, NeedsAnArgument) {
  EXPECT_EQ(Start({}), -1);
  EXPECT_EQ(rec::Messages(),
            std::vector<std::string>{"vexhostd: Insufficient parameters  (PEER3001)\n"});
  EXPECT_EQ(rec::Events().size(), 1u);  // neither a pause nor anything in the registry
  EXPECT_EQ(ignore_peer_stop, 0);
}

TEST_F(Agent, PausesOnceBeforeTheOptions) {
  EXPECT_EQ(Start({"-h"}), -1);
  EXPECT_EQ(rec::Names("sleep"), std::vector<std::string>{"5"});
  EXPECT_LT(Place("sleep", "5"), Place("agentlog_fprintf", usage_[0]));
  EXPECT_EQ(Start({"-i"}), 0);
  EXPECT_EQ(rec::Count("sleep"), 1);
}

TEST_F(Agent, PrintsItsUsage) {
  EXPECT_EQ(Start({"-h"}), -1);
  EXPECT_EQ(rec::Messages(), usage_);
  EXPECT_EQ(rec::Count("create_dir"), 0);
}

TEST_F(Agent, RefusesUnknownOptions) {
  EXPECT_EQ(Start({"-x"}), -1);
  std::vector<std::string> expected = usage_;
  expected.insert(expected.begin(), "vexhostd: Unknown command line option: ?  (PEER3022)\n");
  EXPECT_EQ(rec::Messages(), expected);
}

TEST_F(Agent, RefusesAnOptionWithoutItsArgument) {
  EXPECT_EQ(Start({"-p"}), -1);
  EXPECT_EQ(rec::Messages()[0], "vexhostd: Unknown command line option: ?  (PEER3022)\n");
}

TEST_F(Agent, LogOptionIsNotTheAgents) {
  EXPECT_EQ(Start({"-l", "/tmp/x"}), -1);
  EXPECT_EQ(rec::Messages()[0], "vexhostd: Unknown command line option: ?  (PEER3022)\n");
}

TEST_F(Agent, SetsThePollTime) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"30", "30"}, {"60", "60"}, {"61", "60"}, {"75", "60"}, {"99999999999999999999", "60"},
      {"0", "0"},   {"abc", "0"}, {"7x", "7"},
  };
  for (const auto &[argument, passed_on] : cases) {
    rec::ForgetEvents();
    EXPECT_EQ(Start({"-p", argument, "-h"}), -1);
    EXPECT_EQ(rec::Names("set_poll_time"), std::vector<std::string>{passed_on}) << argument;
  }
}

TEST_F(Agent, RefusesANegativePollTime) {
  for (const char *argument : {"-1", "-99999999999999999999"}) {
    rec::ForgetEvents();
    EXPECT_EQ(Start({"-p", argument}), -1);
    EXPECT_EQ(rec::Messages(),
              std::vector<std::string>{"vexhostd: Invalid polling rate  (PEER3002)\n"});
    EXPECT_EQ(rec::Count("set_poll_time"), 0);
    EXPECT_EQ(rec::Count("create_dir"), 0);
  }
}

TEST_F(Agent, PassesOnTheStatesOfSetsAndTraps) {
  EXPECT_EQ(Start({"-s", "OK", "-t", "NOT_OK"}), 0);
  EXPECT_EQ(rec::Names("cfg_set_state"), std::vector<std::string>{"0"});
  EXPECT_EQ(rec::Names("cfg_trap_state"), std::vector<std::string>{"-1"});
}

TEST_F(Agent, RefusesOtherStates) {
  EXPECT_EQ(Start({"-s", "ok"}), -1);
  EXPECT_EQ(rec::Names("cfg_set_state"), std::vector<std::string>{"9999"});
  EXPECT_EQ(Start({"-t", "NOT OK"}), -1);
  EXPECT_EQ(rec::Names("cfg_trap_state"), std::vector<std::string>{"9999"});
  EXPECT_EQ(rec::Messages(),
            (std::vector<std::string>{"vexhostd: Bad set argument: ok  (PEER3005)\n",
                                      "vexhostd: Bad trap argument: NOT OK  (PEER3005)\n"}));
}

TEST_F(Agent, TheFirstBadOptionEndsIt) {
  EXPECT_EQ(Start({"-p", "-1", "-s", "ok", "-x"}), -1);
  EXPECT_EQ(rec::Messages().size(), 1u);
  EXPECT_EQ(rec::Count("cfg_set_state"), 0);
}

// Whatever words there are, an option among them that is none ends the start with a message, before
// there is anything that somebody could see, and no poll period gets out of bounds.
TEST_F(Agent, MakesNothingOfSenselessWords) {
  const std::vector<std::string> words = {
      "-p",   "-s",       "-t",     "-i",       "-z",   "-l",
      "-p60", "-p-1",     "-sOK",   "-tNOT_OK", "OK",   "ok",
      "",     "-",        "--help", "-p=5",     "-é",   "-iz",
      "-ip",  "7",        "-7",     "0x10",     "1e9",  "%s%n",
      "\n",   "NOT_OK\n", "+5",     "-W;",      "-ppp", "99999999999999999999999999"};
  std::mt19937 random(11);
  constexpr int kTries = 5000;
  for (int i = 0; i < kTries; i++) {
    rec::ForgetEvents();
    std::vector<std::string> arguments;
    for (size_t n = random() % 7; n > 0; n--) {
      arguments.push_back(random() % 50 != 0 ? words[random() % words.size()]
                                             : std::string(random() % 100000, '-') + "p");
    }
    arguments.insert(arguments.begin() + static_cast<long>(random() % (arguments.size() + 1)),
                     "-x");
    // An option that has swallowed it is followed by one that nothing can swallow.
    arguments.insert(arguments.end(), {"OK", "-x"});
    EXPECT_EQ(Start(arguments), -1) << testing::PrintToString(arguments);
    EXPECT_FALSE(rec::Messages().empty());
    EXPECT_EQ(rec::Count("create_dir"), 0);
    for (const std::string &period : rec::Names("set_poll_time")) {
      EXPECT_GE(std::stol(period), 0) << period;
      EXPECT_LE(std::stol(period), 60) << period;
    }
  }
  printf("%d malformed\n", kTries);
}

TEST_F(Agent, AlwaysIgnoresPeerStops) {
  EXPECT_EQ(Start({"something"}), 0);
  EXPECT_EQ(ignore_peer_stop, 1);
}

TEST_F(Agent, EmptiesItsDirectoryBeforeAnyObject) {
  ASSERT_EQ(Start({"-i"}), 0);
  const std::string dir = "/var/spool/quorix/kelmo/registry/host";
  EXPECT_EQ(log_dir, dir);
  EXPECT_EQ(rec::Names("create_dir"), std::vector<std::string>{dir});
  EXPECT_EQ(rec::Events()[static_cast<size_t>(Place("create_dir", dir))].data, "1");
  EXPECT_LT(Place("claim_dir", dir), Place("create_dir", dir));
  EXPECT_LT(Place("create_dir", dir), Place("remove_all_dir", dir + "/*"));
  EXPECT_LT(Place("remove_all_dir", dir + "/*"), Place("init_snmp_appname", "vexhostd"));
  EXPECT_LT(Place("init_snmp_appname", "vexhostd"), Place("create_obj", "host/memory"));
}

TEST_F(Agent, TouchesNothingOfADirectoryThatAnotherProcessHas) {
  const std::string dir = "/var/spool/quorix/kelmo/registry/host";
  rec::Fail("claim_dir", dir);
  EXPECT_EQ(Start({"-i"}), -1);
  EXPECT_EQ(rec::Names("claim_dir"), std::vector<std::string>{dir});
  for (const char *operation :
       {"create_dir", "remove_all_dir", "init_snmp_appname", "create_obj"}) {
    EXPECT_EQ(rec::Count(operation), 0) << operation;
  }
}

TEST_F(Agent, SaysThatItsDirectoryCannotBeCleared) {
  rec::Fail("remove_all_dir", "*/host/*");
  errno = 0;
  EXPECT_EQ(Start({"-i"}), 0);
  ASSERT_FALSE(rec::Messages().empty());
  EXPECT_TRUE(rec::Messages()[0].starts_with(
      "vexhostd: Can't clear registry directory /var/spool/quorix/kelmo/registry/host: "))
      << rec::Messages()[0];
}

TEST_F(Agent, GoesOnWithoutACommunity) {
  rec::SetCommunity("");
  EXPECT_EQ(Start({"-i"}), 0);
  ASSERT_FALSE(rec::Messages().empty());
  EXPECT_EQ(rec::Messages()[0], "Failed to find a community_string, trying to continue...\n");
}

// One that nothing else of a start comes near.
TEST_F(Agent, LetsGoOfTheCommunity) {
  const auto in_use = [] {
    const struct mallinfo2 memory = mallinfo2();
    return memory.uordblks + memory.hblkhd;
  };
  constexpr size_t kLarge = 8 << 20;
  rec::SetCommunity(std::string(kLarge, 'c'));
  const size_t before = in_use();
  EXPECT_EQ(Start({"-i"}), 0);
  EXPECT_LT(in_use(), before + kLarge);
}

TEST_F(Agent, BuildsTheGroupsInOrder) {
  rec::PutFile("/etc/mtab", "/dev/x / ext4 rw 0 0\n");
  ASSERT_EQ(Start({"-i", "-z"}), 0);
  EXPECT_LT(Place("create_obj", "host/filesys.0"), Place("create_obj", "host/memory"));
  EXPECT_LT(Place("create_obj", "host/memory"), Place("create_obj", "host/misc"));
  EXPECT_LT(Place("create_obj", "host/misc"), Place("create_obj", "host/cpu.0"));
  EXPECT_LT(Place("create_obj", "host/cpu.0"), Place("process_linux_cmd", snmpd_size_));
  EXPECT_LT(Place("process_linux_cmd", snmpd_size_), Place("create_obj", "host/hwinfo"));
}

TEST_F(Agent, AFailingGroupEndsStartUp) {
  rec::Fail("create_obj", "host/memory");
  EXPECT_EQ(Start({"-i"}), -1);
  EXPECT_EQ(rec::Count("create_obj", "host/cpu.*"), 0);
}

TEST_F(Agent, HardwareInfoThatCannotBeBuiltFailsStartUp) {
  rec::Fail("create_obj", "host/hwinfo");
  EXPECT_EQ(Start({"-i"}), -1);
  const std::vector<std::string> &messages = rec::Messages();
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(),
            "vexhostd: Start-up failed: the hardware-info group could not be built\n");
}

TEST_F(Agent, TheWatchdogRunsOnlyWithItsOption) {
  ASSERT_EQ(Start({"-i"}), 0);
  rec::SetTime(1'000'000'000);
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(rec::Count("process_linux_cmd"), 0);
}

TEST_F(Agent, TheWatchdogRunsAlsoAfterAFailedPoll) {
  rec::SetTime(1'000'000'000);
  ASSERT_EQ(Start({"-z"}), 0);
  EXPECT_EQ(rec::Names("process_linux_cmd"), std::vector<std::string>{snmpd_size_});
  rec::ForgetEvents();
  rec::SetTime(1'000'001'799);
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(rec::Count("process_linux_cmd"), 0);
  rec::Fail("find_obj", "host/cpu.0");
  rec::SetTime(1'000'001'800);
  EXPECT_EQ(get_data(), -1);
  EXPECT_EQ(rec::Names("process_linux_cmd"), std::vector<std::string>{snmpd_size_});
  EXPECT_EQ(rec::Events().back().operation, "alarm");
}

TEST_F(Agent, PollsInOrderBetweenTheAlarms) {
  rec::PutFile("/etc/mtab", "/dev/x / ext4 rw 0 0\n");
  rec::PutMount("/", {MOUNT_ANSWERED, 0, 4096, 1024, 10, 10, 5});
  ASSERT_EQ(Start({"-p", "20"}), 0);
  rec::PutMount("/", {MOUNT_ANSWERED, 0, 4096, 1024, 10, 10, 4});
  rec::ForgetEvents();
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(rec::Names("alarm"), (std::vector<std::string>{"0", "20"}));
  EXPECT_EQ(rec::Events().front().operation, "alarm");
  EXPECT_EQ(rec::Events().back().operation, "alarm");
  EXPECT_LT(Place("log_data", "host/cpu.0"), Place("log_data", "host/filesys.0"));
  EXPECT_LT(Place("log_data", "host/filesys.0"), Place("log_data", "host/memory"));
  EXPECT_EQ(rec::Count("log_data", "host/hwinfo"), 0);
}

// On a machine on which nothing changes from one poll to the next.
TEST_F(Agent, EveryGroupIsPublishedAsOftenAsItsRecordSays) {
  rec::PutDirectory("/proc");
  rec::PutNothing("/var/lib/dpkg/available");
  rec::PutFile("/etc/mtab", "/dev/x / ext4 rw 0 0\n");
  rec::PutFile("/proc/scsi/scsi",
               "Attached devices:\nHost: scsi0 Channel: 00 Id: 00 Lun: 00\n"
               "  Vendor: MAKER    Model: DISK             Rev: 1.05\n"
               "  Type:   Direct-Access                    ANSI  SCSI revision: 05\n");
  ASSERT_EQ(Start({"-i"}), 0);
  for (int poll = 0; poll < 2; poll++) {
    ASSERT_EQ(get_data(), 0);
  }
  std::map<std::string, int> published;
  for (const std::string &name : rec::LiveNames()) {
    published[name] = rec::Publications(name);
  }
  for (int poll = 0; poll < 3; poll++) {
    ASSERT_EQ(get_data(), 0);
  }
  for (const group *const *order : {poll_order, detail_order}) {
    for (; *order != nullptr; order++) {
      for (const group *one = *order; one != nullptr; one = one->along) {
        const std::string name = std::string("host/") + one->name;
        int objects = 0;
        for (const auto &[object, before] : published) {
          if (object == name || object.starts_with(name + ".")) {
            EXPECT_EQ(rec::Publications(object) - before, one->each_poll ? 3 : 0) << object;
            objects++;
          }
        }
        EXPECT_GT(objects, 0) << name << " has no object here; give it above what it reads";
      }
    }
  }
}

// Without effect in this framework; another build of it may go by the flags of these groups. It
// knows no others.
TEST_F(Agent, FlagsOfGroupsThatOthersKnowStay) {
  std::map<std::string, int> expected = {
      {"cpu", 1},  {"filesys", 1}, {"fwver", 1},  {"info", 1},      {"memory", 0},
      {"misc", 0}, {"swver", 1},   {"hwinfo", 1}, {"appliance", 0},
  };
  for (const group *const *order : {start_order, last_order}) {
    for (; *order != nullptr; order++) {
      const auto known = expected.find((*order)->name);
      if (known != expected.end()) {
        EXPECT_EQ((*order)->flag, known->second) << known->first;
        expected.erase(known);
      }
    }
  }
  EXPECT_EQ(expected, (std::map<std::string, int>{})) << "are in no order";
}

TEST_F(Agent, AGroupOfDetailsThatFailsIsALineAndHoldsUpNoOther) {
  rec::Fail("create_obj", "host/load");
  ASSERT_EQ(Start({"-i"}), 0);
  EXPECT_EQ(rec::Messages().back(), "vexhostd: The load group failed, and is not refreshed\n");
  rec::ForgetEvents();
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{});
  EXPECT_EQ(rec::Count("log_data", "host/agent"), 1);
  rec::StopFailing();
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(rec::Messages(),
            std::vector<std::string>{"vexhostd: All groups of details are refreshed again\n"});
}

TEST_F(Agent, AFailingCollectorEndsTheRefreshAndNotTheAgent) {
  ASSERT_EQ(Start({"-i"}), 0);
  rec::ForgetEvents();
  rec::Fail("find_obj", "host/cpu.0", 1);
  EXPECT_EQ(get_data(), -1);
  // The details alone, which depend on no other group.
  std::vector<std::string> details;
  for (const group *const *order = detail_order; *order != nullptr; order++) {
    for (const std::string &object : rec::LiveNames()) {
      const std::string name = std::string("host/") + (*order)->name;
      if ((*order)->each_poll && (object == name || object.starts_with(name + "."))) {
        details.push_back(object);
      }
    }
  }
  EXPECT_FALSE(details.empty());
  EXPECT_EQ(rec::Names("log_data"), details);
  EXPECT_EQ(rec::Names("alarm"), (std::vector<std::string>{"0", "15"}));
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(rec::Count("log_data", "host/memory"), 1);
}

TEST_F(Agent, SaysOnceThatPollsEndEarlyAndOnceThatTheyAreWhole) {
  ASSERT_EQ(Start({"-i"}), 0);
  const auto poll = [] {
    rec::ForgetEvents();
    get_data();
    return rec::Messages();
  };
  rec::Fail("find_obj", "host/cpu.0");
  EXPECT_EQ(poll(), std::vector<std::string>{"vexhostd: The poll ended early: the processors group "
                                             "failed, and what follows it is not refreshed\n"});
  EXPECT_EQ(poll(), std::vector<std::string>{});
  rec::StopFailing();
  EXPECT_EQ(poll(), std::vector<std::string>{"vexhostd: Polls are whole again\n"});
  EXPECT_EQ(poll(), std::vector<std::string>{});
}

TEST_F(Agent, LeavesTheRestOutOnceItIsToEnd) {
  ASSERT_EQ(Start({"-z"}), 0);
  rec::ForgetEvents();
  rec::Fail("agent_ending");
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(rec::Count("log_data"), 0);
  EXPECT_EQ(rec::Count("process_linux_cmd"), 0);
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{});
}

TEST_F(Agent, AStartThatIsToldToEndDuringItsPauseMakesNothing) {
  rec::Fail("agent_ending");
  EXPECT_EQ(Start({"-i"}), 0);
  EXPECT_TRUE(rec::LiveNames().empty());
  EXPECT_EQ(cleanup_agent(), 0);
}

// Wherever it is told to, from the first question whether it was on.
TEST_F(Agent, AnEndAmidAPollIsNoFailure) {
  ASSERT_EQ(Start({"-i"}), 0);
  int ended = 0;
  for (int question = 1; ended < 2; question++) {
    ASSERT_LT(question, 1000);
    SCOPED_TRACE(question);
    rec::ForgetEvents();
    rec::Fail("agent_ending", "", -question);
    EXPECT_EQ(get_data(), 0);
    EXPECT_EQ(rec::Messages(), std::vector<std::string>{});
    // The last question has been asked when the poll was whole.
    ended += rec::Count("log_data", "host/agent") == 1 ? 1 : 0;
    rec::StopFailing();
  }
}

TEST_F(Agent, AGroupThatFailsAtTheEndIsNoFailure) {
  ASSERT_EQ(Start({"-i"}), 0);
  rec::ForgetEvents();
  // Between the first group's turn and its result.
  rec::Fail("find_obj", "host/cpu.0");
  rec::Fail("agent_ending", "", -2);
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{});
}

TEST_F(Agent, AGroupOfDetailsThatFailsAtTheEndIsNotSpokenOf) {
  ASSERT_EQ(Start({"-i"}), 0);
  for (int question = 1; question < 40; question++) {
    SCOPED_TRACE(question);
    rec::ForgetEvents();
    rec::Fail("find_obj", "host/load");
    rec::Fail("create_obj", "host/load");
    rec::Fail("agent_ending", "", -question);
    EXPECT_EQ(get_data(), 0);
    const bool whole = rec::Count("log_data", "host/agent") == 1;
    rec::StopFailing();
    if (whole) {
      break;
    }
    EXPECT_EQ(rec::Messages(), std::vector<std::string>{});
  }
}

TEST_F(Agent, TheFirstOfTwoGroupsOfDetailsThatFailIsSpokenOf) {
  rec::Fail("create_obj", "host/load");
  rec::Fail("create_obj", "host/memdetail");
  ASSERT_EQ(Start({"-i"}), 0);
  EXPECT_EQ(rec::Messages().back(),
            "vexhostd: The memory detail group failed, and is not refreshed\n");
}

// One start for each question whether it is to end, each in a process of its own.
TEST_F(Agent, AnEndAmidAStartIsNoFailure) {
  bool whole = false;
  for (int question = 1; !whole; question++) {
    ASSERT_LT(question, 1000);
    const pid_t start = fork();
    ASSERT_GE(start, 0);
    if (start == 0) {
      // What rpm was not asked for any more is not defined.
      rec::AllowUndefinedSlots("host/swverag");
      rec::Fail("agent_ending", "", -question);
      const bool quiet = Start({"-i"}) == 0 && rec::Count("agentlog_fprintf", "*failed*") == 0;
      _exit(!quiet ? 2 : rec::Count("log_data", "host/agent") == 1 ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(start, &status, 0), start);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_LT(WEXITSTATUS(status), 2) << question;
    whole = WEXITSTATUS(status) == 1;
  }
}

TEST_F(Agent, AVariableThatCouldNotBeDefinedIsByALaterPoll) {
  rec::AllowUndefinedSlots("host/hwinfo");
  rec::PutEv("ZTHRN4", std::string(8, '\0'));
  rec::Fail("init_info", "tlxHoHWInfoPlatform");
  ASSERT_EQ(Start({"-i"}), 0);
  EXPECT_EQ(rec::Live("host/hwinfo")->desc[0].type, 0);
  const int published = rec::Publications("host/hwinfo");
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(rec::Live("host/hwinfo")->desc[0].type, 0);
  rec::StopFailing();
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(rec::Live("host/hwinfo")->desc[0].type, VAR_INTEGER);
  EXPECT_EQ(rec::Publications("host/hwinfo"), published + 1);
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(rec::Publications("host/hwinfo"), published + 1);
}

TEST_F(Agent, WhatIsPublishedOnceIsByTheNextPollWhenThatFailed) {
  rec::SetAppliance(true, 7, {{"ProductName", "Box"}});
  rec::Fail("log_data", "host/appliance");
  ASSERT_EQ(Start({"-i"}), 0);
  EXPECT_EQ(rec::Publications("host/appliance"), 0);
  rec::StopFailing();
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(rec::Publications("host/appliance"), 1);
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(rec::Publications("host/appliance"), 1);
}

TEST_F(Agent, ADeletedObjectIsNotMadeUpFor) {
  rec::PutFile("/etc/mtab", "/dev/x /x ext4 rw 0 0\n");
  rec::AllowUndefinedSlots("host/filesys.0");
  rec::Fail("init_info", "tlxHoFileSysDesc");
  ASSERT_EQ(Start({"-i"}), 0);
  rec::PutFile("/etc/mtab", "");
  for (int poll = 0; poll < 3; poll++) {
    EXPECT_EQ(get_data(), 0);
  }
  rec::StopFailing();
  EXPECT_EQ(get_data(), 0);
  EXPECT_EQ(rec::Live("host/filesys.0"), nullptr);
}

TEST_F(Agent, DeletesTheFileSystemRowsFirstAtTheEnd) {
  rec::PutFile("/etc/mtab", "/dev/x / ext4 rw 0 0\n/dev/y /y ext4 rw 0 0\n");
  ASSERT_EQ(Start({"-i"}), 0);
  EXPECT_EQ(cleanup_agent(), 0);
  EXPECT_EQ(rec::Names("delete_obj"),
            (std::vector<std::string>{"host/filesys.0", "host/filesys.1", "all"}));
}

TEST_F(Agent, DeletesAllItHasAtTheEnd) {
  ASSERT_EQ(Start({"-i"}), 0);
  rec::ForgetEvents();
  EXPECT_EQ(cleanup_agent(), 0);
  EXPECT_EQ(rec::Events().front().name, "0");
  EXPECT_EQ(rec::Events().front().operation, "alarm");
  EXPECT_TRUE(rec::LiveNames().empty());
  const std::string root = "/var/spool/quorix/kelmo/registry";
  EXPECT_EQ(rec::Names("remove_empty_dir"), (std::vector<std::string>{root + "/host", root}));
  EXPECT_LT(Place("delete_obj", "all"), Place("remove_empty_dir", root + "/host"));
}

TEST_F(Agent, LeavesDirectoriesThatAreInUse) {
  ASSERT_EQ(Start({"-i"}), 0);
  rec::Fail("is_empty_dir", "/var/spool/quorix/kelmo/registry");
  EXPECT_EQ(cleanup_agent(), 0);
  EXPECT_EQ(rec::Names("remove_empty_dir"),
            std::vector<std::string>{"/var/spool/quorix/kelmo/registry/host"});
  rec::ForgetEvents();
  rec::Fail("is_empty_dir", "*/host");
  cleanup_agent();
  EXPECT_EQ(rec::Count("remove_empty_dir"), 0);
}

}  // namespace
