// Sorting and the choice of columns.
#include "tools/vexreg/arrange.h"

#include <gtest/gtest.h>

#include "platform/framework.h"
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

TEST_F(Arranged, SortsEachGroupForItself) {
  objects_ = {{"host/cpu.2", MadeObject({Int("x", 2)})},
              {"host/cpu.1", MadeObject({Int("x", 1)})},
              Row(9, 1, 1, ""),
              Row(8, 1, 1, "")};
  EXPECT_EQ(Order("#"), "1289");
}

TEST_F(Arranged, ChoosesNoColumnTwice) {
  ASSERT_TRUE(Arrange({"", ",Desc,,desc,"}, &objects_, &error_));
  EXPECT_EQ(Columns(0), "tlxHoFileSysDesc");
}

TEST_F(Arranged, RowsOfAnotherShapeComeFirst) {
  NamedObject cut = Row(5, 1, 1, "");
  cut.object.data.clear();  // of its variables, nothing is there
  for (const auto &[sort, order] : {std::pair{"SpaceTotal", "570"}, std::pair{"-SpaceTotal", "057"},
                                    std::pair{"Desc", "570"}}) {
    objects_ = {Row(0, 9, 1, "x"), cut, {"host/filesys.7", MadeObject({Int("other", 1)})}};
    EXPECT_EQ(Order(sort), order);
  }
}

// An end of a name is a heading where it begins a word and is one variable's alone.
TEST_F(Arranged, TakesEndsOfNamesThatAreClear) {
  const std::vector<NamedObject> objects = {
      {"x/row.1", MadeObject({Int("tlxHoPhysicalMemorySize", 1), Int("tlxHoPagingMemorySize", 2),
                              Int("var0", 3)})}};
  objects_ = objects;
  EXPECT_TRUE(Arrange({"", "PagingMemorySize"}, &objects_, &error_)) << error_;
  for (const char *end : {"Size", "0", "ar0", "emorySize"}) {
    objects_ = objects;
    EXPECT_FALSE(Arrange({end, ""}, &objects_, &error_)) << end;
    EXPECT_TRUE(error_.starts_with(std::string(end) + ": no such column")) << error_;
  }
}

TEST_F(Arranged, UnusedPlacesAreNoColumns) {
  objects_ = {{"x/row.1", MadeObject({{"aGone", 0, "", 0}, Int("aHere", 1), Int("aMore", 2)})}};
  EXPECT_FALSE(Arrange({"", "Gone"}, &objects_, &error_));
  EXPECT_EQ(error_, "Gone: no such column; there are # Here More Object Published");
}

TEST_F(Arranged, NumbersAreOfRows) {
  ASSERT_TRUE(Arrange({"", "#"}, &objects_, &error_)) << error_;
  EXPECT_EQ(objects_.size(), 3U) << "host/memory has none";
}

TEST_F(Arranged, OfNothingEveryColumnIsRight) {
  objects_.clear();
  EXPECT_TRUE(Arrange({"-Size", "Nothing"}, &objects_, &error_));
  EXPECT_EQ(error_, "");
}

}  // namespace
