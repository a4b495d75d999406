// What could not be defined or published is made up for.
#include "common/variables.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/recording_framework.h"

namespace {

struct two_numbers {
  int32_t first;
  int32_t second;
};

constexpr variable kTwo[] = {READ_ONLY("tlxHoOsType", two_numbers, first),
                             READ_ONLY("tlxHoTelnet", two_numbers, second)};
constexpr variable kOne[] = {READ_ONLY("tlxHoTelnet", two_numbers, second)};

registry_object *Create(const std::string &name, int variables = 2) {
  return create_obj(&obj_Q, get_id(), (std::string(REGISTRY_ROOT "/host/") + name).c_str(), 0,
                    sizeof(two_numbers), variables);
}

// An object whose variables could not be defined, and that could not be published.
registry_object *CreateUnfinished(const std::string &name) {
  registry_object *object = Create(name);
  rec::Fail("init_info");
  rec::Fail("log_data");
  define_variables(object, kTwo);
  publish_once(object);
  rec::StopFailing();
  rec::ForgetEvents();
  return object;
}

// Nothing is left to make up for: not even an object is looked for.
bool NothingIsLeft() {
  rec::ForgetEvents();
  repair_objects();
  return rec::Events().empty();
}

TEST(Variables, AnObjectThatLacksBothIsRepairedOnce) {
  ASSERT_NE(CreateUnfinished("made"), nullptr);
  repair_objects();
  EXPECT_EQ(rec::Slots("host/made").size(), 2U);
  EXPECT_EQ(rec::Publications("host/made"), 1);
  EXPECT_TRUE(NothingIsLeft());
}

TEST(Variables, EachObjectIsRepairedByItself) {
  ASSERT_NE(CreateUnfinished("made.0"), nullptr);
  ASSERT_NE(CreateUnfinished("made.1"), nullptr);
  rec::Fail("log_data", "host/made.0");
  repair_objects();
  EXPECT_EQ(rec::Publications("host/made.0"), 0);
  EXPECT_EQ(rec::Publications("host/made.1"), 1);
  rec::StopFailing();
  repair_objects();
  EXPECT_EQ(rec::Publications("host/made.0"), 1);
  EXPECT_EQ(rec::Publications("host/made.1"), 1);
  EXPECT_TRUE(NothingIsLeft());
}

TEST(Variables, WhatIsDefinedStaysAsItIs) {
  registry_object *object = Create("made");
  ASSERT_NE(object, nullptr);
  rec::Fail("init_info", "tlxHoTelnet");
  define_variables(object, kTwo);
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{"vexhostd: Object is incomplete until the "
                                                      "next poll: " REGISTRY_ROOT "/host/made\n"});
  EXPECT_EQ(object->desc[1].type, 0);
  object->desc[0].length = 3;  // what a second definition would undo
  repair_objects();
  EXPECT_EQ(rec::Publications("host/made"), 0);
  rec::StopFailing();
  repair_objects();
  EXPECT_EQ(object->desc[0].length, 3);
  EXPECT_EQ(object->desc[1].type, VAR_INTEGER);
  EXPECT_EQ(rec::Publications("host/made"), 1);
  EXPECT_TRUE(NothingIsLeft());
}

TEST(Variables, AnObjectAtTheAddressOfADeletedOneIsAnother) {
  rec::ReuseObjects();
  registry_object *gone = CreateUnfinished("gone");
  ASSERT_EQ(delete_obj(&obj_Q, gone, 0), 0);
  registry_object *object = Create("made", 1);
  ASSERT_EQ(object, gone);
  define_variables(object, kOne);
  rec::Fail("log_data");
  publish_once(object);
  rec::StopFailing();
  repair_objects();
  ASSERT_EQ(rec::Slots("host/made").size(), 1U);
  EXPECT_EQ(rec::Slots("host/made")[0].name, "tlxHoTelnet");
  EXPECT_EQ(rec::Publications("host/made"), 1);
  EXPECT_TRUE(NothingIsLeft());
}

// The place of an object that is gone is free again, too.
TEST(Variables, MoreThanCanBeRememberedIsSpokenOf) {
  constexpr int kMost = 256;
  const auto message = [](const std::string &name) {
    return "vexhostd: Object stays incomplete until the next start: " REGISTRY_ROOT "/host/" +
           name + "\n";
  };
  for (int i = 0; i < kMost; i++) {
    ASSERT_NE(CreateUnfinished("made." + std::to_string(i)), nullptr);
  }
  registry_object *late = Create("late");
  ASSERT_NE(late, nullptr);
  rec::Fail("log_data", "host/late");
  publish_once(late);
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{message("late")});
  ASSERT_EQ(delete_obj(&obj_Q, rec::Live("host/made.7"), 0), 0);
  repair_objects();
  EXPECT_EQ(rec::Publications("host/made.255"), 1);
  rec::ForgetEvents();
  publish_once(late);
  EXPECT_TRUE(rec::Messages().empty());
  rec::StopFailing();
  define_variables(late, kTwo);
  repair_objects();
  EXPECT_EQ(rec::Publications("host/late"), 1);
  EXPECT_TRUE(NothingIsLeft());
}

// Cut, it could be the name of another one.
TEST(Variables, ANameThatDoesNotFitIsNotRemembered) {
  const std::string root = REGISTRY_ROOT "/host/";
  for (const size_t length : {127, 128}) {
    registry_object *object = Create(std::string(length - root.size(), 'x'));
    ASSERT_NE(object, nullptr);
    define_variables(object, kTwo);
    rec::Fail("log_data");
    publish_once(object);
    rec::StopFailing();
    EXPECT_EQ(rec::Messages().size(), length == 127 ? 0U : 1U);
    repair_objects();
    EXPECT_EQ(rec::Count("log_data"), length == 127 ? 2 : 1);
    rec::ForgetEvents();
  }
}

}  // namespace
