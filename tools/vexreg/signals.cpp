#include "tools/vexreg/signals.h"

#include <unistd.h>

namespace vex {
namespace {

constexpr int kTaken[] = {SIGINT, SIGTERM, SIGHUP, SIGTSTP, SIGCONT, SIGWINCH};

volatile sig_atomic_t ended;
volatile sig_atomic_t suspended;
volatile sig_atomic_t at_once;  // taken while something may wait

void TakeSignal(int number) {
  if (number == SIGTSTP) {
    suspended = 1;
  } else if (number != SIGWINCH && number != SIGCONT) {
    ended = 1;
    if (at_once != 0) {
      alarm(TakingSignals::kPatience);
    }
  }
}

}  // namespace

ViewSignals::ViewSignals() {
  sigset_t taken;
  sigemptyset(&taken);
  for (const int number : kTaken) {
    sigaddset(&taken, number);
  }
  // First, so that none is taken where nobody looks at what came.
  sigprocmask(SIG_BLOCK, &taken, &before_);
  for (const int number : kTaken) {
    struct sigaction action = {};
    action.sa_handler = TakeSignal;
    sigaction(number, &action, nullptr);
  }
  // Whoever started this may have blocked them.
  for (const int number : kTaken) {
    sigdelset(&before_, number);
  }
}

bool ViewSignals::Ended() {
  return ended != 0;
}

bool ViewSignals::TakeSuspend() {
  const bool was = suspended != 0;
  suspended = 0;
  return was;
}

void ViewSignals::Stop() const {
  struct sigaction action = {};
  struct sigaction ours = {};
  action.sa_handler = SIG_DFL;
  sigaction(SIGTSTP, &action, &ours);
  raise(SIGTSTP);
  sigset_t blocked;
  sigprocmask(SIG_SETMASK, &before_, &blocked);  // stops here
  sigprocmask(SIG_SETMASK, &blocked, nullptr);
  sigaction(SIGTSTP, &ours, nullptr);
}

TakingSignals::TakingSignals(const ViewSignals &signals) {
  at_once = 1;
  if (ended != 0) {
    alarm(kPatience);
  }
  sigprocmask(SIG_SETMASK, &signals.Before(), &blocked_);
}

TakingSignals::~TakingSignals() {
  sigprocmask(SIG_SETMASK, &blocked_, nullptr);
  at_once = 0;
  alarm(0);
}

}  // namespace vex
