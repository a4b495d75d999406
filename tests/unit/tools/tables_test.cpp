// Tables for people.
#include "tools/vexreg/tables.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <algorithm>
#include <map>
#include <sstream>

#include "tests/unit/tools/made_object.h"

using namespace vex;

namespace {

class Tables : public testing::Test {
 protected:
  // As main() does.
  Tables() {
    setlocale(LC_CTYPE, "C.UTF-8");
  }
};

NamedObject Cpu(int row, int minute, int five) {
  return {"host/cpu." + std::to_string(row),
          MadeObject({Int("tlxHoCpuUtilUnitIndex", row), Int("tlxHoCpuUtilMin", minute),
                      Int("tlxHoCpuUtilFiveMin", five), Text("tlxHoCpuUtilHwLocation", 256, "")})};
}

int LongestLine(const std::string &text) {
  int longest = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    longest = std::max(longest, DisplayWidth(line));
  }
  return longest;
}

TEST_F(Tables, OneTableForTheRowsOfAGroup) {
  EXPECT_EQ(RenderTables({Cpu(0, 3, -1), Cpu(1, 100, 42)}, 80),
            "host/cpu (2 rows)\n"
            "                 Five\n"
            "      Unit  Min   Min  Hw\n"
            "  #  Index  (%)   (%)  Location\n"
            "  0      0    3    -1\n"
            "  1      1  100    42\n");
}

TEST_F(Tables, OneLineAHeadingAndARowWithoutAWidth) {
  EXPECT_EQ(RenderTables({Cpu(0, 3, -1)}, 0),
            "host/cpu (1 row)\n"
            "  #  UnitIndex  Min (%)  FiveMin (%)  HwLocation\n"
            "  0          0        3           -1\n");
}

TEST_F(Tables, AListForAnObjectThatIsNoRow) {
  EXPECT_EQ(RenderTables({{"host/memory", MadeObject({Int("tlxHoPhysicalMemorySize", 2000),
                                                      Int("tlxHoPhysicalMemoryFree", 17),
                                                      Int("tlxHoPagingMemorySize", -1)})}},
                         80),
            "host/memory\n"
            "  PhysicalMemorySize (MB)  2000\n"
            "  PhysicalMemoryFree (MB)  17\n"
            "  PagingMemorySize (MB)    -1\n");
}

TEST_F(Tables, ABlankLineBetweenGroups) {
  const NamedObject one = {"a/x", MadeObject({Int("v", 1)})};
  const NamedObject other = {"a/y", MadeObject({Int("v", 2)})};
  EXPECT_EQ(RenderTables({one, other}, 80), "a/x\n  v  1\n\na/y\n  v  2\n");
  EXPECT_EQ(RenderTables({}, 80), "");
}

TEST_F(Tables, RowsOfAnotherShapeGetATableOfTheirOwn) {
  const NamedObject one = {"a/x.1", MadeObject({Int("v", 1)})};
  const NamedObject other = {"a/x.2", MadeObject({Text("v", 4, "t")})};
  EXPECT_EQ(RenderTables({one, other}, 80),
            "a/x (1 row)\n  #  v\n  1  1\n\na/x (1 row)\n  #  v\n  2  t\n");
}

TEST_F(Tables, ObjectsWithoutVariables) {
  EXPECT_EQ(RenderTables({{"a/x", MadeObject({})}}, 80),
            "a/x\n  (no variables; 0 bytes of data)\n");
  NamedObject row = {"a/y.3", MadeObject({})};
  row.object.data.resize(12);
  EXPECT_EQ(RenderTables({row}, 80), "a/y.3\n  (no variables; 12 bytes of data)\n");
}

TEST_F(Tables, LongTextComesLastAndIsWrapped) {
  const NamedObject row = {
      "host/filesys.0",
      MadeObject({Int("tlxHoFileSysIndex", 0),
                  Text("tlxHoFileSysDesc", 256,
                       "/dev/mapper/a-very-long-name-of-a-volume on /srv/with blanks and more of "
                       "them than fit"),
                  Int("tlxHoFileSysSpaceTotal", 123456)})};
  EXPECT_EQ(RenderTables({row}, 60),
            "host/filesys (1 row)\n"
            "             Space\n"
            "             Total\n"
            "  #  Index    (MB)  Desc\n"
            "  0      0  123456  /dev/mapper/a-very-long-name-of-a-volume\n"
            "                    on /srv/with blanks and more of them\n"
            "                    than fit\n");
}

TEST_F(Tables, NoLineIsLongerThanTheWidth) {
  std::vector<NamedObject> rows;
  for (int i = 0; i < 3; i++) {
    rows.push_back(
        {"host/swver." + std::to_string(i),
         MadeObject({Int("tlxHoSwVerIndex", i), Text("tlxHoSwVerName", 128, std::string(60, 'n')),
                     Text("tlxHoSwVerDescription", 256,
                          "what it is for, in a sentence that is rather longer than the line"),
                     Octets("tlxHoSwVerDate", 7, "\x07\xE8\x03\x05\x0E\x07\x09"),
                     Text("tlxHoSwVerLocation", 256, "/usr/lib/somewhere"),
                     Text("tlxHoSwVerVersion", 51, "1.2.3-4+deb12u1"),
                     Text("tlxHoSwVerVersionBinary", 51, "1.2.3-4+deb12u1")})});
  }
  for (const int width : {200, 120, 80, 60, 50, 40, 30}) {
    const std::string text = RenderTables(rows, width);
    EXPECT_LE(LongestLine(text), width) << text;
    EXPECT_NE(text.find("sentence"), std::string::npos);
  }
  const std::string whole = RenderTables(rows, 0);
  EXPECT_EQ(std::count(whole.begin(), whole.end(), '\n'), 1 + 1 + 3);
  EXPECT_NE(whole.find("what it is for, in a sentence that is rather longer than the line"),
            std::string::npos);
}

TEST_F(Tables, RowsThatCannotBeFittedBecomeLists) {
  EXPECT_EQ(RenderTables({Cpu(7, 3, -1), Cpu(8, 4, 5)}, 24),
            "host/cpu.7\n"
            "  UnitIndex    7\n"
            "  Min (%)      3\n"
            "  FiveMin (%)  -1\n"
            "  HwLocation\n"
            "\n"
            "host/cpu.8\n"
            "  UnitIndex    8\n"
            "  Min (%)      4\n"
            "  FiveMin (%)  5\n"
            "  HwLocation\n");
}

TEST_F(Tables, WrappingKeepsEveryCharacter) {
  std::string text;
  for (int i = 0; i < 500; i++) {
    text += static_cast<char>('a' + i % 26);
  }
  for (const int width : {1, 7, 80}) {
    std::string joined;
    for (const std::string &line : WrapText(text, width)) {
      EXPECT_LE(DisplayWidth(line), width);
      joined += line;
    }
    EXPECT_EQ(joined, text);
  }
}

TEST_F(Tables, WrapsAtBlanks) {
  using Lines = std::vector<std::string>;
  EXPECT_EQ(WrapText("one two three", 8), (Lines{"one two", "three"}));
  EXPECT_EQ(WrapText("one two three", 7), (Lines{"one two", "three"}));
  EXPECT_EQ(WrapText("one twothreefour", 5), (Lines{"one", "twoth", "reefo", "ur"}));
  EXPECT_EQ(WrapText("", 5), (Lines{""}));
  EXPECT_EQ(WrapText("\u4e2d\u6587\u5b57", 4), (Lines{"\u4e2d\u6587", "\u5b57"}));
}

// Measuring the rest of the text for every line would take minutes here.
TEST_F(Tables, WrapsALongTextInTimeInProportion) {
  EXPECT_EQ(WrapText(std::string(1 << 20, 'x'), 10).size(), (1U << 20) / 10 + 1);
}

TEST_F(Tables, MeasureWhatATerminalShows) {
  EXPECT_EQ(DisplayWidth("abc"), 3);
  EXPECT_EQ(DisplayWidth("\u00e4\u00f6"), 2);
  EXPECT_EQ(DisplayWidth("e\u0301"), 1);
  EXPECT_EQ(DisplayWidth("\u4e2d\u6587"), 4);
}

TEST_F(Tables, CommonPrefix) {
  EXPECT_EQ(CommonPrefix({"tlxHoCpuUtilMin", "tlxHoCpuUtilHour"}), "tlxHoCpuUtil");
  EXPECT_EQ(CommonPrefix({"tlxHoPhysicalMemorySize", "tlxHoPagingMemorySize"}), "tlxHo");
  EXPECT_EQ(CommonPrefix({"tlxHoName", "tlxHosysDescr", "tlxHoDesc"}), "tlxHo");
  EXPECT_EQ(CommonPrefix({"tlxHoGUID", "tlxHoGUIDCanonical"}), "tlxHo");
  EXPECT_EQ(CommonPrefix({"tlxHoGUID", "tlxHoGULong"}), "tlxHo");
  EXPECT_EQ(CommonPrefix({"tlxHoOne"}), "");
  EXPECT_EQ(CommonPrefix({"var0", "var1"}), "");
  EXPECT_EQ(CommonPrefix({"same", "same"}), "");
  EXPECT_EQ(CommonPrefix({"", "x"}), "");
  EXPECT_EQ(CommonPrefix({}), "");
}

TEST_F(Tables, HeadingWords) {
  using Words = std::vector<std::string_view>;
  EXPECT_EQ(HeadingWords("FiveMin"), (Words{"Five", "Min"}));
  EXPECT_EQ(HeadingWords("GUIDCanonical"), (Words{"GUID", "Canonical"}));
  EXPECT_EQ(HeadingWords("HWInfoPlatform"), (Words{"HW", "Info", "Platform"}));
  EXPECT_EQ(HeadingWords("var0"), (Words{"var0"}));
  EXPECT_EQ(HeadingWords("X"), (Words{"X"}));
  EXPECT_EQ(HeadingWords(""), (Words{""}));
}

std::string Drawn(const MadeVariable &variable) {
  const FileObject object = MadeObject({variable});
  return ValueText(object, object.variables[0]);
}

TEST_F(Tables, Dates) {
  EXPECT_EQ(Drawn(Octets("d", 7, "\x07\xE8\x03\x05\x0E\x07\x09")), "2024-03-05 14:07:09");
  EXPECT_EQ(Drawn(Octets("d", 256, "\x07\xE8\x0C\x1F\x17\x3B\x3C")), "2024-12-31 23:59:60");
  EXPECT_EQ(Drawn(Octets("d", 7, std::string("\xFF\xFF\0\0\0\0\0", 7))), "never");
  EXPECT_EQ(Drawn(Octets("d", 7, std::string(7, '\0'))), "-");
  EXPECT_EQ(Drawn(Octets("d", 7, "\x07\xE8\x0D\x05\x0E\x07\x09")), "07e80d05 0e0709");
  EXPECT_EQ(Drawn(Octets("d", 7, "\x07\xE8\x03\x20\x0E\x07\x09")), "07e80320 0e0709");
  EXPECT_EQ(Drawn(Octets("d", 7, "\x07\xE8\x03\x05\x18\x07\x09")), "07e80305 180709");
}

TEST_F(Tables, Guids) {
  EXPECT_EQ(
      Drawn(Octets(
          "g", 16,
          std::string("\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xAA\xBB\xCC\xDD\xEE\xFF", 16))),
      "33221100-5544-7766-8899-AABBCCDDEEFF");
}

TEST_F(Tables, OtherOctets) {
  EXPECT_EQ(Drawn(Octets("o", 9, "\x01\x02\x03\x04\x05")), "01020304 05");
  EXPECT_EQ(Drawn(Octets("o", 9, "")), "");
  EXPECT_EQ(Drawn(Octets("o", 9, std::string(9, '\0'))), "00000000 00000000 00");
  EXPECT_EQ(Drawn(Octets("o", 256, std::string(256, '\0'))), "256 zero octets");
  EXPECT_EQ(Drawn(Octets("o", 99, "\x01\x02\x03\x04\x05" + std::string(94, '\0'))),
            "01020304 05000000 and 91 zero octets");
  EXPECT_EQ(Drawn(Octets("o", 21, "\x01\x02\x03\x04\x05" + std::string(16, '\0'))),
            "01020304 05000000 00000000 00000000 00000000 00");
}

// Nothing that an object holds is for the terminal to act on.
TEST_F(Tables, ShowControlCharacters) {
  EXPECT_EQ(Drawn(Text("t", 40, "a\x1b[2J\n\x7f")), "a\\x1b[2J\\x0a\\x7f");
  EXPECT_EQ(Drawn(Text("t", 40, "\xC2\x9B;")), "\\x9b;");
  EXPECT_EQ(Drawn(Text("t", 40, "\x9B;")), "\\x9b;");  // no UTF-8
  EXPECT_EQ(Drawn(Text("t", 40, "\u202e\u2066")), "\\u202e\\u2066");
  // What nobody sees, and what is no character, neither.
  for (const auto &[text, shown] :
       std::map<std::string, std::string>{{"\u00ad", "\\xad"},
                                          {"\u061c", "\\u061c"},
                                          {"\u180e", "\\u180e"},
                                          {"\u200b", "\\u200b"},
                                          {"\u200d", "\\u200d"},
                                          {"\u2060", "\\u2060"},
                                          {"\ufeff", "\\ufeff"},
                                          {"\U000e0041", "\\U000e0041"},
                                          {"\uFFFE", "\\ufffe"},
                                          {"\u00e4\u4e2d\U0001F600", "\u00e4\u4e2d\U0001F600"}}) {
    EXPECT_EQ(Drawn(Text("t", 40, text)), shown);
  }
  const FileObject object = MadeObject({Int("\x1b[31m", 1), Text("\x1b", 9, "\x1b")});
  const std::string text = RenderTables({{"a/\x1b.1", object}, {"a/\x1b", object}}, 80);
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  EXPECT_NE(text.find("\\x1b[31m"), std::string::npos);
}

TEST_F(Tables, AsciiIsAsWide) {
  EXPECT_EQ(AsciiText("a\u00e4\u4e2d|"), "a???|");
  EXPECT_EQ(AsciiText(""), "");
}

TEST_F(Tables, SafeJsonHasTheSameValueWithoutControlCharacters) {
  EXPECT_EQ(SafeJson("\"\U000e0041\u200b\""), "\"\\udb40\\udc41\\u200b\"");
  EXPECT_EQ(SafeJson("{\n  \"\u00e4\x7F\": \"\u009b\u202e\\u001b\"\n}"),
            "{\n  \"\u00e4\\u007f\": \"\\u009b\\u202e\\u001b\"\n}");
  EXPECT_EQ(SafeJson(""), "");
}

TEST_F(Tables, SayWhereThereIsNoValue) {
  FileObject object = MadeObject({Int("a", 1), Text("b", 4, "")});
  object.data.resize(2);
  EXPECT_EQ(RenderTables({{"x", object}}, 80), "x\n  a  ?\n  b  ?\n");
}

TEST_F(Tables, HoldAsManyVariablesAsAnObjectCanHave) {
  std::vector<MadeVariable> many;
  for (int i = 0; i < 4096; i++) {
    many.push_back(Text(std::string(200, 'n') + std::to_string(i), 100, "text"));
  }
  const std::string text = RenderTables({{"a/x.1", MadeObject(many)}}, 20);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1 + 4096);
}

TEST_F(Tables, UnusedPlacesAreNotShown) {
  const std::vector<MadeVariable> variables = {
      {"tlxGone", 0, "", 0}, Int("tlxHere", 1), Int("tlxMore", 2)};
  EXPECT_EQ(RenderTables({{"x/a", MadeObject(variables)}}, 80), "x/a\n  Here  1\n  More  2\n");
  EXPECT_EQ(RenderTables({{"x/a.1", MadeObject(variables)}}, 80),
            "x/a (1 row)\n  #  Here  More\n  1     1     2\n");
}

TEST_F(Tables, RowsOfOtherNamesGetATableOfTheirOwn) {
  EXPECT_EQ(RenderTables(
                {{"x/a.1", MadeObject({Int("v", 1)})}, {"x/a.2", MadeObject({Int("w", 2)})}}, 80),
            "x/a (1 row)\n  #  v\n  1  1\n\nx/a (1 row)\n  #  w\n  2  2\n");
}

TEST_F(Tables, LongTextStaysInAnOrderThatWasChosen) {
  const NamedObject row = {"x/a.1", MadeObject({Text("long", 80, "text"), Int("number", 7)})};
  Style style;
  EXPECT_EQ(RenderTables({row}, 80, style), "x/a (1 row)\n  #  number  long\n  1       7  text\n");
  style.keep_order = true;
  EXPECT_EQ(RenderTables({row}, 80, style), "x/a (1 row)\n  #  long  number\n  1  text       7\n");
}

// A column whose heading is as wide as its cells stays so; the other one gives way.
TEST_F(Tables, NarrowsTheColumnThatCanBe) {
  const std::string cell = "aaaa bbbb cccc dddd ";
  const std::string heading = "H" + std::string(20, 'h');
  const std::string text = RenderTables(
      {{"x/a.1", MadeObject({Text(heading, 30, cell + "!"), Text("B", 30, cell + "!")})}}, 40);
  EXPECT_NE(text.find("aaaa bbbb cccc dddd !  aaaa bbbb\n"), std::string::npos) << text;
  EXPECT_LE(LongestLine(text), 40) << text;
  EXPECT_NE(text.find(heading), std::string::npos) << text;
}

TEST_F(Tables, NamesOfRows) {
  EXPECT_EQ(ParseRowName("x/a.12")->number, "12");
  for (const char *name : {"x/a", "x/a.", "x/a.1b", "x/a.-1"}) {
    EXPECT_FALSE(ParseRowName(name)) << name;
  }
}

TEST_F(Tables, WrapsWhatFitsNowhere) {
  using Lines = std::vector<std::string>;
  EXPECT_EQ(WrapText("\u4e2d\u6587", 1), (Lines{"\u4e2d", "\u6587"}));
  EXPECT_EQ(WrapText(" abc", 2), (Lines{" a", "bc"}));
}

TEST_F(Tables, MeasureWhatHasNoWidth) {
  EXPECT_EQ(DisplayWidth("\u0378"), 1);  // no character yet
  EXPECT_EQ(DisplayWidth("\x01"), 1);
}

TEST_F(Tables, HeadingWordsOfOtherNames) {
  using Words = std::vector<std::string_view>;
  EXPECT_EQ(HeadingWords("AB{"), Words{"AB{"});
  EXPECT_EQ(HeadingWords("ABc"), (Words{"A", "Bc"}));
  EXPECT_EQ(HeadingWords("AB1"), Words{"AB1"});
}

TEST_F(Tables, DatesThatAreNone) {
  for (const std::string &octets : {std::string("\x07\xE8\x00\x05\x0E\x07\x09", 7),
                                    std::string("\x07\xE8\x03\x00\x0E\x07\x09", 7),
                                    std::string("\x07\xE8\x03\x05\x0E\x3C\x09", 7),
                                    std::string("\x07\xE8\x03\x05\x0E\x07\x3D", 7)}) {
    EXPECT_EQ(DateText(octets), std::nullopt);
  }
  EXPECT_EQ(DateText("\xFF\xFF\x03\x05\x0E\x07\x09"), "65535-03-05 14:07:09");
}

TEST_F(Tables, ShortNamesKeepWhatHasNotTheBeginning) {
  using Names = std::vector<std::string_view>;
  const FileObject object =
      MadeObject({Int("tlxOne", 1), {"tlxGone", 0, "", 0}, Int("other", 2), Int("tlxTwo", 3)});
  EXPECT_EQ(ShortNames(object, "tlx"), (Names{"One", "tlxGone", "other", "Two"}));
}

}  // namespace
