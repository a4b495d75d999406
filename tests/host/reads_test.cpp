// Reads of whatever an agent publishes, through the tests' own agent.
#include <algorithm>

#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

constexpr char kNoInstance[] = "No Such Instance currently exists at this OID";

}  // namespace

TEST(Reads, EveryType) {
  MadeUpHost host;
  host.StartTestAgent();
  EXPECT_EQ(host.Get("tlxHoName"), "STRING: \"first\"");
  EXPECT_EQ(host.Get("tlxHoDesc"), "\"\"");
  EXPECT_EQ(host.Get("tlxHoOsCommonPollFreq"), "INTEGER: 5");
  EXPECT_EQ(host.Get("tlxHoGUID"), "Hex-STRING: 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
  EXPECT_EQ(host.Get("tlxHoName.1"), kNoInstance);
  EXPECT_EQ(host.Get("tlxHoVersion"), kNoInstance);
}

TEST(Reads, FollowPublication) {
  MadeUpHost host;
  host.StartTestAgent();
  ASSERT_TRUE(host.Order("name second\n"));
  EXPECT_EQ(host.Get("tlxHoName"), "STRING: \"second\"");
  EXPECT_EQ(host.Get("tlxHoSwVerIndex.7"), kNoInstance);
  ASSERT_TRUE(host.Order("rows 7 2\n"));
  EXPECT_EQ(host.Column("tlxHoSwVerName"),
            (std::vector<std::string>{"7: STRING: \"row 7\"", "8: STRING: \"row 8\""}));
  ASSERT_TRUE(host.Order("delete 7\n"));
  EXPECT_EQ(host.daemon.Count("deleted: 0"), 1U);
  EXPECT_EQ(host.Get("tlxHoSwVerIndex.7"), kNoInstance);
  EXPECT_EQ(host.Column("tlxHoSwVerIndex"), std::vector<std::string>{"8: INTEGER: 8"});
  EXPECT_FALSE(MadeUpHost::Object("host/row.7"));
}

TEST(Reads, AWalkIsInOrderAndComplete) {
  MadeUpHost host;
  host.StartTestAgent();
  ASSERT_TRUE(host.Order("rows 0 3\nrows 10 1\n"));
  std::string name = MadeUpHost::Oid("tlxHoSwVerName"), index = MadeUpHost::Oid("tlxHoSwVerIndex");
  auto walk = host.Walk();
  EXPECT_EQ(walk.size(), 7U + 2 * 4);
  EXPECT_EQ(host.BulkWalk(), walk);
  auto rows = host.Column("tlxHoSwVerIndex");
  EXPECT_EQ(rows, (std::vector<std::string>{"0: INTEGER: 0", "1: INTEGER: 1", "2: INTEGER: 2",
                                            "10: INTEGER: 10"}));
  EXPECT_EQ(host.GetNext(index + ".2"), index + ".10 = INTEGER: 10");
  EXPECT_EQ(host.GetNext(index + ".3.1"), index + ".10 = INTEGER: 10");
  EXPECT_EQ(host.GetNext(index), index + ".0 = INTEGER: 0");
  // Between the columns, and out of what is ours.
  EXPECT_FALSE(host.GetNext(index + ".10").starts_with(index));
  EXPECT_FALSE(host.GetNext(".1.3.6.1.4.1.4891.21").starts_with(".1.3.6.1.4.1.4891"));
}

TEST(Reads, ManyAtOnce) {
  MadeUpHost host;
  host.StartTestAgent();
  ASSERT_TRUE(host.Order("rows 0 60\n"));
  std::vector<std::string> names, values;
  for (int i = 0; i < 60; i++) {
    names.push_back("tlxHoSwVerName." + std::to_string(i));
    values.push_back("STRING: \"row " + std::to_string(i) + "\"");
  }
  EXPECT_EQ(host.GetTogether(names), values);
}

TEST(Reads, TenThousandRows) {
  MadeUpHost host;
  host.StartTestAgent();
  ASSERT_TRUE(host.Order("rows 0 10000\n", 60));
  auto column = host.BulkWalk("tlxHoSwVerIndex");
  ASSERT_EQ(column.size(), 10000U);
  std::string index = MadeUpHost::Oid("tlxHoSwVerIndex");
  EXPECT_EQ(column.front(), index + ".0 = INTEGER: 0");
  EXPECT_EQ(column.back(), index + ".9999 = INTEGER: 9999");
  EXPECT_EQ(host.Get("tlxHoSwVerName.9999"), "STRING: \"row 9999\"");
  EXPECT_EQ(MadeUpHost::Objects().size(), 10001U);
  EXPECT_EQ(host.daemon.Stop(), 0);
  EXPECT_FALSE(Exists(std::string(MadeUpHost::kRegistry) + "/host"));
}

TEST(Reads, AreAnsweredWhileTheAgentIsBusy) {
  MadeUpHost host;
  host.StartTestAgent();
  host.SetOrders("name during\nwait 3\nname after\n");
  host.daemon.BeginPoll();
  ASSERT_TRUE(Eventually([&] { return host.Get("tlxHoName") == "STRING: \"during\""; }));
  EXPECT_EQ(host.daemon.Polls(), 0U);
  EXPECT_EQ(host.Walk().size(), 7U);
  EXPECT_EQ(host.daemon.Polls(), 0U);
  ASSERT_TRUE(Eventually([&] { return host.daemon.Polls() == 1; }));
  EXPECT_EQ(host.Get("tlxHoName"), "STRING: \"after\"");
}

// A poll asks the master, which asks this agent: neither waits for the other.
TEST(Reads, ByTheAgentItselfThroughTheMaster) {
  MadeUpHost host;
  host.StartTestAgent();
  std::string freq = MadeUpHost::Oid("tlxHoOsCommonPollFreq").substr(1);
  std::string relative = "enterprises" + freq.substr(std::string("1.3.6.1.4.1").size());
  ASSERT_TRUE(host.Order("query " + freq + "\nquery " + relative +
                         "\nquery 1.3.6.1.4.1.4891.11.99.1.0\nquery 1.3.6.1.2.1.1.5.0\n"));
  EXPECT_EQ(host.daemon.Count("query: 0 0 5 0"), 2U) << host.daemon.Log();
  EXPECT_EQ(host.daemon.Count("query: 0 -1 -77 "), 2U) << host.daemon.Log();
  // Without a master: not found, within its two seconds.
  host.snmpd.Kill();
  double begin = Now();
  ASSERT_TRUE(host.Order("query " + freq + "\n"));
  EXPECT_LT(Now() - begin, 3);
  EXPECT_EQ(host.daemon.Count("query: 0 -1 -77 "), 3U) << host.daemon.Log();
  // And with one that does not answer.
  host.snmpd.Start();
  ASSERT_TRUE(host.daemon.WaitServed());
  host.snmpd.Freeze();
  begin = Now();
  ASSERT_TRUE(host.Order("query " + freq + "\n"));
  EXPECT_LT(Now() - begin, 3);
  EXPECT_EQ(host.daemon.Count("query: 0 -1 -77 "), 4U) << host.daemon.Log();
}

// Walks while a poll creates and deletes rows: each is in order, without a row twice, and has the
// rows that stay.
TEST(Reads, WhileRowsComeAndGo) {
  MadeUpHost host;
  host.StartTestAgent();
  ASSERT_TRUE(host.Order("rows 0 3\nrows 1000 3\n"));
  std::string orders;
  for (int round = 0; round < 40; round++) {
    orders += "rows 100 50\nwait 0.02\n";
    for (int row = 100; row < 150; row++) {
      orders += "delete " + std::to_string(row) + "\n";
    }
    orders += "wait 0.02\n";
  }
  host.SetOrders(orders);
  host.daemon.BeginPoll();
  int walks = 0;
  while (host.daemon.Polls() < 2) {
    std::vector<int> rows;
    for (const std::string &value : host.Column("tlxHoSwVerIndex")) {
      rows.push_back(std::stoi(value));
    }
    ASSERT_TRUE(std::is_sorted(rows.begin(), rows.end()));
    ASSERT_EQ(std::adjacent_find(rows.begin(), rows.end()), rows.end());
    for (int row : {0, 1, 2, 1000, 1001, 1002}) {
      ASSERT_TRUE(std::binary_search(rows.begin(), rows.end(), row)) << row;
    }
    walks++;
  }
  EXPECT_GE(walks, 3);
  EXPECT_EQ(host.Column("tlxHoSwVerIndex").size(), 6U);
}
