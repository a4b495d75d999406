#include "framework/snmp/snmp_config.h"

#include <gtest/gtest.h>

namespace vex {
namespace {

TEST(SnmpConfig, PathsOfUnixTargets) {
  EXPECT_EQ(UnixPathOf("/var/agentx/master"), "/var/agentx/master");
  EXPECT_EQ(UnixPathOf("unix:/run/x"), "/run/x");
  EXPECT_EQ(UnixPathOf("UNIX:/run/x"), "/run/x");
  EXPECT_EQ(UnixPathOf("tcp:localhost:705"), "");
  EXPECT_EQ(UnixPathOf("localhost:705"), "");
  EXPECT_EQ(UnixPathOf(""), "");
}

TEST(SnmpConfig, AddressesOfTcpTargets) {
  std::optional<MasterAddress::Tcp> address = TcpAddressOf("tcp:127.0.0.1:705");
  ASSERT_TRUE(address);
  EXPECT_EQ(address->ipv4, "127.0.0.1");
  EXPECT_EQ(address->port, 705);
  address = TcpAddressOf("TCP:localhost:65535");
  ASSERT_TRUE(address);
  EXPECT_EQ(address->ipv4, "127.0.0.1");
  EXPECT_EQ(address->port, 65535);
  for (const char *other :
       {"", "tcp:", "tcp:705", "tcp:127.0.0.1", "tcp:127.0.0.1:", "tcp:a.example:705",
        "tcp:127.0.0.1:65536", "tcp:127.0.0.1:-1", "tcp:127.0.0.1:705x", "udp:127.0.0.1:705",
        "/var/agentx/master", "127.0.0.1:705"}) {
    EXPECT_FALSE(TcpAddressOf(other)) << other;
  }
}

TEST(SnmpConfig, CommunitiesOfSnmpdLines) {
  struct {
    const char *token;
    const char *line;
    const char *community;
  } cases[] = {
      {"rocommunity", "public", "public"},
      {"rocommunity", "public  default -V systemonly", "public"},
      {"rocommunity", "  \t public\n", "public"},
      {"rocommunity6", "six", "six"},
      {"rwcommunity", "\"two words\" 127.0.0.1", "two words"},
      {"rwcommunity", "\"\" 127.0.0.1", ""},
      {"rocommunity", "\"open", "open"},
      {"rocommunity", "'two words' 127.0.0.1", "two words"},
      {"rocommunity", "it's", "it's"},
      {"rocommunity", "\"a\\\"b\" 127.0.0.1", "a\"b"},
      {"rocommunity", "a\\ b", "a b"},
      {"rocommunity", "", ""},
      {"com2sec", "notConfigUser default secret", "secret"},
      {"com2sec", "-Cn context user 10.0.0.0/8 secret", "secret"},
      {"com2sec6", "user default secret", "secret"},
      {"com2secunix", "-Cn context user /run/sock secret", "secret"},
      {"com2sec", "user default", ""},
      {"com2sec", "-Cn", ""},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(CommunityOfLine(c.token, c.line), c.community) << c.token << ' ' << c.line;
  }
}

TEST(SnmpConfig, SourceOfALine) {
  struct {
    const char *token;
    const char *line;
    const char *source;
  } cases[] = {
      {"rocommunity", "public", "default"},
      {"rocommunity", "public 192.0.2.0/24 -V all", "192.0.2.0/24"},
      {"rocommunity", "\"two words\" 127.0.0.1", "127.0.0.1"},
      {"rocommunity", "", ""},
      {"com2sec", "user 10.0.0.0/8 secret", "10.0.0.0/8"},
      {"com2sec", "-Cn context user 10.0.0.0/8 secret", "10.0.0.0/8"},
      {"com2sec6", "user", ""},
      {"com2secunix", "user /run/sock secret", ""},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(SourceOfLine(c.token, c.line), c.source) << c.token << ' ' << c.line;
  }
}

}  // namespace
}  // namespace vex
