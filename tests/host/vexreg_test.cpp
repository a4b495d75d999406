// vexreg beside the running agent.
#include <signal.h>
#include <sys/stat.h>

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

TEST(Vexreg, SaysThatTheValuesAreThoseOfADeadAgent) {
  MadeUpHost host;
  host.Start();
  EXPECT_EQ(host.Vexreg({"show", "memory"}).err, "");
  host.daemon.StepClock(-3 * 86400);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
  for (const std::vector<std::string> &words :
       {std::vector<std::string>{"show", "memory"}, {"show", "--json"}}) {
    const Outcome outcome = host.Vexreg(words);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err,
              "vexreg: values are 3 days old: no agent runs; start it: systemctl start vexhostd\n");
  }
  const std::string page = host.Vexreg({"report"}).out;
  EXPECT_TRUE(Contains(page, "<p class=\"bad\">Last poll ")) << page.substr(0, 6000);
  EXPECT_TRUE(Contains(page, ", 3 days before: no agent runs; start it"));
  // What fails comes before anything else.
  const size_t failures = page.find("vexhostd: does not run");
  EXPECT_LT(failures, page.find("id=\"identity\"")) << page.substr(0, 6000);
}

TEST(Vexreg, SaysThatTheAgentIsStopped) {
  MadeUpHost host;
  host.snmpd.Start();
  DaemonOptions options;
  options.clock_offset = -3600;
  host.daemon.Start(options);
  // Its own registry, by another path.
  const std::vector<std::string> show = {"--root", std::string(MadeUpHost::kRegistry) + "/.",
                                         "show", "memory"};
  EXPECT_TRUE(
      host.Vexreg(show).err.ends_with(" old: the agent runs, but is silent; run: vexreg doctor\n"))
      << host.Vexreg(show).err;
  host.daemon.Signal(SIGSTOP);
  EXPECT_TRUE(host.Vexreg(show).err.ends_with(
      " old: the agent is stopped by a signal; continue it, or restart it\n"))
      << host.Vexreg(show).err;
  host.daemon.Signal(SIGCONT);
}

TEST(Vexreg, SaysThatTheAgentPublishesElsewhere) {
  MadeUpHost host;
  host.Start();
  const Outcome outcome = host.Vexreg({"--root", "/nowhere", "show"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(Contains(outcome.err, "the agent publishes elsewhere; check --root")) << outcome.err;
  // One finding says so, of the registry; groups of others are not the agent's.
  ASSERT_TRUE(host.daemon.Poll());
  ASSERT_EQ(RunCommand({"cp", "-a", MadeUpHost::kRegistry, "/tmp/copy"}).status, 0);
  for (const std::string root : {"/nowhere", "/tmp/copy"}) {
    const std::string found = host.Vexreg({"--root", root, "doctor"}).out;
    EXPECT_TRUE(Contains(found, "FAIL  registry " + root +
                                    "/host: not the agent's, which publishes elsewhere. "
                                    "Check --root.\n"))
        << found;
    EXPECT_FALSE(Contains(found, "group ")) << found;
    EXPECT_FALSE(Contains(found, "FAIL  value")) << found;
  }
}

TEST(Vexreg, ReportsTheHostAsAPage) {
  MadeUpHost host;
  host.snmpd.Start();
  host.daemon.Start({"-p", "15", "-l", "/tmp/agent.log"});
  ASSERT_TRUE(host.daemon.Poll());
  host.File("/tmp/agent.log", "the first line\nthe <last> line\n");
  host.Script("/usr/bin/journalctl", "echo a line of the journal");
  const std::string file = "/tmp/host.html";
  const Outcome made = host.Vexreg({"report", "--output", file});
  EXPECT_EQ(made.status, 0) << made.err;
  EXPECT_EQ(made.out, "");
  struct stat status = {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  const std::string page = ReadFile(file);
  EXPECT_TRUE(page.ends_with("</html>\n"));
  for (const char *part : {"<p class=\"faint\">Last poll ", "group cpu: ", "id=\"findings\"",
                           "the &lt;last&gt; line"}) {
    EXPECT_TRUE(Contains(page, part)) << part;
  }
  // Whole or not at all.
  host.Directory("/full");
  ASSERT_EQ(RunCommand({"mount", "-t", "tmpfs", "-o", "size=4k", "full", "/full"}).status, 0);
  EXPECT_EQ(host.Vexreg({"report", "--output", "/full/host.html"}).status, 1);
  EXPECT_EQ(RunCommand({"ls", "-A", "/full"}).out, "");
  // Nothing published: a page that says so.
  EXPECT_EQ(host.daemon.Stop(), 0);
  host.Script("/usr/bin/journalctl", "exit 1");
  const Outcome nothing = host.Vexreg({"report"});
  EXPECT_EQ(nothing.status, 1);
  EXPECT_TRUE(Contains(nothing.err, "no agent runs. Start it: systemctl start vexhostd"));
  EXPECT_TRUE(Contains(nothing.out, "The agent publishes nothing."));
  EXPECT_TRUE(Contains(nothing.out, "no log to be read"));
}
