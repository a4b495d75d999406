// What vexreg makes of an object's bytes.
#include "tools/vexreg/values.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <limits>
#include <nlohmann/json.hpp>

#include "tests/unit/tools/made_object.h"

using namespace vex;

namespace {

TEST(Utf8, KeepsWhatIsUtf8) {
  for (const std::string text :
       {"", "plain", "\t\x7F", "\xC3\xA4", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF",
        "\xEE\x80\x80", "\xEF\xBF\xBD", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_EQ(Utf8(text), text);
  }
}

TEST(Utf8, ShowsOtherBytesAsTheCharacterOfTheirNumber) {
  const std::pair<std::string, std::string> cases[] = {
      {"a\xFFz", "a\u00FFz"},
      {"\x80", "\xC2\x80"},
      {"\xC3", "\u00C3"},                                      // cut short
      {"\xC3(", "\u00C3("},                                    // no continuation
      {"\xC0\xA0", "\u00C0\u00A0"},                            // overlong
      {"\xE0\x9F\xBF", "\u00E0\xC2\x9F\u00BF"},                // overlong
      {"\xED\xA0\xA0", "\u00ED\u00A0\u00A0"},                  // a surrogate
      {"\xF4\x90\x80\x80", "\u00F4\xC2\x90\xC2\x80\xC2\x80"},  // above U+10FFFF
      {"\xE2\x82", "\u00E2\xC2\x82"},
      {"\xE2\x82(", "\u00E2\xC2\x82("},
      {"\xE2\x82\xFF", "\u00E2\xC2\x82\u00FF"},
      {"\xF0\x9F\x98", "\u00F0\xC2\x9F\xC2\x98"},
      {"\xF5\x80\x80\x80", "\u00F5\xC2\x80\xC2\x80\xC2\x80"},
      {"\xC3\xA4\xE4", "\u00E4\u00E4"},  // one letter in both spellings
  };
  for (const auto &[bytes, text] : cases) {
    EXPECT_EQ(Utf8(bytes), text);
  }
}

TEST(Values, Integers) {
  const FileObject object = MadeObject({Int("a", -1), Int("b", INT32_MIN), Int("c", INT32_MAX)});
  EXPECT_EQ(ObjectJson(object).dump(), R"({"a":-1,"b":-2147483648,"c":2147483647})");
}

TEST(Values, TextEndsAtTheFirstNulOrTheFieldsEnd) {
  const FileObject object = MadeObject({Text("a", 4, "abcd"), Text("b", 4, std::string("a\0cd", 4)),
                                        Text("c", 4, ""), Text("d", 6, "\xFF\"\\\n")});
  EXPECT_EQ(ObjectJson(object).dump(),
            "{\"a\":\"abcd\",\"b\":\"a\",\"c\":\"\",\"d\":\"\u00FF\\\"\\\\\\n\"}");
}

TEST(Values, OctetsOfTheCurrentLength) {
  const FileObject object =
      MadeObject({Octets("a", 4, "\x01\xAB\xFF\x7F"), Octets("b", 4, "xy"), Octets("c", 4, "")});
  EXPECT_EQ(ObjectJson(object).dump(), R"({"a":"01abff7f","b":"7879","c":""})");
}

TEST(Values, KeepTheirOrderAndUndefinedSlotsAreLeftOut) {
  FileObject object = MadeObject({Int("z", 1), Int("m", 2), Int("a", 3)});
  object.variables[1] = FileVariable();
  EXPECT_EQ(ObjectJson(object).dump(), R"({"z":1,"a":3})");
}

TEST(Values, EveryVariableOfOneNameIsKept) {
  const FileObject object = MadeObject({Int("a", 1), Int("a", 2), Int("a#1", 3)});
  EXPECT_EQ(ObjectJson(object).dump(), R"({"a":1,"a#1":2,"a#1#2":3})");
}

TEST(Values, NamesMayBeAnyBytes) {
  const FileObject object = MadeObject({Int("\xFF\x01", 1), Int("", 2)});
  EXPECT_EQ(ObjectJson(object).dump(), "{\"\u00FF\\u0001\":1,\"\":2}");
}

TEST(Values, NothingOutsideTheDataBlock) {
  for (const uint8_t type : {VAR_INTEGER, VAR_DISPLAY_STRING, VAR_OCTET_STRING}) {
    FileObject object;
    object.data.resize(8);
    FileVariable variable;
    variable.name = "v";
    variable.type = type;
    const std::pair<uint32_t, uint32_t> places[] = {
        {5, 4}, {9, 4}, {8, 4}, {UINT32_MAX, 4}, {4, UINT32_MAX - 2}, {0, 9}};
    for (const auto &[offset, size] : places) {
      variable.offset = offset;
      variable.size = size;
      variable.length = 4;
      object.variables = {variable};
      EXPECT_EQ(ObjectJson(object).dump(), R"({"v":null})") << int{type} << " " << offset;
    }
  }
}

TEST(Values, OfOddSizesAndTypes) {
  FileObject object = MadeObject({Octets("a", 2, "xy"), Octets("b", 0, "")});
  object.variables[0].type = VAR_INTEGER;
  object.variables[1].length = 7;  // longer than the field
  EXPECT_EQ(ObjectJson(object).dump(), R"({"a":null,"b":""})");
  object.variables[0].type = 9;  // of a later format
  EXPECT_EQ(ObjectJson(object).dump(), R"({"a":"7879","b":""})");
}

TEST(Values, TimesThatAreNoneStayNumbers) {
  const int64_t beyond = std::numeric_limits<int64_t>::max();
  for (const auto form : {TimeText, ZonedTimeText, IsoTime}) {
    EXPECT_EQ(form(beyond), std::to_string(beyond));
  }
  // Where the zone's name is longer than anybody's.
  setenv("TZ", ("<" + std::string(60, 'A') + ">0").c_str(), 1);
  tzset();
  EXPECT_EQ(ZonedTimeText(5), "5");
  setenv("TZ", "UTC0", 1);
  tzset();
  EXPECT_EQ(IsoTime(5), "1970-01-01T00:00:05+00:00");
}

}  // namespace
