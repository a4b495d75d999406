// Tables whose rows stand beside another table's.
#include "detail/beside.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <string>
#include <vector>

#include "detail/swkind.h"
#include "tests/support/recording_framework.h"

namespace {

using Strings = std::vector<std::string>;

// Rows of the software kinds: a name of 128 bytes and a number.
struct Block {
  char name[128] = {};
  int32_t kind = 0;

  explicit Block(const char *text) {
    strncpy(name, text, sizeof(name) - 1);
  }
};

class Beside : public testing::Test {
 protected:
  ~Beside() override {
    free(table_.rows);  // which the agent's last as long as it does
  }
  // A pass that puts these rows, and keeps one when its number is not negative.
  void Pass(const std::vector<std::pair<int, const char *>> &rows, int kept = -1) {
    begin_beside(&table_);
    for (const auto &[number, name] : rows) {
      const Block block(name);
      EXPECT_EQ(put_beside(&table_, number, &block), 0);
    }
    if (kept >= 0) {
      EXPECT_EQ(keep_beside(&table_, kept), 0);
    }
    end_beside(&table_);
  }

  beside_table table_ = {&swkind_group, nullptr, 0};
};

TEST_F(Beside, RowsComeAndGoWithTheirNumbers) {
  ASSERT_EQ(static_cast<size_t>(swkind_group.data_size), sizeof(Block));
  Pass({{0, "a"}, {3, "b"}, {1000, "c"}});
  EXPECT_EQ(rec::LiveNames(), (Strings{"host/swkind.0", "host/swkind.1000", "host/swkind.3"}));
  EXPECT_EQ(rec::Text("host/swkind.1000", "tlxHoSwKindName"), "c");
  Pass({{3, "b"}, {4, "d"}});
  EXPECT_EQ(rec::LiveNames(), (Strings{"host/swkind.3", "host/swkind.4"}));
  Pass({});
  EXPECT_EQ(rec::LiveNames(), Strings{});
}

TEST_F(Beside, PublishesWhatHasChanged) {
  Pass({{0, "a"}, {1, "b"}});
  rec::ForgetEvents();
  Pass({{0, "a"}, {1, "c"}});
  EXPECT_EQ(rec::Names("log_data"), Strings{"host/swkind.1"});
}

TEST_F(Beside, ARowThatIsKeptStaysAsItIs) {
  Pass({{0, "a"}});
  rec::ForgetEvents();
  Pass({}, 0);
  EXPECT_EQ(rec::Text("host/swkind.0", "tlxHoSwKindName"), "a");
  EXPECT_EQ(rec::Count("log_data"), 0);
  // One that there is not is not made by it.
  Pass({{0, "a"}}, 7);
  EXPECT_EQ(rec::LiveNames(), Strings{"host/swkind.0"});
}

TEST_F(Beside, ARowWithoutMemoryIsMadeByTheNextPass) {
  const Block block("a");
  rec::Fail("realloc");
  begin_beside(&table_);
  EXPECT_EQ(put_beside(&table_, 0, &block), -1);
  EXPECT_EQ(keep_beside(&table_, 0), -1);
  end_beside(&table_);
  EXPECT_EQ(rec::LiveNames(), Strings{});
  rec::StopFailing();
  Pass({{0, "a"}});
  EXPECT_EQ(rec::LiveNames(), Strings{"host/swkind.0"});
}

}  // namespace
