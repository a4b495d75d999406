// What takes root, an agent's end or want of memory to show, of what needs no SNMP process.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "framework/snmp/set_channel.h"
#include "framework/snmp/unsent.h"
#include "platform/framework.h"
#include "tests/unit/framework/process/with_snmp_process.h"
#include "tests/unit/framework/temp_registry.h"

namespace vex {
namespace {

constexpr uid_t kOther = 990;

// Traps that somebody else has put there are not sent.
TEST(UnsentOwner, OnlyTheAgentsOwnFileIsUsed) {
  const TempRegistry registry;
  const std::string path = registry.root() + "/agent.traps";
  const std::string elsewhere = registry.base() + "/elsewhere";
  const auto read = [&registry](std::string *log) {
    testing::internal::CaptureStderr();
    const auto found = UnsentFile(registry.root(), "agent").Read();
    *log = testing::internal::GetCapturedStderr();
    return found ? found->size() : 999;
  };
  const auto refusal = [&path](const char *why) {
    return "agent: File " + path + " not used: " + why + "\n";
  };
  ASSERT_EQ(UnsentFile(registry.root(), "agent").Keep(std::vector<Notification>(2)), 0);
  std::string log;
  ASSERT_EQ(chown(path.c_str(), kOther, kOther), 0);
  EXPECT_EQ(read(&log), 0U);
  EXPECT_EQ(log, refusal("others may write to it"));
  ASSERT_EQ(chown(path.c_str(), 0, 0), 0);

  // A second name of it in a directory where somebody else could have made it.
  std::filesystem::create_hard_link(path, elsewhere);
  EXPECT_EQ(read(&log), 2U);
  ASSERT_EQ(chown(registry.root().c_str(), kOther, kOther), 0);
  EXPECT_EQ(read(&log), 0U);
  EXPECT_EQ(log, refusal("it is a second name of another file, and others may write in its "
                         "directory"));
  // To him, both are his own; and root's directory is as private.
  ASSERT_EQ(chown(path.c_str(), kOther, kOther), 0);
  ASSERT_EQ(chmod(registry.base().c_str(), 0755), 0);
  for (const uid_t owner : {kOther, uid_t{0}}) {
    ASSERT_EQ(chown(registry.root().c_str(), owner, owner), 0);
    ASSERT_EQ(seteuid(kOther), 0);
    const size_t found = read(&log);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(found, 2U) << owner << log;
  }
}

std::atomic<int> checks;
int Count(uint8_t, SetItem &) {
  checks++;
  return 0;
}

// Nothing is begun for a manager once the agent is to end.
TEST(SetChannelAtTheEnd, RunsNothing) {
  SetChannel channel;
  const auto set = channel.Begin(Clock::now() + std::chrono::seconds(60));
  channel.AddPart(*set, {SetItem()});
  ending = 1;
  channel.Serve(Count);
  ending = 0;
  EXPECT_EQ(checks, 0);
  EXPECT_EQ(channel.CheckOf(*set, 0).state, SetPort::Check::kUndecided);
}

// A part that there was no memory for has never been there.
TEST(SetChannelWithoutMemory, HasNothingOfIt) {
  SetChannel channel;
  std::vector<std::shared_ptr<SetTransaction>> sets;
  int failed = 0;
  for (int i = 0; i < 100; i++) {
    sets.push_back(channel.Begin(Clock::now() + std::chrono::seconds(60)));
    std::vector<SetItem> items(1);
    starved = gettid();
    try {
      EXPECT_EQ(channel.AddPart(*sets.back(), std::move(items)), 0);
      starved = 0;
    } catch (const std::bad_alloc &) {
      starved = 0;
      failed++;
      EXPECT_EQ(channel.AddPart(*sets.back(), {SetItem()}), 0);
    }
  }
  EXPECT_GT(failed, 0);
  // Each is served once, and held until it is released.
  for (const auto &set : sets) {
    channel.Release(*set);
  }
  checks = 0;
  channel.Serve(Count);
  EXPECT_EQ(checks, 0);
}

}  // namespace
}  // namespace vex
