// The hardware-info object, from the platform's EV.
#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

constexpr char kNone[] = "No Such Instance currently exists at this OID";
constexpr char kVariable[] = "tlxHoHWInfoPlatform";
constexpr char kRaw[] = "/var/lib/quorix/ev/ZTHRN4";
constexpr char kUefi[] = "/sys/firmware/efi/efivars/ZTHRN4-8be4df61-93ca-11d2-aa0d-00e098032b8c";

}  // namespace

TEST(HardwareInfo, RawEv) {
  MadeUpHost host;
  host.File(kRaw, std::string("\1\2\3\4\5", 5));
  host.Start();
  EXPECT_EQ(host.Get(kVariable), "INTEGER: 5");
  EXPECT_EQ(MadeUpHost::Published("host/hwinfo", kVariable), "5");
  // Taken once.
  host.File(kRaw, std::string("\1\2\3\4\0", 5));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get(kVariable), "INTEGER: 5");
}

TEST(HardwareInfo, UefiVariable) {
  MadeUpHost host;
  host.File(kUefi, std::string("\7\0\0\0\1\2\3\4\0\6", 10));
  host.Start();
  EXPECT_EQ(host.Get(kVariable), "INTEGER: 1");
}

TEST(HardwareInfo, NoEv) {
  MadeUpHost host;
  host.Start();
  EXPECT_EQ(host.Get(kVariable), kNone);
  EXPECT_FALSE(MadeUpHost::Object("host/hwinfo"));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get(kVariable), kNone);
  EXPECT_EQ(host.daemon.Count("EV "), 0U);
}

TEST(HardwareInfo, AnEvOfTheWrongSizeIsOneLine) {
  MadeUpHost host;
  host.File(kRaw, "\1\2\3\4");
  host.File("/var/lib/quorix/ev/ZTHUV", std::string(100, '\1'));
  host.Start();
  EXPECT_EQ(host.Get(kVariable), kNone);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(
      host.daemon.LinesWith("EV "),
      (std::vector<std::string>{"EV ZTHUV: 100 of 136 bytes, what is missing counts as zero",
                                "EV ZTHRN4: 4 bytes of the 5 that are needed, taken as absent"}));
}

TEST(HardwareInfo, ALongEvIsReadInPartWithOneLine) {
  MadeUpHost host;
  host.File(kRaw, "\1\2\3\4\5\6");
  host.Start();
  EXPECT_EQ(host.Get(kVariable), "INTEGER: 5");
  EXPECT_EQ(host.daemon.LinesWith("EV "),
            std::vector<std::string>{"EV ZTHRN4: /var/lib/quorix/ev/ZTHRN4 is longer than 5 bytes, "
                                     "the rest is not used"});
}

TEST(HardwareInfo, AGoodVariableBehindAnUnusableFile) {
  MadeUpHost host;
  host.Directory(kRaw);
  host.File(kUefi, std::string("\7\0\0\0\1\2\3\4\5", 9));
  host.Start();
  EXPECT_EQ(host.Get(kVariable), "INTEGER: 5");
  EXPECT_EQ(host.daemon.LinesWith("EV "),
            std::vector<std::string>{"EV ZTHRN4: /var/lib/quorix/ev/ZTHRN4 is not a regular file, "
                                     "the UEFI variable is used"});
}

TEST(HardwareInfo, AGoodVariableBehindAFileThatIsTooShort) {
  MadeUpHost host;
  host.File(kRaw, "\1\2\3");
  host.File(kUefi, std::string("\7\0\0\0\1\2\3\4\5", 9));
  host.Start();
  EXPECT_EQ(host.Get(kVariable), "INTEGER: 5");
  EXPECT_EQ(host.daemon.LinesWith("EV "),
            std::vector<std::string>{"EV ZTHRN4: /var/lib/quorix/ev/ZTHRN4 has 3 bytes of the 5 "
                                     "that are needed, the UEFI variable is used"});
}

TEST(HardwareInfo, AnEvThatIsNoFile) {
  MadeUpHost host;
  host.Directory(kRaw);
  host.Start();
  EXPECT_EQ(host.Get(kVariable), kNone);
  EXPECT_EQ(host.daemon.Count("EV ZTHRN4: /var/lib/quorix/ev/ZTHRN4 is not a regular file, taken "
                              "as absent"),
            1U);
}
