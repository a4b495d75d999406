// Names as people say them.
#include "tools/vexreg/names.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/failing_call.h"
#include "tests/unit/framework/temp_registry.h"
#include "tests/unit/tools/made_object.h"

using namespace vex;
using Names = std::vector<std::string>;

namespace {

class FindNames : public testing::Test {
 protected:
  void Publish(const std::string &name, const FileObject &object) {
    PublishMade(registry_.root(), name, object);
  }
  void SetUp() override {
    for (const int row : {0, 2, 10}) {
      Publish("host/cpu." + std::to_string(row),
              MadeObject({Int("tlxHoCpuUtilMin", row), Int("tlxHoCpuUtilHour", -1)}));
    }
    Publish("host/memory", MadeObject({Int("tlxHoPhysicalMemorySize", 1)}));
    Publish("host/misc", MadeObject({Int("tlxHoMibCondition", 2)}));
    Publish("rack/misc", MadeObject({Int("var0", 1)}));
    Publish("rack/stat", MadeObject({Int("var0", 1)}));
  }
  Found Find(const Names &names) {
    return FindObjects({registry_.root(), names});
  }
  Names ObjectsOf(const Names &names) {
    const Found found = Find(names);
    EXPECT_EQ(found.missing, Names());
    Names objects;
    for (const NamedObject &object : found.objects) {
      objects.push_back(object.name);
    }
    return objects;
  }
  TempRegistry registry_;
};

const Names kRows = {"host/cpu.0", "host/cpu.2", "host/cpu.10"};

TEST_F(FindNames, TakesAGroupForItsRows) {
  EXPECT_EQ(ObjectsOf({"host/cpu"}), kRows);
  EXPECT_EQ(ObjectsOf({"./host//cpu"}), kRows);
  EXPECT_EQ(ObjectsOf({registry_.Path("host/cpu")}), kRows);
}

TEST_F(FindNames, TakesNamesWithoutTheDirectory) {
  EXPECT_EQ(ObjectsOf({"cpu"}), kRows);
  EXPECT_EQ(ObjectsOf({"cpu.2"}), Names{"host/cpu.2"});
  EXPECT_EQ(ObjectsOf({"memory"}), Names{"host/memory"});
  EXPECT_EQ(ObjectsOf({"stat"}), Names{"rack/stat"});
  // The Host Agent's own before another's.
  EXPECT_EQ(ObjectsOf({"misc"}), Names{"host/misc"});
}

TEST_F(FindNames, AnObjectOfThatNameComesFirst) {
  Publish("cpu", MadeObject({Int("v", 1)}));
  Publish("host/cpu", MadeObject({Int("v", 1)}));
  EXPECT_EQ(ObjectsOf({"cpu"}), Names{"cpu"});
  EXPECT_EQ(ObjectsOf({"host/cpu"}), Names{"host/cpu"});
}

// Where nothing is called so in these letters.
TEST_F(FindNames, TakesAnyCaseOfLetters) {
  for (const char *name : {"CPU", "host/CPU", "Host/Cpu", "CPU.*"}) {
    EXPECT_EQ(ObjectsOf({name}), kRows) << name;
  }
  EXPECT_EQ(ObjectsOf({"CPU.2"}), Names{"host/cpu.2"});
  EXPECT_EQ(ObjectsOf({"tlxhocpuutilmin"}), kRows);
  EXPECT_EQ(Find({"TLXHOCPUUTILMIN"}).objects[0].object.variables.size(), 1U);
}

TEST_F(FindNames, TakesPatterns) {
  EXPECT_EQ(ObjectsOf({"host/cpu.*"}), kRows);
  EXPECT_EQ(ObjectsOf({"host/cpu.?"}), (Names{"host/cpu.0", "host/cpu.2"}));
  EXPECT_EQ(ObjectsOf({"cpu.[0-2]"}), (Names{"host/cpu.0", "host/cpu.2"}));
  EXPECT_EQ(ObjectsOf({"*/misc"}), (Names{"host/misc", "rack/misc"}));
  EXPECT_EQ(ObjectsOf({"m*"}), (Names{"host/memory", "host/misc", "rack/misc"}));
  EXPECT_EQ(Find({"*/nothing"}).missing, Names{"*/nothing"});
}

TEST_F(FindNames, TakesVariablesForThoseColumnsAlone) {
  const Found found = Find({"tlxHoCpuUtilMin"});
  ASSERT_EQ(found.objects.size(), 3U);
  ASSERT_EQ(found.objects[2].object.variables.size(), 1U);
  EXPECT_EQ(found.objects[2].object.variables[0].name, "tlxHoCpuUtilMin");
  EXPECT_EQ(Find({"tlxHoCpuUtilMin", "tlxHoCpuUtilHour"}).objects[0].object.variables.size(), 2U);
  EXPECT_EQ(ObjectsOf({"var0"}), (Names{"rack/misc", "rack/stat"}));
}

TEST_F(FindNames, TheWholeObjectIsMoreThanItsVariable) {
  for (const Names &names :
       {Names{"cpu.0", "tlxHoCpuUtilMin"}, Names{"tlxHoCpuUtilMin", "cpu.0"}}) {
    const Found found = Find(names);
    ASSERT_EQ(found.objects.size(), 3U);
    EXPECT_EQ(found.objects[0].name, "host/cpu.0");
    EXPECT_EQ(found.objects[0].object.variables.size(), 2U);
    EXPECT_EQ(found.objects[1].object.variables.size(), 1U);
  }
}

TEST_F(FindNames, GivesEachObjectOnceInTheOrderOfTheNames) {
  EXPECT_EQ(ObjectsOf({"memory", "cpu", "host/*"}),
            (Names{"host/memory", "host/cpu.0", "host/cpu.2", "host/cpu.10", "host/misc"}));
  EXPECT_EQ(ObjectsOf({}).size(), 7U);
}

TEST_F(FindNames, TellsWhatIsNotThereFromWhatCannotBeRead) {
  WriteBytes(registry_.Path("host/cpu.1"), {1, 2, 3});
  WriteBytes(registry_.Path("host/odd"), {1, 2, 3});
  const Found found = Find({"host/odd", "nothing", "host", "", "/etc/passwd", ".."});
  EXPECT_EQ(found.unreadable, Names{"host/odd"});
  EXPECT_EQ(found.missing, (Names{"nothing", "host", "", "/etc/passwd", ".."}));
  EXPECT_TRUE(found.objects.empty());
}

TEST(NearName, IsTheOneThatWasMeant) {
  const Names objects = {"host/cpu.0", "host/cpu.1", "host/filesys.3", "host/memory", "rack/stat"};
  EXPECT_EQ(NearestName("host/memroy", objects), "host/memory");
  EXPECT_EQ(NearestName("memry", objects), "host/memory");
  EXPECT_EQ(NearestName("cpus", objects), "host/cpu");
  EXPECT_EQ(NearestName("host/cpu.7", objects), "host/cpu.0");
  EXPECT_EQ(NearestName("filesystem", objects), "host/filesys");
  EXPECT_EQ(NearestName("mem", objects), "host/memory");
  EXPECT_EQ(NearestName("host", objects), "'host/*'");
  EXPECT_EQ(NearestName("host/", objects), "'host/*'");
  EXPECT_EQ(NearestName("tlxHoCpuUtilMn", objects), "tlxHoCpuUtilMin");
  EXPECT_EQ(NearestName("CPU", objects), "host/cpu");
  EXPECT_EQ(NearestName("Memory", objects), "host/memory");
  EXPECT_EQ(NearestName("TLXHOCPUUTILMIN", objects), "tlxHoCpuUtilMin");
  for (const char *word : {"filesystems", "FileSystem", "fs", "disks", "df"}) {
    EXPECT_EQ(NearestName(word, objects), "host/filesys") << word;
  }
  const Names more = {"host/mount.0", "host/swver.0", "host/filesys.0"};
  EXPECT_EQ(NearestName("mounts", more), "host/mount");
  EXPECT_EQ(NearestName("packages", more), "host/swver");
  EXPECT_EQ(NearestName("packages", objects), "");  // there are none
  EXPECT_EQ(NearestName("printer", objects), "");
  EXPECT_EQ(NearestName("", objects), "");
  EXPECT_EQ(NearestName("host/x", {}), "");
}

TEST(NearName, DistancesAreThoseOfSingleMistakes) {
  EXPECT_EQ(EditDistance("memory", "memory", 3), 0U);
  EXPECT_EQ(EditDistance("memory", "memroy", 3), 1U);
  EXPECT_EQ(EditDistance("memory", "memor", 3), 1U);
  EXPECT_EQ(EditDistance("memory", "nemoryy", 3), 2U);
  EXPECT_EQ(EditDistance("", "abc", 3), 3U);
  EXPECT_EQ(EditDistance("", "abcd", 3), 4U);
  EXPECT_EQ(EditDistance("abcdefgh", "ijklmnop", 3), 4U);
}

TEST_F(FindNames, TakesObjectsOfTheRootItself) {
  Publish("top", MadeObject({Int("var0", 1)}));
  Publish("row.1", MadeObject({Int("var0", 1)}));
  EXPECT_EQ(ObjectsOf({"to*"}), Names{"top"});
  EXPECT_EQ(ObjectsOf({"row"}), Names{"row.1"});
}

TEST_F(FindNames, SaysOnceWhatIsDamaged) {
  WriteBytes(registry_.Path("host/cpu.1"), {1, 2, 3});
  std::filesystem::copy_file(registry_.Path("host/cpu.0"), registry_.Path("host/cpu.3"));
  std::filesystem::resize_file(registry_.Path("host/cpu.3"), 200);
  const Found found = Find({"cpu", "host/cpu", "host/*"});
  EXPECT_EQ(found.damaged, Names{"host/cpu.3"});
  EXPECT_EQ(found.missing, Names());
  // A variable is looked for in the others.
  EXPECT_EQ(Find({"tlxHoCpuUtilMin"}).objects.size(), 3U);
}

TEST_F(FindNames, UnusedPlacesHaveNoVariable) {
  Publish("x/a", MadeObject({{"var9", 0, "", 0}, Int("var8", 1)}));
  EXPECT_EQ(Find({"var9"}).missing, Names{"var9"});
  EXPECT_EQ(ObjectsOf({"var8"}), Names{"x/a"});
}

TEST_F(FindNames, NothingIsBeyondTheRoot) {
  const Names names = {"host/cpu.0", "x"};
  EXPECT_EQ(NamesFor("../x", registry_.root(), names), Names());
  EXPECT_EQ(NamesFor("x", registry_.root(), names), Names{"x"});
  EXPECT_EQ(NamesFor("cpu", registry_.root(), names), Names{"host/cpu.0"});
}

TEST(NearName, TakesTheShortestOfWhatAHeadingMayBe) {
  EXPECT_EQ(NearestName("Index", {}), "tlxHoSwVerIndex");
  EXPECT_EQ(NearestName("Condition", {}), "tlxHoMibCondition");
  EXPECT_EQ(NearestName(std::string(100, 'x'), {}), "");
}

// Agents remove objects while others look for them.
TEST_F(FindNames, WhatGoesMeanwhileIsMissing) {
  {
    FailingCall reading("syscall", [&] { std::filesystem::remove(registry_.Path("host/cpu.2")); });
    reading.On("host/cpu.2");
    const Found found = Find({"cpu"});
    EXPECT_EQ(found.objects.size(), 2U);
    EXPECT_EQ(found.damaged, Names());
    EXPECT_EQ(found.missing, Names());
  }
  FailingCall reading("syscall", [&] { std::filesystem::remove_all(registry_.Path("host")); });
  reading.On("host/cpu.0");
  const Found found = Find({"cpu"});
  EXPECT_EQ(found.missing, Names{"cpu"});
  EXPECT_EQ(found.unreadable, Names());
}

TEST_F(FindNames, WhatCannotBeLookedAtIsUnreadable) {
  WriteBytes(registry_.Path("host/odd"), {1, 2, 3});
  // It is read, looked for, and looked at.
  for (const auto &[nth, error] :
       {std::pair{2, EMFILE}, {2, ENFILE}, {2, ENOMEM}, {2, EIO}, {3, EMFILE}}) {
    FailingCall failing("openat", error, nth);
    failing.On("registry");
    const Found found = Find({"host/odd"});
    EXPECT_EQ(failing.Failed(), 1);
    EXPECT_EQ(found.unreadable, Names{"host/odd"}) << nth << strerror(error);
    EXPECT_EQ(found.missing, Names()) << nth << strerror(error);
  }
}

}  // namespace
