// The lines of `vexreg watch` where there is no terminal.
#include "tools/vexreg/changes.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/unit/tools/made_object.h"
#include "tools/vexreg/values.h"

using namespace vex;
using Lines = std::vector<std::string>;

namespace {

TEST(Changes, OfANewObject) {
  const auto object = MadeObject({Int("a", 1), Text("b", 5, "x y"), Octets("c", 2, "\x01\xFF")});
  EXPECT_EQ(ChangeLines("h/x", nullptr, &object),
            (Lines{"h/x a 1", "h/x b \"x y\"", "h/x c \"01ff\""}));
}

TEST(Changes, OfARemovedObject) {
  const auto object = MadeObject({Int("a", 1)});
  EXPECT_EQ(ChangeLines("h/x", &object, nullptr), Lines{"h/x removed"});
  EXPECT_EQ(ChangeLines("h/x", nullptr, nullptr), Lines{});
}

TEST(Changes, OfValues) {
  const auto before = MadeObject({Int("a", 1), Int("b", 2), Text("c", 5, "x")});
  const auto after = MadeObject({Int("a", 1), Int("b", -3), Text("c", 5, "y")});
  EXPECT_EQ(ChangeLines("h/x", &before, &after), (Lines{"h/x b 2 -> -3", "h/x c \"x\" -> \"y\""}));
  EXPECT_EQ(ChangeLines("h/x", &before, &before), Lines{});
}

TEST(Changes, OfTheShape) {
  const auto before = MadeObject({Int("a", 1)});
  const auto after = MadeObject({Int("a", 1), Int("b", 2)});
  EXPECT_EQ(ChangeLines("h/x", &before, &after), (Lines{"h/x a 1", "h/x b 2"}));
}

TEST(Changes, OfAnObjectWithoutVariables) {
  auto before = MadeObject({});
  before.data = {1, 2};
  auto after = before;
  EXPECT_EQ(ChangeLines("h/x", nullptr, &before), Lines{"h/x (2 bytes of data)"});
  EXPECT_EQ(ChangeLines("h/x", &before, &after), Lines{});
  after.data = {1, 3};
  EXPECT_EQ(ChangeLines("h/x", &before, &after), Lines{"h/x (2 bytes of data)"});
}

Lines JsonOf(const FileObject *before, const FileObject *after) {
  Lines lines;
  for (const auto &change : ChangeObjects("h/x", before, after, ValueJson)) {
    lines.push_back(change.dump());
  }
  return lines;
}

TEST(Changes, ForPrograms) {
  const auto before = MadeObject({Int("a", 1), Text("c", 5, "x")});
  const auto after = MadeObject({Int("a", 2), Text("c", 5, "x")});
  EXPECT_EQ(JsonOf(nullptr, &before),
            (Lines{R"({"object":"h/x","variable":"a","old":null,"new":1})",
                   R"({"object":"h/x","variable":"c","old":null,"new":"x"})"}));
  EXPECT_EQ(JsonOf(&before, &after), Lines{R"({"object":"h/x","variable":"a","old":1,"new":2})"});
  EXPECT_EQ(JsonOf(&before, nullptr), Lines{R"({"object":"h/x","removed":true})"});
  EXPECT_EQ(JsonOf(&before, &before), Lines{});
  auto data = MadeObject({});
  data.data = {1, 2};
  EXPECT_EQ(JsonOf(nullptr, &data), Lines{R"({"object":"h/x","bytes":2})"});
}

TEST(Changes, AreOneLineOfAsciiEach) {
  const auto object = MadeObject({Text("n\n", 9, "\x1b\n\u00e4\xFF\x7f")});
  EXPECT_EQ(ChangeLines("h/\x1b", nullptr, &object),
            Lines{"h/\\u001b n\\n \"\\u001b\\n\\u00e4\\u00ff\\u007f\""});
}

TEST(Changes, OfNamesAndTypes) {
  const auto before = MadeObject({Int("a", 1)});
  const auto renamed = MadeObject({Int("b", 1)});
  const auto retyped = MadeObject({Octets("a", 4, "1234")});
  EXPECT_EQ(ChangeLines("h/x", &before, &renamed), Lines{"h/x b 1"});
  EXPECT_EQ(ChangeLines("h/x", &before, &retyped), Lines{"h/x a \"31323334\""});
  EXPECT_EQ(JsonOf(&before, &renamed),
            Lines{R"({"object":"h/x","variable":"b","old":null,"new":1})"});
  EXPECT_EQ(JsonOf(nullptr, nullptr), Lines{});
}

TEST(Changes, OfUnusedPlacesThereAreNone) {
  const auto object = MadeObject({{"gone", 0, "1234", 4}, Int("a", 1)});
  EXPECT_EQ(ChangeLines("h/x", nullptr, &object), Lines{"h/x a 1"});
  EXPECT_EQ(JsonOf(nullptr, &object),
            Lines{R"({"object":"h/x","variable":"a","old":null,"new":1})"});
}

TEST(Changes, OfDataForPrograms) {
  auto before = MadeObject({});
  before.data = {1, 2};
  auto after = before;
  EXPECT_EQ(JsonOf(&before, &after), Lines{});
  after.data = {1, 3, 4};
  EXPECT_EQ(JsonOf(&before, &after), Lines{R"({"object":"h/x","bytes":3})"});
}

// A terminal acts on it, and JSON may have it as it is.
TEST(Changes, HaveNoDelete) {
  EXPECT_EQ(OneLine("a\x7f"
                    "b\x7f"),
            "\"a\\u007fb\\u007f\"");
}

}  // namespace
