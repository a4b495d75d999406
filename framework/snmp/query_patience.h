// How long the agent thread may wait for the SNMP agent of this machine, which may be slow, frozen,
// or not know our community: silence costs a poll two seconds at most, and mostly a quarter. Pure:
// the time is told.
#ifndef VEX_FRAMEWORK_SNMP_QUERY_PATIENCE_H
#define VEX_FRAMEWORK_SNMP_QUERY_PATIENCE_H

#include <chrono>
#include <string>

#include "framework/process/clock.h"

namespace vex {

// What became of a query.
enum class QueryEnd {
  kAnswered,  // also with an error or an exception
  kRefused,   // nobody listens at the address
  kSilent,    // no answer came while it was waited for
  kNotAsked   // it could not be sent, or the process is ending: says nothing of the other side
};

class QueryPatience {
 public:
  static constexpr std::chrono::milliseconds kFull{2000};  // also of one poll in all
  static constexpr std::chrono::milliseconds kShort{250};
  static constexpr std::chrono::minutes kFullAgainAfter{1};

  // A poll, or another hook, begins.
  void Begin();
  // How long a query of that name may wait now; zero: it has failed without being asked.
  Clock::duration Allowed(const std::string &name, Clock::time_point now) const;
  // What became of a query for which `allowed` was given at `asked`.
  void Ended(const std::string &name, QueryEnd end, Clock::time_point asked,
             Clock::duration allowed, Clock::time_point now);
  // The last silent query has been answered after all, within the full patience.
  void AnsweredLate();
  // Whether the agent asked last has left a query without an answer, and none came since.
  bool Silent() const {
    return silent_;
  }

 private:
  // Whether an answer to it is less likely than usual.
  bool Doubtful(const std::string &name) const;

  Clock::duration waited_{};   // in this poll
  bool given_up_ = false;      // this poll asks nothing more
  bool silent_ = false;        // nothing has been answered since the last silence
  std::string silent_name_;    // not answered when it was asked last: another agent's, perhaps
  Clock::time_point full_at_;  // when a silent query has had the full patience
};

}  // namespace vex

#endif
