// What a capture says of a host, and how what is served is compared.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "framework/snmp/mib_table.h"
#include "tests/support/process.h"
#include "tests/unit/framework/temp_registry.h"
#include "tests/unit/tools/made_object.h"
#include "tools/vexreg/captured_host.h"
#include "tools/vexreg/figures.h"
#include "tools/vexreg/served.h"

namespace vex {
namespace {

TEST(Figures, AreTheSameAfterTheirText) {
  std::map<std::string, MountFigures> figures;
  figures["/"] = {MountFigures::kAnswered, 0, 4096, 100, 40, 10, 3};
  figures["/with blank\\and\nline\xFF"] = {MountFigures::kErrno, 5, 0, 0, 0, 0, 0};
  figures["/dead"] = {};
  const std::string text = FiguresText(figures);
  EXPECT_EQ(text,
            "figures 4096 100 40 10 3 /\n"
            "silent /dead\n"
            "error 5 /with\\040blank\\134and\\012line\\377\n");
  const auto read = ParseFigures(text);
  ASSERT_EQ(read.size(), 3U);
  EXPECT_EQ(read.at("/").blocks, 100U);
  EXPECT_EQ(read.at("/").ffree, 3U);
  EXPECT_EQ(read.at("/dead").state, MountFigures::kSilent);
  EXPECT_EQ(read.at("/with blank\\and\nline\xFF").error, 5);
  for (const char *line : {"figures 1 2 /", "figures x 1 1 1 1 /", "error /", "what /", "", " ",
                           "figures 99999999999999999999999 1 1 1 1 /"}) {
    EXPECT_TRUE(ParseFigures(line).empty()) << line;
  }
}

TEST(Figures, OfMountsThatTheAgentAsks) {
  const std::vector<std::string> expected = {"/", "/a b"};
  EXPECT_EQ(AskedDirectories("/dev/a / ext4 rw 0 0\nf:/x /mnt nfs rw 0 0\n"
                             "/dev/b /a\\040b xfs rw 0 0\n/dev/b /a\\040b xfs rw 0 0\nbroken\n"),
            expected);
  EXPECT_TRUE(AskedDirectories("").empty());
}

TEST(CapturedHost, DescriptionIsReadBack) {
  Capture capture;
  capture.host = "h";
  capture.made = "2026-01-02T03:04:05Z";
  capture.release = "6.1";
  capture.commands = {{{"dpkg", "-l"}, "commands/0", 3}};
  capture.siblings = {"/opt/vexida"};
  capture.asked = {{".1.3", -7}};
  capture.omissions = {{"x", "y"}};
  capture.variables = {"tlxHoA", "tlxHoB"};
  std::string error;
  const auto read = CaptureOf({{kDescriptionMember, 0, DescriptionJson(capture)}}, &error);
  ASSERT_TRUE(read) << error;
  EXPECT_EQ(read->host, "h");
  EXPECT_EQ(read->commands.at(0).words.at(1), "-l");
  EXPECT_EQ(read->commands.at(0).status, 3);
  EXPECT_EQ(read->asked.at(0).second, -7);
  EXPECT_EQ(read->siblings, capture.siblings);
  EXPECT_EQ(read->omissions.at(0).reason, "y");
  EXPECT_EQ(read->variables, capture.variables);
}

TEST(CapturedHost, DescriptionsThatAreNone) {
  std::string error;
  for (const char *text : {"", "[]", "{", "{}", "7", "null", R"({"format":"1"})", R"({"format":0})",
                           R"({"format":1.5})"}) {
    EXPECT_FALSE(CaptureOf({{kDescriptionMember, 0, text}}, &error)) << text;
    EXPECT_EQ(error, "not a capture");
  }
  EXPECT_FALSE(CaptureOf({}, &error));
  EXPECT_FALSE(CaptureOf({{kDescriptionMember, 0, R"({"format":2})"}}, &error));
  EXPECT_EQ(error, "made by a later version of vexreg");
  // Whatever types its parts have.
  EXPECT_TRUE(CaptureOf({{kDescriptionMember, 0,
                          R"({"format":1,"host":[],"kernel":7,"commands":[7,{"words":[{}]}],
                              "asked":{"oid":1},"siblings":[[]]})"}},
                        &error));
}

TEST(CapturedHost, DescriptionsMayLackParts) {
  std::string error;
  const auto capture = CaptureOf({{kDescriptionMember, 0, R"({"format":1,"host":"h"})"}}, &error);
  ASSERT_TRUE(capture) << error;
  EXPECT_EQ(capture->host, "h");
  EXPECT_EQ(capture->release + capture->version + capture->machine, "");
  EXPECT_TRUE(capture->commands.empty() && capture->asked.empty() && capture->variables.empty());
}

TEST(CapturedHost, TellsTheMomentWhereItIsOne) {
  const auto moment = [](const char *made) {
    Capture capture;
    capture.made = made;
    return capture.Moment();
  };
  EXPECT_EQ(moment("2026-01-02T03:04:05Z"), 1767323045);
  for (const char *made : {"", "yesterday", "2026-01-02T03:04:05", "2026-01-02T03:04:05Z and"}) {
    EXPECT_EQ(moment(made), std::nullopt) << made;
  }
}

TEST(CapturedHost, HasItsTimeZoneOrNone) {
  const char *const set = getenv("TZ");
  const std::string before = set != nullptr ? set : "";
  Capture capture;
  const auto hour = [&] {
    UseTimeZoneOf(capture);
    const time_t moment = 1767323045;
    tm parts = {};
    localtime_r(&moment, &parts);
    return parts.tm_hour;
  };
  EXPECT_EQ(hour(), 3);
  EXPECT_STREQ(getenv("TZ"), "UTC0");
  capture.members = {{"host/etc/localtime", 0, "no zone"}};
  EXPECT_EQ(hour(), 3);
  EXPECT_STREQ(getenv("TZ"), "UTC0");
  // A zone of one time alone, which is two hours ahead.
  std::string header = "TZif2";
  header.resize(44);
  header[39] = 1;  // one type of local time
  header[43] = 4;  // letters of its name
  const std::string type("\0\0\x1C\x20\0\0XXX\0", 10);
  capture.members = {{"host/etc/localtime", 0, header + type + header + type + "\nXXX-2\n"}};
  EXPECT_EQ(hour(), 5);
  set != nullptr ? setenv("TZ", before.c_str(), 1) : unsetenv("TZ");
  tzset();
}

// A capture's file of these members, and what is said of it.
class CaptureFile : public testing::Test {
 protected:
  CaptureFile() : file_(place_.base() + "/host.tar.zst") {}
  void Write(std::vector<Member> members) {
    members.push_back({kDescriptionMember, 0, R"({"format":1})"});
    std::string error;
    const auto archive = PackMembers(members, &error);
    ASSERT_TRUE(archive) << error;
    std::ofstream(file_, std::ios::binary) << *archive;
  }
  std::string SaidOfReading() {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(ReadCapture(file_));
    return testing::internal::GetCapturedStderr();
  }

  TempRegistry place_;
  std::string file_;
};

TEST_F(CaptureFile, SaysWhyItCannotBeRead) {
  EXPECT_EQ(SaidOfReading(), "vexreg: " + file_ + ": No such file or directory\n");
  std::filesystem::create_directory(file_);
  EXPECT_EQ(SaidOfReading(), "vexreg: " + file_ + ": Is a directory\n");
  std::filesystem::remove(file_);
  std::ofstream(file_) << "text";
  EXPECT_TRUE(SaidOfReading().starts_with("vexreg: " + file_ + ": not a capture"));
  // A hole of more than a capture may have.
  std::filesystem::resize_file(file_, (size_t{256} << 20) + 1);
  EXPECT_EQ(SaidOfReading(), "vexreg: " + file_ + ": File too large\n");
}

TEST_F(CaptureFile, ShowsItsRegistryUntilItGoes) {
  Write({{"registry/host/memory", 0, "bytes"}, {"host/etc/mtab", 0, "not of the registry"}});
  ASSERT_EQ(setenv("TMPDIR", place_.root().c_str(), 1), 0);
  {
    CapturedRegistry registry;
    ASSERT_TRUE(registry.Open(file_));
    EXPECT_TRUE(registry.root().starts_with(place_.root() + "/"));
    EXPECT_EQ(made_up::ReadFile(registry.root() + "/host/memory"), "bytes");
    EXPECT_EQ(made_up::ListDirectory(registry.root()), std::vector<std::string>{"host"});
  }
  EXPECT_TRUE(std::filesystem::is_empty(place_.root()));
  unsetenv("TMPDIR");
}

TEST_F(CaptureFile, SaysWhyItsRegistryIsNotShown) {
  const auto said = [&] {
    CapturedRegistry registry;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(registry.Open(file_));
    return testing::internal::GetCapturedStderr();
  };
  // A file where another member has a directory.
  Write({{"registry/a", 0, "file"}, {"registry/a/b", 0, "below"}});
  ASSERT_EQ(setenv("TMPDIR", place_.root().c_str(), 1), 0);
  EXPECT_TRUE(said().ends_with(": Not a directory\n"));
  EXPECT_TRUE(std::filesystem::is_empty(place_.root()));
  // A place in which nobody makes directories; one that is none gives way to the usual one.
  Write({{"registry/a", 0, "file"}});
  ASSERT_EQ(setenv("TMPDIR", "/proc", 1), 0);
  EXPECT_EQ(said(), "vexreg: no directory for the captured objects: No such file or directory\n");
  ASSERT_EQ(setenv("TMPDIR", file_.c_str(), 1), 0);
  CapturedRegistry registry;
  EXPECT_TRUE(registry.Open(file_));
  EXPECT_TRUE(registry.root().starts_with("/tmp/vexreg.")) << registry.root();
  unsetenv("TMPDIR");
}

TEST(CapturedHost, OnlyPathsOfSourcesAreSources) {
  for (const char *path : {"/proc/stat", "/etc/mtab", "/boot/config-6.1.0", "/vmfs/one",
                           "/proc/scsi/qla2300/10", "/var/lib/quorix/ev/ZTHUV"}) {
    EXPECT_NE(SourceOf(path), nullptr) << path;
  }
  for (const char *path : {"/etc/ld.so.preload", "/etc/passwd", "/usr/lib/libc.so.6",
                           "/boot/config-/../../etc/passwd", "/proc/stat/x", "/etc/snmp", ""}) {
    EXPECT_EQ(SourceOf(path), nullptr) << path;
  }
}

Served Small(const std::string &free, const std::string &size) {
  return {{{"tlxHoPhysicalMemoryFree", ""}, free},
          {{"tlxHoPhysicalMemorySize", ""}, size},
          {{"tlxHoAgentStart", ""}, free}};
}

TEST(Comparison, LeavesOutWhatMovesByNature) {
  size_t compared = 0;
  EXPECT_TRUE(Compare(Small("1", "5"), Small("2", "5"), false, &compared).empty());
  EXPECT_EQ(compared, 1U);
  const auto exact = Compare(Small("1", "5"), Small("2", "5"), true, &compared);
  ASSERT_EQ(exact.size(), 1U);
  EXPECT_EQ(exact[0].place.variable, "tlxHoPhysicalMemoryFree");
  EXPECT_EQ(compared, 2U);
  const auto differ = Compare(Small("1", "5"), Small("1", "6"), false, &compared);
  ASSERT_EQ(differ.size(), 1U);
  EXPECT_EQ(differ[0].before, "5");
  EXPECT_EQ(differ[0].now, "6");
  // What moves may change, and not come or go.
  const auto gone =
      Compare(Small("1", "5"), {{{"tlxHoPhysicalMemorySize", ""}, "5"}}, false, &compared);
  ASSERT_EQ(gone.size(), 1U);
  EXPECT_EQ(gone[0].now, kAbsent);
}

// An octet of tlxHoMibStatusArray in the text of a served value.
std::string Octet(int number) {
  char text[8];
  snprintf(text, sizeof(text), "\\%02x", number);
  return text;
}

// What an agent of that revision serves of itself, and of a sibling, which has revision 1.4.
Served OfRevision(int major, int minor, int sibling_minor = 4) {
  std::string array;
  for (int index = 0; index < 27; index++) {
    const bool own = index == 11;
    const bool other = index == 9;
    array += Octet(own || other ? 1 : 0) + Octet(own || other ? 2 : 0);
    array += Octet(own ? major : other ? 1 : 0) + Octet(own ? minor : other ? sibling_minor : 0);
  }
  return {{{"tlxHoMibRevMajor", ""}, std::to_string(major)},
          {{"tlxHoMibRevMinor", ""}, std::to_string(minor)},
          {{"tlxHoMibStatusArray", ""}, array},
          {{"tlxHoSiblingMajor", "row 11"}, std::to_string(major)},
          {{"tlxHoSiblingMinor", "row 11"}, std::to_string(minor)},
          {{"tlxHoSiblingMajor", "row 9"}, "1"},
          {{"tlxHoSiblingMinor", "row 9"}, std::to_string(sibling_minor)}};
}

TEST(Comparison, AnotherAgentHasARevisionOfItsOwn) {
  size_t compared = 0;
  EXPECT_TRUE(Compare(OfRevision(1, 3), OfRevision(1, 4), true, &compared).empty());
  EXPECT_EQ(compared, 7U);
  EXPECT_TRUE(Compare(OfRevision(1, 11), OfRevision(2, 0), true, &compared).empty());
  // A sibling's is its own, also where the numbers are the same.
  EXPECT_EQ(Compare(OfRevision(1, 4, 4), OfRevision(1, 5, 5), true, &compared).size(), 2U);
  // What the array and the row said before, they go on saying.
  const auto changed = [&](const Place &place, const std::string &value) {
    Served now = OfRevision(1, 4);
    now[place] = value;
    return Compare(OfRevision(1, 3), now, true, &compared).size();
  };
  EXPECT_EQ(changed({"tlxHoMibStatusArray", ""}, OfRevision(1, 3).at({"tlxHoMibStatusArray", ""})),
            1U);
  EXPECT_EQ(changed({"tlxHoSiblingMinor", "row 11"}, "3"), 1U);
  EXPECT_EQ(changed({"tlxHoSiblingMajor", "row 11"}, "7"), 1U);
  Served lost = OfRevision(1, 4);
  lost.erase({"tlxHoMibRevMinor", ""});
  EXPECT_FALSE(Compare(OfRevision(1, 4), lost, true, &compared).empty());
  // Of the agent's other MIB as well.
  Served before = OfRevision(1, 3);
  Served now = OfRevision(1, 3);
  for (Served *served : {&before, &now}) {
    (*served)[{"tlxApMibRevMajor", ""}] = "1";
    (*served)[{"tlxApMibRevMinor", ""}] = served == &now ? "8" : "7";
    (*served)[{"tlxHoSiblingMinor", "row 21"}] = served == &now ? "8" : "7";
  }
  EXPECT_TRUE(Compare(before, now, true, &compared).empty());
}

TEST(Comparison, ARevisionThatThePeerScanHadNotReadStaysUnread) {
  size_t compared = 0;
  Served before = OfRevision(1, 3);
  Served now = OfRevision(1, 4);
  for (Served *served : {&before, &now}) {
    served->at({"tlxHoSiblingMajor", "row 11"}) = "0";
    served->at({"tlxHoSiblingMinor", "row 11"}) = "0";
    served->at({"tlxHoMibStatusArray", ""}) = OfRevision(0, 0).at({"tlxHoMibStatusArray", ""});
  }
  EXPECT_TRUE(Compare(before, now, true, &compared).empty());
}

TEST(Comparison, WhatTheCapturingAgentDidNotKnowIsNew) {
  size_t compared = 0;
  const Served before = OfRevision(1, 3);
  const auto with = [](Served served) {
    served[{"tlxHoPhysicalMemorySize", ""}] = "5";
    served[{"tlxHoCpuUtilMin", "row 0"}] = "1";  // moves, and is not compared
    served[{"tlxHoSiblingName", "row 9"}] = "x";
    served[{"tlxHoSiblingName", "row 10"}] = "y";
    return served;
  };
  std::set<std::string> since;
  EXPECT_TRUE(Compare(before, with(OfRevision(1, 4)), true, &compared, {}, &since).empty());
  EXPECT_EQ(since, (std::set<std::string>{"tlxHoPhysicalMemorySize", "tlxHoSiblingName"}));
  EXPECT_EQ(compared, 7U);
  // One that it knew and had no value of is a difference.
  const auto known =
      Compare(before, with(OfRevision(1, 4)), true, &compared, {"tlxHoPhysicalMemorySize"}, &since);
  ASSERT_EQ(known.size(), 1U);
  EXPECT_EQ(known[0].place.variable, "tlxHoPhysicalMemorySize");
  EXPECT_EQ(known[0].before, kAbsent);
  EXPECT_EQ(since, (std::set<std::string>{"tlxHoSiblingName"}));
  // So is any other of an agent of the same revision, and a row that is more of a known table.
  EXPECT_EQ(Compare(before, with(before), true, &compared, {}, &since).size(), 3U);
  EXPECT_TRUE(since.empty());
  Served more = OfRevision(1, 4);
  more[{"tlxHoSiblingMinor", "row 10"}] = "0";
  EXPECT_EQ(Compare(before, more, true, &compared, {}, &since).size(), 1U);
  // What is gone is always one.
  EXPECT_EQ(Compare(with(before), OfRevision(1, 4), true, &compared, {}, &since).size(), 3U);
}

TEST(Comparison, KnowsOnlyVariablesOfTheModules) {
  const std::string document = [] {
    std::ifstream file(VEX_SOURCE_DIR "/docs/capture-format.md");
    return std::string(std::istreambuf_iterator<char>(file), {});
  }();
  for (const Moving &one : MovingVariables()) {
    EXPECT_NE(FindMibVariable(one.variable), nullptr) << one.variable;
    EXPECT_NE(document.find("`" + std::string(one.variable) + "`"), std::string::npos)
        << one.variable << " is not in docs/capture-format.md";
  }
}

TEST(Comparison, KnowsRowsByWhatTheyAreOf) {
  const MibVariable *desc = FindMibVariable("tlxHoFileSysDesc");
  const MibVariable *total = FindMibVariable("tlxHoFileSysSpaceTotal");
  const auto row = [&](uint32_t number, const char *text, int32_t size) {
    std::vector<SnmpValue> values(2);
    values[0].name.assign(desc->Oid().begin(), desc->Oid().end());
    values[0].name.push_back(number);
    values[0].octets = text;
    values[1].name.assign(total->Oid().begin(), total->Oid().end());
    values[1].name.push_back(number);
    values[1].integer = size;
    return values;
  };
  const auto both = [](std::vector<SnmpValue> a, const std::vector<SnmpValue> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  size_t compared = 0;
  const Served one = ServedByWalk(both(row(1, "a on /", 5), row(2, "b on /x", 6)));
  EXPECT_TRUE(
      Compare(one, ServedByWalk(both(row(3, "b on /x", 6), row(7, "a on /", 5))), true, &compared)
          .empty());
  EXPECT_EQ(compared, 4U);
  const auto other =
      Compare(one, ServedByWalk(both(row(1, "a on /", 5), row(2, "b on /x", 9))), true, &compared);
  ASSERT_EQ(other.size(), 1U);
  EXPECT_EQ(other[0].place.row, "b on /x");
  // Two of one text stay two.
  EXPECT_EQ(ServedByWalk(both(row(1, "a on /", 5), row(2, "a on /", 6))).size(), 4U);
}

TEST(Figures, DirectoriesWithBackslashesThatEscapeNothing) {
  for (const char *name : {"\\", "\\1", "\\12", "\\8bc", "\\/bc", "\\1x2", "\\12x", "\\129"}) {
    const auto read = ParseFigures(std::string("silent /") + name);
    ASSERT_EQ(read.size(), 1U);
    EXPECT_EQ(read.begin()->first, std::string("/") + name);
  }
  EXPECT_EQ(ParseFigures("silent /\\101\\102").begin()->first, "/AB");
}

TEST(Figures, LinesThatAreNone) {
  for (const char *line :
       {"figures 1x 2 3 4 5 /", "figures 1 x 3 4 5 /", "figures 1 2 x 4 5 /", "figures 1 2 3 x 5 /",
        "figures 1 2 3 4 x /", "error 5x /", "error -2 /", "error 0 /"}) {
    EXPECT_TRUE(ParseFigures(line).empty()) << line;
  }
}

// By variable, and row behind a comma.
using Texts = std::map<std::string, std::string>;
Texts AsTexts(const Served &served) {
  Texts texts;
  for (const auto &[place, value] : served) {
    texts[place.variable + (place.row.empty() ? "" : "," + place.row)] = value;
  }
  return texts;
}

TEST(Comparison, TakesWhatTheAgentServesOfItsObjects) {
  FileObject cut = MadeObject({Text("tlxHoDesc", 8, "text")});
  cut.data.clear();
  const FileObject memory = MadeObject({Int("tlxHoPhysicalMemorySize", 5)});
  const Served served = ServedByObjects({
      {"host/memory", memory},
      {"rack/memory", memory},              // another agent's
      {"host/memory.99999999999", memory},  // a number that no instance has
      {"host/memory.5x", memory},           // no number
      {"host/info", MadeObject({Text("tlxHoName", 16, "a\\b\n\x7f\xFF"), Int("unknown", 1)})},
      {"host/other", cut},
      {"host/sibling.7", MadeObject({Text("tlxHoSiblingName", 8, "nics")})},
  });
  EXPECT_EQ(AsTexts(served), (Texts{{"tlxHoPhysicalMemorySize", "5"},
                                    {"tlxHoName", "a\\5cb\\0a\\7f\\ff"},
                                    {"tlxHoSiblingName,row 7", "nics"}}));
}

TEST(Comparison, NotificationsAreNotServed) {
  for (const MibVariable &variable : MibVariables()) {
    const Served served =
        ServedByObjects({{"host/x", MadeObject({Int(std::string(variable.name), 1)})}});
    EXPECT_EQ(served.size(), variable.access == MibAccess::kNotify ? 0U : 1U) << variable.name;
  }
}

TEST(Comparison, OfAWalkWhatTheModulesHave) {
  const MibVariable *size = FindMibVariable("tlxHoPhysicalMemorySize");
  const std::vector<uint32_t> column(size->Oid().begin(), size->Oid().end());
  std::vector<SnmpValue> values(6);
  values[0].name = {1, 3};  // before all of them
  values[1].name = column;
  values[1].name.push_back(0);
  values[1].integer = 5;
  values[2].name = values[1].name;  // with one number too many
  values[2].name.push_back(7);
  values[2].integer = 6;
  values[3].name = {2, 5, 5};  // behind all of them
  values[3].integer = 7;
  values[4].name = column;  // of a neighbour that there is not
  values[4].name.back() += 1000;
  values[4].name.push_back(0);
  values[4].integer = 8;
  values[5].name = values[1].name;  // of another type
  EXPECT_EQ(AsTexts(ServedByWalk(values)), (Texts{{"tlxHoPhysicalMemorySize", "5"}}));
}

TEST(Comparison, RevisionsThatAreNotAllThere) {
  const auto without = [](Served served, std::initializer_list<Place> places) {
    for (const Place &place : places) {
      served.erase(place);
    }
    return served;
  };
  const Place minor = {"tlxHoMibRevMinor", ""};
  const Place major = {"tlxHoMibRevMajor", ""};
  const Place array = {"tlxHoMibStatusArray", ""};
  const Place row_major = {"tlxHoSiblingMajor", "row 11"};
  const Place row_minor = {"tlxHoSiblingMinor", "row 11"};
  const Served before = OfRevision(1, 3);
  const Served now = OfRevision(1, 4);
  const auto differences = [](const Served &a, const Served &b) {
    size_t compared = 0;
    return Compare(a, b, true, &compared).size();
  };
  // Without both numbers of both, nothing of the agent's own is known.
  EXPECT_EQ(differences(without(before, {minor}), without(now, {minor})), 2U);
  EXPECT_EQ(differences(without(before, {major}), now), 4U);
  EXPECT_EQ(differences(before, without(now, {major})), 4U);
  // A row or an array that neither has is no difference.
  EXPECT_EQ(differences(without(before, {row_major}), without(now, {row_major})), 0U);
  EXPECT_EQ(differences(without(before, {row_minor}), without(now, {row_minor})), 0U);
  EXPECT_EQ(differences(without(before, {array}), without(now, {array})), 0U);
  Served odd = before;
  odd[row_minor] = "9";  // not what the agent said of itself
  EXPECT_EQ(differences(odd, now), 1U);
  // An array that ends before the agent's octets, and one whose octets can be printed.
  Served cut_before = before;
  Served cut_now = now;
  cut_before[array] = cut_now[array] = "ab\\00";
  EXPECT_EQ(differences(cut_before, cut_now), 0U);
  std::string printed;
  for (int i = 0; i < 4 * 27; i++) {
    printed += i == 4 * 11 + 2 ? "A" : i == 4 * 11 + 3 ? "B" : "x";
  }
  Served letters = OfRevision('A', 'B');
  letters[array] = printed;
  Served others = OfRevision('A', 'C');
  others[array] = printed;
  others[array][4 * 11 + 3] = 'C';
  EXPECT_EQ(differences(letters, others), 0U);
}

TEST(Comparison, WhatIsNewNeedNotBeAskedFor) {
  size_t compared = 0;
  Served now = OfRevision(1, 4);
  now[{"tlxHoPhysicalMemorySize", ""}] = "5";
  EXPECT_TRUE(Compare(OfRevision(1, 3), now, true, &compared).empty());
}

}  // namespace
}  // namespace vex
