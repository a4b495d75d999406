// The names of the sibling agents, and their rows.
#include "detail/sibling.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "status/mib_status.h"
#include "tests/support/recording_framework.h"

namespace {

TEST(Sibling, EveryPeerHasANameOfItsOwn) {
  std::set<std::string> names;
  peer_view peer;
  int place = 0;
  for (; get_peer(place, &peer); place++) {
    const char *name = sibling_name(peer.index);
    EXPECT_STRNE(name, "") << peer.index;
    EXPECT_TRUE(names.insert(name).second) << name;
  }
  EXPECT_EQ(place, 16);
  EXPECT_FALSE(get_peer(-1, &peer));
  EXPECT_STREQ(sibling_name(4), "");
}

TEST(Sibling, OneRowThatCannotBeMadeCostsNoOther) {
  rec::Fail("create_obj", "host/sibling.6");
  EXPECT_EQ(do_sibling(), -1);
  EXPECT_EQ(rec::Names("log_data").size(), 15U);
  rec::StopFailing();
  rec::ForgetEvents();
  EXPECT_EQ(do_sibling(), 0);
  EXPECT_EQ(rec::Names("log_data"), std::vector<std::string>{"host/sibling.6"});
  // Nothing has changed, so that nothing is published.
  rec::ForgetEvents();
  EXPECT_EQ(do_sibling(), 0);
  EXPECT_EQ(rec::Count("log_data"), 0);
}

TEST(Sibling, ARowHasAWordForEachNumberThatIsKnown) {
  ASSERT_EQ(do_sibling(), 0);
  EXPECT_EQ(rec::Live("host/sibling.5")->flag, 1);
  EXPECT_EQ(rec::Text("host/sibling.5", "tlxHoSiblingName"), "SCSI");
  EXPECT_EQ(rec::Int("host/sibling.5", "tlxHoSiblingPresent"), 2);
  for (const char *variable :
       {"tlxHoSiblingCondition", "tlxHoSiblingMajor", "tlxHoSiblingMinor", "tlxHoSiblingHealth"}) {
    EXPECT_EQ(rec::Int("host/sibling.5", variable), -1) << variable;
  }
}

}  // namespace
