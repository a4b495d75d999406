// What is read again of a registry, and what not.
#include "tools/vexreg/follower.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/failing_call.h"
#include "tests/support/process.h"
#include "tests/unit/framework/temp_registry.h"
#include "tests/unit/tools/made_object.h"

using namespace vex;
using Strings = std::vector<std::string>;

namespace {

class Follow : public testing::Test {
 protected:
  void Publish(const std::string &name, const std::vector<MadeVariable> &variables) {
    const FileObject object = MadeObject(variables);
    std::vector<uint16_t> lengths;
    for (const FileVariable &variable : object.variables) {
      lengths.push_back(variable.length);
    }
    auto writer = writers_.find(name);
    if (writer == writers_.end()) {
      writer = writers_.emplace(name, ObjectFileWriter(name, registry_.root())).first;
    }
    writer->second.SetLayout(object.variables, static_cast<uint32_t>(object.data.size()));
    ASSERT_EQ(writer->second.Publish(object.data.data(), lengths.data()), 0);
  }
  // Files that were written just now are read again for a while: another write might not show.
  void Settle(Follower *follower) {
    EXPECT_TRUE(made_up::Eventually([&] {
      follower->LookAgain();
      return follower->reads() == 0;
    }));
  }
  static Strings Names(const Look &look) {
    Strings names;
    for (const ObjectStep &step : look.steps) {
      names.push_back((step.object ? "" : "-") + step.name);
    }
    return names;
  }

  TempRegistry registry_;
  std::map<std::string, ObjectFileWriter> writers_;
};

TEST_F(Follow, ReadsWhatHasChanged) {
  Publish("h/a", {Int("v", 1)});
  Publish("h/b", {Int("v", 1)});
  Follower follower({registry_.root(), {}}, {});
  EXPECT_EQ(Names(follower.LookAgain()), (Strings{"h/a", "h/b"}));
  Settle(&follower);
  EXPECT_EQ(Names(follower.LookAgain()), Strings());

  Publish("h/b", {Int("v", 2)});
  const Look look = follower.LookAgain();
  EXPECT_EQ(Names(look), Strings{"h/b"});
  EXPECT_EQ(follower.reads(), 1U);
  EXPECT_EQ(look.steps[0].object->data[0], 2);

  Publish("h/c", {Int("v", 1)});
  std::filesystem::remove(registry_.Path("h/a"));
  EXPECT_EQ(Names(follower.LookAgain()), (Strings{"-h/a", "h/c"}));
}

// One write after another, within the same tick of the file system's clock.
TEST_F(Follow, MissesNoWriteAfterALook) {
  Publish("h/a", {Int("v", 0)});
  Follower follower({registry_.root(), {}}, {});
  follower.LookAgain();
  for (int i = 1; i < 200; i++) {
    Publish("h/a", {Int("v", i)});
    const Look look = follower.LookAgain();
    ASSERT_EQ(Names(look), Strings{"h/a"});
    ASSERT_EQ(look.steps[0].object->data[0], i);
  }
}

TEST_F(Follow, TakesNamesAsPeopleSayThem) {
  for (const char *name : {"host/cpu.0", "host/cpu.1", "host/info", "host/memory", "other/cpu.0"}) {
    Publish(name, {Int("v", 1)});
  }
  Follower rows({registry_.root(), {"cpu"}}, {"host/info"});
  EXPECT_EQ(Names(rows.LookAgain()), (Strings{"host/cpu.0", "host/cpu.1", "host/info"}));
  Publish("host/cpu.2", {Int("v", 1)});
  EXPECT_EQ(Names(rows.LookAgain()), Strings{"host/cpu.2"});

  Follower one({registry_.root(), {"host/memory", "host/none"}}, {});
  const Look look = one.LookAgain();
  EXPECT_EQ(Names(look), Strings{"host/memory"});
  EXPECT_EQ(look.missing, Strings{"host/none"});
  Publish("host/none", {Int("v", 1)});
  const Look again = one.LookAgain();
  EXPECT_EQ(Names(again), Strings{"host/none"});
  EXPECT_EQ(again.missing, Strings());
}

TEST_F(Follow, TakesVariables) {
  Publish("h/a", {Int("v", 1), Int("w", 2)});
  Publish("h/b", {Int("w", 2)});
  Follower follower({registry_.root(), {"v"}}, {});
  const Look look = follower.LookAgain();
  ASSERT_EQ(Names(look), (Strings{"h/a", "-h/b"}));
  ASSERT_EQ(look.steps[0].object->variables.size(), 1U);
  EXPECT_EQ(look.steps[0].object->variables[0].name, "v");
  EXPECT_EQ(look.missing, Strings());
  std::filesystem::remove(registry_.Path("h/a"));
  const Look again = follower.LookAgain();
  EXPECT_EQ(Names(again), (Strings{"-h/a", "-h/b"}));
  EXPECT_EQ(again.missing, Strings{"v"});
}

TEST_F(Follow, TellsOfDamageAndComesBack) {
  Publish("h/a", {Int("v", 1)});
  Follower follower({registry_.root(), {}}, {});
  follower.LookAgain();
  const std::vector<uint8_t> bytes = ReadBytes(registry_.Path("h/a"));
  std::vector<uint8_t> damaged = bytes;
  damaged.resize(20);
  WriteBytes(registry_.Path("h/a"), damaged);
  WriteBytes(registry_.Path("h/other"), {1, 2, 3});  // no object's, and none of our business
  const Look look = follower.LookAgain();
  EXPECT_EQ(Names(look), Strings{"-h/a"});
  EXPECT_EQ(look.damaged, Strings{"h/a"});
  EXPECT_EQ(follower.LookAgain().damaged, Strings{"h/a"});
  WriteBytes(registry_.Path("h/a"), bytes);
  const Look again = follower.LookAgain();
  EXPECT_EQ(Names(again), Strings{"h/a"});
  EXPECT_EQ(again.damaged, Strings());
}

TEST_F(Follow, TellsOfARootThatIsGone) {
  Publish("h/a", {Int("v", 1)});
  Follower follower({registry_.root(), {}}, {});
  follower.LookAgain();
  std::filesystem::rename(registry_.root(), registry_.base() + "/away");
  const Look look = follower.LookAgain();
  EXPECT_EQ(look.error, ENOENT);
  EXPECT_EQ(Names(look), Strings{"-h/a"});
  EXPECT_EQ(Names(follower.LookAgain()), Strings());
  std::filesystem::rename(registry_.base() + "/away", registry_.root());
  const Look again = follower.LookAgain();
  EXPECT_EQ(again.error, 0);
  EXPECT_EQ(Names(again), Strings{"h/a"});
}

TEST_F(Follow, LooksNotIntoDirectoriesWithoutEnd) {
  std::string path = "d0";
  for (int i = 1; i < 16; i++) {
    path += "/d" + std::to_string(i);
  }
  Publish(path + "/a", {Int("v", 1)});
  std::filesystem::create_directories(registry_.Path(path + "/d16"));
  std::filesystem::copy_file(registry_.Path(path + "/a"), registry_.Path(path + "/d16/b"));
  Follower follower({registry_.root(), {}}, {});
  EXPECT_EQ(Names(follower.LookAgain()), Strings{path + "/a"});
}

TEST_F(Follow, FilesThatAreNoObjectsAreNobodysBusiness) {
  Publish("h/a", {Int("v", 1)});
  WriteBytes(registry_.Path("h/text"), std::vector<uint8_t>(200, 'x'));
  Follower follower({registry_.root(), {"", "h/*"}}, {});
  const Look look = follower.LookAgain();
  EXPECT_EQ(Names(look), Strings{"h/a"});
  EXPECT_EQ(look.damaged, Strings());
  EXPECT_EQ(look.missing, Strings{""});
  // It goes without having been there.
  std::filesystem::remove(registry_.Path("h/text"));
  EXPECT_EQ(Names(follower.LookAgain()), Strings());
}

TEST_F(Follow, VariablesOfUnusedPlacesAndDamagedFilesAreMissing) {
  Publish("h/a", {{"v", 0, "", 0}, Int("w", 2)});
  Publish("h/b", {Int("v", 2)});
  std::filesystem::resize_file(registry_.Path("h/b"), 200);
  Follower follower({registry_.root(), {"v", "w"}}, {});
  const Look look = follower.LookAgain();
  EXPECT_EQ(Names(look), Strings{"h/a"});
  EXPECT_EQ(look.steps.at(0).object->variables.size(), 1U);
  EXPECT_EQ(look.missing, Strings{"v"});
  EXPECT_EQ(look.damaged, Strings{"h/b"});
}

// What cannot be opened at the moment, as where another user's file is or descriptors are short,
// is neither there nor damaged, and is tried again.
TEST_F(Follow, TriesAgainWhatCouldNotBeRead) {
  Publish("h/a", {Int("v", 1)});
  Publish("h/b", {Int("v", 1)});
  struct Case {
    const char *call, *path;
    int nth, count;
    Strings seen;
  };
  for (const Case &each : {Case{"openat", "h", 1, 1, {}},               // the directory
                           Case{"fstatat", "a", 1, 1, {"h/b"}},         // what is in it
                           Case{"syscall", "h/a", 1, 2, {"h/b"}},       // the file
                           Case{"openat", "registry", 2, 2, {"h/b"}}})  // its root, at the file
  {
    SCOPED_TRACE(std::string(each.call) + " " + each.path);
    Follower follower({registry_.root(), {}}, {});
    {
      FailingCall failing(each.call, EACCES, each.nth, each.count);
      failing.On(each.path);
      const Look look = follower.LookAgain();
      EXPECT_EQ(failing.Failed(), each.count);
      EXPECT_EQ(Names(look), each.seen);
      EXPECT_EQ(look.damaged, Strings());
    }
    follower.LookAgain();
    follower.LookAgain();
    Publish("h/a", {Int("v", 2)});
    EXPECT_EQ(Names(follower.LookAgain()), Strings{"h/a"});
  }
}

}  // namespace
