// Sorting and the choice of columns.
#include "tools/vexreg/arrange.h"

#include <gtest/gtest.h>

#include "tests/unit/tools/made_object.h"
#include "tools/vexreg/values.h"

using namespace vex;

namespace {

NamedObject Row(int number, int total, int percent, const std::string &text) {
  NamedObject row = {
      "host/filesys." + std::to_string(number),
      MadeObject({Int("tlxHoFileSysIndex", number), Text("tlxHoFileSysDesc", 64, text),
                  Int("tlxHoFileSysSpaceTotal", total),
                  Int("tlxHoFileSysPercentSpaceUsed", percent)})};
  row.object.published_ns = 1;
  return row;
}

class Arranged : public testing::Test {
 protected:
  std::vector<NamedObject> objects_ = {
      Row(0, 9, 50, "b"),
      Row(1, 100, 7, "a"),
      Row(2, 9, 90, "c"),
      {"host/memory", MadeObject({Int("tlxHoPhysicalMemorySize", 5)})}};
  std::string error_;
  std::string Order(const std::string &sort) {
    EXPECT_TRUE(Arrange({sort, ""}, &objects_, &error_)) << error_;
    std::string order;
    for (const NamedObject &object : objects_) {
      order += object.name.substr(object.name.size() - 1);
    }
    return order;
  }
  std::string Columns(size_t object) {
    std::string names;
    for (const FileVariable &variable : objects_[object].object.variables) {
      names += (names.empty() ? "" : " ") + variable.name;
    }
    return names;
  }
};

TEST_F(Arranged, SortsNumbersByNumber) {
  EXPECT_EQ(Order("SpaceTotal"), "021y");
  EXPECT_EQ(Order("-SpaceTotal"), "102y");
}

TEST_F(Arranged, SortsTextsAndByMoreThanOneColumn) {
  EXPECT_EQ(Order("Desc"), "102y");
  EXPECT_EQ(Order("-desc"), "201y");
  EXPECT_EQ(Order("SpaceTotal,-PercentSpaceUsed"), "201y");
  EXPECT_EQ(Order("tlxHoFileSysPercentSpaceUsed"), "102y");
  EXPECT_EQ(Order("-#"), "210y");
}

TEST_F(Arranged, LeavesOtherColumnsAsTheyWere) {
  Order("SpaceTotal");
  EXPECT_EQ(Columns(0),
            "tlxHoFileSysIndex tlxHoFileSysDesc tlxHoFileSysSpaceTotal "
            "tlxHoFileSysPercentSpaceUsed");
  EXPECT_EQ(objects_.size(), 4U);
}

TEST_F(Arranged, ShowsTheNamedColumnsInTheirOrder) {
  ASSERT_TRUE(Arrange({"", "PercentSpaceUsed,desc"}, &objects_, &error_));
  ASSERT_EQ(objects_.size(), 3U);  // host/memory has none of them
  EXPECT_EQ(Columns(0), "tlxHoFileSysPercentSpaceUsed tlxHoFileSysDesc");
  EXPECT_EQ(IntegerOf(objects_[1].object, objects_[1].object.variables[0]), 7);
}

TEST_F(Arranged, AddsColumns) {
  ASSERT_TRUE(Arrange({"", "+Object,Published"}, &objects_, &error_));
  ASSERT_EQ(objects_.size(), 4U);
  EXPECT_EQ(Columns(3), "tlxHoPhysicalMemorySize Object Published");
  EXPECT_EQ(BytesOf(objects_[3].object, objects_[3].object.variables[1]), "host/memory");
  const std::string text = RenderTables({objects_[0]}, 0);
  EXPECT_NE(text.find("  #  Index  Desc  SpaceTotal (MB)  PercentSpaceUsed (%)  Object "),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("19"), std::string::npos);
}

TEST_F(Arranged, HasTimesForProgramsAsTheOthersAre) {
  ASSERT_TRUE(Arrange({"", "Published", true}, &objects_, &error_));
  const auto published = BytesOf(objects_[0].object, objects_[0].object.variables[0]);
  EXPECT_EQ(published, IsoTime(objects_[0].object.published_ns / 1'000'000'000));
}

TEST_F(Arranged, NamesTheColumnsThereAre) {
  EXPECT_FALSE(Arrange({"", "Space"}, &objects_, &error_));
  EXPECT_EQ(
      error_,
      "Space: no such column; there are # Index Desc SpaceTotal PercentSpaceUsed Object Published "
      "tlxHoPhysicalMemorySize");
  EXPECT_FALSE(Arrange({"-Free", ""}, &objects_, &error_));
  EXPECT_TRUE(error_.starts_with("Free: no such column")) << error_;
}

TEST_F(Arranged, KeepsObjectsWithoutVariables) {
  objects_ = {{"a/x", MadeObject({})}, Row(0, 1, 1, "")};
  EXPECT_EQ(Order("Desc"), "x0");
}

}  // namespace
