// vexreg while one of its calls fails. The short form: each call of each command once, and
// allocations here and there; and what scripts/faults --tools makes the long form of.
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "tests/faults/tools_bench.h"

using namespace tool_faults;
using made_up::Lines;
using made_up::ReadFile;

namespace {

std::string Told(const faults::Call &call, unsigned n, const Verdict &verdict) {
  std::string text = std::string(call.name) + " " + call.error_name + " " + std::to_string(n) +
                     ": " + NameOf(verdict.judgement);
  constexpr size_t kMostLines = 12;
  for (size_t i = 0; i < verdict.differences.size() && i < kMostLines; i++) {
    text += "\n    " + verdict.differences[i].substr(0, 200);
  }
  for (const std::string &line : verdict.place) {
    text += "\n      at " + line;
  }
  return text;
}

// False when it was not reached.
bool Try(Bench &bench, const faults::Call &call, unsigned n) {
  const Verdict verdict = bench.Round(call, n);
  const std::string told = Told(call, n, verdict);
  EXPECT_TRUE(verdict.judgement != Judgement::kWrong) << told;
  return verdict.judgement != Judgement::kNotReached;
}

class FaultyTool : public testing::TestWithParam<Subject> {};

std::vector<Subject> OfShortForm() {
  std::vector<Subject> subjects = Subjects();
  std::erase_if(subjects, [](const Subject &subject) { return subject.long_form; });
  return subjects;
}

std::string NameOfSubject(const testing::TestParamInfo<Subject> &info) {
  std::string name = info.param.name;
  std::erase(name, '-');
  return name;
}

}  // namespace

TEST_P(FaultyTool, SaysWhatFailed) {
  constexpr unsigned kAllocations = 8;
  Bench bench(GetParam());
  ASSERT_TRUE(bench.Learn());
  unsigned tried = 0;
  unsigned reached = 0;
  for (size_t i = 0; i < ToolCalls().size(); i++) {
    const auto count = bench.Counts().find(ToolCalls()[i].number);
    if (count != bench.Counts().end()) {
      reached += Try(bench, ToolCalls()[i], 1 + static_cast<unsigned>(i) * 7919 % count->second);
      tried++;
    }
  }
  EXPECT_GE(tried, 3U) << "a command makes more calls than that";
  const unsigned allocations = bench.Counts().at(-1);
  ASSERT_GT(allocations, kAllocations);
  for (unsigned i = 0; i < kAllocations; i++) {
    reached += Try(bench, faults::Allocation(), 1 + i * allocations / kAllocations);
    tried++;
  }
  EXPECT_GE(reached * 4, tried * 3) << "what is not reached shows nothing";
}
INSTANTIATE_TEST_SUITE_P(Each, FaultyTool, testing::ValuesIn(OfShortForm()), NameOfSubject);

namespace {

// What scripts/faults asks for.
std::string Asked(const char *name) {
  const char *value = getenv(name);
  EXPECT_NE(value, nullptr) << name << " is not set: scripts/faults --tools runs this test";
  return value != nullptr ? value : "";
}

const Subject *AskedSubject() {
  const std::string name = Asked("VEX_FAULTS_PHASE");
  for (const Subject &subject : Subjects()) {
    if (name == subject.name) {
      return &subject;
    }
  }
  ADD_FAILURE() << "no command " << name;
  return nullptr;
}

std::string Joined(const std::vector<std::string> &texts, const char *between, size_t most) {
  std::string joined;
  for (size_t i = 0; i < texts.size() && i < most; i++) {
    joined += (i > 0 ? between : "") + texts[i].substr(0, 300);
  }
  std::replace(joined.begin(), joined.end(), '\t', ' ');
  std::replace(joined.begin(), joined.end(), '\n', ' ');
  return joined;
}

}  // namespace

TEST(Sweep, Counts) {
  const Subject *subject = AskedSubject();
  ASSERT_NE(subject, nullptr);
  Bench bench(*subject);
  ASSERT_TRUE(bench.Learn());
  FILE *file = fopen(Asked("VEX_FAULTS_OUT").c_str(), "we");
  ASSERT_NE(file, nullptr);
  for (const faults::Call &call : ToolCalls()) {
    const auto count = bench.Counts().find(call.number);
    if (count != bench.Counts().end()) {
      fprintf(file, "%s\t%s\t%u\n", call.name, call.error_name, count->second);
    }
  }
  fprintf(file, "malloc\tENOMEM\t%u\n", bench.Counts().at(-1));
  fclose(file);
}

// The rounds that a file lists: "openat<tab>EMFILE<tab>12".
TEST(Sweep, Part) {
  const Subject *subject = AskedSubject();
  ASSERT_NE(subject, nullptr);
  const std::string rounds = ReadFile(Asked("VEX_FAULTS_ROUNDS"));
  ASSERT_NE(rounds, "");
  Bench bench(*subject);
  ASSERT_TRUE(bench.Learn());
  FILE *file = fopen(Asked("VEX_FAULTS_OUT").c_str(), "we");
  ASSERT_NE(file, nullptr);
  std::vector<faults::Call> calls = ToolCalls();
  calls.push_back(faults::Allocation());
  for (const std::string &line : Lines(rounds)) {
    char name[64], error[64];
    unsigned n = 0;
    ASSERT_EQ(sscanf(line.c_str(), "%63s %63s %u", name, error, &n), 3) << line;
    const auto call = std::find_if(calls.begin(), calls.end(), [&](const faults::Call &one) {
      return std::string(name) == one.name && std::string(error) == one.error_name;
    });
    ASSERT_NE(call, calls.end()) << line;
    const Verdict verdict = bench.Round(*call, n);
    fprintf(file, "%s\t%s\t%s\t%u\t%s\t%s\t%s\n", subject->name, name, error, n,
            NameOf(verdict.judgement), Joined(verdict.differences, " | ", 6).c_str(),
            Joined(verdict.place, " < ", 8).c_str());
    fflush(file);
  }
  fclose(file);
}
