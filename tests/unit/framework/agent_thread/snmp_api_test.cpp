// Traps, what is kept of them, and queries, over an SNMP side in memory.
#include "framework/snmp/snmp_api.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "framework/process/log.h"
#include "framework/registry/objects.h"
#include "framework/snmp/unsent.h"
#include "platform/framework.h"
#include "tests/support/failing_new.h"
#include "tests/unit/framework/agent_thread/fake_snmp.h"
#include "tests/unit/framework/temp_registry.h"

namespace vex::snmp_api_test {
namespace {

class SnmpApi : public testing::Test {
 protected:
  void SetUp() override {
    UseRegistryRoot(registry_.root());
    TheFakeSnmp() = FakeSnmp();
    TheFakeSnmp().settings.community = "secret";
  }
  void TearDown() override {
    // What is remembered goes when the master has it.
    TheFakeSnmp().nothing_waiting = true;
    RetryUnsent();
    cleanup_snmp_connection();
    delete_obj(&obj_Q, nullptr, 0);
    RetryFiles();
    TheFakeSnmp() = FakeSnmp();
  }
  std::string Path() const {
    return registry_.root() + "/exampled.traps";
  }
  // What another process would find.
  size_t Kept() const {
    const auto read = UnsentFile(registry_.root(), "exampled").Read();
    return read ? read->size() : 999;
  }
  // Tests before this one may have given the agent a name.
  static std::string Said(const std::string &line) {
    return std::string(AgentName()) + ": " + line;
  }
  static int Trap() {
    return send_trap(nullptr, nullptr, 0, "a trap", 5);
  }
  static std::string LoggedByEnd(bool expected) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(EndSnmp(), expected);
    return testing::internal::GetCapturedStderr();
  }

  TempRegistry registry_;
};

TEST_F(SnmpApi, WhatMakesNoSenseIsRefused) {
  EXPECT_EQ(init_snmp_appname(nullptr), -1);
  EXPECT_EQ(init_snmp_appname(""), -1);
  ASSERT_EQ(init_snmp_appname("exampled"), 0);
  EXPECT_EQ(init_snmp_connection(nullptr), -1);
  ASSERT_EQ(init_snmp_connection("127.0.0.1"), 0);
  int32_t value = 7;
  EXPECT_EQ(get_one_snmp_integer_from_api(nullptr, &value, nullptr), -1);
  EXPECT_EQ(get_one_snmp_integer_from_api("1.3.6", nullptr, nullptr), -1);
  EXPECT_EQ(TheFakeSnmp().queries, 0);
  TheFakeSnmp().running = false;
  EXPECT_EQ(get_one_snmp_integer_from_api("1.3.6", &value, nullptr), -1);
  EXPECT_EQ(value, 7);
  EXPECT_EQ(get_mib_minor_revision(5), 0);
  char *community = find_community_string(nullptr);
  EXPECT_STREQ(community, "secret");
  free(community);
}

TEST_F(SnmpApi, TrapsHaveVariablesOfTheObjectThatTheMibKnowsAsTheyAre) {
  ASSERT_EQ(init_snmp_appname("exampled"), 0);
  std::filesystem::create_directories(registry_.Path("host"));
  registry_object *object =
      create_obj(&obj_Q, get_id(), registry_.Path("host/example").c_str(), 1, 16, 4);
  ASSERT_NE(object, nullptr);
  auto *data = static_cast<char *>(static_cast<void *>(object->data));
  descriptor *d = object->desc;
  ASSERT_EQ(init_info(0, &d[0], "exampleCount", 4, VAR_INTEGER, ACCESS_READ_ONLY, 1, data, nullptr),
            0);
  ASSERT_EQ(init_info(1, &d[1], "inner", 4, VAR_INTEGER, ACCESS_READ_ONLY, 1, data + 4, nullptr),
            0);
  ASSERT_EQ(init_info(2, &d[2], "exampleCount", 4, VAR_DISPLAY_STRING, ACCESS_READ_ONLY, 1,
                      data + 8, nullptr),
            0);
  // The fourth has not been described.
  for (const int slot : {1, 2, 3, 4, -1}) {
    EXPECT_EQ(send_trap(object, &slot, 1, "", 5), -1) << slot;
  }
  EXPECT_EQ(send_trap(object, nullptr, 1, "", 5), -1);
  // Nor one behind the last, though its memory be there.
  const int first = 0;
  object->var_count = 0;
  EXPECT_EQ(send_trap(object, &first, 1, "", 5), -1);
  object->var_count = 4;
  EXPECT_TRUE(TheFakeSnmp().notifications.empty());
  const int count = 0;
  EXPECT_EQ(send_trap(object, &count, 1, "", 5), 0);
  EXPECT_EQ(send_trap(object, nullptr, 0, nullptr, 0), 0);
  ASSERT_EQ(TheFakeSnmp().notifications.size(), 2U);
  EXPECT_EQ(TheFakeSnmp().notifications[0].variables.size(), 1U);
  EXPECT_EQ(TheFakeSnmp().notifications[1].number, 0U);
  EXPECT_TRUE(TheFakeSnmp().notifications[1].variables.empty());
}

TEST_F(SnmpApi, ATrapIsRaisedOnceOrRefused) {
  ASSERT_EQ(init_snmp_appname("exampled"), 0);
  TheFakeSnmp().notify_fails = 2;
  EXPECT_EQ(Trap(), 0);
  EXPECT_EQ(TheFakeSnmp().notifications.size(), 1U);
  TheFakeSnmp().notify_fails = 3;
  EXPECT_EQ(Trap(), -1);
  EXPECT_EQ(TheFakeSnmp().notifications.size(), 1U);
  // Whichever allocation fails: where it is said to be raised, it is.
  bool failed = true;
  for (int n = 1; failed; n++) {
    const size_t before = TheFakeSnmp().notifications.size();
    int raised = -1;
    failed = FailAllocation(n, [&] { raised = Trap(); });
    EXPECT_EQ(TheFakeSnmp().notifications.size(), before + (raised == 0 ? 1 : 0)) << n;
  }
}

TEST_F(SnmpApi, SilenceIsSaidWhenItBeginsAndWhenAnAnswerEndsIt) {
  ASSERT_EQ(init_snmp_appname("exampled"), 0);
  ASSERT_EQ(init_snmp_connection("127.0.0.1"), 0);
  const auto logged = [](QueryEnd end) {
    BeginQueries();
    TheFakeSnmp().answer.end = end;
    int32_t value = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(get_one_snmp_integer_from_api("1.3.6", &value, nullptr), 0);
    return testing::internal::GetCapturedStderr();
  };
  EXPECT_EQ(logged(QueryEnd::kAnswered), "");
  EXPECT_EQ(logged(QueryEnd::kSilent),
            Said("The SNMP agent at 127.0.0.1 does not answer queries: it hangs, or does not know "
                 "the community (trying again)\n"));
  EXPECT_EQ(logged(QueryEnd::kSilent), "");
  // Who is not there is not back.
  EXPECT_EQ(logged(QueryEnd::kRefused), "");
  EXPECT_EQ(logged(QueryEnd::kAnswered),
            Said("The SNMP agent at 127.0.0.1 answers queries again\n"));
}

// A trap that it has just been given is then no reason to write a file.
TEST_F(SnmpApi, AMasterThatIsThereIsGivenAMomentToTakeATrap) {
  ASSERT_EQ(init_snmp_appname("exampled"), 0);
  static int looks;
  looks = 0;
  TheFakeSnmp().up = true;
  TheFakeSnmp().nothing_waiting = false;
  TheFakeSnmp().asked_what_waits = [] { TheFakeSnmp().nothing_waiting = ++looks > 20; };
  ASSERT_EQ(Trap(), 0);
  RetryUnsent();
  EXPECT_EQ(looks, 21);
  EXPECT_FALSE(std::filesystem::exists(Path()));
}

TEST_F(SnmpApi, WithoutMemoryNothingIsStarted) {
  int result = 0;
  EXPECT_TRUE(FailAllocation(1, [&] { result = init_snmp_appname("exampled"); }));
  EXPECT_EQ(result, -1);
  EXPECT_FALSE(TheFakeSnmp().running);
}

// The first queries of a process are what takes memory: hence another one, from its beginning.
TEST_F(SnmpApi, WithoutMemoryThereIsNoConnection) {
  const std::string before = testing::GTEST_FLAG(death_test_style);
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  const auto connect = [] {
    int result = 0;
    const bool failed = FailAllocation(1, [&] { result = init_snmp_connection("127.0.0.1"); });
    _exit(failed && result == -1 ? 7 : 1);
  };
  EXPECT_EXIT(connect(), testing::ExitedWithCode(7), "");
  testing::GTEST_FLAG(death_test_style) = before;
}

TEST_F(SnmpApi, WhatCannotBeKeptMeanwhileIsKeptLater) {
  ASSERT_EQ(init_snmp_appname("exampled"), 0);
  TheFakeSnmp().nothing_waiting = false;
  ASSERT_EQ(Trap(), 0);
  std::filesystem::create_directories(Path() + "/in the way");
  testing::internal::CaptureStderr();
  RetryUnsent();
  RetryUnsent();
  std::filesystem::remove_all(Path());
  RetryUnsent();
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find(Said("Can't keep the traps that wait at " + Path())), log.npos) << log;
  EXPECT_NE(log.find(Said("The traps that wait are kept at " + Path() + "\n")), log.npos) << log;
  EXPECT_EQ(Kept(), 1U);
}

TEST_F(SnmpApi, WhatThereIsNoMemoryForStaysInTheFile) {
  const std::vector<Notification> two(2);
  ASSERT_EQ(UnsentFile(registry_.root(), "exampled").Keep(two), 0);
  TheFakeSnmp().notify_fails = 1;
  testing::internal::CaptureStderr();
  ASSERT_EQ(init_snmp_appname("exampled"), 0);
  RetryUnsent();
  EXPECT_EQ(
      testing::internal::GetCapturedStderr(),
      Said("Can't read the traps kept at " + Path() + ": Cannot allocate memory (trying again)\n") +
          Said("The traps kept at " + Path() + " are read\n"));
  EXPECT_EQ(TheFakeSnmp().notifications.size(), 2U);
  EXPECT_EQ(Kept(), 2U);
}

TEST_F(SnmpApi, WhatIsUnsentAtTheEndIsKept) {
  ASSERT_EQ(init_snmp_appname("exampled"), 0);
  TheFakeSnmp().unsent = std::vector<Notification>(3);
  TheFakeSnmp().unsent_fails = 2;
  EXPECT_EQ(LoggedByEnd(true), "");
  EXPECT_EQ(Kept(), 3U);
}

// What cannot be had is said, unless the master has it all; the file is left alone.
TEST_F(SnmpApi, WhatCannotBeToldAtTheEndIsSaid) {
  const std::string said = Said("Can't keep the traps of this run that are not sent: ");
  ASSERT_EQ(init_snmp_appname("exampled"), 0);
  TheFakeSnmp().nothing_waiting = false;
  ASSERT_EQ(Trap(), 0);
  RetryUnsent();
  ASSERT_EQ(Kept(), 1U);
  TheFakeSnmp().unsent_fails = 3;
  EXPECT_EQ(LoggedByEnd(true), said + "they cannot be had\n");
  TheFakeSnmp().unsent.reset();
  TheFakeSnmp().stays = true;
  EXPECT_EQ(LoggedByEnd(false), said + "the SNMP side hangs\n");
  TheFakeSnmp().nothing_waiting = true;
  EXPECT_EQ(LoggedByEnd(false), "");
  EXPECT_EQ(Kept(), 1U);
}

}  // namespace
}  // namespace vex::snmp_api_test
