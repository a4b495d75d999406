// Values as people say them.
#include "tools/vexreg/words.h"

#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>
#include <time.h>

#include <nlohmann/json.hpp>
#include <set>

#include "tests/unit/tools/made_object.h"
#include "tools/vexreg/mib_words.h"
#include "tools/vexreg/tables.h"

using namespace vex;

namespace {

Shown Show(const MadeVariable &variable) {
  const FileObject object = MadeObject({variable});
  return ShowValue(object, object.variables[0]);
}

std::string Json(const MadeVariable &variable) {
  const FileObject object = MadeObject({variable});
  return WordJson(object, object.variables[0]).dump();
}

std::string Plain(const std::vector<Span> &line) {
  std::string text;
  for (const Span &span : line) {
    text += span.text;
  }
  return text;
}

TEST(Words, OfEnumerations) {
  EXPECT_EQ(Show(Int("tlxHoMibCondition", 2)).text, "normal");
  EXPECT_EQ(Show(Int("tlxHoMibCondition", 2)).mood, Mood::kGood);
  EXPECT_EQ(Show(Int("tlxHoMibCondition", 3)).mood, Mood::kWarning);
  EXPECT_EQ(Show(Int("tlxApMibCondition", 4)).text, "severe");
  EXPECT_EQ(Show(Int("tlxApMibCondition", 4)).mood, Mood::kBad);
  EXPECT_EQ(Show(Int("tlxHoSwVerType", 4)).text, "componentUtility");
  EXPECT_EQ(Show(Int("tlxHoOsType", 14)).text, "linux");
  // A number that the module does not name, and a variable that no module has.
  EXPECT_EQ(Show(Int("tlxHoOsType", 15)).text, "15");
  EXPECT_EQ(Show(Int("var0", 2)).text, "2");
}

TEST(Words, OfFirmware) {
  const auto show = [](int category, int type) {
    const FileObject object =
        MadeObject({Int("tlxHoFwVerCategory", category), Int("tlxHoFwVerDeviceType", type)});
    EXPECT_EQ(WordJson(object, object.variables[1]).is_string(),
              ShowValue(object, object.variables[1]).text != std::to_string(type));
    return ShowValue(object, object.variables[0]).text + "/" +
           ShowValue(object, object.variables[1]).text;
  };
  EXPECT_EQ(show(5, 23), "system/system ROM");
  EXPECT_EQ(show(2, 23), "storage/SCSI CD-ROM");
  EXPECT_EQ(show(2, 10), "storage/SCSI disk");
  EXPECT_EQ(show(1, 25), "power microcontroller/power microcontroller");
  EXPECT_EQ(show(4, 25), "management controller/management controller");
  // Numbers without a meaning.
  EXPECT_EQ(show(3, 23), "network adapter/23");
  EXPECT_EQ(show(0, 5), "0/5");
}

// Whether nobody judges or an agent does not: one word.
TEST(Words, OfWhatNobodyJudges) {
  EXPECT_EQ(Show(Int("tlxHoMibCondition", 1)).text, "unassessed");
  EXPECT_EQ(Show(Int("tlxHoSiblingCondition", -1)).text, "unassessed");
  EXPECT_EQ(Show(Int("tlxHoSiblingHealth", -1)).text, "unassessed");
  EXPECT_EQ(Show(Int("tlxHoSiblingHealth", -1)).mood, Mood::kFaint);
  EXPECT_EQ(Json(Int("tlxHoSiblingHealth", -1)), "null");
}

TEST(Words, OfTimes) {
  setenv("TZ", "Somewhere-3:30", 1);
  tzset();
  EXPECT_EQ(Show(Int("tlxHoAgentStart", 1709647629)).text, "2024-03-05 17:37:09 Somewhere");
  EXPECT_EQ(Json(Int("tlxHoAgentStart", 1709647629)), "\"2024-03-05T17:37:09+03:30\"");
  const MadeVariable date = Octets("tlxHoConfigChangedDate", 7, "\x07\xE8\x03\x05\x11\x25\x09");
  EXPECT_EQ(Show(date).text, "2024-03-05 17:37:09 Somewhere");
  EXPECT_EQ(Json(date), "\"2024-03-05T17:37:09+03:30\"");
  setenv("TZ", "UTC0", 1);
  tzset();
  EXPECT_EQ(Json(date), "\"2024-03-05T17:37:09+00:00\"");
}

TEST(Words, OfWhatIsNotKnown) {
  EXPECT_EQ(Show(Int("tlxHoCpuUtilHour", -1)).text, "not known yet");
  EXPECT_EQ(Show(Int("tlxHoCpuUtilThirtyMin", -1)).text, "not known yet");
  EXPECT_EQ(Show(Int("tlxHoPagingMemorySize", -1)).text, "not known");
  EXPECT_EQ(Show(Int("tlxHoPagingMemorySize", -1)).mood, Mood::kFaint);
  // Of these the module does not say it.
  EXPECT_EQ(Show(Int("tlxHoOsCommonPollFreq", -1)).text, "-1 s");
  EXPECT_EQ(Show(Int("tlxHoTrapFlags", -1)).text, "-1");
}

TEST(Words, OfSizes) {
  EXPECT_EQ(SizeText(0), "0 MiB");
  EXPECT_EQ(SizeText(17), "17 MiB");
  EXPECT_EQ(SizeText(999), "999 MiB");
  EXPECT_EQ(SizeText(1000), "1.0 GiB");
  EXPECT_EQ(SizeText(1536), "1.5 GiB");
  EXPECT_EQ(SizeText(102348), "99.9 GiB");
  EXPECT_EQ(SizeText(102350), "100 GiB");
  EXPECT_EQ(SizeText(262144), "256 GiB");
  EXPECT_EQ(SizeText(1023999), "1.0 TiB");
  EXPECT_EQ(SizeText(3072000), "2.9 TiB");
  EXPECT_EQ(SizeText(2147483647), "2.0 PiB");
  EXPECT_EQ(Show(Int("tlxHoFileSysSpaceTotal", 3072000)).text, "2.9 TiB");
}

TEST(Words, OfPercentages) {
  EXPECT_EQ(Show(Int("tlxHoCpuUtilMin", 93)).text, "93 %");
  EXPECT_EQ(Show(Int("tlxHoCpuUtilMin", 93)).percent, 93);
  EXPECT_EQ(Show(Int("tlxHoCpuUtilMin", 93)).mood, Mood::kBad);
  EXPECT_EQ(Show(Int("tlxHoCpuUtilMin", 75)).mood, Mood::kWarning);
  EXPECT_EQ(Show(Int("tlxHoCpuUtilMin", 74)).mood, Mood::kGood);
  EXPECT_EQ(Show(Int("tlxHoCpuUtilMin", 1000)).percent, 100);
  EXPECT_FALSE(Show(Int("tlxHoTrapFlags", 93)).percent);
}

TEST(Words, OfDurations) {
  EXPECT_EQ(DurationText(0), "0 s");
  EXPECT_EQ(DurationText(59), "59 s");
  EXPECT_EQ(DurationText(60), "1 min");
  EXPECT_EQ(DurationText(150), "2 min 30 s");
  EXPECT_EQ(DurationText(3600 + 59), "1 h");
  EXPECT_EQ(DurationText(3 * 86400 + 4 * 3600), "3 days 4 h");
  EXPECT_EQ(DurationText(86400), "1 day");
  EXPECT_EQ(Show(Int("tlxHoOsCommonPollFreq", 15)).text, "15 s");
}

TEST(Words, OfTheStatusArray) {
  std::string octets(108, '\0');
  octets.replace(0, 4, std::string("\x01\x03\x08\x00", 4));
  octets.replace(4 * 11, 4, std::string("\x01\x02\x01\x00", 4));
  octets.replace(4 * 5, 4, std::string("\x01\x03\x07\x02", 4));
  octets.replace(4 * 14, 4, std::string("\x01\x00\x00\x00", 4));  // it has published nothing
  const MadeVariable array = Octets("tlxHoMibStatusArray", 108, octets);
  const Shown shown = Show(array);
  ASSERT_EQ(shown.lines.size(), 6U);
  EXPECT_EQ(Plain(shown.lines[0]), "worst condition: raised");
  EXPECT_EQ(Plain(shown.lines[1]), "group    agent  condition   revision");
  EXPECT_EQ(Plain(shown.lines[2]), "5 SCSI   runs   raised      7.2");
  EXPECT_EQ(Plain(shown.lines[3]), "11 host  runs   normal      1.0");
  EXPECT_EQ(Plain(shown.lines[4]), "14 IDE   runs   unassessed  not known");
  EXPECT_TRUE(Plain(shown.lines[5]).starts_with("no agent: standard equipment, "))
      << Plain(shown.lines[5]);
  const auto json = nlohmann::json::parse(Json(array));
  ASSERT_EQ(json.size(), 16U);
  EXPECT_EQ(json[8].dump(),
            R"({"condition":"normal","group":11,"name":"host","revision":"1.0","runs":true})");
  EXPECT_EQ(json[0]["runs"], false);
  EXPECT_TRUE(json[0]["condition"].is_null());
}

TEST(Words, OfTheHealthArray) {
  std::string octets(256, '\0');
  octets[0] = octets[1] = octets[7] = 4;
  octets[2] = 2;
  const MadeVariable array = Octets("tlxHoMibHealthStatusArray", 256, octets);
  const Shown shown = Show(array);
  ASSERT_EQ(shown.lines.size(), 4U);
  EXPECT_EQ(Plain(shown.lines[0]), "worst condition: severe");
  EXPECT_EQ(shown.lines[0][1].mood, Mood::kBad);
  EXPECT_EQ(Plain(shown.lines[1]), "processors  normal");
  EXPECT_EQ(Plain(shown.lines[2]), "event log   severe");
  EXPECT_TRUE(Plain(shown.lines[3]).starts_with("unassessed: resilience of the memory, "));
  const auto json = nlohmann::json::parse(Json(array));
  EXPECT_EQ(json[7].dump(), R"({"condition":"severe","name":"event log","octet":7})");
  std::set<std::string> names;
  for (const auto &part : json) {
    EXPECT_TRUE(names.insert(part["name"].get<std::string>()).second) << part["name"];
  }
}

// An agent of another version may publish less, or numbers without a name.
TEST(Words, OfArraysThatAreCutShort) {
  EXPECT_EQ(Plain(Show(Octets("tlxHoMibStatusArray", 108, "")).lines[0]),
            "worst condition: unassessed");
  const Shown shown = Show(Octets("tlxHoMibHealthStatusArray", 256, "\x09\x09\x09"));
  EXPECT_EQ(Plain(shown.lines[0]), "worst condition: 9");
  EXPECT_EQ(Plain(shown.lines[1]), "processors  9");
}

TEST(Words, ForPrograms) {
  EXPECT_EQ(Json(Int("tlxHoMibCondition", 2)), R"("normal")");
  EXPECT_EQ(Json(Int("tlxHoMibCondition", 9)), "9");
  EXPECT_EQ(Json(Int("tlxHoCpuUtilHour", -1)), "null");
  EXPECT_EQ(Json(Int("tlxHoCpuUtilHour", 93)), "93");
  EXPECT_EQ(Json(Int("tlxHoPhysicalMemorySize", 2048)), "2048");
  EXPECT_EQ(Json(Text("tlxHoName", 20, "Debian")), R"("Debian")");
  EXPECT_EQ(Json(Octets("tlxHoConfigChangedDate", 7, "\x07\xE8\x03\x05\x0E\x07\x09")),
            R"("2024-03-05T14:07:09+00:00")");
  EXPECT_EQ(Json(Octets("tlxHoConfigChangedDate", 7, std::string("\xFF\xFF\0\0\0\0\0", 7))),
            "null");
  EXPECT_EQ(Json(Octets("tlxHoSwVerDate", 7, std::string(7, '\0'))), "null");
  EXPECT_EQ(Json(Octets("o", 9, "\x01\xFF")), R"("01ff")");
}

TEST(Words, AreThoseOfTheModules) {
  EXPECT_EQ(FindMibWords("tlxHoNothing"), nullptr);
  const MibWords *words = FindMibWords("tlxHoMibHealthStatusArray");
  ASSERT_NE(words, nullptr);
  ASSERT_EQ(words->parts.size(), 16U);
  for (int i = 0; i < 16; i++) {
    EXPECT_EQ(words->parts[static_cast<size_t>(i)].number, i);
  }
  EXPECT_STREQ(words->parts[9].name, "array controllers");
  EXPECT_STREQ(words->parts[15].name, "the remote management board");
}

// ---- In tables ----------------------------------------------------------------------------------

class WordTables : public testing::Test {
 protected:
  WordTables() {
    setlocale(LC_CTYPE, "C.UTF-8");
  }
};

NamedObject CpuRow(int row, int minute, int five) {
  return {"host/cpu." + std::to_string(row),
          MadeObject({Int("tlxHoCpuUtilUnitIndex", row), Int("tlxHoCpuUtilMin", minute),
                      Int("tlxHoCpuUtilFiveMin", five)})};
}

Style InWords() {
  Style style;
  style.words = true;
  return style;
}

TEST_F(WordTables, HaveUnitsBehindTheNumbers) {
  EXPECT_EQ(RenderTables({CpuRow(0, 3, -1), CpuRow(1, 100, 42)}, 0, InWords()),
            "host/cpu (2 rows)\n"
            "  #  UnitIndex    Min        FiveMin\n"
            "  0          0    3 %  not known yet\n"
            "  1          1  100 %           42 %\n");
}

TEST_F(WordTables, WrapWordsBeforeTheyBecomeLists) {
  EXPECT_EQ(RenderTables({CpuRow(0, 3, -1), CpuRow(1, 100, 42)}, 28, InWords()),
            "host/cpu (2 rows)\n"
            "      Unit              Five\n"
            "  #  Index    Min        Min\n"
            "  0      0    3 %  not known\n"
            "                         yet\n"
            "  1      1  100 %       42 %\n");
}

TEST_F(WordTables, HaveLabelsToTheLeft) {
  const NamedObject one = {"a/x.1",
                           MadeObject({Int("tlxHoSwVerStatus", 2), Int("tlxHoSwVerType", 3)})};
  const NamedObject two = {"a/x.2",
                           MadeObject({Int("tlxHoSwVerStatus", 1), Int("tlxHoSwVerType", 5)})};
  EXPECT_EQ(RenderTables({one, two}, 0, InWords()),
            "a/x (2 rows)\n"
            "  #  Status           Type\n"
            "  1  found            agent\n"
            "  2  versionNotKnown  support\n");
}

TEST_F(WordTables, HaveBarsWhereThereIsRoom) {
  Style style = InWords();
  style.bars = true;
  const std::vector<NamedObject> rows = {CpuRow(0, 3, 0), CpuRow(1, 100, 42)};
  EXPECT_EQ(RenderTables(rows, 80, style),
            "host/cpu (2 rows)\n"
            "      Unit\n"
            "  #  Index               Min          FiveMin\n"
            "  0      0    3 % #.........   0 % ..........\n"
            "  1      1  100 % ##########  42 % ####......\n");
  EXPECT_NE(RenderTables(rows, 40, style).find("  1      1  100 % ######  42 % ###...\n"),
            std::string::npos)
      << RenderTables(rows, 40, style);
  EXPECT_EQ(RenderTables(rows, 30, style).find("##"), std::string::npos);
  style.blocks = true;
  EXPECT_NE(RenderTables(rows, 80, style)
                .find("42 % \u2588\u2588\u2588\u2588\u2591\u2591\u2591\u2591\u2591\u2591\n"),
            std::string::npos);
}

TEST_F(WordTables, AreAsWideWithColoursAsWithout) {
  Style style = InWords();
  const NamedObject misc = {"host/misc",
                            MadeObject({Int("tlxHoMibCondition", 4), Int("tlxHoCpuUtilMin", 80),
                                        Int("tlxHoCpuUtilHour", -1), Int("var0", 1)})};
  const std::vector<NamedObject> objects = {CpuRow(0, 3, -1), CpuRow(1, 100, 42), misc};
  for (const int width : {0, 80, 32, 20}) {
    const std::string plain = RenderTables(objects, width, style);
    EXPECT_EQ(plain.find('\x1b'), std::string::npos);
    style.colour = true;
    std::string coloured = RenderTables(objects, width, style);
    style.colour = false;
    EXPECT_NE(coloured.find("\x1b[1mhost/misc\x1b[0m"), std::string::npos);
    EXPECT_NE(coloured.find("\x1b[1;31msevere\x1b[0m"), std::string::npos);
    EXPECT_NE(coloured.find("\x1b[33m80 %\x1b[0m"), std::string::npos);
    for (size_t at; (at = coloured.find('\x1b')) != std::string::npos;) {
      coloured.erase(at, coloured.find('m', at) + 1 - at);
    }
    EXPECT_EQ(coloured, plain);
  }
}

TEST_F(WordTables, HaveArraysAsLinesThatFit) {
  std::string octets(108, '\0');
  octets.replace(4 * 11, 4, std::string("\x01\x02\x01\x00", 4));
  const NamedObject misc = {"host/misc", MadeObject({Octets("tlxHoMibStatusArray", 108, octets),
                                                     Int("tlxHoTrapFlags", 0)})};
  for (const int width : {80, 60, 40, 30}) {
    const std::string text = RenderTables({misc}, width, InWords());
    for (size_t at = 0; at < text.size();) {
      const size_t end = text.find('\n', at);
      EXPECT_LE(DisplayWidth(text.substr(at, end - at)), width) << text;
      at = end + 1;
    }
  }
  EXPECT_NE(RenderTables({misc}, 80, InWords()).find("11 host  runs   normal     1.0\n"),
            std::string::npos);
}

// Objects whose data end before the variable does, as no agent publishes them.
Shown ShowCut(const MadeVariable &variable, std::string *json = nullptr) {
  FileObject object = MadeObject({variable});
  object.data.pop_back();
  if (json != nullptr) {
    *json = WordJson(object, object.variables[0]).dump();
  }
  return ShowValue(object, object.variables[0]);
}

TEST(Words, OfValuesThatAreNotThere) {
  for (const char *name : {"tlxHoMibStatusArray", "tlxHoMibHealthStatusArray", "tlxHoSwVerDate"}) {
    std::string json;
    const Shown shown = ShowCut(Octets(name, 7, "\x07\xE8\x03\x05\x0E\x07\x09"), &json);
    EXPECT_EQ(shown.text, "?") << name;
    EXPECT_TRUE(shown.lines.empty()) << name;
    EXPECT_EQ(json, "null") << name;
  }
}

TEST(Words, OfWholeArrays) {
  std::string status;
  for (int i = 0; i < 27; i++) {
    status += std::string("\1\2\1\0", 4);
  }
  const Shown all_run = Show(Octets("tlxHoMibStatusArray", 108, status));
  EXPECT_EQ(Plain(all_run.lines.back()), "26 flash storage           runs   normal     1.0");
  const Shown all_judged = Show(Octets("tlxHoMibHealthStatusArray", 256, std::string(256, '\2')));
  EXPECT_EQ(Plain(all_judged.lines.back()).substr(0, 27), "the remote management board");
  for (const std::vector<Span> &line : all_judged.lines) {
    EXPECT_FALSE(Plain(line).starts_with("unassessed")) << Plain(line);
  }
  const auto json =
      nlohmann::json::parse(Json(Octets("tlxHoMibHealthStatusArray", 256, std::string(256, '\7'))));
  EXPECT_EQ(json[2]["condition"], 7) << "a number without a name";
}

TEST(Words, OfNumbersThatNothingIsKnownOf) {
  EXPECT_EQ(Json(Int("var0", -1)), "-1");
  EXPECT_EQ(Json(Int("var0", 5)), "5");
  EXPECT_EQ(Json(Int("tlxHoMibRevMajor", -1)), "-1") << "a number like others there";
  EXPECT_EQ(Json(Int("tlxHoCpuUtilHour", -1)), "null");
}

TEST(Words, OfDaysThatAreNotInTheCalendar) {
  EXPECT_EQ(Show(Octets("tlxHoSwVerDate", 7, "\x07\xE8\x02\x1E\x0E\x07\x09")).text,
            "2024-02-30 14:07:09");
  EXPECT_EQ(Show(Octets("tlxHoSwVerDate", 7, "\xFF\xFE\x02\x01\x0E\x07\x09")).text,
            "65534-02-01 14:07:09");
}

TEST(Words, OfSizesBeyondAllUnits) {
  EXPECT_EQ(SizeText(int64_t{1} << 42), "4096 PiB");
}

class ListsOfWords : public testing::Test {
 protected:
  ListsOfWords() {
    setlocale(LC_CTYPE, "C.UTF-8");
    style_.words = true;
    style_.bars = true;
  }
  Style style_;
};

TEST_F(ListsOfWords, HaveBarsWhereThereIsRoom) {
  const NamedObject object = {"x/a", MadeObject({Int("tlxHoFileSysPercentSpaceUsed", 50)})};
  EXPECT_EQ(RenderTables({object}, 80, style_),
            "x/a\n  tlxHoFileSysPercentSpaceUsed  50 % #####.....\n");
  EXPECT_EQ(RenderTables({object}, 42, style_), "x/a\n  tlxHoFileSysPercentSpaceUsed  50 %\n");
  style_.bars = false;
  EXPECT_EQ(RenderTables({object}, 80, style_), "x/a\n  tlxHoFileSysPercentSpaceUsed  50 %\n");
}

TEST_F(ListsOfWords, ArraysOfRowsAreOneCell) {
  const NamedObject row = {"x/a.1",
                           MadeObject({Octets("tlxHoMibHealthStatusArray", 8, {"\1\3\0\2", 4})})};
  const std::string text = RenderTables({row}, 0, style_);
  EXPECT_NE(text.find("  1  worst condition: raised; "), std::string::npos) << text;
}

// A line that a cell does not reach has no colour, either.
TEST_F(ListsOfWords, EmptyLinesHaveNoColour) {
  style_.colour = true;
  const NamedObject row = {"x/a.1",
                           MadeObject({Int("tlxHoMibCondition", 2),
                                       Text("t", 60, "one two three four five six seven")})};
  const std::string text = RenderTables({row}, 40, style_);
  EXPECT_NE(text.find("\x1b[32mnormal\x1b[0m"), std::string::npos) << text;
  EXPECT_EQ(text.find("m\x1b[0m"), std::string::npos) << text;
}

}  // namespace
