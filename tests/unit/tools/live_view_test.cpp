// What the live view says and how it takes keys, without a terminal.
#include "tools/vexreg/live_view.h"

#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>
#include <time.h>

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
  for (int i = 0; i < 10000; i++) {
    Set("x/row." + std::to_string(i), {Int("v", 20000 - i), Text("t", 8, "text")});
  }
  Take();
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

}  // namespace
