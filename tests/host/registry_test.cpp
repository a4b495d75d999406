// The registry's files as a sibling agent sees them, and siblings' files as the readers see them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

std::string PathOf(const std::string &object) {
  return std::string(MadeUpHost::kRegistry) + "/" + object;
}

}  // namespace

TEST(Registry, DumpIsWhatIsPublished) {
  MadeUpHost host;
  host.Proc("stat", "cpu 0 0 0 0\ncpu0 30 0 0 70\ncpu1 20 0 0 80\n");
  host.daemon.Start();
  auto dump = nlohmann::ordered_json::parse(host.Dump({"host/memory", "host/cpu.1"}));
  auto expected = nlohmann::ordered_json::parse(R"({
    "host/memory": {"tlxHoPhysicalMemorySize": 2000, "tlxHoPhysicalMemoryFree": 1000,
                    "tlxHoPagingMemorySize": 1000, "tlxHoPagingMemoryFree": 500},
    "host/cpu.1": {"tlxHoCpuUtilUnitIndex": 1, "tlxHoCpuUtilMin": 20, "tlxHoCpuUtilFiveMin": -1,
                   "tlxHoCpuUtilThirtyMin": -1, "tlxHoCpuUtilHour": -1,
                   "tlxHoCpuUtilHwLocation": ""}})");
  EXPECT_EQ(dump["host/memory"].dump(), expected["host/memory"].dump());
  EXPECT_EQ(dump["host/cpu.1"].dump(), expected["host/cpu.1"].dump());
  EXPECT_EQ(dump.size(), 2U);
  auto all = nlohmann::ordered_json::parse(host.Dump());
  EXPECT_EQ(all.size(), MadeUpHost::Objects().size());
  EXPECT_EQ(host.Vexreg({"dump", "host/cpu.2"}).status, 1);
}

TEST(Registry, TheObjectsFormat) {
  MadeUpHost host;
  host.daemon.Start();
  auto memory = MadeUpHost::Object("host/memory");
  ASSERT_TRUE(memory);
  EXPECT_EQ(memory->data.size(), 16U);
  ASSERT_EQ(memory->variables.size(), 4U);
  EXPECT_EQ(memory->variables[3].name, "tlxHoPagingMemoryFree");
  EXPECT_EQ(memory->variables[3].offset, 12U);
  auto cpu = MadeUpHost::Object("host/cpu.0");
  ASSERT_TRUE(cpu);
  EXPECT_EQ(cpu->data.size(), 976U);
  EXPECT_EQ(cpu->variables.size(), 6U);
}

TEST(Registry, ASiblingsFileTruncatedAnywhereIsAbsent) {
  MadeUpHost host;
  ASSERT_EQ(host.Vexreg({"put", "stdeq/misc", "int:7", "str:32:text", "hex:0102ff"}).status, 0);
  std::string whole = ReadFile(PathOf("stdeq/misc"));
  ASSERT_FALSE(whole.empty());
  ASSERT_TRUE(MadeUpHost::Object("stdeq/misc"));
  auto expected = MadeUpHost::Object("stdeq/misc");
  for (size_t length = 0; length < whole.size(); length++) {
    host.File(PathOf("stdeq/misc"), whole.substr(0, length));
    auto object = MadeUpHost::Object("stdeq/misc");
    // A file that has lost only its older slot's place still holds the newest state whole.
    if (object) {
      EXPECT_EQ(object->data, expected->data) << length;
      EXPECT_GT(length, whole.size() / 2);
    }
  }
  for (size_t length : {size_t{0}, size_t{1}, whole.size() / 4}) {
    host.File(PathOf("stdeq/misc"), whole.substr(0, length));
    EXPECT_EQ(host.Vexreg({"dump", "stdeq/misc"}).status, 1) << length;
  }
}

TEST(Registry, OtherThingsThanFilesAreAbsent) {
  MadeUpHost host;
  ASSERT_EQ(host.Vexreg({"put", "stdeq/misc", "int:7"}).status, 0);
  host.Link(PathOf("stdeq/link"), PathOf("stdeq/misc"));
  ASSERT_EQ(mkfifo(PathOf("stdeq/fifo").c_str(), 0644), 0);
  host.Directory(PathOf("stdeq/directory"));
  for (const char *name : {"stdeq/link", "stdeq/fifo", "stdeq/directory", "stdeq/nothing", "stdeq",
                           "../../../etc/passwd", "/etc/passwd", ""}) {
    EXPECT_FALSE(MadeUpHost::Object(name)) << name;
    EXPECT_EQ(host.Vexreg({"dump", name}).status, 1) << name;
  }
  EXPECT_EQ(host.Vexreg({"dump", "../../kelmo/registry/stdeq/misc"}).status, 0);
}

// A reader watches while the agent publishes as fast as it can and is killed in the middle.
TEST(Registry, AReaderNeverSeesAMixture) {
  MadeUpHost host;
  for (int life = 0; life < 20; life++) {
    host.StartTestAgent({"plain"}, false);
    host.SetOrders("pair 1000000000\n");
    host.daemon.BeginPoll();
    ASSERT_TRUE(Eventually(
        [] { return MadeUpHost::Published("host/test", "tlxHoName").starts_with("publication"); }));
    for (int i = 0; i < 200; i++) {
      auto object = MadeUpHost::Object("host/test");
      ASSERT_TRUE(object);
      const char *data = reinterpret_cast<const char *>(object->data.data());
      ASSERT_STREQ(data + object->variables[0].offset, data + object->variables[1].offset);
    }
    EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
    auto object = MadeUpHost::Object("host/test");
    ASSERT_TRUE(object);
    const char *data = reinterpret_cast<const char *>(object->data.data());
    ASSERT_STREQ(data + object->variables[0].offset, data + object->variables[1].offset);
  }
}

// A full disk is told once, costs no served value, and is made good when there is room.
TEST(Registry, AFullDisk) {
  MadeUpHost host;
  host.Directory("/var/spool/quorix");
  ASSERT_EQ(
      RunCommand({"mount", "-t", "tmpfs", "-o", "size=64k", "small", "/var/spool/quorix"}).status,
      0);
  host.StartTestAgent();
  std::string before = host.daemon.Log();
  host.File("/var/spool/quorix/filler", std::string(4096, 'x'));
  int fd = open("/var/spool/quorix/filler", O_WRONLY | O_APPEND | O_CLOEXEC);
  char block[4096] = {};
  while (write(fd, block, sizeof(block)) > 0) {
  }
  close(fd);
  ASSERT_TRUE(host.Order("rows 0 3\n"));
  ASSERT_TRUE(host.Order("name still served\n"));
  EXPECT_EQ(host.Get("tlxHoName"), "STRING: \"still served\"");
  EXPECT_EQ(host.Get("tlxHoSwVerIndex.2"), "INTEGER: 2");
  auto told = Lines(host.daemon.Log().substr(before.size()));
  EXPECT_EQ(std::count_if(told.begin(), told.end(),
                          [](const auto &line) { return !line.starts_with("done: "); }),
            1)
      << host.daemon.Log();
  host.Remove("/var/spool/quorix/filler");
  ASSERT_TRUE(host.Order("wait 0\n"));
  EXPECT_TRUE(Eventually([] { return MadeUpHost::Object("host/row.2").has_value(); }));
  EXPECT_EQ(MadeUpHost::Published("host/test", "tlxHoName"), "still served");
}

// The values of an agent whose files cannot be written are served all the same.
TEST(Registry, IsInTheWayOfNothing) {
  MadeUpHost host;
  host.File(PathOf("host"), "not a directory");
  host.Start();
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
  EXPECT_EQ(host.daemon.Count("Can't write registry file"), 1U) << host.daemon.Log();
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Count("Can't write registry file"), 1U) << host.daemon.Log();
  host.Remove(PathOf("host"));
  host.Directory(PathOf("host"));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_TRUE(Eventually([] { return MadeUpHost::Object("host/memory").has_value(); }));
}
