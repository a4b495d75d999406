// The signals that end or change a view. One at a time in a process.
#ifndef VEX_TOOLS_VEXREG_SIGNALS_H
#define VEX_TOOLS_VEXREG_SIGNALS_H

#include <signal.h>

namespace vex {

// From its making on, SIGINT, SIGTERM, SIGHUP, SIGTSTP, SIGCONT and SIGWINCH are blocked and taken
// while waiting with the mask Before(), and only then.
class ViewSignals {
 public:
  ViewSignals();

  const sigset_t &Before() const {
    return before_;
  }
  // Whether one came that ends the view.
  static bool Ended();
  // Whether SIGTSTP came since the last call.
  static bool TakeSuspend();
  // Stops the process as SIGTSTP does by itself; comes back when it is continued.
  void Stop() const;

 private:
  sigset_t before_;
};

// While one lives, signals are taken at once, as what is done may wait for a terminal that takes
// nothing. Once one has come that ends the view, SIGALRM follows after so many seconds.
class TakingSignals {
 public:
  explicit TakingSignals(const ViewSignals &signals);
  ~TakingSignals();
  TakingSignals(const TakingSignals &) = delete;
  TakingSignals &operator=(const TakingSignals &) = delete;

  static constexpr unsigned kPatience = 2;

 private:
  sigset_t blocked_;
};

}  // namespace vex

#endif
