#include "framework/snmp/set_channel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>
#include <vector>

#include "platform/framework.h"
#include "tests/support/failing_call.h"

namespace vex {
namespace {

using std::chrono::milliseconds;
using Check = SetChannel::Check;
using Apply = SetChannel::Apply;

// What the handlers of a test do; called on the agent thread.
std::function<int(uint8_t, SetItem &)> handler;
std::atomic<int> checks;
std::atomic<int> applies;

int RunOne(uint8_t phase, SetItem &item) {
  (phase == SET_CHECK ? checks : applies)++;
  return handler ? handler(phase, item) : 0;
}

SetItem Item(int slot) {
  SetItem item;
  item.slot = slot;
  return item;
}

class SetChannelTest : public testing::Test {
 protected:
  void SetUp() override {
    handler = nullptr;
    checks = 0;
    applies = 0;
  }
  void TearDown() override {
    StopAgent();
    handler = nullptr;
  }

  // An agent thread that serves sets whenever there are some.
  void StartAgent() {
    stop_ = false;
    agent_ = std::thread([this] {
      while (!stop_) {
        pollfd entry = {channel_.Fd(), POLLIN, 0};
        if (poll(&entry, 1, 5) > 0) {
          channel_.Serve(RunOne);
        }
      }
    });
  }
  void StopAgent() {
    stop_ = true;
    if (agent_.joinable()) {
      agent_.join();
    }
  }

  Check WaitForCheck(SetTransaction &transaction, int part) {
    SetChannel::CheckResult result;
    while ((result = channel_.CheckOf(transaction, part)).state == Check::kPending) {
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    failed_item_ = result.failed_item;
    return result.state;
  }
  Apply WaitForApply(SetTransaction &transaction, int part) {
    SetChannel::ApplyResult result;
    while ((result = channel_.ApplyOf(transaction, part)).state == Apply::kPending) {
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    failed_item_ = result.failed_item;
    return result.state;
  }
  std::shared_ptr<SetTransaction> Begin(int ms = 5000) {
    deadline_ = Clock::now() + milliseconds(ms);
    return channel_.Begin(deadline_);
  }
  // A set of one part whose apply has begun, with a deadline so near that a test can wait for it. A
  // busy machine may not begin it in time: again then, with more of it.
  std::shared_ptr<SetTransaction> Applying(const std::vector<SetItem> &items) {
    for (int ms = 100;; ms *= 2) {
      applies = 0;
      auto set = Begin(ms);
      const int part = channel_.AddPart(*set, items);
      if (WaitForCheck(*set, part) == Check::kAccepted) {
        channel_.RequestApply(*set);
        while (applies == 0 && channel_.ApplyOf(*set, part).state == Apply::kPending) {
          std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
        if (applies != 0) {
          return set;
        }
      }
      channel_.Release(*set);
    }
  }
  void WaitForDeadline() const {
    while (Clock::now() <= deadline_) {
      std::this_thread::sleep_for(milliseconds(1));
    }
  }

  SetChannel channel_;
  std::thread agent_;
  std::atomic<bool> stop_{false};
  Clock::time_point deadline_;
  int failed_item_ = -1;
};

TEST_F(SetChannelTest, CheckedThenApplied) {
  StartAgent();
  auto set = Begin();
  int part = channel_.AddPart(*set, {Item(1), Item(2)});
  EXPECT_EQ(WaitForCheck(*set, part), Check::kAccepted);
  EXPECT_EQ(applies, 0);
  channel_.RequestApply(*set);
  EXPECT_EQ(WaitForApply(*set, part), Apply::kApplied);
  EXPECT_EQ(checks, 2);
  EXPECT_EQ(applies, 2);
}

TEST_F(SetChannelTest, RefusedByOneHandlerAppliesNothing) {
  handler = [](uint8_t, SetItem &item) { return item.slot == 2 ? -1 : 0; };
  StartAgent();
  auto set = Begin();
  int part = channel_.AddPart(*set, {Item(1), Item(2), Item(3)});
  EXPECT_EQ(WaitForCheck(*set, part), Check::kRefused);
  EXPECT_EQ(failed_item_, 1);
  EXPECT_EQ(checks, 2);
  channel_.RequestApply(*set);
  EXPECT_EQ(WaitForApply(*set, part), Apply::kFailed);
  EXPECT_EQ(applies, 0);
}

TEST_F(SetChannelTest, RefusedAtTheFirstAsksNoOther) {
  handler = [](uint8_t, SetItem &) { return -1; };
  auto set = Begin();
  const int part = channel_.AddPart(*set, {Item(1), Item(2)});
  channel_.Serve(RunOne);
  EXPECT_EQ(WaitForCheck(*set, part), Check::kRefused);
  EXPECT_EQ(failed_item_, 0);
  EXPECT_EQ(checks, 1);
}

TEST_F(SetChannelTest, FailedApplyStopsAtTheVariable) {
  handler = [](uint8_t phase, SetItem &item) {
    return phase != SET_CHECK && item.slot == 2 ? -1 : 0;
  };
  StartAgent();
  auto set = Begin();
  int part = channel_.AddPart(*set, {Item(1), Item(2), Item(3)});
  EXPECT_EQ(WaitForCheck(*set, part), Check::kAccepted);
  channel_.RequestApply(*set);
  EXPECT_EQ(WaitForApply(*set, part), Apply::kFailed);
  EXPECT_EQ(failed_item_, 1);
  EXPECT_EQ(applies, 2);
}

// What is begun no more fails with its first variable.
TEST_F(SetChannelTest, AfterAFailedApplyNoPartIsBegun) {
  handler = [](uint8_t phase, SetItem &item) {
    return phase != SET_CHECK && item.slot == 2 ? -1 : 0;
  };
  StartAgent();
  auto set = Begin();
  const int first = channel_.AddPart(*set, {Item(1), Item(2)});
  const int second = channel_.AddPart(*set, {Item(3), Item(4)});
  EXPECT_EQ(WaitForCheck(*set, first), Check::kAccepted);
  EXPECT_EQ(WaitForCheck(*set, second), Check::kAccepted);
  channel_.RequestApply(*set);
  EXPECT_EQ(WaitForApply(*set, first), Apply::kFailed);
  EXPECT_EQ(failed_item_, 1);
  EXPECT_EQ(WaitForApply(*set, second), Apply::kFailed);
  EXPECT_EQ(failed_item_, 0);
  EXPECT_EQ(applies, 2);
}

TEST_F(SetChannelTest, BusyAgentIsNotWaitedForAndNeverAppliesLate) {
  Clock::time_point start = Clock::now();
  auto set = Begin(50);
  int part = channel_.AddPart(*set, {Item(1)});
  EXPECT_EQ(WaitForCheck(*set, part), Check::kUndecided);
  EXPECT_GE(Clock::now() - start, milliseconds(50));
  // Whatever the master does now, and however late the agent comes.
  channel_.RequestApply(*set);
  channel_.Serve(RunOne);
  EXPECT_EQ(WaitForApply(*set, part), Apply::kFailed);
  EXPECT_EQ(checks, 0);
  EXPECT_EQ(applies, 0);
}

TEST_F(SetChannelTest, CheckThatTakesTooLongIsForgotten) {
  std::atomic<bool> told{false};
  handler = [&told](uint8_t, SetItem &) {
    while (!told) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    return 0;
  };
  StartAgent();
  std::shared_ptr<SetTransaction> set;
  int part = 0;
  // A busy machine may not begin a check before so near a deadline.
  for (int ms = 60; checks == 0; ms *= 2) {
    set = Begin(ms);
    part = channel_.AddPart(*set, {Item(1), Item(2), Item(3)});
    EXPECT_EQ(WaitForCheck(*set, part), Check::kUndecided);
  }
  channel_.RequestApply(*set);
  told = true;
  StopAgent();
  EXPECT_EQ(checks, 1);  // the others were not begun any more
  EXPECT_EQ(applies, 0);
  EXPECT_EQ(channel_.CheckOf(*set, part).state, Check::kUndecided);
}

TEST_F(SetChannelTest, AgentIsHeldBetweenCheckAndApply) {
  std::atomic<bool> back{false};
  auto set = Begin();
  int part = channel_.AddPart(*set, {Item(1)});
  agent_ = std::thread([&] {
    channel_.Serve(RunOne);
    back = true;
  });
  EXPECT_EQ(WaitForCheck(*set, part), Check::kAccepted);
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_FALSE(back);
  channel_.RequestApply(*set);
  EXPECT_EQ(WaitForApply(*set, part), Apply::kApplied);
  agent_.join();
  EXPECT_TRUE(back);
}

TEST_F(SetChannelTest, HoldEndsWithTheDeadline) {
  std::shared_ptr<SetTransaction> set;
  int part = 0;
  for (int ms = 60; checks == 0; ms *= 2) {
    set = Begin(ms);
    part = channel_.AddPart(*set, {Item(1)});
    channel_.Serve(RunOne);  // comes back by itself
  }
  EXPECT_GE(Clock::now(), deadline_);
  EXPECT_EQ(channel_.CheckOf(*set, part).state, Check::kAccepted);
  channel_.RequestApply(*set);
  EXPECT_EQ(channel_.ApplyOf(*set, part).state, Apply::kFailed);
  channel_.Serve(RunOne);
  EXPECT_EQ(applies, 0);
}

TEST_F(SetChannelTest, HoldEndsWithTheRelease) {
  auto set = Begin(10000);
  int part = channel_.AddPart(*set, {Item(1)});
  agent_ = std::thread([&] { channel_.Serve(RunOne); });
  EXPECT_EQ(WaitForCheck(*set, part), Check::kAccepted);
  Clock::time_point start = Clock::now();
  channel_.Release(*set);
  agent_.join();
  EXPECT_LT(Clock::now() - start, milliseconds(9000));
  channel_.RequestApply(*set);
  EXPECT_EQ(channel_.ApplyOf(*set, part).state, Apply::kFailed);
  EXPECT_EQ(applies, 0);
}

TEST_F(SetChannelTest, ApplyThatDoesNotEndInTimeHasFailed) {
  std::atomic<bool> told{false};
  handler = [&told](uint8_t phase, SetItem &) {
    while (phase != SET_CHECK && !told) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    return 0;
  };
  StartAgent();
  auto set = Applying({Item(1), Item(2)});
  EXPECT_EQ(WaitForApply(*set, 0), Apply::kFailed) << "while the handler still runs";
  told = true;
  StopAgent();
  EXPECT_EQ(applies, 1);  // the second was not begun past the deadline
}

// What a handler was told is what its manager hears.
TEST_F(SetChannelTest, AHandlerLearnsThatItsSetIsNotWantedAnyMore) {
  std::vector<bool> wanted;
  std::atomic<bool> told{false};
  handler = [&](uint8_t phase, SetItem &) {
    if (phase != SET_CHECK) {
      wanted.push_back(channel_.Wanted(false));
      WaitForDeadline();
      wanted.push_back(channel_.Wanted(false));
      wanted.push_back(channel_.Wanted(true));
      while (!told) {
        std::this_thread::sleep_for(milliseconds(1));
      }
    }
    return 0;
  };
  // Again where the handler was not given a processor before the deadline.
  do {
    wanted.clear();
    told = false;
    StartAgent();
    auto set = Applying({Item(1)});
    EXPECT_EQ(WaitForApply(*set, 0), Apply::kFailed);
    told = true;
    StopAgent();
  } while (!wanted.front());
  EXPECT_EQ(wanted, (std::vector<bool>{true, false, false}));
  EXPECT_TRUE(channel_.Wanted(true)) << "outside a handler";
}

TEST_F(SetChannelTest, ASetThatWasWantedToTheLastIsWaitedFor) {
  std::atomic<bool> wanted{false};
  handler = [&](uint8_t phase, SetItem &item) {
    if (phase != SET_CHECK && item.slot == 1) {
      wanted = channel_.Wanted(true);
      WaitForDeadline();
    }
    return 0;
  };
  // Again where the handler was not given a processor in its time, which it has used up then.
  const auto apply = [&](const std::vector<SetItem> &items) {
    for (int tries = 1;; tries++) {
      StartAgent();
      auto set = Applying(items);
      const Apply state = WaitForApply(*set, 0);
      StopAgent();
      const bool in_time = wanted && Clock::now() < deadline_ + milliseconds(200);
      if (state == Apply::kApplied || in_time || tries == 20) {
        return state;
      }
    }
  };
  EXPECT_EQ(apply({Item(1)}), Apply::kApplied);
  EXPECT_EQ(applies, 1);
  // That is so of one variable; none after it is begun past the deadline.
  EXPECT_EQ(apply({Item(1), Item(2)}), Apply::kFailed);
  EXPECT_EQ(failed_item_, 1);
  EXPECT_EQ(applies, 1);
}

// It has done everything but return.
TEST_F(SetChannelTest, ASetThatWasWantedToTheLastIsNotWaitedForWithoutEnd) {
  std::atomic<bool> wanted{false};
  std::atomic<bool> told{false};
  handler = [&](uint8_t phase, SetItem &) {
    if (phase != SET_CHECK) {
      wanted = channel_.Wanted(true);
      while (!told) {
        std::this_thread::sleep_for(milliseconds(1));
      }
    }
    return 0;
  };
  do {
    told = false;
    StartAgent();
    auto set = Applying({Item(1)});
    EXPECT_EQ(WaitForApply(*set, 0), Apply::kFailed) << "while the handler still runs";
    told = true;
    StopAgent();
  } while (!wanted);
}

// A request that reaches into both subtrees: the second part comes while the agent holds the first.
TEST_F(SetChannelTest, EveryCheckOfEveryPartComesBeforeTheFirstApply) {
  std::vector<int> order;
  handler = [&order](uint8_t phase, SetItem &item) {
    order.push_back(phase == SET_CHECK ? item.slot : 100 + item.slot);
    return 0;
  };
  StartAgent();
  auto set = Begin();
  int first = channel_.AddPart(*set, {Item(1)});
  EXPECT_EQ(WaitForCheck(*set, first), Check::kAccepted);
  int second = channel_.AddPart(*set, {Item(2)});
  EXPECT_EQ(WaitForCheck(*set, second), Check::kAccepted);
  channel_.RequestApply(*set);
  EXPECT_EQ(WaitForApply(*set, first), Apply::kApplied);
  EXPECT_EQ(WaitForApply(*set, second), Apply::kApplied);
  StopAgent();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 101, 102}));
}

TEST_F(SetChannelTest, ApplyIsNotRunWhileAPartIsUnchecked) {
  auto set = Begin(50);
  channel_.AddPart(*set, {Item(1)});
  channel_.RequestApply(*set);
  channel_.Serve(RunOne);
  EXPECT_EQ(applies, 0);
  EXPECT_EQ(channel_.ApplyOf(*set, 0).state, Apply::kFailed);
}

TEST_F(SetChannelTest, RefusedFirstPartStillLetsTheSecondBeChecked) {
  handler = [](uint8_t, SetItem &item) { return item.slot == 1 ? -1 : 0; };
  auto set = Begin();
  int first = channel_.AddPart(*set, {Item(1)});
  channel_.Serve(RunOne);  // not held: no apply can follow
  EXPECT_EQ(channel_.CheckOf(*set, first).state, Check::kRefused);
  int second = channel_.AddPart(*set, {Item(2)});
  channel_.Serve(RunOne);
  EXPECT_EQ(channel_.CheckOf(*set, second).state, Check::kAccepted);
  channel_.RequestApply(*set);
  channel_.Serve(RunOne);
  EXPECT_EQ(applies, 0);
}

TEST_F(SetChannelTest, SecondRequestAppliesOnce) {
  StartAgent();
  auto set = Begin();
  int part = channel_.AddPart(*set, {Item(1)});
  EXPECT_EQ(WaitForCheck(*set, part), Check::kAccepted);
  channel_.RequestApply(*set);
  channel_.RequestApply(*set);
  EXPECT_EQ(WaitForApply(*set, part), Apply::kApplied);
  channel_.RequestApply(*set);
  StopAgent();
  EXPECT_EQ(applies, 1);
}

// While the agent thread is in a hook, a set that is given up must not stay until it comes back.
TEST_F(SetChannelTest, WhatIsReleasedIsNotKept) {
  for (const bool expired : {false, true}) {
    std::weak_ptr<SetTransaction> left;
    {
      auto set = Begin(expired ? 1 : 5000);
      const int part = channel_.AddPart(*set, {Item(1)});
      if (expired) {
        EXPECT_EQ(WaitForCheck(*set, part), Check::kUndecided);
      }
      channel_.Release(*set);
      left = set;
    }
    EXPECT_TRUE(left.expired()) << expired;
  }
  // And what comes after it is served.
  auto set = Begin();
  const int part = channel_.AddPart(*set, {Item(2)});
  StartAgent();
  EXPECT_EQ(WaitForCheck(*set, part), Check::kAccepted);
  channel_.Release(*set);
  StopAgent();
  EXPECT_EQ(checks, 1);
}

TEST_F(SetChannelTest, SetsWaitForOneAnother) {
  StartAgent();
  auto one = Begin();
  auto two = Begin();
  int first = channel_.AddPart(*one, {Item(1)});
  EXPECT_EQ(WaitForCheck(*one, first), Check::kAccepted);
  int second = channel_.AddPart(*two, {Item(2)});
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_EQ(channel_.CheckOf(*two, second).state, Check::kPending);
  channel_.Release(*one);
  EXPECT_EQ(WaitForCheck(*two, second), Check::kAccepted);
  channel_.Release(*two);
}

// Whoever asks again before the last one's deadline does not keep the agent thread from its polls.
TEST_F(SetChannelTest, SetsWithoutEndAreServedInRounds) {
  constexpr milliseconds kPatience{700};
  std::atomic<bool> back{false};
  channel_.AddPart(*channel_.Begin(Clock::now() + kPatience), {Item(1)});
  std::atomic<bool> given_up{false};
  std::thread asking([&] {
    // The end is for a round that would not end.
    for (int i = 1; !back; i++) {
      if (i == 40) {
        given_up = true;
        return;
      }
      if (i % 5 == 0) {
        channel_.AddPart(*channel_.Begin(Clock::now() + kPatience), {Item(1)});
      }
      std::this_thread::sleep_for(milliseconds(100));
    }
  });
  channel_.Serve(RunOne);
  back = true;
  asking.join();
  EXPECT_FALSE(given_up);
  // What came meanwhile is the next round's, and has woken the agent for it.
  const int before = checks;
  pollfd entry = {channel_.Fd(), POLLIN, 0};
  EXPECT_EQ(poll(&entry, 1, 0), 1);
  channel_.Serve(RunOne);
  EXPECT_GT(checks, before);
}

TEST_F(SetChannelTest, ClosedChannelDecidesNothing) {
  auto before = Begin();
  int part = channel_.AddPart(*before, {Item(1)});
  channel_.Close();
  EXPECT_EQ(channel_.CheckOf(*before, part).state, Check::kUndecided);
  auto after = Begin();
  part = channel_.AddPart(*after, {Item(1)});
  EXPECT_EQ(channel_.CheckOf(*after, part).state, Check::kUndecided);
  channel_.Serve(RunOne);
  EXPECT_EQ(checks, 0);
}

// A part that comes late is as little done as the rest.
TEST_F(SetChannelTest, APartOfASetThatIsOverIsNotDone) {
  channel_.Close();
  auto closed = Begin();
  for (int part = 0; part < 2; part++) {
    EXPECT_EQ(channel_.AddPart(*closed, {Item(1)}), part);
    EXPECT_EQ(channel_.CheckOf(*closed, part).state, Check::kUndecided);
  }
  channel_.Serve(RunOne);
  EXPECT_EQ(checks, 0);
}

TEST_F(SetChannelTest, APartThatFollowsTheApplyHasFailed) {
  StartAgent();
  auto set = Begin();
  ASSERT_EQ(WaitForCheck(*set, channel_.AddPart(*set, {Item(1)})), Check::kAccepted);
  channel_.RequestApply(*set);
  ASSERT_EQ(WaitForApply(*set, 0), Apply::kApplied);
  // The agent thread sets the stage after the part.
  StopAgent();
  ASSERT_EQ(channel_.AddPart(*set, {Item(2)}), 1);
  EXPECT_EQ(channel_.CheckOf(*set, 1).state, Check::kUndecided);
  EXPECT_EQ(channel_.ApplyOf(*set, 1).state, Apply::kFailed);
  EXPECT_EQ(applies, 1);
}

// A master that goes on with a set while it is being applied: what was not checked is not applied.
TEST_F(SetChannelTest, APartThatComesDuringTheApplyHasFailed) {
  auto set = Begin();
  handler = [&](uint8_t phase, SetItem &item) {
    if (phase == SET_APPLY && item.slot == 1) {
      EXPECT_EQ(channel_.AddPart(*set, {Item(2)}), 1);
    }
    return item.slot == 1 ? 0 : -1;
  };
  StartAgent();
  ASSERT_EQ(WaitForCheck(*set, channel_.AddPart(*set, {Item(1)})), Check::kAccepted);
  channel_.RequestApply(*set);
  ASSERT_EQ(WaitForApply(*set, 0), Apply::kApplied);
  StopAgent();
  EXPECT_EQ(channel_.CheckOf(*set, 1).state, Check::kUndecided);
  EXPECT_EQ(channel_.ApplyOf(*set, 1).state, Apply::kFailed);
  EXPECT_EQ(checks, 1);
  EXPECT_EQ(applies, 1);
}

// One that comes after the request to apply, as a rule before the apply begins.
TEST_F(SetChannelTest, APartThatComesBeforeTheApplyBeginsHasFailed) {
  StartAgent();
  for (int i = 0; i < 100; i++) {
    checks = applies = 0;
    auto set = Begin();
    ASSERT_EQ(WaitForCheck(*set, channel_.AddPart(*set, {Item(1)})), Check::kAccepted);
    channel_.RequestApply(*set);
    ASSERT_EQ(channel_.AddPart(*set, {Item(2)}), 1);
    ASSERT_EQ(WaitForApply(*set, 0), Apply::kApplied);
    EXPECT_EQ(channel_.CheckOf(*set, 1).state, Check::kUndecided);
    EXPECT_EQ(channel_.ApplyOf(*set, 1).state, Apply::kFailed);
    EXPECT_EQ(checks, 1);
    EXPECT_EQ(applies, 1);
  }
}

TEST_F(SetChannelTest, ClosingInAHandlerEndsTheRound) {
  handler = [this](uint8_t, SetItem &) {
    channel_.Close();
    return 0;
  };
  auto first = Begin();
  auto second = Begin();
  channel_.AddPart(*first, {Item(1)});
  channel_.AddPart(*second, {Item(2)});
  channel_.Serve(RunOne);
  EXPECT_EQ(checks, 1);
  EXPECT_EQ(channel_.CheckOf(*second, 0).state, Check::kUndecided);
}

TEST_F(SetChannelTest, WhoeverWasWantedToTheLastIsSo) {
  std::vector<bool> wanted;
  handler = [this, &wanted](uint8_t phase, SetItem &) {
    if (phase == SET_APPLY) {
      wanted = {channel_.Wanted(true), channel_.Wanted(false), channel_.Wanted(true)};
    }
    return 0;
  };
  StartAgent();
  auto set = Begin();
  ASSERT_EQ(WaitForCheck(*set, channel_.AddPart(*set, {Item(1)})), Check::kAccepted);
  channel_.RequestApply(*set);
  ASSERT_EQ(WaitForApply(*set, 0), Apply::kApplied);
  StopAgent();
  EXPECT_EQ(wanted, std::vector<bool>({true, true, true}));
}

TEST(SetChannelAlone, GetsItsDescriptorLater) {
  const FailingCall failing("eventfd", EMFILE, 1, 2);
  SetChannel channel;
  EXPECT_FALSE(channel.Ready());
  EXPECT_EQ(errno, EMFILE);
  EXPECT_TRUE(channel.Ready());
  EXPECT_EQ(fcntl(channel.Fd(), F_GETFD), FD_CLOEXEC);
  EXPECT_NE(fcntl(channel.Fd(), F_GETFL) & O_NONBLOCK, 0);
  const FailingCall none("eventfd", EMFILE);
  const SetChannel another;
  EXPECT_EQ(another.Fd(), -1);
}

// The process may have been started without standard input.
TEST(SetChannelAlone, ClosesItsDescriptorWhateverItsNumber) {
  const int input = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  {
    const SetChannel channel;
    EXPECT_EQ(channel.Fd(), STDIN_FILENO);
  }
  EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
  if (input >= 0) {
    dup2(input, STDIN_FILENO);
    close(input);
  }
}

// Both threads at their fastest, with deadlines that fall anywhere: whatever was not reported as
// applied in time may have been applied, but what was undecided never is.
TEST_F(SetChannelTest, ManySetsWithTightDeadlines) {
  std::atomic<int> applied_undecided{0};
  static std::atomic<int> current;
  static std::atomic<bool> given_up;
  handler = [&applied_undecided](uint8_t phase, SetItem &item) {
    if (item.slot % 7 == 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    if (phase != SET_CHECK && item.slot == current && given_up) {
      applied_undecided++;
    }
    return item.slot % 5 == 0 ? -1 : 0;
  };
  StartAgent();
  int accepted = 0;
  int undecided = 0;
  for (int i = 1; i <= 600; i++) {
    current = i;
    given_up = false;
    int patience = i % 14 == 0 ? 300 : 100 + (i * 37) % 3000;
    auto set = channel_.Begin(Clock::now() + std::chrono::microseconds(patience));
    int part = channel_.AddPart(*set, {Item(i), Item(i)});
    Check check = WaitForCheck(*set, part);
    if (check == Check::kAccepted) {
      accepted++;
      channel_.RequestApply(*set);
      WaitForApply(*set, part);
    } else {
      given_up = true;
      undecided += check == Check::kUndecided ? 1 : 0;
    }
    channel_.Release(*set);
  }
  StopAgent();
  EXPECT_EQ(applied_undecided, 0);
  EXPECT_GT(accepted, 0);
  EXPECT_GT(undecided, 0);
}

}  // namespace
}  // namespace vex
