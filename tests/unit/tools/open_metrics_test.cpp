// OpenMetrics text.
#include "tools/vexreg/open_metrics.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "tests/unit/tools/made_object.h"

using namespace vex;

namespace {

using Samples = std::map<std::string, std::string>;

// Reads a text by the rules of OpenMetrics 1.0 and returns its samples; a text that breaks one of
// them fails the test: families are not interleaved, metadata stands before samples and once, a
// unit is the end of the name, labels are quoted and escaped, no sample stands twice, "# EOF" ends.
Samples Parse(const std::string &text) {
  Samples samples;
  EXPECT_TRUE(text.ends_with("# EOF\n")) << text;
  const std::regex metadata("# (TYPE|UNIT|HELP) ([a-z_]+) (.+)");
  const std::regex sample(
      R"re(([a-z_]+)(\{(?:[a-z_]+="(?:[^"\\\n]|\\["\\n])*"(?:,(?!\}))?)+\})? (-?[0-9.e+]+))re");
  std::istringstream lines(text);
  std::string family;
  std::set<std::string> families;
  std::set<std::string> said;
  bool sampled = false;
  bool ended = false;
  for (std::string line; std::getline(lines, line);) {
    EXPECT_FALSE(ended) << line;
    std::smatch match;
    if (line == "# EOF") {
      ended = true;
    } else if (std::regex_match(line, match, metadata)) {
      if (match[2] != family) {
        family = match[2];
        said.clear();
        sampled = false;
        EXPECT_TRUE(families.insert(family).second) << line;
      }
      EXPECT_FALSE(sampled) << line;
      EXPECT_TRUE(said.insert(match[1]).second) << line;
      if (match[1] == "UNIT") {
        EXPECT_TRUE(family.ends_with("_" + match[3].str())) << line;
      }
    } else if (std::regex_match(line, match, sample)) {
      EXPECT_EQ(match[1], family);
      EXPECT_TRUE(said.contains("TYPE") && said.contains("HELP")) << line;
      EXPECT_TRUE(samples.emplace(match[1].str() + match[2].str(), match[3]).second) << line;
      sampled = true;
    } else {
      ADD_FAILURE() << line;
    }
  }
  return samples;
}

MadeVariable Type(const std::string &name, const std::string &text) {
  return Text(name, 64, text);
}

NamedObject FileSystem(int row, const std::string &description, int total, int used) {
  return {"host/filesys." + std::to_string(row),
          MadeObject({Type("tlxHoFileSysDesc", description), Int("tlxHoFileSysSpaceTotal", total),
                      Int("tlxHoFileSysSpaceUsed", used), Int("tlxHoFileSysAllocUnitsTotal", 1000),
                      Int("tlxHoFileSysAllocUnitsUsed", 10)})};
}

TEST(OpenMetrics, OfProcessorsAndMemory) {
  const Samples samples = Parse(OpenMetrics(
      {{"host/cpu.0", MadeObject({Int("tlxHoCpuUtilMin", 93), Int("tlxHoCpuUtilFiveMin", 0),
                                  Int("tlxHoCpuUtilHour", -1)})},
       {"host/cpu.11", MadeObject({Int("tlxHoCpuUtilMin", 100)})},
       {"host/memory",
        MadeObject({Int("tlxHoPhysicalMemorySize", 2147483647), Int("tlxHoPhysicalMemoryFree", 17),
                    Int("tlxHoPagingMemorySize", -1), Int("tlxHoPagingMemoryFree", -1)})}}));
  EXPECT_EQ(samples, (Samples{
                         {R"(vexhost_cpu_utilisation_ratio{cpu="0",window="1m"})", "0.93"},
                         {R"(vexhost_cpu_utilisation_ratio{cpu="0",window="5m"})", "0"},
                         {R"(vexhost_cpu_utilisation_ratio{cpu="11",window="1m"})", "1"},
                         {"vexhost_memory_size_bytes", "2251799812636672"},
                         {"vexhost_memory_free_bytes", "17825792"},
                     }));
}

TEST(OpenMetrics, OfFileSystemsByTheirDescription) {
  const Samples samples = Parse(OpenMetrics({FileSystem(0, "/dev/sda1 on /", 1, 0),
                                             FileSystem(3, "a on b on /mnt/c on d", 2, 1),
                                             FileSystem(4, "a on b on /mnt/c on d", 9, 9)}));
  EXPECT_EQ(
      samples.at(R"(vexhost_filesystem_size_bytes{device="/dev/sda1",mountpoint="/",fstype=""})"),
      "1048576");
  // Mounted over one another: the first stays, as no sample may stand twice.
  EXPECT_EQ(
      samples.at(
          R"(vexhost_filesystem_used_bytes{device="a on b",mountpoint="/mnt/c on d",fstype=""})"),
      "1048576");
  EXPECT_EQ(samples.at(R"(vexhost_filesystem_inodes{device="/dev/sda1",mountpoint="/",fstype=""})"),
            "1000");
  EXPECT_EQ(
      samples.at(R"(vexhost_filesystem_inodes_used{device="/dev/sda1",mountpoint="/",fstype=""})"),
      "10");
  EXPECT_EQ(samples.size(), 8U);
}

TEST(OpenMetrics, OfFileSystemsByTheirMounts) {
  const Samples samples = Parse(OpenMetrics(
      {FileSystem(0, "/dev/sda1 on /very/lo...", 1, 0),
       {"host/mount.0",
        MadeObject({Type("tlxHoMountDevice", "/dev/sda1"),
                    Type("tlxHoMountDirectory", "/very/long"), Type("tlxHoMountType", "ext4"),
                    Int("tlxHoMountReadOnly", 2), Int("tlxHoMountState", 1)})},
       FileSystem(1, "/dev/sr0 on /media", 1, 1),
       {"host/mount.1",
        MadeObject({Type("tlxHoMountDevice", "/dev/sr0"), Type("tlxHoMountDirectory", "/media"),
                    Type("tlxHoMountType", "iso9660"), Int("tlxHoMountReadOnly", 1)})},
       // Not known.
       FileSystem(2, "none on /x", -1, -1),
       {"host/mount.2", MadeObject({Int("tlxHoMountReadOnly", -1)})}}));
  EXPECT_EQ(
      samples.at(
          R"(vexhost_filesystem_size_bytes{device="/dev/sda1",mountpoint="/very/long",fstype="ext4"})"),
      "1048576");
  EXPECT_EQ(
      samples.at(
          R"(vexhost_filesystem_readonly{device="/dev/sda1",mountpoint="/very/long",fstype="ext4"})"),
      "0");
  EXPECT_EQ(
      samples.at(
          R"(vexhost_filesystem_readonly{device="/dev/sr0",mountpoint="/media",fstype="iso9660"})"),
      "1");
  EXPECT_EQ(samples.size(), 12U);
}

// A row has its description from the first answer on; before, its figures are 0 of nothing.
TEST(OpenMetrics, OfAFileSystemThatHasNeverAnswered) {
  const NamedObject mount = {
      "host/mount.0", MadeObject({Type("tlxHoMountDevice", "server:/x"),
                                  Type("tlxHoMountDirectory", "/x"), Type("tlxHoMountType", "nfs4"),
                                  Int("tlxHoMountReadOnly", 2), Int("tlxHoMountState", 3)})};
  EXPECT_EQ(
      Parse(OpenMetrics({FileSystem(0, "", 0, 0), mount})),
      (Samples{{R"(vexhost_filesystem_readonly{device="server:/x",mountpoint="/x",fstype="nfs4"})",
                "0"}}));
  EXPECT_EQ(Parse(OpenMetrics({FileSystem(0, "", 0, 0)})), Samples{});
  // One that has answered before has its last figures.
  EXPECT_EQ(Parse(OpenMetrics({FileSystem(0, "server:/x on /x", 5, 1), mount})).size(), 5U);
}

// Where the kernel says nothing of memory, the agent's older object keeps its figures, and the
// details have none.
TEST(OpenMetrics, OfMemoryThatCannotBeRead) {
  const NamedObject memory = {
      "host/memory",
      MadeObject({Int("tlxHoPhysicalMemorySize", 4), Int("tlxHoPhysicalMemoryFree", 3),
                  Int("tlxHoPagingMemorySize", 2), Int("tlxHoPagingMemoryFree", 1)})};
  const auto detail = [](int available, int cached) {
    return NamedObject{"host/memdetail", MadeObject({Int("tlxHoMemoryAvailable", available),
                                                     Int("tlxHoMemoryCached", cached)})};
  };
  EXPECT_EQ(Parse(OpenMetrics({memory, detail(-1, -1)})), Samples{});
  EXPECT_EQ(Parse(OpenMetrics({memory, detail(-1, 1)})).size(), 5U);
  EXPECT_EQ(Parse(OpenMetrics({memory})).size(), 4U);
}

TEST(OpenMetrics, OfTheAgentAndItsSiblings) {
  std::string array(108, '\0');
  array.replace(4 * 11, 4, std::string("\x01\x02\x01\x00", 4));
  array.replace(4 * 6, 4, std::string("\x01\x00\x01\x00", 4));  // does not judge itself
  NamedObject misc = {"host/misc", MadeObject({Int("tlxHoMibCondition", 3),
                                               Octets("tlxHoMibStatusArray", 108, array)})};
  misc.object.published_ns = 1763784000123456789;
  const Samples alone = Parse(OpenMetrics({misc}));
  EXPECT_EQ(alone.at(R"(vexhost_condition{condition="raised"})"), "1");
  EXPECT_EQ(alone.at(R"(vexhost_condition{condition="normal"})"), "0");
  EXPECT_EQ(alone.at(R"(vexhost_sibling_condition{sibling="host",condition="normal"})"), "1");
  EXPECT_EQ(alone.count(R"(vexhost_sibling_condition{sibling="health",condition="normal"})"), 0U);
  EXPECT_EQ(alone.at("vexhost_last_poll_timestamp_seconds"), "1763784000.123");

  const Samples samples = Parse(OpenMetrics(
      {misc,
       {"host/agent",
        MadeObject({Type("tlxHoAgentVersion", "1.2"), Int("tlxHoAgentLastPoll", 1763784001),
                    Int("tlxHoAgentPollDuration", 12)})},
       {"host/load", MadeObject({Int("tlxHoLoadOne", 42), Int("tlxHoLoadFive", -1)})},
       {"host/memdetail",
        MadeObject({Int("tlxHoMemoryAvailable", 2), Int("tlxHoMemoryCached", 1)})},
       {"host/sibling.0",
        MadeObject({Type("tlxHoSiblingName", "thermal"), Int("tlxHoSiblingPresent", 1),
                    Int("tlxHoSiblingCondition", 4)})},
       {"host/sibling.1",
        MadeObject({Type("tlxHoSiblingName", "gone"), Int("tlxHoSiblingPresent", 2),
                    Int("tlxHoSiblingCondition", 4)})}}));
  EXPECT_EQ(samples.at(R"(vexhost_sibling_condition{sibling="thermal",condition="severe"})"), "1");
  EXPECT_EQ(samples.count(R"(vexhost_sibling_condition{sibling="gone",condition="severe"})"), 0U);
  EXPECT_EQ(samples.count(R"(vexhost_sibling_condition{sibling="host",condition="normal"})"), 0U);
  EXPECT_EQ(samples.at("vexhost_last_poll_timestamp_seconds"), "1763784001");
  EXPECT_EQ(samples.at("vexhost_poll_duration_seconds"), "0.012");
  EXPECT_EQ(samples.at(R"(vexhost_load{window="1m"})"), "0.42");
  EXPECT_EQ(samples.count(R"(vexhost_load{window="5m"})"), 0U);
  EXPECT_EQ(samples.at("vexhost_memory_available_bytes"), "2097152");
  EXPECT_EQ(samples.at("vexhost_memory_cached_bytes"), "1048576");
}

TEST(OpenMetrics, OfSoftwareAndFirmware) {
  const auto software = [](int row) {
    return NamedObject{"host/swver." + std::to_string(row),
                       MadeObject({Type("tlxHoSwVerName", "x"), Type("tlxHoSwVerVersion", "1"),
                                   Int("tlxHoSwVerType", 2), Type("tlxHoSwVerDescription", "d")})};
  };
  const Samples samples = Parse(OpenMetrics(
      {software(0),
       software(1),  // twice the same
       {"host/fwver.0",
        MadeObject({Type("tlxHoFwVerDisplayName", "ROM"), Type("tlxHoFwVerVersion", "2"),
                    Type("tlxHoFwVerLocation", "here"), Type("tlxHoFwVerKeyString", "k")})},
       {"host/fwver.3", MadeObject({Type("tlxHoFwVerDisplayName", "DISK")})},
       {"host/fwkind.3", MadeObject({Int("tlxHoFwKindDevice", 9)})},
       {"host/info", MadeObject({Type("tlxHoSystemName", "h")})}}));
  EXPECT_EQ(
      samples,
      (Samples{
          {R"(vexhost_software_info{name="x",version="1",type="driver",description="d"})", "1"},
          {R"(vexhost_firmware_info{name="ROM",version="2",location="here",device="",key="k"})",
           "1"},
          {R"(vexhost_firmware_info{name="DISK",version="",location="",device="scsiDisk",key=""})",
           "1"},
          {R"(vexhost_info{hostname="h",os="",os_version="",os_description="",role="",guid="",)"
           R"(agent_version=""})",
           "1"}}));
}

TEST(OpenMetrics, EscapeWhatLabelsHold) {
  const std::string text = OpenMetrics({FileSystem(0, "a\"b\\c on /\n\x07\xFF", 1, 1)});
  Parse(text);
  EXPECT_NE(text.find("device=\"a\\\"b\\\\c\",mountpoint=\"/\\n\\\\x07\u00FF\""), std::string::npos)
      << text;
}

TEST(OpenMetrics, OfNothing) {
  EXPECT_EQ(OpenMetrics({}), "# EOF\n");
  EXPECT_EQ(OpenMetrics({{"host/cpu.0", MadeObject({})}, {"rack/misc", MadeObject({Int("v", 1)})}}),
            "# EOF\n");
}

TEST(OpenMetrics, SplitDescriptions) {
  using Parts = std::pair<std::string, std::string>;
  EXPECT_EQ(SplitDescription("/dev/sda1 on /"), (Parts{"/dev/sda1", "/"}));
  EXPECT_EQ(SplitDescription("a on b"), (Parts{"a", "b"}));
  EXPECT_EQ(SplitDescription("a on on /x on /y"), (Parts{"a on", "/x on /y"}));
  EXPECT_EQ(SplitDescription("odd"), (Parts{"", "odd"}));
}

TEST(OpenMetrics, OfWhatIsNotKnown) {
  const Samples samples = Parse(OpenMetrics(
      {{"host/swver.0", MadeObject({Type("tlxHoSwVerName", "x"),
                                    {"tlxHoSwVerVersion", 0, "1", 1},
                                    Int("tlxHoSwVerType", -1)})},
       {"host/swver.1", MadeObject({Type("tlxHoSwVerName", "y"), Int("tlxHoSwVerType", 77)})}}));
  EXPECT_EQ(
      samples,
      (Samples{{R"(vexhost_software_info{name="x",version="",type="",description=""})", "1"},
               {R"(vexhost_software_info{name="y",version="",type="77",description=""})", "1"}}));
}

}  // namespace
