// vexreg beside the running agent.
#include <nlohmann/json.hpp>

#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

bool Contains(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

TEST(Vexreg, SpeaksInWordsOfWhatTheAgentPublishes) {
  MadeUpHost host;
  host.Start();
  const Outcome memory = host.Vexreg({"show", "memory"});
  EXPECT_EQ(memory.status, 0);
  EXPECT_EQ(memory.out,
            "host/memory\n"
            "  PhysicalMemorySize  2.0 GiB\n"
            "  PhysicalMemoryFree  1.0 GiB\n"
            "  PagingMemorySize    1.0 GiB\n"
            "  PagingMemoryFree    500 MiB\n");
  EXPECT_TRUE(
      Contains(host.Vexreg({"show", "--raw", "memory"}).out, "PhysicalMemorySize (MB)  2000\n"));
  const Outcome cpu = host.Vexreg({"show", "cpu"});
  EXPECT_TRUE(Contains(cpu.out, "not known yet")) << cpu.out;
  ASSERT_TRUE(host.daemon.Poll());  // the first one that finds this agent's own object
  const std::string misc = host.Vexreg({"show", "misc"}).out;
  EXPECT_TRUE(Contains(misc, "  MibStatusArray        worst condition: normal\n")) << misc;
  EXPECT_TRUE(Contains(misc, "11 host       runs   normal ")) << misc;

  const auto json = nlohmann::json::parse(host.Vexreg({"show", "--json"}).out);
  EXPECT_EQ(json["host/misc"]["tlxHoMibCondition"], "normal");
  EXPECT_EQ(json["host/info"]["tlxHoOsType"], "linux");
  EXPECT_TRUE(json["host/cpu.0"]["tlxHoCpuUtilHour"].is_null());
  EXPECT_EQ(json["host/memory"]["tlxHoPhysicalMemorySize"], 2000);

  const Outcome wrong = host.Vexreg({"show", "memroy"});
  EXPECT_EQ(wrong.status, 1);
  EXPECT_EQ(wrong.err, "vexreg: memroy: no such object; did you mean host/memory?\n");
}

TEST(Vexreg, ExportsWhatTheAgentPublishes) {
  MadeUpHost host;
  host.Start();
  const Outcome text = host.Vexreg({"export"});
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_TRUE(Contains(text.out, "\nvexhost_memory_size_bytes 2097152000\n")) << text.out;
  EXPECT_TRUE(Contains(text.out, "\nvexhost_condition{condition=\"normal\"} 1\n")) << text.out;
  EXPECT_TRUE(Contains(text.out, "\nvexhost_cpu_utilisation_ratio{cpu=\"0\",window=\"1m\"} "))
      << text.out;
  EXPECT_FALSE(Contains(text.out, "window=\"1h\"")) << text.out;
  EXPECT_TRUE(Contains(text.out, "\nvexhost_last_poll_timestamp_seconds ")) << text.out;
  EXPECT_TRUE(text.out.ends_with("# EOF\n"));
}

TEST(Vexreg, SaysWhyNothingIsPublished) {
  MadeUpHost host;
  host.Start();
  host.daemon.Stop();
  const Outcome nothing = host.Vexreg({"show"});
  EXPECT_EQ(nothing.status, 1);
  EXPECT_TRUE(Contains(nothing.err, "no agent runs. Start it: systemctl start vexhostd"))
      << nothing.err;
  EXPECT_EQ(host.Vexreg({"dump"}).out, "{}\n");
  EXPECT_EQ(host.Vexreg({"export"}).status, 1);
}

TEST(Vexreg, DoctorSpeaksToPrograms) {
  MadeUpHost host;
  host.Start();
  const auto findings = nlohmann::json::parse(host.Vexreg({"doctor", "--json"}).out);
  ASSERT_GT(findings.size(), 15U);
  for (const auto &finding : findings) {
    EXPECT_EQ(finding.size(), 3U);
    EXPECT_NE(finding["check"], "");
  }
  EXPECT_EQ(findings[0]["check"], "snmpd");
  EXPECT_EQ(findings[0]["state"], "ok");
  EXPECT_EQ(findings.back()["check"], "doctor");
}
