// The appliance group, on appliances and elsewhere.
#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

constexpr char kConf[] = "/etc/quorix/appliance.conf";
constexpr char kNoInstance[] = "No Such Instance currently exists at this OID";

}  // namespace

TEST(Appliance, IsAbsentElsewhere) {
  MadeUpHost host;
  host.Start();
  for (const char *variable :
       {"tlxApMibRevMajor", "tlxApMibRevMinor", "tlxApMibCondition", "tlxApOsCommonPollFreq",
        "tlxApApplianceId", "tlxApApplianceDescription"}) {
    EXPECT_EQ(host.Get(variable), kNoInstance);
  }
  EXPECT_TRUE(host.Walk(".1.3.6.1.4.1.4891.21").empty());
  EXPECT_FALSE(MadeUpHost::Object("host/appliance"));
  EXPECT_EQ(host.Get("tlxHoOsType"), "INTEGER: 14");
  EXPECT_EQ(host.daemon.Count("do_appliance"), 0U);
}

TEST(Appliance, IsServedBesideTheHostGroup) {
  MadeUpHost host;
  host.File(kConf,
            "ProductID=4711\nProductName=Quorix Store 9\nOsName=Quorix OS\nOsVersion=3.1 build 7\n"
            "VcdbName=vcdb\nVcdbVersion=1\n");
  host.Start();
  EXPECT_EQ(host.Get("tlxApMibRevMajor"), "INTEGER: 1");
  EXPECT_EQ(host.Get(".1.3.6.1.4.1.4891.21.1.1.0"), host.Get("tlxApMibRevMajor"));
  EXPECT_EQ(host.Get(".1.3.6.1.4.1.4891.21.1.2.0"), host.Get("tlxApMibRevMinor"));
  EXPECT_EQ(host.Get(".1.3.6.1.4.1.4891.21.1.3.0"), "INTEGER: 1");
  EXPECT_EQ(host.Get("tlxApMibCondition"), "INTEGER: 1");
  EXPECT_EQ(host.Get("tlxApOsCommonPollFreq"), "INTEGER: 0");
  EXPECT_EQ(host.Get("tlxApApplianceId"), "INTEGER: 4711");
  EXPECT_EQ(host.Get("tlxApApplianceDescription"), "STRING: \"Quorix Store 9\"");

  EXPECT_EQ(host.Get("tlxHoName"), "STRING: \"Quorix OS\"");
  EXPECT_EQ(host.Get("tlxHoVersion"), "STRING: \"3.1 build 7\"");
  EXPECT_EQ(host.Get("tlxHoDesc"), "\"\"");
  EXPECT_EQ(host.Get("tlxHoOsType"), "INTEGER: 1");
  EXPECT_EQ(host.Walk(".1.3.6.1.4.1.4891.21").size(), 6U);
  // Both in one request, and one walk over both.
  EXPECT_EQ(host.GetTogether({"tlxApApplianceId", "tlxHoOsType"}),
            (std::vector<std::string>{"INTEGER: 4711", "INTEGER: 1"}));
  EXPECT_EQ(host.Walk(), host.BulkWalk());

  const auto object = MadeUpHost::Object("host/appliance");
  ASSERT_TRUE(object);
  EXPECT_EQ(object->data.size(), 101U);
}

TEST(Appliance, CutsALongProductName) {
  MadeUpHost host;
  host.File(kConf, "ProductID=1\nProductName=" + std::string(80, 'p') + "XYZ\n");
  host.Start();
  EXPECT_EQ(host.Get("tlxApApplianceDescription"), "STRING: \"" + std::string(80, 'p') + "\"");
}

TEST(Appliance, WithAnEmptyFile) {
  MadeUpHost host;
  host.File(kConf, "");
  host.Start();
  EXPECT_EQ(host.Get("tlxApApplianceId"), "INTEGER: 0");
  EXPECT_EQ(host.Get("tlxApApplianceDescription"), "\"\"");
  EXPECT_EQ(host.Get("tlxHoName"), "\"\"");
  EXPECT_EQ(host.Get("tlxHoOsType"), "INTEGER: 1");
}

TEST(Appliance, IsNoneWithABrokenFile) {
  MadeUpHost host;
  host.File(kConf, "ProductID=1\nmany\n");
  host.Start();
  EXPECT_EQ(host.Get("tlxApApplianceId"), kNoInstance);
  EXPECT_EQ(host.Get("tlxHoOsType"), "INTEGER: 14");
  EXPECT_EQ(host.daemon.Count(kConf), 1U);
}

TEST(Appliance, QuotesInAValueArePartOfIt) {
  MadeUpHost host;
  host.File(kConf,
            "ProductID=7\nProductName=Bob's 19\" rack\nOsName=\"Bob's OS\"\nOsVersion=3\" \n");
  host.Start();
  EXPECT_EQ(host.Get("tlxApApplianceId"), "INTEGER: 7");
  EXPECT_EQ(MadeUpHost::Published("host/appliance", "tlxApApplianceDescription"),
            "Bob's 19\" rack");
  EXPECT_EQ(host.Get("tlxHoName"), "STRING: \"Bob's OS\"");
  EXPECT_EQ(MadeUpHost::Published("host/info", "tlxHoVersion"), "3\"");
  EXPECT_EQ(host.daemon.Count(kConf), 0U);
}

TEST(Appliance, AnIdThatIsNoNumberCostsNothingElse) {
  MadeUpHost host;
  host.File(kConf, "ProductID=many\nProductName=Box\n");
  host.Start();
  EXPECT_EQ(host.Get("tlxApApplianceId"), "INTEGER: 0");
  EXPECT_EQ(host.Get("tlxApApplianceDescription"), "STRING: \"Box\"");
  EXPECT_EQ(host.Get("tlxHoOsType"), "INTEGER: 1");
  EXPECT_EQ(host.daemon.Count(kConf), 1U);
  EXPECT_EQ(host.daemon.Count("ProductID is not a number of 32 bits, taken as 0"), 1U);
}

TEST(Appliance, IsSettledAtStartUp) {
  MadeUpHost host;
  host.File(kConf, "ProductID=1\nProductName=first\n");
  host.Start();
  host.File(kConf, "ProductID=2\nProductName=second\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxApApplianceId"), "INTEGER: 1");
  EXPECT_EQ(host.daemon.Stop(), 0);
  EXPECT_FALSE(MadeUpHost::Object("host/appliance"));
  host.daemon.Start();
  EXPECT_EQ(host.Get("tlxApApplianceId"), "INTEGER: 2");
}

TEST(Appliance, RefusesEveryPollFrequency) {
  MadeUpHost host;
  host.File(kConf, "ProductID=1\n");
  host.Start();
  for (const char *value : {"0", "1", "2", "30", "-1"}) {
    EXPECT_EQ(host.Set("tlxApOsCommonPollFreq", 'i', value), "wrongValue");
  }
  EXPECT_EQ(host.Set("tlxApOsCommonPollFreq", 's', "x"), "wrongType");
  EXPECT_EQ(host.Get("tlxApOsCommonPollFreq"), "INTEGER: 0");
  EXPECT_EQ(host.Set("tlxApApplianceId", 'i', "5"), "notWritable");
}

// Nobody handles this one's sets: what a manager writes stands until the next start.
TEST(Appliance, KeepsADescriptionThatIsSet) {
  MadeUpHost host;
  host.File(kConf, "ProductID=1\nProductName=a long product name\n");
  host.Start();
  const std::string whole(80, 'w');
  EXPECT_EQ(host.Set("tlxApApplianceDescription", 's', whole + "w"), "wrongLength");
  EXPECT_EQ(host.Get("tlxApApplianceDescription"), "STRING: \"a long product name\"");
  EXPECT_EQ(host.Set("tlxApApplianceDescription", 's', whole), "noError");
  EXPECT_EQ(host.Get("tlxApApplianceDescription"), "STRING: \"" + whole + "\"");
  EXPECT_EQ(host.Set("tlxApApplianceDescription", 's', "short"), "noError");
  EXPECT_EQ(host.Get("tlxApApplianceDescription"), "STRING: \"short\"");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxApApplianceDescription"), "STRING: \"short\"");
  EXPECT_EQ(host.Set("tlxApApplianceDescription", 's', ""), "noError");
  EXPECT_EQ(host.Get("tlxApApplianceDescription"), "\"\"");
}
