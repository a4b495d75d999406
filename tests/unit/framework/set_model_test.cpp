// Random sets against a model of what a manager may be told: VEX_SETS of them (5,000), from the
// random seed VEX_SEED (1). The handlers take their time, refuse and fail; deadlines pass at any
// moment; managers and masters turn away before and after the apply.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <unordered_map>

#include "framework/snmp/set_channel.h"
#include "platform/framework.h"

namespace vex {
namespace {

using std::chrono::microseconds;
using Check = SetChannel::Check;
using Apply = SetChannel::Apply;

long FromEnvironment(const char *name, long otherwise) {
  const char *text = getenv(name);
  return text != nullptr ? strtol(text, nullptr, 10) : otherwise;
}

// One variable of one set: what the agent is to do with it, and what it did.
struct Variable {
  microseconds check_takes{0};
  microseconds apply_takes{0};
  bool refuses = false;
  bool fails = false;
  bool asks = false;  // whether it is still wanted, before it is applied
  std::atomic<int> checked{0};
  std::atomic<int> applied{0};
  // After it had asked for the last time it was held up for longer than the channel waits for its
  // return.
  std::atomic<bool> held_up{false};
};

// The variables of the latest sets, by the number in SetItem::slot.
std::unordered_map<int, std::shared_ptr<Variable>> model_variables;
int first_slot;
int next_slot;
std::mutex variables_mutex;
std::atomic<int> applied_long_after{0};
std::atomic<long> passes{0};  // of the agent thread, whole ones

// Null for one that was forgotten.
std::shared_ptr<Variable> At(int slot) {
  std::lock_guard lock(variables_mutex);
  const auto place = model_variables.find(slot);
  return place != model_variables.end() ? place->second : nullptr;
}

// Those before this one are asked for no more.
void Forget(int slot) {
  std::lock_guard lock(variables_mutex);
  for (; first_slot < slot; first_slot++) {
    model_variables.erase(first_slot);
  }
}

void Take(microseconds time) {
  const Clock::time_point until = Clock::now() + time;
  while (Clock::now() < until) {
  }
}

SetChannel *asked_channel;  // by handlers

int RunAsModel(uint8_t phase, SetItem &item) {
  const std::shared_ptr<Variable> variable = At(item.slot);
  if (variable == nullptr) {
    applied_long_after += phase == SET_CHECK ? 0 : 1;
    return -1;
  }
  Take(phase == SET_CHECK ? variable->check_takes : variable->apply_takes);
  const Clock::time_point asked = Clock::now();
  if (phase != SET_CHECK && variable->asks &&
      !(asked_channel->Wanted(false) && (variable->fails || asked_channel->Wanted(true)))) {
    return -1;
  }
  (phase == SET_CHECK ? variable->checked : variable->applied)++;
  variable->held_up = Clock::now() - asked > kReturn;
  return (phase == SET_CHECK ? variable->refuses : variable->fails) ? -1 : 0;
}

// What one manager was told of one set, and what the handlers may have done by then and ever after.
struct Told {
  std::vector<std::vector<int>> parts;  // slots
  bool asked_to_apply = false;          // with every check accepted
  int too_late = -1;                    // the slot of a part that came after that
  std::vector<Apply> applies;           // by part; kPending: nobody waited for the answer
  // Of all its variables, and of those that ask, when the last answer was there.
  int applied_when_told = 0;
  int asking_when_told = 0;
  long passes_when_told = 0;

  void Answered();
  // Whether what ran when the last answer was there has come to its end: the pass that was under
  // way then has ended, and another one. On a busy machine that may take longer than fifty sets.
  bool Settled() const {
    return passes >= passes_when_told + 2;
  }
};

// One that fails has not asked for the last time.
int Applied(const Told &told, bool asking_alone) {
  int sum = 0;
  for (const std::vector<int> &part : told.parts) {
    for (const int slot : part) {
      const std::shared_ptr<Variable> variable = At(slot);
      const bool asked = variable->asks && !variable->fails && !variable->held_up;
      sum += asked || !asking_alone ? variable->applied.load() : 0;
    }
  }
  return sum;
}

void Told::Answered() {
  applied_when_told = Applied(*this, false);
  asking_when_told = Applied(*this, true);
  passes_when_told = passes;
}

// The model. Nothing is applied twice, nor without a check, nor after a variable that failed; a
// part that is told to be applied is applied whole; without a request to apply nothing is; and
// where a failure was told, at most the handler that ran at that moment comes to its end, and not
// even that one where it asks and then returns in time.
void ExpectAsTold(const Told &told) {
  ASSERT_TRUE(told.too_late < 0 || At(told.too_late)->applied == 0) << "without a check";
  bool ended = false;  // a variable has failed, or was not applied: none after it is
  for (size_t i = 0; i < told.parts.size(); i++) {
    const bool success = i < told.applies.size() && told.applies[i] == Apply::kApplied;
    for (const int slot : told.parts[i]) {
      const std::shared_ptr<Variable> variable = At(slot);
      const Variable &v = *variable;
      ASSERT_LE(v.applied, 1) << "twice";
      ASSERT_LE(v.applied, v.checked) << "without a check";
      ASSERT_FALSE(v.applied != 0 && (ended || v.refuses || !told.asked_to_apply))
          << "half, or unasked";
      ASSERT_FALSE(success && (v.applied == 0 || v.fails)) << "told to be applied";
      ended = ended || v.applied == 0 || v.fails;
    }
  }
  ASSERT_LE(Applied(told, false), told.applied_when_told + 1) << "late";
  ASSERT_LE(Applied(told, true), told.asking_when_told) << "late, though it has asked";
}

class Manager {
 public:
  Manager(SetChannel *channel, unsigned seed) : channel_(channel), random_(seed) {}

  Told Set() {
    Told told;
    const auto transaction = channel_->Begin(Clock::now() + microseconds(Random(0, 400)));
    const int parts = Random(1, 3);
    bool accepted = true;
    for (int i = 0; i < parts; i++) {
      std::vector<SetItem> items;
      told.parts.emplace_back();
      for (int n = Random(1, 3); n > 0; n--) {
        items.emplace_back();
        items.back().slot = New();
        told.parts.back().push_back(items.back().slot);
      }
      const int part = channel_->AddPart(*transaction, std::move(items));
      // The master asks part by part, or all at once.
      if (Random(0, 1) == 0) {
        accepted = WaitForCheck(*transaction, part) && accepted;
      }
      if (Random(0, 40) == 0) {
        channel_->Release(*transaction);  // the session is lost
        told.Answered();
        return told;
      }
    }
    for (int i = 0; i < parts; i++) {
      accepted = WaitForCheck(*transaction, i) && accepted;
    }
    if (!accepted && Random(0, 9) == 0) {
      channel_->RequestApply(*transaction);  // a master that does not heed what it was told
    } else if (accepted) {
      told.asked_to_apply = true;
      channel_->RequestApply(*transaction);
      if (Random(0, 9) == 0) {
        // A master that goes on all the same.
        std::vector<SetItem> items(1);
        items[0].slot = New();
        told.too_late = items[0].slot;
        channel_->AddPart(*transaction, std::move(items));
      }
      for (int i = 0; i < parts; i++) {
        Apply apply = Apply::kPending;
        while (apply == Apply::kPending && Random(0, 2000) != 0) {
          apply = channel_->ApplyOf(*transaction, i).state;
        }
        told.applies.push_back(apply);
      }
    }
    channel_->Release(*transaction);
    told.Answered();
    // Nobody was told a failure, nor could see one, while a handler still had its time.
    for (const Apply apply : told.applies) {
      if (apply == Apply::kPending) {
        told.applied_when_told = told.asking_when_told = 9;
      }
    }
    return told;
  }

 private:
  int Random(int least, int most) {
    return std::uniform_int_distribution<int>(least, most)(random_);
  }

  int New() {
    std::lock_guard lock(variables_mutex);
    const auto variable = std::make_shared<Variable>();
    variable->check_takes = microseconds(Random(0, 9) == 0 ? Random(0, 300) : 0);
    variable->apply_takes = microseconds(Random(0, 9) == 0 ? Random(0, 300) : 0);
    variable->refuses = Random(0, 19) == 0;
    variable->fails = Random(0, 19) == 0;
    variable->asks = Random(0, 1) == 0;
    model_variables[next_slot] = variable;
    return next_slot++;
  }

  bool WaitForCheck(SetTransaction &transaction, int part) {
    Check check;
    do {
      check = channel_->CheckOf(transaction, part).state;
    } while (check == Check::kPending);
    return check == Check::kAccepted;
  }

  SetChannel *channel_;
  std::mt19937 random_;
};

}  // namespace

TEST(SetModel, NoneIsAppliedLateHalfOrTwice) {
  const long sets = FromEnvironment("VEX_SETS", 5'000);
  SetChannel channel;
  ASSERT_TRUE(channel.Ready());
  asked_channel = &channel;
  std::atomic<bool> stop{false};
  std::thread agent([&] {
    while (!stop) {
      pollfd entry = {channel.Fd(), POLLIN, 0};
      if (poll(&entry, 1, 5) > 0) {
        channel.Serve(RunAsModel);
      }
      passes++;
    }
  });
  Manager manager(&channel, static_cast<unsigned>(FromEnvironment("VEX_SEED", 1)));
  long applied = 0;
  long failed = 0;
  long turned_away = 0;
  // What has been told is looked at some sets later: by then whatever comes late has come.
  std::deque<Told> told;
  for (long i = 0; i < sets && !testing::Test::HasFatalFailure(); i++) {
    told.push_back(manager.Set());
    const Told &last = told.back();
    const bool all = last.asked_to_apply &&
                     last.applies == std::vector<Apply>(last.parts.size(), Apply::kApplied);
    applied += all ? 1 : 0;
    failed += last.asked_to_apply && !all ? 1 : 0;
    turned_away += last.asked_to_apply ? 0 : 1;
    if (told.size() > 50) {
      while (!told.front().Settled()) {
        std::this_thread::yield();
      }
      ExpectAsTold(told.front());
      told.pop_front();
      Forget(told.front().parts.front().front());
    }
  }
  stop = true;
  agent.join();
  while (!told.empty() && !testing::Test::HasFatalFailure()) {
    ExpectAsTold(told.front());
    told.pop_front();
  }
  std::printf("%ld sets: %ld applied, %ld failed, %ld refused or given up\n", sets, applied, failed,
              turned_away);
  EXPECT_EQ(applied_long_after, 0);
  // All ways were gone; how often depends on how busy the machine is.
  EXPECT_GT(applied, 0);
  EXPECT_GT(failed, 0);
  EXPECT_GT(turned_away, 0);
  std::lock_guard lock(variables_mutex);
  model_variables.clear();
}

}  // namespace vex
