#include "framework/snmp/query_patience.h"

#include <algorithm>

namespace vex {

void QueryPatience::Begin() {
  waited_ = Clock::duration::zero();
  given_up_ = false;
}

bool QueryPatience::Doubtful(const std::string &name) const {
  return silent_ || (!silent_name_.empty() && name == silent_name_);
}

Clock::duration QueryPatience::Allowed(const std::string &name, Clock::time_point now) const {
  if (given_up_ || waited_ >= kFull) {
    return Clock::duration::zero();
  }
  const Clock::duration most =
      Doubtful(name) && now - full_at_ < kFullAgainAfter ? Clock::duration(kShort) : kFull;
  return std::min<Clock::duration>(most, kFull - waited_);
}

void QueryPatience::Ended(const std::string &name, QueryEnd end, Clock::time_point asked,
                          Clock::duration allowed, Clock::time_point now) {
  waited_ += now - asked;
  switch (end) {
    case QueryEnd::kAnswered:
      silent_ = false;
      if (name == silent_name_) {
        silent_name_.clear();
      }
      break;
    case QueryEnd::kRefused:
      // Who comes there next is another one.
      given_up_ = true;
      AnsweredLate();
      break;
    case QueryEnd::kSilent:
      given_up_ = true;
      if (allowed < kFull / 2 && !Doubtful(name)) {
        break;  // slow answers have left too little of the poll's patience to tell
      }
      silent_ = true;
      // One short of the full patience by what the poll had waited before counts as full: otherwise
      // a name that hangs behind others that answer would be waited for at each poll.
      if (allowed > kShort) {
        full_at_ = now;
      }
      silent_name_ = name;  // last: it may throw
      break;
    case QueryEnd::kNotAsked:
      break;
  }
}

void QueryPatience::AnsweredLate() {
  silent_ = false;
  silent_name_.clear();
}

}  // namespace vex
