#include "tools/vexreg/page.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <map>

#include "tests/unit/tools/made_object.h"

namespace vex {
namespace {

constexpr char kHostile[] = "<script>alert('x')</script>&\"@BODY@\x1b[2J";

PageFacts Hostile() {
  PageFacts facts;
  facts.made = kHostile;
  facts.program = "1";
  facts.source = kHostile;
  facts.objects = {
      {"host/info", MadeObject({Text("tlxHoSystemName", 200, kHostile),
                                Text("tlxHoSystemRole", 200, kHostile)})},
      {"host/filesys.0",
       MadeObject({Text("tlxHoFileSysDesc", 200, kHostile), Int("tlxHoFileSysSpaceTotal", 5),
                   Int("tlxHoFileSysSpaceUsed", 2147483647),
                   Int("tlxHoFileSysPercentSpaceUsed", -2147483647)})},
      {"host/swver.0", MadeObject({Text("tlxHoSwVerName", 200, kHostile),
                                   Text("tlxHoSwVerVersion", 200, kHostile)})},
      {"host/memory",
       MadeObject({Int("tlxHoPhysicalMemorySize", 0), Int("tlxHoPhysicalMemoryFree", -5)})}};
  facts.findings = {{"fail", kHostile}, {kHostile, kHostile}};
  facts.log = {kHostile};
  return facts;
}

size_t Count(const std::string &text, const std::string &part) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
    count++;
  }
  return count;
}

TEST(Page, HostileTextStaysText) {
  const std::string page = ReportPage(Hostile());
  EXPECT_EQ(page.find("<script"), std::string::npos);
  EXPECT_EQ(page.find('\x1b'), std::string::npos);
  EXPECT_EQ(Count(page, "<main>"), 1U);
  EXPECT_EQ(Count(page, "&lt;script&gt;alert(&#39;x&#39;)&lt;/script&gt;&amp;&quot;&#64;BODY&#64;"),
            11U);
  // title and heading, time and source, name, role, file system, package, version, finding, log
  EXPECT_EQ(page.find("width:-"), std::string::npos);
}

TEST(Page, NeedsNothingBesideIt) {
  const std::string page = ReportPage(Hostile());
  for (const char *part : {"http:", "https:", "url(", "@import", "src=", "<link", "javascript",
                           " onload", " onclick", "@TITLE@", "@BODY@", "@SECTIONS@", "@FOOTER@"}) {
    EXPECT_EQ(page.find(part), std::string::npos) << part;
  }
}

TEST(Page, HasAStructureForThoseWhoListen) {
  const std::string page = ReportPage(Hostile());
  EXPECT_NE(page.find("<html lang=\"en\">"), std::string::npos);
  for (const char *landmark : {"header", "nav", "main", "footer", "h1"}) {
    EXPECT_EQ(Count(page, "<" + std::string(landmark) + ">") +
                  Count(page, "<" + std::string(landmark) + " "),
              1U)
        << landmark;
  }
  EXPECT_EQ(Count(page, "<table"), Count(page, "<caption>"));
  EXPECT_EQ(Count(page, "<section "), Count(page, "<h2 "));
  EXPECT_EQ(Count(page, "<section "), Count(page, "<li><a href=\"#"));
  for (const char *element : {"table", "section", "tr", "td", "th", "span", "div", "tbody"}) {
    EXPECT_EQ(Count(page, "<" + std::string(element) + ">") +
                  Count(page, "<" + std::string(element) + " "),
              Count(page, "</" + std::string(element) + ">"))
        << element;
  }
}

TEST(Page, IsThereWithoutAnyObject) {
  const std::string page = ReportPage({});
  EXPECT_NE(page.find("The agent publishes nothing."), std::string::npos);
  EXPECT_TRUE(page.ends_with("</html>\n"));
}

// What the kernel would give back is not in use.
TEST(Page, MemoryThatIsAvailableIsNotInUse) {
  PageFacts facts;
  facts.objects = {{"host/memory", MadeObject({Int("tlxHoPhysicalMemorySize", 1000),
                                               Int("tlxHoPhysicalMemoryFree", 50)})},
                   {"host/memdetail", MadeObject({Int("tlxHoMemoryAvailable", 900)})}};
  const std::string page = ReportPage(facts);
  EXPECT_NE(page.find("width:10%"), std::string::npos);
  EXPECT_NE(page.find(">10 %<"), std::string::npos);
  EXPECT_NE(page.find(">In use</th>"), std::string::npos);
  EXPECT_EQ(page.find("95 %"), std::string::npos);
}

TEST(Page, SaysHowOldTheValuesAre) {
  PageFacts facts;
  facts.moment = 1'700'000'000;
  facts.agent = "no agent runs";
  NamedObject misc = {"host/misc", MadeObject({Int("tlxHoOsCommonPollFreq", 15)})};
  misc.object.published_ns = (facts.moment - 4) * 1'000'000'000;
  facts.objects = {misc};
  EXPECT_NE(ReportPage(facts).find(", 4 s before</p>"), std::string::npos);
  facts.objects[0].object.published_ns -= int64_t{86400} * 3 * 1'000'000'000;
  const std::string page = ReportPage(facts);
  EXPECT_NE(page.find("<p class=\"bad\">Last poll "), std::string::npos);
  EXPECT_NE(page.find(", 3 days before: no agent runs</p>"), std::string::npos) << page;
}

TEST(Page, FailuresComeFirst) {
  PageFacts facts;
  facts.findings = {{"ok", "all is well"}, {"fail", "snmpd: not running"}};
  std::string page = ReportPage(facts);
  EXPECT_LT(page.find("snmpd: not running"), page.find("id=\"identity\""));
  EXPECT_GT(page.find("all is well"), page.find("id=\"identity\""));
  facts.findings.clear();
  facts.no_findings = "doctor did not end in 20 s";
  facts.no_log = "no log to be read";
  page = ReportPage(facts);
  EXPECT_NE(page.find(facts.no_findings), std::string::npos);
  EXPECT_NE(page.find(facts.no_log), std::string::npos);
}

TEST(Page, LeavesOutWhatSaysNothingAndFoldsLongTables) {
  PageFacts facts;
  for (int i = 0; i < 30; i++) {
    const std::string row = std::to_string(i);
    facts.objects.push_back({"host/filesys." + row,
                             MadeObject({Text("tlxHoFileSysDesc", 40, "file system " + row + "."),
                                         Int("tlxHoFileSysSpaceTotal", i < 5 ? 0 : 100),
                                         Int("tlxHoFileSysPercentSpaceUsed", i)})});
  }
  facts.objects.push_back(
      {"host/mount.29", MadeObject({Text("tlxHoMountType", 8, "xfs"), Int("tlxHoMountReadOnly", 1),
                                    Int("tlxHoMountState", 3)})});
  for (int i = 0; i < 3; i++) {
    facts.objects.push_back({"host/sibling." + std::to_string(i),
                             MadeObject({Text("tlxHoSiblingName", 40, "agent" + std::to_string(i)),
                                         Int("tlxHoSiblingPresent", i == 1 ? 1 : 2)})});
  }
  const std::string page = ReportPage(facts);
  EXPECT_EQ(page.find("file system 4."), std::string::npos);
  EXPECT_NE(page.find("5 without space are left out"), std::string::npos);
  const size_t fold = page.find("<summary>5 more</summary>");
  ASSERT_NE(fold, std::string::npos);
  EXPECT_LT(page.find("file system 29."), page.find("file system 10."));
  EXPECT_LT(page.find("file system 10."), fold);
  EXPECT_GT(page.find("file system 9."), fold);
  for (const char *cell :
       {">xfs<", ">read-only<", ">silent<", ">runs<", "No agent: agent0, agent2<"}) {
    EXPECT_NE(page.find(cell), std::string::npos) << cell;
  }
}

// WCAG 2.1, 1.4.3.
double Luminance(const std::string &colour) {
  unsigned parts[3] = {};
  EXPECT_EQ(sscanf(colour.c_str(), "#%2x%2x%2x", &parts[0], &parts[1], &parts[2]), 3) << colour;
  const auto linear = [](unsigned part) {
    const double c = part / 255.0;
    return c <= 0.03928 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
  };
  return 0.2126 * linear(parts[0]) + 0.7152 * linear(parts[1]) + 0.0722 * linear(parts[2]);
}

double Contrast(const std::string &a, const std::string &b) {
  const double first = Luminance(a);
  const double second = Luminance(b);
  return (std::max(first, second) + 0.05) / (std::min(first, second) + 0.05);
}

TEST(Page, ColoursCanBeReadInLightAndDark) {
  const std::string page = ReportPage({});
  std::map<std::string, std::string> colours;
  size_t at = page.find(":root");
  for (const char *scheme : {"light", "dark"}) {
    at = page.find("--paper", at + 1);
    const std::string block = page.substr(at, page.find('}', at) - at);
    for (const char *name :
         {"paper", "card", "ink", "faint", "track", "bar", "good", "warning", "bad"}) {
      const size_t value = block.find("--" + std::string(name) + ":");
      ASSERT_NE(value, std::string::npos) << name;
      colours[name] = block.substr(block.find('#', value), 7);
    }
    for (const char *text : {"ink", "faint", "good", "warning", "bad", "bar"}) {
      for (const char *ground : {"paper", "card"}) {
        EXPECT_GE(Contrast(colours[text], colours[ground]), 4.5)
            << scheme << ": " << text << " on " << ground;
      }
    }
    for (const char *bar : {"bar", "warning", "bad"}) {
      EXPECT_GE(Contrast(colours[bar], colours["track"]), 3) << scheme << ": " << bar;
    }
  }
}

NamedObject SiblingRow(int number, const char *name, int present, int condition) {
  return {"host/sibling." + std::to_string(number),
          MadeObject({Text("tlxHoSiblingName", 8, name), Int("tlxHoSiblingPresent", present),
                      Int("tlxHoSiblingCondition", condition)})};
}

TEST(Page, SiblingsThatRunAndThoseThatDoNot) {
  PageFacts facts;
  facts.objects = {SiblingRow(1, "nics", 1, 4)};
  std::string page = ReportPage(facts);
  EXPECT_NE(page.find("<span class=\"bad\">severe</span>"), std::string::npos);
  EXPECT_EQ(page.find("No agent:"), std::string::npos);
  facts.objects = {SiblingRow(1, "nics", 2, -1), SiblingRow(2, "rack", 2, -1)};
  page = ReportPage(facts);
  EXPECT_NE(page.find("No agent: nics, rack</p>"), std::string::npos);
  EXPECT_EQ(page.find("Agents of the same suite"), std::string::npos);
}

TEST(Page, HasNoLoadThatIsNotThere) {
  PageFacts facts;
  facts.objects = {{"host/cpu.0", MadeObject({Int("tlxHoCpuUtilMin", 5)})}};
  EXPECT_EQ(ReportPage(facts).find("<p>Load: "), std::string::npos);
  facts.objects.push_back({"host/load", MadeObject({Int("tlxHoLoadOne", 42)})});
  EXPECT_NE(ReportPage(facts).find("<p>Load: 0.42, "), std::string::npos);
}

TEST(Page, FileSystemsThatNothingIsKnownOf) {
  PageFacts facts;
  facts.objects = {{"host/filesys.0",
                    MadeObject({Text("tlxHoFileSysDesc", 8, ""), Int("tlxHoFileSysSpaceTotal", -1),
                                Int("tlxHoFileSysPercentSpaceUsed", -1)})}};
  const std::string page = ReportPage(facts);
  const size_t at = page.find("class=\"long\"><span class=\"faint\">not known</span></th>");
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(page.find("class=\"meter\"", at), std::string::npos);
}

}  // namespace
}  // namespace vex
