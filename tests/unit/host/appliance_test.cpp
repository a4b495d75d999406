#include "identity/appliance.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/recording_framework.h"

namespace {

constexpr char kObject[] = "host/appliance";
constexpr char kDescription[] = "tlxApApplianceDescription";

class Appliance : public testing::Test {
 protected:
  Appliance() {
    rec::SetMibRevision(11, 9, 9);
    rec::SetMibRevision(21, 1, 7);
  }
};

TEST_F(Appliance, NothingOnOtherMachines) {
  EXPECT_EQ(do_appliance(), 0);
  EXPECT_EQ(do_appliance(), 0);
  EXPECT_TRUE(rec::LiveNames().empty());
  EXPECT_EQ(rec::Count("create_obj"), 0);
  EXPECT_EQ(rec::Count("find_obj"), 0);
}

TEST_F(Appliance, TheObjectAsCreated) {
  rec::SetAppliance(true, 4242, {{"ProductName", "Store 9"}});
  ASSERT_EQ(do_appliance(), 0);
  const registry_object *object = rec::Live(kObject);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->flag, 0);
  EXPECT_EQ(object->data_size, 101);
  EXPECT_EQ(object->var_count, 6);
  EXPECT_EQ(rec::Int(kObject, "tlxApMibRevMajor"), 1);
  EXPECT_EQ(rec::Int(kObject, "tlxApMibRevMinor"), 7);
  EXPECT_EQ(rec::Int(kObject, "tlxApMibCondition"), 1);
  EXPECT_EQ(rec::Int(kObject, "tlxApOsCommonPollFreq"), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxApApplianceId"), 4242);
  EXPECT_EQ(rec::Text(kObject, kDescription), "Store 9");
  EXPECT_EQ(rec::Publications(kObject), 1);
  EXPECT_TRUE(rec::Messages().empty());
}

TEST_F(Appliance, TheVariablesBySlot) {
  rec::SetAppliance(true, 1);
  do_appliance();
  EXPECT_EQ(rec::Slots(kObject),
            (std::vector<rec::Slot>{{"tlxApMibRevMajor", 4, 1, 2, 0},
                                    {"tlxApMibRevMinor", 4, 1, 2, 4},
                                    {"tlxApMibCondition", 4, 1, 2, 8},
                                    {"tlxApOsCommonPollFreq", 4, 1, 0, 12},
                                    {"tlxApApplianceId", 4, 1, 2, 16},
                                    {"tlxApApplianceDescription", 81, 2, 0, 20}}));
  EXPECT_EQ(rec::Handled(kObject), (std::vector<std::string>{"tlxApOsCommonPollFreq"}));
}

TEST_F(Appliance, ALongProductNameIsCut) {
  rec::SetAppliance(true, -1, {{"ProductName", std::string(80, 'p') + "X"}});
  ASSERT_EQ(do_appliance(), 0);
  EXPECT_EQ(rec::Text(kObject, kDescription), std::string(80, 'p'));
  EXPECT_EQ(rec::Int(kObject, "tlxApApplianceId"), -1);
}

TEST_F(Appliance, WithoutAProductName) {
  rec::SetAppliance(true, 5);
  ASSERT_EQ(do_appliance(), 0);
  EXPECT_EQ(rec::Text(kObject, kDescription), "");
}

TEST_F(Appliance, RefusesEveryPollFrequency) {
  rec::SetAppliance(true, 5);
  ASSERT_EQ(do_appliance(), 0);
  for (const int32_t value : {0, 1, 2, 60, -1}) {
    EXPECT_EQ(rec::Set(kObject, "tlxApOsCommonPollFreq", value), -1);
  }
  registry_object *object = rec::Live(kObject);
  const int32_t value = 30;
  EXPECT_EQ(object->desc[3].set_handler(SET_APPLY, object, &object->desc[3], &value, 4), -1);
  ASSERT_EQ(do_appliance(), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxApOsCommonPollFreq"), 0);
}

TEST_F(Appliance, ALaterCallRefreshes) {
  rec::SetAppliance(true, 5, {{"ProductName", "a long name"}});
  ASSERT_EQ(do_appliance(), 0);
  rec::SetAppliance(true, 6, {{"ProductName", "short"}});
  ASSERT_EQ(do_appliance(), 0);
  EXPECT_EQ(rec::Count("create_obj"), 1);
  EXPECT_EQ(rec::Int(kObject, "tlxApApplianceId"), 6);
  EXPECT_EQ(rec::Text(kObject, kDescription), "short");
  EXPECT_EQ(rec::Publications(kObject), 2);
}

TEST_F(Appliance, FailsWithoutItsObject) {
  rec::SetAppliance(true, 5);
  rec::Fail("create_obj", kObject);
  EXPECT_EQ(do_appliance(), -1);
  EXPECT_EQ(rec::Messages(),
            (std::vector<std::string>{"do_appliance: do_init returns NULL, return NOT_OK\n"}));
  // Creation is not tried again.
  rec::StopFailing();
  EXPECT_EQ(do_appliance(), -1);
  EXPECT_EQ(rec::Messages().back(), "do_appliance: find_obj returns NULL, return NOT_OK\n");
  EXPECT_EQ(rec::Count("create_obj"), 1);
}

TEST_F(Appliance, FailsWhenItsObjectIsGone) {
  rec::SetAppliance(true, 5);
  ASSERT_EQ(do_appliance(), 0);
  rec::Fail("find_obj", kObject);
  EXPECT_EQ(do_appliance(), -1);
  EXPECT_EQ(rec::Messages(),
            (std::vector<std::string>{"do_appliance: find_obj returns NULL, return NOT_OK\n"}));
  EXPECT_EQ(rec::Publications(kObject), 1);
}

}  // namespace
