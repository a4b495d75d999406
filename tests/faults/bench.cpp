#include "tests/faults/bench.h"

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <set>

using namespace made_up;

namespace faults {

namespace {

constexpr char kRole[] = "mail relay";
constexpr char kDetail[] = "rack 7, slot 3";
constexpr char kGuid[] = "kept by the fil\x81";  // 16 octets, not all of which are text
constexpr int kPolls = 3;

std::string RegistryFile(const std::string &name) {
  return std::string(MadeUpHost::kRegistry) + "/" + name;
}

std::string Hex(const std::string &bytes) {
  std::string text;
  for (const char byte : bytes) {
    char code[4];
    snprintf(code, sizeof(code), "%02X", static_cast<unsigned char>(byte));
    text += code;
  }
  return text;
}

// As snmpget prints octets.
std::string SpacedHex(const std::string &bytes) {
  std::string text = "Hex-STRING:";
  for (const char byte : bytes) {
    char code[8];
    snprintf(code, sizeof(code), " %02X", static_cast<unsigned char>(byte));
    text += code;
  }
  return text;
}

}  // namespace

const char *NameOf(Phase phase) {
  switch (phase) {
    case Phase::kStart:
      return "start";
    case Phase::kStartUuid:
      return "start-uuid";
    case Phase::kPoll:
      return "poll";
    case Phase::kRequests:
      return "requests";
  }
  return "?";
}

const char *NameOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::kNotReached:
      return "not reached";
    case Outcome::kNoEffect:
      return "no effect";
    case Outcome::kHealed:
      return "healed";
    case Outcome::kRefused:
      return "refused";
    case Outcome::kByRule:
      return "by rule";
    case Outcome::kEnded:
      return "ended";
    case Outcome::kWrong:
      return "wrong";
  }
  return "?";
}

// What a manager sets in a round, and where it must be found.
struct Bench::Asked {
  std::string variable;
  char type;
  std::string value;   // for snmpset
  std::string served;  // as snmpget prints it
  std::string file;    // that keeps it; "" when none does
  std::string content;
};

Bench::Bench(Phase phase)
    : phase_(phase),
      golden_(phase == Phase::kStartUuid),
      ticks_{
          {1000, 50, 500, 8500}, {2000, 0, 1000, 7000}, {0, 0, 0, 10000}, {5000, 4000, 5000, 0}} {
  rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  files_ = {{RegistryFile("tlxhosystemrole.dat"), kRole},
            {RegistryFile("tlxhosystemroledetail.dat"), kDetail}};
  if (phase != Phase::kStartUuid) {
    files_[RegistryFile("tlxhoguid.dat")] = kGuid;
  }
  for (const auto &[path, content] : files_) {
    host().File(path, content, 0600);
  }
  // A directory with a long name has another row after each poll, by rule: whether it is this or
  // that one says nothing.
  const std::string mounts = ReadFile("/etc/mtab");
  std::string without;
  for (const std::string &line : Lines(mounts)) {
    if (!line.starts_with("/dev/sdc1 ")) {
      without += line + "\n";
    }
  }
  host().File("/etc/mtab", without);
  golden_.StartMaster();
}

Bench::~Bench() {
  KillAgent();
  injector_.Detach();
}

// ---- The agent ----------------------------------------------------------------------------------

// The golden server's /proc has links for processes to come, all of which the agent looks at. As
// few as possible: every look is a call that we are asked about.
void Bench::RenewProc() {
  const std::string real = std::string(MadeUpHost::kDirectory) + "/real-proc/";
  const std::string load = ReadFile(real + "loadavg");
  const int last = atoi(load.c_str() + load.rfind(' ') + 1);
  constexpr int kToCome = 200;
  std::set<std::string> wanted;
  for (const std::string &name : ListDirectory(real)) {
    if (name.find_first_not_of("0123456789") == std::string::npos) {
      wanted.insert(name);
    }
  }
  for (int pid = last + 1; pid <= last + kToCome; pid++) {
    wanted.insert(std::to_string(pid));
  }
  for (const std::string &name : ListDirectory("/proc")) {
    if (name.find_first_not_of("0123456789") == std::string::npos && wanted.erase(name) == 0) {
      unlink(("/proc/" + name).c_str());
    }
  }
  for (const std::string &name : wanted) {
    EXPECT_EQ(symlink((real + name).c_str(), ("/proc/" + name).c_str()), 0) << name;
  }
}

void Bench::PutFacts(bool other) {
  other_ = other;
  RenewProc();
  host().Proc("meminfo", GoldenMemory(7900, other ? 4321 : 5000, 2047, other ? 1999 : 2000));
  golden_.Put("health/ftps", {other ? 3 : 2, 0});
  golden_.Put("ida/misc", {3, 4, other ? 4 : 2});
  golden_.PutPackages(other ? "1:1.1" : "1:1.0", changed_ += 1000);
  golden_.Mount(0).SetFree(other ? 900'000 : 1'000'001);
}

bool Bench::Poll() {
  // The same mixture of work each time, so that every average is the same.
  ticks_[0] = {ticks_[0].user + 20, ticks_[0].nice, ticks_[0].system, ticks_[0].idle + 80};
  ticks_[1] = {ticks_[1].user, ticks_[1].nice, ticks_[1].system + 50, ticks_[1].idle + 50};
  ticks_[2].idle += 100;
  ticks_[3].user += 100;
  host().Proc("stat", GoldenStat(ticks_));
  return host().daemon.Poll(patience_);
}

std::string Bench::AwaitStart() {
  Daemon &daemon = host().daemon;
  if (!injector_.Attach(daemon.pid(), made_up::DaemonPath())) {
    return "its calls cannot be seen (seccomp)";
  }
  if (!daemon.WaitStarted(patience_)) {
    return daemon.Running() ? "start-up does not end" : "ended";
  }
  if (!daemon.WaitServed(patience_)) {
    return daemon.Running() ? "it is not served" : "ended";
  }
  return "";
}

std::string Bench::StartAgent(bool armed) {
  injector_.Detach();
  DaemonOptions options = golden_.Options();
  options.wait = false;
  injector_.Prepare(&options, armed);
  host().daemon.Start(options);
  return AwaitStart();
}

void Bench::KillAgent() {
  Daemon &daemon = host().daemon;
  if (daemon.Running()) {
    daemon.Signal(SIGCONT);
    daemon.Signal(SIGKILL);
  }
  daemon.WaitEnd();
  // What a defect of the agent has left must not stand in the next round's verdict.
  if (daemon.pid() > 0) {
    for (const std::string &name :
         ListDirectory(std::string(MadeUpHost::kDirectory) + "/real-proc")) {
      if (name.find_first_not_of("0123456789") == std::string::npos &&
          getsid(std::stoi(name)) == daemon.pid()) {
        kill(std::stoi(name), SIGKILL);
      }
    }
  }
  up_ = false;
}

void Bench::RestoreKept() {
  for (const auto &[path, content] : files_) {
    if (ReadFile(path) != content) {
      host().File(path, content, 0600);
    }
  }
}

std::vector<std::string> Bench::EndAgent() {
  Daemon &daemon = host().daemon;
  const double from = Now();
  daemon.Signal(SIGTERM);
  const auto status = daemon.WaitEnd(std::min(patience_, 10.0));
  const double took = Now() - from;
  std::vector<std::string> wrong;
  if (!status) {
    wrong.emplace_back("SIGTERM does not end it");
  } else if (*status != 0) {
    wrong.push_back("it ends with status " + std::to_string(*status));
  } else if (took > 3) {  // within one, on a machine that does nothing else
    wrong.push_back("it took " + std::to_string(took) + " s to end");
  }
  const pid_t pid = daemon.pid();
  Seen left;
  Eventually([&] { return (left = SeeLeft(pid)).empty(); }, 2);
  wrong.insert(wrong.end(), left.begin(), left.end());
  KillAgent();
  if (!after_.empty()) {
    for (const std::string &line : Difference(after_, SeeKept())) {
      wrong.push_back("after the end: " + line);
    }
  }
  return wrong;
}

// ---- What is seen -------------------------------------------------------------------------------

Seen Bench::SeeAll() {
  return Together({SeeObjects(), SeeWalk(host()), SeeKept(), SeeProcess(host().daemon.pid())});
}

std::vector<std::string> Bench::Compare(const Seen &expected) {
  std::vector<std::string> differences;
  // What goes on beside the polls (a session that comes back, a child that ends) has its time.
  Eventually(
      [&] {
        differences = Difference(expected, SeeAll());
        return differences.empty() || !host().daemon.Running();
      },
      2);
  return differences;
}

std::vector<std::string> Bench::CompareAtLength(const Seen &expected) {
  std::vector<std::string> differences = Compare(expected);
  if (differences.empty() || !host().daemon.Running()) {
    return differences;
  }
  const auto numbers_alone = [&] {
    return Difference(WithoutNumbers(expected), WithoutNumbers(SeeAll()));
  };
  std::vector<std::string> rest = numbers_alone();
  if (!rest.empty() && std::all_of(rest.begin(), rest.end(), ComesWithItsPeriod)) {
    for (int i = 0; i < kLongestPeriod; i++) {
      if (!Poll()) {
        return differences;
      }
    }
    rest = numbers_alone();
  }
  explained_ = rest.empty();
  return rest;
}

Verdict Bench::Judge(std::vector<std::string> differences, bool at_once, bool refused) {
  Verdict verdict;
  verdict.differences = std::move(differences);
  if (!injector_.Fired() && !meanwhile_ && call_.name != nullptr && verdict.differences.empty()) {
    verdict.outcome = Outcome::kNotReached;
    return verdict;
  }
  verdict.outcome = refused ? Outcome::kRefused : at_once ? Outcome::kHealed : Outcome::kNoEffect;
  if (explained_) {
    verdict.outcome = Outcome::kByRule;
  }
  // What no rule allows stands first.
  const auto allowed = std::stable_partition(
      verdict.differences.begin(), verdict.differences.end(),
      [this](const std::string &line) { return Rule(phase_, call_, line).empty(); });
  if (allowed != verdict.differences.begin()) {
    verdict.outcome = Outcome::kWrong;
  } else if (!verdict.differences.empty()) {
    verdict.outcome = Outcome::kByRule;
  }
  if (verdict.outcome == Outcome::kWrong) {
    verdict.place = Named(injector_.Place(), 8);
  }
  return verdict;
}

// Whether the line tells why the agent ends; others come before it on many hosts.
bool NamesAnEnd(const std::string &line) {
  for (const char *words :
       {"Start-up failed: ", "Can't start the SNMP side", "Can't take the registry",
        "Can't lock registry", "Can't clear registry", "Can't open log file"}) {
    if (line.find(words) != std::string::npos) {
      return true;
    }
  }
  return false;
}

// An end within a round: allowed at a start, with a message.
Verdict Bench::DiedInRound() {
  Daemon &daemon = host().daemon;
  const int status = daemon.WaitEnd().value_or(-1);
  std::vector<std::string> lines = daemon.LogLines();
  std::erase_if(lines, [](const std::string &line) { return line.starts_with("Info: "); });
  Verdict verdict;
  const bool at_start = phase_ == Phase::kStart || phase_ == Phase::kStartUuid;
  // A row of the file-system table that cannot be made ends the agent by this signal, at any time.
  const bool by_signal = status == 128 + SIGSEGV &&
                         std::any_of(lines.begin(), lines.end(), [](const std::string &line) {
                           return line.find("Can't create object: ") != std::string::npos;
                         });
  if (by_signal ||
      (at_start && status == 1 && std::any_of(lines.begin(), lines.end(), NamesAnEnd))) {
    verdict.outcome = Outcome::kEnded;
  } else {
    verdict.outcome = Outcome::kWrong;
    verdict.place = Named(injector_.Place(), 8);
  }
  verdict.differences.push_back("ended with status " + std::to_string(status) + ": " +
                                (lines.empty() ? "no message" : lines.back()));
  const Seen left = SeeLeft(daemon.pid());
  for (const std::string &line : left) {
    verdict.outcome = Outcome::kWrong;
    verdict.differences.push_back(line);
  }
  // Nothing kept is lost by an end, either.
  for (const auto &[path, content] : files_) {
    if (phase_ != Phase::kRequests && ReadFile(path) != content) {
      verdict.outcome = Outcome::kWrong;
      verdict.differences.push_back("lost: " + path);
    }
  }
  KillAgent();
  RestoreKept();
  return verdict;
}

// ---- Rounds -------------------------------------------------------------------------------------

bool Bench::Learn() {
  injector_.Choose({}, 0);
  call_ = {};
  // The first time settles what only a first time does (modes of kept files). What a busy machine
  // made of a start is no measure: two in a row must look alike.
  constexpr int kMostLooks = 5;
  bool alike = false;
  for (int again = 0; again < 2 || (!alike && again < kMostLooks); again++) {
    for (const bool other : {false, true}) {
      if (phase_ == Phase::kStart || phase_ == Phase::kStartUuid) {
        if (other) {
          continue;
        }
        KillAgent();
        PutFacts(false);
        const std::string problem = StartAgent(true);
        injector_.Disarm();
        if (!problem.empty()) {
          ADD_FAILURE() << problem;
          return false;
        }
        objects_[0] = SeeObjects();
        for (int i = 0; i < kPolls; i++) {
          EXPECT_TRUE(Poll());
        }
      } else {
        if (!up_) {
          PutFacts(other);
          const std::string problem = StartAgent(false);
          if (!problem.empty()) {
            ADD_FAILURE() << problem;
            return false;
          }
          up_ = true;
        }
        const Verdict verdict = phase_ == Phase::kPoll ? PollRound() : RequestRound();
        (void)verdict;
      }
      const auto counts = injector_.Counts();
      const Seen found = SeeAll();
      Seen &expected = expected_[other_ ? 1 : 0];
      alike = phase_ == Phase::kPoll || phase_ == Phase::kRequests ||
              WithoutNumbers(found) == WithoutNumbers(expected);
      expected = found;
      if (phase_ == Phase::kPoll || phase_ == Phase::kRequests) {
        objects_[other_ ? 1 : 0] = SeeObjects();
      }
      for (const auto &[number, count] : counts) {
        counts_[number] = std::max(counts_[number], count);
      }
      if (phase_ == Phase::kStart || phase_ == Phase::kStartUuid) {
        const auto wrong = EndAgent();
        EXPECT_EQ(wrong, std::vector<std::string>()) << "an undisturbed end";
        if (!wrong.empty()) {
          return false;
        }
        if (again > 0) {
          after_ = SeeKept();
        }
      }
    }
  }
  return true;
}

// A shell whose fork is announced to the listener just when a child of its ends has that fork
// interrupted, which the kernel does nowhere else; what it was to ask for is missing then. The
// agent's commands are not what fails here, so such a round is not one.
static bool ShellWasInterrupted(const Verdict &verdict) {
  return verdict.outcome == Outcome::kWrong &&
         std::any_of(verdict.logged.begin(), verdict.logged.end(), [](const std::string &line) {
           return line.find("sh: 0: Cannot fork") != std::string::npos;
         });
}

Verdict Bench::Round(const Call &call, unsigned n, bool for_good) {
  constexpr int kMost = 4;
  Verdict verdict = RoundOnce(call, n, for_good);
  for (int i = 1; i < kMost && ShellWasInterrupted(verdict); i++) {
    verdict = RoundOnce(call, n, for_good);
  }
  return verdict;
}

Verdict Bench::RoundOnce(const Call &call, unsigned n, bool for_good) {
  call_ = call;
  explained_ = false;
  injector_.Choose(call, n, for_good);
  injector_.Spoil(sabotage_);
  sabotage_ = Sabotage::kNone;
  Verdict verdict;
  if (phase_ == Phase::kStart || phase_ == Phase::kStartUuid) {
    verdict = StartRound();
  } else {
    if (!up_) {
      const Call chosen = call;
      injector_.Choose({}, 0);
      PutFacts(false);  // as the one that was learnt from
      const std::string problem = StartAgent(false);
      if (!problem.empty()) {
        verdict.outcome = Outcome::kWrong;
        verdict.differences.push_back("the undisturbed start of the next agent: " + problem);
        KillAgent();
        return verdict;
      }
      for (int i = 0; i < kPolls; i++) {
        Poll();
      }
      up_ = true;
      injector_.Choose(chosen, n, for_good);
    }
    verdict = phase_ == Phase::kPoll ? PollRound() : RequestRound();
    if (!host().daemon.Running() && verdict.outcome != Outcome::kEnded) {
      verdict = DiedInRound();
    }
  }
  meanwhile_ = nullptr;
  keep_armed_ = false;
  injector_.Disarm();
  if (verdict.outcome == Outcome::kWrong) {
    constexpr ptrdiff_t kMostLines = 12;
    const std::vector<std::string> lines = host().daemon.LogLines();
    verdict.logged.assign(lines.end() - std::min(std::ssize(lines), kMostLines), lines.end());
  }
  if (verdict.outcome == Outcome::kWrong || verdict.outcome == Outcome::kByRule) {
    // The next round begins with a new one.
    KillAgent();
    RestoreKept();
  }
  return verdict;
}

Verdict Bench::StartRound() {
  KillAgent();
  RestoreKept();
  PutFacts(false);
  std::string problem = StartAgent(true);
  injector_.Disarm();
  if (problem == "ended") {
    return DiedInRound();
  }
  if (!problem.empty()) {
    return Judge({problem}, true, false);
  }
  const bool at_once = !Difference(objects_[0], SeeObjects()).empty();
  if (meanwhile_) {
    meanwhile_();
  }
  for (int i = 0; i < kPolls; i++) {
    if (!Poll()) {
      return host().daemon.Running() ? Judge({"a poll does not end"}, true, false) : DiedInRound();
    }
  }
  std::vector<std::string> differences = CompareAtLength(expected_[0]);
  if (!host().daemon.Running()) {
    return DiedInRound();
  }
  const auto wrong = EndAgent();
  differences.insert(differences.end(), wrong.begin(), wrong.end());
  return Judge(std::move(differences), at_once, false);
}

Verdict Bench::PollRound() {
  PutFacts(!other_);
  const Seen &expected = expected_[other_ ? 1 : 0];
  injector_.Arm();
  if (meanwhile_) {
    meanwhile_();
  }
  const bool polled = Poll();
  if (!keep_armed_) {
    injector_.Disarm();
  }
  const bool at_once = !Difference(objects_[other_ ? 1 : 0], SeeObjects()).empty();
  for (int i = 0; polled && i < kPolls; i++) {
    if (!Poll()) {
      return Judge({"a later poll does not end"}, true, false);
    }
  }
  if (!polled) {
    return Judge({"the poll does not end"}, true, false);
  }
  return Judge(expected.empty() ? std::vector<std::string>() : CompareAtLength(expected), at_once,
               false);
}

Verdict Bench::RequestRound() {
  RenewProc();
  const Seen &expected = expected_[other_ ? 1 : 0];
  const std::string mark = std::to_string(++asked_);
  std::string guid = "set by a manage\x82";
  guid.replace(0, mark.size(), mark);
  const auto text = [](const std::string &value) { return "STRING: \"" + value + "\""; };
  const std::vector<Asked> asked = {
      {"tlxHoSystemRole", 's', "role " + mark, text("role " + mark),
       RegistryFile("tlxhosystemrole.dat"), "role " + mark},
      {"tlxHoSystemRoleDetail", 's', "detail " + mark, text("detail " + mark),
       RegistryFile("tlxhosystemroledetail.dat"), "detail " + mark},
      {"tlxHoGUID", 'x', Hex(guid), SpacedHex(guid), RegistryFile("tlxhoguid.dat"), guid},
      {"tlxHoOsCommonPollFreq", 'i', std::to_string(40 + asked_ % 20),
       "INTEGER: " + std::to_string(40 + asked_ % 20), "", ""},
      {"tlxHoSwVerLocation.5", 's', "shelf " + mark, text("shelf " + mark), "", ""}};
  const std::vector<Asked> before = {
      {"tlxHoSystemRole", 's', kRole, text(kRole), RegistryFile("tlxhosystemrole.dat"), kRole},
      {"tlxHoSystemRoleDetail", 's', kDetail, text(kDetail),
       RegistryFile("tlxhosystemroledetail.dat"), kDetail},
      {"tlxHoGUID", 'x', Hex(kGuid), SpacedHex(kGuid), RegistryFile("tlxhoguid.dat"), kGuid},
      {"tlxHoOsCommonPollFreq", 'i', "30", "INTEGER: 30", "", ""},
      {"tlxHoSwVerLocation.5", 's', "shelf", text("shelf"), "", ""}};
  std::vector<std::string> answers, wrong;

  injector_.Arm();
  for (const Asked &one : asked) {
    answers.push_back(host().Set(one.variable, one.type, one.value));
  }
  host().Get("tlxHoPhysicalMemorySize");
  host().Walk("tlxHoFileSysDesc");
  if (meanwhile_) {
    meanwhile_();
  }
  injector_.Disarm();

  bool refused = false;
  const bool first = expected.empty();
  // What was told noError is there, served and kept; what was not is the old or the new, and whole.
  const auto check = [&](const char *when) {
    if (!host().daemon.WaitServed(patience_)) {
      wrong.push_back(std::string("not served ") + when);
      return;
    }
    for (size_t i = 0; i < asked.size(); i++) {
      const bool accepted = answers[i] == "noError";
      refused = refused || !accepted;
      const std::string served = host().Get(asked[i].variable);
      if (served != asked[i].served && (accepted || served != before[i].served) && !first) {
        wrong.push_back(std::string(when) + ": " + asked[i].variable + " was answered " +
                        answers[i] + ", and is " + served);
      }
      const std::string kept = asked[i].file.empty() ? "" : ReadFile(asked[i].file);
      if (kept != asked[i].content && (accepted || kept != before[i].content) && !first) {
        wrong.push_back(std::string(when) + ": " + asked[i].variable + " was answered " +
                        answers[i] + ", and its file has " + std::to_string(kept.size()) +
                        " bytes: " + kept.substr(0, 40));
      }
    }
  };
  check("at once");
  for (int i = 0; i < kPolls; i++) {
    if (!Poll()) {
      wrong.emplace_back("a later poll does not end");
      return Judge(wrong, true, refused);
    }
  }
  check("three polls later");
  for (const Asked &one : before) {
    const std::string answer = host().Set(one.variable, one.type, one.value);
    if (answer != "noError") {
      wrong.push_back("a later set of " + one.variable + ": " + answer);
    }
  }
  Poll();  // publishes what was set
  if (!first) {
    const auto differences = CompareAtLength(expected);
    wrong.insert(wrong.end(), differences.begin(), differences.end());
  }
  return Judge(wrong, false, refused);
}

std::vector<std::string> Bench::Restart() {
  std::vector<std::string> wrong;
  injector_.Choose({}, 0);
  if (host().daemon.Running()) {
    wrong = EndAgent();
  }
  PutFacts(false);
  const std::string problem = StartAgent(false);
  if (!problem.empty()) {
    wrong.push_back("after a restart: " + problem);
    return wrong;
  }
  for (int i = 0; i < kPolls; i++) {
    Poll();
  }
  std::vector<std::string> differences = Compare(expected_[0]);
  // What lasts as long as the process.
  std::erase_if(differences, [](const std::string &line) {
    return line.find("tlxHoSwVerLocation") != std::string::npos ||
           line.find(".11.2.6.1.1.8.5 ") != std::string::npos;
  });
  for (const std::string &line : differences) {
    wrong.push_back("after a restart: " + line);
  }
  up_ = wrong.empty();
  return wrong;
}

}  // namespace faults
