// The agent's own group.
#include "detail/agent_state.h"

#include <gtest/gtest.h>

#include "tests/support/recording_framework.h"

namespace {

TEST(AgentState, IsMadeByAPollWhenTheStartCouldNot) {
  rec::Fail("create_obj", "host/agent");
  EXPECT_EQ(do_agent(), -1);
  rec::StopFailing();
  note_poll(12, true);
  note_poll(12, true);
  note_poll(INT64_MAX, false);
  EXPECT_EQ(do_agent(), 0);
  const registry_object *object = find_object(agent_group);
  ASSERT_NE(object, nullptr);
  const auto integer = [&](int slot) {
    return *static_cast<const int32_t *>(object->desc[slot].value);
  };
  EXPECT_GT(integer(1), 1'000'000'000);
  EXPECT_GE(integer(2), integer(1));
  EXPECT_EQ(integer(3), INT32_MAX);
  EXPECT_EQ(integer(4), 2);
}

TEST(AgentState, ATimeBefore1970IsNotKnown) {
  rec::SetTime(-1000);
  EXPECT_EQ(do_agent(), 0);
  note_poll(-1, false);
  EXPECT_EQ(do_agent(), 0);
  for (const char *variable : {"tlxHoAgentStart", "tlxHoAgentLastPoll", "tlxHoAgentPollDuration"}) {
    EXPECT_EQ(rec::Int("host/agent", variable), -1) << variable;
  }
  rec::SetTime(1'700'000'000);
  EXPECT_EQ(do_agent(), 0);
  EXPECT_EQ(rec::Int("host/agent", "tlxHoAgentStart"), 1'700'000'000);
}

TEST(AgentState, KnowsNoPollBeforeTheFirstHasEnded) {
  ASSERT_EQ(do_agent(), 0);
  const registry_object *object = find_object(agent_group);
  ASSERT_NE(object, nullptr);
  const auto integer = [&](int slot) {
    return *static_cast<const int32_t *>(object->desc[slot].value);
  };
  EXPECT_EQ(integer(2), -1);
  EXPECT_EQ(integer(3), -1);
  EXPECT_EQ(integer(4), 0);
  // One that took less than a millisecond.
  note_poll(0, false);
  ASSERT_EQ(do_agent(), 0);
  EXPECT_GE(integer(2), integer(1));
  EXPECT_EQ(integer(3), 0);
  EXPECT_EQ(integer(4), 0);
}

}  // namespace
