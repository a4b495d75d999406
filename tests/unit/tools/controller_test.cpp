// What the controller of a captured host must have said, and what stands in for it.
#include <gtest/gtest.h>

#include <map>

#include "tests/unit/tools/made_object.h"
#include "tools/vexreg/controller_replies.h"
#include "tools/vexreg/controller_stand_in.h"

namespace vex {
namespace {

constexpr char kIntegrated[] = "Integrated Farwatch Firmware";
constexpr char kRemote[] = "Remote Farwatch Firmware";

NamedObject FirmwareRow(const std::string &name, const std::string &version,
                        const std::string &key) {
  return {"host/fwver.1", MadeObject({Text("tlxHoFwVerDisplayName", 64, name),
                                      Text("tlxHoFwVerVersion", 32, version),
                                      Text("tlxHoFwVerKeyString", 32, key)})};
}

TEST(ControllerReplies, SayTheVersionOfTheRow) {
  for (const auto &[key, generation] :
       std::map<std::string, char>{{"ZQ5", 3}, {"ZQ7", 4}, {"ZQ9", 5}, {"ZQ10", 6}, {"ZQ1", 0}}) {
    for (const bool remote : {false, true}) {
      const ControllerReplies replies =
          RepliesFor({FirmwareRow(remote ? kRemote : kIntegrated, "2.17", key)});
      const std::string &reply = remote ? replies.card : replies.version;
      EXPECT_TRUE((remote ? replies.version : replies.card).empty());
      EXPECT_TRUE(replies.logic.empty());
      ASSERT_EQ(reply.size(), 80U);
      EXPECT_EQ(reply[17], 2);
      EXPECT_EQ(reply[16], 17);
      EXPECT_EQ(reply[68], generation) << key;
    }
  }
}

TEST(ControllerReplies, AreNoneOfRowsThatTellNoVersion) {
  EXPECT_TRUE(RepliesFor({FirmwareRow(kIntegrated, "unknown", "ZQ9")}).version.empty());
  EXPECT_TRUE(RepliesFor({FirmwareRow(kRemote, "2", "ZQ9")}).card.empty());
  NamedObject other = FirmwareRow(kIntegrated, "2.17", "ZQ9");
  other.name = "host/firmware";
  EXPECT_TRUE(RepliesFor({other}).version.empty());
  // A variable that lies outside its object's data has no text.
  NamedObject torn = FirmwareRow(kIntegrated, "2.17", "ZQ9");
  torn.object.variables[1].offset = static_cast<uint32_t>(torn.object.data.size());
  EXPECT_TRUE(RepliesFor({torn}).version.empty());
}

TEST(ControllerReplies, HaveEachDeviceOfTheLogicAtItsPlace) {
  const ControllerReplies replies = RepliesFor(
      {FirmwareRow("a", "1F", "CPLD-Q47-MAINIO"), FirmwareRow("b", "3.2.1", "FMP-Q47-LOWERZRB"),
       FirmwareRow("c", "3.2", "FMP-Q47-UPPERZRB"), FirmwareRow("d", "7", "no such device")});
  ASSERT_EQ(replies.logic.size(), 78U);
  std::string expected(78, '\0');
  expected[12] = '\xA1';
  expected[15] = '\x1F';
  expected.replace(22, 4, "\x01\x02\x03\x01");
  EXPECT_EQ(replies.logic, expected);
  EXPECT_TRUE(RepliesFor({FirmwareRow("d", "7", "no such device")}).logic.empty());
}

TEST(ControllerStandIn, AnswersWhatWasAsked) {
  ControllerReplies replies;
  replies.version = "HEADER..version";
  replies.logic = "HEADER..logic";
  const auto request = [](uint8_t low, uint8_t high) {
    return std::string("\x08\0\x05\0", 4) + static_cast<char>(low) + static_cast<char>(high) +
           std::string("\x07\0", 2);
  };
  EXPECT_EQ(ReplyTo(request(2, 0), replies), request(2, 0) + "version");
  EXPECT_EQ(ReplyTo(request(1, 1) + "more", replies), request(1, 1) + "logic");
  for (const std::string &none :
       {std::string(), request(2, 0).substr(0, 7), request(3, 0), request(2, 1), request(1, 0)}) {
    EXPECT_EQ(ReplyTo(none, replies), "");
  }
  // One without programmable logic says so; one that was not there at all says nothing.
  replies.logic = "";
  EXPECT_EQ(ReplyTo(request(1, 1), replies), request(1, 1) + std::string(70, '\0'));
  replies.version = "";
  EXPECT_EQ(ReplyTo(request(2, 0), replies), "");
}

}  // namespace
}  // namespace vex
