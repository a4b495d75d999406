// The vexreg command, run.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/failing_call.h"
#include "tests/support/process.h"
#include "tests/unit/framework/temp_registry.h"
#include "tests/unit/tools/made_object.h"
#include "tests/unit/tools/said_by.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/forked.h"

using namespace vex;
using made_up::Eventually;
using made_up::Outcome;
using Words = std::vector<std::string>;

namespace {

class Command : public testing::Test {
 protected:
  Outcome Run(Words words, const std::string &input = "") {
    words.insert(words.begin(), {VEXREG_PATH, "--root", registry_.root()});
    return made_up::RunCommand(words, {}, 30, input);
  }
  // Runs it, which must succeed without a word on standard error; its output.
  std::string Output(const Words &words) {
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }
  nlohmann::ordered_json Dump(Words names = {}) {
    names.insert(names.begin(), "dump");
    return nlohmann::ordered_json::parse(Output(names));
  }
  void ExpectStatus(int status, const Words &words) {
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.status, status) << outcome.err;
    EXPECT_NE(outcome.err, "");
  }
  void Publish(const std::string &name, const FileObject &object) {
    PublishMade(registry_.root(), name, object);
  }

  TempRegistry registry_;
};

// An object as the Host Agent publishes it.
FileObject Memory(int free) {
  return MadeObject({Int("tlxHoPhysicalMemorySize", 2048), Int("tlxHoPhysicalMemoryFree", free),
                     Int("tlxHoPagingMemorySize", -1)});
}
FileObject Cpu(int minute) {
  return MadeObject({Int("tlxHoCpuUtilUnitIndex", 0), Int("tlxHoCpuUtilMin", minute)});
}

TEST_F(Command, DumpsAllInNaturalOrder) {
  for (const char *name :
       {"host/cpu.10", "host/cpu.2", "host/memory", "host/cpu.1", "a", "b/c/d"}) {
    Output({"put", name, "int:1"});
  }
  Words names;
  const auto dumped = Dump();
  for (const auto &[name, object] : dumped.items()) {
    names.push_back(name);
    EXPECT_EQ(object.dump(), R"({"var0":1})");
  }
  EXPECT_EQ(names, (Words{"a", "b/c/d", "host/cpu.1", "host/cpu.2", "host/cpu.10", "host/memory"}));
}

TEST_F(Command, DumpsValues) {
  Output({"put", "x", "int:-7", "str:9:a\"b\xFF", "hex:00Ff", "str:4:"});
  EXPECT_EQ(Dump({"x"}).dump(),
            "{\"x\":{\"var0\":-7,\"var1\":\"a\\\"b\u00FF\",\"var2\":\"00ff\",\"var3\":\"\"}}");
}

TEST_F(Command, DumpsTheNamedOnes) {
  Output({"put", "h/a", "int:1"});
  Output({"put", "h/b", "int:2"});
  const std::string both = R"({"h/b":{"var0":2},"h/a":{"var0":1}})";
  EXPECT_EQ(Dump({"h/b", "h/a"}).dump(), both);
  EXPECT_EQ(Dump({"h/b", registry_.Path("h/a"), "./h//b", "../registry/h/a"}).dump(), both);

  const Outcome outcome = Run({"dump", "h/a", "h/none"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, Output({"dump", "h/a"}));
  EXPECT_EQ(outcome.err, "vexreg: h/none: no such object\n");
}

TEST_F(Command, DumpsNothingWhereNothingIs) {
  EXPECT_EQ(Output({"dump"}), "{}\n");
  std::filesystem::remove_all(registry_.base());
  EXPECT_EQ(Output({"dump"}), "{}\n");
}

TEST_F(Command, SaysWhyThereIsNothingToShow) {
  const auto expect = [&](const char *why) {
    for (const Words &words : {Words{"show"}, Words{"show", "--json"}, Words{"export"}}) {
      const Outcome outcome = Run(words);
      EXPECT_EQ(outcome.status, 1);
      EXPECT_TRUE(outcome.err.starts_with(why)) << outcome.err;
    }
  };
  expect("vexreg: nothing is published in ");
  EXPECT_EQ(Run({"show"}).out, "");
  EXPECT_EQ(Run({"show", "--json"}).out, "{}\n");
  EXPECT_EQ(Run({"export"}).out, "# EOF\n");
  std::filesystem::remove_all(registry_.base());
  expect("vexreg: nothing is published: there is no registry ");
}

TEST_F(Command, TakesNamesAsPeopleSayThem) {
  for (const char *name : {"host/cpu.0", "host/cpu.1", "host/memory"}) {
    Output({"put", name, "int:1"});
  }
  for (const char *name : {"cpu", "host/cpu", "host/cpu.*", "cpu.?"}) {
    EXPECT_EQ(Dump({name}).dump(), R"({"host/cpu.0":{"var0":1},"host/cpu.1":{"var0":1}})");
  }
  EXPECT_EQ(Dump({"var0"}).size(), 3U);
  const Outcome outcome = Run({"show", "memroy", "cpu.1"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "vexreg: memroy: no such object; did you mean host/memory?\n");
  EXPECT_EQ(outcome.out, Output({"show", "host/cpu.1"}));
  EXPECT_EQ(Run({"dump", "host"}).err, "vexreg: host: no such object; did you mean 'host/*'?\n");
}

TEST_F(Command, LeavesOutUndefinedSlotsAndOtherFiles) {
  FileObject object = MadeObject({Int("a", 1), Int("b", 2)});
  object.variables[0] = FileVariable();
  Publish("h/x", object);
  WriteBytes(registry_.Path("other.dat"), {1, 2, 3});
  EXPECT_EQ(Dump().dump(), R"({"h/x":{"b":2}})");
}

TEST_F(Command, HasExitStatus1WhereThereIsNoSuchObject) {
  Output({"put", "h/a", "int:1"});
  WriteBytes(registry_.Path("h/other"), {1, 2, 3});
  std::filesystem::create_symlink("a", registry_.Path("h/link"));
  mkfifo(registry_.Path("h/fifo").c_str(), 0600);
  for (const char *name : {"h/none", "none/a", "h", "h/other", "h/link", "h/fifo", "..", "/",
                           "../../../../etc/passwd", "/etc/passwd", ""}) {
    for (const char *command : {"dump", "show", "watch", "rm"}) {
      SCOPED_TRACE(std::string(command) + " " + name);
      ExpectStatus(1, {command, name});
    }
  }
  EXPECT_TRUE(made_up::Exists(registry_.Path("h/other")));
  EXPECT_EQ(Dump().dump(), R"({"h/a":{"var0":1}})");
}

// Whichever of its names it is called by; with a row of a group that is whole, the group is shown.
TEST_F(Command, HasExitStatus1WhereAnObjectIsDamaged) {
  for (const char *name : {"host/cpu.0", "host/cpu.6", "host/swver.1"}) {
    Output({"put", name, "int:1"});
  }
  for (const char *name : {"host/cpu.6", "host/swver.1"}) {
    std::filesystem::resize_file(registry_.Path(name), 40);
  }
  for (const char *name : {"cpu.6", "host/cpu.6", "swver.1", "swver", "host/swver"}) {
    for (const Words &words : {Words{"dump", name}, Words{"show", name},
                               Words{"show", "--json", name}, Words{"watch", name}}) {
      const Outcome outcome = Run(words);
      EXPECT_EQ(outcome.status, 1) << testing::PrintToString(words);
      EXPECT_EQ(outcome.err, "vexreg: " + std::string(name) + ": cannot be read as an object\n");
    }
  }
  const Outcome group = Run({"dump", "cpu"});
  EXPECT_EQ(group.status, 0);
  EXPECT_EQ(group.err, "vexreg: host/cpu.6: damaged, left out\n");
}

TEST_F(Command, HasExitStatus2ForWrongUsage) {
  for (const Words &words : std::initializer_list<Words>{
           {},
           {"frob"},
           {"dump", "--frob"},
           {"show", "--width", "wide"},
           {"show", "--width", "-1"},
           {"rm"},
           {"rm", "a", "b"},
           {"put"},
           {"put", "x", "int:2147483648"},
           {"put", "x", "int:1", "str:4:abcd"},
           {"put", "x", "frob:1"},
           {"put", "x", "--data"},
           {"put", "x", "--data", "/nonexistent"},
           {"put", "x", "--data", "/"},
           {"put", "../x", "int:1"},
           {"put", "/etc/x", "int:1"},
           {"put", ".x", "int:1"},
           {"put", "", "int:1"},
       }) {
    SCOPED_TRACE(testing::PrintToString(words));
    ExpectStatus(2, words);
  }
  EXPECT_EQ(Output({"dump"}), "{}\n");
}

// Or else it would be the working directory.
TEST_F(Command, RefusesAnEmptyRoot) {
  for (const Words &words :
       {Words{"--root", "", "show"}, Words{"dump", "--root="}, Words{"--root", ""}}) {
    Words all = {VEXREG_PATH};
    all.insert(all.end(), words.begin(), words.end());
    made_up::ProcessOptions options;
    const Outcome outcome = made_up::RunCommand(all, options, 30);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_NE(outcome.err.find("--root: "), std::string::npos) << outcome.err;
  }
}

TEST_F(Command, ExplainsItself) {
  for (const Words &words : std::initializer_list<Words>{
           {"--help"}, {"dump", "--help"}, {"put", "--help"}, {"watch", "-h"}, {"--version"}}) {
    EXPECT_NE(Output(words), "");
  }
  EXPECT_NE(Output({"put", "--help"}).find("str:SIZE:TEXT"), std::string::npos);
}

TEST_F(Command, SaysWhatWasMeant) {
  Output({"put", "host/cpu.0", "int:1"});
  const auto wrong = [&](const Words &words) {
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.out, "");
    return outcome.err;
  };
  EXPECT_EQ(wrong({"list"}), "vexreg: list: no such command; did you mean show?\n");
  EXPECT_EQ(wrong({"shwo", "cpu"}), "vexreg: shwo: no such command; did you mean show?\n");
  EXPECT_EQ(wrong({"frobnicate"}),
            "vexreg: frobnicate: no such command; vexreg --help lists them\n");
  EXPECT_EQ(wrong({}), "vexreg: a command is missing; vexreg --help lists them\n");
  EXPECT_EQ(wrong({"show", "--colour", "always"}),
            "vexreg: show: --colour: no such option; did you mean --color?\n");
  EXPECT_EQ(wrong({"--frob", "show"}),
            "vexreg: show: --frob: no such option; see vexreg show --help\n");
  EXPECT_TRUE(wrong({"show", "--width", "wide"}).starts_with("vexreg: show: --width: "));
  EXPECT_TRUE(wrong({"rm"}).starts_with("vexreg: rm: "));
  EXPECT_EQ(
      wrong({"show", "--color"}),
      "vexreg: show: --color: a value is missing: auto|always|never; see vexreg show --help\n");
  EXPECT_EQ(made_up::RunCommand({VEXREG_PATH, "--root"}).err,
            "vexreg: --root: a value is missing: DIR; see vexreg --help\n");
  EXPECT_TRUE(wrong({"put", "", "int:1"}).starts_with("vexreg: '': not a name below "));
  EXPECT_EQ(wrong({"put", "x", "str:2:ab"}), "vexreg: str:2:ab: the text is longer than 1 byte\n");
  EXPECT_EQ(wrong({"show", "--capture", "file"}),
            "vexreg: --root and --capture both say whose objects are meant: give one of them\n");
  EXPECT_EQ(Run({"show", ""}).err, "vexreg: '': no such object\n");
  for (const Words &words : std::initializer_list<Words>{{"export", "--json"},
                                                         {"export", "--raw"},
                                                         {"report", "--json"},
                                                         {"doctor", "--raw"},
                                                         {"capture", "--raw", "x"},
                                                         {"replay", "--raw", "x"},
                                                         {"put", "--json", "x"},
                                                         {"rm", "--raw", "x"}}) {
    const std::string &option = words[1];
    const std::string said = wrong(words);
    EXPECT_TRUE(said.starts_with("vexreg: " + words[0] + ": " + option + ": ")) << said;
    EXPECT_EQ(said.find("no such option"), std::string::npos) << said;
  }
  // Options may stand before their command, and help is a command as elsewhere.
  EXPECT_EQ(Output({"--color", "always", "show", "cpu"}),
            Output({"show", "--color", "always", "cpu"}));
  EXPECT_EQ(Output({"--width=40", "show"}), Output({"show", "--width", "40"}));
  EXPECT_EQ(Output({"help"}), Output({"--help"}));
  EXPECT_EQ(Output({"help", "show"}), Output({"show", "--help"}));
  EXPECT_EQ(Output({"-V"}), Output({"--version"}));
  EXPECT_EQ(Output({"show", "CPU"}), Output({"show", "cpu"}));
  EXPECT_EQ(Run({"show", "FiveMin"}).err,
            "vexreg: FiveMin: no such object; did you mean tlxHoCpuUtilFiveMin?\n");
}

// What was captured is shown by the captured host's clock.
TEST_F(Command, ShowsTimesOfACapturedHostAsTheyWereThere) {
  const std::string file = VEX_SOURCE_DIR "/tests/captures/appliance.tar.zst";
  for (const Words &words : {Words{"show", "agent", "--columns", "+Published"},
                             Words{"show", "agent", "--json"}, Words{"report"}}) {
    Words all = {VEXREG_PATH};
    all.insert(all.end(), words.begin(), words.end());
    all.insert(all.end(), {"--capture", file});
    made_up::ProcessOptions east;
    east.environment = {{"TZ", "Asia/Tokyo"}};
    made_up::ProcessOptions west;
    west.environment = {{"TZ", "Somewhere+9"}};
    const Outcome one = made_up::RunCommand(all, east);
    EXPECT_EQ(one.status, 0) << one.err;
    EXPECT_EQ(one.out, made_up::RunCommand(all, west).out);
    EXPECT_EQ(one.out.find("JST"), std::string::npos);
  }
}

TEST_F(Command, TakesNamesThatAreCommands) {
  Output({"put", "rm", "int:1"});
  Output({"put", "dump", "int:2"});
  EXPECT_EQ(Dump({"rm", "dump"}).dump(), R"({"rm":{"var0":1},"dump":{"var0":2}})");
  Output({"rm", "dump"});
  EXPECT_EQ(Dump().dump(), R"({"rm":{"var0":1}})");
}

TEST_F(Command, PutsInDirectoriesThatAreMissing) {
  std::filesystem::remove_all(registry_.root());
  Output({"put", "some/where/x.1", "int:5"});
  EXPECT_EQ(Dump().dump(), R"({"some/where/x.1":{"var0":5}})");
}

TEST_F(Command, PutsARawDataBlock) {
  WriteBytes(registry_.base() + "/block", {5, 0, 0, 0, 'x', 0, 0xFF});
  Output({"put", "raw", "--data", registry_.base() + "/block"});
  const auto raw = ReadObjectFile("raw", registry_.root());
  ASSERT_TRUE(raw);
  EXPECT_EQ(raw->data, (std::vector<uint8_t>{5, 0, 0, 0, 'x', 0, 0xFF}));
  EXPECT_EQ(Dump({"raw"}).dump(), R"({"raw":{}})");

  Output({"put", "laid", "int:1", "--data", registry_.base() + "/block", "str:3:"});
  EXPECT_EQ(Dump({"laid"}).dump(), "{\"laid\":{\"var0\":5,\"var1\":\"x\"}}");
  EXPECT_EQ(Run({"put", "piped", "str:9:", "--data", "-"}, "from a pipe").status, 0);
  EXPECT_EQ(Dump({"piped"}).dump(), R"({"piped":{"var0":"from a pi"}})");
  ExpectStatus(2, {"put", "short", "hex:0011223344556677", "--data", registry_.base() + "/block"});
}

// A file that is not the one to name is wrong usage; one that cannot be read is a failure.
TEST_F(Command, SaysWhyADataFileIsNone) {
  const std::string file = registry_.base() + "/file";
  const std::string loop = registry_.base() + "/loop";
  WriteBytes(file, {1});
  std::filesystem::create_symlink("loop", loop);
  const struct {
    std::string path;
    const char *call;  // that fails
    int error;
    int status;
  } cases[] = {{registry_.base() + "/none", nullptr, ENOENT, kWrongUsage},
               {file + "/x", nullptr, ENOTDIR, kWrongUsage},
               {registry_.base(), nullptr, EISDIR, kWrongUsage},
               {loop, nullptr, ELOOP, kWrongUsage},
               {registry_.base() + "/" + std::string(300, 'n'), nullptr, ENAMETOOLONG, kWrongUsage},
               {file, "open", EACCES, kWrongUsage},
               {file, "open", EMFILE, kFailed},
               {file, "read", EIO, kFailed}};
  for (const auto &one : cases) {
    const std::string why = strerror(one.error);
    std::optional<FailingCall> failing;
    if (one.call != nullptr) {
      failing.emplace(one.call, one.error);
    }
    int status = kDone;
    EXPECT_EQ(SaidBy([&] { status = Put(registry_.root(), "x", {}, one.path); }),
              "vexreg: " + one.path + ": " + why + "\n");
    EXPECT_EQ(status, one.status) << why;
    EXPECT_FALSE(made_up::Exists(registry_.Path("x"))) << why;
  }
}

TEST_F(Command, PutsAnObjectWithoutData) {
  Output({"put", "none"});
  const auto none = ReadObjectFile("none", registry_.root());
  ASSERT_TRUE(none);
  EXPECT_TRUE(none->data.empty());
}

// A reader at any moment sees one of the two objects whole.
TEST_F(Command, ReplacesAtomically) {
  Output({"put", "x", "int:1", "int:1"});
  std::atomic<bool> stop = false;
  int looks = 0;
  int wrong = 0;
  std::thread reader([&] {
    while (!stop) {
      const auto object = ReadObjectFile("x", registry_.root());
      looks++;
      wrong += !object || object->variables.size() != 2 ||
               memcmp(object->data.data(), object->data.data() + 4, 4) != 0;
      usleep(100);
    }
  });
  for (int i = 2; i < 40; i++) {
    const std::string value = "int:" + std::to_string(i);
    Output({"put", "x", value, value});
  }
  stop = true;
  reader.join();
  EXPECT_GT(looks, 40);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(Dump().dump(), R"({"x":{"var0":39,"var1":39}})");
  EXPECT_EQ(made_up::ListDirectory(registry_.root()), Words{"x"});
}

TEST_F(Command, CannotPutWhereADirectoryOrALinkIs) {
  Output({"put", "h/a", "int:1"});
  ExpectStatus(1, {"put", "h", "int:1"});
  ExpectStatus(1, {"put", "h/a/b", "int:1"});
  std::filesystem::create_directory(registry_.base() + "/outside");
  std::filesystem::create_directory_symlink(registry_.base() + "/outside", registry_.Path("link"));
  ExpectStatus(1, {"put", "link/x", "int:1"});
  EXPECT_TRUE(std::filesystem::is_empty(registry_.base() + "/outside"));
}

TEST_F(Command, RemovesObjectsAlsoDamagedOnes) {
  Output({"put", "h/a", "int:1"});
  Output({"put", "h/b", "int:1"});
  std::filesystem::resize_file(registry_.Path("h/b"), 50);
  const Outcome all = Run({"dump"});
  EXPECT_EQ(all.status, 0);
  EXPECT_EQ(all.err, "vexreg: h/b: damaged, left out\n");
  const Outcome named = Run({"dump", "h/b"});
  EXPECT_EQ(named.status, 1);
  EXPECT_EQ(named.err, "vexreg: h/b: cannot be read as an object\n");
  EXPECT_EQ(Output({"rm", "h/a"}), "");
  EXPECT_EQ(Output({"rm", "h/b"}), "");
  EXPECT_EQ(Output({"dump"}), "{}\n");
  ExpectStatus(1, {"rm", "h/a"});
}

// How old the values are is not for everybody to see; that a failure hides it is said.
TEST_F(Command, ShowsValuesWhoseAgeDoesNotShow) {
  Publish("host/memory", Memory(512));
  Publish("host/misc", MadeObject({Int("tlxHoOsCommonPollFreq", 15)}));
  for (const auto &[error, said] :
       {std::pair{EACCES, ""},
        std::pair{EIO,
                  "vexreg: host/misc: damaged, left out\n"
                  "vexreg: host/misc: cannot be read, so nobody knows how old the values are: "
                  "Input/output error\n"}}) {
    FailingCall unread("syscall", error, 1, FailingCall::kAll);
    unread.On("host/misc");
    testing::internal::CaptureStdout();
    int status = kFailed;
    const std::string errors = SaidBy([&] { status = Show({registry_.root(), {}}, {}, {}); });
    const std::string shown = testing::internal::GetCapturedStdout();
    EXPECT_EQ(errors, said);
    EXPECT_TRUE(shown.starts_with("host/memory\n")) << shown;
    EXPECT_EQ(status, kDone);
  }
}

TEST_F(Command, ShowsTables) {
  Output({"put", "h/x.10", "int:1", "str:9:ten"});
  Output({"put", "h/x.9", "int:2", "str:9:nine"});
  Output({"put", "h/y", "hex:07E803050E0709"});
  EXPECT_EQ(Output({"show"}),
            "h/x (2 rows)\n"
            "   #  var0  var1\n"
            "   9     2  nine\n"
            "  10     1  ten\n"
            "\n"
            "h/y\n"
            "  var0  2024-03-05 14:07:09\n");
}

TEST_F(Command, ShowsWordsAndNumbers) {
  Publish("host/memory", Memory(512));
  EXPECT_EQ(Output({"show", "memory"}),
            "host/memory\n"
            "  PhysicalMemorySize  2.0 GiB\n"
            "  PhysicalMemoryFree  512 MiB\n"
            "  PagingMemorySize    not known\n");
  EXPECT_EQ(Output({"show", "memory", "--raw"}),
            "host/memory\n"
            "  PhysicalMemorySize (MB)  2048\n"
            "  PhysicalMemoryFree (MB)  512\n"
            "  PagingMemorySize (MB)    -1\n");
  EXPECT_EQ(nlohmann::ordered_json::parse(Output({"show", "--json"})).dump(),
            R"({"host/memory":{"tlxHoPhysicalMemorySize":2048,"tlxHoPhysicalMemoryFree":512,)"
            R"("tlxHoPagingMemorySize":null}})");
  EXPECT_EQ(Output({"show", "--json", "--raw"}), Output({"dump"}));
  EXPECT_EQ(Output({"dump", "--json", "--raw"}), Output({"dump"}));
}

TEST_F(Command, SortsAndChooses) {
  for (const int row : {0, 1, 2}) {
    Publish("host/cpu." + std::to_string(row), Cpu(row == 1 ? 100 : row));
  }
  EXPECT_EQ(Output({"show", "cpu", "--sort", "-Min", "--columns", "Min"}),
            "host/cpu (3 rows)\n"
            "  #    Min\n"
            "  1  100 %\n"
            "  2    2 %\n"
            "  0    0 %\n");
  EXPECT_EQ(Output({"show", "cpu", "--columns", "#,Min"}),
            Output({"show", "cpu", "--columns", "Min"}));
  EXPECT_EQ(Output({"show", "cpu", "--columns", "#", "--sort", "-#"}),
            "host/cpu (3 rows)\n"
            "  #\n"
            "  2\n"
            "  1\n"
            "  0\n");
  EXPECT_TRUE(Output({"show", "cpu", "--columns", "+Object"})
                  .starts_with("host/cpu (3 rows)\n  #  UnitIndex    Min  Object\n"));
  // A column keeps its heading by itself, and its name where it alone was asked for.
  EXPECT_TRUE(
      Output({"show", "cpu", "--columns", "Min"}).starts_with("host/cpu (3 rows)\n  #    Min\n"))
      << Output({"show", "cpu", "--columns", "Min"});
  EXPECT_EQ(Output({"show", "tlxHoCpuUtilMin", "--sort", "-Min"}),
            Output({"show", "tlxHoCpuUtilMin", "--sort", "-tlxHoCpuUtilMin"}));
  for (const char *list : {"", ",", "+"}) {
    const Outcome none = Run({"show", "cpu", "--columns", list});
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.err, "vexreg: show: --columns: no column is named; see vexreg show --help\n");
  }
  const Outcome outcome = Run({"show", "cpu", "--sort", "Hour"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err,
            "vexreg: Hour: no such column; there are # UnitIndex Min Object Published\n");
}

TEST_F(Command, ExportsWholeFilesOrNone) {
  Publish("host/memory", Memory(512));
  const std::string text = Output({"export"});
  EXPECT_NE(text.find("\nvexhost_memory_free_bytes 536870912\n"), std::string::npos) << text;
  const std::string folder = registry_.base() + "/metrics";
  std::filesystem::create_directory(folder);
  for (int round = 0; round < 2; round++) {
    EXPECT_EQ(Output({"export", "--output", folder + "/host.prom"}), "");
    EXPECT_EQ(made_up::ReadFile(folder + "/host.prom"), text);
  }
  EXPECT_EQ(made_up::ListDirectory(folder), Words{"host.prom"});
  struct stat status = {};
  ASSERT_EQ(stat((folder + "/host.prom").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644U);
  // No room: the file stays as it was, and nothing beside it.
  Publish("host/memory", Memory(256));
  const Outcome full = made_up::RunCommand(
      {"sh", "-c", "ulimit -f 0; trap '' XFSZ; exec \"$0\" --root \"$1\" export --output \"$2\"",
       VEXREG_PATH, registry_.root(), folder + "/host.prom"});
  EXPECT_EQ(full.status, 1);
  EXPECT_NE(full.err.find("cannot be written"), std::string::npos) << full.err;
  EXPECT_EQ(made_up::ReadFile(folder + "/host.prom"), text);
  EXPECT_EQ(made_up::ListDirectory(folder), Words{"host.prom"});
  ExpectStatus(1, {"export", "--output", folder + "/none/host.prom"});
  ExpectStatus(1, {"export", "--output", folder});
}

// A device, a pipe or a link that stands where a file is to be written is not for replacing.
TEST_F(Command, WritesOverPlainFilesAlone) {
  Publish("host/memory", Memory(512));
  const std::string folder = registry_.base() + "/there/";
  std::filesystem::create_directory(folder);
  WriteBytes(folder + "file", {'x'});
  ASSERT_EQ(mkfifo((folder + "pipe").c_str(), 0600), 0);
  std::filesystem::create_symlink("file", folder + "link");
  std::filesystem::create_directory(folder + "directory");
  const auto kind = [&](const char *name) {
    struct stat status = {};
    EXPECT_EQ(lstat((folder + name).c_str(), &status), 0);
    return status.st_mode & S_IFMT;
  };
  for (const char *command : {"export", "report"}) {
    for (const char *name : {"pipe", "link", "directory"}) {
      const mode_t before = kind(name);
      const Outcome outcome = Run({command, "--output", folder + name});
      EXPECT_EQ(outcome.status, 1);
      EXPECT_NE(outcome.err.find(folder + name + ": not a plain file"), std::string::npos)
          << outcome.err;
      EXPECT_EQ(kind(name), before) << command << " " << name;
    }
    EXPECT_EQ(made_up::ReadFile(folder + "file"), "x");
  }
  EXPECT_EQ(Run({"export", "--output", "-"}).out, Output({"export"}));
  EXPECT_TRUE(Run({"report", "--output", "-"}).out.starts_with("<!DOCTYPE html>"));
  EXPECT_TRUE(Run({"report", "-"}).out.starts_with("<!DOCTYPE html>"));
  // The page's file may be named without the option, and one of the two ways alone.
  const std::string page = folder + "host.html";
  EXPECT_EQ(Run({"report", page}).out, "");
  EXPECT_TRUE(made_up::ReadFile(page).starts_with("<!DOCTYPE html>"));
  ExpectStatus(2, {"report", page, "--output", page});
  EXPECT_FALSE(made_up::Exists("-"));
}

// Each shell's script has all commands and options; bash runs its own here.
TEST_F(Command, CompletesCommandsOptionsAndNames) {
  Output({"put", "host/cpu.0", "int:1"});
  Output({"put", "host/$(touch x)", "int:1"});
  const std::string script = registry_.base() + "/vexreg.bash";
  const std::string bash = Output({"completion", "bash"});
  WriteBytes(script, {bash.begin(), bash.end()});
  const auto complete = [&](const std::string &words) {
    const Outcome outcome = made_up::RunCommand(
        {"bash", "-c",
         ". \"$0\"; COMP_WORDS=(\"$1\" --root \"$2\" " + words +
             "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _vexreg; echo \"${COMPREPLY[*]}\"",
         script, VEXREG_PATH, registry_.root()});
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  };
  EXPECT_EQ(complete("s"), "show\n");
  EXPECT_EQ(complete("''"), "dump show watch put rm doctor export report capture replay\n");
  EXPECT_EQ(complete("show --c"), "--color --columns --capture\n");
  EXPECT_EQ(complete("show --color ''"), "auto always never\n");
  EXPECT_EQ(complete("show host/"), "host/cpu host/cpu.0\n");
  EXPECT_EQ(complete("show tlxHoCpuUtilM"), "tlxHoCpuUtilMin\n");
  EXPECT_EQ(complete("show cp"), "cpu\n");
  EXPECT_EQ(complete("show --color = a"), "auto always\n");
  EXPECT_EQ(complete("show --color = ''"), "auto always never\n");
  EXPECT_EQ(complete("show --color = always hos"), "host/cpu host/cpu.0\n");
  EXPECT_EQ(complete("show --color ="), "auto always never\n");
  EXPECT_EQ(complete("show --sort -P"), "-Published\n");
  EXPECT_EQ(complete("show --columns Object,va"), "Object,var0\n");
  EXPECT_EQ(complete("show --columns +O"), "+Object\n");
  EXPECT_EQ(complete("doctor host/"), "\n");
  EXPECT_EQ(complete("replay " + script.substr(0, script.size() - 1)), script + "\n");
  for (const char *shell : {"bash", "zsh", "fish"}) {
    const std::string text = Output({"completion", shell});
    for (const char *word :
         {"dump", "watch", "export", "sort", "columns", "output", "limit", "capture", "report"}) {
      EXPECT_NE(text.find(word), std::string::npos) << shell << " " << word;
    }
  }
  ExpectStatus(2, {"completion", "csh"});
}

TEST_F(Command, HelpFitsAScreen) {
  for (const Words &words :
       {Words{}, Words{"dump"}, Words{"show"}, Words{"watch"}, Words{"put"}, Words{"rm"},
        Words{"doctor"}, Words{"export"}, Words{"report"}, Words{"capture"}, Words{"replay"}}) {
    Words all = words;
    all.push_back("--help");
    const std::vector<std::string> lines = made_up::Lines(Output(all));
    EXPECT_LE(lines.size(), words.empty() ? 22U : 25U) << testing::PrintToString(words);
    for (const std::string &line : lines) {
      EXPECT_LE(line.size(), 80U) << line;
    }
    if (!words.empty()) {
      EXPECT_NE(Output(all).find("vexreg " + words[0], Output(all).find("Example")),
                std::string::npos)
          << testing::PrintToString(words);
    }
  }
}

// Files that a hostile neighbour could write: the command says so and goes on.
TEST_F(Command, IsNotCrashedByDamagedFiles) {
  Output({"put", "good", "int:1"});
  Output({"put", "x.1", "int:1", "str:20:text", "hex:0001020304050607"});
  const std::vector<uint8_t> bytes = ReadBytes(registry_.Path("x.1"));
  unsigned random = 1;
  for (int round = 0; round < 60; round++) {
    std::vector<uint8_t> damaged = bytes;
    if (round % 2 == 0) {
      damaged.resize(bytes.size() * static_cast<size_t>(round) / 60);
    } else {
      for (int i = 0; i < 8; i++) {
        random = random * 1103515245 + 12345;
        damaged[8 + random / 65536 % (damaged.size() - 8)] = static_cast<uint8_t>(random >> 8);
      }
    }
    WriteBytes(registry_.Path("x.1"), damaged);
    for (const char *command : {"dump", "show"}) {
      const Outcome outcome = Run({command});
      EXPECT_EQ(outcome.status, 0) << outcome.err;
      EXPECT_NE(outcome.out.find("good"), std::string::npos);
    }
  }
}

// The same with files that are whole and hold what no agent of ours writes.
TEST_F(Command, IsNotCrashedByStrangeObjects) {
  std::vector<MadeVariable> many;
  for (int i = 0; i < 4096; i++) {
    many.push_back(Octets(std::string(50, 'N'), 3, "abc"));
  }
  Publish("s/many.1", MadeObject(many));
  Publish("s/many.2", MadeObject({Int("v", 1)}));
  Publish("s/long.1", MadeObject({Text("v", 1 << 20, std::string(1 << 20, '\xF0'))}));
  Publish("s/long", MadeObject({Text("v", 1 << 20, std::string(1 << 20, ' '))}));
  Publish("s/names",
          MadeObject({Int("\x1b[2J\n", 1), Int(std::string(255, '\xFF'), 2), Int("", 3)}));
  Publish("s/empty", MadeObject({Text("a", 0, ""), Octets("b", 0, ""), Octets("c", 7, "")}));
  Publish("s/\x1b[2J\xFF.99999999999999999999", MadeObject({Int("v", 1)}));
  FileObject over = MadeObject({Int("a", 1), Text("b", 4, "abcd")});
  over.variables[1].offset = 1;  // fields that lie over one another
  Publish("s/over", over);

  const Outcome dump = Run({"dump"});
  EXPECT_EQ(dump.status, 0) << dump.err;
  const auto json = nlohmann::json::parse(dump.out);
  EXPECT_EQ(json["s/many.1"].size(), 4096U);
  EXPECT_EQ(json["s/empty"].dump(), R"({"a":"","b":"","c":""})");
  for (const char *width : {"0", "1", "80"}) {
    const Outcome show = Run({"show", "--width", width});
    EXPECT_EQ(show.status, 0) << show.err;
    EXPECT_EQ(show.out.find('\x1b'), std::string::npos);
  }
}

// A command may be started by somebody who ignores how children end, which is handed on.
TEST_F(Command, KnowsHowItsChildrenEndWhoeverStartedIt) {
  const Outcome plain = Run({"doctor"});
  EXPECT_EQ(plain.status, 1) << plain.out;  // no agent publishes in a root of this test's
  const Outcome ignored = made_up::RunCommand(
      {"env", "--ignore-signal=CHLD", VEXREG_PATH, "--root", registry_.root(), "doctor"});
  EXPECT_EQ(ignored.status, plain.status) << ignored.out;
}

TEST_F(Command, SaysWhenItsOutputIsNotTaken) {
  Output({"put", "x", "int:1"});
  for (const char *command : {"dump", "show", "--help", "--version"}) {
    const Outcome outcome =
        made_up::RunCommand({"sh", "-c", "exec \"$0\" --root \"$1\" \"$2\" >/dev/full", VEXREG_PATH,
                             registry_.root(), command});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "vexreg: cannot write to standard output\n");
  }
}

// ---- watch --------------------------------------------------------------------------------------

TEST_F(Command, LeavesNothingOfACaptureEvenKilled) {
  const TempRegistry temporary;
  const std::string output = registry_.root() + "/output";
  ASSERT_EQ(mkfifo(output.c_str(), 0600), 0);
  const int held = open(output.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(held, 0);
  const auto left = [&] { return !std::filesystem::is_empty(temporary.root()); };
  made_up::ProcessOptions options;
  options.environment = {{"TMPDIR", temporary.root()}};
  options.log = output;
  for (const int signal : {SIGKILL, SIGINT, SIGTERM}) {
    made_up::Process shown;
    // More than a pipe takes: it waits there.
    shown.Start(
        {VEXREG_PATH, "dump", "--capture", VEX_SOURCE_DIR "/tests/captures/large-server.tar.zst"},
        options);
    ASSERT_TRUE(Eventually(left));
    shown.Signal(signal);
    EXPECT_EQ(shown.Wait(), 128 + signal);
    EXPECT_TRUE(Eventually([&] { return !left(); })) << signal;
  }
  close(held);
}

TEST_F(Command, WatchPrintsEachChangeWhereThereIsNoTerminal) {
  Output({"put", "h/a", "int:1", "str:9:x"});
  made_up::Process watch;
  made_up::ProcessOptions options;
  options.log = registry_.base() + "/log";
  watch.Start({VEXREG_PATH, "--root", registry_.root(), "watch"}, options);
  const auto lines = [&] {
    Words texts;
    for (const std::string &line : made_up::Lines(made_up::ReadFile(options.log))) {
      texts.push_back(line.substr(line.find(' ', line.find(' ') + 1) + 1));  // without the time
    }
    return texts;
  };
  Words expected = {"h/a var0 1", "h/a var1 \"x\""};
  ASSERT_TRUE(Eventually([&] { return lines() == expected; })) << testing::PrintToString(lines());

  Output({"put", "h/a", "int:2", "str:9:x"});
  expected.push_back("h/a var0 1 -> 2");
  EXPECT_TRUE(Eventually([&] { return lines() == expected; })) << testing::PrintToString(lines());

  Output({"put", "new/b", "int:3"});
  expected.push_back("new/b var0 3");
  EXPECT_TRUE(Eventually([&] { return lines() == expected; })) << testing::PrintToString(lines());

  Output({"rm", "h/a"});
  expected.push_back("h/a removed");
  EXPECT_TRUE(Eventually([&] { return lines() == expected; })) << testing::PrintToString(lines());

  watch.Signal(SIGINT);
  EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(Command, WatchFollowsOnlyTheNamedOnes) {
  Output({"put", "h/a", "int:1"});
  Output({"put", "h/b", "int:1"});
  made_up::Process watch;
  made_up::ProcessOptions options;
  options.log = registry_.base() + "/log";
  watch.Start({VEXREG_PATH, "--root", registry_.root(), "watch", "h/b"}, options);
  const auto shows = [&](const char *text) {
    return made_up::ReadFile(options.log).find(text) != std::string::npos;
  };
  ASSERT_TRUE(Eventually([&] { return shows("h/b var0 1\n"); }));
  Output({"put", "h/a", "int:2"});
  Output({"put", "h/b", "int:2"});
  EXPECT_TRUE(Eventually([&] { return shows("h/b var0 1 -> 2\n"); }));
  EXPECT_FALSE(shows("h/a"));
  watch.Signal(SIGTERM);
  EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(Command, WatchPrintsJsonLinesWhenAsked) {
  Publish("host/memory", Memory(512));
  made_up::Process watch;
  made_up::ProcessOptions options;
  options.log = registry_.base() + "/log";
  watch.Start({VEXREG_PATH, "--root", registry_.root(), "watch", "--json", "memory"}, options);
  const auto lines = [&] { return made_up::Lines(made_up::ReadFile(options.log)); };
  ASSERT_TRUE(Eventually([&] { return lines().size() == 3; })) << lines().size();
  Publish("host/memory", Memory(511));
  ASSERT_TRUE(Eventually([&] { return lines().size() == 4; })) << lines().size();
  auto change = nlohmann::ordered_json::parse(lines()[3]);
  EXPECT_EQ(change["time"].get<std::string>().size(), sizeof("2026-01-01T00:00:00+00:00") - 1);
  change.erase("time");
  EXPECT_EQ(change.dump(),
            R"({"object":"host/memory","variable":"tlxHoPhysicalMemoryFree","old":512,"new":511})");
  EXPECT_TRUE(nlohmann::json::parse(lines()[2])["new"].is_null());
  watch.Signal(SIGTERM);
  EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(Command, WatchSaysOnceThatItWaits) {
  made_up::Process watch;
  made_up::ProcessOptions options;
  options.log = registry_.base() + "/log";
  watch.Start({VEXREG_PATH, "--root", registry_.root(), "watch"}, options);
  const auto log = [&] { return made_up::ReadFile(options.log); };
  ASSERT_TRUE(Eventually([&] { return log().ends_with(" (waiting)\n"); })) << log();
  Output({"put", "h/a", "int:1"});
  ASSERT_TRUE(Eventually([&] { return log().ends_with(" h/a var0 1\n"); })) << log();
  EXPECT_EQ(made_up::Lines(log()).size(), 2U);
  watch.Signal(SIGTERM);
  EXPECT_EQ(watch.Wait(), 0);
}

// What one look does not find for a failure is there all the same; what two do not find is gone.
TEST_F(Command, WatchBelievesAFailureTheSecondTime) {
  Output({"put", "h/a", "int:1"});
  Output({"put", "h/b", "int:2"});
  testing::internal::CaptureStdout();
  const pid_t watch = Forked([&] {
    std::optional<FailingCall> unread;
    int looks = 0;
    const auto after_look = [&] {
      looks++;
      unread.reset();
      if (looks == 1 || looks == 3 || looks == 4) {
        unread.emplace("syscall", EIO, 1, FailingCall::kAll);
        unread->On("h/a");
      }
      if (looks == 6) {
        raise(SIGTERM);  // taken while it waits
      }
    };
    const FailingCall waiting("ppoll", after_look, 1, FailingCall::kAll);
    const FailingCall at_once("ppoll", EINTR, 1, 5);
    return Watch({registry_.root(), {}}, {});
  });
  const int status = StatusOf(watch);
  const std::string shown = testing::internal::GetCapturedStdout();
  EXPECT_EQ(status, kDone);
  Words changes;
  for (const std::string &line : made_up::Lines(shown)) {
    changes.push_back(line.substr(std::min(line.size(), line.find("h/"))));
  }
  EXPECT_EQ(changes, (Words{"h/a var0 1", "h/b var0 2", "h/a removed", "h/a var0 1"}));
}

TEST_F(Command, WatchFollowsNewRowsOfAGroup) {
  Output({"put", "host/cpu.0", "int:1"});
  made_up::Process watch;
  made_up::ProcessOptions options;
  options.log = registry_.base() + "/log";
  watch.Start({VEXREG_PATH, "--root", registry_.root(), "watch", "cpu"}, options);
  const auto shows = [&](const char *text) {
    return made_up::ReadFile(options.log).find(text) != std::string::npos;
  };
  ASSERT_TRUE(Eventually([&] { return shows("host/cpu.0 var0 1\n"); }));
  Output({"put", "host/cpu.1", "int:2"});
  EXPECT_TRUE(Eventually([&] { return shows("host/cpu.1 var0 2\n"); }));
  watch.Signal(SIGTERM);
  EXPECT_EQ(watch.Wait(), 0);
}

// vexreg on a terminal of 80 columns and 10 lines, which has colours unless the environment says
// otherwise.
class Terminal {
 public:
  explicit Terminal(const Words &words,
                    const std::vector<std::pair<const char *, const char *>> &environment = {},
                    unsigned short lines = 10, unsigned short columns = 80) {
    std::vector<char *> argv;
    for (const std::string &word : words) {
      argv.push_back(const_cast<char *>(word.c_str()));
    }
    argv.push_back(nullptr);
    winsize size = {lines, columns, 0, 0};
    pid_ = forkpty(&fd_, nullptr, nullptr, &size);
    if (pid_ == 0) {
      setenv("TERM", "xterm", 1);
      setenv("LC_ALL", "C.UTF-8", 1);
      unsetenv("NO_COLOR");
      for (const auto &[name, value] : environment) {
        if (value != nullptr) {
          setenv(name, value, 1);
        } else {
          unsetenv(name);
        }
      }
      execv(argv[0], argv.data());
      _exit(127);
    }
    // Such as where nothing is mounted on /dev/pts.
    EXPECT_GT(pid_, 0) << "no terminal: " << strerror(errno);
    fcntl(fd_, F_SETFL, O_NONBLOCK);
    tcgetattr(fd_, &before_);
  }
  ~Terminal() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(fd_);
  }
  bool Shows(const std::string &text) {
    return Eventually([&] { return Output().find(text) != std::string::npos; });
  }
  const std::string &Output() {
    char buffer[4096];
    for (ssize_t got; (got = read(fd_, buffer, sizeof(buffer))) > 0;) {
      output_.append(buffer, static_cast<size_t>(got));
    }
    return output_;
  }
  void Forget() {
    Output();
    output_.clear();
  }
  void Type(char c) {
    ASSERT_EQ(write(fd_, &c, 1), 1);
  }
  void Resize(unsigned short rows, unsigned short columns) {
    const winsize size = {rows, columns, 0, 0};
    ASSERT_EQ(ioctl(fd_, TIOCSWINSZ, &size), 0);
  }
  int WaitEnd() {
    int status = -1;
    if (!Eventually([&] {
          Output();
          return waitpid(pid_, &status, WNOHANG) == pid_;
        })) {
      return -1;
    }
    pid_ = -1;
    Output();
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  bool HasSameMode() {
    termios now;
    tcgetattr(fd_, &now);
    return now.c_lflag == before_.c_lflag && now.c_iflag == before_.c_iflag &&
           now.c_oflag == before_.c_oflag;
  }
  void Signal(int number) {
    ASSERT_GT(pid_, 0);  // or else it is for every process there is
    kill(pid_, number);
  }

 private:
  int fd_ = -1;
  pid_t pid_ = -1;
  termios before_ = {};
  std::string output_;
};

TEST_F(Command, ShowFitsATerminal) {
  Output({"put", "h/a", "str:300:" + std::string(40, 'w') + " " + std::string(60, 'v')});
  Terminal terminal({VEXREG_PATH, "--root", registry_.root(), "show"});
  EXPECT_EQ(terminal.WaitEnd(), 0);
  EXPECT_EQ(terminal.Output(), "\x1b[1mh/a\x1b[0m\r\n  var0  " + std::string(40, 'w') +
                                   "\r\n        " + std::string(60, 'v') + "\r\n");
}

TEST_F(Command, ColoursAndBarsAreForTerminals) {
  Publish("host/cpu.0", Cpu(93));
  const std::string plain = "host/cpu (1 row)\n  #  UnitIndex   Min\n  0          0  93 %\n";
  EXPECT_EQ(Output({"show"}), plain);
  EXPECT_EQ(Output({"show", "--color", "auto"}), plain);
  EXPECT_NE(Output({"show", "--color", "always"}).find("\x1b[1;31m93 % "), std::string::npos);

  const auto shown = [&](const Words &words,
                         const std::vector<std::pair<const char *, const char *>> &environment) {
    Words all = {VEXREG_PATH, "--root", registry_.root(), "show"};
    all.insert(all.end(), words.begin(), words.end());
    Terminal terminal(all, environment);
    EXPECT_EQ(terminal.WaitEnd(), 0);
    return terminal.Output();
  };
  const std::string bar = "93 % \u2588\u2588\u2588\u2588\u2588\u2588\u2588\u2588\u2588\u2591";
  EXPECT_NE(shown({}, {}).find("\x1b[1;31m" + bar + "\x1b[0m"), std::string::npos);
  for (const std::string &text :
       {shown({"--color", "never"}, {}), shown({}, {{"NO_COLOR", "1"}})}) {
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
    EXPECT_NE(text.find(bar), std::string::npos);
  }
  EXPECT_NE(shown({}, {{"LC_ALL", "C"}}).find("93 % #########."), std::string::npos);
  Output({"put", "h/a", "str:20:\u00e4\u4e2d|"});
  EXPECT_NE(shown({"a"}, {{"LC_ALL", "C"}}).find("var0  ???|"), std::string::npos);
  EXPECT_NE(shown({"a"}, {}).find("var0  \u00e4\u4e2d|"), std::string::npos);
  const std::string dumb = shown({}, {{"TERM", "dumb"}});
  EXPECT_EQ(dumb.find('\x1b'), std::string::npos);
  EXPECT_EQ(dumb.find("\u2588"), std::string::npos);
  EXPECT_EQ(shown({"--raw"}, {}).find('\x1b'), std::string::npos);
}

TEST_F(Command, WhatIsNoColourOfTheTerminalsIsNone) {
  Publish("host/cpu.0", Cpu(93));
  const auto shown = [&](std::pair<const char *, const char *> variable) {
    Terminal terminal({VEXREG_PATH, "--root", registry_.root(), "show"}, {variable});
    EXPECT_EQ(terminal.WaitEnd(), 0);
    return terminal.Output();
  };
  // Set to nothing it says nothing.
  EXPECT_NE(shown({"NO_COLOR", ""}).find("\x1b[1;31m93 % "), std::string::npos);
  for (const char *type : {static_cast<const char *>(nullptr), ""}) {
    const std::string text = shown({"TERM", type});
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
    EXPECT_EQ(text.find("\u2588"), std::string::npos);
  }
  // A locale that the system has not is none of UTF-8.
  EXPECT_NE(shown({"LC_ALL", "xx_XX.UTF-8"}).find("93 % #########."), std::string::npos);
}

TEST_F(Command, ShowOnATerminalThatDoesNotSayHowWideItIs) {
  Output({"put", "h/a", "str:300:" + std::string(60, 'w') + " " + std::string(60, 'v')});
  Terminal terminal({VEXREG_PATH, "--root", registry_.root(), "show"}, {}, 0, 0);
  EXPECT_EQ(terminal.WaitEnd(), 0);
  EXPECT_EQ(terminal.Output(), "\x1b[1mh/a\x1b[0m\r\n  var0  " + std::string(60, 'w') +
                                   "\r\n        " + std::string(60, 'v') + "\r\n");
}

TEST_F(Command, SaysWhatWasMeantWithoutARoot) {
  const auto wrong = [](Words words) {
    words.insert(words.begin(), VEXREG_PATH);
    const Outcome outcome = made_up::RunCommand(words);
    EXPECT_EQ(outcome.status, 2);
    return outcome.err;
  };
  EXPECT_EQ(wrong({}), "vexreg: a command is missing; vexreg --help lists them\n");
  EXPECT_EQ(wrong({"--frob"}), "vexreg: --frob: no such option; see vexreg --help\n");
  EXPECT_EQ(wrong({"-"}), "vexreg: -: no such option; see vexreg --help\n");
  EXPECT_EQ(wrong({"show", "--color", "sometimes"}),
            "vexreg: show: --color: sometimes: not one of auto, always, never; see vexreg show "
            "--help\n");
}

TEST_F(Command, SaysWhyNothingIsFound) {
  std::filesystem::create_directories(registry_.Path("host"));
  const Outcome none = Run({"show", "h/a"});
  EXPECT_EQ(none.status, 1);
  EXPECT_TRUE(none.err.starts_with("vexreg: h/a: no such object\nvexreg: nothing is published in "))
      << none.err;
  // Of what is damaged it was said.
  Publish("host/memory", Memory(1));
  std::filesystem::resize_file(registry_.Path("host/memory"), 200);
  const Outcome damaged = Run({"show"});
  EXPECT_EQ(damaged.status, 1);
  EXPECT_EQ(damaged.err, "vexreg: host/memory: damaged, left out\n");
  std::filesystem::remove_all(registry_.root());
  EXPECT_EQ(Run({"rm", "h/a"}).err, "vexreg: h/a: no such object\n");
}

TEST_F(Command, SaysWhyNothingIsRemoved) {
  Output({"put", "h/a", "int:1"});
  const FailingCall failing("unlinkat", EROFS);
  testing::internal::CaptureStderr();
  const int status = Remove(registry_.root(), "h/a");
  const std::string errors = testing::internal::GetCapturedStderr();
  EXPECT_EQ(status, kFailed);
  EXPECT_EQ(errors, "vexreg: h/a: cannot be removed: Read-only file system\n");
  EXPECT_EQ(Dump().dump(), R"({"h/a":{"var0":1}})");
}

TEST_F(Command, ExportsWhatIsWhole) {
  Publish("host/memory", Memory(1));
  Publish("host/cpu.0", Cpu(5));
  std::filesystem::resize_file(registry_.Path("host/cpu.0"), 200);
  const Outcome outcome = Run({"export"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "vexreg: host/cpu.0: damaged, or not for this user to read; left out\n");
  EXPECT_NE(outcome.out.find("vexhost_memory"), std::string::npos);
  EXPECT_EQ(outcome.out.find("vexhost_cpu"), std::string::npos);
}

// What a shell would take for something else is not offered.
TEST_F(Command, CompletesWhatIsSafe) {
  Publish("host/cpu.0", Cpu(5));
  Publish("host/cpu.1", Cpu(5));
  Publish("rack/fan", MadeObject({Int("Speed", 1), Int("a;b", 2), Int("", 3)}));
  Publish("rack/damaged", Cpu(5));
  std::filesystem::resize_file(registry_.Path("rack/damaged"), 200);
  const std::vector<std::string> names = made_up::Lines(Output({"completion", "names"}));
  const auto has = [](const std::vector<std::string> &lines, const char *line) {
    return std::count(lines.begin(), lines.end(), line) == 1;
  };
  EXPECT_TRUE(has(names, "rack/fan"));
  EXPECT_FALSE(has(names, "fan"));
  EXPECT_TRUE(has(names, "host/cpu"));
  EXPECT_TRUE(has(names, "cpu"));
  // What cannot be read may have more; a shell that completes does not show it.
  const Outcome columns = Run({"completion", "columns"});
  EXPECT_EQ(columns.err, "vexreg: rack/damaged: cannot be read as an object\n");
  EXPECT_EQ(made_up::Lines(columns.out),
            (Words{"Min", "Object", "Published", "Speed", "UnitIndex"}));
}

// JSON is no view of a screen, on a terminal neither.
TEST_F(Command, WatchPrintsNumbersAsTheyAre) {
  Publish("host/memory", Memory(-1));
  Terminal terminal({VEXREG_PATH, "--root", registry_.root(), "watch", "--json", "--raw"});
  EXPECT_TRUE(terminal.Shows(R"("variable":"tlxHoPagingMemorySize","old":null,"new":-1})"))
      << terminal.Output();
  terminal.Signal(SIGTERM);
  EXPECT_EQ(terminal.WaitEnd(), 0);
}

// Terminals that do not say how large they are have the size of their description.
TEST_F(Command, WatchOnATerminalWithoutASize) {
  Publish("h/a", MadeObject({Int("n", 12345)}));
  for (const auto &[lines, columns] : {std::pair{0, 0}, std::pair{10, 0}}) {
    // ncurses keeps what it knows of a terminal until the end: no leak.
    Terminal terminal({VEXREG_PATH, "--root", registry_.root(), "watch"},
                      {{"ASAN_OPTIONS", "detect_leaks=0"}}, static_cast<unsigned short>(lines),
                      static_cast<unsigned short>(columns));
    EXPECT_TRUE(terminal.Shows("12345"));
    terminal.Type('q');
    EXPECT_EQ(terminal.WaitEnd(), 0);
  }
}

TEST_F(Command, WatchEndsWhenItsOutputIsNotTaken) {
  Publish("host/memory", Memory(1));
  const Outcome outcome = made_up::RunCommand(
      {"sh", "-c", "exec " VEXREG_PATH " --root " + registry_.root() + " watch >/dev/full"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "vexreg: cannot write to standard output\n");
}

TEST_F(Command, WatchStopsAndGoesOn) {
  Output({"put", "h/a", "int:1"});
  const std::string log = registry_.base() + "/log";
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    // A group of this session, as a shell makes it: what is alone in its session cannot stop.
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(open(log.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDOUT_FILENO);
    execl(VEXREG_PATH, VEXREG_PATH, "--root", registry_.root().c_str(), "watch", nullptr);
    _exit(127);
  }
  const auto shows = [&](const char *text) {
    return made_up::ReadFile(log).find(text) != std::string::npos;
  };
  EXPECT_TRUE(Eventually([&] { return shows("h/a var0 1\n"); }));
  kill(pid, SIGTSTP);
  int status = 0;
  EXPECT_TRUE(Eventually([&] { return waitpid(pid, &status, WUNTRACED | WNOHANG) == pid; }));
  EXPECT_TRUE(WIFSTOPPED(status)) << status;
  Output({"put", "h/a", "int:2"});
  kill(pid, SIGCONT);
  EXPECT_TRUE(Eventually([&] { return shows("h/a var0 1 -> 2\n"); }));
  kill(pid, SIGTERM);
  EXPECT_TRUE(Eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(Command, DoctorLooksForCommandsWhereTheShellDoes) {
  const auto packages = [&](const Words &environment) {
    Words words = {"env"};
    words.insert(words.end(), environment.begin(), environment.end());
    words.insert(words.end(), {VEXREG_PATH, "--root", registry_.root(), "doctor", "--limit", "20"});
    const Outcome outcome = made_up::RunCommand(words);
    for (const std::string &line : made_up::Lines(outcome.out)) {
      if (line.find("package list: ") != std::string::npos) {
        return line;
      }
    }
    return outcome.out + outcome.err;
  };
  const std::string none =
      "note  package list: no dpkg command. The software table has no packages.";
  EXPECT_EQ(packages({"PATH=/nonexistent"}), none);
  EXPECT_EQ(packages({"-u", "PATH"}), none);
}

}  // namespace
