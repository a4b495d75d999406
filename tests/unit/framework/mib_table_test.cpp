// The generated table of MIB variables: what managers, peers and the framework rely on.
#include "framework/snmp/mib_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/framework.h"

namespace vex {
namespace {

// A variable as it was recorded, with the revision of its module.
struct Recorded {
  std::string name;
  std::string oid;  // below enterprises.4891
  std::string type;
  int min_length = 0;
  int max_length = 0;
  std::string access;
  std::string kind;
};

struct RecordedModule {
  std::string name;
  int major = 0;
  int minor = 0;
  std::vector<Recorded> variables;
};

// What mibs/objects.txt has, which each change of a module shows line by line.
std::vector<RecordedModule> RecordedModules() {
  std::vector<RecordedModule> modules;
  std::ifstream file(VEX_SOURCE_DIR "/mibs/objects.txt");
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    if (line.starts_with("#")) {
      continue;
    }
    if (!line.starts_with(" ")) {
      RecordedModule &module = modules.emplace_back();
      char dot = 0;
      words >> module.name >> module.major >> dot >> module.minor;
      EXPECT_EQ(dot, '.') << line;
      continue;
    }
    Recorded variable;
    words >> variable.name >> variable.oid >> variable.type >> variable.min_length >>
        variable.max_length >> variable.access >> variable.kind;
    if (variable.type != "notification") {
      EXPECT_FALSE(words.fail()) << line;
      modules.back().variables.push_back(variable);
    }
  }
  return modules;
}

std::string Text(std::span<const uint32_t> oid) {
  std::string text;
  for (const uint32_t number : oid) {
    text += (text.empty() ? "" : ".") + std::to_string(number);
  }
  return text;
}

const std::string kSuite = "1.3.6.1.4.1.4891";

TEST(MibTable, HoldsEveryVariableThatIsRecordedAndNothingElse) {
  const std::map<std::string, int> types = {
      {"integer", VAR_INTEGER}, {"text", VAR_DISPLAY_STRING}, {"octets", VAR_OCTET_STRING}};
  const std::map<std::string, MibAccess> accesses = {{"read-only", MibAccess::kReadOnly},
                                                     {"read-write", MibAccess::kReadWrite},
                                                     {"notify", MibAccess::kNotify}};
  size_t recorded = 0;
  for (const RecordedModule &module : RecordedModules()) {
    for (const Recorded &expected : module.variables) {
      SCOPED_TRACE(expected.name);
      recorded++;
      const MibVariable *variable = FindMibVariable(expected.name);
      ASSERT_NE(variable, nullptr);
      EXPECT_EQ(variable->name, expected.name);
      EXPECT_EQ(Text(variable->Oid()), kSuite + "." + expected.oid);
      EXPECT_EQ(variable->type, types.at(expected.type));
      EXPECT_EQ(variable->access, accesses.at(expected.access));
      EXPECT_EQ(variable->min_length, expected.min_length);
      EXPECT_EQ(variable->max_length, expected.max_length);
      EXPECT_EQ(variable->column, expected.kind == "column");
      EXPECT_EQ(variable->group, variable->oid[7]);
    }
  }
  EXPECT_GT(recorded, 60U);
  EXPECT_EQ(MibVariables().size(), recorded);
}

// What managers, peers and siblings were given first, and rely on whatever is added.
TEST(MibTable, KeepsTheNumbersOfTheBeginning) {
  const std::pair<const char *, const char *> numbers[] = {{"tlxHoMibRevMajor", "11.1.1"},
                                                           {"tlxHoMibCondition", "11.1.3"},
                                                           {"tlxHoGUID", "11.2.1.8"},
                                                           {"tlxHoName", "11.2.2.1"},
                                                           {"tlxHoCpuUtilMin", "11.2.3.1.1.3"},
                                                           {"tlxHoFileSysDesc", "11.2.4.1.1.3"},
                                                           {"tlxHoPhysicalMemorySize", "11.2.5.1"},
                                                           {"tlxHoSwVerName", "11.2.6.1.1.5"},
                                                           {"tlxApMibCondition", "21.1.3"},
                                                           {"tlxTrapDescription", "250.1"}};
  for (const auto &[name, oid] : numbers) {
    const MibVariable *variable = FindMibVariable(name);
    ASSERT_NE(variable, nullptr) << name;
    EXPECT_EQ(Text(variable->Oid()), kSuite + "." + oid) << name;
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

TEST(MibTable, GroupsAreTheModulesButForTheRootAndDetails) {
  const std::map<std::string, std::pair<int, std::string>> known = {
      {"QUORIX-HOST-MIB", {11, "host"}}, {"QUORIX-APPLIANCE-MIB", {21, "appliance"}}};
  size_t found = 0;
  for (const RecordedModule &module : RecordedModules()) {
    const auto expected = known.find(module.name);
    if (expected == known.end()) {
      continue;
    }
    SCOPED_TRACE(module.name);
    found++;
    const auto groups = MibGroups();
    const auto group = std::find_if(groups.begin(), groups.end(), [&](const MibGroup &g) {
      return g.number == expected->second.first;
    });
    ASSERT_NE(group, groups.end());
    EXPECT_EQ(group->name, expected->second.second);
    EXPECT_EQ(Text({group->oid, group->oid_length}),
              kSuite + "." + std::to_string(expected->second.first));
    EXPECT_EQ(group->major_revision, module.major);
    EXPECT_EQ(group->minor_revision, module.minor);
  }
  EXPECT_EQ(found, known.size());
  // Beside the root module and the one that describes a component of a group.
  EXPECT_EQ(MibGroups().size(), RecordedModules().size() - 2);
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
      {"tlxHoAgentPollDuration", "milliseconds"},
      {"tlxHoLoadOne", "hundredths"},
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
