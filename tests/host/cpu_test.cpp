// The CPU utilisation table.
#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

// Counters of made-up processors that go on from poll to poll.
class Processors {
 public:
  explicit Processors(size_t count) : busy_(count), idle_(count) {}
  // The next /proc/stat: each processor was so many per cent busy in between.
  std::string After(const std::vector<unsigned> &percent) {
    std::string lines;
    uint64_t all_busy = 0, all_idle = 0;
    for (size_t i = 0; i < busy_.size(); i++) {
      busy_[i] += percent[i % percent.size()];
      idle_[i] += 100 - percent[i % percent.size()];
      all_busy += busy_[i];
      all_idle += idle_[i];
      lines += Line("cpu" + std::to_string(i), busy_[i], idle_[i]);
    }
    return Line("cpu ", all_busy, all_idle) + lines + "intr 1 2 3\nctxt 4\n";
  }

 private:
  // Busy time stands half in user, half in system; nice counts for nothing.
  static std::string Line(const std::string &name, uint64_t busy, uint64_t idle) {
    return name + " " + std::to_string(busy / 2) + " 777 " + std::to_string(busy - busy / 2) + " " +
           std::to_string(idle) + " 5 5 5 0 0 0\n";
  }
  std::vector<uint64_t> busy_, idle_;
};

// Minute, five minutes, thirty minutes, hour of a row.
std::vector<std::string> Averages(MadeUpHost *host, int row = 0) {
  const std::string dot = "." + std::to_string(row);
  std::vector<std::string> numbers;
  for (const std::string &value :
       host->GetTogether({"tlxHoCpuUtilMin" + dot, "tlxHoCpuUtilFiveMin" + dot,
                          "tlxHoCpuUtilThirtyMin" + dot, "tlxHoCpuUtilHour" + dot})) {
    numbers.push_back(value.starts_with("INTEGER: ") ? value.substr(9) : value);
  }
  return numbers;
}

using Numbers = std::vector<std::string>;

// One more poll in which the processors were that busy.
void Poll(MadeUpHost *host, Processors *processors, const std::vector<unsigned> &percent) {
  host->Proc("stat", processors->After(percent));
  ASSERT_TRUE(host->daemon.Poll());
}

}  // namespace

TEST(Cpu, OneRowAProcessor) {
  MadeUpHost host;
  Processors processors(3);
  host.Proc("stat", processors.After({0, 33, 100}));
  host.Start();
  EXPECT_EQ(host.Column("tlxHoCpuUtilUnitIndex"),
            (Numbers{"0: INTEGER: 0", "1: INTEGER: 1", "2: INTEGER: 2"}));
  EXPECT_EQ(host.Column("tlxHoCpuUtilMin"),
            (Numbers{"0: INTEGER: 0", "1: INTEGER: 33", "2: INTEGER: 100"}));
  EXPECT_EQ(host.Column("tlxHoCpuUtilFiveMin"),
            (Numbers{"0: INTEGER: -1", "1: INTEGER: -1", "2: INTEGER: -1"}));
  EXPECT_EQ(host.Column("tlxHoCpuUtilHwLocation"), (Numbers{"0: \"\"", "1: \"\"", "2: \"\""}));
  EXPECT_EQ(host.Get("tlxHoCpuUtilMin.3"), "No Such Instance currently exists at this OID");
  EXPECT_EQ(MadeUpHost::Published("host/cpu.2", "tlxHoCpuUtilMin"), "100");
}

TEST(Cpu, HalvesGoUp) {
  MadeUpHost host;
  host.Proc("stat", "cpu 0 0 0 0\ncpu0 100 0 25 875\ncpu1 124 0 0 876\ncpu2 1 0 0 199\n");
  host.Start();
  EXPECT_EQ(host.Column("tlxHoCpuUtilMin"),
            (Numbers{"0: INTEGER: 13", "1: INTEGER: 12", "2: INTEGER: 1"}));
}

TEST(Cpu, AnAverageIsOverTheSamplesSoFar) {
  MadeUpHost host;
  Processors processors(2);
  host.Proc("stat", processors.After({50}));
  host.Start({"-p", "15"});  // a minute ring of four
  EXPECT_EQ(Averages(&host)[0], "50");
  Poll(&host, &processors, {10});
  EXPECT_EQ(Averages(&host)[0], "30");
  Poll(&host, &processors, {20});
  EXPECT_EQ(Averages(&host)[0], "26");
  Poll(&host, &processors, {30});
  EXPECT_EQ(Averages(&host)[0], "27");
  Poll(&host, &processors, {100});
  EXPECT_EQ(Averages(&host)[0], "40");
}

TEST(Cpu, IdenticalCountersAreNoLoad) {
  MadeUpHost host;
  Processors processors(2);
  host.Proc("stat", processors.After({80}));
  host.Start({"-p", "30"});
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Averages(&host)[0], "40");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Averages(&host)[0], "0");
}

TEST(Cpu, LongAveragesComeWithTheirTime) {
  MadeUpHost host;
  Processors processors(2);
  host.Proc("stat", processors.After({50}));
  host.Start({"-p", "15"});
  auto turn = [&](unsigned percent) {
    for (int i = 0; i < 4; i++) {
      Poll(&host, &processors, {percent});
    }
  };
  // The sample of start-up fed the long rings with 50; each turn's last poll here feeds them with
  // what the minute's average is then.
  turn(70);
  EXPECT_EQ(Averages(&host), (Numbers{"70", "-1", "-1", "-1"}));
  host.daemon.AdvanceClock(290);
  turn(90);
  EXPECT_EQ(Averages(&host), (Numbers{"90", "-1", "-1", "-1"}));
  host.daemon.AdvanceClock(10);
  Poll(&host, &processors, {10});
  Poll(&host, &processors, {10});
  Poll(&host, &processors, {10});
  // Five minutes are over, but the ring has not turned.
  EXPECT_EQ(Averages(&host), (Numbers{"30", "-1", "-1", "-1"}));
  Poll(&host, &processors, {10});
  // (50 + 70 + 90 + 10) / 4
  EXPECT_EQ(Averages(&host), (Numbers{"10", "55", "-1", "-1"}));
  Poll(&host, &processors, {100});
  EXPECT_EQ(Averages(&host), (Numbers{"32", "55", "-1", "-1"}));
  host.daemon.AdvanceClock(1500);
  for (int i = 0; i < 3; i++) {
    Poll(&host, &processors, {100});
  }
  // (50 + 70 + 90 + 10 + 100) / 5, for five minutes and for thirty
  EXPECT_EQ(Averages(&host), (Numbers{"100", "64", "64", "-1"}));
  turn(0);
  // The five-minute ring has lost the 50 of start-up: (0 + 70 + 90 + 10 + 100) / 5; the other has
  // room for it: 320 / 6.
  EXPECT_EQ(Averages(&host), (Numbers{"0", "54", "53", "-1"}));
  host.daemon.AdvanceClock(1800);
  turn(40);
  // (0 + 40 + 90 + 10 + 100) / 5 and 360 / 7
  EXPECT_EQ(Averages(&host), (Numbers{"40", "48", "51", "51"}));
}

TEST(Cpu, AClockThatIsSetMakesNoAverageOlder) {
  MadeUpHost host;
  Processors processors(2);
  host.Proc("stat", processors.After({50}));
  host.Start({"-p", "30"});
  host.daemon.StepClock(400.0 * 86400);
  for (int i = 0; i < 4; i++) {
    Poll(&host, &processors, {50});
  }
  EXPECT_EQ(Averages(&host), (Numbers{"50", "-1", "-1", "-1"}));
  host.daemon.StepClock(-800.0 * 86400);
  host.daemon.AdvanceClock(1800);
  for (int i = 0; i < 2; i++) {
    Poll(&host, &processors, {50});
  }
  EXPECT_EQ(Averages(&host), (Numbers{"50", "50", "50", "-1"}));
}

TEST(Cpu, LongRingsKeepTheirLength) {
  MadeUpHost host;
  Processors processors(2);
  host.Proc("stat", processors.After({0}));
  host.Start({"-p", "30"});  // a ring of two: fed by every second poll
  host.daemon.AdvanceClock(4000);
  for (int turns = 0; turns < 29; turns++) {
    Poll(&host, &processors, {0});
    Poll(&host, &processors, {0});
  }
  // One 60 among what the rings hold.
  for (int turns = 0; turns < 2; turns++) {
    Poll(&host, &processors, {60});
    Poll(&host, &processors, {60});
  }
  // Rings of 5, 30 (60, 60 and 28 zeros) and 60 (32 so far).
  EXPECT_EQ(Averages(&host), (Numbers{"60", "24", "4", "3"}));
  for (int turns = 0; turns < 30; turns++) {
    Poll(&host, &processors, {0});
    Poll(&host, &processors, {0});
  }
  EXPECT_EQ(Averages(&host), (Numbers{"0", "0", "0", "2"}));
}

TEST(Cpu, APeriodAboveHalfAMinuteFeedsNoLongRing) {
  MadeUpHost host;
  Processors processors(2);
  host.Proc("stat", processors.After({50}));
  host.Start({"-p", "40"});
  host.daemon.AdvanceClock(4000);
  for (int i = 0; i < 5; i++) {
    Poll(&host, &processors, {20});
  }
  EXPECT_EQ(Averages(&host), (Numbers{"20", "-1", "-1", "-1"}));
}

TEST(Cpu, APeriodOf25SecondsFeedsAtEverySecondPoll) {
  MadeUpHost host;
  Processors processors(2);
  host.Proc("stat", processors.After({10}));
  host.Start({"-p", "25"});
  host.daemon.AdvanceClock(4000);
  Poll(&host, &processors, {30});
  EXPECT_EQ(Averages(&host), (Numbers{"20", "-1", "-1", "-1"}));
  Poll(&host, &processors, {50});
  EXPECT_EQ(Averages(&host), (Numbers{"40", "25", "25", "25"}));
  Poll(&host, &processors, {70});
  EXPECT_EQ(Averages(&host), (Numbers{"60", "25", "25", "25"}));
  Poll(&host, &processors, {90});
  EXPECT_EQ(Averages(&host), (Numbers{"80", "43", "43", "43"}));
}

TEST(Cpu, APollEverySecondFillsAMinute) {
  MadeUpHost host;
  Processors processors(2);
  host.Proc("stat", processors.After({100}));
  host.Start({"-p", "0"});
  for (int i = 0; i < 59; i++) {
    Poll(&host, &processors, {0});
  }
  EXPECT_EQ(Averages(&host)[0], "1");  // 100 / 60
  Poll(&host, &processors, {0});
  EXPECT_EQ(Averages(&host)[0], "0");
}

TEST(Cpu, ASingleProcessorIsReadFromTheFirstLine) {
  MadeUpHost host;
  host.Proc("stat", "cpu  30 0 0 70\ncpu0 90 0 0 10\n");
  host.Start();
  EXPECT_EQ(host.Column("tlxHoCpuUtilMin"), Numbers{"0: INTEGER: 30"});
}

TEST(Cpu, NoProcessorLineIsOneProcessor) {
  MadeUpHost host;
  host.Proc("stat", "intr 1\ncpu  45 0 0 55\n");
  host.Start();
  EXPECT_EQ(host.Column("tlxHoCpuUtilMin"), Numbers{"0: INTEGER: 45"});
}

TEST(Cpu, RowsAreInTheFilesOrder) {
  MadeUpHost host;
  host.Proc("stat", "cpu 0 0 0 0\ncpu7 10 0 0 90\nCPU2 20 0 0 80\ncpu11 30 0 0 70\n");
  host.Start();
  EXPECT_EQ(host.Column("tlxHoCpuUtilMin"),
            (Numbers{"0: INTEGER: 10", "1: INTEGER: 20", "2: INTEGER: 30"}));
}

TEST(Cpu, ProcessorsThatComeAndGoAreNotNoticed) {
  MadeUpHost host;
  host.Proc("stat", "cpu 0 0 0 0\ncpu0 10 0 0 90\ncpu1 20 0 0 80\n");
  host.Start({"-p", "60"});
  host.Proc("stat", "cpu 0 0 0 0\ncpu0 60 0 0 140\n");
  ASSERT_TRUE(host.daemon.Poll());
  // The second keeps its sample: no load.
  EXPECT_EQ(host.Column("tlxHoCpuUtilMin"), (Numbers{"0: INTEGER: 50", "1: INTEGER: 0"}));
  host.Proc("stat", "cpu 0 0 0 0\ncpu0 60 0 0 240\ncpu1 30 0 0 90\ncpu2 1 0 0 1\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Column("tlxHoCpuUtilMin"), (Numbers{"0: INTEGER: 0", "1: INTEGER: 50"}));
}

TEST(Cpu, TwoHundredProcessors) {
  MadeUpHost host;
  Processors processors(200);
  std::vector<unsigned> load;
  Numbers values;
  for (unsigned i = 0; i < 200; i++) {
    load.push_back(i % 101);
    values.push_back(std::to_string(i) + ": INTEGER: " + std::to_string(i % 101));
  }
  host.Proc("stat", processors.After(load));
  host.Start({"-p", "60"});
  EXPECT_EQ(host.Column("tlxHoCpuUtilMin"), values);
  Poll(&host, &processors, load);
  EXPECT_EQ(host.Column("tlxHoCpuUtilMin"), values);
  EXPECT_EQ(host.Column("tlxHoCpuUtilHwLocation").size(), 200U);
  EXPECT_EQ(host.BulkWalk("tlxHoCpuUtilMin"), host.Walk("tlxHoCpuUtilMin"));
  size_t files = 0;
  for (const std::string &name : MadeUpHost::Objects()) {
    files += name.starts_with("host/cpu.");
  }
  EXPECT_EQ(files, 200U);
}

TEST(Cpu, AnUnreadableFileLeavesTheValues) {
  MadeUpHost host;
  host.ComposeProc();
  host.Proc("stat", "cpu 0 0 0 0\ncpu0 10 0 0 90\ncpu1 20 0 0 80\n");
  host.Start({"-p", "60"});
  host.Remove("/proc/stat");
  host.Proc("meminfo", "MemTotal: 4096 kB\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Column("tlxHoCpuUtilMin"), (Numbers{"0: INTEGER: 10", "1: INTEGER: 20"}));
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 4");
}

// Processors are counted once; without their rows a poll fails at its first group, and the others
// are not refreshed.
TEST(Cpu, AFailingGroupCostsTheRestOfThePoll) {
  MadeUpHost host;
  host.ComposeProc();
  host.Remove("/proc/stat");
  host.Start();
  EXPECT_EQ(host.Column("tlxHoCpuUtilMin"), Numbers{});
  host.Proc("meminfo", "MemTotal: 4096 kB\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 4");
  host.Proc("stat", "cpu 0 0 0 0\ncpu0 10 0 0 90\ncpu1 20 0 0 80\n");
  host.Proc("meminfo", "MemTotal: 8192 kB\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 4");
  EXPECT_EQ(host.Column("tlxHoCpuUtilMin"), Numbers{});
  EXPECT_EQ(host.daemon.AlarmSeconds(), 15U);
}
