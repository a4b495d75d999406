// The generated table of MIB variables: what managers, peers and the framework rely on.
#include "framework/snmp/mib_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "platform/framework.h"

namespace vex {
namespace {

constexpr MibAccess kRo = MibAccess::kReadOnly;
constexpr MibAccess kRw = MibAccess::kReadWrite;

// What the Host Agent publishes, object by object in slot order.
struct Expected {
  const char *name;
  const char *oid;  // below enterprises.4891
  int type;
  MibAccess access;
  int min_length;
  int max_length;
  bool column;
};

const Expected kExpected[] = {
    // misc
    {"tlxHoMibRevMajor", "11.1.1", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoMibRevMinor", "11.1.2", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoMibCondition", "11.1.3", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoOsCommonPollFreq", "11.2.1.1", VAR_INTEGER, kRw, 0, 0, false},
    {"tlxHoSwVerNextIndex", "11.2.1.2", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoGenericData", "11.2.1.3", VAR_DISPLAY_STRING, kRw, 0, 254, false},
    {"tlxHoClientLastModified", "11.2.1.4", VAR_OCTET_STRING, kRo, 7, 7, false},
    {"tlxHoMibStatusArray", "11.2.1.5", VAR_OCTET_STRING, kRo, 0, 256, false},
    {"tlxHoTrapFlags", "11.2.1.6", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoConfigChangedDate", "11.2.1.7", VAR_OCTET_STRING, kRo, 7, 7, false},
    {"tlxHoGUID", "11.2.1.8", VAR_OCTET_STRING, kRw, 16, 16, false},
    {"tlxHoCodeServer", "11.2.1.9", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoWebMgmtPort", "11.2.1.10", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoGUIDCanonical", "11.2.1.11", VAR_DISPLAY_STRING, kRw, 0, 255, false},
    {"tlxHoMibHealthStatusArray", "11.2.1.12", VAR_OCTET_STRING, kRo, 0, 256, false},
    // info
    {"tlxHoName", "11.2.2.1", VAR_DISPLAY_STRING, kRo, 0, 255, false},
    {"tlxHoVersion", "11.2.2.2", VAR_DISPLAY_STRING, kRo, 0, 255, false},
    {"tlxHoDesc", "11.2.2.3", VAR_DISPLAY_STRING, kRo, 0, 255, false},
    {"tlxHoOsType", "11.2.2.4", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoTelnet", "11.2.2.5", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoSystemRole", "11.2.2.6", VAR_DISPLAY_STRING, kRw, 0, 64, false},
    {"tlxHoSystemRoleDetail", "11.2.2.7", VAR_DISPLAY_STRING, kRw, 0, 512, false},
    {"tlxHoSystemName", "11.2.2.8", VAR_DISPLAY_STRING, kRo, 0, 255, false},
    {"tlxHosysDescr", "11.2.2.9", VAR_DISPLAY_STRING, kRo, 0, 511, false},
    // cpu
    {"tlxHoCpuUtilUnitIndex", "11.2.3.1.1.2", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoCpuUtilMin", "11.2.3.1.1.3", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoCpuUtilFiveMin", "11.2.3.1.1.4", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoCpuUtilThirtyMin", "11.2.3.1.1.5", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoCpuUtilHour", "11.2.3.1.1.6", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoCpuUtilHwLocation", "11.2.3.1.1.7", VAR_DISPLAY_STRING, kRo, 0, 255, true},
    // filesys
    {"tlxHoFileSysIndex", "11.2.4.1.1.2", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoFileSysDesc", "11.2.4.1.1.3", VAR_DISPLAY_STRING, kRo, 0, 255, true},
    {"tlxHoFileSysSpaceTotal", "11.2.4.1.1.4", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoFileSysSpaceUsed", "11.2.4.1.1.5", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoFileSysPercentSpaceUsed", "11.2.4.1.1.6", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoFileSysAllocUnitsTotal", "11.2.4.1.1.7", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoFileSysAllocUnitsUsed", "11.2.4.1.1.8", VAR_INTEGER, kRo, 0, 0, true},
    // memory
    {"tlxHoPhysicalMemorySize", "11.2.5.1", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoPhysicalMemoryFree", "11.2.5.2", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoPagingMemorySize", "11.2.5.3", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoPagingMemoryFree", "11.2.5.4", VAR_INTEGER, kRo, 0, 0, false},
    // swver; a manager may set one character more than the name's and the location's field shows
    {"tlxHoSwVerIndex", "11.2.6.1.1.2", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoSwVerStatus", "11.2.6.1.1.3", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoSwVerType", "11.2.6.1.1.4", VAR_INTEGER, kRw, 0, 0, true},
    {"tlxHoSwVerName", "11.2.6.1.1.5", VAR_DISPLAY_STRING, kRw, 0, 128, true},
    {"tlxHoSwVerDescription", "11.2.6.1.1.6", VAR_DISPLAY_STRING, kRo, 0, 255, true},
    {"tlxHoSwVerDate", "11.2.6.1.1.7", VAR_OCTET_STRING, kRo, 7, 7, true},
    {"tlxHoSwVerLocation", "11.2.6.1.1.8", VAR_DISPLAY_STRING, kRw, 0, 256, true},
    {"tlxHoSwVerVersion", "11.2.6.1.1.9", VAR_DISPLAY_STRING, kRo, 0, 50, true},
    {"tlxHoSwVerVersionBinary", "11.2.6.1.1.10", VAR_DISPLAY_STRING, kRo, 0, 50, true},
    // swverag
    {"tlxHoSwVerAgentsVer", "11.2.6.2", VAR_DISPLAY_STRING, kRo, 0, 50, false},
    // fwver
    {"tlxHoFwVerIndex", "11.2.7.1.1.2", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoFwVerCategory", "11.2.7.1.1.3", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoFwVerDeviceType", "11.2.7.1.1.4", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoFwVerDisplayName", "11.2.7.1.1.5", VAR_DISPLAY_STRING, kRo, 0, 128, true},
    {"tlxHoFwVerVersion", "11.2.7.1.1.6", VAR_DISPLAY_STRING, kRo, 0, 32, true},
    {"tlxHoFwVerLocation", "11.2.7.1.1.7", VAR_DISPLAY_STRING, kRo, 0, 256, true},
    {"tlxHoFwVerXmlString", "11.2.7.1.1.8", VAR_DISPLAY_STRING, kRo, 0, 256, true},
    {"tlxHoFwVerKeyString", "11.2.7.1.1.9", VAR_DISPLAY_STRING, kRo, 0, 128, true},
    {"tlxHoFwVerUpdateMethod", "11.2.7.1.1.10", VAR_INTEGER, kRo, 0, 0, true},
    // hwinfo
    {"tlxHoHWInfoPlatform", "11.2.8.1", VAR_INTEGER, kRo, 0, 0, false},
    // memdetail
    {"tlxHoMemoryAvailable", "11.2.200.1.1", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoMemoryCached", "11.2.200.1.2", VAR_INTEGER, kRo, 0, 0, false},
    // mount
    {"tlxHoMountDevice", "11.2.200.2.1.1.2", VAR_DISPLAY_STRING, kRo, 0, 255, true},
    {"tlxHoMountDirectory", "11.2.200.2.1.1.3", VAR_DISPLAY_STRING, kRo, 0, 255, true},
    {"tlxHoMountType", "11.2.200.2.1.1.4", VAR_DISPLAY_STRING, kRo, 0, 63, true},
    {"tlxHoMountReadOnly", "11.2.200.2.1.1.5", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoMountState", "11.2.200.2.1.1.6", VAR_INTEGER, kRo, 0, 0, true},
    // sibling
    {"tlxHoSiblingName", "11.2.200.3.1.1.2", VAR_DISPLAY_STRING, kRo, 0, 63, true},
    {"tlxHoSiblingPresent", "11.2.200.3.1.1.3", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoSiblingCondition", "11.2.200.3.1.1.4", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoSiblingMajor", "11.2.200.3.1.1.5", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoSiblingMinor", "11.2.200.3.1.1.6", VAR_INTEGER, kRo, 0, 0, true},
    {"tlxHoSiblingHealth", "11.2.200.3.1.1.7", VAR_INTEGER, kRo, 0, 0, true},
    // agent
    {"tlxHoAgentVersion", "11.2.200.4.1", VAR_DISPLAY_STRING, kRo, 0, 31, false},
    {"tlxHoAgentStart", "11.2.200.4.2", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoAgentLastPoll", "11.2.200.4.3", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoAgentPollDuration", "11.2.200.4.4", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoAgentFailedPolls", "11.2.200.4.5", VAR_INTEGER, kRo, 0, 0, false},
    // load
    {"tlxHoLoadOne", "11.2.200.5.1", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoLoadFive", "11.2.200.5.2", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoLoadFifteen", "11.2.200.5.3", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxHoUptime", "11.2.200.5.4", VAR_INTEGER, kRo, 0, 0, false},
    // appliance
    {"tlxApMibRevMajor", "21.1.1", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxApMibRevMinor", "21.1.2", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxApMibCondition", "21.1.3", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxApOsCommonPollFreq", "21.2.1.1", VAR_INTEGER, kRw, 0, 0, false},
    {"tlxApApplianceId", "21.2.2.1", VAR_INTEGER, kRo, 0, 0, false},
    {"tlxApApplianceDescription", "21.2.2.2", VAR_DISPLAY_STRING, kRw, 0, 80, false},
    // notifications
    {"tlxTrapDescription", "250.1", VAR_DISPLAY_STRING, MibAccess::kNotify, 0, 1024, false},
};

std::string Text(std::span<const uint32_t> oid) {
  std::string text;
  for (const uint32_t number : oid) {
    text += (text.empty() ? "" : ".") + std::to_string(number);
  }
  return text;
}

const std::string kSuite = "1.3.6.1.4.1.4891";

TEST(MibTable, HoldsEveryVariableOfTheAgentAndNothingElse) {
  EXPECT_EQ(MibVariables().size(), std::size(kExpected));
  for (const Expected &expected : kExpected) {
    SCOPED_TRACE(expected.name);
    const MibVariable *variable = FindMibVariable(expected.name);
    ASSERT_NE(variable, nullptr);
    EXPECT_STREQ(variable->name, expected.name);
    EXPECT_EQ(Text(variable->Oid()), kSuite + "." + expected.oid);
    EXPECT_EQ(variable->type, expected.type);
    EXPECT_EQ(variable->access, expected.access);
    EXPECT_EQ(variable->min_length, expected.min_length);
    EXPECT_EQ(variable->max_length, expected.max_length);
    EXPECT_EQ(variable->column, expected.column);
    EXPECT_EQ(variable->group, variable->oid[7]);
  }
}

TEST(MibTable, IsInStrictOrderOfTheOids) {
  const auto variables = MibVariables();
  ASSERT_FALSE(variables.empty());
  for (size_t i = 1; i < variables.size(); i++) {
    const auto before = variables[i - 1].Oid();
    const auto after = variables[i].Oid();
    EXPECT_TRUE(
        std::lexicographical_compare(before.begin(), before.end(), after.begin(), after.end()))
        << variables[i].name;
    // An instance of the one must never look like an instance of the other.
    EXPECT_FALSE(before.size() <= after.size() &&
                 std::equal(before.begin(), before.end(), after.begin()))
        << variables[i].name;
  }
}

TEST(MibTable, NamesAreUniqueAndEachFindsItsVariable) {
  std::set<std::string> names;
  for (const MibVariable &variable : MibVariables()) {
    EXPECT_TRUE(names.insert(variable.name).second) << variable.name;
    EXPECT_EQ(FindMibVariable(variable.name), &variable);
  }
}

TEST(MibTable, FindsNothingForNamesThatAreNotThere) {
  for (const char *name : {"", "a", "tlxHo", "tlxHoName ", "tlxHoNam", "tlxhoname", "zzz",
                           "tlxHoCpuUtilRow", "tlxHoCpuUtilTable", "tlxHoCpuUtilEntry"}) {
    EXPECT_EQ(FindMibVariable(name), nullptr) << name;
  }
  EXPECT_EQ(FindMibVariable(std::string_view("tlxHoName\0x", 11)), nullptr);
}

TEST(MibTable, GroupsAreHostAndAppliance) {
  const auto groups = MibGroups();
  ASSERT_EQ(groups.size(), 2U);
  EXPECT_EQ(groups[0].number, 11);
  EXPECT_STREQ(groups[0].name, "host");
  EXPECT_EQ(Text({groups[0].oid, groups[0].oid_length}), kSuite + ".11");
  EXPECT_EQ(groups[0].major_revision, 1);
  EXPECT_EQ(groups[0].minor_revision, 0);
  EXPECT_EQ(groups[1].number, 21);
  EXPECT_STREQ(groups[1].name, "appliance");
  EXPECT_EQ(Text({groups[1].oid, groups[1].oid_length}), kSuite + ".21");
  EXPECT_EQ(groups[1].major_revision, 1);
  EXPECT_EQ(groups[1].minor_revision, 0);
}

TEST(MibTable, NotificationsHaveTheirRootAndText) {
  EXPECT_EQ(Text(MibNotificationRoot()), kSuite + ".0");
  EXPECT_EQ(&MibTrapDescription(), FindMibVariable("tlxTrapDescription"));
}

TEST(MibTable, UnitsAreWhatTheValuesCount) {
  const std::pair<const char *, const char *> units[] = {
      {"tlxHoOsCommonPollFreq", "seconds"},
      {"tlxHoCpuUtilHour", "percent"},
      {"tlxHoFileSysSpaceTotal", "megabytes"},
      {"tlxHoFileSysPercentSpaceUsed", "percent"},
      {"tlxHoFileSysAllocUnitsUsed", "inodes"},
      {"tlxHoPagingMemoryFree", "megabytes"},
      {"tlxHoMemoryAvailable", "megabytes"},
      {"tlxHoAgentPollDuration", "milliseconds"},
      {"tlxHoLoadOne", "hundredths"},
      {"tlxHoUptime", "seconds"},
      {"tlxHoName", ""},
  };
  for (const auto &[name, unit] : units) {
    const MibVariable *variable = FindMibVariable(name);
    ASSERT_NE(variable, nullptr) << name;
    EXPECT_STREQ(variable->units, unit) << name;
  }
}

}  // namespace
}  // namespace vex
