// What `vexreg put` makes of its arguments.
#include "tools/vexreg/put.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "framework/registry/registry_format.h"
#include "platform/framework.h"
#include "tools/vexreg/values.h"

using namespace vex;

namespace {

std::string Json(const std::vector<std::string> &texts) {
  std::string error;
  const auto object = MakeObject(texts, std::nullopt, &error);
  return object ? ObjectJson(*object).dump() : "refused: " + error;
}

// Refused, with a message that names the text.
bool IsRefused(const std::string &text) {
  std::string error;
  return !MakeObject({text}, std::nullopt, &error) && error.starts_with(text + ": ");
}

TEST(Put, VariablesInSlotOrderPacked) {
  std::string error;
  const auto object =
      MakeObject({"str:3:ab", "int:-2", "hex:00fFA0", "int:7"}, std::nullopt, &error);
  ASSERT_TRUE(object) << error;
  EXPECT_EQ(ObjectJson(*object).dump(), R"({"var0":"ab","var1":-2,"var2":"00ffa0","var3":7})");
  EXPECT_EQ(object->data.size(), 3U + 4 + 3 + 4);
  const uint32_t offsets[] = {0, 3, 7, 10};
  const uint32_t sizes[] = {3, 4, 3, 4};
  for (size_t i = 0; i < 4; i++) {
    EXPECT_EQ(object->variables[i].offset, offsets[i]);
    EXPECT_EQ(object->variables[i].size, sizes[i]);
    EXPECT_EQ(object->variables[i].length, sizes[i]);
    EXPECT_EQ(object->variables[i].access, ACCESS_READ_ONLY);
  }
}

TEST(Put, Integers) {
  EXPECT_EQ(Json({"int:2147483647", "int:-2147483648", "int:0", "int:-0", "int:007"}),
            R"({"var0":2147483647,"var1":-2147483648,"var2":0,"var3":0,"var4":7})");
  for (const char *text :
       {"int:", "int:2147483648", "int:-2147483649", "int:4294967295", "int:+1", "int: 1", "int:1 ",
        "int:0x10", "int:1.5", "int:one", "int:--1", "int:99999999999999999999"}) {
    EXPECT_TRUE(IsRefused(text)) << text;
  }
}

TEST(Put, Texts) {
  EXPECT_EQ(Json({"str:1:", "str:5:abcd", "str:20:a:b:c", "str:9: x "}),
            R"({"var0":"","var1":"abcd","var2":"a:b:c","var3":" x "})");
  for (const char *text :
       {"str:", "str:5", "str::abc", "str:0:", "str:1:a", "str:4:abcd",
        "str:-1:", "str:1048577:", "str:x:abc", "str: 5:a", "str:4294967296:a"}) {
    EXPECT_TRUE(IsRefused(text)) << text;
  }
}

TEST(Put, Octets) {
  EXPECT_EQ(Json({"hex:00", "hex:DEADbeef"}), R"({"var0":"00","var1":"deadbeef"})");
  for (const char *text : {"hex:", "hex:0", "hex:0g", "hex:0x00", "hex:00 00", "hex:/0", "hex:0/",
                           "hex:0:", "hex:@0", "hex:G0"}) {
    EXPECT_TRUE(IsRefused(text)) << text;
  }
  EXPECT_TRUE(IsRefused("hex:" + std::string(2 * 65536, '0')));
  EXPECT_FALSE(IsRefused("hex:" + std::string(2 * 65535, '0')));
}

TEST(Put, OtherKinds) {
  for (const char *text : {"", "5", "int", "Int:5", "uint:5", "str", "hex", ":", "oct:00"}) {
    EXPECT_TRUE(IsRefused(text)) << text;
  }
}

TEST(Put, DataBlock) {
  const std::vector<uint8_t> data = {1, 0, 0, 0, 'a', 'b', 'c', 0xFF};
  std::string error;
  const auto plain = MakeObject({}, data, &error);
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->data, data);
  EXPECT_TRUE(plain->variables.empty());

  // The variables say what lies in the block; it is the file's, byte for byte.
  const auto laid = MakeObject({"int:77", "str:3:"}, data, &error);
  ASSERT_TRUE(laid);
  EXPECT_EQ(laid->data, data);
  EXPECT_EQ(ObjectJson(*laid).dump(), R"({"var0":1,"var1":"abc"})");

  EXPECT_FALSE(MakeObject({"int:77", "str:5:"}, data, &error));
  EXPECT_NE(error.find("8 bytes"), std::string::npos);
  EXPECT_TRUE(MakeObject({"int:77", "str:4:"}, data, &error));
}

TEST(Put, NothingAtAllIsAnObjectWithoutData) {
  std::string error;
  const auto object = MakeObject({}, std::nullopt, &error);
  ASSERT_TRUE(object);
  EXPECT_TRUE(object->data.empty());
  EXPECT_TRUE(object->variables.empty());
}

TEST(Put, Limits) {
  std::string error;
  const std::string half = "str:524288:";
  EXPECT_TRUE(MakeObject({half, half}, std::nullopt, &error));
  EXPECT_FALSE(MakeObject({half, half, "hex:00"}, std::nullopt, &error));
  EXPECT_FALSE(MakeObject({half, half, half, half}, std::nullopt, &error));
  EXPECT_TRUE(MakeObject({}, std::vector<uint8_t>(kMaxData), &error));
  EXPECT_FALSE(MakeObject({}, std::vector<uint8_t>(kMaxData + 1), &error));
  EXPECT_TRUE(MakeObject(std::vector<std::string>(kMaxVariables, "hex:00"), std::nullopt, &error));
  EXPECT_FALSE(
      MakeObject(std::vector<std::string>(kMaxVariables + 1, "hex:00"), std::nullopt, &error));
}

}  // namespace
