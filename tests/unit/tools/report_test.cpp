// The page of a captured host, from the capture to the file.
#include <gtest/gtest.h>

#include <iterator>

#include "tests/support/process.h"
#include "tests/unit/framework/temp_registry.h"
#include "tests/unit/tools/made_object.h"
#include "tools/vexreg/captured_host.h"
#include "tools/vexreg/commands.h"

using namespace vex;

namespace {

class CapturedPage : public testing::Test {
 protected:
  void SetUp() override {
    const FileObject object = MadeObject({Int("tlxHoPhysicalMemorySize", 2048)});
    const uint16_t length = 4;
    ObjectFileWriter writer("host/memory", registry_.root());
    writer.SetLayout(object.variables, 4);
    ASSERT_EQ(writer.Publish(object.data.data(), &length), 0);
    capture_.host = "box";
    capture_.made = "2024-03-05T14:07:09+00:00";
  }
  std::string Page(int status = kDone) {
    const std::string file = registry_.base() + "/page.html";
    testing::internal::CaptureStderr();
    EXPECT_EQ(Report(registry_.root(), "1", &capture_, file), status);
    errors_ = testing::internal::GetCapturedStderr();
    return made_up::ReadFile(file);
  }
  bool Has(const std::string &text) {
    return Page().find(text) != std::string::npos;
  }
  void Findings(const std::string &text) {
    capture_.members = {{kFindingsMember, 0, text}};
  }

  TempRegistry registry_;
  Capture capture_;
  std::string errors_;
};

TEST_F(CapturedPage, FindingsAsTheyWereWritten) {
  Findings(R"([{"state":"fail","message":"snmpd: does not run."}])");
  EXPECT_TRUE(Has("snmpd: does not run."));
  EXPECT_FALSE(Has("cannot be read"));
}

// Whoever sends a capture may have written into it what he likes.
TEST_F(CapturedPage, FindingsThatAreOdd) {
  Findings(
      R"([5, null, {"state":5,"message":["x"]}, {"message":"x"}, {"state":"note"}, {"state":"note","message":"one that is whole"}])");
  EXPECT_TRUE(Has("one that is whole"));
  for (const char *text : {"rubbish", R"({"message":"no list"})", "[]", "", "5"}) {
    Findings(text);
    EXPECT_TRUE(Has("doctor&#39;s findings cannot be read")) << text;
    EXPECT_FALSE(Has("no list")) << text;
  }
}

TEST_F(CapturedPage, WhyThereAreNoFindings) {
  EXPECT_TRUE(Has("not in the capture"));
  capture_.omissions = {{"log", "there is none"}, {"doctor", "did not end in time"}};
  EXPECT_TRUE(Has("did not end in time"));
  EXPECT_FALSE(Has("there is none"));
  Findings(R"([{"state":"ok","message":"all is well"}])");
  EXPECT_TRUE(Has("all is well"));
  EXPECT_FALSE(Has("did not end in time"));
}

TEST_F(CapturedPage, TimesThatAreNoneStayText) {
  EXPECT_TRUE(Has("2024-03-05"));
  capture_.made = "some day";
  EXPECT_TRUE(Has("some day"));
}

TEST_F(CapturedPage, OfNothingIsAFailureAndAPage) {
  std::filesystem::remove_all(registry_.Path("host"));
  EXPECT_NE(Page(kFailed).find("</html>"), std::string::npos);
  EXPECT_EQ(errors_, "vexreg: nothing was published when this was captured\n");
}

}  // namespace
