#include "framework/snmp/mib_index.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/framework/small_mib.h"

namespace vex {
namespace {

std::shared_ptr<Image> Row(uint64_t id, uint32_t instance, const std::string &name) {
  return ImageMaker(id, instance)
      .Int(kRowNumber, static_cast<int32_t>(instance))
      .Text(kRowName, name, 16)
      .Octets(kRowDate, "1234567", 8)
      .Make();
}

std::string TextOf(const Cell &cell) {
  std::span<const uint8_t> octets = cell.Octets();
  return {octets.begin(), octets.end()};
}

// All names from the start, by GETNEXT.
std::string Walk(const MibIndex &index) {
  std::string text;
  std::vector<SubId> name = {0, 0};
  Cell cell;
  while (index.Next(name, false, &cell)) {
    text += std::string(cell.mib->name) + "." + std::to_string(cell.instance) + " ";
    std::vector<SubId> next(cell.mib->Oid().begin(), cell.mib->Oid().end());
    next.push_back(cell.instance);
    EXPECT_LT(name, next) << "not in order";
    name = next;
  }
  return text;
}

TEST(MibIndex, EmptyIndexKnowsItsVariables) {
  MibIndex index(kSmallMib);
  Cell cell;
  EXPECT_EQ(index.Get(NameOf(kCount, {0}), &cell), Lookup::kNoSuchInstance);
  EXPECT_EQ(index.Get(NameOf(kRowName, {3}), &cell), Lookup::kNoSuchInstance);
  EXPECT_EQ(index.Get(std::vector<SubId>{1, 3, 9, 1}, &cell), Lookup::kNoSuchObject);
  EXPECT_EQ(index.Get(std::vector<SubId>{1, 3, 9, 2, 1, 4, 0}, &cell), Lookup::kNoSuchObject);
  EXPECT_EQ(index.Get(std::vector<SubId>{}, &cell), Lookup::kNoSuchObject);
  EXPECT_FALSE(index.Next(std::vector<SubId>{}, true, &cell));
}

TEST(MibIndex, GetOfScalarsAndRows) {
  MibIndex index(kSmallMib);
  index.Put(ImageMaker(1, 0).Int(kCount, -5).Text(kText, "hello", 9).Make());
  index.Put(Row(2, 7, "seven"));
  Cell cell;
  ASSERT_EQ(index.Get(NameOf(kCount, {0}), &cell), Lookup::kFound);
  EXPECT_EQ(cell.Integer(), -5);
  ASSERT_EQ(index.Get(NameOf(kText, {0}), &cell), Lookup::kFound);
  EXPECT_EQ(TextOf(cell), "hello");
  ASSERT_EQ(index.Get(NameOf(kRowName, {7}), &cell), Lookup::kFound);
  EXPECT_EQ(TextOf(cell), "seven");
  ASSERT_EQ(index.Get(NameOf(kRowDate, {7}), &cell), Lookup::kFound);
  EXPECT_EQ(TextOf(cell), "1234567");
  EXPECT_EQ(index.Get(NameOf(kCount, {1}), &cell), Lookup::kNoSuchInstance);
  EXPECT_EQ(index.Get(NameOf(kCount, {}), &cell), Lookup::kNoSuchInstance);
  EXPECT_EQ(index.Get(NameOf(kCount, {0, 0}), &cell), Lookup::kNoSuchInstance);
  EXPECT_EQ(index.Get(NameOf(kRowName, {8}), &cell), Lookup::kNoSuchInstance);
  EXPECT_EQ(index.Get(NameOf(kRowName, {(1UL << 32) + 7}), &cell), Lookup::kNoSuchInstance);
}

// A scalar is served as .0 whatever number its object's name ends with.
TEST(MibIndex, ScalarOfNumberedObject) {
  MibIndex index(kSmallMib);
  index.Put(ImageMaker(1, 4).Int(kCount, 1).Make());
  Cell cell;
  EXPECT_EQ(index.Get(NameOf(kCount, {0}), &cell), Lookup::kFound);
  EXPECT_EQ(index.Get(NameOf(kCount, {4}), &cell), Lookup::kNoSuchInstance);
  index.Remove(1);
  EXPECT_EQ(index.Get(NameOf(kCount, {0}), &cell), Lookup::kNoSuchInstance);
}

TEST(MibIndex, DisplayStringsAreBoundedByTheirField) {
  MibIndex index(kSmallMib);
  index.Put(ImageMaker(1, 0).Text(kText, "12345678", 8).Int(kLast, 9).Make());
  Cell cell;
  ASSERT_EQ(index.Get(NameOf(kText, {0}), &cell), Lookup::kFound);
  EXPECT_EQ(TextOf(cell), "12345678");
}

TEST(MibIndex, OctetLengthIsBoundedByTheField) {
  MibIndex index(kSmallMib);
  std::shared_ptr<Image> image = ImageMaker(1, 0).Octets(kRowDate, "12345678", 8).Make();
  image->octet_lengths[0] = 300;
  index.Put(image);
  Cell cell;
  ASSERT_EQ(index.Get(NameOf(kRowDate, {0}), &cell), Lookup::kFound);
  EXPECT_EQ(cell.Octets().size(), 8U);
}

TEST(MibIndex, WalkGoesColumnByColumnInOrder) {
  MibIndex index(kSmallMib);
  index.Put(Row(5, 10, "ten"));
  index.Put(Row(6, 2, "two"));
  index.Put(ImageMaker(1, 0).Int(kCount, 1).Int(kLast, 2).Make());
  EXPECT_EQ(Walk(index),
            "smallCount.0 smallRowNumber.2 smallRowNumber.10 smallRowName.2 smallRowName.10 "
            "smallRowDate.2 smallRowDate.10 smallLast.0 ");
}

TEST(MibIndex, NextFromEveryKindOfName) {
  MibIndex index(kSmallMib);
  index.Put(Row(5, 10, "ten"));
  index.Put(Row(6, 2, "two"));
  struct {
    std::vector<SubId> from;
    bool inclusive;
    SmallMib variable;
    uint32_t instance;
  } cases[] = {
      {{}, false, kRowNumber, 2},
      {{1, 3, 9}, false, kRowNumber, 2},
      {NameOf(kText, {5}), false, kRowNumber, 2},
      {NameOf(kRowNumber, {}), false, kRowNumber, 2},
      {NameOf(kRowNumber, {}), true, kRowNumber, 2},
      {NameOf(kRowNumber, {0}), false, kRowNumber, 2},
      {NameOf(kRowNumber, {2}), false, kRowNumber, 10},
      {NameOf(kRowNumber, {2}), true, kRowNumber, 2},
      {NameOf(kRowNumber, {2, 0}), false, kRowNumber, 10},
      {NameOf(kRowNumber, {2, 0}), true, kRowNumber, 10},
      {NameOf(kRowNumber, {1, 99}), true, kRowNumber, 2},
      {NameOf(kRowNumber, {3}), true, kRowNumber, 10},
      {NameOf(kRowNumber, {10}), false, kRowName, 2},
      {NameOf(kRowNumber, {4294967295UL}), false, kRowName, 2},
      {NameOf(kRowNumber, {4294967295UL}), true, kRowName, 2},
      {{1, 3, 9, 2, 1, 1, 1UL << 40}, true, kRowName, 2},
      // What net-snmp makes of 4294967295 in a packet: it reads sub-identifiers with a sign.
      {NameOf(kRowNumber, {~0UL}), false, kRowName, 2},
      {NameOf(kRowNumber, {~0UL}), true, kRowName, 2},
      {{1, 3, 9, 2}, false, kRowNumber, 2},
  };
  for (const auto &c : cases) {
    Cell cell;
    ASSERT_TRUE(index.Next(c.from, c.inclusive, &cell));
    EXPECT_EQ(cell.mib, &kSmallMib[c.variable]);
    EXPECT_EQ(cell.instance, c.instance);
  }
  Cell cell;
  EXPECT_FALSE(index.Next(NameOf(kRowDate, {10}), false, &cell));
  EXPECT_FALSE(index.Next(std::vector<SubId>{2}, true, &cell));
}

TEST(MibIndex, ReplacedWithdrawnAndChangedRows) {
  MibIndex index(kSmallMib);
  index.Put(Row(5, 1, "old"));
  Cell cell;
  ASSERT_EQ(index.Get(NameOf(kRowName, {1}), &cell), Lookup::kFound);
  index.Put(Row(5, 1, "new"));
  ASSERT_EQ(index.Get(NameOf(kRowName, {1}), &cell), Lookup::kFound);
  EXPECT_EQ(TextOf(cell), "new");
  // The same layout object: only the values change.
  auto copy = std::make_shared<Image>(*cell.image);
  copy->data[4] = 'N';
  index.Put(copy);
  ASSERT_EQ(index.Get(NameOf(kRowName, {1}), &cell), Lookup::kFound);
  EXPECT_EQ(TextOf(cell), "New");
  // A layout without a column that was there.
  index.Put(ImageMaker(5, 1).Int(kRowNumber, 1).Make());
  EXPECT_EQ(Walk(index), "smallRowNumber.1 ");
  index.Remove(5);
  index.Remove(5);
  EXPECT_EQ(Walk(index), "");
  EXPECT_EQ(index.ImageOf(5), nullptr);
}

// A number is free again as soon as its row is deleted: the new row's object may arrive before the
// old one's end.
TEST(MibIndex, TwoObjectsOfOneInstance) {
  MibIndex index(kSmallMib);
  index.Put(Row(5, 1, "old"));
  index.Put(Row(9, 1, "new"));
  EXPECT_EQ(Walk(index), "smallRowNumber.1 smallRowName.1 smallRowDate.1 ");
  Cell cell;
  ASSERT_EQ(index.Get(NameOf(kRowName, {1}), &cell), Lookup::kFound);
  EXPECT_EQ(TextOf(cell), "old");
  index.Remove(5);
  ASSERT_EQ(index.Get(NameOf(kRowName, {1}), &cell), Lookup::kFound);
  EXPECT_EQ(TextOf(cell), "new");
}

TEST(MibIndex, MalformedImagesServeNothing) {
  MibIndex index(kSmallMib);
  index.Put(nullptr);
  index.Put(std::make_shared<Image>());
  std::shared_ptr<Image> cut = Row(5, 1, "cut");
  cut->data.resize(10);
  index.Put(cut);
  EXPECT_EQ(Walk(index), "smallRowNumber.1 ");
  Layout strange;
  MibVariable foreign = kSmallMib[kCount];
  strange.variables.push_back({&foreign, 0, 4, 0, VAR_INTEGER, true});
  strange.variables.push_back({&kSmallMib[kCount], 1, 2, 0, VAR_INTEGER, true});
  strange.variables.push_back({&kSmallMib[kLast], 2, 4, 0xfffffff0U, VAR_INTEGER, true});
  strange.variables.push_back({&kSmallMib[kText], 3, -1, 0, VAR_DISPLAY_STRING, true});
  strange.variables.push_back({&kSmallMib[kNotify], 4, 4, 0, VAR_DISPLAY_STRING, true});
  auto image = std::make_shared<Image>();
  image->object_id = 6;
  image->data.resize(8);
  image->layout = std::make_shared<Layout>(strange);
  index.Put(image);
  EXPECT_EQ(Walk(index), "smallRowNumber.1 ");
  Cell cell;
  EXPECT_EQ(index.Get(NameOf(kNotify, {0}), &cell), Lookup::kNoSuchObject);
}

TEST(MibIndex, TenThousandRows) {
  MibIndex index(kSmallMib);
  constexpr uint32_t kRows = 10000;
  for (uint32_t i = 0; i < kRows; i++) {
    uint32_t instance = (i * 7919) % kRows;  // a permutation
    index.Put(Row(100 + i, instance, "row"));
  }
  std::vector<SubId> name = NameOf(kRowName, {});
  Cell cell;
  for (uint32_t i = 0; i < kRows; i++) {
    ASSERT_TRUE(index.Next(name, false, &cell));
    ASSERT_EQ(cell.mib, &kSmallMib[kRowName]);
    ASSERT_EQ(cell.instance, i);
    name = NameOf(kRowName, {cell.instance});
  }
  for (uint32_t i = 0; i < kRows; i += 2) {
    index.Remove(100 + i);
  }
  for (uint32_t i = 0; i < kRows; i++) {
    ASSERT_EQ(index.ImageOf(100 + i) != nullptr, i % 2 != 0) << i;
  }
}

// An image may say less of its octets than its layout has, or serve a variable of another table.
TEST(MibIndex, WhatAnImageDoesNotSayIsNotReadPastItsEnd) {
  MibIndex index(kSmallMib);
  std::shared_ptr<Image> image = Row(5, 1, "one");
  image->octet_lengths.resize(2);  // none of the date
  index.Put(image);
  Cell cell;
  ASSERT_EQ(index.Get(NameOf(kRowDate, {1}), &cell), Lookup::kFound);
  EXPECT_EQ(cell.Octets().size(), 8U);  // the field

  MibIndex other(std::span<const MibVariable>(kSmallMib).subspan(kLast));
  other.Put(Row(5, 1, "one"));
  EXPECT_EQ(Walk(other), "");
  EXPECT_NE(other.ImageOf(5), nullptr);
}

TEST(MibIndex, OfTwoSlotsWithOneVariableTheFirstCounts) {
  MibIndex index(kSmallMib);
  index.Put(ImageMaker(5, 0).Int(kCount, 1).Int(kCount, 2).Make());
  Cell cell;
  ASSERT_EQ(index.Get(NameOf(kCount, {0}), &cell), Lookup::kFound);
  EXPECT_EQ(cell.Integer(), 1);
  EXPECT_EQ(Walk(index), "smallCount.0 ");
}

// An object's slots are in the order that its group likes.
TEST(MibIndex, SlotsMayStandInAnyOrder) {
  MibIndex index(kSmallMib);
  index.Put(ImageMaker(5, 0).Int(kLast, 2).Text(kText, "text", 8).Int(kCount, 1).Make());
  EXPECT_EQ(Walk(index), "smallCount.0 smallText.0 smallLast.0 ");
  Cell cell;
  ASSERT_EQ(index.Get(NameOf(kCount, {0}), &cell), Lookup::kFound);
  EXPECT_EQ(cell.Integer(), 1);
}

// The same layout in another row is another row.
TEST(MibIndex, AnObjectMayMoveToAnotherInstance) {
  MibIndex index(kSmallMib);
  const std::shared_ptr<Image> one = Row(5, 1, "one");
  index.Put(one);
  auto two = std::make_shared<Image>(*one);
  two->instance = 2;
  index.Put(two);
  EXPECT_EQ(Walk(index), "smallRowNumber.2 smallRowName.2 smallRowDate.2 ");
}

}  // namespace
}  // namespace vex
