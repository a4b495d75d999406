// The kinds of software beside the software table.
#include "detail/swkind.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "software/swver.h"
#include "tests/support/recording_framework.h"

namespace {

using Strings = std::vector<std::string>;

void Put(const char *name, int32_t type) {
  const swver_item item = {name, "1", "made up"};
  ASSERT_EQ(swver_put(&item, type, SWVER_STATUS_FOUND, SWVER_SEEN), 0);
}

TEST(SoftwareKind, IsTheAgentsJudgementWhateverAManagerSets) {
  Put("one", SWVER_TYPE_DRIVER);
  Put("two", SWVER_TYPE_OTHER);
  swver_finish_pass();
  ASSERT_EQ(rec::Set("host/swver.0", "tlxHoSwVerType", 4), 0);
  ASSERT_EQ(rec::Set("host/swver.0", "tlxHoSwVerName", std::string("mine")), 0);
  ASSERT_EQ(do_swkind(), 0);
  EXPECT_EQ(rec::Int("host/swkind.0", "tlxHoSwKind"), SWVER_TYPE_DRIVER);
  EXPECT_EQ(rec::Text("host/swkind.0", "tlxHoSwKindName"), "one");
  EXPECT_EQ(rec::Int("host/swkind.1", "tlxHoSwKind"), SWVER_TYPE_OTHER);
}

TEST(SoftwareKind, FollowsTheRows) {
  Put("one", SWVER_TYPE_DRIVER);
  Put("two", SWVER_TYPE_AGENT);
  ASSERT_EQ(do_swkind(), 0);
  rec::ForgetEvents();
  ASSERT_EQ(do_swkind(), 0);
  EXPECT_EQ(rec::Count("log_data"), 0);  // nothing has changed

  // One goes, and another takes its number.
  swver_find("one")->state = SWVER_NOT_SEEN;
  swver_finish_pass();
  ASSERT_EQ(do_swkind(), 0);
  EXPECT_EQ(rec::Live("host/swkind.0"), nullptr);
  Put("three", SWVER_TYPE_OTHER);
  rec::ForgetEvents();
  ASSERT_EQ(do_swkind(), 0);
  EXPECT_EQ(rec::Names("log_data"), Strings{"host/swkind.0"});
  EXPECT_EQ(rec::Text("host/swkind.0", "tlxHoSwKindName"), "three");
}

TEST(SoftwareKind, ARowThatCannotBeMadeIsMadeByTheNextPass) {
  Put("one", SWVER_TYPE_DRIVER);
  Put("two", SWVER_TYPE_AGENT);
  rec::Fail("create_obj", "host/swkind.0");
  EXPECT_EQ(do_swkind(), -1);
  EXPECT_EQ(rec::Publications("host/swkind.1"), 1);
  rec::StopFailing();
  rec::ForgetEvents();
  EXPECT_EQ(do_swkind(), 0);
  EXPECT_EQ(rec::Names("log_data"), Strings{"host/swkind.0"});
}

TEST(SoftwareKind, WhatCouldNotBePublishedIsPublishedByTheNextPass) {
  Put("one", SWVER_TYPE_DRIVER);
  rec::Fail("log_data", "host/swkind.0");
  EXPECT_EQ(do_swkind(), 0);
  rec::StopFailing();
  EXPECT_EQ(do_swkind(), 0);
  EXPECT_EQ(rec::Text("host/swkind.0", "tlxHoSwKindName"), "one");
}

TEST(SoftwareKind, ARowThatCannotBeRemovedIsRemovedByTheNextPass) {
  Put("one", SWVER_TYPE_DRIVER);
  ASSERT_EQ(do_swkind(), 0);
  swver_find("one")->state = SWVER_NOT_SEEN;
  swver_finish_pass();
  rec::Fail("delete_obj", "host/swkind.0");
  EXPECT_EQ(do_swkind(), 0);
  EXPECT_NE(rec::Live("host/swkind.0"), nullptr);
  rec::StopFailing();
  EXPECT_EQ(do_swkind(), 0);
  EXPECT_EQ(rec::Live("host/swkind.0"), nullptr);
}

}  // namespace
