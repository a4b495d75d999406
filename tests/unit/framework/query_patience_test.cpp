#include "framework/snmp/query_patience.h"

#include <gtest/gtest.h>

namespace vex {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Queries at made-up times.
class Asker {
 public:
  // The next query; how long it could have waited, in milliseconds. Silence lasts that long.
  long Silence(const std::string &name = "a") {
    return Ask(name, QueryEnd::kSilent, QueryPatience::kFull);
  }
  long Answer(milliseconds after, const std::string &name = "a") {
    return Ask(name, QueryEnd::kAnswered, after);
  }
  long Ask(const std::string &name, QueryEnd end, milliseconds takes) {
    const auto allowed = patience.Allowed(name, now);
    if (allowed > milliseconds(0)) {
      const auto asked = now;
      now += std::min<Clock::duration>(takes, allowed);
      patience.Ended(name, takes > allowed ? QueryEnd::kSilent : end, asked, allowed, now);
    }
    return std::chrono::duration_cast<milliseconds>(allowed).count();
  }
  void NextPoll(seconds later = seconds(15)) {
    now += later;
    patience.Begin();
  }

  QueryPatience patience;
  Clock::time_point now{std::chrono::hours(1)};
};

TEST(QueryPatience, SilenceEndsTheQueriesOfAPoll) {
  Asker asker;
  EXPECT_EQ(asker.Silence(), 2000);
  EXPECT_TRUE(asker.patience.Silent());
  for (int i = 0; i < 5; i++) {
    EXPECT_EQ(asker.Silence(), 0);
  }
}

TEST(QueryPatience, ALastingSilenceCostsAQuarterAndOnceAMinuteTheWhole) {
  Asker asker;
  EXPECT_EQ(asker.Silence(), 2000);
  for (int minute = 0; minute < 3; minute++) {
    for (int poll = 0; poll < 3; poll++) {
      asker.NextPoll();
      EXPECT_EQ(asker.Silence(), 250);
      EXPECT_EQ(asker.Silence("b"), 0);
    }
    asker.NextPoll();
    EXPECT_EQ(asker.Silence(), 2000);
  }
}

TEST(QueryPatience, AnAnswerEndsTheSilence) {
  Asker asker;
  asker.Silence();
  asker.NextPoll();
  EXPECT_EQ(asker.Answer(milliseconds(10)), 250);
  EXPECT_FALSE(asker.patience.Silent());
  EXPECT_EQ(asker.Answer(milliseconds(10)), 1990);
}

TEST(QueryPatience, ALateAnswerEndsTheSilenceForTheNextPoll) {
  Asker asker;
  asker.Silence();
  asker.NextPoll();
  EXPECT_EQ(asker.Answer(milliseconds(900)), 250);
  asker.patience.AnsweredLate();
  EXPECT_FALSE(asker.patience.Silent());
  EXPECT_EQ(asker.Answer(milliseconds(900)), 0);
  asker.NextPoll();
  EXPECT_EQ(asker.Answer(milliseconds(900)), 2000);
}

TEST(QueryPatience, SlowAnswersShareThePollsTwoSeconds) {
  Asker asker;
  EXPECT_EQ(asker.Answer(milliseconds(1500)), 2000);
  EXPECT_EQ(asker.Answer(milliseconds(400)), 500);
  EXPECT_EQ(asker.Answer(milliseconds(400)), 100);
  EXPECT_EQ(asker.Answer(milliseconds(1)), 0);
  // What was cut short by the others says nothing of the agent.
  EXPECT_FALSE(asker.patience.Silent());
  asker.NextPoll();
  EXPECT_EQ(asker.Answer(milliseconds(400)), 2000);
}

// The SNMP agent answers, but not for one name: the agent behind it hangs.
TEST(QueryPatience, ASilentNameBehindOthersThatAnswerCostsAQuarter) {
  Asker asker;
  EXPECT_EQ(asker.Answer(milliseconds(1)), 2000);
  EXPECT_EQ(asker.Silence("hangs"), 1999);
  for (int poll = 0; poll < 3; poll++) {
    asker.NextPoll();
    asker.Answer(milliseconds(1));
    EXPECT_EQ(asker.Silence("hangs"), 250);
  }
  asker.NextPoll();
  asker.Answer(milliseconds(1));
  EXPECT_EQ(asker.Answer(milliseconds(500), "hangs"), 1999);
  asker.NextPoll();
  EXPECT_EQ(asker.Answer(milliseconds(500), "hangs"), 2000);
}

TEST(QueryPatience, ARefusalSaysThatTheOldOneIsGone) {
  Asker asker;
  asker.Silence();
  asker.NextPoll();
  asker.Ask("a", QueryEnd::kRefused, milliseconds(0));
  EXPECT_FALSE(asker.patience.Silent());
  EXPECT_EQ(asker.Silence(), 0);
  asker.NextPoll();
  EXPECT_EQ(asker.Answer(milliseconds(1000)), 2000);
}

TEST(QueryPatience, WhatWasNotAskedSaysNothing) {
  Asker asker;
  asker.Ask("a", QueryEnd::kNotAsked, milliseconds(0));
  EXPECT_EQ(asker.Silence(), 2000);
  asker.NextPoll();
  asker.Ask("a", QueryEnd::kNotAsked, milliseconds(0));
  EXPECT_TRUE(asker.patience.Silent());
}

// Answers may take all of it.
TEST(QueryPatience, APollWhosePatienceIsUsedUpAsksNothingMore) {
  Asker asker;
  EXPECT_EQ(asker.Answer(milliseconds(1500)), 2000);
  EXPECT_EQ(asker.Answer(milliseconds(500)), 500);
  EXPECT_FALSE(asker.patience.Silent());
  EXPECT_EQ(asker.Answer(milliseconds(1)), 0);
  asker.NextPoll();
  EXPECT_EQ(asker.Answer(milliseconds(1)), 2000);
}

// After a late answer to one query, another one's name is no reason to doubt.
TEST(QueryPatience, OnlyTheNameThatWasSilentIsDoubted) {
  Asker asker;
  EXPECT_EQ(asker.Silence("a"), 2000);
  asker.NextPoll();
  EXPECT_EQ(asker.Answer(milliseconds(1), "b"), 250);
  EXPECT_EQ(asker.Answer(milliseconds(1), "b"), 1999);
  EXPECT_EQ(asker.Answer(milliseconds(1), "a"), 250);
  EXPECT_EQ(asker.Answer(milliseconds(1), "a"), 1997);
}

}  // namespace
}  // namespace vex
