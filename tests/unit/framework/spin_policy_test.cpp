#include "framework/snmp/spin_policy.h"

#include <gtest/gtest.h>

#include <vector>

namespace vex {
namespace {

using std::chrono::microseconds;

constexpr microseconds kNever{0};

// A master that asks again after each of these gaps, over and over, while the agent spins as it is
// told to. Late: how much longer a gap is for whoever sleeps.
class Master {
 public:
  explicit Master(std::vector<microseconds> gaps, microseconds late = microseconds(0))
      : gaps_(std::move(gaps)), late_(late) {}

  // So many requests; how many were met spinning.
  int Ask(SpinPolicy *policy, int requests) {
    int met = 0;
    for (int i = 0; i < requests; i++) {
      const microseconds gap = gaps_[next_++ % gaps_.size()];
      const bool meets = gap <= limit_;
      spun_ += meets ? gap : limit_;
      met += meets ? 1 : 0;
      now_ += meets ? gap : gap + late_;
      policy->Asked(now_);
      limit_ = std::chrono::duration_cast<microseconds>(policy->Answered(now_));
    }
    return met;
  }
  microseconds Spun() {
    return std::exchange(spun_, microseconds(0));
  }
  Clock::time_point Now() const {
    return now_;
  }
  void Pass(Clock::duration time) {
    now_ += time;
  }

 private:
  std::vector<microseconds> gaps_;
  microseconds late_;
  size_t next_ = 0;
  microseconds limit_{0};
  microseconds spun_{0};
  Clock::time_point now_ = Clock::now();
};

TEST(SpinPolicy, SpinsAtFirst) {
  SpinPolicy policy(2);
  EXPECT_EQ(policy.Answered(Clock::now()), SpinPolicy::kLongest);
}

TEST(SpinPolicy, NeverSpinsOnASingleProcessor) {
  SpinPolicy policy(1);
  Master master({microseconds(10)});
  EXPECT_EQ(master.Ask(&policy, 1000), 0);
  EXPECT_EQ(master.Spun(), kNever);
}

TEST(SpinPolicy, GoesOnMeetingAMasterThatAsksAtOnce) {
  SpinPolicy policy(2);
  Master master({microseconds(12), microseconds(14), microseconds(11)});
  master.Ask(&policy, 100);
  EXPECT_EQ(master.Ask(&policy, 1000), 1000);
}

TEST(SpinPolicy, SpinsNoLongerThanTheGapsWithinABulk) {
  SpinPolicy policy(2);
  // Ten rows, and then the manager has the word.
  std::vector<microseconds> gaps(9, microseconds(12));
  gaps.push_back(microseconds(300));
  Master master(gaps, microseconds(30));
  master.Ask(&policy, 100);
  master.Spun();
  EXPECT_EQ(master.Ask(&policy, 1000), 900);
  // 9 * 12 and a quarter more than 12 of each ten, and now and then a longer try.
  EXPECT_LT(master.Spun(), microseconds(100 * (9 * 12 + 15) + 32 * 75));
}

TEST(SpinPolicy, SleepsWhenNobodyComesInTime) {
  SpinPolicy policy(2);
  Master master({microseconds(110)}, microseconds(30));
  EXPECT_EQ(master.Ask(&policy, 1025), 0);
  // Only the tries.
  EXPECT_EQ(master.Spun(), 32 * SpinPolicy::kLongest);
}

TEST(SpinPolicy, SleepsWhenMostCostMoreThanTheFewBring) {
  SpinPolicy policy(2);
  std::vector<microseconds> gaps(9, microseconds(200));
  gaps.push_back(microseconds(40));
  Master master(gaps);
  master.Ask(&policy, 33);
  EXPECT_EQ(master.Ask(&policy, 990), 0);
}

// Of a few that come at once the spin is as short as their gap.
TEST(SpinPolicy, SpinsShortlyForOneInManyThatComesAtOnce) {
  SpinPolicy policy(2);
  std::vector<microseconds> gaps(31, microseconds(500));
  gaps.push_back(microseconds(1));
  Master master(gaps);
  master.Ask(&policy, 33);
  EXPECT_EQ(policy.Answered(master.Now()), std::chrono::nanoseconds(1250));
}

TEST(SpinPolicy, SeesThatGapsAreShortAgain) {
  SpinPolicy policy(2);
  // Asleep, every gap looks too long: 50 become 90.
  Master slow({microseconds(500)});
  slow.Ask(&policy, 1000);
  Master quick({microseconds(50)}, microseconds(40));
  quick.Pass(slow.Now() - quick.Now());
  quick.Ask(&policy, 1024 + 33);
  EXPECT_EQ(quick.Ask(&policy, 2000), 2000);
}

TEST(SpinPolicy, TriesAnewWhenAManagerComesAnew) {
  SpinPolicy policy(2);
  Master slow({microseconds(500)});
  slow.Ask(&policy, 100);
  EXPECT_EQ(policy.Answered(slow.Now()), kNever);
  const Clock::time_point later = slow.Now() + std::chrono::seconds(2);
  policy.Asked(later);
  EXPECT_EQ(policy.Answered(later), SpinPolicy::kLongest);
  // For thirty-two gaps.
  slow.Pass(later - slow.Now());
  slow.Ask(&policy, 31);
  EXPECT_EQ(policy.Answered(slow.Now()), SpinPolicy::kLongest);
  slow.Ask(&policy, 1);
  EXPECT_EQ(policy.Answered(slow.Now()), kNever);
}

TEST(SpinPolicy, APreemptedSpinEndsAndPauses) {
  SpinPolicy policy(2);
  const Clock::time_point begin = Clock::now();
  EXPECT_TRUE(policy.Looked(begin, begin + microseconds(2)));
  const Clock::time_point now = begin + std::chrono::milliseconds(3);
  EXPECT_FALSE(policy.Looked(begin, now));
  EXPECT_EQ(policy.Answered(now + SpinPolicy::kShortestPause / 2), kNever);
  EXPECT_GT(policy.Answered(now + SpinPolicy::kShortestPause), kNever);
}

TEST(SpinPolicy, OnAMachineThatStaysBusyThePausesGrowAndEndWithIt) {
  SpinPolicy policy(2);
  Clock::time_point now = Clock::now();
  std::chrono::nanoseconds pause{0};
  for (int i = 0; i < 10; i++) {
    const Clock::time_point from = now;
    ASSERT_FALSE(policy.Looked(now - std::chrono::milliseconds(3), now));
    while (policy.Answered(now) == kNever) {
      now += std::chrono::milliseconds(1);
    }
    pause = now - from;
  }
  EXPECT_EQ(pause, SpinPolicy::kLongestPause);
  now += std::chrono::seconds(10);
  ASSERT_FALSE(policy.Looked(now - std::chrono::milliseconds(3), now));
  EXPECT_GT(policy.Answered(now + SpinPolicy::kShortestPause), kNever);
}

}  // namespace
}  // namespace vex
