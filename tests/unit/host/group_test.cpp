// How a group describes itself, and what is made and found by its record.
#include "common/group.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/recording_framework.h"

namespace {

struct [[gnu::packed]] inner_block {
  int32_t deep;
};

struct [[gnu::packed]] block {
  int32_t number;
  char text[10];
  uint8_t octets[8];
  int32_t several[2];
  inner_block inner;
  int16_t narrow;
};

int refuse(uint8_t, registry_object *, descriptor *, const void *, int) {
  return -1;
}

constexpr variable kVariables[] = {
    READ_ONLY("tlxHoName", block, text), SETTABLE("tlxHoOsType", block, number, refuse),
    LEADING_OCTETS("tlxHoGUID", block, octets, 7), READ_ONLY("tlxHoTelnet", block, several[1]),
    READ_ONLY("tlxHoTrapFlags", block, inner.deep)};

constexpr group kGroup = described<block>({
    .name = "made",
    .title = "made-up",
    .flag = 1,
    .variables = kVariables,
    .refresh = nullptr,
    .each_poll = false,
    .absence = nullptr,
});

// Whether a member of that type can stand for a variable.
template <typename Member>
concept HasVariableType = requires {
  variable_type_of<Member>::type;
};

static_assert(HasVariableType<decltype(block::number)>);
static_assert(HasVariableType<decltype(block::text)>);
static_assert(!HasVariableType<decltype(block::narrow)>);
static_assert(!HasVariableType<decltype(block::several)>);
static_assert(!HasVariableType<decltype(block::inner)>);
static_assert(!HasVariableType<int64_t>);
static_assert(!HasVariableType<const char *>);
static_assert(!HasVariableType<bool>);

// Whether a group of that data block can have these variables.
template <typename Block>
constexpr bool kHolds = requires {
  typename std::integral_constant<int, described<Block>({.name = "",
                                                         .title = "",
                                                         .flag = 0,
                                                         .variables = kVariables,
                                                         .refresh = nullptr,
                                                         .each_poll = false,
                                                         .absence = nullptr})
                                           .data_size>;
};
static_assert(kHolds<block>);
static_assert(!kHolds<inner_block>);
static_assert(!kHolds<char[33]>);
static_assert(kHolds<char[34]>);

TEST(Group, TakesSizeTypeAndOffsetFromTheMember) {
  const std::vector<std::vector<int>> expected = {{10, VAR_DISPLAY_STRING, ACCESS_READ_ONLY, 4},
                                                  {4, VAR_INTEGER, ACCESS_WRITABLE, 0},
                                                  {7, VAR_OCTET_STRING, ACCESS_READ_ONLY, 14},
                                                  {4, VAR_INTEGER, ACCESS_READ_ONLY, 26},
                                                  {4, VAR_INTEGER, ACCESS_READ_ONLY, 30}};
  std::vector<std::vector<int>> found;
  for (const variable &v : kVariables) {
    found.push_back({v.size, v.type, v.access, static_cast<int>(v.offset)});
  }
  EXPECT_EQ(found, expected);
  EXPECT_EQ(kVariables[1].set_handler, &refuse);
  EXPECT_EQ(kVariables[0].set_handler, nullptr);
  EXPECT_EQ(kGroup.data_size, static_cast<int>(sizeof(block)));
}

class GroupObjects : public testing::Test {
 protected:
  GroupObjects() {
    snprintf(log_dir, sizeof(log_dir), "%s/host", REGISTRY_ROOT);
  }
};

TEST_F(GroupObjects, AreMadeAndFoundByTheRecord) {
  registry_object *object = create_object(kGroup);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(rec::Live("host/made"), object);
  EXPECT_EQ(object->data_size, static_cast<int>(sizeof(block)));
  EXPECT_EQ(object->var_count, 5);
  EXPECT_EQ(object->flag, 1);
  EXPECT_EQ(object->desc[2].size, 7);
  EXPECT_EQ(rec::Publications("host/made"), 0);
  EXPECT_EQ(find_object(kGroup), object);
  EXPECT_EQ(find_row(kGroup, 0), nullptr);

  registry_object *row = create_row(kGroup, 12);
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(rec::Live("host/made.12"), row);
  EXPECT_EQ(row->instance, 12);
  EXPECT_EQ(row->desc[0].type, VAR_DISPLAY_STRING);
  EXPECT_EQ(find_row(kGroup, 12), row);
  EXPECT_EQ(find_row(kGroup, 1), nullptr);
}

TEST_F(GroupObjects, MayWaitForTheirVariables) {
  rec::AllowUndefinedSlots("host/made");
  registry_object *object = create_undefined_object(kGroup);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->desc[0].type, 0);
  define_variables(object, kGroup.variables);
  EXPECT_EQ(object->desc[0].type, VAR_DISPLAY_STRING);
}

TEST_F(GroupObjects, AreNullWhenTheyCannotBeCreated) {
  rec::Fail("create_obj", "host/made*");
  EXPECT_EQ(create_object(kGroup), nullptr);
  EXPECT_EQ(create_row(kGroup, 2147483647), nullptr);
  EXPECT_EQ(create_undefined_object(kGroup), nullptr);
  EXPECT_EQ(rec::Names("create_obj"),
            (std::vector<std::string>{"host/made", "host/made.2147483647", "host/made"}));
}

TEST(Group, TellsTheFirstCallFromTheOthers) {
  bool called = false;
  EXPECT_TRUE(first_call(&called));
  EXPECT_FALSE(first_call(&called));
  EXPECT_FALSE(first_call(&called));
}

TEST(Group, SaysWhetherItsObjectWasToBeMadeOrFound) {
  report_no_object("do_made", true);
  report_no_object("do_made", false);
  EXPECT_EQ(rec::Messages(),
            (std::vector<std::string>{"do_made: do_init returns NULL, return NOT_OK\n",
                                      "do_made: find_obj returns NULL, return NOT_OK\n"}));
}

}  // namespace
