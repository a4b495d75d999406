// The suite notices what it is there for: runs with a defect are found wrong.
#include <algorithm>

#include "tests/faults/tools_bench.h"
#include "tools/vexreg/archive.h"

using namespace tool_faults;

namespace {

const faults::Call kNothing = {"nothing", 0xFFFF, 1, "EPERM"};

const Subject &Of(const std::string &name) {
  return *std::find_if(Subjects().begin(), Subjects().end(),
                       [&](const Subject &one) { return name == one.name; });
}

void ExpectWrong(const Verdict &verdict, const std::string &text) {
  EXPECT_EQ(verdict.judgement, Judgement::kWrong) << NameOf(verdict.judgement);
  EXPECT_TRUE(
      std::any_of(verdict.differences.begin(), verdict.differences.end(),
                  [&](const std::string &line) { return line.find(text) != std::string::npos; }))
      << "not said: " << text << "\nsaid: " << testing::PrintToString(verdict.differences);
}

// An undisturbed run, and what a command with a defect does instead.
class Judging : public testing::Test {
 protected:
  Judging() {
    good_.status = 0;
    good_.ended = true;
    good_.seconds = 0.1;
    good_.out = "a 1\nb 2\n";
    good_.files["/run/faulty/out"] = "";
    good_.files["/run/faulty/out/file"] = "old";
    bad_ = good_;
    less_ = good_;
    less_.out = "a 1\n";
  }
  Verdict Judged(const std::string &name = "dump") {
    return Judge(Of(name), good_, bad_, [this](const auto &) { return less_; });
  }
  tool_faults::Run good_, bad_, less_;
};

}  // namespace

TEST_F(Judging, TakesWhatIsAsItWas) {
  EXPECT_EQ(Judged().judgement, Judgement::kNoEffect);
  bad_.err = "vexreg: b: damaged, left out\n";
  bad_.out = less_.out;
  EXPECT_EQ(Judged().judgement, Judgement::kTold);
  bad_.status = 1;
  bad_.out.clear();
  EXPECT_EQ(Judged().judgement, Judgement::kFailed);
}

TEST_F(Judging, NoticesSilence) {
  bad_.out = less_.out;
  ExpectWrong(Judged(), "- b 2");
  // Another loss than the one that is told.
  bad_.err = "vexreg: b: damaged, left out\n";
  bad_.out = "b 2\n";
  ExpectWrong(Judged(), "- a 1");
  bad_ = good_;
  bad_.status = 1;
  ExpectWrong(Judged(), "without a reason");
  bad_.err = "vexreg: failed\n";
  ExpectWrong(Judged(), "without a reason");
  good_.err = bad_.err = "vexreg: values are 3 days old\n";
  bad_.status = 0;
  EXPECT_EQ(Judged().judgement, Judgement::kNoEffect);
  bad_.err.clear();
  ExpectWrong(Judged(), "not said: vexreg: values");
}

TEST_F(Judging, NoticesBadEnds) {
  bad_.status = 128 + 6;
  ExpectWrong(Judged(), "by signal 6");
  bad_.status = 2;
  bad_.err = "vexreg: x: wrong usage\n";
  ExpectWrong(Judged(), "status 2");
  bad_ = good_;
  bad_.seconds = 9;
  ExpectWrong(Judged(), "it takes");
  bad_.ended = false;
  ExpectWrong(Judged(), "does not end");
  bad_ = good_;
  bad_.err = "free(): invalid pointer\n";
  ExpectWrong(Judged(), "standard error: free()");
}

TEST_F(Judging, NoticesWhatIsLeftAndLost) {
  bad_.left = {"process sleep"};
  ExpectWrong(Judged(), "left: process sleep");
  bad_ = good_;
  bad_.files["/run/faulty/tmp/vexreg.1"] = "";
  ExpectWrong(Judged(), "left: /run/faulty/tmp/vexreg.1");
  bad_ = good_;
  bad_.files["/run/faulty/out/file"] = "half";
  ExpectWrong(Judged(), "changed: /run/faulty/out/file");
  bad_.files.erase("/run/faulty/out/file");
  ExpectWrong(Judged("export-file"), "lost: /run/faulty/out/file");
}

// A command that fails leaves the old file or a whole new one.
TEST_F(Judging, NoticesHalfAFile) {
  good_.files["/run/faulty/out/file"] = "new text\n";
  bad_ = good_;
  bad_.status = 1;
  bad_.err = "vexreg: /run/faulty/out/file: cannot be written: No space left on device\n";
  EXPECT_EQ(Judged("export-file").judgement, Judgement::kFailed);
  bad_.files["/run/faulty/out/file"] = kOldText;
  EXPECT_EQ(Judged("export-file").judgement, Judgement::kFailed);
  bad_.files["/run/faulty/out/file"] = "new";
  ExpectWrong(Judged("export-file"), "neither the old one nor a whole new one");
}

TEST_F(Judging, NoticesSecrets) {
  bad_.err = std::string("vexreg: ") + kSecret + ": no answer\n";
  ExpectWrong(Judged(), "a secret is shown");
  std::string error;
  const auto pack = [&](const std::vector<vex::Member> &members) {
    return vex::PackMembers(members, &error).value_or("");
  };
  std::string &before = good_.files["/run/faulty/out/file"];
  before = pack({{"capture.json", 0, "{}"}, {"host/etc/mtab", 0, "a"}});
  bad_ = good_;
  EXPECT_EQ(Judged("capture").judgement, Judgement::kNoEffect);
  bad_.files["/run/faulty/out/file"] =
      pack({{"capture.json", 0, "{}"}, {"host/etc/mtab", 0, std::string("b ") + kSecret}});
  ExpectWrong(Judged("capture"), "a secret stands in host/etc/mtab");
  ExpectWrong(Judged("capture"), "another content: host/etc/mtab");
  bad_.files["/run/faulty/out/file"] = pack({{"capture.json", 0, "{}"}});
  ExpectWrong(Judged("capture"), "nothing says so: host/etc/mtab");
  bad_.files["/run/faulty/out/file"] = before.substr(0, before.size() / 2);
  ExpectWrong(Judged("capture"), "no capture");
}

TEST_F(Judging, NoticesWrongFindings) {
  good_.out = "ok    snmpd: runs.\nnote  GUID: of no card.\n";
  bad_ = good_;
  EXPECT_EQ(Judged("doctor").judgement, Judgement::kNoEffect);
  bad_.out = "ok    snmpd: runs.\n";
  ExpectWrong(Judged("doctor"), "no word of: note  GUID");
  bad_.out = "ok    snmpd: runs.\nok    GUID: of a card.\n";
  ExpectWrong(Judged("doctor"), "+ ok    GUID");
}

TEST(ToolFaultSuite, NoticesDefectsOfARun) {
  Bench bench(Of("dump"));
  ASSERT_TRUE(bench.Learn());
  EXPECT_EQ(bench.Round(kNothing, 1).judgement, Judgement::kNotReached);
  bench.Spoil(faults::Sabotage::kAbort);
  ExpectWrong(bench.Round(kNothing, 1), "by signal 6");
  bench.Spoil(faults::Sabotage::kExitSilently);
  ExpectWrong(bench.Round(kNothing, 1), "without a reason");
  bench.Spoil(faults::Sabotage::kLeaveChild);
  ExpectWrong(bench.Round(kNothing, 1), "left: process vexreg");
}
