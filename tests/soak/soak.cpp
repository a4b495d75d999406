// A busy host over time: everything that the daemon follows changes all the while, managers read
// and set, snmpd comes and goes, and every few seconds it is written down what the daemon uses.
// Started by scripts/soak, which judges what this writes:
//   samples.csv   a row a sample
//   events.csv    seconds, what happened, a number
//   log.txt       all of the daemon's log lines
// The environment says how long (VEX_SOAK_SECONDS), how often a sample is taken (VEX_SOAK_EVERY)
// and where the files go (VEX_SOAK_OUT). With VEX_SOAK_POLLS it ends after so many polls, which
// follow upon each other, on a host that changes ten times as fast; the seconds are a limit then.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "tests/support/fuse_mount.h"
#include "tests/support/made_up_host.h"
#include "tests/support/simulated_controller.h"

using namespace made_up;

namespace {

constexpr char kLog[] = "/run/soak/vexhostd.log";
constexpr char kDatabase[] = "/var/lib/dpkg/available";

std::string Setting(const char *name, const char *otherwise) {
  const char *value = getenv(name);
  return value != nullptr ? value : otherwise;
}

// ---- What is written down -----------------------------------------------------------------------

class Events {
 public:
  explicit Events(const std::string &path) : file_(fopen(path.c_str(), "we")), begin_(Now()) {
    fprintf(file_, "seconds,event,value\n");
  }
  ~Events() {
    fclose(file_);
  }
  Events(const Events &) = delete;
  Events &operator=(const Events &) = delete;
  void Add(const std::string &event, double value = 0) {
    const std::lock_guard hold(lock_);
    fprintf(file_, "%.3f,%s,%.4f\n", Now() - begin_, event.c_str(), value);
    fflush(file_);
  }

 private:
  std::mutex lock_;
  FILE *file_;
  double begin_;
};

// Kilobytes by field of /proc/PID/smaps_rollup.
std::map<std::string, long> Memory(pid_t pid) {
  std::map<std::string, long> fields;
  for (const std::string &line :
       Lines(ReadFile("/proc/" + std::to_string(pid) + "/smaps_rollup"))) {
    const size_t colon = line.find(':');
    if (colon != std::string::npos) {
      fields[line.substr(0, colon)] = strtol(line.c_str() + colon + 1, nullptr, 10);
    }
  }
  return fields;
}

size_t Zombies(const std::vector<pid_t> &children) {
  return static_cast<size_t>(std::count_if(children.begin(), children.end(), [](pid_t child) {
    const std::string stat = ReadFile("/proc/" + std::to_string(child) + "/stat");
    const size_t name_end = stat.rfind(')');
    return name_end != std::string::npos && stat.substr(name_end).starts_with(") Z");
  }));
}

// ---- The host -----------------------------------------------------------------------------------

// One thing that happens again and again.
struct Activity {
  double every;  // seconds
  std::function<void(unsigned turn)> act;
  double due = 0;
  unsigned turn = 0;
};

class BusyHost {
 public:
  // controller_every: seconds between a controller's moods; some of them hold polls up. speed: how
  // many times as fast everything changes that holds nothing up.
  BusyHost(Events *events, double controller_every, double speed)
      : events_(events), controller_every_(controller_every), speed_(speed) {
    host.Directory("/run/soak");
    // What the kernel says, not a fixed text.
    for (const char *entry : {"/proc/stat", "/proc/meminfo", "/proc/cpuinfo"}) {
      EXPECT_EQ(umount(entry), 0) << entry;
    }
    host.Link("/etc/mtab", "../proc/self/mounts");
    host.Command("dpkg",
                 "case $1 in\n"
                 "--print-architecture) echo amd64 ;;\n"
                 "-l*) cat /run/soak/packages ;;\n"
                 "esac");
    ChangePackages(0);
    host.File("/var/lib/quorix/ev/ZTHUV", std::string(136, '\1'));
    BeginThreshold(0);
  }

  void Start() {
    host.traps.Start();
    host.snmpd.Start();
    DaemonOptions options;
    options.probe = false;
    options.arguments = {"-p", "1", "-l", kLog};
    options.wait = false;
    host.daemon.Start(options);
    // The first reading takes its time on a busy machine, and under a tool that looks on.
    EXPECT_TRUE(Eventually([this] { return host.Walk().size() >= 100; }, 180));
  }

  // How often the daemon has polled: this object is published once a poll.
  static uint64_t Polls() {
    const auto object = MadeUpHost::Object("host/memory");
    return object ? object->sequence : 0;
  }

  // Has one poll follow upon the other, by the signal that its timer would send. Where that comes
  // too early to count, the timer itself begins the next one.
  void HurryPolls(const std::atomic<bool> *stop) {
    for (uint64_t seen = 0; !stop->load(); Pause(0.002)) {
      const uint64_t now = Polls();
      if (now != seen) {
        seen = now;
        host.daemon.Signal(SIGALRM);
      }
    }
  }

  // Changes the host until told to stop, then leaves it as it was at first.
  void Change(const std::atomic<bool> *stop) {
    std::vector<Activity> activities;
    auto add = [&](double every, void (BusyHost::*act)(unsigned)) {
      activities.push_back({every, [this, act](unsigned turn) { (this->*act)(turn); }});
    };
    add(1 / speed_, &BusyHost::ChangeMounts);
    add(2 / speed_, &BusyHost::ChangePeers);
    add(5 / speed_, &BusyHost::ChangePackages);
    add(3 / speed_, &BusyHost::BeginThreshold);
    add(7, &BusyHost::ChangeFuse);
    add(controller_every_, &BusyHost::ChangeController);
    add(10, &BusyHost::RenameLog);
    while (!stop->load()) {
      for (Activity &activity : activities) {
        if (Now() >= activity.due) {
          activity.due = Now() + activity.every;
          activity.act(activity.turn++);
        }
      }
      Pause(0.05);
    }
    fuse_.reset();
    controller_.reset();
  }

  // snmpd ends, by its own will or not, and comes back after a while.
  void RestartMaster(unsigned turn) {
    down_ = true;
    epoch_++;
    turn % 2 == 0 ? host.snmpd.Stop() : host.snmpd.Kill();
    Pause(turn % 3 == 0 ? 2 : 0.2);
    host.snmpd.Start();
    const double back = Now();
    const std::string oid = MadeUpHost::Oid("tlxHoMibRevMajor");
    const bool served = Eventually(
        [&] {
          const auto answer = QuickGet(oid, 0.5);
          return answer && answer->error == 0 && answer->tag == 2;
        },
        30);
    events_->Add(turn % 2 == 0 ? "master-ended" : "master-killed");
    events_->Add(served ? "master-back" : "master-not-served", Now() - back);
    epoch_++;
    down_ = false;
  }

  // ---- The manager.

  void Walk(unsigned turn) {
    const unsigned before = epoch_;
    const bool down = down_;
    const double begin = Now();
    const auto lines = turn % 2 == 0 ? host.Walk() : host.BulkWalk();
    const bool whole = lines.size() >= 100 && lines.back().starts_with(".1.3.6.1.4.1.4891");
    if (whole) {
      events_->Add("walk", Now() - begin);
    } else if (down || down_ || before != epoch_) {
      events_->Add("walk-interrupted", static_cast<double>(lines.size()));
    } else {
      events_->Add("walk-failed", static_cast<double>(lines.size()));
      ADD_FAILURE() << "a walk that should have been answered ends after " << lines.size()
                    << " lines: " << (lines.empty() ? "" : lines.back());
    }
  }

  void SetOne(unsigned turn) {
    const std::string text = "text " + std::to_string(turn);
    const struct {
      const char *name;
      char type;
      std::string value;
      const char *outcome;
    } sets[] = {
        {"tlxHoSystemRole", 's', text, "noError"},
        {"tlxHoName", 's', "no", "notWritable"},
        {"tlxHoSystemRoleDetail", 's', std::string(turn % 513, 'd'), "noError"},
        {"tlxHoSystemRole", 's', std::string(65, 'r'), "wrongLength"},
        {"tlxHoGenericData", 's', text, "noError"},  // raises a trap
        {"tlxHoOsCommonPollFreq", 'i', "1", "wrongValue"},
        {"tlxHoGUID", 'x', "000102030405060708090a0b0c0d0e0f", "noError"},
        {"tlxHoGUID", 'x', "0001", "wrongValue"},
        {"tlxHoSwVerLocation.0", 's', text, "noError"},
        {"tlxHoSwVerType.1", 'i', "5", "wrongValue"},
        {"tlxHoSwVerName.2", 's', text, "noError"},
        {"tlxHoOsCommonPollFreq", 's', "x", "wrongType"},
        {"tlxHoGUIDCanonical", 's', "x", "wrongValue"},
    };
    const auto &set = sets[turn % std::size(sets)];
    const unsigned before = epoch_;
    const bool down = down_;
    const std::string outcome = host.Set(set.name, set.type, set.value);
    const std::string trap = strcmp(set.name, "tlxHoGenericData") == 0 ? "-trap" : "";
    if (outcome == set.outcome) {
      events_->Add(outcome == "noError" ? "set" + trap : "set-refused");
    } else if (outcome == "resourceUnavailable") {
      // A poll that waits for a hung mount or a controller has no time for sets, nor later.
      events_->Add("set-not-now");
    } else if (outcome == "commitFailed") {
      // Begun, and not done in time: on a machine that gives the agent no time.
      events_->Add("set-late");
    } else if (down || down_ || before != epoch_) {
      // Whether it was applied is not known.
      events_->Add("set-cut-off" + trap);
    } else {
      events_->Add("set-wrong");
      ADD_FAILURE() << "set of " << set.name << ": " << outcome << " and not " << set.outcome;
    }
  }

  void Sample(FILE *to, double begin) {
    const pid_t pid = host.daemon.pid();
    const std::vector<pid_t> children = Children(pid);
    auto memory = Memory(pid);
    fprintf(to, "%.1f,%d,%ld,%ld,%ld,%ld,%ld,%zu,%zu,%zu,%zu,%.2f,%zu,%zu,%llu\n", Now() - begin,
            host.daemon.Running() ? pid : -1, memory["Rss"], memory["Pss"],
            memory["Private_Clean"] + memory["Private_Dirty"], memory["Private_Dirty"],
            memory["Anonymous"], OpenFiles(pid).size(),
            ListDirectory("/proc/" + std::to_string(pid) + "/task").size(), children.size(),
            Zombies(children), CpuSeconds(pid), MadeUpHost::Objects().size(), LogSize(),
            static_cast<unsigned long long>(Polls()));
    fflush(to);
  }
  static constexpr char kColumns[] =
      "seconds,pid,rss,pss,uss,dirty,anonymous,descriptors,threads,children,zombies,cpu,objects,"
      "log_"
      "bytes,"
      "polls";

  // Everything that was logged so far, in order.
  std::string WholeLog() {
    const std::lock_guard hold(log_lock_);
    return old_log_ + ReadFile(kLog) + host.daemon.Log();
  }

  MadeUpHost host;

 private:
  size_t LogSize() {
    const std::lock_guard hold(log_lock_);
    struct stat now = {};
    return old_log_.size() + (stat(kLog, &now) == 0 ? static_cast<size_t>(now.st_size) : 0);
  }

  void ChangeMounts(unsigned turn) {
    // The last one has a name that is too long for the table: its row is a new one at every poll.
    const unsigned which = turn % 10;
    const std::string directory =
        "/run/soak/mount-" + std::to_string(which) + (which == 9 ? std::string(120, 'x') : "");
    if (turn / 10 % 2 == 0) {
      host.Directory(directory);
      EXPECT_EQ(mount("made-up", directory.c_str(), "tmpfs", 0, "size=1m"), 0);
      events_->Add("mount");
    } else {
      EXPECT_EQ(umount2(directory.c_str(), MNT_DETACH), 0) << directory;
      events_->Add("unmount");
    }
  }

  // A mount that answers, hangs, and answers again or goes away while somebody waits for it.
  void ChangeFuse(unsigned turn) {
    switch (turn % 6) {
      case 0:
        fuse_ = std::make_unique<FuseMount>("/run/soak/fuse", 1000, 500);
        break;
      case 1:
      case 3:
        fuse_->Hang();
        events_->Add("mount-hangs");
        break;
      case 2:
        fuse_->Recover();
        break;
      case 4:
        fuse_.reset();
        break;
      default:
        break;
    }
  }

  void ChangePackages(unsigned turn) {
    static const char *const names[] = {
        "kelmo", "qv-health", "qv-rmc", "glutton", "tlx_cciss",
        "vlan",  "bash",      "qlogic", "qv-tg3",  "lsi;touch /run/soak/injected"};
    std::string text = "Desired=Unknown/Install/Remove/Purge/Hold\n";
    for (size_t i = 0; i < std::size(names); i++) {
      if ((turn + i) % 3 != 0) {
        text +=
            std::string("ii  ") + names[i] + "  1." + std::to_string(turn) + "-1  all  Package\n";
      }
    }
    host.File("/run/soak/packages", text);
    // Every pass needs another time of the file, in whole seconds.
    static time_t time = 1000000;
    host.File(kDatabase, "");
    time++;
    const timespec times[2] = {{time, 0}, {time, 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, kDatabase, times, 0), 0);
    events_->Add("packages");
  }

  // Siblings' processes and objects, together and one without the other.
  void ChangePeers(unsigned turn) {
    static const char *const peers[][2] = {{"vexida", "ida/misc"},
                                           {"/usr/sbin/vexstdeqd", "stdeq/misc"},
                                           {"vexnic", "nic/misc"},
                                           {"vexhealthd", "health/thermal"}};
    const size_t which = turn / 2 % std::size(peers);
    const auto &[process, object] = peers[which];
    const std::string value = "int:" + std::to_string(turn % 4);
    if (turn % 2 == 0) {
      EXPECT_EQ(host.Vexreg({"put", object, value, value, value, value}).status, 0);
      peer_ = host.Peer({process, "-p", "15"});
    } else {
      host.EndPeer(peer_);
      EXPECT_EQ(host.Vexreg({"rm", object}).status, 0);
    }
    events_->Add("peer");
  }

  // The threshold agent's entries: raw data blocks.
  void BeginThreshold(unsigned turn) {
    std::string data(560, '\0');
    data.replace(8, 25, "1.3.6.1.4.1.4891.11.2.4.1");
    data[292] = static_cast<char>(turn % 7);
    data[552] = 1;
    const std::string path = "/run/soak/threshold";
    host.File(path, data);
    const std::string object = "threshold/entry." + std::to_string(turn % 5);
    if (turn % 2 == 0) {
      EXPECT_EQ(host.Vexreg({"put", object, "--data", path}).status, 0);
    } else {
      host.Vexreg({"rm", "threshold/entry." + std::to_string((turn - 1) % 5)});
    }
  }

  // Mostly there and well. A reply that does not come costs the poll five seconds.
  void ChangeController(unsigned turn) {
    vex::ControllerMood mood;
    switch (turn % 12) {
      case 0:
        controller_ = std::make_unique<vex::SimulatedController>(mood);
        events_->Add("controller");
        return;
      case 3:
        mood.resets = 1;
        mood.resume = true;
        break;
      case 5:
        mood.reply_length = 20;
        break;
      case 7:
        mood.silent = true;
        break;
      case 9:
        controller_.reset();
        events_->Add("controller-gone");
        return;
      case 10:
      case 11:
        return;
      default:
        mood.minor = static_cast<int>(turn) % 100;
    }
    controller_->SetMood(mood);
  }

  void RenameLog(unsigned) {
    const std::string old = std::string(kLog) + ".1";
    const std::lock_guard hold(log_lock_);
    if (rename(kLog, old.c_str()) != 0) {
      return;
    }
    host.daemon.Signal(SIGHUP);
    // A poll that is held up is not interrupted.
    EXPECT_TRUE(Eventually([] { return Exists(kLog); }, 30)) << "the log was not opened again";
    old_log_ += ReadFile(old);
    host.Remove(old);
    events_->Add("log-renamed");
  }

  Events *events_;
  double controller_every_;
  double speed_;
  std::mutex log_lock_;
  std::string old_log_;
  std::unique_ptr<FuseMount> fuse_;
  std::unique_ptr<vex::SimulatedController> controller_;
  pid_t peer_ = -1;
  std::atomic<unsigned> epoch_{0};
  std::atomic<bool> down_{false};
};

}  // namespace

TEST(Soak, ABusyHost) {
  const std::string out = Setting("VEX_SOAK_OUT", "");
  ASSERT_NE(out, "") << "scripts/soak runs this";
  const double seconds = std::stod(Setting("VEX_SOAK_SECONDS", "60"));
  const double every = std::stod(Setting("VEX_SOAK_EVERY", "1"));
  const uint64_t polls = std::stoull(Setting("VEX_SOAK_POLLS", "0"));
  Events events(out + "/events.csv");
  // Every mood within the shorter form, and within one of the windows that are compared.
  BusyHost busy(&events, seconds < 600 ? 2.5 : 5, polls != 0 ? 10 : 1);
  busy.Start();
  if (HasFailure()) {
    return;
  }

  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  threads.emplace_back([&] { busy.Change(&stop); });
  if (polls != 0) {
    threads.emplace_back([&] { busy.HurryPolls(&stop); });
  }
  threads.emplace_back([&] {
    for (unsigned turn = 0; !stop; turn++) {
      for (double until = Now() + 8; Now() < until && !stop;) {
        Pause(0.1);
      }
      if (!stop) {
        busy.RestartMaster(turn);
      }
    }
  });
  threads.emplace_back([&] {
    for (unsigned turn = 0; !stop; turn++) {
      busy.Walk(turn);
      for (unsigned i = 0; i < 3 && !stop; i++) {
        busy.SetOne(3 * turn + i);
        Pause(0.1);
      }
    }
  });
  const std::unique_ptr<FILE, int (*)(FILE *)> samples(fopen((out + "/samples.csv").c_str(), "we"),
                                                       fclose);
  fprintf(samples.get(), "%s\n", BusyHost::kColumns);
  const double begin = Now();
  uint64_t last_poll = UINT64_MAX;
  for (double due = begin;
       due <= begin + seconds && busy.host.daemon.Running() && BusyHost::Polls() < last_poll;
       due += every) {
    Pause(std::max(0.0, due - Now()));
    busy.Sample(samples.get(), begin);
    if (polls != 0 && last_poll == UINT64_MAX) {
      last_poll = BusyHost::Polls() + polls;
    }
  }
  busy.Sample(samples.get(), begin);
  stop = true;
  for (std::thread &thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(busy.host.daemon.Running()) << "the daemon has ended by itself";
  EXPECT_FALSE(Exists("/run/soak/injected"));
  for (const Trap &trap : busy.host.traps.Received()) {
    // The other ones tell of siblings' conditions.
    events.Add(trap.oid.ends_with(".11003") ? "trap-received" : "health-trap");
  }
  busy.host.daemon.Signal(SIGTERM);
  const int status = busy.host.daemon.WaitEnd(120).value_or(-1);
  events.Add("status", status);
  EXPECT_EQ(status, 0);
  const std::string log = busy.WholeLog();
  const std::unique_ptr<FILE, int (*)(FILE *)> log_file(fopen((out + "/log.txt").c_str(), "we"),
                                                        fclose);
  fwrite(log.data(), 1, log.size(), log_file.get());
}
