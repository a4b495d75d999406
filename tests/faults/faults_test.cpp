// The short form: each call of the system once in each phase, and allocations here and there. And
// what scripts/faults makes the long form of.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/faults/bench.h"

using namespace faults;
using faults::Outcome;
using made_up::Lines;
using made_up::ReadFile;

namespace {

std::string Told(const Call &call, unsigned n, const Verdict &verdict) {
  std::string text = std::string(call.name) + " " + call.error_name + " " + std::to_string(n) +
                     ": " + NameOf(verdict.outcome);
  if (verdict.outcome == Outcome::kWrong || verdict.outcome == Outcome::kEnded) {
    // What no rule allows comes first.
    constexpr size_t kMostLines = 24;
    for (size_t i = 0; i < verdict.differences.size() && i < kMostLines; i++) {
      text += "\n    " + verdict.differences[i].substr(0, 160);
    }
    for (const std::string &line : verdict.place) {
      text += "\n      at " + line;
    }
    for (const std::string &line : verdict.logged) {
      text += "\n      logged: " + line;
    }
  }
  return text;
}

// One round, told; what is wrong twice fails the test: once, a busy machine does that as well, by
// what comes too late.
// Whether a loaded machine may be the reason: a value that was not there in time. What is lost,
// left or ended is not tried again.
bool MayBeTheMachines(const Verdict &verdict) {
  return std::all_of(verdict.differences.begin(), verdict.differences.end(),
                     [](const std::string &line) {
                       const std::string_view what = std::string_view(line).substr(std::min<size_t>(
                           line.size(), line.starts_with("- ") || line.starts_with("+ ") ? 2 : 0));
                       return what.starts_with("object ") || what.starts_with("walk ");
                     });
}

// False when it was not reached, nor an earlier one: how many calls there are depends on what comes
// when, of those most that wait.
bool Try(Bench &bench, const Call &call, unsigned n) {
  Verdict verdict = bench.Round(call, n);
  while (verdict.outcome == Outcome::kNotReached && n > 1) {
    printf("%s\n", Told(call, n, verdict).c_str());
    n /= 2;
    verdict = bench.Round(call, n);
  }
  std::string told = Told(call, n, verdict);
  if (verdict.outcome == Outcome::kWrong && MayBeTheMachines(verdict)) {
    printf("%s\nonce; again:\n", told.c_str());
    verdict = bench.Round(call, n);
    told = Told(call, n, verdict);
  }
  printf("%s\n", told.substr(0, told.find('\n')).c_str());
  fflush(stdout);
  EXPECT_TRUE(verdict.outcome != Outcome::kWrong) << told;
  return verdict.outcome != Outcome::kNotReached;
}

struct Share {
  Phase phase;
  unsigned part, parts;
};

std::string NameOfShare(const testing::TestParamInfo<Share> &info) {
  std::string name = NameOf(info.param.phase);
  std::erase(name, '-');
  return name + std::to_string(info.param.part);
}

class FaultyCalls : public testing::TestWithParam<Share> {};
class FaultyAllocations : public testing::TestWithParam<Share> {};

}  // namespace

// Each call once, one somewhere among those that are made.
TEST_P(FaultyCalls, LeaveNothingWrong) {
  Bench bench(GetParam().phase);
  ASSERT_TRUE(bench.Learn());
  unsigned tried = 0;
  unsigned reached = 0;
  for (unsigned i = 0; i < Calls().size(); i++) {
    const Call &call = Calls()[i];
    const auto count = bench.Counts().find(call.number);
    if (count == bench.Counts().end() || i % GetParam().parts != GetParam().part) {
      continue;
    }
    reached += Try(bench, call, 1 + i * 7919 % count->second) ? 1 : 0;
    tried++;
  }
  EXPECT_GE(tried, 8U) << "the agent makes more calls than that";
  EXPECT_GE(reached * 4, tried * 3) << "what is not reached shows nothing";
  EXPECT_EQ(bench.Restart(), std::vector<std::string>());
}
INSTANTIATE_TEST_SUITE_P(Each, FaultyCalls,
                         testing::Values(Share{Phase::kPoll, 0, 2}, Share{Phase::kPoll, 1, 2},
                                         Share{Phase::kStart, 0, 4}, Share{Phase::kStart, 1, 4},
                                         Share{Phase::kStart, 2, 4}, Share{Phase::kStart, 3, 4},
                                         Share{Phase::kRequests, 0, 1}),
                         NameOfShare);

TEST_P(FaultyAllocations, LeaveNothingWrong) {
  constexpr unsigned kTried = 12;
  Bench bench(GetParam().phase);
  ASSERT_TRUE(bench.Learn());
  const unsigned count = bench.Counts().at(-1);
  ASSERT_GT(count, kTried);
  for (unsigned i = 0; i < kTried; i++) {
    Try(bench, Allocation(), 1 + i * count / kTried);
  }
  EXPECT_EQ(bench.Restart(), std::vector<std::string>());
}
INSTANTIATE_TEST_SUITE_P(Each, FaultyAllocations,
                         testing::Values(Share{Phase::kStart, 0, 1}, Share{Phase::kPoll, 0, 1},
                                         Share{Phase::kRequests, 0, 1}),
                         NameOfShare);

// A machine's own UUID is not lost by one failed read.
TEST(FaultyUuid, StaysTheMachines) {
  Bench bench(Phase::kStartUuid);
  ASSERT_TRUE(bench.Learn());
  for (const Call &call : Calls()) {
    const std::string name = call.name;
    const auto count = bench.Counts().find(call.number);
    if (count != bench.Counts().end() &&
        (name == "openat" || name == "openat2" || name == "read" || name == "fstat")) {
      Try(bench, call, 1 + count->second / 2);
    }
  }
}

namespace {

// What scripts/faults asks for.
std::string Asked(const char *name) {
  const char *value = getenv(name);
  EXPECT_NE(value, nullptr) << name << " is not set: scripts/faults runs this test";
  return value != nullptr ? value : "";
}

}  // namespace

TEST(Sweep, Counts) {
  const std::string out = Asked("VEX_FAULTS_OUT"), phase_name = Asked("VEX_FAULTS_PHASE");
  ASSERT_NE(out, "");
  for (const Phase phase : kPhases) {
    if (phase_name != NameOf(phase)) {
      continue;
    }
    Bench bench(phase);
    ASSERT_TRUE(bench.Learn());
    FILE *file = fopen(out.c_str(), "we");
    ASSERT_NE(file, nullptr) << out;
    for (const Call &call : Calls()) {
      const auto count = bench.Counts().find(call.number);
      if (count != bench.Counts().end()) {
        fprintf(file, "%s\t%s\t%u\n", call.name, call.error_name, count->second);
      }
    }
    fprintf(file, "malloc\tENOMEM\t%u\n", bench.Counts().at(-1));
    fclose(file);
    return;
  }
  ADD_FAILURE() << "no phase " << phase_name;
}

// The rounds that a file lists: "openat<tab>EMFILE<tab>12".
TEST(Sweep, Part) {
  const std::string out = Asked("VEX_FAULTS_OUT"), phase_name = Asked("VEX_FAULTS_PHASE"),
                    rounds = ReadFile(Asked("VEX_FAULTS_ROUNDS"));
  const auto *phase = std::find_if(std::begin(kPhases), std::end(kPhases),
                                   [&](Phase one) { return phase_name == NameOf(one); });
  ASSERT_NE(phase, std::end(kPhases)) << phase_name;
  ASSERT_NE(rounds, "");
  std::vector<Call> calls = Calls();
  calls.push_back(Allocation());
  Bench bench(*phase);
  ASSERT_TRUE(bench.Learn());
  FILE *file = fopen(out.c_str(), "we");
  ASSERT_NE(file, nullptr) << out;
  for (const std::string &line : Lines(rounds)) {
    char name[64], error[64];
    unsigned n = 0;
    ASSERT_EQ(sscanf(line.c_str(), "%63s %63s %u", name, error, &n), 3) << line;
    const auto call = std::find_if(calls.begin(), calls.end(), [&](const Call &one) {
      return std::string(name) == one.name && std::string(error) == one.error_name;
    });
    ASSERT_NE(call, calls.end()) << line;
    const Verdict verdict = bench.Round(*call, n);
    for (const std::string &difference : verdict.differences) {
      printf("%s %u: %s\n", name, n, difference.c_str());
    }
    fflush(stdout);
    std::string differences, place;
    for (size_t i = 0; i < verdict.differences.size() && i < 6; i++) {
      differences += (i > 0 ? " | " : "") + verdict.differences[i].substr(0, 200);
    }
    if (verdict.differences.size() > 6) {
      differences += " | and " + std::to_string(verdict.differences.size() - 6) + " more";
    }
    for (const std::string &frame : verdict.place) {
      place += (place.empty() ? "" : " < ") + frame;
    }
    std::replace(differences.begin(), differences.end(), '\t', ' ');
    std::replace(differences.begin(), differences.end(), '\n', ' ');
    fprintf(file, "%s\t%s\t%s\t%u\t%s\t%s\t%s\n", phase_name.c_str(), name, error, n,
            NameOf(verdict.outcome), differences.c_str(), place.c_str());
    fflush(file);
  }
  const auto wrong = bench.Restart();
  if (!wrong.empty()) {
    fprintf(file, "%s\trestart\t-\t0\t%s\t%s\t\n", phase_name.c_str(), NameOf(Outcome::kWrong),
            wrong.front().c_str());
  }
  fclose(file);
}
