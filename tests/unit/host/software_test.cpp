// The software table and its pass over the recording framework.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "common/next_index.h"
#include "common/util.h"
#include "software/components.h"
#include "software/packages.h"
#include "software/swver.h"
#include "status/misc.h"
#include "tests/support/recording_framework.h"

namespace {

using Strings = std::vector<std::string>;

const std::string kAgentVersion = "rpm -qa | grep -w qv-snmp | cut -d - -f4";
const std::string kListing = "dpkg -la | grep ii | cut -d ' ' -f3";
const std::string kDatabase = "/var/lib/dpkg/available";

std::string Query(const std::string &name) {
  return "dpkg -l | grep " + name +
         " | awk '{print \"Name \" $2} {print \"Version \" $3} {ORS=\" \"; print \"Desc \"; "
         "for (j = 4; j <= NF; j++) print $j}'\n"
         "echo \"\nArch `dpkg --print-architecture`\"";
}

struct Package {
  std::string name;
  std::string version = "1.0";
  std::string description = "A package";
  std::string architecture = "amd64";
};

// What the query of that package prints.
std::string Answer(const Package &p) {
  return "Name " + p.name + "\nVersion " + p.version + "\nDesc  " + p.description + " \nArch " +
         p.architecture + "\n";
}

void PutPackages(const std::vector<Package> &packages) {
  std::string listing;
  for (const Package &p : packages) {
    listing += p.name + "\n";
    rec::PutCommand(Query(p.name), Answer(p));
  }
  rec::PutCommand(kListing, listing);
}

void SetDatabaseTime(time_t time) {
  rec::PutFile(kDatabase, "");
  const timespec times[2] = {{time, 0}, {time, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, rec::RealPath(kDatabase).c_str(), times, 0), 0);
}

// A pass that finds the database changed.
void Rescan() {
  static time_t time = 1000000;
  SetDatabaseTime(++time);
  ASSERT_EQ(do_swver(), 0);
}

std::string Row(int number) {
  return "host/swver." + std::to_string(number);
}

swver_data *Data(const std::string &row) {
  return reinterpret_cast<swver_data *>(rec::Live(row)->data);
}

std::string Name(int row) {
  return rec::Text(Row(row), "tlxHoSwVerName");
}

std::string Version(int row) {
  return rec::Text(Row(row), "tlxHoSwVerVersion");
}

std::string Decorated(const char *name, const char *architecture, int origin) {
  char buffer[decorated_size];
  memset(buffer, 'x', sizeof(buffer));
  decorate_name(buffer, name, architecture, origin);
  return buffer;
}

// Without dpkg, rpm, EVs and an appliance.
class Software : public testing::Test {
 protected:
  void SetUp() override {
    rec::PutNothing(kDatabase);
    rec::PutNothing(std::string(log_dir) + "/../threshold");
  }
};

}  // namespace

// ---- Rows ---------------------------------------------------------------------------------------

TEST_F(Software, BuildsThePermanentRows) {
  ASSERT_EQ(do_misc(), 0);
  rec::ForgetEvents();
  ASSERT_EQ(do_swver(), 0);
  const struct {
    const char *name;
    const char *description;
  } expected[] = {
      {"CONFIG", "QV System Configuration Utility"},
      {"SYSTEMROMKIT", "QV System ROMKIT Utility"},
      {"DIAGS", "QV Diagnostics Utility"},
      {"DISKDR", "QV Drive Array Diagnostic Utility"},
  };
  for (int i = 0; i < 4; i++) {
    const std::string row = Row(i);
    EXPECT_EQ(rec::Int(row, "tlxHoSwVerIndex"), i);
    EXPECT_EQ(rec::Int(row, "tlxHoSwVerStatus"), 1);
    EXPECT_EQ(rec::Int(row, "tlxHoSwVerType"), 4);
    EXPECT_EQ(rec::Text(row, "tlxHoSwVerName"), expected[i].name);
    EXPECT_EQ(rec::Text(row, "tlxHoSwVerDescription"), expected[i].description);
    EXPECT_EQ(rec::Octets(row, "tlxHoSwVerDate"), std::string(7, '\0'));
    EXPECT_EQ(rec::Text(row, "tlxHoSwVerLocation"), "");
    EXPECT_EQ(rec::Text(row, "tlxHoSwVerVersion"), "0.0");
    EXPECT_EQ(rec::Text(row, "tlxHoSwVerVersionBinary"), "0.0");
    EXPECT_EQ(rec::Publications(row), 1);
    EXPECT_EQ(rec::Live(row)->flag, 1);
    EXPECT_EQ(rec::Live(row)->data_size, 764);
    EXPECT_EQ(rec::Live(row)->var_count, 9);
  }
  EXPECT_EQ(rec::Live(Row(4)), nullptr);
  EXPECT_EQ(rec::Int("host/misc", "tlxHoSwVerNextIndex"), 4);
  EXPECT_EQ(rec::Messages(), Strings{});

  ASSERT_EQ(do_swver(), 0);
  for (int i = 0; i < 4; i++) {
    EXPECT_EQ(rec::Publications(Row(i)), 1);
  }
}

TEST_F(Software, TheFirstRowMovesTheNextIndexToOne) {
  ASSERT_EQ(do_misc(), 0);
  ASSERT_NE(swver_create("first"), nullptr);
  EXPECT_NE(rec::Live("host/swver.0"), nullptr);
  EXPECT_EQ(Data(Row(0))->index, 0);
  EXPECT_EQ(rec::Int("host/misc", "tlxHoSwVerNextIndex"), 1);
  EXPECT_EQ(rec::Publications(Row(0)), 0);
}

TEST_F(Software, DefinesTheVariablesOfARow) {
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Slots(Row(0)),
            (std::vector<rec::Slot>{{"tlxHoSwVerIndex", 4, 1, 2, 0},
                                    {"tlxHoSwVerStatus", 4, 1, 2, 4},
                                    {"tlxHoSwVerType", 4, 1, 0, 8},
                                    {"tlxHoSwVerName", 128, 2, 0, 12},
                                    {"tlxHoSwVerDescription", 256, 2, 2, 140},
                                    {"tlxHoSwVerDate", 7, 3, 2, 396},
                                    {"tlxHoSwVerLocation", 256, 2, 0, 404},
                                    {"tlxHoSwVerVersion", 51, 2, 2, 660},
                                    {"tlxHoSwVerVersionBinary", 51, 2, 2, 711}}));
  EXPECT_EQ(rec::Handled(Row(0)),
            (Strings{"tlxHoSwVerType", "tlxHoSwVerName", "tlxHoSwVerLocation"}));
  EXPECT_EQ(rec::Live(Row(0))->desc[5].length, 7);
}

TEST_F(Software, ReusesAFreedNumberAndNotItsIndex) {
  ASSERT_EQ(do_misc(), 0);
  PutPackages({{"qvdiags"}, {"qvrelm"}});
  Rescan();
  EXPECT_EQ(Name(4), "qvdiags_amd64");
  EXPECT_EQ(Name(5), "qvrelm_amd64");
  EXPECT_EQ(rec::Int("host/misc", "tlxHoSwVerNextIndex"), 6);

  PutPackages({{"qvrelm"}});
  Rescan();
  EXPECT_EQ(rec::Live(Row(4)), nullptr);
  EXPECT_EQ(rec::Int("host/misc", "tlxHoSwVerNextIndex"), 6);

  PutPackages({{"qvrelm"}, {"glut"}});
  Rescan();
  EXPECT_EQ(Name(4), "glut_amd64");
  EXPECT_EQ(rec::Int(Row(4), "tlxHoSwVerIndex"), 6);
  EXPECT_EQ(rec::Int("host/misc", "tlxHoSwVerNextIndex"), 6);
}

TEST_F(Software, TheIndexColumnFollowsTheSharedNextIndex) {
  ASSERT_EQ(do_misc(), 0);
  ASSERT_EQ(do_swver(), 0);
  set_next_index(41);  // as the firmware table does
  PutPackages({{"glut"}});
  Rescan();
  EXPECT_EQ(rec::Int(Row(4), "tlxHoSwVerIndex"), 41);
  EXPECT_EQ(rec::Int("host/misc", "tlxHoSwVerNextIndex"), 5);
}

TEST_F(Software, WorksWithoutTheMiscGroup) {
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Int(Row(3), "tlxHoSwVerIndex"), 0);
  EXPECT_EQ(rec::Live("host/misc"), nullptr);
}

TEST_F(Software, CutsLongTextsToTheirFields) {
  const std::string name(200, 'n');
  const std::string text(300, 't');
  const swver_item item = {name.c_str(), text.c_str(), text.c_str()};
  ASSERT_EQ(swver_put(&item, 5, 2, SWVER_PERMANENT), 0);
  swver_finish_pass();
  EXPECT_EQ(Name(0), name.substr(0, 127));
  EXPECT_EQ(Version(0), text.substr(0, 50));
  EXPECT_EQ(rec::Text(Row(0), "tlxHoSwVerVersionBinary"), text.substr(0, 50));
  EXPECT_EQ(rec::Text(Row(0), "tlxHoSwVerDescription"), text.substr(0, 255));
  EXPECT_EQ(swver_find(name.c_str())->object, rec::Live(Row(0)));
  // It is the same software the next time.
  ASSERT_EQ(swver_put(&item, 5, 2, SWVER_PERMANENT), 0);
  swver_finish_pass();
  EXPECT_EQ(rec::Publications(Row(0)), 1);
  EXPECT_EQ(rec::Live(Row(1)), nullptr);
}

TEST_F(Software, PublishesWhatChangedAndNothingElse) {
  const swver_item item = {"name", "1", "text"};
  const auto put = [](const swver_item &changed, int type, int status) {
    rec::ForgetEvents();
    EXPECT_EQ(swver_put(&changed, type, status, SWVER_SEEN), 0);
    swver_finish_pass();
    return rec::Count("log_data", Row(0));
  };
  EXPECT_EQ(put(item, 3, 2), 1);
  EXPECT_EQ(put(item, 3, 2), 0);
  EXPECT_EQ(put({"name", "2", "text"}, 3, 2), 1);
  EXPECT_EQ(put({"name", "2", "texts"}, 3, 2), 1);
  EXPECT_EQ(put({"name", "2", "texts"}, 2, 2), 1);
  EXPECT_EQ(put({"name", "2", "texts"}, 2, 1), 1);
  EXPECT_EQ(put({"name", "2", "texts"}, 2, 1), 0);
}

TEST_F(Software, KeepsAThousandRows) {
  for (int pass = 0; pass < 2; pass++) {
    for (int i = 0; i < 1000; i++) {
      const std::string name = "package-" + std::to_string(i);
      const swver_item item = {name.c_str(), "1", "text"};
      ASSERT_EQ(swver_put(&item, 5, 2, SWVER_SEEN), 0);
    }
    swver_finish_pass();
  }
  for (int i = 0; i < 1000; i++) {
    ASSERT_EQ(Name(i), "package-" + std::to_string(i));
    ASSERT_EQ(rec::Publications(Row(i)), 1);
  }
  swver_change_state(SWVER_SEEN, SWVER_NOT_SEEN);
  swver_finish_pass();
  EXPECT_EQ(rec::LiveNames(), Strings{});
  EXPECT_TRUE(swver_is_empty());
}

// ---- Sets ---------------------------------------------------------------------------------------

TEST_F(Software, TakesTypesOneToFour) {
  PutPackages({{"glut"}});
  Rescan();
  for (int type : {0, 5, -1, 256}) {
    EXPECT_EQ(rec::Set(Row(4), "tlxHoSwVerType", type), -1) << type;
  }
  EXPECT_EQ(Data(Row(4))->type, 5);
  for (int type : {1, 2, 3, 4}) {
    EXPECT_EQ(rec::Set(Row(4), "tlxHoSwVerType", type), 0) << type;
    EXPECT_EQ(Data(Row(4))->type, type);
  }
  EXPECT_EQ(rec::Publications(Row(4)), 1);
  Rescan();
  EXPECT_EQ(rec::Int(Row(4), "tlxHoSwVerType"), 5);
  EXPECT_EQ(rec::Publications(Row(4)), 2);
}

TEST_F(Software, ChecksWithoutStoring) {
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::CheckOnly(Row(0), "tlxHoSwVerName", "other"), 0);
  EXPECT_EQ(rec::CheckOnly(Row(0), "tlxHoSwVerLocation", "there"), 0);
  EXPECT_EQ(rec::CheckOnly(Row(0), "tlxHoSwVerName", std::string(129, 'n')), -1);
  EXPECT_STREQ(Data(Row(0))->name, "CONFIG");
  EXPECT_STREQ(Data(Row(0))->location, "");
  const int32_t type = 1;
  descriptor *desc = rec::Variable(Row(0), "tlxHoSwVerType");
  EXPECT_EQ(desc->set_handler(SET_CHECK, rec::Live(Row(0)), desc, &type, 4), 0);
  EXPECT_EQ(Data(Row(0))->type, 4);
  // Any other phase applies.
  EXPECT_EQ(desc->set_handler(0, rec::Live(Row(0)), desc, &type, 4), 0);
  EXPECT_EQ(Data(Row(0))->type, 1);
}

// The manager was told of a failure at the last moment.
TEST_F(Software, StoresNothingOfASetThatIsNotWantedAnyMore) {
  ASSERT_EQ(do_swver(), 0);
  rec::Fail("set_wanted", "last");
  EXPECT_EQ(rec::Set(Row(0), "tlxHoSwVerName", std::string("other")), -1);
  EXPECT_EQ(rec::Set(Row(0), "tlxHoSwVerType", 1), -1);
  rec::StopFailing();
  EXPECT_STREQ(Data(Row(0))->name, "CONFIG");
  EXPECT_EQ(Data(Row(0))->type, 4);
}

TEST_F(Software, RefusesOtherSlots) {
  ASSERT_EQ(do_swver(), 0);
  registry_object *object = rec::Live(Row(0));
  const set_handler_fn handler = object->desc[3].set_handler;
  for (int slot : {0, 1, 4, 5, 7, 8}) {
    EXPECT_EQ(handler(SET_APPLY, object, &object->desc[slot], "text", 4), -1) << slot;
  }
}

TEST_F(Software, TheLongestNameRunsIntoTheDescription) {
  PutPackages({{"glut"}});
  Rescan();
  EXPECT_EQ(rec::Set(Row(4), "tlxHoSwVerName", std::string(129, 'n')), -1);
  EXPECT_EQ(rec::Set(Row(4), "tlxHoSwVerName", std::string(128, 'n')), 0);
  const auto *bytes = rec::Live(Row(4))->data;
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(bytes) + 12, 128), std::string(128, 'n'));
  EXPECT_EQ(bytes[140], 0);
  EXPECT_EQ(bytes[141], ' ');
  ASSERT_EQ(do_swver(), 0);  // no rescan: it stands
  EXPECT_EQ(rec::Publications(Row(4)), 1);
  Rescan();
  EXPECT_EQ(Name(4), "glut_amd64");
  EXPECT_EQ(rec::Text(Row(4), "tlxHoSwVerDescription"), "A package ");
  EXPECT_EQ(rec::Publications(Row(4)), 2);
}

TEST_F(Software, TheLongestLocationRunsIntoTheVersion) {
  PutPackages({{"glut"}});
  Rescan();
  EXPECT_EQ(rec::Set(Row(4), "tlxHoSwVerLocation", std::string(257, 'l')), -1);
  EXPECT_EQ(rec::Set(Row(4), "tlxHoSwVerLocation", std::string(256, 'l')), 0);
  EXPECT_EQ(Data(Row(4))->version[0], '\0');
  Rescan();
  EXPECT_EQ(Version(4), "1.0");
  EXPECT_EQ(rec::Publications(Row(4)), 2);
  EXPECT_EQ(std::string(Data(Row(4))->location, 256), std::string(256, 'l'));
}

TEST_F(Software, AManagersLocationSurvives) {
  PutPackages({{"glut"}});
  Rescan();
  EXPECT_EQ(rec::Set(Row(4), "tlxHoSwVerLocation", std::string("rack 7")), 0);
  Rescan();
  EXPECT_STREQ(Data(Row(4))->location, "rack 7");
  EXPECT_EQ(rec::Publications(Row(4)), 1);
  PutPackages({{"glut", "2.0"}});
  Rescan();
  EXPECT_EQ(rec::Text(Row(4), "tlxHoSwVerLocation"), "rack 7");
}

TEST_F(Software, AComponentHasNoLocation) {
  rec::PutEv("ZTHUV", std::string(136, '\x01'));
  ASSERT_EQ(do_swver(), 0);
  for (int i = 0; i < 4; i++) {
    EXPECT_EQ(rec::Set(Row(i), "tlxHoSwVerLocation", std::string("rack 7")), 0);
  }
  ASSERT_EQ(do_swver(), 0);
  for (int i = 0; i < 4; i++) {
    EXPECT_STREQ(Data(Row(i))->location, "");
    // What is compared is name, version, description, type and status.
    EXPECT_EQ(rec::Publications(Row(i)), 2);
  }
}

TEST_F(Software, ARenamedComponentKeepsTheManagersName) {
  std::string ev(136, '\0');
  ev[3] = 1;
  rec::PutEv("ZTHUV", ev);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Version(0), "1.0");
  EXPECT_EQ(rec::Set(Row(0), "tlxHoSwVerName", std::string(128, 'n')), 0);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Publications(Row(0)), 2);  // the record, and its version
  EXPECT_EQ(Data(Row(0))->name[127], 'n');
}

// ---- Component versions -------------------------------------------------------------------------

TEST_F(Software, ReadsComponentVersionsFromTheEv) {
  std::string ev(136, '\0');
  ev.replace(3, 3,
             std::string("\x02\x32"
                         "a",
                         3));                        // CONFIG 2.50a
  ev.replace(9, 3, std::string("\x01\x05\x00", 3));  // DIAGS 1.5
  ev.replace(15, 3,
             std::string("\xff\xff"
                         "b",
                         3));                      // SYSTEMROMKIT 255.255b
  ev.replace(21, 3, std::string("\x00\x00z", 3));  // DISKDR unknown
  rec::PutEv("ZTHUV", ev);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Version(0), "2.50a");
  EXPECT_EQ(rec::Text(Row(0), "tlxHoSwVerVersionBinary"), "2.50a");
  EXPECT_EQ(rec::Int(Row(0), "tlxHoSwVerStatus"), 2);
  EXPECT_EQ(rec::Text(Row(0), "tlxHoSwVerDescription"), "QV System Configuration Utility");
  EXPECT_EQ(Version(1), "255.255b");
  EXPECT_EQ(Version(2), "1.5");
  EXPECT_EQ(Version(3), "0.0");
  EXPECT_EQ(rec::Int(Row(3), "tlxHoSwVerStatus"), 1);
  EXPECT_EQ(rec::Publications(Row(0)), 2);
  EXPECT_EQ(rec::Publications(Row(3)), 1);
  ASSERT_EQ(update_component_versions(), 0);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Publications(Row(0)), 2);
}

TEST_F(Software, ReadsTheEvOnce) {
  ASSERT_EQ(do_swver(), 0);
  rec::PutEv("ZTHUV", std::string(136, '\x01'));
  ASSERT_EQ(do_swver(), 0);
  ASSERT_EQ(update_component_versions(), -1);
  for (int i = 0; i < 4; i++) {
    EXPECT_EQ(Version(i), "0.0");
    EXPECT_EQ(rec::Int(Row(i), "tlxHoSwVerStatus"), 1);
  }
}

TEST_F(Software, AShortEvIsZeroBeyondItsEnd) {
  rec::PutEv("ZTHUV", std::string("\0\0\0\x03\x01", 5));
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Version(0), "3.1");
  EXPECT_EQ(Version(1), "0.0");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Messages(),
            std::vector<std::string>{"EV ZTHUV: 5 of 136 bytes, what is missing counts as zero\n"});
}

TEST_F(Software, ARowRenamedToOptionRomkitGetsItsVersion) {
  std::string ev(136, '\0');
  ev.replace(33, 3,
             std::string("\x00\x01"
                         "c",
                         3));
  rec::PutEv("ZTHUV", ev);
  PutPackages({{"glut"}});
  Rescan();
  EXPECT_EQ(rec::Set(Row(4), "tlxHoSwVerName", std::string("OPTIONROMKIT")), 0);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Version(4), "1.0");  // type 5
  EXPECT_EQ(rec::Set(Row(4), "tlxHoSwVerType", 4), 0);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Version(4), "0.1c");
  EXPECT_EQ(Name(4), "OPTIONROMKIT");
  Rescan();
  EXPECT_EQ(Name(4), "glut_amd64");
  EXPECT_EQ(rec::Int(Row(4), "tlxHoSwVerType"), 5);
}

// ---- Agent version ------------------------------------------------------------------------------

TEST_F(Software, TakesTheAgentVersionFromRpm) {
  rec::PutCommand(kAgentVersion, "8.1.0\n9.9.9\n");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Text("host/swverag", "tlxHoSwVerAgentsVer"), "8.1.0");
  EXPECT_EQ(rec::Live("host/swverag")->data_size, 51);
  EXPECT_EQ(rec::Live("host/swverag")->flag, 1);
  EXPECT_EQ(rec::Variable("host/swverag", "tlxHoSwVerAgentsVer")->access, ACCESS_READ_ONLY);
  EXPECT_EQ(rec::Publications("host/swverag"), 1);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Publications("host/swverag"), 1);
  EXPECT_EQ(rec::Count("run_command", kAgentVersion), 1);
}

TEST_F(Software, CutsALongAgentVersion) {
  rec::PutCommand(kAgentVersion, std::string(100000, '7'));
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Text("host/swverag", "tlxHoSwVerAgentsVer"), std::string(19, '7'));
}

TEST_F(Software, ReportsThatRpmCannotBeRun) {
  rec::Fail("run_command", "rpm*");
  rec::AllowUndefinedSlots("host/swverag");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Messages(), Strings{"vexhostd FAILED to read for agent swversion\n"});
  EXPECT_EQ(rec::Live("host/swverag")->desc[0].type, 0);
  EXPECT_EQ(rec::Publications("host/swverag"), 1);
  // Until it can: said once.
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Messages().size(), 1U);
  rec::StopFailing();
  rec::PutCommand(kAgentVersion, "8.1.0\n");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Text("host/swverag", "tlxHoSwVerAgentsVer"), "8.1.0");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Publications("host/swverag"), 2);
}

TEST_F(Software, RpmThatIsKilledHasNotAnswered) {
  rec::AllowUndefinedSlots("host/swverag");
  for (const int status : {128, 128 + SIGKILL}) {
    rec::PutCommand(kAgentVersion, "8.\n", status);
    ASSERT_EQ(do_swver(), 0);
    EXPECT_EQ(rec::Messages(), Strings{"vexhostd FAILED to read for agent swversion\n"});
    EXPECT_EQ(rec::Live("host/swverag")->desc[0].type, 0);
  }
  // It did not hang: the next pass asks again.
  rec::PutCommand(kAgentVersion, "8.1.0\n");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Text("host/swverag", "tlxHoSwVerAgentsVer"), "8.1.0");
}

TEST_F(Software, AVersionThatHadNoObjectIsFoundAgain) {
  rec::Fail("create_obj", "host/swverag");
  rec::PutCommand(kAgentVersion, "8.1.0\n");
  PutPackages({{"kelmo", "9.0-1", "The agents", "i386"}});
  Rescan();
  EXPECT_EQ(Name(4), "kelmo");
  EXPECT_EQ(rec::Live("host/swverag"), nullptr);
  // As long as there is none, no pass asks the package tools for it.
  rec::ForgetEvents();
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command"), 0);
  rec::StopFailing();
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Text("host/swverag", "tlxHoSwVerAgentsVer"), "9.0");
  rec::ForgetEvents();
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command"), 0);
}

TEST_F(Software, ALateWordOfRpmDoesNotHideThePackages) {
  rec::Fail("run_command", "rpm*", 1);
  rec::AllowUndefinedSlots("host/swverag");
  PutPackages({{"kelmo", "9.0-1", "The agents", "i386"}});
  Rescan();
  rec::PutCommand(kAgentVersion, "8.1.0\n");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Text("host/swverag", "tlxHoSwVerAgentsVer"), "9.0");
}

TEST_F(Software, TakesTheAgentVersionFromThePackage) {
  PutPackages({{"kelmo", "8.1.0-181", "The agents", "i386"}});
  Rescan();
  EXPECT_EQ(Name(4), "kelmo");
  EXPECT_EQ(Version(4), "8.1.0-181");
  EXPECT_EQ(rec::Text("host/swverag", "tlxHoSwVerAgentsVer"), "8.1.0");
  const int published = rec::Publications("host/swverag");
  Rescan();
  EXPECT_EQ(rec::Publications("host/swverag"), published + 1);

  PutPackages({{"kelmo", std::string(60, '8'), "The agents", "i386"}});
  Rescan();
  EXPECT_EQ(rec::Text("host/swverag", "tlxHoSwVerAgentsVer"), std::string(50, '8'));
}

TEST_F(Software, ADecoratedPackageIsNotTheAgents) {
  rec::PutCommand(kAgentVersion, "7.0\n");
  PutPackages({{"kelmo", "8.1.0-181"}, {"kelmo-extra", "9", "x", "i386"}});
  Rescan();
  EXPECT_EQ(Name(4), "kelmo_amd64");
  EXPECT_EQ(Name(5), "kelmo-extra");
  EXPECT_EQ(rec::Text("host/swverag", "tlxHoSwVerAgentsVer"), "7.0");
  EXPECT_EQ(rec::Publications("host/swverag"), 1);
}

// ---- Appliance ----------------------------------------------------------------------------------

TEST_F(Software, ListsTheAppliancesSoftware) {
  rec::SetAppliance(true, 1,
                    {{"VcdbName", "Vcdb"}, {"VcdbVersion", "3.1"}, {"ProductName", "Box"}});
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Name(4), "Vcdb");
  EXPECT_EQ(Version(4), "3.1");
  EXPECT_EQ(rec::Text(Row(4), "tlxHoSwVerDescription"), "Box");
  EXPECT_EQ(rec::Int(Row(4), "tlxHoSwVerType"), 5);
  EXPECT_EQ(rec::Int(Row(4), "tlxHoSwVerStatus"), 2);
  Rescan();
  EXPECT_EQ(Name(4), "Vcdb");
  EXPECT_EQ(rec::Publications(Row(4)), 1);
}

TEST_F(Software, ListsTheAppliancesSoftwareOnceItsRowCanBeMade) {
  rec::SetAppliance(true, 1,
                    {{"VcdbName", "Vcdb"}, {"VcdbVersion", "3.1"}, {"ProductName", "Box"}});
  rec::Fail("create_obj", "host/swver.4");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Live(Row(4)), nullptr);
  EXPECT_EQ(rec::Messages(), Strings{"vexhostd: Can't create object: Vcdb  (PEER3023)\n"});
  rec::StopFailing();
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Name(4), "Vcdb");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Live(Row(5)), nullptr);
}

TEST_F(Software, ReportsTheFirstMissingApplianceDatum) {
  rec::SetAppliance(true, 1, {{"VcdbVersion", "3.1"}});
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Messages(), Strings{"do_swver_appliance: VcdbName not found\n"});
  EXPECT_EQ(rec::Live(Row(4)), nullptr);
}

TEST_F(Software, ReportsAMissingApplianceVersion) {
  rec::SetAppliance(true, 1, {{"VcdbName", "Vcdb"}});
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Messages(), Strings{"do_swver_appliance: VcdbVersion not found\n"});
}

TEST_F(Software, ReportsAMissingProductName) {
  rec::SetAppliance(true, 1, {{"VcdbName", "Vcdb"}, {"VcdbVersion", "3.1"}});
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Messages(), Strings{"do_swver_appliance: ProductName not found\n"});
}

TEST_F(Software, APackageDoesNotTouchAPermanentRow) {
  rec::SetAppliance(true, 1,
                    {{"VcdbName", "qvdb"}, {"VcdbVersion", "3.1"}, {"ProductName", "Box"}});
  PutPackages({{"qvdb", "9"}});
  Rescan();
  EXPECT_EQ(Version(4), "3.1");
  EXPECT_EQ(rec::Count("run_command", Query("qvdb")), 0);
  EXPECT_EQ(rec::Live(Row(5)), nullptr);
}

// ---- Scan ---------------------------------------------------------------------------------------

TEST_F(Software, ScansWhenTheDatabaseIsNewer) {
  PutPackages({{"glut"}});
  SetDatabaseTime(5000);
  ASSERT_EQ(do_swver(), 0);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command", kListing), 1);
  SetDatabaseTime(4999);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command", kListing), 1);
  SetDatabaseTime(5000);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command", kListing), 2);
  rec::PutNothing(kDatabase);  // counts as 1
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command", kListing), 2);
  SetDatabaseTime(2);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command", kListing), 3);
}

TEST_F(Software, ScansOnEveryPassWithoutDpkg) {
  for (int pass = 1; pass <= 3; pass++) {
    ASSERT_EQ(do_swver(), 0);
    EXPECT_EQ(rec::Count("run_command", kListing), pass);
    EXPECT_EQ(rec::Live(Row(4)), nullptr);
  }
  rec::Fail("run_command", "dpkg*");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command", kListing), 4);
  rec::StopFailing();
  PutPackages({{"glut"}});
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Name(4), "glut_amd64");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command", kListing), 5);
  EXPECT_EQ(rec::Messages(), Strings{});
}

TEST_F(Software, ListsPackagesByTheirClasses) {
  PutPackages({{"bonding", "1"},
               {"qv-rmc", "2.6.9-5.linux.el4", "Driver"},
               {"vexhost", "1", "Agent"},
               {"glutton", "1", "Toolkit"},
               {"bash", "5", "Shell"},
               {"tlx_tlxarray", "1", "Array driver", "athlon"}});
  Rescan();
  EXPECT_EQ(Name(4), "bonding");
  EXPECT_EQ(rec::Int(Row(4), "tlxHoSwVerType"), 2);
  EXPECT_EQ(rec::Int(Row(4), "tlxHoSwVerStatus"), 2);
  EXPECT_EQ(rec::Text(Row(4), "tlxHoSwVerDescription"), "A package ");
  EXPECT_EQ(Name(5), "qv-rmc_amd64");
  EXPECT_EQ(Version(5), "2.6.9-5");
  EXPECT_EQ(rec::Int(Row(5), "tlxHoSwVerType"), 2);
  EXPECT_EQ(Name(6), "vexhost");
  EXPECT_EQ(rec::Int(Row(6), "tlxHoSwVerType"), 3);
  EXPECT_EQ(Name(7), "glutton_amd64");
  EXPECT_EQ(rec::Int(Row(7), "tlxHoSwVerType"), 5);
  EXPECT_EQ(Name(8), "tlx_tlxarrayamd32");
  EXPECT_EQ(rec::Live(Row(9)), nullptr);
  EXPECT_EQ(rec::Count("run_command", Query("bash")), 0);
  EXPECT_EQ(rec::Octets(Row(4), "tlxHoSwVerDate"), std::string(7, '\0'));
}

TEST_F(Software, APackageGoesWithTheListingOrWhenItsQueryFails) {
  PutPackages({{"glut"}, {"qvdiags"}, {"qvrelm"}});
  Rescan();
  EXPECT_EQ(Name(6), "qvrelm_amd64");
  rec::PutCommand(Query("glut"), "Name glut\nVersion 1\n");  // it died
  PutPackages({{"qvrelm"}});
  rec::PutCommand(kListing, "glut\nqvrelm\n");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_NE(rec::Live(Row(4)), nullptr);  // nothing is removed without a rescan
  Rescan();
  EXPECT_EQ(rec::Live(Row(4)), nullptr);
  EXPECT_EQ(rec::Live(Row(5)), nullptr);
  EXPECT_EQ(Name(6), "qvrelm_amd64");
  rec::Fail("run_command", Query("qvrelm").substr(0, 20) + "*");
  Rescan();
  EXPECT_EQ(rec::Live(Row(6)), nullptr);
  EXPECT_EQ(Name(3), "DISKDR");
}

TEST_F(Software, AnEmptiedListingRemovesThePackages) {
  ASSERT_EQ(do_swver(), 0);
  const size_t blocks = rec::Blocks();
  PutPackages({{"glut"}});
  Rescan();
  EXPECT_EQ(rec::Blocks(), blocks + 2);  // the row and its key
  rec::PutCommand(kListing, "");
  Rescan();
  EXPECT_EQ(rec::Blocks(), blocks);
  EXPECT_EQ(rec::Live(Row(4)), nullptr);
  EXPECT_EQ(Name(3), "DISKDR");
}

TEST_F(Software, TheRowIsNamedByTheAnswer) {
  rec::PutCommand(kListing, "glut\n");
  rec::PutCommand(Query("glut"), Answer({"libglut", "3", "Other", "i386"}));
  Rescan();
  EXPECT_EQ(Name(4), "libglut");
}

TEST_F(Software, AnAnswerWithoutANameIsSkipped) {
  rec::PutCommand(kListing, "glut\n");
  rec::PutCommand(Query("glut"), "Version 1\nDesc x\nArch a\nArch b\n");
  Rescan();
  EXPECT_EQ(rec::Live(Row(4)), nullptr);
}

TEST_F(Software, AnAnswerWithoutAVersionHasAnEmptyOne) {
  rec::PutCommand(kListing, "glut\n");
  rec::PutCommand(Query("glut"), "Name glut\nDesc A package\nArch i386\nArch i386\n");
  Rescan();
  EXPECT_EQ(Name(4), "glut");
  EXPECT_EQ(Version(4), "");
  EXPECT_EQ(rec::Text(Row(4), "tlxHoSwVerDescription"), "A package");
  EXPECT_EQ(rec::Messages(), Strings{});
}

TEST_F(Software, AnAnswerWithoutTheArchitectureTakesTheMachines) {
  rec::PutCommand(kListing, "glut\n");
  rec::PutCommand(Query("glut"), "Name glut\nName glut\nVersion 1\nVersion 2\n");
  Rescan();
  utsname names;
  ASSERT_EQ(uname(&names), 0);
  EXPECT_EQ(Name(4), std::string("glut_") + names.machine);
  EXPECT_EQ(Version(4), "2");
  EXPECT_EQ(rec::Text(Row(4), "tlxHoSwVerDescription"), "");
}

TEST_F(Software, ImplausibleNamesReachNoShell) {
  const std::string longest = "glut" + std::string(85, 'x');
  rec::PutCommand(kListing, "glut;reboot\nglut`id`\nglut\x1b[2J\nglut;reboot\nglut x\n" + longest +
                                "\n" + longest + "y\nbash;reboot\nglut'x'\n");
  rec::PutCommand(Query(longest), Answer({longest}));
  Rescan();
  EXPECT_EQ(rec::Names("run_command"), (Strings{kAgentVersion, kListing, Query(longest)}));
  EXPECT_EQ(Name(4), longest.substr(0, 63));
  const std::string message = "do_swver: not a package name, skipped: ";
  EXPECT_EQ(
      rec::Messages(),
      (Strings{message + "glut?[2J (character 0x1b)\n", message + "glut x (character 0x20)\n",
               message + "glut'x' (character 0x27)\n", message + "glut;reboot (character 0x3b)\n",
               message + "glut`id` (character 0x60)\n",
               "do_swver: package name too long, skipped: " + longest + "y\n",
               "do_swver: packages that could not be reported: 7 (0 without a usable answer, 7 "
               "without a usable name)\n"}));
  rec::ForgetEvents();
  Rescan();
  EXPECT_EQ(rec::Messages().size(), 7U);
}

TEST_F(Software, WhatCannotBePrintedOfANameIsNot) {
  rec::PutCommand(kListing, "glut~\x7f\nglut\xc3\xa4\n");
  Rescan();
  ASSERT_EQ(rec::Messages().size(), 3U);
  EXPECT_EQ(rec::Messages()[0], "do_swver: not a package name, skipped: glut~? (character 0x7f)\n");
  EXPECT_EQ(rec::Messages()[1], "do_swver: not a package name, skipped: glut?? (character 0xc3)\n");
}

TEST_F(Software, PackagesWithoutAUsableAnswerAreCountedOncePerScan) {
  PutPackages({{"glut", "1", std::string(300, 'd')}, {"qvdiags"}, {"qvrelm"}});
  rec::PutCommand(Query("qvrelm"), "Arch amd64\n");
  Rescan();
  EXPECT_EQ(
      rec::Messages(),
      Strings{"do_swver: packages that could not be reported: 2 (2 without a usable answer, 0 "
              "without a usable name)\n"});
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Messages().size(), 1U);
}

// ---- Tools that hang ----------------------------------------------------------------------------

TEST_F(Software, AToolThatHangsIsAskedLessAndLessOften) {
  PutPackages({{"glut"}});
  rec::PutCommandTime(kListing, 1000);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command", kListing), 1);
  // The pauses, in seconds. A pass just before their end asks nothing.
  for (const int pause : {30, 60, 120, 240, 480, 600, 600}) {
    rec::ForgetEvents();
    rec::PassTime(pause - 2);
    ASSERT_EQ(do_swver(), 0);
    EXPECT_EQ(rec::Count("run_command", "dpkg*"), 0) << pause;
    rec::PassTime(2);
    ASSERT_EQ(do_swver(), 0);
    EXPECT_EQ(rec::Names("run_command"), Strings{kListing}) << pause;
    EXPECT_EQ(rec::Messages(), Strings{}) << "said when it began";
  }
  rec::PutCommandTime(kListing, 0);
  rec::PassTime(600);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Name(4), "glut_amd64");
  EXPECT_EQ(rec::Messages().back(), "do_swver: the package scan came to its end\n");
  // From the beginning the next time.
  rec::PutCommandTime(kListing, 1000);
  Rescan();
  rec::ForgetEvents();
  rec::PassTime(30);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command", kListing), 1);
}

TEST_F(Software, TheRowsStayWhileAToolHangs) {
  PutPackages({{"glut"}, {"qvdiags"}, {"qvrelm"}});
  Rescan();
  PutPackages({{"glut", "2.0"}, {"qvrelm", "2.0"}});
  rec::PutCommandTime(Query("qvrelm"), 1000);
  rec::ForgetEvents();
  Rescan();
  EXPECT_EQ(rec::Count("run_command"), 3);
  // What was seen is published; what was not stays as it was.
  EXPECT_EQ(Version(4), "2.0");
  EXPECT_EQ(Name(5), "qvdiags_amd64");
  EXPECT_EQ(Version(6), "1.0");
  EXPECT_EQ(rec::Messages(),
            Strings{"do_swver: a package tool hangs; the rows of the last scan stay, and this one "
                    "is tried again less and less often\n"});
  // Goes on where it was, and only at its end is a row gone that was not listed.
  rec::PutCommandTime(Query("qvrelm"), 0);
  rec::ForgetEvents();
  rec::PassTime(30);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Names("run_command"), Strings{Query("qvrelm")});
  EXPECT_EQ(Version(6), "2.0");
  EXPECT_EQ(rec::Live(Row(5)), nullptr);
}

TEST_F(Software, ASlowToolFinishesItsScanOverSeveralPasses) {
  std::vector<Package> packages;
  for (int i = 0; i < 10; i++) {
    packages.push_back({"glut" + std::to_string(i)});
    rec::PutCommandTime(Query(packages.back().name), 4);
  }
  PutPackages(packages);
  rec::PutCommandTime(kListing, 9);
  SetDatabaseTime(1000);
  int passes = 0;
  for (; rec::Live(Row(13)) == nullptr && passes < 20; passes++) {
    timespec before;
    timespec after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    ASSERT_EQ(do_swver(), 0);
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_LE(after.tv_sec - before.tv_sec, 11);
  }
  EXPECT_EQ(passes, 6);  // the listing, and two queries each
  EXPECT_EQ(Name(13), "glut9_amd64");
  EXPECT_EQ(rec::Count("run_command", "dpkg*"), 11) << "nothing is asked twice";
  EXPECT_EQ(rec::Messages(), Strings{"Info: scanning 10 packages took 49 seconds\n"});
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command", "dpkg*"), 11);
}

TEST_F(Software, AChangeDuringAScanMeansAnotherOne) {
  PutPackages({{"glut"}, {"qvdiags"}});
  rec::PutCommandTime(Query("glut"), 8);
  Rescan();
  EXPECT_EQ(rec::Live(Row(5)), nullptr);
  PutPackages({{"glut"}});
  Rescan();
  EXPECT_NE(rec::Live(Row(5)), nullptr) << "the scan under way knew of it";
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Live(Row(5)), nullptr);
}

TEST_F(Software, RpmThatHangsLeavesDpkgItsTime) {
  PutPackages({{"glut"}});
  rec::PutCommandTime(kAgentVersion, 1000);
  rec::AllowUndefinedSlots("host/swverag");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Messages(), Strings{"vexhostd FAILED to read for agent swversion\n"});
  EXPECT_EQ(Name(4), "glut_amd64");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command", kAgentVersion), 1);
  rec::PutCommandTime(kAgentVersion, 0);
  rec::PutCommand(kAgentVersion, "8.1\n");
  rec::PassTime(30);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Text("host/swverag", "tlxHoSwVerAgentsVer"), "8.1");
}

// A rescan costs ten seconds once, also where both hang.
TEST_F(Software, RpmAndDpkgThatHangAreAskedByTheSamePasses) {
  PutPackages({{"glut"}});
  rec::PutCommandTime(kAgentVersion, 1000);
  rec::PutCommandTime(kListing, 1000);
  rec::AllowUndefinedSlots("host/swverag");
  const Strings both = {kAgentVersion, kListing};
  int since = 0, asked = 0;  // seconds
  for (int seconds = 0; seconds < 400; seconds++) {
    rec::ForgetEvents();
    const int64_t begun = monotonic_milliseconds();
    ASSERT_EQ(do_swver(), 0);
    const int64_t took = monotonic_milliseconds() - begun;
    // Twenty seconds would be one limit for each; this machine's own time is counted, too.
    EXPECT_LT(took, 15000);
    if (!rec::Names("run_command").empty()) {
      EXPECT_EQ(rec::Names("run_command"), both);
      EXPECT_GE(took, 10000);
      EXPECT_TRUE(asked == 0 || since >= 30) << since;
      asked++;
      since = 0;
    }
    rec::PassTime(1);
    since++;
  }
  EXPECT_EQ(asked, 4);  // after 0, 30, 60 and 120 seconds of rest
}

// Else one of them would hang alone each time, and each time cost a pass its limit.
TEST_F(Software, DpkgThatHangsLaterWaitsForRpmThatHangs) {
  PutPackages({{"glut"}});
  rec::PutCommandTime(kAgentVersion, 1000);
  rec::AllowUndefinedSlots("host/swverag");
  Rescan();
  rec::PassTime(31);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command", kAgentVersion), 2);  // and again in a minute
  rec::PutCommandTime(kListing, 1000);
  Rescan();
  EXPECT_EQ(rec::Count("run_command", kListing), 2);
  rec::ForgetEvents();
  rec::PassTime(31);  // dpkg's own half minute
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command"), 0);
  rec::PassTime(20);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Names("run_command"), (Strings{kAgentVersion, kListing}));
}

TEST_F(Software, APassThatHasLostItsTimeLeavesTheScanToTheNext) {
  PutPackages({{"glut"}});
  rec::PutCommandTime(kAgentVersion, 1000);
  rec::AllowUndefinedSlots("host/swverag");
  // Rpm takes its share; then the process is stopped for a while.
  rec::OnMessage([](const std::string &) { rec::PassTime(2); });
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Names("run_command"), Strings{kAgentVersion});
  EXPECT_EQ(rec::Live(Row(4)), nullptr);
  rec::ForgetEvents();
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Names("run_command"), (Strings{kListing, Query("glut")}));
  EXPECT_EQ(Name(4), "glut_amd64");
}

TEST_F(Software, AToolThatCannotBeStartedIsTriedByTheNextPass) {
  PutPackages({{"glut"}, {"qvdiags"}});
  rec::Fail("run_command", Query("glut").substr(0, 18) + "*", 1);
  Rescan();
  EXPECT_EQ(Name(4), "qvdiags_amd64");
  EXPECT_EQ(rec::Live(Row(5)), nullptr);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Name(5), "glut_amd64");
  rec::ForgetEvents();
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command"), 0);
}

TEST_F(Software, NothingIsAskedOnceTheAgentIsEnding) {
  PutPackages({{"glut"}});
  Rescan();
  rec::Fail("agent_ending");
  Rescan();
  EXPECT_EQ(Name(4), "glut_amd64");
}

TEST_F(Software, AScanIsLeftWhereItIsOnceTheAgentIsEnding) {
  PutPackages({{"glut"}, {"qvdiags"}, {"qvrelm"}});
  Rescan();
  PutPackages({{"glut", "2.0"}, {"qvdiags", "2.0"}});
  rec::ForgetEvents();
  rec::Fail("agent_ending", "*", -3);  // the listing and one query are still asked
  Rescan();
  EXPECT_EQ(rec::Names("run_command"), (Strings{kListing, Query("glut"), Query("qvdiags")}));
  EXPECT_EQ(Version(4), "2.0");
  EXPECT_EQ(Version(5), "1.0");
  EXPECT_EQ(Name(6), "qvrelm_amd64") << "the listing was not gone through";
  EXPECT_EQ(rec::Messages(), Strings{});
}

TEST_F(Software, ARowWhosePublicationFailedIsPublishedByTheNextPass) {
  PutPackages({{"glut"}});
  rec::Fail("log_data", Row(4), 1);
  Rescan();
  EXPECT_EQ(rec::Publications(Row(4)), 0);
  rec::StopFailing();
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Publications(Row(4)), 1);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Publications(Row(4)), 1);
}

TEST_F(Software, AComponentsOrTheAgentsFirstPublicationIsMadeUpFor) {
  rec::Fail("log_data", "host/sw*");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Publications(Row(0)), 0);
  EXPECT_EQ(rec::Publications("host/swverag"), 0);
  rec::StopFailing();
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Publications(Row(0)), 1);
  EXPECT_EQ(rec::Publications("host/swverag"), 1);
}

TEST_F(Software, TheAgentsObjectIsMadeByALaterPass) {
  rec::Fail("create_obj", "host/swverag", 1);
  rec::PutCommand(kAgentVersion, "8.1\n");
  ASSERT_EQ(do_swver(), 0);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Text("host/swverag", "tlxHoSwVerAgentsVer"), "8.1");
}

TEST_F(Software, TakesAtMost4096Names) {
  std::string listing;
  for (int i = 0; i < 4095; i++) {
    listing += "other\n";
  }
  rec::PutCommand(kListing, listing + "glut\nqvdiags\n");
  rec::PutCommand(Query("glut"), Answer({"glut"}));
  rec::PutCommand(Query("qvdiags"), Answer({"qvdiags"}));
  Rescan();
  EXPECT_EQ(Name(4), "glut_amd64");
  EXPECT_EQ(rec::Live(Row(5)), nullptr);
}

TEST_F(Software, TakesAtMost98303BytesOfTheListing) {
  // The 5 bytes of "glut\n" end exactly at the bound; what follows is not looked at.
  const std::string before = std::string(98303 - 5 - 1, 'x') + "\n";
  rec::PutCommand(kListing, before + "glut\nqvdiags\n");
  rec::PutCommand(Query("glut"), Answer({"glut"}));
  rec::PutCommand(Query("qvdiags"), Answer({"qvdiags"}));
  Rescan();
  EXPECT_EQ(Name(4), "glut_amd64");
  EXPECT_EQ(rec::Live(Row(5)), nullptr);

  rec::PutCommand(kListing, "y" + before + "glut\nqvdiags\n");
  Rescan();
  EXPECT_EQ(rec::Live(Row(4)), nullptr);
}

TEST_F(Software, APieceAfterTheLastNewlineDoesNotCount) {
  rec::PutCommand(kListing, "glut\nqvdiags");
  rec::PutCommand(Query("glut"), Answer({"glut"}));
  rec::PutCommand(Query("qvdiags"), Answer({"qvdiags"}));
  Rescan();
  EXPECT_EQ(Name(4), "glut_amd64");
  EXPECT_EQ(rec::Live(Row(5)), nullptr);
  rec::PutCommand(kListing, "glut");
  Rescan();
  EXPECT_EQ(rec::Live(Row(4)), nullptr);
  rec::ForgetEvents();
  ASSERT_EQ(do_swver(), 0);  // it counted as empty
  EXPECT_EQ(rec::Count("run_command", kListing), 1);
}

// ---- Failures -----------------------------------------------------------------------------------

TEST_F(Software, StopsAtTheFirstComponentThatCannotBeMade) {
  rec::Fail("create_obj", "host/swver.2");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Messages(), Strings{"vexhostd: Can't do_init object: DIAGS  (PEER3023)\n"});
  EXPECT_EQ(Name(1), "SYSTEMROMKIT");
  EXPECT_EQ(rec::Live(Row(2)), nullptr);
  EXPECT_EQ(rec::Live(Row(3)), nullptr);
  // The next pass goes on with it, and none after that.
  rec::StopFailing();
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Name(1), "SYSTEMROMKIT");
  EXPECT_EQ(Name(2), "DIAGS");
  EXPECT_EQ(Name(3), "DISKDR");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Live(Row(4)), nullptr);
}

TEST_F(Software, BuildsAgainAfterNothingCouldBeMade) {
  rec::Fail("create_obj", "host/swver*");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_TRUE(swver_is_empty());
  EXPECT_EQ(rec::Live("host/swverag"), nullptr);
  rec::StopFailing();
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Name(3), "DISKDR");
  EXPECT_NE(rec::Live("host/swverag"), nullptr);
}

TEST_F(Software, ReportsARowThatCannotBeMade) {
  PutPackages({{"glut"}, {"qvdiags"}});
  rec::Fail("create_obj", "host/swver.4", 1);
  Rescan();
  EXPECT_EQ(rec::Messages(), Strings{"vexhostd: Can't create object: glut_amd64  (PEER3023)\n"});
  EXPECT_EQ(Name(4), "qvdiags_amd64");
  // The next pass makes it, without a change of the database.
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Name(5), "glut_amd64");
  rec::ForgetEvents();
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("run_command"), 0);
}

TEST_F(Software, AShellThatIsKilledHasNotAnswered) {
  PutPackages({{"glut"}});
  Rescan();
  ASSERT_EQ(Name(4), "glut_amd64");
  rec::PutCommand(kListing, "", 128 + SIGKILL);
  Rescan();
  EXPECT_EQ(Name(4), "glut_amd64");
}

TEST_F(Software, AQueryThatIsKilledIsAskedByTheNextPass) {
  PutPackages({{"glut"}, {"qvdiags"}});
  rec::PutCommand(Query("glut"), Answer({"glut"}), 128 + SIGKILL);
  Rescan();
  EXPECT_EQ(Name(4), "qvdiags_amd64");
  EXPECT_EQ(rec::Live(Row(5)), nullptr);
  EXPECT_EQ(
      rec::Messages(),
      Strings{"do_swver: packages that could not be reported: 1 (1 without a usable answer, 0 "
              "without a usable name)\n"});
  rec::PutCommand(Query("glut"), Answer({"glut"}));
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Name(5), "glut_amd64");
}

TEST_F(Software, ASuffixThatCannotBeReadIsReadByTheNextPass) {
  rec::PutFile("/proc/cpuinfo", "vendor_id : GenuineIntel\n");
  PutPackages({{"tlx_tlxarray", "1.0", "Arrays", "x86_64"}});
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none = {0, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const int result = do_swver();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  ASSERT_EQ(result, 0);
  EXPECT_EQ(Name(4), "tlx_tlxarray");
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Name(5), "tlx_tlxarray_em64t");
  EXPECT_EQ(rec::Live(Row(4)), nullptr);
}

TEST_F(Software, ReportsARowThatCannotBeInserted) {
  PutPackages({{"glut"}});
  ASSERT_EQ(do_swver(), 0);
  rec::Fail("ordinsert_Q");
  PutPackages({{"glut"}, {"qvdiags"}});
  const size_t blocks = rec::Blocks();
  Rescan();
  EXPECT_EQ(rec::Blocks(), blocks);
  EXPECT_EQ(rec::Messages(), Strings{"vexhostd: Can't create object: qvdiags_amd64  (PEER3023)\n"});
  EXPECT_NE(rec::Live(Row(5)), nullptr);  // it stays, unpublished
  EXPECT_EQ(rec::Publications(Row(5)), 0);
  // And is the row's as soon as there is one.
  rec::StopFailing();
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Name(5), "qvdiags_amd64");
  EXPECT_EQ(rec::Publications(Row(5)), 1);
}

TEST_F(Software, ARowWithoutMemoryIsMadeByTheNextPass) {
  std::vector<Package> packages = {{"glut"}};
  PutPackages(packages);
  ASSERT_EQ(do_swver(), 0);
  for (const auto &[call, name, row] :
       {std::tuple("calloc", "qvdiags", 5), std::tuple("strdup", "qvrelm", 6)}) {
    SCOPED_TRACE(call);
    packages.push_back({name});
    PutPackages(packages);
    rec::ForgetEvents();
    rec::Fail(call, "*", 0, ENOMEM);
    const size_t blocks = rec::Blocks();
    Rescan();
    EXPECT_EQ(rec::Blocks(), blocks);
    EXPECT_EQ(rec::Messages(), Strings{"vexhostd: Can't create object: " + std::string(name) +
                                       "_amd64  (PEER3023)\n"});
    EXPECT_EQ(rec::Live(Row(row)), nullptr);
    rec::StopFailing();
    ASSERT_EQ(do_swver(), 0);
    EXPECT_EQ(Name(row), std::string(name) + "_amd64");
  }
}

TEST_F(Software, ATableWithoutMemoryIsBuiltByTheNextPass) {
  rec::Fail("realloc", "", 1, ENOMEM);
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(rec::Count("agentlog_fprintf", "vexhostd: Can't do_init object: CONFIG*"), 1);
  rec::StopFailing();
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Name(0), "CONFIG");
  EXPECT_EQ(Name(3), "DISKDR");
}

TEST_F(Software, AnAnswerWithoutMemoryIsAskedForByTheNextPass) {
  PutPackages({{"glut"}});
  rec::Fail("fmemopen", "", 0, ENOMEM);
  Rescan();
  EXPECT_EQ(rec::Live(Row(4)), nullptr);
  EXPECT_EQ(rec::Count("agentlog_fprintf", "do_swver: packages that could not be reported: 1 (1 *"),
            1);
  rec::StopFailing();
  ASSERT_EQ(do_swver(), 0);
  EXPECT_EQ(Name(4), "glut_amd64");
}

TEST_F(Software, GoesOnAfterAFailedDeletion) {
  PutPackages({{"glut"}, {"qvdiags"}, {"qvrelm"}});
  Rescan();
  rec::Fail("delete_obj", Row(4));
  PutPackages({{"qvrelm", "2"}});
  Rescan();
  EXPECT_NE(rec::Live(Row(4)), nullptr);
  EXPECT_EQ(rec::Live(Row(5)), nullptr);
  EXPECT_EQ(Version(6), "2");
  EXPECT_EQ(swver_find("glut_amd64"), nullptr);
}

// ---- Pieces -------------------------------------------------------------------------------------

TEST(Packages, Classify) {
  const struct {
    const char *name;
    int expected;
  } cases[] = {
      {"kelmo", 256 + 3},
      {"glut", 256 + 5},
      {"glutton", 256 + 5},
      {"qv-rmc", 256 + 2},
      {"tlx_cciss", 256 + 2},
      {"tlx_tlxarray", 512 + 2},
      {"tlx_tlxfc-2", 512 + 2},
      {"tlx_other", 5},
      {"tlxarrcfg", 3},
      {"vexhostd", 3},
      {"vlan", 2},
      {"vlan_init", 256 + 2},
      {"ql", 2},
      {"qlogic", 2},
      {"qv", 5},
      {"qv-health", 256 + 5},
      {"qv-snmp-agents", 256 + 3},
      {"qv-snmp-agent", 5},
      {"qv-webpan-templates", 256 + 5},
      {"qvmouse", 256 + 5},
      {"qvrmccfg", 256 + 5},
      {"ucd-snmp", 256 + 5},
      {"ucdsnmp-x", 256 + 5},
      {"net-snmp", 256 + 5},
      {"fibreutils", 5},
      {"aic", 2},
      {"e1000", 2},
      {"emulex", 2},
      {"kmod-qvarr", 256 + 2},
      {"kmod-cciss", 256 + 2},
      {"kmod-qv-netxtreme2", 2},
      {"qv-igb", 2},
      {"qv-mlnx", 2},
      {"qvwebpan", 256 + 5},
      {"qvvenk", 256 + 5},
      {"qvrelm", 256 + 3},
      {"bash", 0},
      {"", 0},
      {"qu", 0},
      {"Kelmo", 0},
      {"kmod-qv", 0},
      {"lsi", 2},
      {"mptlinux", 2},
      {"bonding", 2},
      {"bcm5700", 2},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(classify_package(c.name), c.expected) << c.name;
  }
}

TEST(Packages, ClassifyByEachPrefix) {
  const std::pair<int, Strings> classes[] = {
      {256 + 2, {"qv-rmc", "qv-OpenIPMI", "tlx_cciss", "kmod-cciss", "kmod-qvarr", "vlan_init"}},
      {256 + 3, {"qvdiags", "kelmo", "qvrelm", "qv-snmp-agents"}},
      {256 + 5,
       {"ucd-snmp", "ucdsnmp", "net-snmp", "glut", "qvvenk", "qvwebpan", "qvmouse", "qvrmccfg",
        "qv-health", "qv-webpan-templates"}},
      {512 + 2, {"tlx_tlxarray", "tlx_tlxfc"}},
      {2,
       {"aic", "bcm5700", "bonding", "kmod-qv-netxtreme2", "qv-netxtreme2-kmp", "kmod-qv-nx_nic",
        "qv-nx_nic-kmp", "qv-igb", "qv-tg3", "qv-be2iscsi", "qv-be2net", "qv-mlnx", "e100", "lsi",
        "mpt", "vlan", "emu", "ql"}},
      {3, {"vex", "tlxarrcfg"}},
      {5, {"tlx", "qv", "fibreutils"}},
  };
  for (const auto &[expected, prefixes] : classes) {
    for (const std::string &prefix : prefixes) {
      EXPECT_EQ(classify_package(prefix.c_str()), expected) << prefix;
      EXPECT_EQ(classify_package((prefix + "0").c_str()), expected) << prefix;
      // Nothing shorter does.
      const std::string shorter = prefix.substr(0, prefix.size() - 1);
      EXPECT_NE(classify_package(shorter.c_str()), expected) << shorter;
    }
  }
}

TEST(Packages, DecorateByOrigin) {
  EXPECT_EQ(Decorated("bonding", "amd64", 0), "bonding");
  EXPECT_EQ(Decorated("kelmo", "amd64", 1), "kelmo_amd64");
  for (const char *plain : {"i386", "i586", "i686"}) {
    EXPECT_EQ(Decorated("kelmo", plain, 1), "kelmo");
    EXPECT_EQ(Decorated("tlx_tlxfc", plain, 2), "tlx_tlxfc");
  }
  EXPECT_EQ(Decorated("kelmo", "i486", 1), "kelmo_i486");
  EXPECT_EQ(Decorated("kelmo", "x86_64", 1), "kelmo_x86_64");
  EXPECT_EQ(Decorated("kelmo", "athlon", 1), "kelmo_athlon");
  EXPECT_EQ(Decorated("tlx_tlxfc", "athlon", 2), "tlx_tlxfcamd32");
  EXPECT_EQ(Decorated("tlx_tlxfc", "amd64", 2), "tlx_tlxfc_amd64");
  EXPECT_EQ(Decorated("kelmo", "", 1), "kelmo_");
  utsname names;
  ASSERT_EQ(uname(&names), 0);
  EXPECT_EQ(Decorated("kelmo", nullptr, 1), std::string("kelmo_") + names.machine);
}

TEST(Packages, DecorateWithinTheBuffer) {
  const std::string name(100, 'n');
  EXPECT_EQ(Decorated(name.c_str(), "amd64", 1), name.substr(0, 63));
  EXPECT_EQ(Decorated(name.substr(0, 62).c_str(), "amd64", 1), name.substr(0, 62) + "_");
  EXPECT_EQ(Decorated(name.substr(0, 60).c_str(), "amd64", 1), name.substr(0, 60) + "_am");
  EXPECT_EQ(Decorated(name.substr(0, 61).c_str(), "athlon", 2), name.substr(0, 61) + "am");
}

namespace {

std::string KernelConfiguration() {
  utsname names;
  uname(&names);
  return std::string("/boot/config-") + names.release;
}

}  // namespace

TEST(Packages, ProcessorSuffixOfIntel) {
  rec::PutFile("/proc/cpuinfo", "processor : 0\nvendor_id : GenuineIntel\n");
  rec::PutNothing(KernelConfiguration());
  EXPECT_EQ(Decorated("tlx_tlxfc", "x86_64", 2), "tlx_tlxfc_em64t");
  // Kept for the life of the process.
  rec::PutFile("/proc/cpuinfo", "vendor_id : AuthenticAMD\n");
  EXPECT_EQ(Decorated("tlx_tlxarray", "x86_64", 2), "tlx_tlxarray_em64t");
}

TEST(Packages, ProcessorSuffixOfAmd) {
  rec::PutFile("/proc/cpuinfo", "vendor_id : AuthenticAMD\n");
  rec::PutNothing(KernelConfiguration());
  EXPECT_EQ(Decorated("tlx_tlxfc", "x86_64", 2), "tlx_tlxfc_amd64");
}

TEST(Packages, ProcessorSuffixOfTheKernelWins) {
  rec::PutFile("/proc/cpuinfo", "vendor_id : GenuineIntel\n");
  rec::PutFile(KernelConfiguration(), "CONFIG_MK5=y\n# CONFIG_MK7 is not set\nCONFIG_MK8=y\n");
  EXPECT_EQ(Decorated("tlx_tlxfc", "x86_64", 2), "tlx_tlxfc_amd64");
}

TEST(Packages, ProcessorSuffixIsNotKeptWhileTheKernelsConfigurationCannotBeRead) {
  rec::PutFile("/proc/cpuinfo", "vendor_id : GenuineIntel\n");
  rec::PutFile(KernelConfiguration(), "CONFIG_MK8=y\n");
  rec::BreakReads(KernelConfiguration(), 1, 0);
  EXPECT_EQ(Decorated("tlx_tlxfc", "x86_64", 2), "tlx_tlxfc_em64t");
  EXPECT_EQ(Decorated("tlx_tlxfc", "x86_64", 2), "tlx_tlxfc_amd64");
}

TEST(Packages, WithoutTheSystemsNameTheProcessorTellsTheSuffix) {
  rec::PutFile("/proc/cpuinfo", "vendor_id : GenuineIntel\n");
  rec::PutFile(KernelConfiguration(), "CONFIG_MK8=y\n");
  rec::Fail("uname");
  EXPECT_EQ(Decorated("tlx_tlxfc", "x86_64", 2), "tlx_tlxfc_em64t");
  // Nor is there an architecture where the answer had none.
  EXPECT_EQ(Decorated("kelmo", nullptr, 1), "kelmo_");
}

TEST(Packages, ProcessorSuffixIsSearchedUntilFound) {
  rec::PutFile("/proc/cpuinfo", "vendor_id : Other\n");
  rec::PutNothing(KernelConfiguration());
  EXPECT_EQ(Decorated("tlx_tlxfc", "x86_64", 2), "tlx_tlxfc");
  rec::PutFile(KernelConfiguration(), "CONFIG_MK6=y\n");
  EXPECT_EQ(Decorated("tlx_tlxfc", "x86_64", 2), "tlx_tlxfc_amd64");
}

TEST(Packages, FindLine) {
  const char *const needles[] = {"first", "second"};
  rec::PutFile("/made/up", "nothing\nsecond and first\nfirst\n");
  EXPECT_EQ(find_line("/made/up", needles, 2), 0);  // in the order of the needles
  rec::PutFile("/made/up", "second\nfirst\n");
  EXPECT_EQ(find_line("/made/up", needles, 2), 1);  // in the first line
  rec::PutFile("/made/up", "nothing\nfirst");
  EXPECT_EQ(find_line("/made/up", needles, 2), 0);
  EXPECT_EQ(find_line("/made/up", needles, 0), -1);
  rec::PutFile("/made/up", "");
  EXPECT_EQ(find_line("/made/up", needles, 2), -1);
  rec::PutNothing("/made/up");
  EXPECT_EQ(find_line("/made/up", needles, 2), -1);
  // A longer line counts in pieces: a needle across their border is not found.
  rec::PutFile("/made/up", std::string(250, 'x') + "first\n");
  EXPECT_EQ(find_line("/made/up", needles, 2), -1);
  rec::PutFile("/made/up", std::string(248, 'x') + "first\n");
  EXPECT_EQ(find_line("/made/up", needles, 2), 0);
  rec::PutFile("/made/up", std::string(253, 'x') + "first\n");
  EXPECT_EQ(find_line("/made/up", needles, 2), 0);
}

TEST(Packages, FindLineInAFileThatCannotBeReadToItsEnd) {
  const char *const needles[] = {"first", "second"};
  rec::PutFile("/made/up", "nothing\nfirst\n");
  rec::BreakReads("/made/up", 1, 8);
  EXPECT_EQ(find_line("/made/up", needles, 2), LINES_UNREADABLE);
  // What was found before stands.
  rec::BreakReads("/made/up", 1, 14);
  EXPECT_EQ(find_line("/made/up", needles, 2), 0);
}

TEST(Packages, PackageNames) {
  EXPECT_EQ(check_package_name("libc6:amd64"), NAME_USABLE);
  EXPECT_EQ(check_package_name("g++-12.0_x~y"), NAME_USABLE);
  EXPECT_EQ(check_package_name(std::string(89, 'x').c_str()), NAME_USABLE);
  EXPECT_EQ(check_package_name(std::string(90, 'x').c_str()), NAME_TOO_LONG);
  EXPECT_EQ(check_package_name((std::string(90, 'x') + ";").c_str()), NAME_WITH_WRONG_CHARACTER);
  EXPECT_EQ(check_package_name(""), NAME_WITH_WRONG_CHARACTER);
  for (const char *bad : {"a b", "a;b", "a$b", "a`b", "a'b", "a\"b", "a|b", "a&b", "a>b", "a/b",
                          "a\\b", "a\tb", "a(b", "a*b", "a\xc3\xa4"}) {
    EXPECT_EQ(check_package_name(bad), NAME_WITH_WRONG_CHARACTER) << bad;
  }
}

TEST(Packages, PatienceGrowsToTenMinutes) {
  tool_patience patience = {};
  EXPECT_TRUE(may_ask(patience, 0));
  int64_t now = 1000;
  for (const int64_t pause : {30000, 60000, 120000, 240000, 480000, 600000, 600000}) {
    lose_patience(&patience, now);
    EXPECT_FALSE(may_ask(patience, now + pause - 1));
    now += pause;
    EXPECT_TRUE(may_ask(patience, now));
  }
  regain_patience(&patience);
  EXPECT_TRUE(may_ask(patience, 0));
  lose_patience(&patience, now);
  EXPECT_TRUE(may_ask(patience, now + 30000));
}

namespace {

struct ReadAnswer {
  int status;
  package_answer answer;
};

// The texts of the answer point into it, so it stays where it is.
void Read(const std::string &text, ReadAnswer *result) {
  FILE *stream = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
  ASSERT_NE(stream, nullptr);
  result->status = read_package_answer(stream, &result->answer);
  fclose(stream);
}

}  // namespace

TEST(Packages, ReadAnAnswer) {
  ReadAnswer a;
  Read("Name glut\nVersion 1:2-3\nDesc  A tool kit \nArch amd64\n", &a);
  ASSERT_EQ(a.status, 0);
  EXPECT_STREQ(a.answer.name, "glut");
  EXPECT_STREQ(a.answer.version, "1:2-3");
  EXPECT_STREQ(a.answer.description, "A tool kit ");
  EXPECT_STREQ(a.answer.architecture, "amd64");
}

TEST(Packages, ReadAnAnswerWithoutANewlineAtTheEnd) {
  ReadAnswer a;
  Read("Name glut\nVersion 1\nDesc text\nArch amd64", &a);
  EXPECT_EQ(a.status, 0);
  EXPECT_STREQ(a.answer.architecture, "amd64");
}

TEST(Packages, ReadAnAnswerWithUnknownAndRepeatedKeys) {
  ReadAnswer a;
  Read("Other 1\nName first\nName second\nname third\nVersion 1\nDesc text\nArch x\n", &a);
  ASSERT_EQ(a.status, 0);
  EXPECT_STREQ(a.answer.name, "second");
  EXPECT_STREQ(a.answer.version, "1");
  EXPECT_STREQ(a.answer.description, "text");
  EXPECT_EQ(a.answer.architecture, nullptr);  // four known keys were read
}

TEST(Packages, RefuseAnIncompleteAnswer) {
  ReadAnswer a;
  for (const char *text :
       {"\n", "Name", "Name glut\n", "Name glut\nVersion 1\nDesc text\n",
        "Name glut\nVersion 1\nDesc text\nArch", "Name glut\nVersion 1\nDesc \nArch x\n"}) {
    Read(text, &a);
    EXPECT_EQ(a.status, -1) << text;
  }
}

TEST(Packages, RefuseAnAnswerThatUsesUpTheRoom) {
  ReadAnswer a;
  // 4 + 1 and 1 + 1 are used; 248 characters of description leave one and its end for the rest.
  Read("Name glut\nVersion 1\nDesc " + std::string(300, 'd') + "\nArch amd64\n", &a);
  EXPECT_EQ(a.status, -1);
  Read("Name glut\nVersion 1\nDesc " + std::string(248, 'd') + "\nArch amd64\n", &a);
  EXPECT_EQ(a.status, -1);
  Read("Name glut\nVersion 1\nDesc " + std::string(246, 'd') + "\nArch amd64\n", &a);
  ASSERT_EQ(a.status, 0);
  EXPECT_STREQ(a.answer.description, std::string(246, 'd').c_str());
  EXPECT_STREQ(a.answer.architecture, "a");
  Read("Name glut\nVersion 1\nDesc " + std::string(242, 'd') + "\nArch amd64\n", &a);
  ASSERT_EQ(a.status, 0);
  EXPECT_STREQ(a.answer.architecture, "amd64");
}

TEST(Packages, ReadALongKeyInPieces) {
  ReadAnswer a;
  Read(std::string(40, 'k') + " x\nName glut\nVersion 1\nDesc text\nArch amd64\n", &a);
  ASSERT_EQ(a.status, 0);
  EXPECT_STREQ(a.answer.name, "glut");
}

TEST(Packages, SplitAListing) {
  char text[] = "one\n\ntwo\nthree";
  const char *names[4];
  ASSERT_EQ(split_listing(text, sizeof(text) - 1, names, 4), 3);
  EXPECT_STREQ(names[0], "one");
  EXPECT_STREQ(names[1], "");
  EXPECT_STREQ(names[2], "two");
  char more[] = "one\ntwo\n";
  EXPECT_EQ(split_listing(more, sizeof(more) - 1, names, 1), 1);
  EXPECT_EQ(split_listing(more, 0, names, 4), 0);
}
