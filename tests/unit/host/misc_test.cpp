#include "status/misc.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "common/next_index.h"
#include "tests/support/recording_framework.h"

namespace {

constexpr char kObject[] = "host/misc";
constexpr char kThresholds[] = REGISTRY_ROOT "/host/../threshold";

using namespace std::string_literals;

// An entry of the threshold agent.
struct Entry {
  std::string oid = "1.3.6.1.4.1.4891.11.2.4.1.1.0";
  int32_t severity = 0;
  int32_t first_flag = 1;
  int32_t second_flag = 0;
  size_t size = 600;  // of the data block
};

std::string DataOf(const Entry &entry) {
  std::string data(1000, '\0');
  data.replace(8, entry.oid.size(), entry.oid);
  memcpy(&data[292], &entry.severity, 4);
  memcpy(&data[552], &entry.first_flag, 4);
  memcpy(&data[556], &entry.second_flag, 4);
  data.resize(entry.size);
  return data;
}

class Misc : public testing::Test {
 protected:
  Misc() {
    setenv("TZ", "UTC", 1);
    rec::PutDirectory("/proc");
    rec::PutDirectory(REGISTRY_ROOT);
    rec::PutHardwareAddress("eth0", "");
    rec::PutNothing(kThresholds);
    rec::SetMibRevision(11, 1, 30);
    rec::SetMibRevision(21, 9, 9);
  }

  void PutEntry(const std::string &name, const Entry &entry) {
    rec::PutFile(std::string(kThresholds) + "/" + name, "");
    rec::PutSiblingData("threshold/" + name, DataOf(entry));
  }

  // The condition with one entry.
  int Condition(const Entry &entry) {
    PutEntry("entry.1", entry);
    EXPECT_EQ(do_misc(), 0);
    return rec::Int(kObject, "tlxHoMibCondition");
  }
};

// ---- Creation -----------------------------------------------------------------------------------

TEST_F(Misc, TheObjectAsCreated) {
  rec::SetTime(1709647629);  // 5 March 2024, 14:07:09 UTC
  poll_time = 15;
  ASSERT_EQ(do_misc(), 0);
  const registry_object *object = rec::Live(kObject);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->flag, 0);
  EXPECT_EQ(object->data_size, 1085);
  EXPECT_EQ(object->var_count, 15);
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibRevMajor"), 1);
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibRevMinor"), 30);
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 2);
  EXPECT_EQ(rec::Int(kObject, "tlxHoOsCommonPollFreq"), 15);
  EXPECT_EQ(rec::Int(kObject, "tlxHoSwVerNextIndex"), 0);
  EXPECT_EQ(rec::Text(kObject, "tlxHoGenericData"), "generic trap data");
  EXPECT_EQ(rec::Octets(kObject, "tlxHoClientLastModified"), "\xFF\xFF\0\0\0\0\0"s);
  EXPECT_EQ(rec::Octets(kObject, "tlxHoMibStatusArray"), "\1\0\x08"s + std::string(105, '\0'));
  EXPECT_EQ(rec::Int(kObject, "tlxHoTrapFlags"), 0);
  EXPECT_EQ(rec::Octets(kObject, "tlxHoConfigChangedDate"), "\x07\xE8\x03\x05\x0E\x07\x09"s);
  EXPECT_EQ(rec::Octets(kObject, "tlxHoGUID"),
            "\x58\x14\x2D\xA9\x53\xCD\x34\x5B\x33\x85\xC5\x44\xA4\xDC\x7A\xFD");
  EXPECT_EQ(rec::Int(kObject, "tlxHoCodeServer"), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxHoWebMgmtPort"), 2301);
  EXPECT_EQ(rec::Text(kObject, "tlxHoGUIDCanonical"), "A92D1458-CD53-5B34-3385-C544A4DC7AFD");
  EXPECT_EQ(rec::Octets(kObject, "tlxHoMibHealthStatusArray"), std::string(256, '\0'));
  EXPECT_EQ(rec::Publications(kObject), 1);
}

TEST_F(Misc, TheVariablesBySlot) {
  do_misc();
  EXPECT_EQ(rec::Slots(kObject),
            (std::vector<rec::Slot>{{"tlxHoMibRevMajor", 4, 1, 2, 0},
                                    {"tlxHoMibRevMinor", 4, 1, 2, 4},
                                    {"tlxHoMibCondition", 4, 1, 2, 8},
                                    {"tlxHoOsCommonPollFreq", 4, 1, 0, 12},
                                    {"tlxHoSwVerNextIndex", 4, 1, 2, 16},
                                    {"tlxHoGenericData", 255, 2, 0, 20},
                                    {"tlxHoClientLastModified", 7, 3, 2, 275},
                                    {"tlxHoMibStatusArray", 256, 3, 2, 282},
                                    {"tlxHoTrapFlags", 4, 1, 2, 538},
                                    {"tlxHoConfigChangedDate", 7, 3, 2, 542},
                                    {"tlxHoGUID", 16, 3, 0, 549},
                                    {"tlxHoCodeServer", 4, 1, 2, 565},
                                    {"tlxHoWebMgmtPort", 4, 1, 2, 569},
                                    {"tlxHoGUIDCanonical", 256, 2, 0, 573},
                                    {"tlxHoMibHealthStatusArray", 256, 3, 2, 829}}));
  EXPECT_EQ(rec::Handled(kObject),
            (std::vector<std::string>{"tlxHoOsCommonPollFreq", "tlxHoGenericData", "tlxHoGUID",
                                      "tlxHoGUIDCanonical"}));
}

TEST_F(Misc, TheDateIsLocalTime) {
  setenv("TZ", "EST5", 1);
  rec::SetTime(1709647629);
  do_misc();
  EXPECT_EQ(rec::Octets(kObject, "tlxHoConfigChangedDate"), "\x07\xE8\x03\x05\x09\x07\x09"s);
}

TEST_F(Misc, TheDateIsThatOfTheStart) {
  rec::SetTime(1709647629);
  do_misc();
  rec::SetTime(1909647629);
  do_misc();
  EXPECT_EQ(rec::Octets(kObject, "tlxHoConfigChangedDate"), "\x07\xE8\x03\x05\x0E\x07\x09"s);
}

TEST_F(Misc, CreationFails) {
  rec::Fail("create_obj");
  EXPECT_EQ(do_misc(), -1);
  EXPECT_EQ(rec::Messages().back(), "do_misc: do_init returns NULL, return NOT_OK\n");
  EXPECT_EQ(set_next_index(1), -1);
  EXPECT_EQ(next_index(), 0);
  // Not tried again.
  rec::StopFailing();
  EXPECT_EQ(do_misc(), -1);
  EXPECT_EQ(rec::Messages().back(), "do_misc: find_obj returns NULL, return NOT_OK\n");
  EXPECT_EQ(rec::Count("create_obj"), 1);
}

TEST_F(Misc, TheObjectIsGone) {
  do_misc();
  rec::Fail("find_obj");
  EXPECT_EQ(do_misc(), -1);
  EXPECT_EQ(rec::Messages().back(), "do_misc: find_obj returns NULL, return NOT_OK\n");
  EXPECT_EQ(set_next_index(1), -1);
  EXPECT_EQ(next_index(), 0);
  rec::StopFailing();
  EXPECT_EQ(do_misc(), 0);
  EXPECT_EQ(set_next_index(1), 0);
}

TEST_F(Misc, TheArraysAreBuiltTwiceAtStartUp) {
  rec::PutSibling("ida/misc", {rec::IntVar("a", 1), rec::IntVar("b", 2), rec::IntVar("c", 2)});
  do_misc();
  EXPECT_EQ(rec::Count("get_obj", "ida/misc"), 2);
  EXPECT_TRUE(rec::Traps().empty());
  EXPECT_EQ(rec::Octets(kObject, "tlxHoMibHealthStatusArray").substr(0, 10),
            "\0\2\0\0\0\0\0\0\0\2"s);
}

// ---- Refresh ------------------------------------------------------------------------------------

TEST_F(Misc, EachRefreshTakesThePollPeriodAndPublishes) {
  do_misc();
  poll_time = 42;
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoOsCommonPollFreq"), 42);
  EXPECT_EQ(rec::Publications(kObject), 2);
  EXPECT_EQ(rec::Count("find_obj", kObject), 1);
}

TEST_F(Misc, OwnMiscObjectShowsInItsOwnRow) {
  rec::PutFile("/proc/7/cmdline", "/usr/sbin/vexhostd\0-p\0"s + "15");
  rec::PutProcessGroup(7, 7);
  do_misc();
  // Not yet published when the array was built.
  EXPECT_EQ(rec::Octets(kObject, "tlxHoMibStatusArray").substr(44, 4), "\0\0\0\0"s);
  do_misc();
  EXPECT_EQ(rec::Octets(kObject, "tlxHoMibStatusArray").substr(44, 4), "\1\2\1\x1E"s);
  EXPECT_EQ(rec::Octets(kObject, "tlxHoMibStatusArray").substr(84, 4), "\1\0\0\0"s);
  EXPECT_EQ(rec::Octets(kObject, "tlxHoMibStatusArray").substr(0, 4), "\1\2\x08\0"s);
}

TEST_F(Misc, TheStatusArrayKeepsItsLength) {
  do_misc();
  rec::Variable(kObject, "tlxHoMibStatusArray")->length = 256;
  do_misc();
  EXPECT_EQ(rec::Octets(kObject, "tlxHoMibStatusArray").size(), 108U);
  EXPECT_EQ(rec::Octets(kObject, "tlxHoMibHealthStatusArray").size(), 256U);
}

TEST_F(Misc, AWorseHealthSendsItsTrapAtTheRefresh) {
  rec::PutSibling("ida/misc", {rec::IntVar("a", 1), rec::IntVar("b", 2), rec::IntVar("c", 2)});
  do_misc();
  rec::PutSibling("ida/misc", {rec::IntVar("a", 1), rec::IntVar("b", 2), rec::IntVar("c", 4)});
  do_misc();
  ASSERT_EQ(rec::Traps().size(), 1U);
  EXPECT_EQ(rec::Traps()[0].number, 11020);
  // The agents' conditions are no part of this one.
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 2);
}

// ---- Thresholds ---------------------------------------------------------------------------------

TEST_F(Misc, ConditionBySeverity) {
  for (const auto &[severity, condition] : {std::pair{INT32_MIN, 2},
                                            {-1, 2},
                                            {0, 2},
                                            {1, 2},
                                            {2, 2},
                                            {3, 3},
                                            {4, 3},
                                            {5, 4},
                                            {6, 4},
                                            {7, 2},
                                            {9, 2},
                                            {INT32_MAX, 2}}) {
    EXPECT_EQ(Condition({.severity = severity}), condition) << severity;
  }
}

TEST_F(Misc, EitherFlagRaises) {
  EXPECT_EQ(Condition({.severity = 4, .first_flag = 0, .second_flag = 0}), 2);
  EXPECT_EQ(Condition({.severity = 4, .first_flag = 0, .second_flag = 1}), 3);
  EXPECT_EQ(Condition({.severity = 4, .first_flag = -1, .second_flag = 0}), 3);
  EXPECT_EQ(Condition({.severity = 6, .first_flag = 1, .second_flag = 1}), 4);
}

TEST_F(Misc, TheWatchedOid) {
  EXPECT_EQ(Condition({.oid = "4891.11.2.4", .severity = 4}), 3);
  EXPECT_EQ(Condition({.oid = "4891.11.2.3.1", .severity = 4}), 2);
  EXPECT_EQ(Condition({.oid = "4891.11.2.40", .severity = 4}), 3);
  EXPECT_EQ(Condition({.oid = "", .severity = 4}), 2);
  EXPECT_EQ(Condition({.oid = "x\0004891.11.2.4"s, .severity = 4}), 2);
  // No further than the severity, which the text may touch.
  EXPECT_EQ(Condition({.oid = std::string(273, 'x') + "4891.11.2.4", .severity = 4}), 3);
  EXPECT_EQ(Condition({.oid = std::string(274, 'x') + "4891.11.2.4", .severity = 0x34}), 2);
}

TEST_F(Misc, ATextThatRunsIntoTheSeverityDoesNotReadIt) {
  // The last character of the text would be the severity's first octet.
  Entry entry;
  entry.oid = std::string(274, 'x') + "4891.11.2.";
  entry.severity = '4';
  EXPECT_EQ(Condition(entry), 2);
}

TEST_F(Misc, TheWorstOfSeveralEntries) {
  PutEntry("entry.1", {.severity = 3});
  PutEntry("entry.2", {.severity = 6});
  PutEntry("entry.10", {.severity = 4});
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 4);
  // The largest counts, also where it raises nothing.
  PutEntry("entry.3", {.severity = 8});
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 2);
}

TEST_F(Misc, TheConditionFallsBack) {
  EXPECT_EQ(Condition({.severity = 6}), 4);
  EXPECT_EQ(Condition({.severity = 4}), 3);
  EXPECT_EQ(Condition({.severity = 1}), 2);
  EXPECT_EQ(Condition({.severity = 6}), 4);
  rec::PutNothing(kThresholds);
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 2);
}

TEST_F(Misc, OtherNamesAreIgnored) {
  for (const char *name : {"entry", "entry1", "xentry.1", "Entry.1", "misc", "entries.1"}) {
    PutEntry(name, {.severity = 6});
  }
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 2);
  EXPECT_EQ(rec::Count("get_obj", "threshold/*"), 0);
  PutEntry("entry.", {.severity = 6});
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 4);
}

TEST_F(Misc, EntriesThatCannotBeReadAreSkipped) {
  PutEntry("entry.1", {.severity = 6});
  rec::RemoveSibling("threshold/entry.1");
  PutEntry("entry.2", {.severity = 6});
  rec::PutSibling("threshold/entry.2", {});  // no data
  PutEntry("entry.3", {.severity = 6, .size = 559});
  PutEntry("entry.4", {.severity = 6, .size = 10});
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 2);
  PutEntry("entry.5", {.severity = 3, .size = 560});
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 3);
}

TEST_F(Misc, EntriesThatDidNotChangeAreNotReadAgain) {
  constexpr int kEntries = 200;
  const auto name = [](int i) { return "entry." + std::to_string(i); };
  // Just written, however long that takes: the next change might not show in the file's times.
  rec::SetTime(time(nullptr));
  for (int i = 0; i < kEntries; i++) {
    PutEntry(name(i), {.severity = 3});
  }
  do_misc();
  rec::ForgetEvents();
  do_misc();
  EXPECT_EQ(rec::Count("get_obj", "threshold/*"), kEntries);
  rec::SetTime(time(nullptr) + 1000);
  do_misc();
  rec::ForgetEvents();
  for (int poll = 0; poll < 3; poll++) {
    do_misc();
    EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 3);
  }
  EXPECT_EQ(rec::Count("get_obj", "threshold/*"), 0);
  // One that is written in place, one that is replaced, one that comes, one that goes.
  PutEntry(name(7), {.severity = 6});
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 4);
  rec::PutNothing(std::string(kThresholds) + "/" + name(7));
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 3);
  PutEntry(name(7), {.severity = 5});
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 4);
  rec::PutNothing(std::string(kThresholds) + "/" + name(7));
  PutEntry(name(kEntries), {.severity = 3});
  rec::ForgetEvents();
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 3);
  EXPECT_EQ(rec::Count("get_obj", "threshold/*"), 1);
}

// Another file system's file may have the same number, and a changed one the times of before.
TEST_F(Misc, AnEntryOnAnotherDeviceOrOfAnotherSizeIsReadAgain) {
  PutEntry("entry.1", {.severity = 3});
  rec::SetTime(time(nullptr) + 1000);
  do_misc();
  const auto reads = [] {
    rec::ForgetEvents();
    do_misc();
    EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 3);
    return rec::Count("get_obj", "threshold/*");
  };
  EXPECT_EQ(reads(), 0);
  const char path[] = REGISTRY_ROOT "/threshold/entry.1";
  rec::ChangeStatus(path, [](struct stat *status) { status->st_dev++; });
  EXPECT_EQ(reads(), 1);
  EXPECT_EQ(reads(), 0);
  rec::ChangeStatus(path, [](struct stat *status) {
    status->st_dev++;
    status->st_size++;
  });
  EXPECT_EQ(reads(), 1);
  EXPECT_EQ(reads(), 0);
}

// Each has a place of its own, the next free one; after the last place comes the first.
TEST_F(Misc, EntriesWhoseNumbersFallOnOnePlaceAreToldApart) {
  rec::SetTime(time(nullptr) + 1000);
  using Change = void (*)(struct stat *);
  const Change changes[] = {
      [](struct stat *status) { status->st_ino = 100; },
      [](struct stat *status) { status->st_ino = 100 + 64; },
      [](struct stat *status) { status->st_ino = 100 + 2 * 64; },
      [](struct stat *status) { status->st_ino = 127; },
      [](struct stat *status) { status->st_ino = 127 + 64; },
  };
  int number = 0;
  for (const Change change : changes) {
    const std::string name = "entry." + std::to_string(++number);
    PutEntry(name, {.severity = number == 3 ? 6 : number == 5 ? 4 : 1});
    rec::ChangeStatus(REGISTRY_ROOT "/threshold/" + name, change);
  }
  do_misc();
  const auto condition = [] {
    rec::ForgetEvents();
    do_misc();
    EXPECT_EQ(rec::Count("get_obj", "threshold/*"), 0);
    return rec::Int(kObject, "tlxHoMibCondition");
  };
  EXPECT_EQ(condition(), 4);
  rec::PutNothing(std::string(kThresholds) + "/entry.3");
  EXPECT_EQ(condition(), 3);
  rec::PutNothing(std::string(kThresholds) + "/entry.5");
  EXPECT_EQ(condition(), 2);
}

// The names of one file share its place, and take none of another file's.
TEST_F(Misc, AnEntryByManyNamesIsOneEntry) {
  PutEntry("entry.1", {.severity = 3});
  const std::string directory = rec::RealPath(kThresholds);
  for (int i = 2; i <= 100; i++) {
    std::filesystem::create_hard_link(directory + "/entry.1",
                                      directory + "/entry." + std::to_string(i));
    rec::PutSiblingData("threshold/entry." + std::to_string(i), DataOf({.severity = 3}));
  }
  PutEntry("entry.other", {.severity = 5});
  rec::SetTime(time(nullptr) + 1000);
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 4);
  rec::ForgetEvents();
  do_misc();
  EXPECT_EQ(rec::Count("get_obj", "threshold/*"), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 4);
}

TEST_F(Misc, AnEntryThatCouldNotBeReadIsTriedAgain) {
  PutEntry("entry.1", {.severity = 6});
  rec::SetTime(time(nullptr) + 10);
  for (const int error : {EMFILE, ENFILE, ENOMEM, EINTR, EIO}) {
    rec::Fail("get_obj", "threshold/*", 1, error);
    do_misc();
    EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 4) << strerror(error);
    PutEntry("entry.1", {.severity = 6});
  }
  // One that was never read counts for nothing, and for what it says as soon as it can be read.
  PutEntry("entry.1", {.severity = 1});
  PutEntry("entry.2", {.severity = 6});
  rec::Fail("get_obj", "threshold/entry.2", 0, EMFILE);
  rec::ForgetEvents();
  do_misc();
  EXPECT_EQ(rec::Count("get_obj", "threshold/entry.2"), 3);
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 2);
  rec::StopFailing();
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 4);
}

TEST_F(Misc, AnEntryThatCannotBeReadNowKeepsItsSeverity) {
  rec::SetTime(time(nullptr));  // it has just changed
  PutEntry("entry.1", {.severity = 6});
  do_misc();
  PutEntry("entry.1", {.severity = 5});
  rec::Fail("get_obj", "threshold/*", 0, EIO);
  for (int poll = 0; poll < 3; poll++) {
    do_misc();
    EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 4);
  }
  // A damaged one is none.
  rec::StopFailing();
  rec::Fail("get_obj", "threshold/*", 0, ENOENT);
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 2);
  rec::StopFailing();
  rec::Fail("get_obj", "threshold/*", 0, EIO);
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 2);
}

TEST_F(Misc, AListingOfThresholdsThatBreaksOffIsBegunAnew) {
  constexpr char kBroken[] = "cannot readdir(*";
  PutEntry("entry.1", {.severity = 3});
  PutEntry("entry.2", {.severity = 3});
  for (int call = 1; call < 6; call++) {
    rec::Fail("readdir", "*/threshold", call);
    do_misc();
    EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 3) << call;
    rec::StopFailing();
  }
  EXPECT_EQ(rec::Count("agentlog_fprintf", kBroken), 0);
  // While no listing is whole, the last one stands.
  PutEntry("entry.3", {.severity = 6});
  rec::Fail("readdir", "*/threshold");
  do_misc();
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 3);
  EXPECT_EQ(rec::Count("agentlog_fprintf", kBroken), 1);
  rec::StopFailing();
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 4);
  EXPECT_EQ(rec::Count("agentlog_fprintf", "Thresholds are read again\n"), 1);
}

TEST_F(Misc, ADirectoryOfThresholdsThatCannotBeOpenedOnceIsOpenedAgain) {
  PutEntry("entry.1", {.severity = 3});
  for (const char *call : {"fdopendir", "open_dir"}) {
    rec::Fail(call, "*", 1, EMFILE);
    do_misc();
    EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 3) << call;
    rec::StopFailing();
  }
  EXPECT_EQ(rec::Count("agentlog_fprintf", "cannot opendir(*"), 0);
}

TEST_F(Misc, AMissingDirectoryIsReportedOnce) {
  const std::string message =
      "cannot opendir(/var/spool/quorix/kelmo/registry/host/../threshold)\n";
  do_misc();
  do_misc();
  EXPECT_EQ(rec::Count("agentlog_fprintf", message), 1);
  PutEntry("entry.1", {.severity = 3});
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 3);
  EXPECT_EQ(rec::Count("agentlog_fprintf", "Thresholds are read again\n"), 0)
      << "nor were they not";
  rec::PutNothing(kThresholds);
  do_misc();
  EXPECT_EQ(rec::Count("agentlog_fprintf", message), 1);
  EXPECT_EQ(rec::Count("agentlog_fprintf", "cannot readdir(*"), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 2);
}

TEST_F(Misc, ThresholdsThatAreGoneBeforeTheyAreListedAreReadAgainWhenTheyAre) {
  const auto told = [] { return rec::Count("agentlog_fprintf", "Thresholds are read again\n"); };
  PutEntry("entry.1", {.severity = 3});
  rec::Fail("readdir", "*/threshold");
  do_misc();
  rec::StopFailing();
  rec::PutNothing(kThresholds);
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 2);
  EXPECT_EQ(told(), 0);
  PutEntry("entry.1", {.severity = 3});
  do_misc();
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 3);
  EXPECT_EQ(told(), 1);
}

TEST_F(Misc, AnEntryThatCannotBeRememberedIsReadAgain) {
  PutEntry("entry.1", {.severity = 3});
  rec::SetTime(time(nullptr) + 1000);
  do_misc();
  struct Shortage {
    const char *call, *name;
  };
  for (const auto &[call, name] : {Shortage{"fstatat", "*/entry.1"}, Shortage{"calloc", ""}}) {
    SCOPED_TRACE(call);
    rec::Fail(call, name);
    do_misc();
    rec::ForgetEvents();
    do_misc();
    EXPECT_EQ(rec::Count("get_obj", "threshold/*"), 1);
    EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 3);
    rec::StopFailing();
    do_misc();
    rec::ForgetEvents();
    do_misc();
    EXPECT_EQ(rec::Count("get_obj", "threshold/*"), 0);
  }
}

TEST_F(Misc, ADirectoryWithoutMemoryForItsListIsReadByTheNextPoll) {
  PutEntry("entry.1", {.severity = 3});
  rec::Fail("fdopendir", "*", 0, ENOMEM);
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 2);
  EXPECT_EQ(rec::Count("agentlog_fprintf", "cannot opendir(*"), 1);
  rec::StopFailing();
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoMibCondition"), 3);
}

// ---- Next index ---------------------------------------------------------------------------------

TEST_F(Misc, NextIndex) {
  EXPECT_EQ(set_next_index(5), -1);
  do_misc();
  EXPECT_EQ(next_index(), 0);
  EXPECT_EQ(set_next_index(5), 0);
  EXPECT_EQ(next_index(), 5);
  EXPECT_EQ(rec::Int(kObject, "tlxHoSwVerNextIndex"), 5);
  EXPECT_EQ(rec::Publications(kObject), 2);
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoSwVerNextIndex"), 5);
  rec::Fail("log_data");
  EXPECT_EQ(set_next_index(6), -1);
  EXPECT_EQ(next_index(), 6);
}

// ---- Sets ---------------------------------------------------------------------------------------

TEST_F(Misc, GenericDataSendsTheTestTrap) {
  do_misc();
  rec::ForgetEvents();
  EXPECT_EQ(rec::Set(kObject, "tlxHoGenericData", "hello"s), 0);
  ASSERT_EQ(rec::Traps().size(), 1U);
  EXPECT_EQ(rec::Traps()[0].number, 11003);
  EXPECT_EQ(rec::Traps()[0].object, kObject);
  EXPECT_EQ(rec::Traps()[0].slots, std::vector<int>{5});
  EXPECT_EQ(rec::Traps()[0].description, "Quorix Generic Test Trap (11003): hello");
  // Stored before the trap went, published after it, and not reset.
  EXPECT_EQ(rec::Text(kObject, "tlxHoGenericData"), "hello");
  EXPECT_EQ(rec::Publications(kObject), 2);
  do_misc();
  EXPECT_EQ(rec::Text(kObject, "tlxHoGenericData"), "hello");
}

TEST_F(Misc, GenericDataUpTo254Characters) {
  do_misc();
  const std::string longest(254, 'x');
  EXPECT_EQ(rec::Set(kObject, "tlxHoGenericData", longest), 0);
  ASSERT_EQ(rec::Traps().size(), 1U);
  EXPECT_EQ(rec::Traps()[0].description, "Quorix Generic Test Trap (11003): " + longest);
  EXPECT_EQ(rec::Text(kObject, "tlxHoGenericData"), longest);
  // The field behind it is as it was.
  EXPECT_EQ(rec::Octets(kObject, "tlxHoClientLastModified"), "\xFF\xFF\0\0\0\0\0"s);
  for (const size_t length : {255, 256, 1000}) {
    EXPECT_EQ(rec::Set(kObject, "tlxHoGenericData", std::string(length, 'y')), -1);
  }
  EXPECT_EQ(rec::Text(kObject, "tlxHoGenericData"), longest);
  EXPECT_EQ(rec::Traps().size(), 1U);
}

TEST_F(Misc, AnEmptyText) {
  do_misc();
  EXPECT_EQ(rec::Set(kObject, "tlxHoGenericData", ""s), 0);
  EXPECT_EQ(rec::Traps()[0].description, "Quorix Generic Test Trap (11003): ");
  EXPECT_EQ(rec::Text(kObject, "tlxHoGenericData"), "");
}

TEST_F(Misc, AShorterTextLeavesNothingOfTheLonger) {
  do_misc();
  rec::Set(kObject, "tlxHoGenericData", "something long"s);
  rec::Set(kObject, "tlxHoGenericData", "x"s);
  EXPECT_EQ(rec::Published(kObject).substr(20, 255), "x" + std::string(254, '\0'));
}

TEST_F(Misc, ACheckOfGenericDataDoesNothing) {
  do_misc();
  rec::ForgetEvents();
  EXPECT_EQ(rec::CheckOnly(kObject, "tlxHoGenericData", "hello"), 0);
  EXPECT_EQ(rec::CheckOnly(kObject, "tlxHoGenericData", std::string(255, 'x')), -1);
  EXPECT_TRUE(rec::Events().empty());
  EXPECT_EQ(rec::Text(kObject, "tlxHoGenericData"), "generic trap data");
}

TEST_F(Misc, GenericDataIsAcceptedWhateverBecomesOfTheTrap) {
  do_misc();
  rec::Fail("send_trap");
  EXPECT_EQ(rec::Set(kObject, "tlxHoGenericData", "a"s), 0);
  EXPECT_EQ(rec::Text(kObject, "tlxHoGenericData"), "a");
  rec::Fail("log_data");
  EXPECT_EQ(rec::Set(kObject, "tlxHoGenericData", "b"s), 0);
  rec::StopFailing();
  rec::ForgetEvents();
  rec::Fail("find_obj");
  EXPECT_EQ(rec::Set(kObject, "tlxHoGenericData", "c"s), 0);
  EXPECT_EQ(rec::Count("send_trap"), 0);
}

TEST_F(Misc, PollFrequency) {
  do_misc();
  rec::ForgetEvents();
  EXPECT_EQ(rec::Set(kObject, "tlxHoOsCommonPollFreq", 3600), 0);
  EXPECT_EQ(rec::Names("set_poll_time"), std::vector<std::string>{"3600"});
  EXPECT_EQ(rec::Names("alarm"), std::vector<std::string>{"3600"});
  EXPECT_EQ(poll_time, 3600);
  EXPECT_EQ(rec::Count("log_data"), 0);  // at the next poll
  do_misc();
  EXPECT_EQ(rec::Int(kObject, "tlxHoOsCommonPollFreq"), 3600);
}

TEST_F(Misc, PollFrequencyLimits) {
  do_misc();
  rec::ForgetEvents();
  for (const int32_t value : {0, 1}) {
    EXPECT_EQ(rec::Set(kObject, "tlxHoOsCommonPollFreq", value), -1) << value;
  }
  EXPECT_EQ(poll_time, 15);
  EXPECT_TRUE(rec::Events().empty());
  EXPECT_EQ(rec::Set(kObject, "tlxHoOsCommonPollFreq", 2), 0);
  EXPECT_EQ(rec::Set(kObject, "tlxHoOsCommonPollFreq", INT32_MAX), 0);
  // Unsigned: there is no upper bound.
  EXPECT_EQ(rec::Set(kObject, "tlxHoOsCommonPollFreq", -1), 0);
  EXPECT_EQ(poll_time, INT32_MAX);
  EXPECT_EQ(rec::Names("alarm"), (std::vector<std::string>{"2", "2147483647", "4294967295"}));
}

TEST_F(Misc, ACheckOfThePollFrequencyDoesNothing) {
  do_misc();
  rec::ForgetEvents();
  EXPECT_EQ(rec::CheckOnly(kObject, "tlxHoGenericData", "x"), 0);
  descriptor *desc = rec::Variable(kObject, "tlxHoOsCommonPollFreq");
  const int32_t value = 60;
  EXPECT_EQ(desc->set_handler(SET_CHECK, rec::Live(kObject), desc, &value, 4), 0);
  EXPECT_EQ(poll_time, 15);
  EXPECT_TRUE(rec::Events().empty());
}

// The manager was told of a failure at the last moment.
TEST_F(Misc, SetsThatAreNotWantedAnyMoreDoNothing) {
  do_misc();
  rec::ForgetEvents();
  rec::Fail("set_wanted", "last");
  EXPECT_EQ(rec::Set(kObject, "tlxHoGenericData", "late"s), -1);
  EXPECT_EQ(rec::Set(kObject, "tlxHoOsCommonPollFreq", 60), -1);
  EXPECT_EQ(poll_time, 15);
  EXPECT_TRUE(rec::Events().empty());
}

TEST_F(Misc, GuidSetsLeaveTheTextBehind) {
  do_misc();
  EXPECT_EQ(rec::Set(kObject, "tlxHoGUID", "0123456789abcdef"s), 0);
  EXPECT_EQ(rec::Publications(kObject), 1);  // published with the next poll
  do_misc();
  EXPECT_EQ(rec::Octets(kObject, "tlxHoGUID"), "0123456789abcdef");
  EXPECT_EQ(rec::Text(kObject, "tlxHoGUIDCanonical"), "A92D1458-CD53-5B34-3385-C544A4DC7AFD");
  EXPECT_EQ(rec::ReadFile(REGISTRY_ROOT "/tlxhoguid.dat"), "0123456789abcdef");
  for (const size_t length : {15, 17}) {
    EXPECT_EQ(rec::Set(kObject, "tlxHoGUID", std::string(length, 'x')), -1);
  }
}

TEST_F(Misc, EverySetOfTheCanonicalGuidIsRefused) {
  do_misc();
  for (const char *text : {"", "A92D1458-CD53-5B34-3385-C544A4DC7AFD", "x"}) {
    EXPECT_EQ(rec::Set(kObject, "tlxHoGUIDCanonical", std::string(text)), -1);
    EXPECT_EQ(rec::CheckOnly(kObject, "tlxHoGUIDCanonical", text), -1);
  }
}

TEST_F(Misc, OtherSlotsAreRefused) {
  do_misc();
  const set_handler_fn handler = rec::Variable(kObject, "tlxHoGUID")->set_handler;
  const int32_t value[4] = {5, 5, 5, 5};
  for (const int slot : {0, 1, 2, 4, 6, 7, 8, 9, 11, 12, 13, 14, 15, -1}) {
    descriptor desc = *rec::Variable(kObject, "tlxHoGUID");
    desc.slot = slot;
    EXPECT_EQ(handler(SET_CHECK, rec::Live(kObject), &desc, value, 16), -1) << slot;
    EXPECT_EQ(handler(SET_APPLY, rec::Live(kObject), &desc, value, 16), -1) << slot;
  }
}

}  // namespace
