// The SNMP side when allocations fail: each operation again and again, with its first, second, ...
// allocation failing, in our code and in net-snmp's alike. A request is answered, a notification
// comes, an image is taken over, and the thread lives.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <new>
#include <string>
#include <thread>

#include "framework/snmp/agentx_session.h"
#include "framework/snmp/set_channel.h"
#include "framework/snmp/snmp_thread.h"
#include "platform/framework.h"
#include "tests/unit/framework/fake_master.h"

// ---- The failing: in the place of the C library's allocations, for every library of this process.

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *old, size_t size);
}

namespace {

std::atomic<pid_t> victim{0};  // the thread whose allocations fail; 0: none
std::atomic<long> before_failing{0};
std::atomic<long> failing{0};  // how many in a row
std::atomic<long> failed{0};

bool FailsNow() {
  if (victim.load(std::memory_order_relaxed) == 0 || gettid() != victim) {
    return false;
  }
  if (before_failing > 0) {
    before_failing--;
    return false;
  }
  if (failing <= 0) {
    return false;
  }
  failing--;
  failed++;
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void *malloc(size_t size) {
  return FailsNow() ? nullptr : __libc_malloc(size);
}
extern "C" __attribute__((visibility("default"))) void *calloc(size_t count, size_t size) {
  return FailsNow() ? nullptr : __libc_calloc(count, size);
}
extern "C" __attribute__((visibility("default"))) void *realloc(void *old, size_t size) {
  return FailsNow() ? nullptr : __libc_realloc(old, size);
}

namespace vex {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Binding = AgentxBinding;

enum { kCommitSet = 9, kUndoSet = 10, kCleanupSet = 11, kNotify = 12 };
enum { kGenErr = 5, kResourceUnavailable = 13, kCommitFailed = 14 };

constexpr char kNumber[] = "tlxHoOsCommonPollFreq";
constexpr char kText[] = "tlxHoGenericData";
constexpr char kColumn[] = "tlxHoSwVerName";

const MibVariable &Mib(const char *name) {
  return *FindMibVariable(name);
}

OidNumbers NameOf(const char *variable, uint32_t instance = 0) {
  std::span<const uint32_t> oid = Mib(variable).Oid();
  OidNumbers name(oid.begin(), oid.end());
  name.push_back(instance);
  return name;
}

std::shared_ptr<Image> TextImage(uint64_t id, uint32_t instance, const char *variable,
                                 const std::string &text) {
  auto layout = std::make_shared<Layout>();
  const MibVariable &mib = Mib(variable);
  layout->variables.push_back({&mib, 0, mib.max_length + 1, 0, mib.type, true});
  auto image = std::make_shared<Image>();
  image->data.resize(mib.max_length + 1U);
  memcpy(image->data.data(), text.data(), text.size());
  image->octet_lengths.push_back(0);
  image->layout = layout;
  image->object_id = id;
  image->instance = instance;
  return image;
}

pid_t SnmpThread() {
  pid_t found = 0;
  DIR *tasks = opendir("/proc/self/task");
  while (const dirent *entry = readdir(tasks)) {
    std::string name;
    std::getline(std::ifstream(std::string("/proc/self/task/") + entry->d_name + "/comm"), name);
    found = name == "snmp" ? static_cast<pid_t>(atoi(entry->d_name)) : found;
  }
  closedir(tasks);
  return found;
}

std::atomic<int> applied;

int RunOneSet(uint8_t phase, SetItem &) {
  applied += phase == SET_CHECK ? 0 : 1;
  return 0;
}

class Memory : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/snmp_memory.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory_ = pattern;
    std::ofstream(directory_ + "/vexhostd.conf") << "agentXSocket " << directory_ << "/master\n";
    setenv("SNMPCONFPATH", directory_.c_str(), 1);
    master_ = std::make_unique<FakeMaster>(directory_ + "/master");
    ASSERT_EQ(SnmpStart("vexhostd", nullptr), 0);
    ASSERT_TRUE(master_->AcceptAndRegister());
    SnmpPublish(TextImage(1, 0, kText, "hello"));
    ASSERT_EQ(Text(kText), "hello");
    agent_ = std::thread([this] {
      while (!agent_stop_) {
        pollfd entry = {SetChannelFd(), POLLIN, 0};
        if (poll(&entry, 1, 5) > 0) {
          ServeSets(RunOneSet);
        }
      }
    });
  }
  void TearDown() override {
    victim = 0;
    agent_stop_ = true;
    agent_.join();
    EXPECT_FALSE(SnmpFailed());
    EXPECT_TRUE(SnmpRunning());
    SnmpStop();
    for (uint64_t id = 1; id < 5000; id++) {
      SnmpWithdraw(id);
    }
    EXPECT_EQ(system(("rm -rf " + directory_).c_str()), 0);
  }

  // Does the operation again and again, with one allocation of that thread failing later each time
  // (and the ones after it, when `burst` is above 1), until nothing failed any more.
  void Sweep(pid_t thread, const std::function<void()> &operation,
             const std::function<void()> &afterwards) {
    for (const long burst : {1L, 4L}) {
      long times = 0;
      for (long place = 0;; place++) {
        failed = 0;
        before_failing = place;
        failing = burst;
        victim = thread;
        operation();
        victim = 0;
        times += failed > 0 ? 1 : 0;
        SCOPED_TRACE("allocation " + std::to_string(place) + ", burst " + std::to_string(burst));
        afterwards();
        if (HasFatalFailure() || HasNonfatalFailure()) {
          return;
        }
        if (failed == 0) {
          break;
        }
        ASSERT_LT(place, 2000);
      }
      EXPECT_GT(times, 0) << "no allocation failed";
      RecordProperty("failed_" + std::to_string(burst), static_cast<int>(times));
    }
  }
  // The session may have been given up for a new one.
  bool Again() {
    for (int tries = 0; tries < 10; tries++) {
      if (master_->AcceptAndRegister(10000)) {
        return true;
      }
      master_->Disconnect();
    }
    return false;
  }
  // The answer's error, or -1 without one; -2 after a session that had to be begun anew.
  int Ask(const AgentxPacket &request, std::vector<Binding> *bindings) {
    std::optional<AgentxPacket> answer = master_->Ask(request);
    if (!answer) {
      if (!master_->HungUp(5000)) {
        return -1;
      }
      master_->Disconnect();
      return Again() ? -2 : -1;
    }
    *bindings = answer->Bindings();
    return answer->Error();
  }
  std::string Text(const char *variable, uint32_t instance = 0) {
    std::vector<Binding> bindings;
    const int error = Ask(master_->Get({NameOf(variable, instance)}), &bindings);
    if (error != 0 || bindings.size() != 1) {
      return "error " + std::to_string(error);
    }
    return bindings[0].type == Binding::kOctets ? bindings[0].octets
                                                : "type " + std::to_string(bindings[0].type);
  }

  std::string directory_;
  std::unique_ptr<FakeMaster> master_;
  std::thread agent_;
  std::atomic<bool> agent_stop_{false};
};

TEST_F(Memory, ReadsAreAnswered) {
  std::vector<OidNumbers> names(3, NameOf(kText));
  names.push_back(NameOf(kNumber));
  const std::vector<std::function<AgentxPacket()>> requests = {
      [&] { return master_->Get(names); },
      [&] { return master_->GetNext(std::vector<OidNumbers>(3, OidNumbers(NameOf(kText)))); },
      [&] {
        return master_->GetNext(std::vector<OidNumbers>(2, OidNumbers{1, 3, 6, 1, 4, 1, 4891}));
      },
      [&] {
        return master_->GetBulk(1, 2, {OidNumbers{1, 3, 6, 1, 4, 1, 4891}, NameOf(kText)});
      },
  };
  for (const auto &request : requests) {
    std::vector<Binding> right;
    ASSERT_EQ(Ask(request(), &right), 0);
    std::vector<Binding> got;
    int error = 0;
    Sweep(
        SnmpThread(), [&] { error = Ask(request(), &got); },
        [&] {
          EXPECT_TRUE(error == 0 || error == kGenErr) << error;
          if (error == 0) {
            ASSERT_EQ(got.size(), right.size());
            for (size_t i = 0; i < got.size(); i++) {
              EXPECT_EQ(got[i].type, right[i].type);
              EXPECT_EQ(got[i].name, right[i].name);
              EXPECT_EQ(got[i].octets, right[i].octets);
            }
          }
          EXPECT_EQ(Text(kText), "hello");
        });
  }
}

// A row comes, its layout changes, and it goes: no read ever shows what stood there before.
TEST_F(Memory, ImagesAreTakenOverLater) {
  uint32_t row = 1;
  std::string seen;
  Sweep(
      SnmpThread(),
      [&] {
        row++;
        SnmpPublish(TextImage(10 + row, row, kColumn, "new"));
        SnmpPublish(TextImage(5, 0, kText, "other"));
        SnmpWithdraw(10 + row - 1);
        SnmpPublish(TextImage(1, 0, kText, std::to_string(row)));
        seen = Text(kText);
      },
      [&] {
        EXPECT_TRUE(seen == std::to_string(row) || seen == "error " + std::to_string(kGenErr))
            << seen;
        EXPECT_EQ(Text(kText), std::to_string(row));
        EXPECT_EQ(Text(kColumn, row), "new");
        EXPECT_EQ(Text(kColumn, row - 1), "type " + std::to_string(Binding::kNoSuchInstance));
      });
}

TEST_F(Memory, SetsAreAppliedOrRefused) {
  Binding binding;
  binding.type = Binding::kOctets;
  binding.name = NameOf(kText);
  binding.octets = "set";
  uint32_t transaction = 0;
  int test = 0;
  int commit = 0;
  int applied_before = 0;
  auto whole = [&] {
    std::vector<Binding> none;
    applied_before = applied;
    test = Ask(master_->TestSet(++transaction, {binding}), &none);
    commit = -3;
    if (test == 0) {
      commit = Ask(master_->Phase(kCommitSet, transaction), &none);
      if (commit != 0) {
        Ask(master_->Phase(kUndoSet, transaction), &none);
      }
    }
    master_->Send(master_->Phase(kCleanupSet, transaction));
  };
  Sweep(SnmpThread(), whole, [&] {
    EXPECT_TRUE(test == 0 || test == kResourceUnavailable) << test;
    if (test == 0) {
      EXPECT_TRUE(commit == 0 || commit == kCommitFailed) << commit;
    }
    EXPECT_EQ(applied - applied_before, commit == 0 ? 1 : 0);
    whole();
    EXPECT_EQ(test, 0);
    EXPECT_EQ(commit, 0);
  });
}

TEST_F(Memory, NoNotificationIsLost) {
  int happened = 0;
  std::string text;
  auto receive = [&]() -> bool {
    for (int tries = 0; tries < 20; tries++) {
      std::optional<AgentxPacket> packet = master_->Receive(10000);
      if (!packet) {
        master_->Disconnect();
        if (!Again()) {
          return false;
        }
      } else if (packet->type == kNotify) {
        master_->Answer(*packet);
        const std::vector<Binding> bindings = packet->Bindings();
        if (bindings.size() == 3 && bindings[1].octets == "value" && bindings[2].octets == text) {
          return true;
        }
        // One before, once more: its answer was lost with the session.
      }
    }
    return false;
  };
  bool received = false;
  Sweep(
      SnmpThread(),
      [&] {
        text = "something happened " + std::to_string(++happened);
        Notification notification;
        notification.number = 11003;
        notification.variables.push_back({&Mib(kText), 0, {'v', 'a', 'l', 'u', 'e'}});
        notification.description = text;
        SnmpNotify(std::move(notification));
        received = receive();
      },
      [&] { EXPECT_TRUE(received); });
}

TEST_F(Memory, TheSessionComesBack) {
  bool back = false;
  Sweep(
      SnmpThread(),
      [&] {
        master_->Disconnect();
        back = Again();
      },
      [&] {
        EXPECT_TRUE(back);
        // The answer to its last registration may have been lost, which is another new session.
        const std::string text = Text(kText);
        EXPECT_EQ(text == "error -2" ? Text(kText) : text, "hello");
      });
}

TEST_F(Memory, QueriesEnd) {
  SnmpAnswer answer;
  steady_clock::duration took{};
  // An address of the loopback network that nobody listens on.
  auto ask = [&] {
    const auto start = steady_clock::now();
    answer = SnmpQueryInteger("127.200.3.4", "public", "1.3.6.1.2.1.1.7.0", milliseconds(20000));
    took = steady_clock::now() - start;
  };
  Sweep(SnmpThread(), ask, [&] {
    EXPECT_NE(answer.end, QueryEnd::kAnswered);
    EXPECT_LT(took, milliseconds(10000));
    ask();
    EXPECT_EQ(answer.end, QueryEnd::kRefused);
  });
}

// What the agent thread hands over is refused as a whole, and withdrawing needs no memory.
TEST_F(Memory, TheAgentThreadHearsOfIt) {
  uint64_t id = 100;
  std::shared_ptr<Image> image;
  bool refused = false;
  Sweep(
      gettid(),
      [&] {
        before_failing += 1000000;  // not yet
        id++;
        image = TextImage(id, static_cast<uint32_t>(id), kColumn, "row");
        before_failing -= 1000000;
        refused = false;
        try {
          SnmpPublish(image);
        } catch (const std::bad_alloc &) {
          refused = true;
        }
      },
      [&] {
        const auto row = static_cast<uint32_t>(id);
        const std::string none = "type " + std::to_string(Binding::kNoSuchInstance);
        EXPECT_EQ(Text(kColumn, row), refused ? none : "row");
        before_failing = 0;
        failing = 1;
        victim = gettid();
        SnmpWithdraw(id);
        victim = 0;
        EXPECT_EQ(Text(kColumn, row), none);
        failed = failed > 0 || refused ? 1 : 0;
      });
}

}  // namespace
}  // namespace vex
