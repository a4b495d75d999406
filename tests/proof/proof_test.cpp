// The daemon over many kills and restarts of either side. Each test prints its figures; VEX_ROUNDS
// says how many (100).
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <map>
#include <random>

#include "platform/framework.h"
#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

constexpr char kSocket[] = "/var/agentx/master";
constexpr char kKept[] = REGISTRY_ROOT "/vexhostd.traps";

int Rounds() {
  const char *text = getenv("VEX_ROUNDS");
  return text != nullptr ? atoi(text) : 100;
}

// 0 while there is none.
ino_t SocketNumber() {
  struct stat status;
  return stat(kSocket, &status) == 0 ? status.st_ino : 0;
}

// How often each notification has arrived, by the name that it carries and its description.
std::map<std::string, int> Arrived(const MadeUpHost &host) {
  std::map<std::string, int> arrived;
  for (const Trap &trap : host.traps.Received()) {
    arrived[trap.variables.front() + " " + trap.variables.back()]++;
  }
  return arrived;
}

struct Delivered {
  size_t once = 0;
  size_t more = 0;  // than once
};

// Ten more, of which the agent has heard that they were taken before anything is killed again.
void SendUndisturbed(MadeUpHost &host, int round) {
  ASSERT_TRUE(host.Order("name undisturbed " + std::to_string(round) + "\ntrap 10\n"));
  host.SetOrders("");
  // After a poll what the master has not is in the file.
  ASSERT_TRUE(Eventually([&] { return host.daemon.Poll() && access(kKept, F_OK) != 0; })) << round;
}

// Ten were sent in each round, and ten undisturbed ones in each second one. What the master had
// taken, and the other side had not heard of when one of them was killed, is sent again, and
// nothing else is.
void ExpectAllArrived(const MadeUpHost &host, int rounds, const char *killed) {
  const size_t count = static_cast<size_t>(rounds) * 10;
  const size_t undisturbed_count = static_cast<size_t>((rounds + 1) / 2) * 10;
  Eventually([&] { return Arrived(host).size() >= count + undisturbed_count; }, 30);
  Pause(1);
  Delivered disturbed;
  Delivered undisturbed;
  for (const auto &[trap, times] : Arrived(host)) {
    Delivered &delivered =
        trap.find("\"undisturbed ") != std::string::npos ? undisturbed : disturbed;
    (times == 1 ? delivered.once : delivered.more)++;
  }
  printf(
      "%zu notifications over %d kills of %s: %zu arrived once, %zu more than once; %zu between "
      "them: "
      "%zu once, %zu more than once\n",
      count, rounds, killed, disturbed.once, disturbed.more, undisturbed_count, undisturbed.once,
      undisturbed.more);
  EXPECT_EQ(disturbed.once + disturbed.more, count);
  EXPECT_EQ(undisturbed.once, undisturbed_count);
  EXPECT_EQ(undisturbed.more, 0U);
}

}  // namespace

TEST(Reconnection, AHundredRestarts) {
  MadeUpHost host;
  host.Start();
  const std::string oid = MadeUpHost::Oid("tlxHoPhysicalMemorySize");
  std::mt19937 random(1);
  std::vector<double> seconds;
  const int rounds = Rounds();
  for (int round = 0; round < rounds; round++) {
    const ino_t before = SocketNumber();
    host.snmpd.Kill();
    // At any phase of whatever the agent does while there is none.
    Pause(std::uniform_real_distribution<double>(0, 1)(random));
    auto start = std::async(std::launch::async, [&] { host.snmpd.Start(); });
    ASSERT_TRUE(Eventually([&] { return SocketNumber() != 0 && SocketNumber() != before; }));
    const double back = Now();
    std::optional<Answer> answer;
    do {
      answer = QuickGet(oid, 0.01);
    } while (Now() - back < 10 && !(answer && answer->error == 0 && answer->tag == 2));
    seconds.push_back(Now() - back);
    start.get();
    ASSERT_FALSE(testing::Test::HasFatalFailure());
  }
  printf(
      "%d restarts: first answer after the socket was back: median %.3f s, p99 %.3f s, longest "
      "%.3f s\n",
      rounds, Percentile(seconds, 50), Percentile(seconds, 99), Percentile(seconds, 100));
  EXPECT_LE(Percentile(seconds, 99), 0.25);
}

TEST(TrapDelivery, OverKillsOfTheMaster) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  std::mt19937 random(1);
  const int rounds = Rounds();
  size_t due = 0;
  for (int round = 0; round < rounds; round++) {
    if (round % 2 == 0) {
      ASSERT_NO_FATAL_FAILURE(SendUndisturbed(host, round));
      due += 10;
    }
    host.snmpd.Kill();
    ASSERT_TRUE(host.Order("name round " + std::to_string(round) + "\ntrap 10\n"));
    host.snmpd.Start();
    // What the master has taken it hands on before it is killed again.
    due += 10;
    ASSERT_TRUE(Eventually([&] { return Arrived(host).size() >= due; })) << round;
  }
  ExpectAllArrived(host, rounds, "snmpd");
}

TEST(TrapDelivery, OverKillsOfTheAgent) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  const int rounds = Rounds();
  for (int round = 0; round < rounds; round++) {
    if (round % 2 == 0) {
      ASSERT_NO_FATAL_FAILURE(SendUndisturbed(host, round));
    }
    ASSERT_TRUE(host.Order("name round " + std::to_string(round) + "\ntrap 10\n"));
    host.SetOrders("");
    // From the end of a poll on nothing is lost: the master has it, or the file.
    ASSERT_TRUE(host.daemon.Poll());
    EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
    host.StartTestAgent({"plain"}, false);
  }
  ExpectAllArrived(host, rounds, "the agent");
}

TEST(TrapDelivery, OverKillsOfTheSnmpProcess) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  std::mt19937 random(1);
  const int rounds = Rounds();
  for (int round = 0; round < rounds; round++) {
    if (round % 2 == 0) {
      ASSERT_NO_FATAL_FAILURE(SendUndisturbed(host, round));
    }
    const pid_t process = SnmpProcessOf(host.daemon.pid());
    ASSERT_GT(process, 0) << round;
    // Before, while and after they are sent, and at the moment when the first one has arrived.
    const size_t before = host.traps.Received().size();
    const bool at_the_first = round % 2 == 0;
    const double pause = std::uniform_real_distribution(0.0, 0.02)(random);
    auto kills = std::async(std::launch::async, [&] {
      const double until = Now() + 10;
      while (at_the_first && host.traps.Received().size() == before && Now() < until) {
      }
      Pause(at_the_first ? 0 : pause);
      return kill(process, SIGKILL);
    });
    ASSERT_TRUE(host.Order("name round " + std::to_string(round) + "\ntrap 10\n"));
    EXPECT_EQ(kills.get(), 0);
    // The next one, which has a session.
    ASSERT_TRUE(Eventually([&] {
      const pid_t next = SnmpProcessOf(host.daemon.pid());
      return next > 0 && next != process;
    }));
    ASSERT_TRUE(host.daemon.WaitServed());
  }
  ExpectAllArrived(host, rounds, "the SNMP process");
}

// Random sets, one at a time, while the agent is busy with a poll, the SNMP process is killed and
// snmpd starts anew; against what their manager was told.
TEST(SetsOverKills, AreAppliedAsTheirManagerWasTold) {
  struct Told {
    std::string answer;
    bool refused = false;    // one of its values is
    bool disturbed = false;  // by the end of the SNMP process or of snmpd
    size_t applied = 0;      // when it was told, and a moment more had gone
  };
  MadeUpHost host;
  host.StartTestAgent();
  std::mt19937 random(1);
  const auto chance = [&](int percent) {
    return std::uniform_int_distribution<int>(1, 100)(random) <= percent;
  };
  const auto applied = [&](const char *what, int number) {
    return host.daemon.Count(std::string(what) + " apply " + (*what == 'r' ? "'r" : "") +
                             std::to_string(number) + (*what == 'r' ? "'" : " "));
  };
  const int sets = Rounds() * 10;
  std::map<int, Told> told;
  int disturbed[3] = {};
  for (int number = 1000; number < 1000 + sets; number++) {
    std::future<void> disturbance;
    const double pause = std::uniform_real_distribution<double>(0, 0.03)(random);
    if (chance(10)) {
      disturbed[0]++;
      disturbance = std::async(std::launch::async, [&, pause] {
        Pause(pause);
        const pid_t process = SnmpProcessOf(host.daemon.pid());
        if (process > 0) {
          kill(process, SIGKILL);
        }
      });
    } else if (chance(4)) {
      disturbed[1]++;
      disturbance = std::async(std::launch::async, [&, pause] {
        Pause(pause);
        host.snmpd.Kill();
        host.snmpd.Start();
      });
    } else if (chance(6)) {
      // Beyond a set's deadline, or not quite.
      disturbed[2]++;
      host.SetOrders("wait " + std::to_string(0.6 + 10 * pause) + "\n");
      host.daemon.BeginPoll();
    }
    Told now;
    now.refused = chance(10);
    now.answer =
        host.Set({{"tlxHoOsCommonPollFreq", 'i', std::to_string(number)},
                  {"tlxHoSystemRole", 's', now.refused ? "" : "r" + std::to_string(number)}});
    if (disturbance.valid()) {
      now.disturbed = true;
      disturbance.get();
      ASSERT_TRUE(host.daemon.WaitServed());
    }
    if (now.answer != "noError") {
      Pause(0.05);
      now.applied = applied("number", number) + applied("role", number);
    }
    told[number] = now;
    host.SetOrders("");
    ASSERT_FALSE(testing::Test::HasFatalFailure());
  }
  Pause(2);
  std::map<std::string, int> answers;
  int although[2] =
      {};  // told to have failed and applied, in part or whole: undisturbed, disturbed
  int halves = 0;
  for (const auto &[number, one] : told) {
    const size_t numbers = applied("number", number);
    const size_t roles = applied("role", number);
    answers[one.answer]++;
    EXPECT_LE(numbers, 1U) << "twice: " << number;
    EXPECT_LE(roles, numbers) << "twice, or not in order: " << number;
    if (one.answer == "noError") {
      EXPECT_EQ(numbers + roles, 2U) << "half: " << number;
      EXPECT_FALSE(one.refused) << number;
    } else {
      EXPECT_EQ(numbers + roles, one.applied) << "late: " << number << " " << one.answer;
      EXPECT_TRUE(!one.refused || numbers == 0) << "refused: " << number;
      although[one.disturbed ? 1 : 0] += numbers + roles != 0 ? 1 : 0;
      halves += numbers + roles == 1 ? 1 : 0;
    }
  }
  printf("%d sets over %d ends of the SNMP process, %d of snmpd and %d polls that take long:", sets,
         disturbed[0], disturbed[1], disturbed[2]);
  for (const auto &[answer, count] : answers) {
    printf(" %d %s", count, answer.c_str());
  }
  printf(
      "; of those told to have failed %d were applied by then, of which %d in part; %d without a "
      "kill\n",
      although[0] + although[1], halves, although[0]);
  // A master that is not given a processor for a third of a second gives a set up that is applied.
  EXPECT_LE(although[0], sets / 100);
  EXPECT_GT(answers["noError"], sets / 2);
}
