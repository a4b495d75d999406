// What the modules say against what a real snmpd serves for the real agent, variable by variable.
#include "framework/snmp/mib_table.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "platform/framework.h"
#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

constexpr uint8_t kIntegerTag = 2, kStringTag = 4, kNoSuchObject = 0x80, kNoSuchInstance = 0x81;

// One published variable: the file's description of it and its value's octets.
struct PublishedVariable {
  std::string object;
  vex::FileVariable described;
  std::string octets;
};

// Everything that the agent has published, by the OID of the instance that the modules give it.
std::map<std::vector<uint32_t>, PublishedVariable> PublishedByOid() {
  std::map<std::vector<uint32_t>, PublishedVariable> all;
  for (const std::string &name : MadeUpHost::Objects()) {
    if (!name.starts_with("host/")) {
      continue;
    }
    auto object = MadeUpHost::Object(name);
    if (!object) {
      ADD_FAILURE() << name << " cannot be read";
      continue;
    }
    size_t dot = name.rfind('.');
    for (const vex::FileVariable &one : object->variables) {
      const vex::MibVariable *variable = vex::FindMibVariable(one.name);
      if (variable == nullptr) {
        ADD_FAILURE() << name << ": " << one.name << " is in no module";
        continue;
      }
      EXPECT_EQ(variable->column, dot != std::string::npos) << name << ": " << one.name;
      std::vector<uint32_t> oid(variable->oid, variable->oid + variable->oid_length);
      oid.push_back(
          dot == std::string::npos ? 0 : static_cast<uint32_t>(std::stoul(name.substr(dot + 1))));
      const auto *at = reinterpret_cast<const char *>(object->data.data()) + one.offset;
      size_t length = one.type == VAR_DISPLAY_STRING ? strnlen(at, one.size)
                      : one.type == VAR_OCTET_STRING ? one.length
                                                     : one.size;
      auto [place, fresh] = all.try_emplace(oid, PublishedVariable{name, one, {at, length}});
      EXPECT_TRUE(fresh) << one.name << " of " << name << " is published twice";
    }
  }
  return all;
}

std::string Dotted(const std::vector<uint32_t> &oid) {
  std::string text;
  for (uint32_t number : oid) {
    text += "." + std::to_string(number);
  }
  return text;
}

// The agent's whole tree: what is published is served, as the modules say, and nothing else is.
void CheckServedTree(MadeUpHost &host) {
  auto published = PublishedByOid();
  std::vector<std::string> expected, served;
  for (const auto &[oid, variable] : published) {
    expected.push_back(Dotted(oid));
  }
  for (const std::string &line : host.Walk()) {
    served.push_back(line.substr(0, line.find(" = ")));
  }
  EXPECT_EQ(served, expected);

  for (const auto &[oid, variable] : published) {
    SCOPED_TRACE(variable.object + " " + variable.described.name);
    const vex::MibVariable &module = *vex::FindMibVariable(variable.described.name);
    std::string text = Dotted(oid);

    // The agent's own description is that of the modules.
    EXPECT_EQ(variable.described.type, module.type);
    EXPECT_EQ(variable.described.access == ACCESS_WRITABLE,
              module.access == vex::MibAccess::kReadWrite);
    if (module.type == VAR_OCTET_STRING) {
      EXPECT_EQ(variable.described.size, module.max_length);
      EXPECT_GE(variable.octets.size(), module.min_length);
    } else if (module.type == VAR_DISPLAY_STRING) {
      // Two take a character more from a manager than their field can show.
      bool exact = variable.described.name == "tlxHoSwVerName" ||
                   variable.described.name == "tlxHoSwVerLocation";
      EXPECT_EQ(variable.described.size, module.max_length + (exact ? 0U : 1U));
    } else {
      EXPECT_EQ(variable.described.size, 4U);
    }

    // What is read is what is published, in the modules' type.
    auto answer = QuickGet(text.substr(1));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->error, 0);
    if (module.type == VAR_INTEGER) {
      int32_t value;
      ASSERT_EQ(variable.octets.size(), sizeof(value));
      memcpy(&value, variable.octets.data(), sizeof(value));
      EXPECT_EQ(answer->tag, kIntegerTag);
      EXPECT_EQ(answer->number, value);
    } else {
      EXPECT_EQ(answer->tag, kStringTag);
      EXPECT_EQ(answer->octets, variable.octets);
      EXPECT_LE(answer->octets.size(), module.max_length);
    }

    // A set is refused as the modules' access, type and size say.
    bool integer = module.type == VAR_INTEGER;
    if (module.access == vex::MibAccess::kReadWrite) {
      EXPECT_EQ(host.Set(text, integer ? 's' : 'i', "1"), "wrongType");
      if (!integer) {
        EXPECT_EQ(host.Set(text, 's', std::string(module.max_length + 1U, 'x')), "wrongLength");
      }
    } else {
      EXPECT_EQ(host.Set(text, integer ? 'i' : 's', "1"), "notWritable");
    }
  }
}

// How many of the published variables are of that name.
size_t Instances(const std::string &name) {
  size_t count = 0;
  for (const auto &[oid, variable] : PublishedByOid()) {
    count += variable.described.name == name;
  }
  return count;
}

}  // namespace

TEST(MibTable, IsWhatSnmpdServesOnAPlainServer) {
  MadeUpHost host;
  host.Start();
  ASSERT_TRUE(host.daemon.Poll());
  CheckServedTree(host);
  EXPECT_EQ(Instances("tlxHoPhysicalMemorySize"), 1U);
  EXPECT_EQ(Instances("tlxHoCpuUtilHour"), 2U);
}

TEST(MibTable, IsWhatSnmpdServesOnAnAppliance) {
  MadeUpHost host;
  host.File("/etc/quorix/appliance.conf",
            "ProductID=77\nProductName=Made up\nOsName=Made OS\nOsVersion=1.2\n"
            "VcdbName=made\nVcdbVersion=3.4\n");
  host.File("/var/lib/quorix/ev/ZTHRN4", std::string_view("\0\0\0\0\1", 5));
  host.Start();
  ASSERT_TRUE(host.daemon.Poll());
  CheckServedTree(host);
  EXPECT_EQ(Instances("tlxHoPagingMemoryFree"), 1U);

  // Between them the groups have used every variable of the modules.
  std::vector<std::string> unused;
  for (const vex::MibVariable &variable : vex::MibVariables()) {
    if (variable.access != vex::MibAccess::kNotify && Instances(variable.name) == 0) {
      unused.push_back(variable.name);
    }
  }
  EXPECT_EQ(unused, std::vector<std::string>{});
}

TEST(MibTable, RowNumbersAndUnusedNumbersAreNotServed) {
  MadeUpHost host;
  host.Start();
  auto answer = QuickGet(host.Oid("tlxHoCpuUtilUnitIndex.0").substr(1));
  ASSERT_TRUE(answer);
  ASSERT_EQ(answer->tag, kIntegerTag);
  std::vector<std::string> nowhere;
  for (const vex::MibVariable &variable : vex::MibVariables()) {
    if (variable.access == vex::MibAccess::kNotify) {
      continue;
    }
    std::string oid = Dotted({variable.oid, variable.oid + variable.oid_length}).substr(1);
    std::string parent = oid.substr(0, oid.rfind('.'));
    // The object itself, an instance too deep, and for a table's columns the row number's column
    // and a row that there is not.
    nowhere.insert(nowhere.end(), {oid, oid + ".0.0"});
    if (variable.column) {
      nowhere.insert(nowhere.end(), {parent + ".1.0", oid + ".1000000"});
    } else {
      nowhere.push_back(oid + ".1");
    }
  }
  for (const char *text :
       {"11", "11.0", "11.1", "11.1.99.0", "11.2.3.1", "11.3.1.1", "21.3.2.1.0"}) {
    nowhere.push_back(std::string("1.3.6.1.4.1.4891.") + text);
  }
  // A component that no module will ever have, since sub-identifiers of a signed number end there.
  nowhere.push_back("1.3.6.1.4.1.4891.11.2.2147483647.1.0");
  for (const std::string &oid : nowhere) {
    auto none = QuickGet(oid);
    ASSERT_TRUE(none) << oid;
    EXPECT_EQ(none->error, 0) << oid;
    EXPECT_TRUE(none->tag == kNoSuchObject || none->tag == kNoSuchInstance) << oid;
  }
}

// The modules and their stand-ins alone, as on a machine without any base modules.
TEST(MibTable, NamesComeBackFromTheToolsOfAStockMachine) {
  MadeUpHost host;
  host.Directory("/var/lib/snmp/cert_indexes");  // the tools say so when they make it
  host.Proc("stat", "cpu  2 0 2 4 0\ncpu0 1 0 1 2 0\ncpu1 1 0 0 3 0\n");
  host.Start();
  const std::string modules = VEX_TESTS_SOURCE_DIR "/mibs:" VEX_TESTS_SOURCE_DIR "/mibs/base";
  auto run = [&](const std::string &tool, const std::vector<std::string> &arguments) {
    std::vector<std::string> command = {tool, "-v2c", "-cpublic", "-M", modules, "-mALL"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    Outcome outcome = RunCommand(command);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    return Lines(outcome.out);
  };

  EXPECT_EQ(run("snmpget", {"127.0.0.1", "tlxHoMibCondition.0", "tlxHoPhysicalMemorySize.0",
                            "tlxHoClientLastModified.0", "tlxHoCpuUtilHwLocation.1"}),
            (std::vector<std::string>{
                "QUORIX-HOST-MIB::tlxHoMibCondition.0 = INTEGER: normal(2)",
                "QUORIX-HOST-MIB::tlxHoPhysicalMemorySize.0 = INTEGER: 2000 megabytes",
                "QUORIX-HOST-MIB::tlxHoClientLastModified.0 = STRING: 65535-0-0,0:0:0",
                "QUORIX-HOST-MIB::tlxHoCpuUtilHwLocation.1 = STRING: "}));
  EXPECT_EQ(
      run("snmptable", {"-Ci", "-Cf", ",", "127.0.0.1", "tlxHoCpuUtilTable"}),
      (std::vector<std::string>{"SNMP table: QUORIX-HOST-MIB::tlxHoCpuUtilTable", "",
                                "index,tlxHoCpuUtilUnitIndex,tlxHoCpuUtilMin,tlxHoCpuUtilFiveMin,"
                                "tlxHoCpuUtilThirtyMin,tlxHoCpuUtilHour,tlxHoCpuUtilHwLocation",
                                "0,0,50 percent,-1 percent,-1 percent,-1 percent,",
                                "1,1,25 percent,-1 percent,-1 percent,-1 percent,"}));

  auto walked = run("snmpwalk", {"127.0.0.1", "quorixHost"});
  EXPECT_EQ(walked.size(), host.Walk(".1.3.6.1.4.1.4891.11").size());
  for (const std::string &line : walked) {
    EXPECT_TRUE(line.starts_with("QUORIX-HOST-MIB::tlxHo") ||
                line.starts_with("QUORIX-HOST-DETAIL-MIB::tlxHo"))
        << line;
  }
}
