// What the live view says and how it takes keys, without a terminal.
#include "tools/vexreg/live_view.h"

#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>
#include <time.h>

#include <limits>

#include "framework/process/clock.h"
#include "tests/unit/tools/made_object.h"
#include "tools/vexreg/tables.h"

using namespace vex;
using Strings = std::vector<std::string>;

namespace {

constexpr int64_t kWall = 1'700'000'000;

class Live : public testing::Test {
 protected:
  Live() {
    setlocale(LC_CTYPE, "C.UTF-8");
    setenv("TZ", "UTC0", 1);
    tzset();
    options_.bars = true;
    moment_.wall = kWall;
    moment_.clock_ns = kNsPerSecond;
    moment_.host = "somehost";
  }
  LiveView &View() {
    if (!view_) {
      view_.emplace(data_, options_);
    }
    return *view_;
  }
  void Set(const std::string &name, const std::vector<MadeVariable> &variables) {
    FileObject object = MadeObject(variables);
    object.published_ns = moment_.wall * kNsPerSecond;
    object.sequence = ++sequence_;
    look_.steps.push_back({name, std::make_shared<const FileObject>(std::move(object))});
  }
  void Remove(const std::string &name) {
    look_.steps.push_back({name, nullptr});
  }
  void Take() {
    data_.Take(look_, moment_.wall, moment_.clock_ns);
    look_ = {};
  }
  void Later(int seconds) {
    moment_.wall += seconds;
    moment_.clock_ns += seconds * kNsPerSecond;
  }
  // The host of an ordinary server, with so many processors.
  void SetHost(int processors) {
    Set("host/info", {Text("tlxHoSystemName", 20, "web7"), Text("tlxHoDesc", 20, "Debian 12")});
    Set("host/load", {Int("tlxHoLoadOne", 42), Int("tlxHoLoadFive", 31),
                      Int("tlxHoLoadFifteen", 25), Int("tlxHoUptime", 3 * 86400 + 4 * 3600)});
    Set("host/misc", {Int("tlxHoMibCondition", 2), Int("tlxHoOsCommonPollFreq", 15)});
    Set("host/agent", {Text("tlxHoAgentVersion", 8, "0.2.0"), Int("tlxHoAgentPollDuration", 12),
                       Int("tlxHoAgentFailedPolls", 0)});
    Set("host/memory", {Int("tlxHoPhysicalMemorySize", 8192), Int("tlxHoPhysicalMemoryFree", 512),
                        Int("tlxHoPagingMemorySize", 1000), Int("tlxHoPagingMemoryFree", 900)});
    Set("host/memdetail", {Int("tlxHoMemoryAvailable", 2048), Int("tlxHoMemoryCached", 1024)});
    for (int i = 0; i < processors; i++) {
      Set("host/cpu." + std::to_string(i),
          {Int("tlxHoCpuUtilUnitIndex", i), Int("tlxHoCpuUtilMin", i % 101),
           Int("tlxHoCpuUtilFiveMin", -1)});
    }
    const char *directories[] = {"/", "/data", "/proc", "/boot"};
    const int sizes[] = {10000, 3072000, 0, 500};
    const int uses[] = {40, 93, 0, 20};
    for (int i = 0; i < 4; i++) {
      Set("host/filesys." + std::to_string(i),
          {Text("tlxHoFileSysDesc", 40, "/dev/sd" + std::to_string(i) + " on " + directories[i]),
           Int("tlxHoFileSysSpaceTotal", sizes[i]),
           Int("tlxHoFileSysSpaceUsed", sizes[i] / 100 * uses[i]),
           Int("tlxHoFileSysPercentSpaceUsed", uses[i])});
      Set("host/mount." + std::to_string(i),
          {Text("tlxHoMountDevice", 20, "/dev/sd" + std::to_string(i)),
           Text("tlxHoMountDirectory", 20, directories[i]), Text("tlxHoMountType", 8, "ext4"),
           Int("tlxHoMountReadOnly", i == 3 ? 1 : 2), Int("tlxHoMountState", i == 1 ? 3 : 1)});
    }
    Set("host/sibling.6", {Text("tlxHoSiblingName", 20, "health"), Int("tlxHoSiblingPresent", 1),
                           Int("tlxHoSiblingCondition", 3), Int("tlxHoSiblingMajor", 1),
                           Int("tlxHoSiblingMinor", 5), Int("tlxHoSiblingHealth", 4)});
    Set("host/sibling.18", {Text("tlxHoSiblingName", 20, "nics"), Int("tlxHoSiblingPresent", 2),
                            Int("tlxHoSiblingCondition", -1), Int("tlxHoSiblingMajor", -1),
                            Int("tlxHoSiblingMinor", -1), Int("tlxHoSiblingHealth", -1)});
  }
  // A table of a group that the view does not know: 20000, 19999, ... and a text.
  void SetRows(int count) {
    for (int i = 0; i < count; i++) {
      Set("x/row." + std::to_string(i), {Int("v", 20000 - i), Text("t", 8, "text")});
    }
    Take();
  }
  Strings Page() {
    Strings lines;
    const std::vector<LiveLine> page = View().Page(moment_);
    EXPECT_EQ(page.size(), static_cast<size_t>(moment_.height));
    for (const LiveLine &line : page) {
      lines.push_back(PlainText(line));
      EXPECT_LE(DisplayWidth(lines.back()), moment_.width) << lines.back();
      lines.back().erase(lines.back().find_last_not_of(' ') + 1);
    }
    return lines;
  }
  // The lines of the page that have the text.
  Strings With(const std::string &text) {
    Strings with;
    for (const std::string &line : Page()) {
      if (line.find(text) != std::string::npos) {
        with.push_back(line);
      }
    }
    return with;
  }
  bool Has(const std::string &text) {
    return !With(text).empty();
  }
  // The line of the memory, without how it was before.
  std::string Ram() {
    const std::string line = With("RAM ")[0];
    const size_t text = line.find("of ");
    return line.substr(0, text == std::string::npos ? text : line.find("  ", text));
  }
  // What is shown in reverse.
  std::string Marked() {
    for (const LiveLine &line : View().Page(moment_)) {
      for (const LivePiece &piece : line) {
        if (piece.reverse) {
          return piece.text;
        }
      }
    }
    return "";
  }
  void Press(const std::string &keys) {
    for (const char key : keys) {
      EXPECT_TRUE(View().Press(key));
    }
  }

  LiveOptions options_;
  LiveData data_{false};
  LiveMoment moment_;
  Look look_;
  uint64_t sequence_ = 0;
  std::optional<LiveView> view_;
};

TEST_F(Live, ShowsAHost) {
  SetHost(2);
  Take();
  const Strings page = Page();
  EXPECT_EQ(page[0],
            " web7  load 0.42 0.31 0.25  up 3 days 4 h  Debian 12           normal  22:13:20");
  EXPECT_EQ(page[1], " Agent 0.2.0: polled 0 s ago, every 15 s, in 12 ms");
  EXPECT_EQ(page[2], "Processors (2)");
  EXPECT_EQ(page[3],
            "   0   0 % ..................          _   1   1 % #.................          _");
  EXPECT_EQ(page[5], "  RAM   75 % ###########...  of 8.0 GiB, 2.0 GiB available, 1.0 GiB cached");
  EXPECT_EQ(page[6], "  swap  10 % #.............  of 1.0 GiB, 900 MiB free");
  EXPECT_EQ(page[7], "File systems (3 of 4, by Use, largest first)");
  EXPECT_EQ(With("/data")[0].substr(0, 62),
            "  1  93 % #########.  /data      2.7 TiB  2.9 TiB  ext4  silen");
  EXPECT_EQ(With("/boot")[0].find("answers, ro") != std::string::npos, true);
  EXPECT_FALSE(Has("/proc"));  // has no space
  EXPECT_EQ(With("health"), Strings{"  6  health  runs   raised     severe  1.5"});
  EXPECT_FALSE(Has("nics"));  // is not there
  EXPECT_TRUE(Has("nothing since this view began"));
}

TEST_F(Live, OrdersFileSystemsByUse) {
  SetHost(1);
  Take();
  Strings order;
  for (const std::string &line : With("/dev/sd")) {
    order.push_back(line.substr(2, 1));
  }
  EXPECT_EQ(order, (Strings{"1", "0", "3"}));
  Press("\t\t");
  Press("r");
  EXPECT_EQ(With("/dev/sd")[0].substr(2, 1), "3");
}

TEST_F(Live, OpensAGroupAndSortsIt) {
  SetHost(1);
  Take();
  Page();
  Press("\t\t\n");  // the third one
  Strings page = Page();
  EXPECT_EQ(page[2], "File systems (4, by Use, largest first)");
  EXPECT_TRUE(Has("/proc"));
  EXPECT_FALSE(Has("Memory"));
  Press("s");
  EXPECT_EQ(Page()[2], "File systems (4, by Directory)");
  EXPECT_EQ(Page()[4].substr(0, 3), "  0");
  EXPECT_EQ(Page()[5].substr(0, 3), "  3");
  Press("SS");
  EXPECT_EQ(Page()[2], "File systems (4)");
  EXPECT_EQ(Page()[5].substr(0, 3), "  1");
  View().Press(kKeyEscape);
  EXPECT_TRUE(Has("Memory"));
}

TEST_F(Live, FiltersLines) {
  SetHost(1);
  Take();
  Press("/DaT");
  EXPECT_TRUE(Page().back().starts_with(" Only lines with: dat_"));
  EXPECT_TRUE(Has("/data"));
  EXPECT_FALSE(Has("/boot"));
  View().Press(kKeyErase);
  View().Press(kKeyErase);
  View().Press(kKeyErase);
  EXPECT_TRUE(Has("/boot"));
  Press("/proc\n");
  EXPECT_TRUE(Has("/proc"));  // what is looked for shows, whatever it is
  EXPECT_TRUE(Page().back().starts_with(" only: /proc"));
  View().Press(kKeyEscape);
  EXPECT_FALSE(Has("/proc"));
  EXPECT_TRUE(Has("/boot"));
  // By what another object says of the row, and by a character of another script.
  Press("/silent\n");
  EXPECT_TRUE(Has("/data"));
  EXPECT_FALSE(Has("/boot"));
  Press("/");
  View().Press(kKeyEscape);
  Press("/");
  View().Press(0x00E9);
  EXPECT_TRUE(Page().back().starts_with(" Only lines with: \u00e9_"));
  View().Press(kKeyErase);
  EXPECT_TRUE(Page().back().starts_with(" Only lines with: _"));
}

TEST_F(Live, ChoosesGroups) {
  SetHost(1);
  Set("host/swver.0", {Text("tlxHoSwVerName", 20, "a-driver")});
  Set("other/thing", {Int("v", 5)});
  Take();
  EXPECT_FALSE(Has("a-driver"));
  EXPECT_TRUE(Has("other/thing"));  // another agent's
  Press("g");
  EXPECT_TRUE(Has("[x] Processors"));
  EXPECT_TRUE(Has("[ ] host/swver"));
  Press(" ");  // the processors
  while (View().Page(moment_), With("[ ] host/swver").empty() == false) {
    View().Press(kKeyDown);
    Press(" ");
  }
  Press("g");
  EXPECT_TRUE(Has("a-driver"));
  EXPECT_FALSE(Has("Processors"));
}

TEST_F(Live, TellsWhatChanged) {
  SetHost(1);
  Take();
  Later(60);
  Set("host/mount.0",
      {Text("tlxHoMountDevice", 20, "/dev/sd0"), Text("tlxHoMountDirectory", 20, "/"),
       Text("tlxHoMountType", 8, "ext4"), Int("tlxHoMountReadOnly", 2), Int("tlxHoMountState", 2)});
  Set("host/load", {Int("tlxHoLoadOne", 99), Int("tlxHoLoadFive", 31), Int("tlxHoLoadFifteen", 25),
                    Int("tlxHoUptime", 999999)});  // measured: no news
  Set("host/filesys.9", {Int("tlxHoFileSysPercentSpaceUsed", 1)});
  Remove("host/sibling.18");
  for (int i = 0; i < 10; i++) {
    Set("host/swver." + std::to_string(i), {Int("v", 1)});
  }
  moment_.height = 40;
  Take();
  Strings news;
  for (const LiveChange &change : data_.changes()) {
    news.push_back(change.what + " " + change.how);
  }
  EXPECT_EQ(news, (Strings{"host/swver 10 rows are new", "host/sibling.18 (nics) is gone",
                           "host/filesys.9 is new", "host/mount.0 State answers -> failing"}));
  EXPECT_EQ(With("answers -> failing"),
            Strings{"  22:14:20  host/mount.0 State  answers -> failing"});
}

TEST_F(Live, CallsFileSystemsByTheirNames) {
  SetHost(1);
  Take();
  Later(15);
  Set("host/filesys.9",
      {Text("tlxHoFileSysDesc", 40, "tmpfs on /dev/shm/x"), Int("tlxHoFileSysSpaceTotal", 10),
       Int("tlxHoFileSysPercentSpaceUsed", 74)});
  Set("host/mount.9",
      {Text("tlxHoMountDevice", 20, "tmpfs"), Text("tlxHoMountDirectory", 20, "/dev/shm/x"),
       Text("tlxHoMountType", 8, "tmpfs"), Int("tlxHoMountState", 1)});
  Take();
  const auto news = [&] {
    Strings texts;
    for (const LiveChange &change : data_.changes()) {
      texts.insert(texts.begin(), change.what + " " + change.how);
    }
    return texts;
  };
  Strings expected = {"file system /dev/shm/x (tmpfs) is new"};
  EXPECT_EQ(news(), expected);
  const auto use = [&](int percent) {
    Later(15);
    Set("host/filesys.9",
        {Text("tlxHoFileSysDesc", 40, "tmpfs on /dev/shm/x"), Int("tlxHoFileSysSpaceTotal", 10),
         Int("tlxHoFileSysPercentSpaceUsed", percent)});
    Take();
  };
  for (const int percent : {76, 74, 75, 76, 91, 89, 90, 60}) {
    use(percent);
  }
  for (const char *crossing : {"74 % -> 76 %", "76 % -> 91 %", "90 % -> 60 %"}) {
    expected.push_back("file system /dev/shm/x (tmpfs) " + std::string(crossing) + " in use");
  }
  EXPECT_EQ(news(), expected);
  Set("host/memdetail", {Int("tlxHoMemoryAvailable", 100), Int("tlxHoMemoryCached", 1024)});
  Set("host/memory", {Int("tlxHoPhysicalMemorySize", 8192), Int("tlxHoPhysicalMemoryFree", 50),
                      Int("tlxHoPagingMemorySize", 1000), Int("tlxHoPagingMemoryFree", 900)});
  Remove("host/filesys.9");
  Remove("host/mount.9");
  Take();
  expected.emplace_back("file system /dev/shm/x (tmpfs) is gone");
  expected.emplace_back("memory 75 % -> 99 % in use");
  Strings now = news();
  std::sort(now.begin(), now.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(now, expected);
}

TEST_F(Live, KeepsTheHistoryOfProcessors) {
  for (const int value : {0, 50, -1, 100}) {
    Set("host/cpu.0", {Int("tlxHoCpuUtilMin", value)});
    Take();
    Later(15);
  }
  EXPECT_TRUE(Has("_= #")) << testing::PrintToString(Page());
  options_.utf8 = true;
  view_.reset();
  EXPECT_TRUE(Has("\u2581\u2585 \u2588"));
}

TEST_F(Live, SaysWhenValuesAreOld) {
  SetHost(1);
  Take();
  Later(35);
  EXPECT_TRUE(Has("polled 35 s ago"));
  Later(145);
  EXPECT_EQ(Page()[1], " Values are 3 min old");  // nobody has looked for the agent yet
  moment_.agent.looked = true;
  EXPECT_TRUE(Has(" Values are 3 min old: no agent runs; start it: systemctl start vexhostd"))
      << Page()[1];
  moment_.agent.hidden = true;
  EXPECT_TRUE(Has("whether the agent runs is not"));
  moment_.agent.runs = true;
  EXPECT_TRUE(Has("3 min old: the agent runs, but is silent; run: vexreg doctor"));
  moment_.agent.stopped = true;
  EXPECT_TRUE(Has("3 min old: the agent is stopped by a signal"));
  SetHost(1);
  Take();
  EXPECT_TRUE(Has("polled 0 s ago"));
  // Once a publication was seen, a step of the wall clock makes nothing old.
  moment_.wall += 86400;
  EXPECT_TRUE(Has("polled 0 s ago"));
}

TEST_F(Live, SaysWhyThereIsNothing) {
  moment_.nothing = "nothing is published in /x: no agent runs. Start it: systemctl start vexhostd";
  moment_.agent.looked = true;
  Take();
  EXPECT_TRUE(Page()[0].starts_with(" somehost"));
  EXPECT_TRUE(Has("No values of the host agent: no agent runs; start it:"));
  EXPECT_TRUE(Has("  nothing is published in /x: no agent runs."));
  Set("h/a", {Int("v", 12345)});
  Take();
  EXPECT_TRUE(Has("12345"));
  EXPECT_FALSE(Has("nothing is published"));
  Remove("h/a");
  look_.missing = {"h/a"};
  look_.damaged = {"h/b"};
  look_.error = ENOENT;
  Take();
  EXPECT_TRUE(Has("  h/a (removed)"));
  EXPECT_TRUE(Has("  h/b (damaged, left out)"));
}

// Ten thousand rows cost what is visible of them.
TEST_F(Live, FormatsWhatIsVisible) {
  SetRows(10000);
  EXPECT_TRUE(Has("x/row (10000)"));
  Press("\n");
  Page();
  EXPECT_LE(View().formatted(), 24U);
  View().Press(kKeyEnd);
  EXPECT_EQ(With(" 9999 "), Strings{"  9999  10001  text"});
  EXPECT_LE(View().formatted(), 24U);
  EXPECT_TRUE(Page().back().ends_with("9982-10000 of 10000")) << Page().back();
  View().Press(kKeyPageUp);
  EXPECT_TRUE(Has(" 9981 "));
  View().Press(kKeyUp);
  EXPECT_TRUE(Has("9963-9981 of 10000")) << Page().back();
  View().Press(kKeyHome);
  EXPECT_TRUE(Has("     0  20000  text"));
  Press("s");
  Page();
  EXPECT_LE(View().formatted(), 24U);
  EXPECT_EQ(Page()[4], "     0  20000  text");  // of numbers the largest first
  Press("r");
  EXPECT_EQ(Page()[4], "  9999  10001  text");
  View().Press(kKeyDown);
  EXPECT_EQ(Page()[4], "  9998  10002  text");
}

TEST_F(Live, MovesToColumnsThatDoNotFit) {
  std::vector<MadeVariable> variables;
  for (int i = 0; i < 30; i++) {
    variables.push_back(Int("xVariable" + std::to_string(i), 1000 + i));
  }
  Set("x/row.1", variables);
  Set("x/row.2", variables);
  Take();
  Press("\n");
  EXPECT_TRUE(Has(" 1000"));
  EXPECT_FALSE(Has(" 1020"));
  for (int i = 0; i < 25; i++) {
    View().Press(kKeyRight);
  }
  EXPECT_TRUE(Has(" 1025"));
  EXPECT_FALSE(Has(" 1020"));
  for (int i = 0; i < 40; i++) {
    View().Press(kKeyRight);
  }
  EXPECT_TRUE(Has(" 1029"));
  for (int i = 0; i < 29; i++) {
    View().Press(kKeyLeft);
  }
  EXPECT_TRUE(Has(" 1000"));
}

TEST_F(Live, PausesHelpsAndQuits) {
  SetHost(1);
  Take();
  EXPECT_FALSE(View().paused());
  Press("p");
  EXPECT_TRUE(View().paused());
  EXPECT_TRUE(Has("normal  PAUSED, held since 22:13:20")) << Page()[0];
  // A healthy agent is not accused of what the reader wanted.
  Later(300);
  moment_.agent.looked = true;
  EXPECT_TRUE(Has("normal  PAUSED, held since 22:13:20")) << Page()[0];
  EXPECT_TRUE(Has("polled 0 s ago")) << Page()[1];
  moment_.width = 100;
  EXPECT_EQ(DisplayWidth(Page()[0]), 99);
  Press(" ");
  EXPECT_FALSE(View().paused());
  EXPECT_FALSE(Has("held since"));
  EXPECT_TRUE(Has("Values are 5 min old: no agent runs"));
  Press("?");
  EXPECT_TRUE(Has("q or Ctrl-C"));
  Press("q");  // any key leaves the help
  EXPECT_TRUE(Has("Processors"));
  EXPECT_FALSE(View().Press('q'));
}

TEST_F(Live, TellsTheBusiestOfManyProcessors) {
  SetHost(256);
  Set("host/cpu.200", {Int("tlxHoCpuUtilMin", 100)});
  Set("host/cpu.100", {Int("tlxHoCpuUtilMin", 3)});
  Take();
  EXPECT_TRUE(Has("Processors (256), 45 % on average, most 100 % (200)"))
      << testing::PrintToString(Page());
  EXPECT_EQ(Page()[3].substr(0, 11), "  200 100 %");
  EXPECT_EQ(Page()[4].substr(0, 11), "   99  99 %");
  Press("\n");  // alone there is room: by number
  EXPECT_TRUE(Has("Processors (256)"));
  EXPECT_EQ(Page()[4].substr(0, 5), "   0 ");
}

TEST_F(Live, HelpScrollsWhereItDoesNotFit) {
  moment_.width = 40;
  moment_.height = 10;
  SetHost(1);
  Take();
  Press("?");
  EXPECT_TRUE(Has("scroll by a line,"));
  EXPECT_FALSE(Has("quit"));
  for (int i = 0; i < 100; i++) {
    View().Press(kKeyDown);
    Page();
  }
  EXPECT_TRUE(Has("absent siblings."));
  EXPECT_FALSE(Has("scroll by a line,"));
  View().Press(kKeyPageUp);
  EXPECT_TRUE(Has("scroll by a line,"));
  Press("x");
  EXPECT_TRUE(Has("Processors"));
}

TEST_F(Live, FitsEverySize) {
  SetHost(256);
  Set("host/swver.0", {Text("tlxHoSwVerName", 20, "a-driver")});
  Take();
  for (const char *keys : {"", "\n", "\t\t", "g", "?", "/x"}) {
    view_.reset();
    Page();
    Press(keys);
    for (const int height : {1, 2, 3, 5, 10, 24, 60}) {
      for (const int width : {1, 2, 10, 40, 80, 200}) {
        moment_.width = width;
        moment_.height = height;
        Page();  // looks at each line
      }
    }
  }
}

TEST_F(Live, SharesTheScreen) {
  SetHost(256);
  Take();
  const Strings page = Page();
  EXPECT_TRUE(Has("Processors (256)"));
  EXPECT_TRUE(Has("of 128 lines; Enter: all"));
  EXPECT_TRUE(Has("/data"));
  EXPECT_TRUE(Has("Changed lately"));
  Press("\n");
  EXPECT_TRUE(Has("1-19 of 256")) << Page().back();
  moment_.width = 40;
  moment_.height = 10;
  EXPECT_TRUE(Has("1-5 of 256"));
}

TEST_F(Live, ShowsNamedObjectsAlone) {
  options_.named = true;
  options_.groups = {"host/memory"};
  SetHost(1);
  Take();
  Strings titles;
  for (const LiveLine &line : View().Page(moment_)) {
    if (line.size() > 0 && line[0].strong && !line[0].text.starts_with(' ')) {
      titles.push_back(line[0].text);
    }
  }
  EXPECT_TRUE(Has("Memory"));
  EXPECT_FALSE(Has("host/load"));
  EXPECT_FALSE(Has("host/misc"));
}

TEST_F(Live, ShowsNumbersAsTheyAre) {
  options_.raw = true;
  options_.bars = false;
  SetHost(1);
  Take();
  Press("g");
  while (With("[ ] host/filesys").size() == 1) {
    View().Press(kKeyDown);
    Press(" ");
  }
  Press("g");
  EXPECT_TRUE(Has("3072000"));
  EXPECT_FALSE(Has("TiB"));
}

// A group that went and came back has rows of its own.
TEST_F(Live, ForgetsRowsThatAreGone) {
  Set("x/row.1", {Int("v", 11111)});
  Set("x/row.2", {Int("v", 22222)});
  Take();
  EXPECT_TRUE(Has("22222"));
  Remove("x/row.1");
  Remove("x/row.2");
  Take();
  Set("x/row.1", {Int("v", 33333)});
  Take();
  EXPECT_TRUE(Has("33333"));
  EXPECT_FALSE(Has("22222"));
}

// ---- Keys ---------------------------------------------------------------------------------------

TEST_F(Live, HasMoreThanOneKeyForMuch) {
  SetRows(100);
  Press("\n");
  const auto first_after = [&](int key) {
    EXPECT_TRUE(View().Press(key));
    return With("  text")[0].substr(0, 4);
  };
  Page();
  EXPECT_EQ(first_after('f'), "  18");
  EXPECT_EQ(first_after('j'), "  19");
  EXPECT_EQ(first_after('k'), "  18");
  EXPECT_EQ(first_after('b'), "   0");
  EXPECT_EQ(first_after(kKeyPageDown), "  18");
  EXPECT_EQ(first_after('R'), "  81");  // where it is, the other way round
  EXPECT_EQ(first_after('z'), "  81");  // no key
  EXPECT_EQ(Page()[2], "x/row (100, last first)");
  Press(">");
  EXPECT_EQ(Page()[2], "x/row (100, by v, largest first)");
  Press("<");
  EXPECT_EQ(Page()[2], "x/row (100)");
  Press("G");
  EXPECT_EQ(Page()[2], "Groups");
  Press("G");
  Press("h");
  EXPECT_EQ(Page()[2], "Keys");
  Press("h");
  Press("P");
  EXPECT_TRUE(View().paused());
  Press("P");
  EXPECT_FALSE(View().paused());
  EXPECT_FALSE(View().Press('Q'));
}

TEST_F(Live, GoesToTheNextGroupAlone) {
  SetRows(100);
  Set("y/other", {Int("w", 77)});
  Take();
  Press("\n");
  Page();
  View().Press(kKeyEnd);
  EXPECT_TRUE(Page().back().ends_with("82-100 of 100"));
  Press("\t");
  EXPECT_EQ(Page()[2], "y/other");
  EXPECT_TRUE(Has("  w  77"));
  View().Press(kKeyBackTab);
  EXPECT_TRUE(Page().back().ends_with("1-19 of 100")) << "from its beginning";
}

TEST_F(Live, TakesKeysBeforeThereIsAnything) {
  for (const int key : {int{'\t'}, int{kKeyBackTab}, int{'\n'}, int{kKeyLeft}, int{'s'}, int{'r'},
                        int{kKeyEnd}, int{kKeyPageDown}}) {
    EXPECT_TRUE(View().Press(key));
    Page();
  }
  Press("g");
  for (const int key : {int{kKeyEnd}, int{kKeyDown}, int{kKeyUp}, int{' '}}) {
    EXPECT_TRUE(View().Press(key));
    EXPECT_EQ(Page()[2], "Groups");
    EXPECT_EQ(Page()[3], "");
  }
  Press("g");
  moment_.height = 40;  // where lines are left empty between the groups
  EXPECT_EQ(Page()[2], "");
  SetRows(1);
  EXPECT_TRUE(Has("x/row (1)"));
}

TEST_F(Live, MovesColumnsOfTheCurrentGroupAlone) {
  Set("x/row.1", {Int("first", 1111), Int("second", 2222)});
  Set("y/row.1", {Int("third", 3333), Int("fourth", 4444)});
  Take();
  Page();
  View().Press(kKeyLeft);  // nothing is further left
  EXPECT_TRUE(Has("first"));
  Press("\t");
  View().Press(kKeyRight);
  EXPECT_TRUE(Has("  1   1111    2222")) << testing::PrintToString(Page());
  EXPECT_FALSE(Has("3333"));
  EXPECT_TRUE(Has("  1    4444")) << testing::PrintToString(Page());
}

TEST_F(Live, ChoosesGroupsByKeys) {
  for (const char *name : {"a/a", "a/b", "a/c", "a/d", "a/e", "a/f", "a/g", "a/h"}) {
    Set(name, {Int("v", 1)});
  }
  Take();
  moment_.height = 8;  // five lines for the menu
  Press("g");
  const auto marked_after = [&](int key) {
    EXPECT_TRUE(View().Press(key));
    return Marked();
  };
  EXPECT_EQ(Marked(), "[x] a/a");
  EXPECT_EQ(marked_after(kKeyUp), "[x] a/a");
  EXPECT_EQ(marked_after('j'), "[x] a/b");
  EXPECT_EQ(marked_after('\t'), "[x] a/c");
  EXPECT_EQ(marked_after('k'), "[x] a/b");
  EXPECT_EQ(marked_after('x'), "[ ] a/b");
  EXPECT_EQ(marked_after(kKeyEnd), "[x] Changed lately");  // below the screen's first lines
  EXPECT_FALSE(Has("a/a"));
  EXPECT_EQ(marked_after(kKeyDown), "[x] Changed lately");
  EXPECT_EQ(marked_after(kKeyUp), "[x] a/h");
  EXPECT_EQ(marked_after('!'), "[x] a/h");  // no key
  EXPECT_EQ(marked_after(kKeyHome), "[x] a/a");
  for (const int key : {int{'g'}, int{'G'}, int{'q'}, int{kKeyEscape}, int{'\n'}, int{'\r'}}) {
    EXPECT_TRUE(View().Press(key));  // not the end of the view
    EXPECT_FALSE(Has("Groups")) << key;
    EXPECT_FALSE(Has("a/b")) << key;
    Press("g");
    EXPECT_TRUE(Has("Groups")) << key;
  }
}

TEST_F(Live, ScrollsTheHelpByKeys) {
  moment_.width = 40;
  moment_.height = 10;  // seven lines for the help
  Press("?");
  const auto page_after = [&](int key, int times) {
    for (int i = 0; i < times; i++) {
      EXPECT_TRUE(View().Press(key));
      Page();
    }
    return Page();
  };
  const Strings begin = Page();
  EXPECT_EQ(page_after(kKeyUp, 1), begin);
  const Strings second = page_after(kKeyDown, 7);
  EXPECT_NE(second, begin);
  EXPECT_EQ(page_after(kKeyUp, 7), begin);
  EXPECT_EQ(page_after(kKeyPageDown, 1), second);
  EXPECT_EQ(page_after(kKeyHome, 1), begin);
  EXPECT_EQ(page_after(kKeyEnd, 1), second);
  EXPECT_EQ(page_after(kKeyPageUp, 1), begin);
}

TEST_F(Live, TakesAFilterCharacterByCharacter) {
  SetRows(3);
  Set("y/row.1", {Text("t", 16, "5 \u20ac"), Text("u", 16, "\U0001F600")});
  Take();
  Press("/");
  const auto footer_after = [&](int key) {
    EXPECT_TRUE(View().Press(key));
    const std::string footer = Page().back();
    return footer.substr(0, footer.find('_') + 1);
  };
  EXPECT_EQ(footer_after(kKeyErase), " Only lines with: _");
  for (const int key : {0x01, 0x7F, 0x85, int{kKeyLeft}, int{kKeyHome}}) {
    EXPECT_EQ(footer_after(key), " Only lines with: _") << key;
  }
  EXPECT_EQ(footer_after(0x20AC), " Only lines with: \u20ac_");
  EXPECT_TRUE(Has("5 \u20ac"));
  EXPECT_FALSE(Has("20000"));
  EXPECT_EQ(footer_after(kKeyErase), " Only lines with: _");
  EXPECT_TRUE(Has("20000"));
  EXPECT_EQ(footer_after(0x1F600), " Only lines with: \U0001F600_");
  EXPECT_TRUE(Has("5 \u20ac"));
  EXPECT_FALSE(Has("20000"));
  EXPECT_EQ(footer_after('x'), " Only lines with: \U0001F600x_");
  EXPECT_FALSE(Has("5 \u20ac"));
}

TEST_F(Live, ScrollsWhileAFilterIsTyped) {
  SetRows(100);
  Press("\n/t");
  Page();
  const auto first_after = [&](int key) {
    View().Press(key);
    return With("  text")[0].substr(0, 4);
  };
  EXPECT_EQ(first_after(kKeyDown), "   1");
  EXPECT_EQ(first_after(kKeyPageDown), "  19");
  EXPECT_EQ(first_after(kKeyUp), "  18");
  EXPECT_EQ(first_after(kKeyPageUp), "   0");
  EXPECT_TRUE(Has(" Only lines with: t_"));
}

// ---- What a page says ---------------------------------------------------------------------------

TEST_F(Live, ShowsValuesOfOneObject) {
  Set("other/thing", {{"gone", 0, "", 0},
                      Int("tlxHoFileSysPercentSpaceUsed", 50),
                      Octets("tlxHoMibHealthStatusArray", 8, {"\1\3\0\2", 4}),
                      Text("Zzz", 80, "a text")});
  Set("other/unnamed", {});
  Take();
  EXPECT_EQ(With("50 %").size(), 1U);
  EXPECT_TRUE(With("50 %")[0].ends_with("50 % #####....."));
  EXPECT_TRUE(Has("worst condition: raised")) << testing::PrintToString(Page());
  EXPECT_TRUE(Has("a text"));
  EXPECT_FALSE(Has("gone"));
  EXPECT_TRUE(Has("(no variables; 0 bytes of data)"));
  // No room for a bar.
  moment_.width = 20;
  EXPECT_TRUE(With("50 %")[0].ends_with("50 %"));
  moment_.width = 80;
  Press("/a text\n");
  EXPECT_TRUE(Has("  a text"));
  EXPECT_FALSE(Has("50 %"));
  EXPECT_FALSE(Has("worst"));
}

TEST_F(Live, FiltersNumbersAsTheyAre) {
  options_.raw = true;
  Set("x/row.1", {{"gone", 0, "", 0}, Int("tlxHoPhysicalMemorySize", 4096)});
  Set("x/row.2", {{"gone", 0, "", 0}, Int("tlxHoPhysicalMemorySize", 8192)});
  Take();
  Press("/4096\n");
  EXPECT_TRUE(Has(" 4096")) << testing::PrintToString(Page());
  EXPECT_FALSE(Has("8192"));
  View().Press(kKeyEscape);
  Press("/gib\n");
  EXPECT_FALSE(Has("4096"));
}

TEST_F(Live, FiltersNews) {
  SetRows(3);
  for (const char *name : {"y/alpha", "y/beta"}) {
    Set(name, {Int("v", 1)});
    Take();
  }
  EXPECT_EQ(With("is new").size(), 2U);
  Press("/alpha\n");
  EXPECT_EQ(With("is new").size(), 1U);
  EXPECT_TRUE(Has("y/alpha  is new"));
  View().Press(kKeyEscape);
  Press("/nowhere\n");
  EXPECT_FALSE(Has("is new"));
  EXPECT_FALSE(Has("nothing since this view began")) << "there was something";
  EXPECT_TRUE(Has("nothing with that text"));
}

TEST_F(Live, ScrollsNews) {
  Set("x/a", {Int("v", 0)});
  Take();
  for (int i = 1; i <= 50; i++) {
    Set("x/a", {Text("v", 8, std::to_string(i))});
    Take();
  }
  for (const int lines : {24, 60}) {
    moment_.height = lines;
    EXPECT_TRUE(Has("49 -> 50")) << "the newest first";
  }
  moment_.height = 24;
  Press("\t\n");
  EXPECT_EQ(Page()[3], "  22:13:20  x/a v  49 -> 50");
  View().Press(kKeyEnd);
  EXPECT_FALSE(Has("49 -> 50"));
  EXPECT_TRUE(Has("x/a  has other variables now"));
}

TEST_F(Live, TellsOfAnAgentThatIsNotWell) {
  SetHost(1);
  Set("host/agent", {Int("tlxHoAgentFailedPolls", 3)});
  Set("host/load", {Int("tlxHoLoadOne", -1), Int("tlxHoUptime", -1)});
  Take();
  EXPECT_EQ(Page()[1], " Agent: polled 0 s ago, every 15 s, 3 polls failed");
  EXPECT_EQ(Page()[0].substr(0, 20), " web7  Debian 12    ");
  Press("p");
  moment_.width = 50;
  EXPECT_TRUE(Page()[0].ends_with("PAUSED 22:13:20")) << Page()[0];
  EXPECT_FALSE(Has("held since"));
}

TEST_F(Live, HasNoTimeForAClockBeyondAllYears) {
  moment_.wall = std::numeric_limits<int64_t>::max();
  EXPECT_EQ(Page()[0], " somehost");
}

TEST_F(Live, ShowsWhatIsKnownOfTheMemory) {
  const auto with_memory = [&](const std::vector<MadeVariable> &memory) {
    Set("host/memory", memory);
    Take();
    return Ram();
  };
  const auto mood_of = [&](const std::string &text) {
    for (const LiveLine &line : View().Page(moment_)) {
      for (const LivePiece &piece : line) {
        if (piece.text.find(text) != std::string::npos) {
          return piece.mood;
        }
      }
    }
    return Mood::kPlain;
  };
  EXPECT_EQ(with_memory({Int("tlxHoPhysicalMemorySize", -1)}),
            "  RAM      -" + std::string(17, ' ') + "not known");
  EXPECT_FALSE(Has("swap"));
  EXPECT_EQ(with_memory({Int("tlxHoPhysicalMemorySize", 8192)}),
            "  RAM      -" + std::string(17, ' ') + "of 8.0 GiB");
  EXPECT_EQ(with_memory({Int("tlxHoPhysicalMemorySize", 8192), Int("tlxHoPhysicalMemoryFree", 512),
                         Int("tlxHoPagingMemorySize", 0), Int("tlxHoPagingMemoryFree", 0)}),
            "  RAM   94 % #############.  of 8.0 GiB, 512 MiB free");
  EXPECT_EQ(mood_of("94 %"), Mood::kBad);
  EXPECT_FALSE(Has("swap"));
  moment_.width = 120;  // room for how it was before
  EXPECT_TRUE(With("RAM ")[0].ends_with("#")) << With("RAM ")[0];
  moment_.width = 80;
  Set("host/memdetail", {Int("tlxHoMemoryAvailable", 1639)});
  Take();
  EXPECT_EQ(Ram(), "  RAM   80 % ###########...  of 8.0 GiB, 1.6 GiB available");
  EXPECT_EQ(mood_of("80 %"), Mood::kWarning);
  options_.bars = false;
  view_.reset();
  EXPECT_EQ(Ram(), "  RAM   80 %   of 8.0 GiB, 1.6 GiB available");
}

TEST_F(Live, ShowsProcessorsWithoutAUse) {
  SetHost(256);
  Set("host/cpu.0", {Int("tlxHoCpuUtilMin", -1)});
  Set("host/cpu.1", {Text("other", 8, "thing")});
  Take();
  EXPECT_TRUE(Has("Processors (256), 45 % on average, most 100 % (100)"))
      << testing::PrintToString(Page());
  Press("r");
  EXPECT_TRUE(Has("Processors (256, last first)"));
  EXPECT_FALSE(Has("on average"));
  Press("rs");
  EXPECT_TRUE(Has("Processors (256, by 1 min, largest first)"));
  Press("S");
  EXPECT_TRUE(Has("Processors (256)"));
  EXPECT_FALSE(Has("on average"));
  EXPECT_EQ(Page()[3].substr(0, 11), "    0     -") << Page()[3];
  Press("r");
  EXPECT_TRUE(Has("Processors (256, last first)"));
  EXPECT_TRUE(Has(" 255  53 % ")) << Page()[3];
  options_.bars = false;
  view_.reset();
  EXPECT_EQ(Page()[3].substr(0, 11), "  100 100 %");
  EXPECT_FALSE(Has("###"));
}

TEST_F(Live, KnowsNoProcessorsUse) {
  for (int i = 0; i < 256; i++) {
    Set("host/cpu." + std::to_string(i), {Int("tlxHoCpuUtilMin", -1)});
  }
  SetRows(50);
  EXPECT_TRUE(Has("Processors (256)"));
  EXPECT_FALSE(Has("on average"));
}

TEST_F(Live, SortsWhatHasColumns) {
  SetHost(1);
  Take();
  Page();
  Press("\t");  // the memory
  const Strings before = Page();
  Press("s");
  EXPECT_EQ(Page(), before);
  View().Press(kKeyBackTab);
  Press("s");
  EXPECT_TRUE(Has("Processors (1, by 1 min, largest first)"));
}

TEST_F(Live, SortsByAColumnThatIsThere) {
  Set("x/row.1", {Int("a", 10), Text("t", 8, "zz")});
  Set("x/row.2", {Int("a", 20), Text("t", 8, "aa")});
  Take();
  Press("SSS");
  EXPECT_TRUE(Has("x/row (2)"));
  Press("S");
  EXPECT_TRUE(Has("x/row (2, by t)"));
  EXPECT_EQ(Page()[4].substr(0, 3), "  2");
  for (const char *name : {"x/row.1", "x/row.2"}) {
    Set(name, {Int("a", 10), Int("b", 20)});
  }
  Take();
  EXPECT_EQ(Page()[4].substr(0, 3), "  1");  // the column is gone
  Press("s");
  EXPECT_TRUE(Has("x/row (2, by a, largest first)")) << Page()[2];
}

TEST_F(Live, TakesColumnsThatComeLater) {
  Set("x/row.1", {});
  Set("x/row.2", {});
  Take();
  EXPECT_EQ(Page()[3], "  #");
  EXPECT_EQ(Page()[4], "  1");
  Press("\n");
  View().Press(kKeyRight);
  EXPECT_EQ(Page()[4], "  1");
  Set("x/row.1", {Int("alpha", 1), Int("beta", 22222)});
  Take();
  View().Press(kKeyLeft);
  EXPECT_EQ(Page()[3], "  #  alpha   beta");
  EXPECT_EQ(Page()[4], "  1      1  22222");
  EXPECT_EQ(Page()[5], "  2");
}

// Between characters, whatever their octets are.
TEST_F(Live, CutsTheLongestTextFirst) {
  std::string text;
  for (int i = 0; i < 60; i++) {
    text += "\u00e4";
  }
  Set("x/row.1", {Text("a", 200, text), Text("b", 200, text + text), Text("c", 8, "short"),
                  Text("d", 30, std::string(21, 'd'))});
  Take();
  options_.utf8 = true;
  const std::string line = With("short")[0];
  EXPECT_EQ(DisplayWidth(line), 80);
  EXPECT_NE(line.find("\u00e4\u2026  "), std::string::npos) << line;
  EXPECT_EQ(line.find("\u00e4  "), std::string::npos) << "both are cut";
}

TEST_F(Live, ScrollsAnOverview) {
  for (int i = 0; i < 20; i++) {
    Set("g" + std::to_string(10 + i) + "/row.1", {Int("v" + std::to_string(10 + i), 100 + i)});
  }
  Take();
  moment_.height = 8;
  EXPECT_EQ(Page()[2], "g10/row (1)");
  EXPECT_EQ(Page()[5], "g11/row (1)");
  View().Press(kKeyDown);
  EXPECT_EQ(Page()[2], "  #  v10");
  View().Press(kKeyDown);
  EXPECT_EQ(Page()[2], "  1  100");
  EXPECT_EQ(Page()[3], "g11/row (1)");
  // With an empty line between them.
  moment_.height = 40;
  View().Press(kKeyHome);
  EXPECT_EQ(Page()[2], "g10/row (1)");
  EXPECT_EQ(Page()[5], "");
  EXPECT_EQ(Page()[6], "g11/row (1)");
  View().Press(kKeyPageDown);
  EXPECT_FALSE(Has("g10/row"));
  View().Press(kKeyEnd);
  const Strings page = Page();
  EXPECT_EQ(page[page.size() - 2], "  nothing since this view began");
}

TEST_F(Live, HasNoRoomBesideWhatIsMissing) {
  SetRows(5);
  Set("y/other", {Int("w", 77)});
  for (int i = 0; i < 30; i++) {
    look_.missing.push_back("gone/" + std::to_string(i));
  }
  Take();
  EXPECT_EQ(With("(removed)").size(), 21U);
  View().Press(kKeyEnd);
  EXPECT_TRUE(Has("x/row (5)")) << testing::PrintToString(Page());
  EXPECT_TRUE(Has("y/other"));
}

TEST_F(Live, ShowsOneGroupAlone) {
  Set("x/row.1", {Int("v", 11)});
  Take();
  Press("g");
  View().Press(kKeyEnd);
  Press(" g");
  EXPECT_EQ(Page()[2], "x/row (1)");
  EXPECT_EQ(Page()[4], "  1  11");
  EXPECT_FALSE(Has("Changed lately"));
}

}  // namespace
