// How long the SNMP side spins after an answer before it sleeps.
#ifndef VEX_FRAMEWORK_SNMP_SPIN_POLICY_H
#define VEX_FRAMEWORK_SNMP_SPIN_POLICY_H

#include <array>
#include <chrono>
#include <cstddef>

#include "framework/process/clock.h"

namespace vex {

// A master that works through a GETBULK, or for a manager that walks, asks again within
// microseconds, and waking a sleeping thread takes longer than the answer. Spinning longer than the
// usual gap between two requests is processor time for nothing, though, and so is all of it on a
// busy machine, where it takes the processor from those who are to ask. So the gaps seen lately
// decide. Allocates and throws nothing. SNMP side only.
class SpinPolicy {
 public:
  static constexpr std::chrono::microseconds kLongest{75};
  // What a request that is met spinning is worth: by so much a sleeping thread answers later, with
  // the processor time of falling asleep and waking up. It decides how seldom a gap may end in
  // time.
  static constexpr std::chrono::microseconds kWorth{60};
  // Between two looks at the socket: longer than that, and others had the processor.
  static constexpr std::chrono::microseconds kInterrupted{100};
  static constexpr std::chrono::milliseconds kShortestPause{50};
  static constexpr std::chrono::milliseconds kLongestPause{1000};

  // processors: that this process may use; with a single one it never spins.
  explicit SpinPolicy(int processors) : alone_(processors < 2) {}

  // A request has come.
  void Asked(Clock::time_point now);
  // It has been answered: how long to spin from now on, 0 for not at all.
  Clock::duration Answered(Clock::time_point now);
  // Two looks one after the other while spinning. False when it is over: the machine is busy.
  bool Looked(Clock::time_point before, Clock::time_point now);

 private:
  // Whoever sleeps sees gaps that are longer, by the time of waking up. So the longest spin is
  // tried for some requests in a row, to see the true ones: now and then, and when a manager comes
  // anew.
  static constexpr size_t kTries = 32;
  static constexpr size_t kUses = 992;
  static constexpr std::chrono::seconds kAnew{1};

  Clock::duration Best() const;

  const bool alone_;
  std::array<Clock::duration, kTries> gaps_{};
  size_t tried_ = 0;  // how many of them are known
  size_t used_ = 0;   // requests since the last try
  Clock::duration limit_ = kLongest;
  Clock::time_point answered_{};  // none yet
  Clock::time_point paused_until_{};
  Clock::duration pause_ = kShortestPause;
};

}  // namespace vex

#endif
