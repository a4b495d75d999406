#include "monitors/cpu.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <numeric>
#include <vector>

#include "tests/support/recording_framework.h"

namespace {

constexpr char kMinute[] = "tlxHoCpuUtilMin";
constexpr char kFive[] = "tlxHoCpuUtilFiveMin";
constexpr char kThirty[] = "tlxHoCpuUtilThirtyMin";
constexpr char kHour[] = "tlxHoCpuUtilHour";

struct Ticks {
  uint64_t user, nice, system, idle;
};

// A /proc/stat with these processors, and the line that sums them up.
void Stat(const std::vector<Ticks> &processors) {
  Ticks sum = {};
  std::string lines;
  const auto line = [](const std::string &name, const Ticks &t) {
    return name + " " + std::to_string(t.user) + " " + std::to_string(t.nice) + " " +
           std::to_string(t.system) + " " + std::to_string(t.idle) + " 11 12 13 0 0 0\n";
  };
  for (size_t n = 0; n < processors.size(); n++) {
    const Ticks &t = processors[n];
    sum = {sum.user + t.user, sum.nice + t.nice, sum.system + t.system, sum.idle + t.idle};
    lines += line("cpu" + std::to_string(n), t);
  }
  rec::PutFile("/proc/stat", line("cpu ", sum) + lines + "intr " + std::string(3000, '7') +
                                 "\nctxt 1\nbtime 2\nprocesses 3\n");
}

std::string Row(int n) {
  return "host/cpu." + std::to_string(n);
}

// One machine whose two processors are busy by the given per cent from poll to poll.
class BusyMachine {
 public:
  void Pass(int busy) {
    user_ += static_cast<uint64_t>(busy);
    idle_ += static_cast<uint64_t>(100 - busy);
    Stat({{user_, 0, 0, idle_}, {user_, 0, 0, idle_}});
  }

 private:
  uint64_t user_ = 0;
  uint64_t idle_ = 0;
};

TEST(Cpu, StartsWithTheAverageSinceBoot) {
  Stat({{30, 1000, 20, 150}, {0, 0, 0, 500}, {7, 0, 0, 0}});
  ASSERT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::LiveNames(), (std::vector<std::string>{Row(0), Row(1), Row(2)}));
  EXPECT_EQ(rec::Int(Row(0), kMinute), 25);
  EXPECT_EQ(rec::Int(Row(1), kMinute), 0);
  EXPECT_EQ(rec::Int(Row(2), kMinute), 100);
  for (int n = 0; n < 3; n++) {
    EXPECT_EQ(rec::Int(Row(n), "tlxHoCpuUtilUnitIndex"), n);
    EXPECT_EQ(rec::Int(Row(n), kFive), -1);
    EXPECT_EQ(rec::Int(Row(n), kThirty), -1);
    EXPECT_EQ(rec::Int(Row(n), kHour), -1);
    EXPECT_EQ(rec::Text(Row(n), "tlxHoCpuUtilHwLocation"), "");
    EXPECT_EQ(rec::Publications(Row(n)), 2);  // its birth and its first sample
  }
  EXPECT_EQ(rec::Live(Row(0))->flag, 1);
  EXPECT_EQ(rec::Live(Row(0))->data_size, 976);
  EXPECT_EQ(rec::Live(Row(0))->var_count, 6);
}

TEST(Cpu, AllFourAveragesAreUnknownAtBirth) {
  Stat({{1, 0, 0, 1}});
  do_cpu();
  for (const rec::Event &event : rec::Events()) {
    if (event.operation == "log_data") {
      EXPECT_EQ(event.data.substr(4, 16), std::string(16, '\xff'));
      return;
    }
  }
  FAIL() << "nothing was published";
}

TEST(Cpu, MeasuresFromPollToPoll) {
  Stat({{100, 0, 0, 100}, {100, 0, 0, 100}});
  do_cpu();  // 50 %
  Stat({{110, 0, 5, 185}, {200, 0, 0, 100}});
  ASSERT_EQ(do_cpu(), 0);  // 15 % and 100 %
  EXPECT_EQ(rec::Int(Row(0), kMinute), (50 + 15) / 2);
  EXPECT_EQ(rec::Int(Row(1), kMinute), 75);
}

TEST(Cpu, NicedTimeNeverCounts) {
  Stat({{0, 0, 0, 100}, {0, 0, 0, 100}});
  do_cpu();
  Stat({{50, 9000, 0, 150}, {0, 9000, 0, 100}});
  do_cpu();
  EXPECT_EQ(rec::Int(Row(0), kMinute), 25);  // 0 and 50
  EXPECT_EQ(rec::Int(Row(1), kMinute), 0);
}

TEST(Cpu, EqualCountersAreIdle) {
  Stat({{10, 0, 0, 0}, {10, 0, 0, 0}});
  do_cpu();
  EXPECT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::Int(Row(0), kMinute), 50);  // 100 and 0
}

TEST(Cpu, TheOnlyProcessorIsReadFromTheSumLine) {
  rec::PutFile("/proc/stat", "cpu  10 0 0 90 0\ncpu0 90 0 0 10 0\n");
  ASSERT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::Int(Row(0), kMinute), 10);
  EXPECT_EQ(rec::LiveNames().size(), 1u);
}

TEST(Cpu, WithoutProcessorLinesThereIsOne) {
  rec::PutFile("/proc/stat", "intr 5\nCPU  10 0 0 90 0\n");
  ASSERT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::Int(Row(0), kMinute), 10);
}

TEST(Cpu, ProcessorLinesAreTakenInFileOrder) {
  rec::PutFile("/proc/stat", "cpu  0 0 0 0\ncpu5 10 0 0 90\nCpu2 20 0 0 80\ncpu9 30 0 0 70\n");
  ASSERT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::Int(Row(0), kMinute), 10);
  EXPECT_EQ(rec::Int(Row(1), kMinute), 20);
  EXPECT_EQ(rec::Int(Row(2), kMinute), 30);
  EXPECT_EQ(rec::LiveNames().size(), 3u);
}

TEST(Cpu, ProcessorsThatGoAreIdleAndThoseThatComeAreNotNoticed) {
  Stat({{100, 0, 0, 0}, {100, 0, 0, 0}});
  do_cpu();
  Stat({{200, 0, 0, 0}});
  EXPECT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::Int(Row(0), kMinute), 100);
  EXPECT_EQ(rec::Int(Row(1), kMinute), 50);
  Stat({{300, 0, 0, 0}, {300, 0, 0, 0}, {300, 0, 0, 0}});
  EXPECT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::LiveNames().size(), 2u);
}

TEST(Cpu, TwoHundredProcessors) {
  std::vector<Ticks> many;
  for (uint64_t n = 0; n < 200; n++) {
    many.push_back({n, 0, 0, 200 - n});
  }
  Stat(many);
  ASSERT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::LiveNames().size(), 200u);
  EXPECT_EQ(rec::Int(Row(199), kMinute), 100);
  EXPECT_EQ(rec::Int(Row(197), kMinute), 99);  // 98.5
  EXPECT_EQ(rec::Int(Row(100), kMinute), 50);
}

TEST(Cpu, AnAverageDividesByTheSamplesSoFar) {
  poll_time = 15;
  BusyMachine machine;
  machine.Pass(10);
  do_cpu();
  EXPECT_EQ(rec::Int(Row(0), kMinute), 10);
  machine.Pass(21);
  do_cpu();
  EXPECT_EQ(rec::Int(Row(0), kMinute), 15);  // 15.5, cut off
  machine.Pass(30);
  do_cpu();
  EXPECT_EQ(rec::Int(Row(0), kMinute), 20);
  machine.Pass(40);
  do_cpu();
  EXPECT_EQ(rec::Int(Row(0), kMinute), 25);
  machine.Pass(90);  // the first one leaves the ring
  do_cpu();
  EXPECT_EQ(rec::Int(Row(0), kMinute), 45);
}

TEST(Cpu, LongAveragesComeOnceAMinuteAfterTheirTime) {
  poll_time = 15;
  constexpr time_t kStart = 1'000'000;
  rec::SetBootTime(kStart);
  BusyMachine machine;
  machine.Pass(40);
  do_cpu();
  for (int poll = 1; poll <= 4 * 62; poll++) {
    const time_t age = 15 * poll;
    rec::SetBootTime(kStart + age);
    machine.Pass(40);
    ASSERT_EQ(do_cpu(), 0);
    ASSERT_EQ(rec::Int(Row(1), kFive), age < 300 ? -1 : 40) << age;
    ASSERT_EQ(rec::Int(Row(1), kThirty), age < 1800 ? -1 : 40) << age;
    ASSERT_EQ(rec::Int(Row(1), kHour), age < 3600 ? -1 : 40) << age;
  }
}

TEST(Cpu, TheFirstFiveMinuteValueWaitsForARingTurn) {
  poll_time = 15;
  rec::SetBootTime(1000);
  BusyMachine machine;
  machine.Pass(40);
  do_cpu();
  // 300 seconds pass between two turns of the ring.
  for (int poll = 1; poll <= 8; poll++) {
    rec::SetBootTime(poll < 5 ? 1100 : 1300);
    machine.Pass(40);
    do_cpu();
    EXPECT_EQ(rec::Int(Row(0), kFive), poll < 8 ? -1 : 40) << poll;
  }
}

TEST(Cpu, LongAveragesAreFedFromTheMinuteAverage) {
  poll_time = 30;  // two samples a minute; the long rings get every second poll's average
  rec::SetBootTime(0);
  BusyMachine machine;
  machine.Pass(10);
  do_cpu();  // minute 10, goes into the long rings
  rec::SetBootTime(4000);
  machine.Pass(20);
  do_cpu();  // minute 15, does not
  EXPECT_EQ(rec::Int(Row(0), kMinute), 15);
  EXPECT_EQ(rec::Int(Row(0), kFive), -1);
  machine.Pass(60);
  do_cpu();  // minute 40, does
  EXPECT_EQ(rec::Int(Row(0), kMinute), 40);
  EXPECT_EQ(rec::Int(Row(0), kFive), 25);
  EXPECT_EQ(rec::Int(Row(0), kThirty), 25);
  EXPECT_EQ(rec::Int(Row(0), kHour), 25);
}

TEST(Cpu, TheFiveMinuteRingHoldsFive) {
  poll_time = 30;
  rec::SetBootTime(0);
  BusyMachine machine;
  machine.Pass(100);
  do_cpu();
  rec::SetBootTime(4000);
  for (int poll = 1; poll <= 10; poll++) {
    machine.Pass(0);
    do_cpu();
  }
  // Fed: 100, then five times 0; the hour still has the first one.
  EXPECT_EQ(rec::Int(Row(0), kFive), 0);
  EXPECT_EQ(rec::Int(Row(0), kHour), 100 / 6);
}

// Long enough that each ring turns: none has a place that another one writes.
TEST(Cpu, EachLongAverageIsThatOfItsLastSamples) {
  poll_time = 30;
  rec::SetBootTime(0);
  BusyMachine machine;
  std::vector<int> fed;
  const auto average = [&fed](size_t room) {
    const size_t held = std::min(room, fed.size());
    return std::accumulate(fed.end() - static_cast<long>(held), fed.end(), 0) /
           static_cast<int>(held);
  };
  for (int turn = 0; turn < 65; turn++) {
    fed.push_back(37 * turn % 101);
    // Two polls of one load, of which the second feeds the long rings; the first turn is one poll.
    for (int poll = turn == 0 ? 1 : 0; poll < 2; poll++) {
      machine.Pass(fed.back());
      ASSERT_EQ(do_cpu(), 0);
    }
    if (turn == 0) {
      rec::SetBootTime(4000);
      continue;
    }
    ASSERT_EQ(rec::Int(Row(0), kFive), average(5)) << turn;
    ASSERT_EQ(rec::Int(Row(0), kThirty), average(30)) << turn;
    ASSERT_EQ(rec::Int(Row(0), kHour), average(60)) << turn;
  }
}

TEST(Cpu, ALongPollPeriodNeverFeedsTheLongAverages) {
  poll_time = 31;
  rec::SetBootTime(0);
  BusyMachine machine;
  machine.Pass(10);
  do_cpu();
  rec::SetBootTime(100000);
  for (int poll = 0; poll < 10; poll++) {
    machine.Pass(20 + poll);
    do_cpu();
    EXPECT_EQ(rec::Int(Row(0), kMinute), 20 + poll);
    EXPECT_EQ(rec::Int(Row(0), kFive), -1);
    EXPECT_EQ(rec::Int(Row(0), kHour), -1);
  }
}

TEST(Cpu, APollPeriodAboveAMinuteStillHasOnePlace) {
  poll_time = 3600;
  BusyMachine machine;
  machine.Pass(10);
  ASSERT_EQ(do_cpu(), 0);
  machine.Pass(70);
  ASSERT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::Int(Row(0), kMinute), 70);
}

TEST(Cpu, ThePollPeriodAtBirthDecides) {
  poll_time = 30;
  BusyMachine machine;
  machine.Pass(10);
  do_cpu();
  poll_time = 1;
  machine.Pass(20);
  do_cpu();
  machine.Pass(40);
  do_cpu();
  EXPECT_EQ(rec::Int(Row(0), kMinute), 30);
}

// A shorter period than a second counts as one: a minute has sixty places at the most.
class CpuPeriodOfASecond : public testing::TestWithParam<int> {};

TEST_P(CpuPeriodOfASecond, FillsSixtyPlaces) {
  poll_time = GetParam();
  BusyMachine machine;
  machine.Pass(100);
  ASSERT_EQ(do_cpu(), 0);
  for (int poll = 1; poll < 60; poll++) {
    machine.Pass(0);
    do_cpu();
  }
  EXPECT_EQ(rec::Int(Row(0), kMinute), 1);  // 100 / 60
  machine.Pass(0);
  do_cpu();
  EXPECT_EQ(rec::Int(Row(0), kMinute), 0);
}
INSTANTIATE_TEST_SUITE_P(Each, CpuPeriodOfASecond, testing::Values(1, 0, -1, -30));

TEST(Cpu, UnreadableFileIsNoFailure) {
  Stat({{10, 0, 0, 90}, {10, 0, 0, 90}});
  do_cpu();
  rec::PutNothing("/proc/stat");
  EXPECT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::LiveNames().size(), 2u);
  EXPECT_EQ(rec::Int(Row(0), kMinute), 10);
}

TEST(Cpu, UnreadableFileAtStartUpMakesNoRows) {
  rec::PutNothing("/proc/stat");
  EXPECT_EQ(do_cpu(), 0);
  EXPECT_TRUE(rec::LiveNames().empty());
  EXPECT_EQ(do_cpu(), 0);
  // Counted later, the processors have no rows to be found.
  Stat({{10, 0, 0, 90}});
  EXPECT_EQ(do_cpu(), -1);
}

// Nor does one that may not be looked at: only what hinders for a moment is waited out.
class CpuWithoutItsFile : public testing::TestWithParam<int> {};

TEST_P(CpuWithoutItsFile, HasNoRowsLaterEither) {
  Stat({{10, 0, 0, 90}, {20, 0, 0, 80}});
  rec::Fail("fopen", "/proc/stat", 0, GetParam());
  EXPECT_EQ(do_cpu(), 0);
  rec::StopFailing();
  EXPECT_EQ(do_cpu(), -1);
  EXPECT_TRUE(rec::LiveNames().empty());
}
INSTANTIATE_TEST_SUITE_P(Each, CpuWithoutItsFile, testing::Values(ENOENT, ENOTDIR, EACCES));

// A clock that is set makes no average older.
TEST(Cpu, TheWallClockSaysNothingOfAnAge) {
  poll_time = 30;
  rec::SetTime(1'000'000);
  rec::SetBootTime(5000);
  BusyMachine machine;
  machine.Pass(40);
  do_cpu();
  rec::SetTime(1'000'000 + 400 * 86400);
  rec::SetBootTime(5000 + 120);
  for (int poll = 0; poll < 4; poll++) {
    machine.Pass(40);
    do_cpu();
  }
  EXPECT_EQ(rec::Int(Row(0), kFive), -1);
  EXPECT_EQ(rec::Int(Row(0), kHour), -1);
  rec::SetTime(1000);
  rec::SetBootTime(5000 + 300);
  for (int poll = 0; poll < 2; poll++) {
    machine.Pass(40);
    do_cpu();
  }
  EXPECT_EQ(rec::Int(Row(0), kFive), 40);
  EXPECT_EQ(rec::Int(Row(0), kThirty), -1);
}

TEST(Cpu, ACountThatWasBrokenOffIsMadeAgainAtOnce) {
  Stat({{10, 0, 0, 90}, {20, 0, 0, 80}, {30, 0, 0, 70}});
  rec::BreakReads("/proc/stat", 2, 60);
  ASSERT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::LiveNames().size(), 3u);
  EXPECT_EQ(rec::Int(Row(2), kMinute), 30);
}

TEST(Cpu, RowsOfACountThatWasBrokenOffComeWithTheFirstWholeOne) {
  poll_time = 60;
  Stat({{10, 0, 0, 90}, {20, 0, 0, 80}, {30, 0, 0, 70}});
  rec::BreakReads("/proc/stat", 5, 60);
  ASSERT_EQ(do_cpu(), 0);
  EXPECT_TRUE(rec::LiveNames().empty());
  ASSERT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::LiveNames(), (std::vector<std::string>{Row(0), Row(1), Row(2)}));
  EXPECT_EQ(rec::Int(Row(1), kMinute), 20);
  Stat({{10, 0, 0, 190}, {20, 0, 0, 80}, {30, 0, 0, 70}, {9, 0, 0, 9}});
  ASSERT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::LiveNames().size(), 3u);
  EXPECT_EQ(rec::Int(Row(0), kMinute), 0);
}

TEST(Cpu, RowsAreWaitedForHoweverLongNoCountIsWhole) {
  Stat({{10, 0, 0, 90}, {20, 0, 0, 80}});
  rec::BreakReads("/proc/stat", 6, 60);
  ASSERT_EQ(do_cpu(), 0);
  ASSERT_EQ(do_cpu(), 0);
  rec::Fail("fopen", "/proc/stat", 0, ENOENT);  // not even there, but not at the start
  ASSERT_EQ(do_cpu(), 0);
  rec::StopFailing();
  EXPECT_TRUE(rec::LiveNames().empty());
  ASSERT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::LiveNames(), (std::vector<std::string>{Row(0), Row(1)}));
  EXPECT_EQ(rec::Int(Row(1), kMinute), 20);
}

TEST(Cpu, AFileThatCannotBeOpenedAtThisMomentIsOneThatCannotBeRead) {
  Stat({{10, 0, 0, 90}, {20, 0, 0, 80}});
  rec::Fail("fopen", "/proc/stat", 0, EMFILE);
  ASSERT_EQ(do_cpu(), 0);
  EXPECT_TRUE(rec::LiveNames().empty());
  rec::StopFailing();
  ASSERT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::LiveNames().size(), 2u);
}

TEST(Cpu, RowsThatCouldNotBeMadeLaterAreMadeByTheNextPoll) {
  Stat({{10, 0, 0, 90}, {20, 0, 0, 80}});
  rec::BreakReads("/proc/stat", 3, 60);
  ASSERT_EQ(do_cpu(), 0);
  rec::Fail("create_obj", Row(1), 1);
  EXPECT_EQ(do_cpu(), -1);
  EXPECT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::LiveNames(), (std::vector<std::string>{Row(0), Row(1)}));
}

TEST(Cpu, ASampleThatWasBrokenOffLeavesTheValues) {
  poll_time = 60;
  Stat({{10, 0, 0, 90}, {20, 0, 0, 80}});
  do_cpu();
  Stat({{110, 0, 0, 90}, {120, 0, 0, 80}});
  rec::BreakReads("/proc/stat", 1, 55);
  EXPECT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::Int(Row(0), kMinute), 10);
  EXPECT_EQ(rec::Int(Row(1), kMinute), 20);
  Stat({{110, 0, 0, 190}, {120, 0, 0, 280}});
  EXPECT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::Int(Row(0), kMinute), 50);  // of both polls
  EXPECT_EQ(rec::Int(Row(1), kMinute), 33);
}

TEST(Cpu, FailsWithoutMemoryForItsSamples) {
  Stat({{1, 0, 0, 1}, {1, 0, 0, 1}});
  for (const int nth : {1, 2}) {
    rec::Fail("calloc", "", nth, ENOMEM);
    EXPECT_EQ(do_cpu(), -1);
    rec::StopFailing();
  }
  EXPECT_TRUE(rec::LiveNames().empty());
}

TEST(Cpu, FailsWhenARowCannotBeCreated) {
  Stat({{10, 0, 0, 90}, {10, 0, 0, 90}});
  rec::Fail("create_obj", Row(1));
  EXPECT_EQ(do_cpu(), -1);
  EXPECT_EQ(rec::LiveNames(), std::vector<std::string>{Row(0)});
}

TEST(Cpu, AMissingRowKeepsTheSamples) {
  poll_time = 60;
  Stat({{0, 0, 0, 100}, {0, 0, 0, 100}});
  do_cpu();
  rec::Fail("find_obj", Row(1), 1);
  Stat({{100, 0, 0, 100}, {0, 0, 0, 200}});
  EXPECT_EQ(do_cpu(), -1);
  EXPECT_EQ(rec::Int(Row(0), kMinute), 100);
  // The failed poll did not become the one before.
  Stat({{100, 0, 0, 200}, {0, 0, 0, 300}});
  EXPECT_EQ(do_cpu(), 0);
  EXPECT_EQ(rec::Int(Row(0), kMinute), 50);
  EXPECT_TRUE(rec::Messages().empty());
}

TEST(CpuParser, TellsProcessorLines) {
  EXPECT_TRUE(is_processor_line("cpu0 1 2 3 4\n"));
  EXPECT_TRUE(is_processor_line("CPU17 1 2 3 4\n"));
  EXPECT_FALSE(is_processor_line("cpu  1 2 3 4\n"));
  EXPECT_FALSE(is_processor_line("cpu\t1 2 3 4\n"));
  EXPECT_FALSE(is_processor_line("cpu\n"));
  EXPECT_FALSE(is_processor_line(" cpu0 1 2 3 4\n"));
  EXPECT_FALSE(is_processor_line("cp"));
  EXPECT_FALSE(is_processor_line(""));
}

TEST(CpuParser, TakesUserNiceSystemIdle) {
  cpu_sample s = {};
  parse_cpu_line("cpu12 1 2 3 18446744073709551615 5 6\n", &s);
  EXPECT_EQ(s.user, 1u);
  EXPECT_EQ(s.nice, 0u);
  EXPECT_EQ(s.system, 3u);
  EXPECT_EQ(s.idle, UINT64_MAX);
  parse_cpu_line("cpu12 7 8\n", &s);
  EXPECT_EQ(s.user, 7u);
  EXPECT_EQ(s.system, 3u);
  parse_cpu_line("cpu", &s);
  EXPECT_EQ(s.user, 7u);
}

TEST(CpuArithmetic, RoundsHalvesUp) {
  const auto busy = [](uint64_t user, uint64_t idle) {
    return cpu_utilisation({idle, user, 0, 0}, {0, 0, 0, 0});
  };
  EXPECT_EQ(busy(0, 0), 0);
  EXPECT_EQ(busy(1, 7), 13);     // 12.5
  EXPECT_EQ(busy(1, 199), 1);    // 0.5
  EXPECT_EQ(busy(1, 200), 0);    // 0.4975
  EXPECT_EQ(busy(199, 1), 100);  // 99.5
  EXPECT_EQ(busy(2, 1), 67);
  EXPECT_EQ(busy(1, 2), 33);
  EXPECT_EQ(busy(uint64_t{1} << 62, uint64_t{1} << 62), 50);
}

TEST(CpuArithmetic, CountersThatRunBackwards) {
  // Idle falls by one while user rises by ten: 10 of 9.
  EXPECT_EQ(cpu_utilisation({99, 10, 0, 0}, {100, 0, 0, 0}), 111);
  // Everything falls: the differences are huge, the result is held.
  EXPECT_EQ(cpu_utilisation({50, 0, 0, 0}, {0, 49, 0, 0}), INT32_MAX);
}

}  // namespace
