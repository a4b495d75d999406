// What a replay writes.
#include "tools/vexreg/replay_texts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>

namespace vex {
namespace {

std::string Printed(const std::function<void()> &print) {
  testing::internal::CaptureStdout();
  print();
  std::cout << std::flush;
  return testing::internal::GetCapturedStdout();
}

Capture Captured() {
  Capture capture;
  capture.host = "a\x1b[2Jhost";
  capture.made = "2026-01-02T03:04:05Z";
  capture.agent = "1.2";
  return capture;
}

// Lines of the configuration may name programs to run: a capture must not bring any.
TEST(ReplayTexts, NothingButOidsAndNumbersIsConfigured) {
  Capture capture;
  capture.asked = {{".1.3.6.1.4.1.4891.18.1.1.0", 7}, {"", 1},
                   {".1.3\nextend x /bin/sh", 2},     {".1.3 integer 1\n", 3},
                   {std::string(128, '1'), 4},        {std::string(127, '1'), -5}};
  EXPECT_EQ(MasterConfiguration(capture),
            "rocommunity replay 127.0.0.1\n"
            "master agentx\n"
            "dontLogTCPWrappersConnects yes\n"
            "override .1.3.6.1.4.1.4891.18.1.1.0 integer 7\n"
            "override " +
                std::string(127, '1') + " integer -5\n");
}

TEST(ReplayTexts, DifferencesAreLinesUpToALimit) {
  ReplayResult result;
  result.differences = {{{"tlxHoName", ""}, "a", "b\n"}, {{"tlxHoX", "row 1"}, kAbsent, "2"}};
  result.since = {"tlxHoNew"};
  EXPECT_EQ(Printed([&] { PrintDifferences(result); }),
            "tlxHoName: a -> b\\x0a\ntlxHoX of row 1: nothing -> 2\nnew since: tlxHoNew\n");
  result.differences.assign(200, {{"v", ""}, "1", "2"});
  result.since.clear();
  const std::string all = Printed([&] { PrintDifferences(result); });
  EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 200);
  result.differences.resize(203, {{"w", ""}, "1", "2"});
  const std::string most = Printed([&] { PrintDifferences(result); });
  EXPECT_EQ(most, all + "... and 3 more\n");
}

TEST(ReplayTexts, TheSummarySaysWhatWasCompared) {
  Capture capture = Captured();
  ReplayResult result;
  result.now = {{{"tlxHoAgentVersion", ""}, "1.3"}};
  result.compared = 12;
  result.differences.resize(2);
  EXPECT_EQ(Printed([&] { PrintSummary(capture, result); }),
            "a\\x1b[2Jhost, captured 2026-01-02T03:04:05Z with agent 1.2; now 1.3: 12 values "
            "compared, 2 differ\n");
  capture.agent = "";
  result.now.clear();
  EXPECT_NE(Printed([&] { PrintSummary(capture, result); }).find("agent unknown; now unknown: 12"),
            std::string::npos);
}

TEST(ReplayTexts, JsonHasAllAndNullForWhatIsNotThere) {
  ReplayResult result;
  result.now = {{{"tlxHoAgentVersion", ""}, "1.3"}};
  result.compared = 300;
  result.differences.assign(299, {{"v", "r"}, kAbsent, "2"});
  result.differences.push_back({{"w", ""}, "\xFF", kAbsent});
  result.since = {"tlxHoNew"};
  const auto json =
      nlohmann::json::parse(Printed([&] { PrintJson(Captured(), result); }), nullptr, false);
  ASSERT_EQ(json["differences"].size(), 300U);
  EXPECT_TRUE(json["differences"][0]["before"].is_null());
  EXPECT_EQ(json["differences"][0]["now"], "2");
  EXPECT_EQ(json["differences"][0]["row"], "r");
  EXPECT_EQ(json["differences"][299]["before"], "\u00FF");
  EXPECT_TRUE(json["differences"][299]["now"].is_null());
  EXPECT_EQ(json["new_since"].dump(), R"(["tlxHoNew"])");
  EXPECT_EQ(json["summary"]["agent_then"], "1.2");
  EXPECT_EQ(json["summary"]["agent_now"], "1.3");
  EXPECT_EQ(json["summary"]["compared"], 300);
  EXPECT_EQ(json["summary"]["differ"], 300);
}

}  // namespace
}  // namespace vex
