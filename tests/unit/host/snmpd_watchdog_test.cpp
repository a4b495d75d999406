#include "agent/snmpd_watchdog.h"

#include <gtest/gtest.h>

#include <climits>

#include "tests/support/recording_framework.h"

namespace {

constexpr char kSize[] =
    "SNMPDPID=`/sbin/pidof snmpd`; [ ! -z \"$SNMPDPID\" ] && ps -o vsz $SNMPDPID | grep -v SZ | "
    "sort -u";
constexpr char kRestart[] = "[ -f /etc/rc.d/init.d/snmpd ] && /etc/rc.d/init.d/snmpd restart";

class Watchdog : public testing::Test {
 protected:
  void SetUp() override {
    enable_snmpd_watchdog();
  }
  // The next check that is due, with snmpd of this size.
  void Check(const std::string &size) {
    rec::PutCommand(kSize, size);
    now_ += 1800;
    rec::SetTime(now_);
    check_snmpd_memory();
  }
  int Restarts() {
    return rec::Count("process_linux_cmd", "? -f /etc/rc.d/*");
  }
  time_t now_ = 1'000'000;
};

TEST(WatchdogOff, NeverRunsACommand) {
  for (time_t now = 2000; now < 20000; now += 2000) {
    rec::SetTime(now);
    check_snmpd_memory();
  }
  EXPECT_TRUE(rec::Events().empty());
}

TEST_F(Watchdog, RestartsWhenTheSizeMoreThanDoubled) {
  Check(" 10000\n");
  Check(" 20000\n");  // exactly twice
  EXPECT_EQ(Restarts(), 0);
  EXPECT_TRUE(rec::Messages().empty());
  Check(" 20001\n");
  EXPECT_EQ(rec::Names("process_linux_cmd"),
            (std::vector<std::string>{kSize, kSize, kSize, kRestart}));
  EXPECT_EQ(rec::Messages(),
            std::vector<std::string>{
                "Restarting snmpd. Current size = 20001K. size captured ealier = 10000K\n"});
}

TEST_F(Watchdog, TakesANewBaselineAfterARestart) {
  Check("100\n");
  Check("300\n");
  Check("250\n");
  Check("500\n");
  EXPECT_EQ(Restarts(), 1);
  Check("501\n");
  EXPECT_EQ(Restarts(), 2);
  EXPECT_EQ(rec::Messages().back(),
            "Restarting snmpd. Current size = 501K. size captured ealier = 250K\n");
}

TEST_F(Watchdog, ChecksEveryHalfHourAtMost) {
  Check("100\n");
  for (const time_t later : {0, 1, 900, 1799}) {
    rec::SetTime(now_ + later);
    check_snmpd_memory();
  }
  EXPECT_EQ(rec::Count("process_linux_cmd"), 1);
  rec::SetTime(now_ + 1800);
  check_snmpd_memory();
  EXPECT_EQ(rec::Count("process_linux_cmd"), 2);
}

TEST_F(Watchdog, WithoutAnSnmpdThereIsNoBaseline) {
  Check("");
  Check("100\n");
  Check("");
  Check("200\n");
  EXPECT_EQ(Restarts(), 0);
  Check("201\n");
  EXPECT_EQ(Restarts(), 1);
}

TEST_F(Watchdog, ACommandThatFailsIsNoSize) {
  Check("100\n");
  rec::Fail("process_linux_cmd");
  Check("900\n");
  EXPECT_TRUE(rec::Messages().empty());
}

TEST_F(Watchdog, ASuffixedSizeIsScaled) {
  Check("100K\n");
  Check("204801\n");
  EXPECT_EQ(rec::Messages(),
            std::vector<std::string>{
                "Restarting snmpd. Current size = 204801K. size captured ealier = 102400K\n"});
}

TEST_F(Watchdog, ASizeThatDoesNotFitIsClampedLikeItsBaseline) {
  Check("99999M\n");
  for (const char *size : {"4095M\n", "4096M\n", "99999M\n"}) {
    Check(size);
    EXPECT_EQ(Restarts(), 0) << size;
  }
}

TEST_F(Watchdog, ASizeThatDoesNotFitHasGrownFromASmallOne) {
  Check("1000\n");
  Check("4096M\n");
  EXPECT_EQ(rec::Messages().back(),
            "Restarting snmpd. Current size = 4294967296K. size captured ealier = 1000K\n");
}

TEST_F(Watchdog, AClockThatIsSetBackDoesNotStopIt) {
  Check("100\n");
  rec::SetTime(1000);
  check_snmpd_memory();
  rec::SetTime(1000 + 1800);
  rec::ForgetEvents();
  check_snmpd_memory();
  EXPECT_EQ(rec::Count("process_linux_cmd"), 1);
}

TEST_F(Watchdog, OutputLongerThanTheBuffer) {
  Check(std::string(100, ' ') + "100\n");
  Check("500\n");
  EXPECT_EQ(Restarts(), 0);  // the number lies beyond the 64 bytes
}

TEST(WatchdogParser, Sizes) {
  EXPECT_EQ(parse_snmpd_size("  12345\n"), 12345);
  EXPECT_EQ(parse_snmpd_size("12345 67890\n"), 12345);
  EXPECT_EQ(parse_snmpd_size("100\n200\n"), 100);
  EXPECT_EQ(parse_snmpd_size("3M\n"), 3 << 20);
  EXPECT_EQ(parse_snmpd_size("3K\n"), 3 << 10);
  EXPECT_EQ(parse_snmpd_size("3m\n"), 3);
  EXPECT_EQ(parse_snmpd_size("3 M\n"), 3);
  EXPECT_EQ(parse_snmpd_size(""), 0);
  EXPECT_EQ(parse_snmpd_size("none"), 0);
  EXPECT_EQ(parse_snmpd_size("M"), 0);
  EXPECT_EQ(parse_snmpd_size("99999999999999999999M"), LONG_MAX);
  // On the other side.
  EXPECT_EQ(parse_snmpd_size("-3K\n"), -3072);
  EXPECT_EQ(parse_snmpd_size("-8796093022208M"), LONG_MIN);
  EXPECT_EQ(parse_snmpd_size("-8796093022209M"), LONG_MIN);
  EXPECT_EQ(parse_snmpd_size("-99999999999999999999K"), LONG_MIN);
}

}  // namespace
