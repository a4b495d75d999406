// The next index that two tables share.
#include "common/next_index.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/recording_framework.h"

namespace {

TEST(NextIndex, IsKeptInTheObjectThatIsNamed) {
  EXPECT_EQ(next_index(), 0);
  EXPECT_EQ(set_next_index(3), -1);

  snprintf(log_dir, sizeof(log_dir), "%s/host", REGISTRY_ROOT);
  registry_object *object = create_obj(&obj_Q, get_id(), REGISTRY_ROOT "/host/made", 0, 10, 0);
  ASSERT_NE(object, nullptr);
  keep_next_index_in(object, 5);
  EXPECT_EQ(next_index(), 0);
  EXPECT_EQ(set_next_index(0x01020304), 0);
  EXPECT_EQ(next_index(), 0x01020304);
  EXPECT_EQ(memcmp(object->data, "\0\0\0\0\0\x04\x03\x02\x01\0", 10), 0);
  EXPECT_EQ(rec::Publications("host/made"), 1);

  rec::Fail("log_data", "host/made");
  EXPECT_EQ(set_next_index(7), -1);
  EXPECT_EQ(next_index(), 7);

  keep_next_index_in(nullptr, 0);
  EXPECT_EQ(next_index(), 0);
  EXPECT_EQ(set_next_index(3), -1);
}

}  // namespace
