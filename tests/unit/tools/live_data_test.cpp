// What the live view knows of a host, and the columns that it makes of it.
#include "tools/vexreg/live_data.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <map>

#include "framework/process/clock.h"
#include "platform/framework.h"
#include "tests/unit/tools/made_object.h"
#include "tools/vexreg/live_columns.h"

using namespace vex;

namespace {

constexpr int64_t kSomeTime = 1'700'000'000;

class Known : public testing::Test {
 protected:
  void Set(const std::string &name, FileObject object) {
    object.published_ns = kSomeTime * kNsPerSecond;
    look_.steps.push_back({name, std::make_shared<const FileObject>(std::move(object))});
  }
  void Set(const std::string &name, const std::vector<MadeVariable> &variables) {
    Set(name, MadeObject(variables));
  }
  void Remove(const std::string &name) {
    look_.steps.push_back({name, nullptr});
  }
  // What the look has made news, the oldest first.
  std::vector<std::string> Take() {
    const std::deque<LiveChange> before = data_.changes();
    data_.Take(look_, kSomeTime, kNsPerSecond);
    look_ = {};
    std::vector<std::string> news;
    for (const LiveChange &change : data_.changes()) {
      news.insert(news.begin(), change.what + ": " + change.how);
    }
    news.erase(news.begin(), news.begin() + static_cast<ptrdiff_t>(before.size()));
    return news;
  }
  // A row's cells, by their columns' titles.
  std::map<std::string, LiveCell> Cells(const std::string &group, const std::string &number,
                                        bool raw = false) {
    std::map<std::string, LiveCell> cells;
    for (const LiveColumn &column : ColumnsOf(group, *data_.Group(group), data_, raw, false)) {
      cells[column.title] = column.cell(*data_.Row(group, number));
    }
    return cells;
  }
  LiveSortKey Key(const std::string &group, const std::string &number, const std::string &title) {
    for (const LiveColumn &column : ColumnsOf(group, *data_.Group(group), data_, false, false)) {
      if (column.title == title) {
        return column.key(*data_.Row(group, number));
      }
    }
    ADD_FAILURE() << "no column " << title;
    return {};
  }

  LiveData data_{false};
  Look look_;
};

using News = std::vector<std::string>;
const LiveSortKey kNoKey;

TEST_F(Known, KeepsSoMuchOfTheProcessorsHistory) {
  for (int i = 0; i < 130; i++) {
    Set("host/cpu.0", {Int("tlxHoCpuUtilMin", i % 101)});
    Take();
  }
  const History &history = data_.Row("host/cpu", "0")->history;
  ASSERT_EQ(history.size(), 120U);
  EXPECT_EQ(history.front(), 10);
  EXPECT_EQ(history.back(), 28);
  EXPECT_EQ(HistoryText({100, 0, 50}, 2, false), "_=");
}

TEST_F(Known, KeepsSoMuchNews) {
  for (int i = 0; i <= 510; i++) {
    Set("x/a", {Text("v", 8, std::to_string(i))});
    data_.Take(look_, kSomeTime + i, kNsPerSecond);
    look_ = {};
  }
  EXPECT_EQ(data_.changes().size(), 500U);
  EXPECT_EQ(data_.changes().front().how, "509 -> 510");
  EXPECT_EQ(data_.changes().back().how, "10 -> 11");
}

// More would push out what had happened before.
TEST_F(Known, TakesSoMuchNewsOfALook) {
  for (const int value : {1, 2}) {
    for (int i = 0; i < 150; i++) {
      Set("x/row." + std::to_string(i), {Int("v", value)});
    }
    const News news = Take();
    EXPECT_EQ(news.size(), value == 1 ? 0U : 100U);
  }
  EXPECT_EQ(data_.Row("x/row", "149")->object->data[0], 2);
}

TEST_F(Known, WhatSomebodyCanSetIsNews) {
  const auto settable = [](const char *name, int value) {
    FileObject object = MadeObject({Int(name, value)});
    object.variables[0].access = ACCESS_WRITABLE;
    return object;
  };
  Set("host/misc", settable("tlxHoOsCommonPollFreq", 15));
  Set("host/load", MadeObject({Int("tlxHoLoadOne", 15)}));
  EXPECT_EQ(Take(), News{});
  Set("host/misc", settable("tlxHoOsCommonPollFreq", 90));
  Set("host/load", MadeObject({Int("tlxHoLoadOne", 90)}));
  EXPECT_EQ(Take(), News{"host/misc tlxHoOsCommonPollFreq: 15 s -> 1 min 30 s"});
}

TEST_F(Known, OtherVariablesAreNewsOnce) {
  Set("x/a", {Int("v", 1), Int("w", 1)});
  Take();
  Set("x/a", {Int("v", 2), Int("u", 2)});
  EXPECT_EQ(Take(), News{"x/a: has other variables now"});
  Set("x/a", {Int("v", 3), Text("u", 4, "3")});
  EXPECT_EQ(Take(), News{"x/a: has other variables now"});
}

TEST_F(Known, WhatCannotBeToldInALineHasChanged) {
  const auto health = [](const std::string &octets) {
    return std::vector<MadeVariable>{{"unused", 0, octets, 4},
                                     Octets("tlxHoMibHealthStatusArray", 8, octets)};
  };
  Set("host/misc", health({'\1', '\1', '\0', '\2'}));
  FileObject unnamed = MadeObject({});
  unnamed.data = {1};
  Set("x/unnamed", unnamed);
  Take();
  Set("host/misc", health({'\1', '\3', '\0', '\2'}));
  unnamed.data = {2};
  Set("x/unnamed", unnamed);
  EXPECT_EQ(Take(), (News{"host/misc tlxHoMibHealthStatusArray: changed", "x/unnamed: changed"}));
}

TEST(KnownRaw, NewsHasNumbersAsTheyAre) {
  LiveData data(true);
  for (const int value : {1, 2}) {
    Look look;
    look.steps.push_back({"host/mount.1", std::make_shared<const FileObject>(
                                              MadeObject({Int("tlxHoMountState", value)}))});
    data.Take(look, kSomeTime, kNsPerSecond);
  }
  ASSERT_EQ(data.changes().size(), 1U);
  EXPECT_EQ(data.changes()[0].how, "1 -> 2");
}

TEST(KnownNumbers, OfUnusedPlacesThereAreNone) {
  const FileObject object = MadeObject({{"tlxHoLoadOne", 0, "1234", 4}, Int("tlxHoLoadOne", 5)});
  EXPECT_EQ(KnownNumber(&object, "tlxHoLoadOne"), 5);
  EXPECT_EQ(KnownNumber(&object, "tlxHoLoadFive"), std::nullopt);
  EXPECT_EQ(TextOf(&object, "tlxHoLoadFive"), "");
  const FileObject memory = MadeObject({Int("tlxHoPhysicalMemorySize", 100)});
  EXPECT_EQ(MemoryUse(&memory, nullptr), std::nullopt);
  EXPECT_EQ(MemoryUse(nullptr, nullptr), std::nullopt);
}

TEST_F(Known, MountsOfFileSystemsThatAreNotThere) {
  const auto mount = [](const char *directory, const char *type) {
    return std::vector<MadeVariable>{Text("tlxHoMountDirectory", 16, directory),
                                     Text("tlxHoMountType", 8, type)};
  };
  const auto file_system = [](const char *description) {
    return std::vector<MadeVariable>{Text("tlxHoFileSysDesc", 24, description)};
  };
  Set("host/mount.1", mount("/a", "ext4"));
  Take();
  EXPECT_EQ(data_.Row("host/mount", "1")->called, "file system /a (ext4)");
  // Without a type, without any text, with a file system of another number.
  Set("host/mount.2", mount("/b", ""));
  Set("host/mount.3", mount("", ""));
  EXPECT_EQ(Take(), (News{"file system /b: is new", "host/mount.3: is new"}));
  Set("host/filesys.7", file_system("dev on /c"));
  Set("host/mount.8", mount("/d", ""));
  EXPECT_EQ(Take(), (News{"file system dev on /c: is new", "file system /d: is new"}));
  // One thing comes while another of the same number goes.
  Remove("host/filesys.7");
  Set("host/mount.7", mount("/e", "nfs"));
  EXPECT_EQ(Take(), (News{"file system dev on /c: is gone", "file system /e (nfs): is new"}));
  // A file system is called as its mount, whichever came first.
  Set("host/filesys.9", file_system("dev on /f"));
  Take();
  Set("host/mount.9", mount("/f", "xfs"));
  Take();
  EXPECT_EQ(data_.Row("host/filesys", "9")->called, "file system /f (xfs)");
}

TEST_F(Known, RowsThatGo) {
  for (int i = 0; i < 6; i++) {
    Set("x/row." + std::to_string(i), {Text("tlxName", 8, i == 0 ? "" : "name")});
  }
  Take();
  EXPECT_EQ(data_.Row("x/row", "0")->called, "x/row.0");
  EXPECT_EQ(data_.Row("x/row", "1")->called, "x/row.1 (name)");
  Remove("x/never");
  EXPECT_EQ(Take(), News{});
  for (int i = 0; i < 6; i++) {
    Remove("x/row." + std::to_string(i));
  }
  EXPECT_EQ(Take(), News{"x/row: 6 rows are gone"});
  EXPECT_EQ(data_.Group("x/row"), nullptr);
}

// Any group that is published at each poll tells the age of all.
TEST(KnownAge, ByAnyGroupOfEachPoll) {
  for (const std::string group :
       {"host/cpu.0", "host/memory", "host/load", "host/agent", "host/misc", "host/info", "x/a"}) {
    LiveData data(false);
    Look look;
    FileObject object = MadeObject({Int("v", 1)});
    object.published_ns = (kSomeTime - 7) * kNsPerSecond;
    look.steps.push_back({group, std::make_shared<const FileObject>(object)});
    data.Take(look, kSomeTime, kNsPerSecond);
    EXPECT_EQ(data.AgeOfValues(kSomeTime, kNsPerSecond), group == "x/a" ? -1 : 7) << group;
    look.steps = {{group, nullptr}};
    data.Take(look, kSomeTime, kNsPerSecond);
    EXPECT_EQ(data.AgeOfValues(kSomeTime, kNsPerSecond), -1) << group;
  }
}

// ---- Columns ------------------------------------------------------------------------------------

TEST_F(Known, ColumnsOfFileSystems) {
  Set("host/filesys.1",
      {Text("tlxHoFileSysDesc", 24, "/dev/x on /a"), Int("tlxHoFileSysSpaceTotal", 2048),
       Int("tlxHoFileSysSpaceUsed", -1), Int("tlxHoFileSysPercentSpaceUsed", -1)});
  Set("host/filesys.2",
      {Text("tlxHoFileSysDesc", 24, "/dev/y on /b"), Int("tlxHoFileSysSpaceTotal", 1000),
       Int("tlxHoFileSysSpaceUsed", 500), Int("tlxHoFileSysPercentSpaceUsed", 50)});
  Set("host/mount.2", {Text("tlxHoMountDirectory", 8, "/bb"), Text("tlxHoMountDevice", 8, "dev"),
                       Text("tlxHoMountType", 8, "ext4"), Int("tlxHoMountState", 1)});
  Set("host/filesys.3", {Int("tlxHoFileSysSpaceTotal", 1000)});
  Set("host/mount.3", {Text("tlxHoMountType", 8, "ext4")});
  Take();
  // Without a mount the description has both; what is not known is not zero.
  auto cells = Cells("host/filesys", "1");
  EXPECT_EQ(cells["Directory"].text, "/a");
  EXPECT_EQ(cells["Device"].text, "/dev/x");
  EXPECT_EQ(cells["Used"].text, "-");
  EXPECT_EQ(cells["Size"].text, "2.0 GiB");
  EXPECT_EQ(cells["Type"].text, "");
  EXPECT_EQ(cells["State"].text, "");
  EXPECT_EQ(Key("host/filesys", "1", "Used"), kNoKey);
  EXPECT_EQ(Key("host/filesys", "1", "Use"), kNoKey);
  EXPECT_EQ(Key("host/filesys", "1", "State"), kNoKey);
  EXPECT_EQ(Key("host/filesys", "1", "Size"), LiveSortKey(int64_t{2048}));
  cells = Cells("host/filesys", "2");
  EXPECT_EQ(cells["Directory"].text, "/bb");
  EXPECT_EQ(cells["Device"].text, "dev");
  EXPECT_EQ(cells["Use"].percent, 50);
  EXPECT_EQ(cells["State"].text, "answers");
  EXPECT_EQ(Key("host/filesys", "2", "State"), LiveSortKey(int64_t{1}));
  EXPECT_EQ(Key("host/filesys", "2", "Directory"), LiveSortKey(std::string("/bb")));
  cells = Cells("host/filesys", "3");
  EXPECT_EQ(cells["State"].text, "");
  EXPECT_EQ(cells["Use"].text, "") << "an older agent's";
}

TEST_F(Known, ColumnsOfSiblings) {
  const auto sibling = [](int major, int minor) {
    return std::vector<MadeVariable>{
        Text("tlxHoSiblingName", 8, "nics"), Int("tlxHoSiblingPresent", 2),
        Int("tlxHoSiblingCondition", -1), Int("tlxHoSiblingMajor", major),
        Int("tlxHoSiblingMinor", minor)};
  };
  Set("host/sibling.1", sibling(-1, 0));
  Set("host/sibling.2", sibling(1, -1));
  Set("host/sibling.3", sibling(0, 0));
  Set("host/sibling.4", sibling(0, 7));
  Take();
  const std::pair<const char *, const char *> revisions[] = {
      {"1", ""}, {"2", ""}, {"3", ""}, {"4", "0.7"}};
  for (const auto &[number, revision] : revisions) {
    EXPECT_EQ(Cells("host/sibling", number)["Revision"].text, revision) << number;
  }
  auto cells = Cells("host/sibling", "1");
  EXPECT_EQ(cells["Agent"].text, "no agent");
  EXPECT_EQ(cells["Health"].text, "") << "an older agent's";
  EXPECT_EQ(Key("host/sibling", "1", "Name"), LiveSortKey(std::string("nics")));
  EXPECT_EQ(Key("host/sibling", "1", "Condition"), kNoKey);
  EXPECT_EQ(Key("host/sibling", "1", "Agent"), LiveSortKey(int64_t{2}));
}

// The first row has the columns; others may be laid out in another way.
TEST_F(Known, ColumnsOfRowsThatDiffer) {
  FileObject cut = MadeObject({Int("a", 7)});
  cut.data.clear();  // of its variable, nothing is there
  Set("x/row.1", {{"unused", 0, "", 0}, Int("a", 1), Text("b", 8, "text")});
  Set("x/row.2", {Text("b", 8, "other"), Int("x", 9), Int("a", 2)});
  Set("x/row.3", {Int("c", 3)});
  Set("x/row.4", cut);
  Take();
  EXPECT_EQ(Cells("x/row", "1").size(), 3U) << "the number, a, b";
  EXPECT_EQ(Cells("x/row", "2")["a"].text, "2");
  EXPECT_EQ(Cells("x/row", "2")["b"].text, "other");
  EXPECT_EQ(Cells("x/row", "3")["a"].text, "");
  EXPECT_EQ(Cells("x/row", "3", true)["b"].text, "");
  EXPECT_EQ(Cells("x/row", "2", true)["a"].text, "2");
  EXPECT_EQ(Key("x/row", "2", "a"), LiveSortKey(int64_t{2}));
  EXPECT_EQ(Key("x/row", "2", "b"), LiveSortKey(std::string("other")));
  EXPECT_EQ(Key("x/row", "3", "a"), kNoKey);
  EXPECT_EQ(Key("x/row", "4", "a"), kNoKey);
  EXPECT_LT(kNoKey, LiveSortKey(int64_t{-5})) << "no value comes before any";
}

TEST_F(Known, ArraysAreOneCell) {
  Set("x/row.1", {Octets("tlxHoMibHealthStatusArray", 8, {"\1\3\0\2", 4})});
  Take();
  const std::string text = Cells("x/row", "1").rbegin()->second.text;
  EXPECT_TRUE(text.starts_with("worst condition: raised; ")) << text;
}

}  // namespace
