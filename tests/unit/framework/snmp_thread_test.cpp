// The whole SNMP side, from its face to the agent thread down to the packets on a master's socket.
#include "framework/snmp/snmp_thread.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <thread>

#include "framework/snmp/agentx_session.h"
#include "framework/snmp/set_channel.h"
#include "framework/snmp/snmp_config.h"
#include "platform/framework.h"
#include "tests/unit/framework/fake_master.h"
#include "tests/unit/framework/library_leaks.h"
#include "tests/unit/framework/made_image.h"
#include "tests/unit/framework/snmp_user_here.h"
#include "tests/unit/framework/stopped.h"

namespace vex {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Binding = AgentxBinding;

enum { kClose = 2, kCommitSet = 9, kUndoSet = 10, kCleanupSet = 11, kNotify = 12, kPing = 13 };
enum {
  kWrongType = 7,
  kWrongLength = 8,
  kWrongValue = 10,
  kNoCreation = 11,
  kResourceUnavailable = 13,
  kCommitFailed = 14,
  kUndoFailed = 15,
  kNotWritable = 17,
};
constexpr int kNotOpen = 257;
constexpr int kUnsupportedContext = 262;
constexpr int kDuplicateRegistration = 263;

// Three variables of one object of the first group, and one of the second.
constexpr char kNumber[] = "tlxHoOsCommonPollFreq";
constexpr char kText[] = "tlxHoGenericData";
constexpr char kReadOnly[] = "tlxHoSwVerNextIndex";
constexpr char kColumn[] = "tlxHoSwVerName";
constexpr char kOther[] = "tlxApApplianceDescription";

const MibVariable &Mib(const char *name) {
  const MibVariable *found = FindMibVariable(name);
  if (found == nullptr) {
    ADD_FAILURE() << name << " is not in the table";
    abort();
  }
  return *found;
}

OidNumbers NameOf(const char *variable, uint32_t instance = 0) {
  std::span<const uint32_t> oid = Mib(variable).Oid();
  OidNumbers name(oid.begin(), oid.end());
  name.push_back(instance);
  return name;
}

Binding TextBinding(const char *variable, const std::string &text, uint32_t instance = 0) {
  Binding binding;
  binding.type = Binding::kOctets;
  binding.name = NameOf(variable, instance);
  binding.octets = text;
  return binding;
}

Binding NumberBinding(const char *variable, int32_t number) {
  Binding binding;
  binding.type = Binding::kInteger;
  binding.name = NameOf(variable);
  binding.integer = number;
  return binding;
}

void Store(Image *image, int slot, const void *value, size_t length) {
  memcpy(image->data.data() + image->layout->variables[static_cast<size_t>(slot)].offset, value,
         length);
}

std::function<int(uint8_t, SetItem &)> set_handler;
std::atomic<int> set_checks;
std::atomic<int> set_applies;

int RunOneSet(uint8_t phase, SetItem &item) {
  (phase == SET_CHECK ? set_checks : set_applies)++;
  return set_handler ? set_handler(phase, item) : 0;
}

// With VEX_SNMP_PROCESS=1 the SNMP side is a process of its own, for which it takes root and the
// user. Without, it is a thread, as for whoever lacks one of them.
class SnmpUserIfWanted : public SnmpUserHere {
 public:
  static bool Wanted() {
    return getenv("VEX_SNMP_PROCESS") != nullptr;
  }
  void SetUp() override {
    if (Wanted()) {
      SnmpUserHere::SetUp();
    }
  }
};
const testing::Environment *const snmp_user = testing::AddGlobalTestEnvironment(
    new SnmpUserIfWanted);  // NOLINT(*-err58-cpp): it is the library's

// Processes that this one has started and that are there.
int ChildrenHere() {
  std::ifstream file("/proc/thread-self/children");
  int count = 0;
  for (int pid = 0; file >> pid;) {
    count++;
  }
  return count;
}

class SnmpSideTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/snmp_side.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory_ = pattern;
    socket_ = directory_ + "/master";
    persistent_ = directory_ + "/persistent";
    ASSERT_EQ(mkdir(persistent_.c_str(), 0700), 0);
    Configure("vexhostd.conf", "agentXSocket " + socket_ + "\n");
    setenv("SNMPCONFPATH", directory_.c_str(), 1);
    setenv("SNMP_PERSISTENT_DIR", persistent_.c_str(), 1);
    set_handler = nullptr;
    set_checks = 0;
    set_applies = 0;
  }
  void TearDown() override {
    StopAgent();
    EXPECT_TRUE(Stopped());
    SnmpEnableSets(true);
    for (uint64_t id = 1; id < 20; id++) {
      SnmpWithdraw(id);
    }
    set_handler = nullptr;
    std::string command = "rm -rf " + directory_;
    EXPECT_EQ(system(command.c_str()), 0);
  }

  void Configure(const std::string &file, const std::string &text) {
    std::ofstream(directory_ + "/" + file, std::ios::app) << text;
  }
  void Start() {
    ASSERT_EQ(SnmpStart("vexhostd", &settings_), 0);
    ASSERT_EQ(ChildrenHere(), SnmpUserIfWanted::Wanted() ? 1 : 0);
  }
  void StartWithMaster() {
    master_ = std::make_unique<FakeMaster>(socket_);
    Start();
    ASSERT_TRUE(master_->AcceptAndRegister());
    // Answered after the registrations were seen; where it is a process, the agent hears of them
    // after the master does.
    ASSERT_TRUE(master_->Ask(master_->Get({NameOf(kText)})));
    for (int i = 0; i < 3000 && !SnmpUp(); i++) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    ASSERT_TRUE(SnmpUp());
  }
  void PublishMisc() {
    int32_t number = 15;
    misc_ = MakeImage(1, 0, {kNumber, kReadOnly, kText});
    Store(misc_.get(), 0, &number, sizeof(number));
    Store(misc_.get(), 2, "hello", 6);
    SnmpPublish(misc_);
    SnmpPublish(MakeImage(2, 0, {kOther}));
  }

  // The agent thread: serves sets until it is stopped.
  void StartAgent() {
    agent_stop_ = false;
    agent_ = std::thread([this] {
      while (!agent_stop_) {
        pollfd entry = {SetChannelFd(), POLLIN, 0};
        if (poll(&entry, 1, 5) > 0) {
          ServeSets(RunOneSet);
        }
      }
    });
  }
  void StopAgent() {
    agent_stop_ = true;
    if (agent_.joinable()) {
      agent_.join();
    }
  }

  int AskFor(const AgentxPacket &request) {
    std::optional<AgentxPacket> answer = master_->Ask(request);
    return answer ? answer->Error() : -1;
  }
  Binding First(const AgentxPacket &request) {
    std::optional<AgentxPacket> answer = master_->Ask(request);
    if (!answer || answer->Bindings().size() != 1) {
      ADD_FAILURE() << "no answer with one variable";
      return {};
    }
    return answer->Bindings()[0];
  }
  // What is readable of the variable now; -1 when it is no text.
  std::string ReadText(const char *variable) {
    Binding binding = First(master_->Get({NameOf(variable)}));
    return binding.type == Binding::kOctets ? binding.octets : "(no text)";
  }

  std::string directory_;
  std::string socket_;
  std::string persistent_;
  SnmpSettings settings_;
  std::unique_ptr<FakeMaster> master_;
  std::shared_ptr<Image> misc_;
  std::thread agent_;
  std::atomic<bool> agent_stop_{false};
};

int FilesIn(const std::string &directory) {
  int count = 0;
  DIR *d = opendir(directory.c_str());
  if (d == nullptr) {
    return -1;
  }
  while (const dirent *entry = readdir(d)) {
    count += entry->d_name[0] != '.' ? 1 : 0;
  }
  closedir(d);
  return count;
}

// ---- Session ----

TEST_F(SnmpSideTest, RegistersBothSubtrees) {
  StartWithMaster();
  std::set<OidNumbers> wanted;
  for (const MibGroup &group : MibGroups()) {
    wanted.emplace(group.oid, group.oid + group.oid_length);
  }
  EXPECT_EQ(std::set<OidNumbers>(master_->Registered().begin(), master_->Registered().end()),
            wanted);
}

TEST_F(SnmpSideTest, ClosesItsSessionWhenItStops) {
  StartWithMaster();
  std::thread stopping(SnmpStop);
  std::optional<AgentxPacket> packet = master_->Receive();
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->type, kClose);
  master_->Answer(*packet);
  stopping.join();
  EXPECT_TRUE(master_->HungUp(10000));
  EXPECT_FALSE(SnmpRunning());
}

TEST_F(SnmpSideTest, StopsBesideAMasterThatDoesNotAnswer) {
  master_ = std::make_unique<FakeMaster>(socket_);
  Start();
  ASSERT_TRUE(master_->Accept(10000));  // its Open stays without an answer
  auto start = steady_clock::now();
  EXPECT_TRUE(Stopped());
  EXPECT_LT(steady_clock::now() - start, milliseconds(5000));
}

TEST_F(SnmpSideTest, StopsBesideAMasterThatFreezesWithASessionAndNotifications) {
  StartWithMaster();  // which answers nothing from now on
  for (uint32_t i = 0; i < 40; i++) {
    Notification notification;
    notification.number = i;
    SnmpNotify(std::move(notification));
  }
  auto start = steady_clock::now();
  EXPECT_TRUE(Stopped());
  EXPECT_LT(steady_clock::now() - start, milliseconds(5000));
}

TEST_F(SnmpSideTest, StopsWithoutAMasterAndStartsAgain) {
  Start();
  SnmpNotify({});
  EXPECT_TRUE(Stopped());
  EXPECT_TRUE(Stopped());
  StartWithMaster();
  // What was left and nobody has asked for is not waited for.
  EXPECT_TRUE(SnmpNothingWaiting());
  PublishMisc();
  EXPECT_EQ(ReadText(kText), "hello");
}

TEST_F(SnmpSideTest, FindsAMasterThatComesLater) {
  Start();
  std::this_thread::sleep_for(milliseconds(300));
  master_ = std::make_unique<FakeMaster>(socket_);
  EXPECT_TRUE(master_->AcceptAndRegister(10000));
}

TEST_F(SnmpSideTest, FindsASocketWhoseDirectoryComesLater) {
  socket_ = directory_ + "/later/master";
  Configure("vexhostd.conf", "agentXSocket unix:" + socket_ + "\n");
  Start();
  std::this_thread::sleep_for(milliseconds(100));
  ASSERT_EQ(mkdir((directory_ + "/later").c_str(), 0700), 0);
  master_ = std::make_unique<FakeMaster>(socket_);
  EXPECT_TRUE(master_->AcceptAndRegister(10000));
}

TEST_F(SnmpSideTest, ComesBackWithinASecondTwentyTimes) {
  StartWithMaster();
  PublishMisc();
  for (int i = 0; i < 20; i++) {
    if (i % 2 == 0) {
      master_->Disconnect();  // the session alone
    } else {
      master_.reset();
      std::this_thread::sleep_for(milliseconds(i * 5));
      master_ = std::make_unique<FakeMaster>(socket_);
    }
    ASSERT_TRUE(master_->AcceptAndRegister(10000)) << i;
    EXPECT_EQ(ReadText(kText), "hello");
  }
}

TEST_F(SnmpSideTest, PingsAndOpensAgainWhenTheMasterForgotTheSession) {
  Configure("vexhostd.conf", "agentXPingInterval 1\n");
  StartWithMaster();
  std::optional<AgentxPacket> ping = master_->Receive(10000);
  ASSERT_TRUE(ping);
  EXPECT_EQ(ping->type, kPing);
  master_->Answer(*ping);
  ping = master_->Receive(10000);
  ASSERT_TRUE(ping);
  EXPECT_EQ(ping->type, kPing);
  master_->Answer(*ping, kNotOpen);
  EXPECT_TRUE(master_->HungUp(10000));
  EXPECT_TRUE(master_->AcceptAndRegister(10000));
}

// After a crash the master may still know the process before.
TEST_F(SnmpSideTest, RegistersAgainWhatTheMasterRefuses) {
  master_ = std::make_unique<FakeMaster>(socket_);
  Start();
  ASSERT_TRUE(master_->Accept(10000));
  std::optional<AgentxPacket> open = master_->Receive();
  ASSERT_TRUE(open);
  master_->Answer(*open);
  std::optional<AgentxPacket> first = master_->Receive();
  std::optional<AgentxPacket> second = master_->Receive();
  ASSERT_TRUE(first && second);
  master_->Answer(*first, kDuplicateRegistration);
  master_->Answer(*second);
  std::optional<AgentxPacket> again = master_->Receive(10000);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->Subtree(), first->Subtree());
}

// A master may refuse a session for as long as it runs: it is not asked without end.
TEST_F(SnmpSideTest, AsksARefusingMasterLessAndLess) {
  master_ = std::make_unique<FakeMaster>(socket_);
  Start();
  int asked = 0;
  steady_clock::time_point until = steady_clock::now() + milliseconds(2500);
  while (steady_clock::now() < until) {
    if (!master_->Accept(100)) {
      continue;
    }
    std::optional<AgentxPacket> open = master_->Receive(10000);
    ASSERT_TRUE(open);
    asked++;
    master_->Answer(*open, 266);  // openFailed
    EXPECT_TRUE(master_->HungUp(10000));
    master_->Disconnect();
  }
  EXPECT_GE(asked, 3);
  EXPECT_LE(asked, 7);  // 0, 0.1, 0.3, 0.7, 1.5 seconds, and so on
  // A new master is asked at once.
  master_.reset();
  master_ = std::make_unique<FakeMaster>(socket_);
  EXPECT_TRUE(master_->AcceptAndRegister(10000));
}

// RFC 2741 6.1: the master chooses the byte order, packet by packet.
TEST_F(SnmpSideTest, AnswersInTheByteOrderOfTheRequest) {
  StartWithMaster();
  PublishMisc();
  AgentxPacket request = master_->Get({NameOf(kNumber)});
  std::string bytes = FakeMaster::BytesOf(request);
  auto swap = [&bytes](size_t at) {
    std::reverse(bytes.begin() + static_cast<long>(at), bytes.begin() + static_cast<long>(at) + 4);
  };
  bytes[2] = 0x10;  // NETWORK_BYTE_ORDER
  // Header: four words after the first. Payload: a name of 4 octets and its numbers, an empty one.
  for (size_t at = 4; at < 20; at += 4) {
    swap(at);
  }
  for (size_t at = 24; at < bytes.size() - 4; at += 4) {
    swap(at);
  }
  master_->SendBytes(bytes);
  std::string answer = master_->ReceiveBytes(1000);
  ASSERT_GE(answer.size(), 28U);
  EXPECT_EQ(answer[2] & 0x10, 0x10);
  auto word = [&answer](size_t at) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; i++) {
      value = value << 8 | static_cast<uint8_t>(answer.at(at + i));
    }
    return value;
  };
  EXPECT_EQ(word(12), request.packet);
  EXPECT_EQ(word(16) + 20, answer.size());
  EXPECT_EQ(word(24), 0U);  // error and index
  EXPECT_EQ(word(28) >> 16, static_cast<uint32_t>(Binding::kInteger));
  EXPECT_EQ(word(answer.size() - 4), 15U);
  EXPECT_EQ(ReadText(kText), "hello");  // and in the other order again
}

TEST_F(SnmpSideTest, RequestsMayComeInPiecesAndTogether) {
  StartWithMaster();
  PublishMisc();
  AgentxPacket request = master_->Get({NameOf(kText)});
  std::string bytes = FakeMaster::BytesOf(request);
  for (size_t at = 0; at < bytes.size(); at++) {
    master_->SendBytes(bytes.substr(at, 1));
    std::this_thread::sleep_for(std::chrono::microseconds(300));
  }
  std::optional<AgentxPacket> answer = master_->Receive(10000);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->packet, request.packet);
  EXPECT_EQ(answer->Bindings().at(0).octets, "hello");

  std::vector<AgentxPacket> requests;
  bytes.clear();
  for (int i = 0; i < 20; i++) {
    requests.push_back(master_->Get({NameOf(kNumber)}));
    bytes += FakeMaster::BytesOf(requests.back());
  }
  // The last one's end comes later.
  master_->SendBytes(bytes.substr(0, bytes.size() - 5));
  std::this_thread::sleep_for(milliseconds(20));
  master_->SendBytes(bytes.substr(bytes.size() - 5));
  for (const AgentxPacket &one : requests) {
    answer = master_->Receive(10000);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->packet, one.packet);
    EXPECT_EQ(answer->Bindings().at(0).integer, 15);
  }
}

// Nobody waits for, or makes room for, what a broken master says that it will send.
TEST_F(SnmpSideTest, APacketOfAnEndlessLengthEndsTheSession) {
  StartWithMaster();
  PublishMisc();
  for (const uint32_t length : {uint32_t{2} << 20, 0x7fffffffU, 0x80000000U, 0xfffffff0U}) {
    AgentxPacket request = master_->Get({NameOf(kText)});
    std::string bytes = FakeMaster::BytesOf(request);
    memcpy(&bytes[16], &length, sizeof(length));
    master_->SendBytes(bytes);
    EXPECT_TRUE(master_->HungUp(10000)) << length;
    master_->Disconnect();
    ASSERT_TRUE(master_->AcceptAndRegister());
    EXPECT_EQ(ReadText(kText), "hello");
  }
}

// Answers are not kept without end for a master that asks and does not read.
TEST_F(SnmpSideTest, AMasterThatReadsNothingLosesItsSession) {
  StartWithMaster();
  PublishMisc();
  const std::string request =
      FakeMaster::BytesOf(master_->Get(std::vector<OidNumbers>(200, NameOf(kText))));
  for (int i = 0; i < 2000; i++) {
    master_->SendBytes(request);
  }
  EXPECT_TRUE(master_->HasBeenReset(15000));
  master_->Disconnect();
  ASSERT_TRUE(master_->AcceptAndRegister());
  EXPECT_EQ(ReadText(kText), "hello");
}

// A set comes in a part for each subtree; a master that never ends its own set takes no more room.
TEST_F(SnmpSideTest, PartsOfOneSetAreLimited) {
  StartWithMaster();
  PublishMisc();
  for (int i = 0; i < 16; i++) {
    master_->Send(master_->TestSet(5, {TextBinding(kText, "x")}));
  }
  for (int i = 0; i < 20; i++) {
    EXPECT_EQ(AskFor(master_->TestSet(5, {TextBinding(kText, "x")})), kResourceUnavailable);
  }
  for (int i = 0; i < 20; i++) {
    EXPECT_EQ(AskFor(master_->Phase(kCommitSet, 5)), kCommitFailed);
  }
}

// Sets past their deadline make room for others, but only when the master has heard what became of
// them: asked again, they would be told to have failed, though they may be applied.
TEST_F(SnmpSideTest, SetsThatMakeRoomHaveBeenAnswered) {
  StartWithMaster();
  PublishMisc();
  constexpr uint32_t kSets = 16;  // as many as are kept
  for (uint32_t transaction = 1; transaction <= kSets; transaction++) {
    master_->Send(master_->TestSet(transaction, {TextBinding(kText, "x")}));
  }
  // One more is asked for all the time, so that it comes just when their time is over.
  std::set<uint32_t> unanswered;
  for (uint32_t transaction = 1; transaction <= kSets; transaction++) {
    unanswered.insert(transaction);
  }
  const auto until = steady_clock::now() + milliseconds(3000);
  for (uint32_t transaction = 100; !unanswered.empty() && steady_clock::now() < until;
       transaction++) {
    master_->Send(master_->TestSet(transaction, {TextBinding(kText, "x")}));
    while (const std::optional<AgentxPacket> answer = master_->Receive(1)) {
      EXPECT_EQ(answer->Error(), kResourceUnavailable);
      unanswered.erase(answer->transaction);
      if (answer->transaction == transaction) {
        break;
      }
    }
  }
  EXPECT_EQ(unanswered, std::set<uint32_t>());
}

TEST_F(SnmpSideTest, AMasterOnTcpIsAsGood) {
  master_ = std::make_unique<FakeMaster>(FakeMaster::Tcp{});
  Configure("vexhostd.conf",
            "agentXSocket tcp:127.0.0.1:" + std::to_string(master_->Port()) + "\n");
  Start();
  PublishMisc();
  ASSERT_TRUE(master_->AcceptAndRegister(10000));
  EXPECT_EQ(ReadText(kText), "hello");
  master_->Disconnect();
  ASSERT_TRUE(master_->AcceptAndRegister(10000));
  EXPECT_EQ(ReadText(kText), "hello");
}

// Connecting may take minutes; the thread has other work meanwhile, and may have to end.
TEST_F(SnmpSideTest, AMasterThatDoesNotAcceptStallsNothing) {
  master_ = std::make_unique<FakeMaster>(FakeMaster::Tcp{0});
  int filler[2];
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(master_->Port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (int &fd : filler) {  // until the next one is not taken any more
    fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    (void)!connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address));
  }
  Configure("vexhostd.conf",
            "agentXSocket tcp:localhost:" + std::to_string(master_->Port()) + "\n");
  Start();
  std::this_thread::sleep_for(milliseconds(100));
  steady_clock::time_point start = steady_clock::now();
  // Nobody listens on port 1: the thread says so at once, if it is not stuck.
  EXPECT_EQ(SnmpQueryInteger("127.0.0.1:1", "public", "1.3.6.1.2.1.1.3.0", milliseconds(2000)).end,
            QueryEnd::kNotAsked);
  EXPECT_TRUE(Stopped());
  EXPECT_LT(steady_clock::now() - start, milliseconds(5000));
  for (int fd : filler) {
    close(fd);
  }
}

TEST_F(SnmpSideTest, SignalsAreBlockedInTheThreadAndNotInTheCaller) {
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  Start();
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (int signal : {SIGALRM, SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGUSR1}) {
    EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal));
  }
  bool seen = false;
  DIR *tasks = opendir("/proc/self/task");
  ASSERT_NE(tasks, nullptr);
  while (const dirent *entry = readdir(tasks)) {
    std::string task = std::string("/proc/self/task/") + entry->d_name;
    std::string name;
    std::getline(std::ifstream(task + "/comm"), name);
    if (name != "snmp") {
      continue;
    }
    seen = true;
    std::ifstream status(task + "/status");
    std::string line;
    unsigned long long blocked = 0;
    while (std::getline(status, line)) {
      sscanf(line.c_str(), "SigBlk: %llx", &blocked);
    }
    for (int signal : {SIGALRM, SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGUSR1}) {
      EXPECT_TRUE(blocked & (1ULL << (signal - 1))) << signal;
    }
  }
  closedir(tasks);
  EXPECT_TRUE(seen);
}

// The names of a shell command's descriptors beyond the standard ones.
std::set<std::string> DescriptorsOfAChild() {
  std::set<std::string> names;
  FILE *child = popen("ls -l /proc/self/fd", "r");
  char line[512];
  while (child != nullptr && fgets(line, sizeof(line), child) != nullptr) {
    if (const char *arrow = strstr(line, " -> ")) {
      names.insert(arrow + 4);
    }
  }
  if (child != nullptr) {
    pclose(child);
  }
  return names;
}

TEST_F(SnmpSideTest, ChildrenInheritNothing) {
  auto sockets_and_pipes = [] {
    int count = 0;
    for (const std::string &name : DescriptorsOfAChild()) {
      count += name.starts_with("socket:") || name.starts_with("anon_inode:") ? 1 : 0;
    }
    return count;
  };
  int before = sockets_and_pipes();
  std::set<std::string> descriptors_before = DescriptorsOfAChild();
  Start();  // watches for a master
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(sockets_and_pipes(), before);
  {
    FakeMaster master(socket_);
    ASSERT_TRUE(master.AcceptAndRegister());
    EXPECT_EQ(sockets_and_pipes(), before);
    // Every descriptor that the libraries opened, the pipes included.
    EXPECT_LE(DescriptorsOfAChild().size(), descriptors_before.size());
  }
}

TEST_F(SnmpSideTest, NothingIsKeptOnDisk) {
  int before = FilesIn("/var/lib/snmp");
  StartWithMaster();
  EXPECT_TRUE(Stopped());
  EXPECT_EQ(FilesIn(persistent_), 0);
  EXPECT_EQ(FilesIn("/var/lib/snmp"), before);
}

TEST_F(SnmpSideTest, EnvironmentAndLocaleAreAsBefore) {
  setenv("MIBS", "SOME-MIB", 1);
  unsetenv("MIBDIRS");
  std::string locale = setlocale(LC_CTYPE, nullptr);
  Start();
  EXPECT_STREQ(getenv("MIBS"), "SOME-MIB");
  EXPECT_EQ(getenv("MIBDIRS"), nullptr);
  EXPECT_EQ(locale, setlocale(LC_CTYPE, nullptr));
  unsetenv("MIBS");
}

// ---- Configuration ----

TEST_F(SnmpSideTest, OwnTokens) {
  Configure("vexhostd.conf", "pollInterval 42\ncommunity secret\n");
  Configure("snmp.conf", "defCommunity other\n");
  Start();
  EXPECT_EQ(settings_.poll_interval, 42);
  EXPECT_EQ(settings_.community, "secret");
}

TEST_F(SnmpSideTest, PingIntervalAndTimeout) {
  SnmpSettings settings;
  AgentxSession::Settings session;
  ASSERT_NO_THROW(LoadSnmpConfiguration("vexhostd", &settings, &session));
  UnloadSnmp("vexhostd");
  EXPECT_EQ(session.ping_seconds, 15);
  EXPECT_EQ(session.timeout_seconds, 1);
  // The library refuses it, and what was there before stays.
  Configure("vexhostd.conf", "agentXPingInterval 0\n");
  ASSERT_NO_THROW(LoadSnmpConfiguration("vexhostd", &settings, &session));
  UnloadSnmp("vexhostd");
  EXPECT_EQ(session.ping_seconds, 15);
  Configure("vexhostd.conf", "agentXPingInterval 3\nagentXTimeout 300\n");
  ASSERT_NO_THROW(LoadSnmpConfiguration("vexhostd", &settings, &session));
  UnloadSnmp("vexhostd");
  EXPECT_EQ(session.ping_seconds, 3);
  EXPECT_EQ(session.timeout_seconds, 255);  // one octet in the Open PDU
}

// However few descriptors there are: it starts with all of its configuration, or says that it
// cannot.
TEST_F(SnmpSideTest, FewDescriptorsLoseNoConfiguration) {
  Configure("vexhostd.conf", "pollInterval 20\n");
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const int free_one = dup(0);
  close(free_one);
  int failures = 0;
  constexpr int kMost = 16;
  for (int more = 0; more < kMost; more++) {
    rlimit few = before;
    few.rlim_cur = static_cast<rlim_t>(free_one) + static_cast<rlim_t>(more);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    settings_ = {};
    const int result = SnmpStart("vexhostd", &settings_);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(SnmpFailed(), result != 0) << more;
    EXPECT_TRUE(result != 0 || settings_.poll_interval == 20) << more;
    failures += result != 0 ? 1 : 0;
    EXPECT_TRUE(Stopped());
  }
  EXPECT_GT(failures, 0);
  EXPECT_LT(failures, kMost);
}

TEST_F(SnmpSideTest, CommunityOfSnmpConf) {
  Configure("snmp.conf", "defCommunity other\n");
  Configure("snmpd.conf", "rocommunity third\n");
  Start();
  EXPECT_EQ(settings_.poll_interval, 0);
  EXPECT_EQ(settings_.community, "other");
}

TEST_F(SnmpSideTest, FirstReadCommunityOfSnmpdConf) {
  Configure("snmpd.conf",
            "sysLocation here\nno such token\n# rocommunity none\n"
            "com2sec -Cn ctx user default first\nrocommunity second 127.0.0.1\n");
  Start();
  EXPECT_EQ(settings_.community, "first");
}

TEST_F(SnmpSideTest, NoCommunityAtAllAndABadInterval) {
  Configure("vexhostd.conf", "pollInterval soon\npollInterval 0\npollInterval 5x\n");
  Start();
  EXPECT_EQ(settings_.community, "");
  EXPECT_EQ(settings_.poll_interval, 0);
}

// ---- Reads ----

TEST_F(SnmpSideTest, GetAnswersValuesAndExceptions) {
  StartWithMaster();
  PublishMisc();
  std::optional<AgentxPacket> answer = master_->Ask(master_->Get(
      {NameOf(kNumber), NameOf(kText), NameOf(kNumber, 1), {1, 3, 6, 1, 4, 1, 4891, 11, 250, 0}}));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Error(), 0);
  std::vector<Binding> bindings = answer->Bindings();
  ASSERT_EQ(bindings.size(), 4U);
  EXPECT_EQ(bindings[0].type, Binding::kInteger);
  EXPECT_EQ(bindings[0].integer, 15);
  EXPECT_EQ(bindings[1].octets, "hello");
  EXPECT_EQ(bindings[2].type, Binding::kNoSuchInstance);
  EXPECT_EQ(bindings[3].type, Binding::kNoSuchObject);
}

TEST_F(SnmpSideTest, GetNextStaysInItsRange) {
  StartWithMaster();
  PublishMisc();
  OidNumbers group(MibGroups()[0].oid, MibGroups()[0].oid + MibGroups()[0].oid_length);
  OidNumbers end = group;
  end.back()++;
  Binding first = First(master_->GetNext({group}, end));
  EXPECT_EQ(first.type, Binding::kInteger);
  EXPECT_EQ(first.name, NameOf(kNumber));
  EXPECT_EQ(First(master_->GetNext({NameOf(kNumber)}, end, true)).name, NameOf(kNumber));
  EXPECT_NE(First(master_->GetNext({NameOf(kNumber)}, end, false)).name, NameOf(kNumber));
  // The answer would be the end itself, or past it.
  Binding past = First(master_->GetNext({group}, NameOf(kNumber)));
  EXPECT_EQ(past.type, Binding::kEndOfMibView);
  EXPECT_EQ(past.name, group);
  EXPECT_EQ(First(master_->GetNext({NameOf(kText)}, end)).type, Binding::kEndOfMibView);
  // Without an end the next group follows.
  EXPECT_EQ(First(master_->GetNext({NameOf(kText)})).name, NameOf(kOther));
}

TEST_F(SnmpSideTest, GetBulkAnswersSeveralRowsAtOnce) {
  StartWithMaster();
  PublishMisc();
  for (uint32_t row = 1; row <= 3; row++) {
    std::shared_ptr<Image> image = MakeImage(10 + row, row, {kColumn});
    Store(image.get(), 0, std::string(row, 'r').c_str(), row + 1);
    SnmpPublish(image);
  }
  OidNumbers column(Mib(kColumn).Oid().begin(), Mib(kColumn).Oid().end());
  OidNumbers end = column;
  end.back()++;
  OidNumbers before = NameOf(kText);
  before.pop_back();
  std::optional<AgentxPacket> answer = master_->Ask(master_->GetBulk(1, 5, {before, column}, {}));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Error(), 0);
  std::vector<Binding> bindings = answer->Bindings();
  ASSERT_GE(bindings.size(), 4U);
  EXPECT_EQ(bindings[0].name, NameOf(kText));
  for (uint32_t row = 1; row <= 3; row++) {
    EXPECT_EQ(bindings[row].name, NameOf(kColumn, row));
    EXPECT_EQ(bindings[row].octets, std::string(row, 'r'));
  }
  // Within the range alone: the end is said once, after the last row.
  answer = master_->Ask(master_->GetBulk(0, 50, {column}, end));
  ASSERT_TRUE(answer);
  bindings = answer->Bindings();
  ASSERT_EQ(bindings.size(), 4U);
  EXPECT_EQ(bindings[2].name, NameOf(kColumn, 3));
  EXPECT_EQ(bindings[3].type, Binding::kEndOfMibView);
  EXPECT_EQ(bindings[3].name, NameOf(kColumn, 3));
  answer = master_->Ask(master_->GetBulk(0, 0, {column}, end));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Error(), 0);
  EXPECT_TRUE(answer->Bindings().empty());
}

TEST_F(SnmpSideTest, GetBulkOfTooManyIsCutShort) {
  StartWithMaster();
  for (uint32_t row = 1; row <= 1500; row++) {
    SnmpPublish(MakeImage(1000 + row, row, {kColumn}));
  }
  OidNumbers column(Mib(kColumn).Oid().begin(), Mib(kColumn).Oid().end());
  std::optional<AgentxPacket> answer = master_->Ask(master_->GetBulk(0, 65535, {column}));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Error(), 0);
  EXPECT_EQ(answer->Bindings().size(), 1000U);
  for (uint32_t row = 1; row <= 1500; row++) {
    SnmpWithdraw(1000 + row);
  }
}

TEST_F(SnmpSideTest, AnotherSessionOrContextIsNotServed) {
  StartWithMaster();
  PublishMisc();
  AgentxPacket request = master_->Get({NameOf(kText)});
  request.session += 1;
  EXPECT_EQ(AskFor(request), kNotOpen);
  AgentxPacket cleanup = master_->Phase(kCleanupSet, 7);  // the one that has no response
  cleanup.session += 1;
  master_->Send(cleanup);
  EXPECT_FALSE(master_->Receive(100));
  AgentxPacket elsewhere = master_->Get({NameOf(kText)});
  elsewhere.flags |= 0x08;
  elsewhere.payload.insert(0, std::string("\3\0\0\0ctx\0", 8));
  EXPECT_EQ(AskFor(elsewhere), kUnsupportedContext);
  EXPECT_EQ(ReadText(kText), "hello");
}

TEST_F(SnmpSideTest, ReadAfterPublishSeesTheNewValue) {
  StartWithMaster();
  PublishMisc();
  for (int32_t i = 0; i < 300; i++) {
    auto image = std::make_shared<Image>(*misc_);
    Store(image.get(), 0, &i, sizeof(i));
    SnmpPublish(image);
    ASSERT_EQ(First(master_->Get({NameOf(kNumber)})).integer, i);
  }
  SnmpWithdraw(1);
  EXPECT_EQ(First(master_->Get({NameOf(kNumber)})).type, Binding::kNoSuchInstance);
}

TEST_F(SnmpSideTest, AnswerTooBigForAPacketIsSaid) {
  StartWithMaster();
  auto image = MakeImage(1, 0, {kText});
  memset(image->data.data(), 'x', image->data.size() - 1);
  SnmpPublish(image);
  std::vector<OidNumbers> names(400, NameOf(kText));
  EXPECT_EQ(AskFor(master_->Get(names)), 1);  // tooBig
  EXPECT_EQ(ReadText(kText).size(), Mib(kText).max_length);
}

// ---- Notifications ----

Notification Numbered(uint32_t number) {
  Notification notification;
  notification.number = number;
  notification.description = "number " + std::to_string(number);
  return notification;
}

TEST_F(SnmpSideTest, NotificationCarriesVariablesThenDescription) {
  StartWithMaster();
  Notification notification = Numbered(11003);
  notification.variables.push_back({&Mib(kText), 0, {'h', 'i'}});
  notification.variables.push_back({&Mib(kColumn), 7, {'r', 'o', 'w'}});
  notification.variables.push_back({&Mib(kNumber), 0, {5, 0, 0, 0}});
  SnmpNotify(notification);
  std::optional<AgentxPacket> packet = master_->Receive();
  ASSERT_TRUE(packet);
  ASSERT_EQ(packet->type, kNotify);
  std::vector<Binding> bindings = packet->Bindings();
  ASSERT_EQ(bindings.size(), 5U);
  EXPECT_EQ(bindings[0].name, (OidNumbers{1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0}));
  OidNumbers trap(MibNotificationRoot().begin(), MibNotificationRoot().end());
  trap.push_back(11003);
  EXPECT_EQ(bindings[0].object_id, trap);
  EXPECT_EQ(bindings[1].name, NameOf(kText));
  EXPECT_EQ(bindings[1].octets, "hi");
  EXPECT_EQ(bindings[2].name, NameOf(kColumn, 7));
  EXPECT_EQ(bindings[3].integer, 5);
  EXPECT_EQ(bindings[4].name, NameOf(MibTrapDescription().name));
  EXPECT_EQ(bindings[4].octets, "number 11003");
}

// As a damaged file may have it.
TEST_F(SnmpSideTest, ANumberThatIsNoneGoesAsOctets) {
  StartWithMaster();
  Notification notification = Numbered(7);
  notification.variables.push_back({&Mib(kNumber), 0, {5, 0, 0}});
  SnmpNotify(notification);
  std::optional<AgentxPacket> packet = master_->Receive();
  ASSERT_TRUE(packet);
  ASSERT_EQ(packet->Bindings().size(), 3U);
  EXPECT_EQ(packet->Bindings()[1].type, Binding::kOctets);
  EXPECT_EQ(packet->Bindings()[1].octets, std::string("\5\0\0", 3));
}

TEST_F(SnmpSideTest, ANotificationTooLongForAPacketHoldsUpNoOther) {
  StartWithMaster();
  Notification notification = Numbered(1);
  notification.description = std::string(200000, 'x');
  SnmpNotify(std::move(notification));
  SnmpNotify(Numbered(2));
  std::optional<AgentxPacket> packet = master_->Receive();
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->Bindings().at(0).object_id.back(), 2U);
  master_->Answer(*packet);
  for (int i = 0; i < 3000 && !SnmpNothingWaiting(); i++) {
    std::this_thread::sleep_for(milliseconds(1));
  }
  EXPECT_TRUE(SnmpNothingWaiting());
}

// What the master has refused is answered for; that it refuses is said once, until it does not.
TEST_F(SnmpSideTest, ARefusedNotificationIsNotSentAgain) {
  constexpr int kGenErr = 5;
  StartWithMaster();
  testing::internal::CaptureStderr();
  uint32_t number = 0;
  for (const int error : {kGenErr, kGenErr, 0, kGenErr}) {
    SnmpNotify(Numbered(++number));
    std::optional<AgentxPacket> packet = master_->Receive();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->Bindings().at(0).object_id.back(), number);
    master_->Answer(*packet, error);
  }
  for (int i = 0; i < 3000 && !SnmpNothingWaiting(); i++) {
    std::this_thread::sleep_for(milliseconds(1));
  }
  // Behind the last answer.
  EXPECT_TRUE(master_->Ask(master_->Get({NameOf(kNumber)})));
  EXPECT_TRUE(SnmpNothingWaiting());
  const std::string line = "The master agent refuses notifications (error 5)\n";
  std::string log;
  for (int i = 0; i < 3000; i++) {
    log += testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    if (log.find(line, log.find(line) + 1) != log.npos) {
      break;
    }
    std::this_thread::sleep_for(milliseconds(1));
  }
  testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find(line), log.npos) << log;
  EXPECT_NE(log.find(line), log.rfind(line)) << log;
  EXPECT_EQ(log.find(line, log.find(line) + 1), log.rfind(line)) << log;
}

// A master that has forgotten the session has not taken it.
TEST_F(SnmpSideTest, ANotificationForAForgottenSessionIsSentAgain) {
  StartWithMaster();
  SnmpNotify(Numbered(1));
  std::optional<AgentxPacket> packet = master_->Receive();
  ASSERT_TRUE(packet);
  master_->Answer(*packet, kNotOpen);
  ASSERT_TRUE(master_->HungUp(10000));
  ASSERT_TRUE(master_->AcceptAndRegister());
  packet = master_->Receive();
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->Bindings().at(0).object_id.back(), 1U);
  master_->Answer(*packet);
}

TEST_F(SnmpSideTest, NotificationsWaitForTheMaster) {
  Start();
  const auto wait_for_up = [](bool up) {
    for (int i = 0; i < 10000 && SnmpUp() != up; i++) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    return SnmpUp() == up;
  };
  for (const bool has_had_one : {false, true}) {
    if (has_had_one) {
      ASSERT_TRUE(wait_for_up(true));
      master_.reset();
      ASSERT_TRUE(wait_for_up(false));
    }
    for (uint32_t i = 1; i <= 300; i++) {
      SnmpNotify(Numbered(i));
    }
    master_ = std::make_unique<FakeMaster>(socket_);
    ASSERT_TRUE(master_->AcceptAndRegister());
    for (uint32_t i = 45; i <= 300; i++) {
      std::optional<AgentxPacket> packet = master_->Receive();
      ASSERT_TRUE(packet) << i;
      ASSERT_EQ(packet->Bindings().at(0).object_id.back(), i);
      master_->Answer(*packet);
    }
    EXPECT_FALSE(master_->Receive(50));
  }
}

TEST_F(SnmpSideTest, FloodOfNotificationsNeverHasMoreThanSixteenUnderWay) {
  StartWithMaster();
  PublishMisc();
  constexpr uint32_t kFlood = 1000;
  for (uint32_t i = 1; i <= kFlood; i++) {
    SnmpNotify(Numbered(i));
  }
  std::vector<AgentxPacket> unanswered;
  while (std::optional<AgentxPacket> packet = master_->Receive(100)) {
    unanswered.push_back(*packet);
  }
  EXPECT_EQ(unanswered.size(), 16U);
  EXPECT_EQ(ReadText(kText), "hello");  // reads go on
  uint32_t got = 16;
  for (const AgentxPacket &packet : unanswered) {
    master_->Answer(packet);
  }
  while (got < kFlood) {
    std::optional<AgentxPacket> packet = master_->Receive();
    ASSERT_TRUE(packet) << got;
    got++;
    EXPECT_EQ(packet->Bindings().at(0).object_id.back(), got);
    master_->Answer(*packet);
  }
}

TEST_F(SnmpSideTest, UnansweredNotificationsAreSentAgain) {
  StartWithMaster();
  for (uint32_t i = 1; i <= 3; i++) {
    SnmpNotify(Numbered(i));
  }
  std::optional<AgentxPacket> first = master_->Receive();
  ASSERT_TRUE(first);
  master_->Answer(*first);
  ASSERT_TRUE(master_->Receive());
  ASSERT_TRUE(master_->Receive());
  // So that the answer is seen before the end.
  ASSERT_TRUE(master_->Ask(master_->Get({NameOf(kText)})));
  master_->Disconnect();
  SnmpNotify(Numbered(4));
  ASSERT_TRUE(master_->AcceptAndRegister());
  for (uint32_t i = 2; i <= 4; i++) {
    std::optional<AgentxPacket> packet = master_->Receive();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->Bindings().at(0).object_id.back(), i);
  }
}

// One group's refusal holds back neither the other's values nor what is to be notified.
TEST_F(SnmpSideTest, NotifiesWhileAGroupIsRefused) {
  master_ = std::make_unique<FakeMaster>(socket_);
  Start();
  PublishMisc();
  ASSERT_TRUE(master_->Accept(10000));
  std::optional<AgentxPacket> open = master_->Receive();
  ASSERT_TRUE(open);
  open->session = master_->Session();
  master_->Answer(*open);
  std::optional<AgentxPacket> first = master_->Receive();
  std::optional<AgentxPacket> second = master_->Receive();
  ASSERT_TRUE(first && second);
  master_->Answer(*first);
  master_->Answer(*second, kDuplicateRegistration);
  SnmpNotify(Numbered(7));
  std::optional<AgentxPacket> packet;
  while ((packet = master_->Receive(1000)) && packet->type != kNotify) {
    master_->Answer(*packet, kDuplicateRegistration);
  }
  ASSERT_TRUE(packet) << "no notification came";
  EXPECT_EQ(packet->Bindings().at(0).object_id.back(), 7U);
  EXPECT_EQ(ReadText(kText), "hello");
}

// More than may be under way at once.
TEST_F(SnmpSideTest, NotificationsBeforeTheEndStillGoOut) {
  StartWithMaster();
  constexpr uint32_t kMany = 100;
  for (uint32_t i = 1; i <= kMany; i++) {
    SnmpNotify(Numbered(i));
  }
  std::thread stopping(SnmpStop);
  uint32_t got = 0;
  std::optional<AgentxPacket> packet;
  while ((packet = master_->Receive(1000)) && packet->type == kNotify) {
    got++;
    master_->Answer(*packet);
  }
  EXPECT_EQ(got, kMany);
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->type, kClose);
  master_->Answer(*packet);
  stopping.join();
}

// ---- Sets ----

TEST_F(SnmpSideTest, SetIsCheckedAppliedAndReadable) {
  StartWithMaster();
  PublishMisc();
  set_handler = [this](uint8_t phase, SetItem &item) {
    EXPECT_EQ(item.object_id, 1U);
    EXPECT_EQ(item.slot, 2);
    EXPECT_EQ(item.length, 3);
    EXPECT_STREQ(reinterpret_cast<const char *>(item.value.data()), "new");
    if (phase != SET_CHECK) {
      auto image = std::make_shared<Image>(*misc_);
      Store(image.get(), 2, "new", 4);
      SnmpPublish(image);
    }
    return 0;
  };
  StartAgent();
  EXPECT_EQ(AskFor(master_->TestSet(5, {TextBinding(kText, "new")})), 0);
  EXPECT_EQ(set_applies, 0);
  EXPECT_EQ(AskFor(master_->Phase(kCommitSet, 5)), 0);
  EXPECT_EQ(ReadText(kText), "new");
  master_->Send(master_->Phase(kCleanupSet, 5));
  EXPECT_EQ(set_checks, 1);
  EXPECT_EQ(set_applies, 1);
}

TEST_F(SnmpSideTest, SetsRefusedByTheTableAlone) {
  StartWithMaster();
  PublishMisc();
  // No agent thread serves: none of these waits for it.
  struct {
    Binding binding;
    int error;
  } cases[] = {
      {NumberBinding(kReadOnly, 5), kNotWritable},
      {TextBinding(kReadOnly, "x"), kNotWritable},
      {TextBinding(kNumber, "5"), kWrongType},
      {NumberBinding(kText, 5), kWrongType},
      {TextBinding(kText, std::string(Mib(kText).max_length + 1U, 'x')), kWrongLength},
      {TextBinding(kText, std::string("a\0b", 3)), kWrongValue},
      {TextBinding(kText, std::string(1, '\0')), kWrongValue},
      {TextBinding(kText, "x", 1), kNoCreation},
      {TextBinding(kColumn, "x", 3), kNoCreation},
      {TextBinding(kColumn, std::string(300, 'x'), 3), kWrongLength},
      {NumberBinding(kColumn, 3), kWrongType},
  };
  Binding unknown = NumberBinding(kNumber, 1);
  unknown.name = {1, 3, 6, 1, 4, 1, 4891, 11, 250, 0};
  uint32_t transaction = 100;
  for (const auto &c : cases) {
    EXPECT_EQ(AskFor(master_->TestSet(transaction, {c.binding})), c.error) << transaction;
    master_->Send(master_->Phase(kCleanupSet, transaction++));
  }
  EXPECT_EQ(AskFor(master_->TestSet(transaction, {unknown})), kNotWritable);
  // The index of the variable that is wrong.
  std::optional<AgentxPacket> answer =
      master_->Ask(master_->TestSet(99, {TextBinding(kText, "ok"), NumberBinding(kReadOnly, 1)}));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Error(), kNotWritable);
  EXPECT_EQ(answer->ErrorIndex(), 2);
  EXPECT_EQ(set_checks, 0);
}

TEST_F(SnmpSideTest, DisabledSetsAreNotWritable) {
  StartWithMaster();
  PublishMisc();
  SnmpEnableSets(false);
  EXPECT_EQ(AskFor(master_->TestSet(5, {TextBinding(kText, "new")})), kNotWritable);
  EXPECT_EQ(AskFor(master_->TestSet(6, {NumberBinding(kText, 1)})), kNotWritable);
}

// An object may define a variable read-only that the MIB lets be written.
TEST_F(SnmpSideTest, ReadOnlyInTheObjectIsNotWritable) {
  StartWithMaster();
  PublishMisc();
  auto layout = std::make_shared<Layout>(*misc_->layout);
  layout->variables[2].writable = false;
  auto image = std::make_shared<Image>(*misc_);
  image->layout = layout;
  SnmpPublish(image);
  EXPECT_EQ(AskFor(master_->TestSet(5, {TextBinding(kText, "new")})), kNotWritable);
}

TEST_F(SnmpSideTest, RefusedByTheHandler) {
  StartWithMaster();
  PublishMisc();
  set_handler = [](uint8_t, SetItem &item) { return item.slot == 0 ? -1 : 0; };
  StartAgent();
  std::optional<AgentxPacket> answer =
      master_->Ask(master_->TestSet(5, {TextBinding(kText, "x"), NumberBinding(kNumber, 1)}));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Error(), kWrongValue);
  EXPECT_EQ(answer->ErrorIndex(), 2);
  master_->Send(master_->Phase(kCleanupSet, 5));
  EXPECT_EQ(set_applies, 0);
}

TEST_F(SnmpSideTest, FailedApplyIsCommitFailed) {
  StartWithMaster();
  PublishMisc();
  set_handler = [](uint8_t phase, SetItem &) { return phase == SET_CHECK ? 0 : -1; };
  StartAgent();
  EXPECT_EQ(AskFor(master_->TestSet(5, {TextBinding(kText, "x")})), 0);
  EXPECT_EQ(AskFor(master_->Phase(kCommitSet, 5)), kCommitFailed);
  // An undo that could not be done would hide the reason.
  EXPECT_EQ(AskFor(master_->Phase(kUndoSet, 5)), 0);
}

// The master takes back each set that failed; a manager may try many in a row.
TEST_F(SnmpSideTest, ManyFailedSetsInARow) {
  StartWithMaster();
  PublishMisc();
  set_handler = [](uint8_t phase, SetItem &) { return phase == SET_CHECK ? 0 : -1; };
  StartAgent();
  for (uint32_t transaction = 1; transaction <= 50; transaction++) {
    ASSERT_EQ(AskFor(master_->TestSet(transaction, {TextBinding(kText, "x")})), 0) << transaction;
    ASSERT_EQ(AskFor(master_->Phase(kCommitSet, transaction)), kCommitFailed);
    ASSERT_EQ(AskFor(master_->Phase(kUndoSet, transaction)), 0);
  }
}

TEST_F(SnmpSideTest, UndoOfAnAppliedSetFails) {
  StartWithMaster();
  PublishMisc();
  StartAgent();
  EXPECT_EQ(AskFor(master_->TestSet(5, {TextBinding(kText, "x")})), 0);
  EXPECT_EQ(AskFor(master_->Phase(kCommitSet, 5)), 0);
  EXPECT_EQ(AskFor(master_->Phase(kUndoSet, 5)), kUndoFailed);
}

TEST_F(SnmpSideTest, BusyAgentIsResourceUnavailableInTimeAndNeverApplied) {
  StartWithMaster();
  PublishMisc();
  auto start = steady_clock::now();
  EXPECT_EQ(AskFor(master_->TestSet(5, {TextBinding(kText, "x")})), kResourceUnavailable);
  auto took = steady_clock::now() - start;
  EXPECT_GE(took, milliseconds(690));
  EXPECT_LT(took, milliseconds(5000));
  // Even if the master went on.
  StartAgent();
  EXPECT_EQ(AskFor(master_->Phase(kCommitSet, 5)), kCommitFailed);
  StopAgent();
  EXPECT_EQ(set_checks, 0);
  EXPECT_EQ(set_applies, 0);
}

TEST_F(SnmpSideTest, ReadsAreAnsweredWhileASetWaits) {
  StartWithMaster();
  PublishMisc();
  const AgentxPacket set = master_->TestSet(5, {TextBinding(kText, "x")});
  master_->Send(set);
  const AgentxPacket get = master_->Get({NameOf(kText)});
  master_->Send(get);
  for (const AgentxPacket &asked : {get, set}) {
    const std::optional<AgentxPacket> answer = master_->Receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->packet, asked.packet);
  }
}

// The master asks again after a second; by then it has its answer, but a packet may cross it.
TEST_F(SnmpSideTest, RepeatedPhasesAreRecognised) {
  StartWithMaster();
  PublishMisc();
  set_handler = [](uint8_t phase, SetItem &) {
    if (phase == SET_CHECK) {
      std::this_thread::sleep_for(milliseconds(100));
    }
    return 0;
  };
  StartAgent();
  AgentxPacket test = master_->TestSet(5, {TextBinding(kText, "x")});
  master_->Send(test);
  EXPECT_EQ(AskFor(test), 0);  // while the first one is on its way
  EXPECT_EQ(AskFor(test), 0);  // after its answer
  AgentxPacket commit = master_->Phase(kCommitSet, 5);
  EXPECT_EQ(AskFor(commit), 0);
  EXPECT_EQ(AskFor(commit), 0);
  EXPECT_EQ(set_checks, 1);
  EXPECT_EQ(set_applies, 1);
}

TEST_F(SnmpSideTest, BothSubtreesInOneRequest) {
  StartWithMaster();
  PublishMisc();
  std::vector<std::string> order;
  set_handler = [&order](uint8_t phase, SetItem &item) {
    order.push_back((phase == SET_CHECK ? "check " : "apply ") + std::to_string(item.object_id));
    return 0;
  };
  StartAgent();
  AgentxPacket first = master_->TestSet(5, {TextBinding(kOther, "a")});
  AgentxPacket second = master_->TestSet(5, {TextBinding(kText, "b")});
  master_->Send(first);
  EXPECT_EQ(AskFor(second), 0);
  AgentxPacket commit_first = master_->Phase(kCommitSet, 5);
  AgentxPacket commit_second = master_->Phase(kCommitSet, 5);
  master_->Send(commit_first);
  EXPECT_EQ(AskFor(commit_second), 0);
  StopAgent();
  EXPECT_EQ(order, (std::vector<std::string>{"check 2", "check 1", "apply 2", "apply 1"}));
}

TEST_F(SnmpSideTest, RefusalOfOnePartIsTheRequestsError) {
  StartWithMaster();
  PublishMisc();
  // The first part waits for a busy agent when the second is refused by the table.
  AgentxPacket first = master_->TestSet(5, {TextBinding(kOther, "a")});
  AgentxPacket second = master_->TestSet(5, {NumberBinding(kReadOnly, 1)});
  master_->Send(first);
  EXPECT_EQ(AskFor(second), kNotWritable);
  std::optional<AgentxPacket> answer = master_->Receive();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->packet, first.packet);
  EXPECT_EQ(answer->Error(), 0);
  EXPECT_EQ(AskFor(master_->Phase(kCommitSet, 5)), kCommitFailed);
  StartAgent();
  std::this_thread::sleep_for(milliseconds(30));
  EXPECT_EQ(set_applies, 0);
}

TEST_F(SnmpSideTest, LostSessionReleasesTheAgent) {
  StartWithMaster();
  PublishMisc();
  std::atomic<bool> back{false};
  EXPECT_EQ(set_checks, 0);
  agent_ = std::thread([&back] {
    pollfd entry = {SetChannelFd(), POLLIN, 0};
    poll(&entry, 1, 3000);
    ServeSets(RunOneSet);
    back = true;
  });
  EXPECT_EQ(AskFor(master_->TestSet(5, {TextBinding(kText, "x")})), 0);
  EXPECT_FALSE(back);
  auto start = steady_clock::now();
  master_->Disconnect();
  agent_.join();
  EXPECT_LT(steady_clock::now() - start, milliseconds(500));
  EXPECT_EQ(set_applies, 0);
}

TEST_F(SnmpSideTest, CommitOfAnUnknownTransactionFails) {
  StartWithMaster();
  EXPECT_EQ(AskFor(master_->Phase(kCommitSet, 77)), kCommitFailed);
  EXPECT_EQ(AskFor(master_->Phase(kUndoSet, 77)), 0);
}

// ---- The rest ----

std::atomic<int> ticks;

TEST_F(SnmpSideTest, TicksWithOrWithoutAMaster) {
  ticks = 0;
  SnmpSetTick([] { ticks++; }, 20);
  Start();
  const auto start = steady_clock::now();
  for (int i = 0; i < 10000 && ticks < 10; i++) {
    std::this_thread::sleep_for(milliseconds(1));
  }
  SnmpSetTick(nullptr, 0);
  EXPECT_GE(ticks, 10);
  EXPECT_LE(ticks, 2 + (steady_clock::now() - start) / milliseconds(20));
}

TEST_F(SnmpSideTest, PublishingDoesNotWaitForTheThread) {
  master_ = std::make_unique<FakeMaster>(socket_);
  Start();
  misc_ = MakeImage(1, 0, {kText});
  auto start = steady_clock::now();
  constexpr int kTimes = 20000;
  for (int i = 0; i < kTimes; i++) {
    SnmpPublish(misc_);
  }
  EXPECT_LT(steady_clock::now() - start, milliseconds(5000));
}

TEST_F(SnmpSideTest, QueryOfAPortNobodyListensOnFailsAtOnce) {
  Start();
  auto start = steady_clock::now();
  auto ask = [](const char *address, const char *oid) {
    return SnmpQueryInteger(address, "public", oid, milliseconds(10000)).end;
  };
  // An address of the loopback network that no test listens on.
  EXPECT_EQ(ask("127.200.3.4", "1.3.6.1.2.1.1.7.0"), QueryEnd::kRefused);
  EXPECT_LT(steady_clock::now() - start, milliseconds(5000));
  EXPECT_EQ(ask("127.0.0.1", "nonsense"), QueryEnd::kNotAsked);
  EXPECT_EQ(ask("not an address", "1.3.6"), QueryEnd::kNotAsked);
  EXPECT_TRUE(Stopped());
  EXPECT_EQ(ask("127.0.0.1", "1.3.6"), QueryEnd::kNotAsked);
}

}  // namespace
}  // namespace vex
