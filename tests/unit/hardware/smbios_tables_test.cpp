// The SMBIOS parser on sound tables and on tables that lie.
#include "hardware/kelmointrfc/smbios_tables.h"

#include <gtest/gtest.h>

#include "tests/support/smbios_tables.h"

namespace {

using vex::SmbiosTables;

std::vector<uint8_t> Bytes(const std::string &text) {
  return {text.begin(), text.end()};
}

std::optional<SmbiosTables> Parse(const vex::SmbiosImage &image, std::string *problem = nullptr) {
  const char *why = "";
  // Exact allocations, so that a sanitizer sees any step outside.
  auto tables = SmbiosTables::Parse(Bytes(image.entry_point), Bytes(image.table), &why);
  if (problem != nullptr) {
    *problem = why;
  }
  return tables;
}

std::optional<SmbiosTables> Parse(const std::string &description, std::string *problem = nullptr) {
  return Parse(vex::AssembleSmbios(description), problem);
}

std::string Problem(const std::string &description) {
  std::string problem;
  EXPECT_FALSE(Parse(description, &problem)) << description;
  return problem;
}

constexpr char kMalformedEntry[] = "malformed entry point";
constexpr char kMalformedRecord[] = "truncated or malformed record";
constexpr char kShort[] = "table shorter than its entry point says";

const std::string kRecords = R"(
0: 01 02 w=0xE000 03 00 to=0x18 "Maker" "U30" "01/15/2010"
1@0x0100: 01 02 03 04 {00112233445566778899aabbccddeeff} 06 to=27 "Quorix" "KX330 R5"
216: w=1 01 02 "key a" "1.0"
216: w=4 01 02 "key b" "2.0"
127:
)";

TEST(SmbiosTables, RecordsByTypeAndInstanceInTableOrder) {
  for (const char *entry : {"entry 3.2", "entry 2.8", "entry dmi 2.0"}) {
    const auto tables = Parse(entry + kRecords);
    ASSERT_TRUE(tables) << entry;
    const uint8_t *system = tables->Record(1, 0);
    ASSERT_NE(system, nullptr);
    EXPECT_EQ(system[0], 1);
    EXPECT_EQ(system[1], 27);
    EXPECT_EQ(system[2], 0x00);
    EXPECT_EQ(system[3], 0x01);
    EXPECT_EQ(system[8], 0x00);
    EXPECT_EQ(system[9], 0x11);
    EXPECT_EQ(system[23], 0xFF);
    EXPECT_EQ(tables->Record(1, 1), nullptr);
    ASSERT_NE(tables->Record(216, 0), nullptr);
    ASSERT_NE(tables->Record(216, 1), nullptr);
    EXPECT_EQ(tables->Record(216, 0)[4], 1);
    EXPECT_EQ(tables->Record(216, 1)[4], 4);
    EXPECT_EQ(tables->Record(216, 2), nullptr);
    EXPECT_NE(tables->Record(127, 0), nullptr);
    EXPECT_EQ(tables->Record(226, 0), nullptr);
  }
}

TEST(SmbiosTables, NoRecordOutsideTheRangeOfTypesAndInstances) {
  const auto tables = Parse("entry 3.0" + kRecords);
  ASSERT_TRUE(tables);
  for (const auto &[type, instance] :
       {std::pair{-1, 0}, {256, 0}, {1, -1}, {257, 0}, {1, 0x7FFFFFFF}}) {
    EXPECT_EQ(tables->Record(type, instance), nullptr) << type << ' ' << instance;
  }
}

TEST(SmbiosTables, StringsByNumberFromOne) {
  const auto tables = Parse("entry 3.0" + kRecords);
  ASSERT_TRUE(tables);
  const uint8_t *bios = tables->Record(0, 0);
  ASSERT_NE(bios, nullptr);
  EXPECT_STREQ(tables->String(bios, 1), "Maker");
  EXPECT_STREQ(tables->String(bios, 2), "U30");
  EXPECT_STREQ(tables->String(bios, 3), "01/15/2010");
  for (const int number : {0, -1, 4, 5, 255, 0x7FFFFFFF}) {
    EXPECT_STREQ(tables->String(bios, number), "") << number;
  }
  // The last record has none at all.
  EXPECT_STREQ(tables->String(tables->Record(127, 0), 1), "");
}

TEST(SmbiosTables, StringsOfAPointerThatIsNoRecordAreEmpty) {
  const auto tables = Parse("entry 3.0" + kRecords);
  ASSERT_TRUE(tables);
  const uint8_t *bios = tables->Record(0, 0);
  const uint8_t foreign[] = {0, 4, 0, 0, 'x', 0, 0};
  EXPECT_STREQ(tables->String(nullptr, 1), "");
  EXPECT_STREQ(tables->String(foreign, 1), "");
  static const uint8_t below[] = {0, 4, 0, 0, 'x', 0, 0};  // what is allocated stands higher
  EXPECT_STREQ(tables->String(below, 1), "");
  EXPECT_STREQ(tables->String(bios + 1, 1), "");
}

TEST(SmbiosTables, AnEmptyFirstStringDoesNotHideTheNext) {
  const auto tables = Parse("entry 3.0\n11: 02 \"\" \"b\"\n127:\n");
  ASSERT_TRUE(tables);
  EXPECT_STREQ(tables->String(tables->Record(11, 0), 1), "");
  EXPECT_STREQ(tables->String(tables->Record(11, 0), 2), "b");
}

TEST(SmbiosTables, EntryPointsThatAreNone) {
  for (const char *entry :
       {"entry 3.0 checksum=bad", "entry 2.8 checksum=bad", "entry dmi 2.0 checksum=bad",
        "entry 3.0 cut=1", "entry 2.8 cut=1", "entry dmi 2.0 cut=1", "entry 3.0 cut=24",
        "entry 2.8 cut=27", "entry 3.0 size=23", "entry 3.0 size=25", "entry 3.0 size=255",
        "entry 2.8 size=29", "entry 2.8 size=32", "entry 3.0 anchor=_SM4_", "entry 2.8 anchor=_SN_",
        "entry dmi 2.0 anchor=_DMJ_"}) {
    EXPECT_EQ(Problem(entry + kRecords), kMalformedEntry) << entry;
  }
}

TEST(SmbiosTables, AnIntermediateEntryPointThatIsNone) {
  vex::SmbiosImage image = vex::AssembleSmbios("entry 2.8" + kRecords);
  // Two changes that cancel out in the outer checksum.
  image.entry_point[22]++;
  image.entry_point[14]--;
  std::string problem;
  EXPECT_FALSE(Parse(image, &problem));
  EXPECT_EQ(problem, kMalformedEntry);
}

TEST(SmbiosTables, TheShorterLengthOfVersion21) {
  EXPECT_TRUE(Parse("entry 2.1 size=30" + kRecords));
}

TEST(SmbiosTables, ALengthBeyondTheFile) {
  // 3.x gives only an upper bound.
  EXPECT_TRUE(Parse("entry 3.0 length=65536" + kRecords));
  // 2.x: what is there must be whole, by its count or by its end-of-table record.
  EXPECT_TRUE(Parse("entry 2.8 length=65535" + kRecords));
  EXPECT_TRUE(Parse("entry 2.8 length=65535\n1: to=27\n"));
  EXPECT_EQ(Problem("entry 2.8 length=65535 count=2\n1: to=27\n"), kShort);
  EXPECT_EQ(Problem("entry 2.8 length=65535 count=0\n1: to=27\n"), kShort);
}

TEST(SmbiosTables, ALengthShortOfTheFileEndsTheTable) {
  // 6 bytes: the first record and nothing else.
  const auto tables = Parse("entry 3.0 length=6\n11:\n12:\n127:\n");
  ASSERT_TRUE(tables);
  EXPECT_NE(tables->Record(11, 0), nullptr);
  EXPECT_EQ(tables->Record(12, 0), nullptr);
  EXPECT_EQ(Problem("entry 3.0 length=9\n11:\n12:\n127:\n"), kMalformedRecord);
  EXPECT_EQ(Problem("entry 2.8 length=9\n11:\n12:\n127:\n"), kMalformedRecord);
  EXPECT_EQ(Problem("entry 3.0 length=0\n11:\n127:\n"), "no records");
}

TEST(SmbiosTables, TheCountOfVersion2EndsTheTable) {
  const auto tables = Parse("entry 2.8 count=1\n11:\n12:\nraw 01 02\n");
  ASSERT_TRUE(tables);
  EXPECT_NE(tables->Record(11, 0), nullptr);
  EXPECT_EQ(tables->Record(12, 0), nullptr);
  // A count that is too large, or unknown, does not make a table that ends properly a bad one.
  EXPECT_TRUE(Parse("entry 2.8 count=9\n11:\n12:\n"));
  EXPECT_TRUE(Parse("entry 2.8 count=0\n11:\n12:\n"));
}

TEST(SmbiosTables, TheEndOfTableRecord) {
  // 3.x: nothing behind it counts.
  const auto three = Parse("entry 3.0\n127:\n1: to=27\n");
  ASSERT_TRUE(three);
  EXPECT_EQ(three->Record(1, 0), nullptr);
  EXPECT_TRUE(Parse("entry 3.0\n1: to=27\n127:\nraw ff ff ff ff ff ff\n"));
  // 2.x had firmware that put records there; padding is no record.
  const auto two = Parse("entry 2.8\n127:\n1: to=27\nraw 00 00 00 00 00 00\n");
  ASSERT_TRUE(two);
  EXPECT_NE(two->Record(1, 0), nullptr);
  EXPECT_TRUE(Parse("entry 2.8 count=0\n1: to=27\n127:\nraw ff ff\n"));
}

TEST(SmbiosTables, TablesThatStopInTheMiddle) {
  const vex::SmbiosImage whole =
      vex::AssembleSmbios("entry 3.0\n1: 01 to=27 \"a\" \"b\"\n216: w=4 01 02 \"k\" \"v\"\n");
  int sound = 0;
  for (size_t size = 0; size <= whole.table.size(); size++) {
    vex::SmbiosImage image = whole;
    image.table.resize(size);
    std::string problem;
    if (Parse(image, &problem)) {
      sound++;
    } else {
      EXPECT_EQ(problem, size == 0 ? "no records" : kMalformedRecord) << size;
    }
  }
  // At the end of the first record and of the second.
  EXPECT_EQ(sound, 2);
}

TEST(SmbiosTables, RecordsWhoseLengthsLie) {
  for (const char *record : {"1: length=0", "1: length=3", "1: length=255", "1: length=6"}) {
    EXPECT_EQ(Problem(std::string("entry 3.0\n") + record + "\n"), kMalformedRecord) << record;
  }
}

TEST(SmbiosTables, StringsThatDoNotEnd) {
  EXPECT_EQ(Problem("entry 3.0\n1: to=27 \"a\" end=0\n"), kMalformedRecord);
  EXPECT_EQ(Problem("entry 3.0\n1: to=27 \"a\" end=1\n"), kMalformedRecord);
  EXPECT_EQ(Problem("entry 3.0\n1: to=27 end=0\n"), kMalformedRecord);
  EXPECT_EQ(Problem("entry 3.0\n1: to=27 end=1\n"), kMalformedRecord);
  EXPECT_EQ(Problem("entry 2.8\n1: to=27 end=1\n"), kMalformedRecord);
}

TEST(SmbiosTables, AMissingDoubleZeroSwallowsTheNextRecord) {
  // One zero only: what follows reads as more strings, up to the next double zero.
  const auto tables = Parse("entry 3.0\n11: 01 \"a\" end=1\n1@0x0101: 01 \"b\"\n127:\n");
  ASSERT_TRUE(tables);
  EXPECT_EQ(tables->Record(1, 0), nullptr);
  EXPECT_STREQ(tables->String(tables->Record(11, 0), 1), "a");
  EXPECT_STREQ(tables->String(tables->Record(11, 0), 3), "");
}

TEST(SmbiosTables, MoreThan64Kibibytes) {
  std::string text = "entry 3.0\n";
  for (int i = 0; i < 400; i++) {
    text += "221: to=200 \"" + std::string(50, static_cast<char>('a' + i % 26)) + "\"\n";
  }
  text += "1: to=27 \"last\"\n127:\n";
  const vex::SmbiosImage image = vex::AssembleSmbios(text);
  ASSERT_GT(image.table.size(), size_t{64} << 10);
  const auto tables = Parse(image);
  ASSERT_TRUE(tables);
  ASSERT_NE(tables->Record(221, 399), nullptr);
  EXPECT_EQ(tables->Record(221, 400), nullptr);
  EXPECT_STREQ(tables->String(tables->Record(221, 399), 1), std::string(50, 'j').c_str());
  EXPECT_STREQ(tables->String(tables->Record(1, 0), 1), "last");
}

TEST(SmbiosTables, ATableBeyondTheLimit) {
  vex::SmbiosImage image = vex::AssembleSmbios("entry 3.0 length=4294967295\n127:\n");
  image.table.resize(vex::kMaxSmbiosTable + 1);
  std::string problem;
  EXPECT_FALSE(Parse(image, &problem));
  EXPECT_EQ(problem, "table too large");
}

TEST(SmbiosTables, MovedTablesKeepTheirRecords) {
  auto tables = Parse("entry 3.0" + kRecords);
  ASSERT_TRUE(tables);
  const SmbiosTables moved = std::move(*tables);
  EXPECT_STREQ(moved.String(moved.Record(0, 0), 2), "U30");
}

TEST(SmbiosAssembler, RefusesWhatItDoesNotKnow) {
  for (const char *text : {"", "1: 00", "entry 3.0\nfoo", "entry 3.0\n1: 0", "entry 3.0\n1: zz",
                           "entry 3.0\n1: \"a", "entry three", "entry 3.0\n1: length=x"}) {
    EXPECT_THROW(vex::AssembleSmbios(text), std::invalid_argument) << text;
  }
}

}  // namespace
