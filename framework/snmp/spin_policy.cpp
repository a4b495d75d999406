#include "framework/snmp/spin_policy.h"

#include <algorithm>

namespace vex {

void SpinPolicy::Asked(Clock::time_point now) {
  if (answered_ == Clock::time_point()) {
    return;
  }
  const Clock::duration gap = now - answered_;
  if (gap > kAnew || used_ == kUses) {
    tried_ = 0;
    used_ = 0;
    limit_ = kLongest;
  }
  if (tried_ == kTries) {
    used_++;
  } else if (gap <= kAnew) {
    gaps_[tried_++] = gap;
    if (tried_ == kTries) {
      limit_ = Best();
    }
  }
}

// Of all limits that a gap suggests the one that brings most: what is met is worth kWorth less the
// time that it took to come, what is not has cost the limit.
Clock::duration SpinPolicy::Best() const {
  std::array<Clock::duration, kTries> sorted = gaps_;
  std::sort(sorted.begin(), sorted.end());
  Clock::duration best{0};
  Clock::duration brings{0};
  Clock::duration met{0};
  for (size_t i = 0; i < kTries; i++) {
    // Gaps are not that regular: a quarter more.
    const Clock::duration limit = sorted[i] + sorted[i] / 4;
    if (limit > kLongest) {
      break;
    }
    met += kWorth - sorted[i];
    const Clock::duration sum = met - limit * static_cast<int>(kTries - i - 1);
    if (sum > brings) {
      brings = sum;
      best = limit;
    }
  }
  return best;
}

Clock::duration SpinPolicy::Answered(Clock::time_point now) {
  answered_ = now;
  return alone_ || now < paused_until_ ? Clock::duration::zero() : limit_;
}

bool SpinPolicy::Looked(Clock::time_point before, Clock::time_point now) {
  if (now - before < kInterrupted) {
    return true;
  }
  // Soon after the last pause: the machine goes on being busy.
  const bool again = now - paused_until_ < pause_;
  pause_ = again ? std::min<Clock::duration>(pause_ * 2, kLongestPause) : kShortestPause;
  paused_until_ = now + pause_;
  return false;
}

}  // namespace vex
